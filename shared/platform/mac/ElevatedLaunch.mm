#import "shared/platform/mac/ElevatedLaunch.h"

#include <ServiceManagement/ServiceManagement.h>
#include <errno.h>
#include <limits.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <memory>

#include "shared/platform/mac/MacSystemVersion.h"
#include "shared/platform/mac/ProcessLookup.h"
#include "shared/platform/posix/Uninterrupted.h"

namespace {

constexpr char kRight[] = "com.apple.ServiceManagement.blesshelper";

// The last system version on which the tool is run directly, as (major << 16) | minor.
constexpr uint32_t kLastDirectVersion = 0x0A0006;

NSString* const kLabelKey = @"Label";
NSString* const kRunAtLoadKey = @"RunAtLoad";
NSString* const kKeepAliveKey = @"KeepAlive";
NSString* const kStandardOutPathKey = @"StandardOutPath";
NSString* const kProgramArgumentsKey = @"ProgramArguments";

constexpr char kOutputFileTemplate[] = "/tmp/tarvixsmuoutpXXXXXX";

// How long the tool's process may take to appear.
constexpr time_t kAppearanceSeconds = 3;

constexpr size_t kLineCapacity = 4096;

bool HasLaunchJobs() {
  MacSystemVersion& version = MacSystemVersion::sCachedSystemVersion;
  if (version == MacSystemVersion::sMacSystemVersionUninitialized) {
    version = MacSystemVersion::GetSystemVersion();
  }
  const uint32_t packed = (uint32_t{version.major} << 16U) | version.minor;
  return packed > kLastDirectVersion;
}

// Returns `text` in UTF-8, owned by the autorelease pool. Null for nil, for an object that is not a
// string, and for text that a C string cannot represent, such as text with a zero character in it.
const char* CString(NSString* text) {
  if (![text isKindOfClass:[NSString class]]) {
    return nullptr;
  }
  NSMutableData* bytes = [[[text dataUsingEncoding:NSUTF8StringEncoding] mutableCopy] autorelease];
  if (bytes == nil) {
    // Untested: only Foundation's encoder could fail here.
    return nullptr;
  }
  const size_t length = [bytes length];
  [bytes setLength:length + 1];  // The new byte is zero.
  return memchr([bytes bytes], 0, length) == nullptr ? static_cast<const char*>([bytes bytes])
                                                     : nullptr;
}

// Frees the authorization in its destructor, also when an exception of a caller's object ends the
// function.
class AuthorizationOwner {
 public:
  explicit AuthorizationOwner(AuthorizationRef authorization) : authorization_(authorization) {}
  AuthorizationOwner(const AuthorizationOwner&) = delete;
  AuthorizationOwner& operator=(const AuthorizationOwner&) = delete;
  ~AuthorizationOwner() { AuthorizationFree(authorization_, kAuthorizationFlagDefaults); }

 private:
  AuthorizationRef authorization_;
};

void RemoveJob(AuthorizationRef authorization, NSString* label) {
  SMJobRemove(kSMDomainSystemLaunchd, (CFStringRef)label, authorization, true, nullptr);
}

// Makes an empty file that only the caller's user can read. Returns its path; nil on failure.
NSString* MakeOutputFile() {
  char path[sizeof(kOutputFileTemplate)];
  memcpy(path, kOutputFileTemplate, sizeof(path));
  const int file = mkstemp(path);
  if (file < 0) {
    return nil;
  }
  close(file);
  return [NSString stringWithUTF8String:path];
}

NSDictionary* JobDictionary(NSString* label, NSString* outputPath, NSString* toolPath,
                            NSArray* arguments) {
  NSMutableArray* program = [NSMutableArray arrayWithObject:toolPath];
  if (arguments != nil) {
    [program addObjectsFromArray:arguments];
  }
  return [NSDictionary dictionaryWithObjectsAndKeys:label, kLabelKey, [NSNumber numberWithBool:YES],
                                                    kRunAtLoadKey, [NSNumber numberWithBool:NO],
                                                    kKeepAliveKey, outputPath, kStandardOutPathKey,
                                                    program, kProgramArgumentsKey, nil];
}

// Waits until a process of `executablePath` has started and ended. Returns false when none has been
// seen in time.
bool AwaitProcess(const char* executablePath) {
  const time_t start = time(nullptr);
  for (;;) {
    const pid_t pid = findPID(executablePath);
    if (pid != 0) {
      while (isPIDAlive(pid)) {
      }
      return true;
    }
    if (time(nullptr) >= start + kAppearanceSeconds) {
      return false;
    }
  }
}

// Runs the tool as a job. `executablePath` is its path without links.
bool RunJob(AuthorizationRef authorization, NSString* label, NSString* toolPath,
            const char* executablePath, NSArray* arguments, NSString** output) {
  NSString* outputPath = MakeOutputFile();
  if (outputPath == nil) {
    return false;
  }
  NSDictionary* job = JobDictionary(label, outputPath, toolPath, arguments);
  if (!SMJobSubmit(kSMDomainSystemLaunchd, (CFDictionaryRef)job, authorization, nullptr)) {
    return false;
  }
  if (output == nullptr) {
    return true;
  }
  if (!AwaitProcess(executablePath)) {
    return false;
  }
  *output = [NSString stringWithContentsOfFile:outputPath
                                      encoding:NSUTF8StringEncoding
                                         error:nullptr];
  RemoveJob(authorization, label);
  return true;
}

struct MemoryDeleter {
  void operator()(void* memory) const { free(memory); }
};
using ArgumentVector = std::unique_ptr<char*, MemoryDeleter>;

// Returns the null-terminated vector of the arguments' texts, which the autorelease pool owns; null
// when an argument cannot be a C string, and when memory runs out.
ArgumentVector MakeArgumentVector(NSArray* arguments) {
  const NSUInteger count = [arguments count];
  ArgumentVector vector(static_cast<char**>(calloc(count + 1, sizeof(char*))));
  for (NSUInteger i = 0; vector != nullptr && i < count; ++i) {
    char* const text = const_cast<char*>(CString([arguments objectAtIndex:i]));
    if (text == nullptr) {
      return nullptr;
    }
    vector.get()[i] = text;
  }
  return vector;
}

void AppendLine(NSMutableString* text, const char* line, size_t length) {
  NSString* decoded = [[NSString alloc] initWithBytes:line
                                               length:length
                                             encoding:NSUTF8StringEncoding];
  if (decoded == nil) {
    decoded = [[NSString alloc] initWithBytes:line
                                       length:length
                                     encoding:NSISOLatin1StringEncoding];
  }
  [text appendString:decoded];
  [decoded release];
}

// Appends the lines of `pipe` to `text`, which may be nil, up to its end or a line that is too
// long.
void ReadLines(FILE* pipe, NSMutableString* text) {
  char line[kLineCapacity];
  size_t length = 0;
  int byte = NextByte(pipe);
  while (byte != EOF && length < kLineCapacity) {
    line[length++] = static_cast<char>(byte);
    if (byte == '\n') {
      AppendLine(text, line, length);
      length = 0;
    }
    if (length < kLineCapacity) {
      byte = NextByte(pipe);
    }
  }
  AppendLine(text, line, length);
}

}  // namespace

bool launchElevated(NSString* label, NSString* toolPath, NSArray* arguments, NSString** output) {
  AuthorizationItem right = {kRight, 0, nullptr, 0};
  const AuthorizationRights rights = {1, &right};
  const AuthorizationFlags flags = kAuthorizationFlagInteractionAllowed |
                                   kAuthorizationFlagExtendRights | kAuthorizationFlagPreAuthorize;
  AuthorizationRef authorization = nullptr;
  if (AuthorizationCreate(&rights, nullptr, flags, &authorization) != errAuthorizationSuccess) {
    return false;
  }
  const AuthorizationOwner owner(authorization);
  return launchElevatedWithAuthorization(authorization, label, toolPath, arguments, output);
}

bool launchElevatedWithAuthorization(AuthorizationRef authorization, NSString* label,
                                     NSString* toolPath, NSArray* arguments, NSString** output) {
  if (!HasLaunchJobs()) {
    return launchElevatedWithAuthorizationOnSnowLeopard(authorization, toolPath, arguments, output);
  }
  if (output != nullptr) {
    *output = nil;
  }
  if (label == nil) {
    return false;  // A dictionary cannot contain nil.
  }
  RemoveJob(authorization, label);
  const char* tool = CString(toolPath);
  char executablePath[PATH_MAX];
  if (tool == nullptr || realpath(tool, executablePath) == nullptr) {
    return false;
  }
  return RunJob(authorization, label, toolPath, executablePath, arguments, output);
}

bool launchElevatedWithAuthorizationOnSnowLeopard(AuthorizationRef authorization,
                                                  NSString* toolPath, NSArray* arguments,
                                                  NSString** output) {
  NSMutableString* text = nil;
  if (output != nullptr) {
    text = [NSMutableString string];
    *output = text;
  }
  const char* tool = CString(toolPath);
  const ArgumentVector vector = MakeArgumentVector(arguments);
  if (tool == nullptr || vector == nullptr) {
    return false;
  }
  FILE* pipe = nullptr;
  const OSStatus status = AuthorizationExecuteWithPrivileges(
      authorization, tool, kAuthorizationFlagDefaults, vector.get(), &pipe);
  if (status != errAuthorizationSuccess) {
    return false;
  }
  ReadLines(pipe, text);
  (void)fclose(pipe);
  return true;
}
