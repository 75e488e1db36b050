#import <Foundation/Foundation.h>
#import <ServiceManagement/ServiceManagement.h>

#include <fcntl.h>
#include <limits.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <string>

#include "shared/platform/linux/functions/AuthorizationObject.h"
#include "shared/platform/linux/systemd/JobUnits.h"

CFStringRef kSMDomainSystemLaunchd = CFSTR("kSMDomainSystemLaunchd");

namespace {

// Keys of launchd.plist(5).
NSString* const kLabelKey = @"Label";
NSString* const kRunAtLoadKey = @"RunAtLoad";
NSString* const kKeepAliveKey = @"KeepAlive";
NSString* const kStandardOutPathKey = @"StandardOutPath";
NSString* const kProgramArgumentsKey = @"ProgramArguments";

constexpr mode_t kOutputFileMode = 0600;

/// Sets the caller's error to the errno `code`. Returns 0.
Boolean Fail(CFErrorRef* outError, int code) {
  if (outError != nullptr) {
    *outError =
        (CFErrorRef)[[NSError alloc] initWithDomain:NSPOSIXErrorDomain code:code userInfo:nil];
  }
  return 0;
}

/// A string that a C string can hold; false for anything else. (UTF8String would raise an exception
/// for half of a surrogate pair.)
bool ReadText(id value, std::string& text) {
  if (![value isKindOfClass:[NSString class]]) {
    return false;
  }
  NSData* bytes = [value dataUsingEncoding:NSUTF8StringEncoding];
  if (bytes == nil) {
    return false;
  }
  text.assign(static_cast<const char*>([bytes bytes]), [bytes length]);
  return text.find('\0') == std::string::npos;
}

bool IsBoolean(id value, BOOL expected) {
  return [value isKindOfClass:[NSNumber class]] && [value boolValue] == expected;
}

bool ReadArguments(id value, JobUnit& job) {
  if (![value isKindOfClass:[NSArray class]]) {
    return false;
  }
  for (id each in value) {
    if (!ReadText(each, job.arguments.emplace_back())) {
      return false;
    }
  }
  return !job.arguments.empty();
}

/// Reads the job's keys into `job`, except the files. False when one is missing, unknown, or has a
/// value that is not supported.
bool ReadKeys(NSDictionary* dictionary, JobUnit& job) {
  NSArray* known = [NSArray arrayWithObjects:kLabelKey, kRunAtLoadKey, kKeepAliveKey,
                                             kStandardOutPathKey, kProgramArgumentsKey, nil];
  for (id key in dictionary) {
    if (![known containsObject:key]) {
      return false;
    }
  }
  std::string label;
  if (!ReadText([dictionary objectForKey:kLabelKey], label)) {
    return false;
  }
  job.name = JobUnitName(label);
  id keepAlive = [dictionary objectForKey:kKeepAliveKey];
  return !job.name.empty() && IsBoolean([dictionary objectForKey:kRunAtLoadKey], YES) &&
         (keepAlive == nil || IsBoolean(keepAlive, NO)) &&
         ReadArguments([dictionary objectForKey:kProgramArgumentsKey], job);
}

/// Opens the job's output with the caller's own rights, so that no job writes where its submitter
/// may not. A FIFO without a reader is an error and not waited for. False with errno.
bool OpenOutput(NSDictionary* dictionary, JobUnit& job) {
  id path = [dictionary objectForKey:kStandardOutPathKey];
  if (path == nil) {
    return true;
  }
  std::string text;
  if (!ReadText(path, text)) {
    errno = EINVAL;
    return false;
  }
  job.output = open(text.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK,
                    kOutputFileMode);
  // The flag is for opening only: the program shares it, and writes as if it had opened the file.
  return job.output >= 0 && fcntl(job.output, F_SETFL, O_APPEND) == 0;
}

bool FindExecutable(JobUnit& job) {
  char path[PATH_MAX];
  if (realpath(job.arguments.front().c_str(), path) == nullptr) {
    return false;
  }
  job.executable = path;
  return true;
}

bool MayInteract(AuthorizationRef authorization) {
  return authorization != nullptr && ObjectOf(authorization)->mayInteract;
}

bool IsKnownDomain(CFStringRef domain) {
  return domain != nullptr && CFEqual(domain, kSMDomainSystemLaunchd);
}

}  // namespace

Boolean SMJobSubmit(CFStringRef domain, CFDictionaryRef jobDictionary, AuthorizationRef auth,
                    CFErrorRef* outError) {
  NSDictionary* dictionary = (NSDictionary*)jobDictionary;
  JobUnit job;
  if (!IsKnownDomain(domain) || !ReadKeys(dictionary, job)) {
    return Fail(outError, EINVAL);
  }
  if (!FindExecutable(job) || !OpenOutput(dictionary, job)) {
    return Fail(outError, errno);
  }
  const int result = StartJobUnit(job, MayInteract(auth));
  return result < 0 ? Fail(outError, -result) : 1;
}

Boolean SMJobRemove(CFStringRef domain, CFStringRef jobLabel, AuthorizationRef auth,
                    Boolean /*wait*/, CFErrorRef* outError) {
  std::string label;
  const std::string unit =
      ReadText((NSString*)jobLabel, label) ? JobUnitName(label) : std::string();
  if (!IsKnownDomain(domain) || unit.empty()) {
    return Fail(outError, EINVAL);
  }
  const int result = RemoveJobUnit(unit, MayInteract(auth));
  return result < 0 ? Fail(outError, -result) : 1;
}
