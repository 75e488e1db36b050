#import "tests/unit/ElevatedLaunch/FakePlatform.h"

#include <libproc.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>

#include <algorithm>

namespace {

const char kAuthorizationObject = 0;

std::string Text(NSString* text) { return text == nil ? "(nil)" : [text UTF8String]; }

std::string Owner(AuthorizationRef authorization) {
  return authorization == kFakeAuthorization ? "authorized" : "unauthorized";
}

std::string Domain(CFStringRef domain) {
  return domain == kSMDomainSystemLaunchd ? "system" : "other domain";
}

void Record(const std::string& call) { fakePlatform->calls.push_back(call); }

void Poll() {
  ++fakePlatform->listings;
  if (fakePlatform->onPoll) {
    fakePlatform->onPoll(fakePlatform->listings);
  }
}

}  // namespace

FakePlatform* fakePlatform;
const AuthorizationRef kFakeAuthorization =
    reinterpret_cast<AuthorizationRef>(&kAuthorizationObject);

void ResetFakePlatform() {
  if (fakePlatform != nullptr) {
    [fakePlatform->job release];
  }
  delete fakePlatform;
  fakePlatform = new FakePlatform;
}

CFStringRef kSMDomainSystemLaunchd = CFSTR("kSMDomainSystemLaunchd");

extern "C" {

int proc_listpids(uint32_t type, uint32_t typeinfo, void* buffer, int buffersize) {
  if (type != PROC_ALL_PIDS || typeinfo != 0) {
    return 0;
  }
  FakePlatform& fake = *fakePlatform;
  if (buffer == nullptr) {
    const size_t size = fake.tables.empty() ? 0 : fake.tables.front().size() * sizeof(pid_t);
    return fake.announcedSize >= 0 ? fake.announcedSize : static_cast<int>(size);
  }
  Poll();
  fake.bufferSizes.push_back(buffersize);
  if (fake.tables.empty()) {
    return 0;
  }
  const std::vector<pid_t> table = fake.tables.front();
  if (fake.tables.size() > 1) {
    fake.tables.erase(fake.tables.begin());
  }
  const size_t count =
      std::min(table.size(), static_cast<size_t>(std::max(buffersize, 0)) / sizeof(pid_t));
  memcpy(buffer, table.data(), count * sizeof(pid_t));
  return static_cast<int>(count * sizeof(pid_t));
}

int proc_pidpath(int pid, void* buffer, uint32_t buffersize) {
  FakePlatform& fake = *fakePlatform;
  fake.askedPaths.push_back(pid);
  fake.pathCapacities.push_back(buffersize);
  const auto found = fake.paths.find(pid);
  if (found == fake.paths.end() || found->second.size() >= buffersize) {
    return 0;
  }
  memcpy(buffer, found->second.c_str(), found->second.size() + 1);
  return static_cast<int>(found->second.size());
}

OSStatus AuthorizationCreate(const AuthorizationRights* rights,
                             const AuthorizationEnvironment* environment, AuthorizationFlags flags,
                             AuthorizationRef* authorization) {
  std::string call = "create " + std::to_string(flags);
  for (uint32_t i = 0; i < rights->count; ++i) {
    const AuthorizationItem& item = rights->items[i];
    call += std::string(" ") + item.name + (item.value == nullptr ? " no value" : " value") + " " +
            std::to_string(item.valueLength) + " " + std::to_string(item.flags);
  }
  Record(call + (environment == nullptr ? "" : " environment"));
  if (fakePlatform->createStatus == errAuthorizationSuccess) {
    *authorization = kFakeAuthorization;
  }
  return fakePlatform->createStatus;
}

OSStatus AuthorizationFree(AuthorizationRef authorization, AuthorizationFlags flags) {
  Record("free " + Owner(authorization) + " " + std::to_string(flags));
  return errAuthorizationSuccess;
}

OSStatus AuthorizationExecuteWithPrivileges(AuthorizationRef authorization, const char* pathToTool,
                                            AuthorizationFlags options, char* const* arguments,
                                            FILE** communicationsPipe) {
  FakePlatform& fake = *fakePlatform;
  Record("execute " + Owner(authorization) + " " + std::to_string(options));
  fake.toolPath = pathToTool;
  for (char* const* each = arguments; *each != nullptr; ++each) {
    fake.toolArguments.push_back(*each);
  }
  if (fake.executeStatus == errAuthorizationSuccess) {
    FILE* file = fake.openPipe ? fake.openPipe() : tmpfile();
    if (!fake.openPipe) {
      (void)fwrite(fake.printed.data(), 1, fake.printed.size(), file);
      rewind(file);
    }
    *communicationsPipe = file;
  }
  return fake.executeStatus;
}

Boolean SMJobSubmit(CFStringRef domain, CFDictionaryRef job, AuthorizationRef auth,
                    CFErrorRef* outError) {
  FakePlatform& fake = *fakePlatform;
  Record("submit " + Domain(domain) + " " + Owner(auth) + (outError == nullptr ? "" : " error"));
  [fake.job release];
  fake.job = [(NSDictionary*)job copy];
  if (fake.onSubmit) {
    fake.onSubmit();
  }
  return fake.submitResult ? 1 : 0;
}

Boolean SMJobRemove(CFStringRef domain, CFStringRef jobLabel, AuthorizationRef auth, Boolean wait,
                    CFErrorRef* outError) {
  Record("remove " + Domain(domain) + " " + Text((NSString*)jobLabel) + " " + Owner(auth) +
         (wait ? " wait" : "") + (outError == nullptr ? "" : " error"));
  if (fakePlatform->onRemove) {
    fakePlatform->onRemove();
  }
  return fakePlatform->removeResult ? 1 : 0;
}

time_t time(time_t* result) {
  time_t now = 0;
  if (fakePlatform == nullptr || fakePlatform->times.empty()) {
    struct timeval real = {};
    gettimeofday(&real, nullptr);
    now = real.tv_sec;
  } else {
    FakePlatform& fake = *fakePlatform;
    now = fake.times[std::min(fake.timesTold, fake.times.size() - 1)];
    ++fake.timesTold;
  }
  if (result != nullptr) {
    *result = now;
  }
  return now;
}

}  // extern "C"
