#import <Foundation/Foundation.h>
#import <ServiceManagement/ServiceManagement.h>

#include <fcntl.h>
#include <limits.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "shared/platform/linux/functions/AuthorizationObject.h"
#include "shared/platform/linux/systemd/JobUnits.h"
#include "shared/platform/linux/systemd/SystemBus.h"

CFStringRef kSMDomainSystemLaunchd = CFSTR("kSMDomainSystemLaunchd");

namespace {

// Keys of launchd.plist(5).
NSString* const kLabelKey = @"Label";
NSString* const kRunAtLoadKey = @"RunAtLoad";
NSString* const kKeepAliveKey = @"KeepAlive";
NSString* const kStandardOutPathKey = @"StandardOutPath";
NSString* const kProgramArgumentsKey = @"ProgramArguments";

constexpr char kNoSuchUnit[] = "org.freedesktop.systemd1.NoSuchUnit";

constexpr mode_t kOutputFileMode = 0600;

// launchd.plist(5)'s default: how long a job may take to end (ExitTimeOut) before it is killed.
constexpr uint64_t kExitMicroseconds = 20'000'000;

// The interval and the number of checks whether a job is gone: twice as long as systemd takes to
// end it and then to kill it.
constexpr useconds_t kRemovalPollMicroseconds = 10'000;
constexpr int kRemovalPolls = 8'000;

/// A job as systemd gets it.
struct Job {
  std::string unit;
  std::string executable;
  std::vector<std::string> arguments;
  /// The open file of the standard output; -1 for none.
  int output = -1;

  Job() = default;
  ~Job() {
    if (output >= 0) {
      close(output);
    }
  }
  Job(const Job&) = delete;
  Job& operator=(const Job&) = delete;
};

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

bool ReadArguments(id value, Job& job) {
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
bool ReadKeys(NSDictionary* dictionary, Job& job) {
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
  job.unit = JobUnitName(label);
  id keepAlive = [dictionary objectForKey:kKeepAliveKey];
  return !job.unit.empty() && IsBoolean([dictionary objectForKey:kRunAtLoadKey], YES) &&
         (keepAlive == nil || IsBoolean(keepAlive, NO)) &&
         ReadArguments([dictionary objectForKey:kProgramArgumentsKey], job);
}

/// Opens the job's output with the caller's own rights, so that no job writes where its submitter
/// may not. A FIFO without a reader is an error and not waited for. False with errno.
bool OpenOutput(NSDictionary* dictionary, Job& job) {
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

bool FindExecutable(Job& job) {
  char path[PATH_MAX];
  if (realpath(job.arguments.front().c_str(), path) == nullptr) {
    return false;
  }
  job.executable = path;
  return true;
}

/// A call of a method of systemd's manager. After a failure the rest of it does nothing.
class ManagerCall {
 public:
  /// `authorization`, which may be null, decides whether the user may be asked.
  ManagerCall(sd_bus* bus, const char* member, AuthorizationRef authorization) : bus_(bus) {
    sd_bus_message* message = nullptr;
    result_ = sd_bus_message_new_method_call(bus, &message, kSystemdService, kSystemdObject,
                                             kSystemdManager, member);
    message_.reset(message);
    if (message != nullptr && authorization != nullptr && ObjectOf(authorization)->mayInteract) {
      sd_bus_message_set_allow_interactive_authorization(message, 1);
      sd_bus_set_method_call_timeout(bus, kInteractionMicroseconds);
    }
  }

  /// As sd_bus_message_append(3).
  template <typename... Values>
  void Append(const char* types, Values... values) {
    Do(sd_bus_message_append, types, values...);
  }
  void Open(char type, const char* contents) { Do(sd_bus_message_open_container, type, contents); }
  void Close() { Do(sd_bus_message_close_container); }

  /// Sends the call and waits for the answer. A negative errno, and perhaps the bus's error, when
  /// any part of the call has failed.
  int Send(BusError& error) {
    return result_ < 0 ? result_ : sd_bus_call(bus_, message_.get(), 0, error.get(), nullptr);
  }

 private:
  template <typename Function, typename... Arguments>
  void Do(Function function, Arguments... arguments) {
    if (result_ >= 0) {
      result_ = function(message_.get(), arguments...);
    }
  }

  sd_bus* bus_;
  BusMessage message_;
  int result_;
};

/// Appends the command as systemd.service(5) has it, without expansion of variables.
void AppendCommand(ManagerCall& call, const Job& job) {
  call.Open('r', "sv");
  call.Append("s", "ExecStartEx");
  call.Open('v', "a(sasas)");
  call.Open('a', "(sasas)");
  call.Open('r', "sasas");
  call.Append("s", job.executable.c_str());
  call.Open('a', "s");
  for (const std::string& each : job.arguments) {
    call.Append("s", each.c_str());
  }
  call.Close();
  call.Append("as", 1, "no-env-expand");
  call.Close();
  call.Close();
  call.Close();
  call.Close();
}

/// Appends the arguments of StartTransientUnit: name, mode, properties, and no further units.
void AppendUnit(ManagerCall& call, const Job& job) {
  call.Append("ss", job.unit.c_str(), "fail");
  call.Open('a', "(sv)");
  AppendCommand(call, job);
  call.Append("(sv)", "Type", "s", "exec");
  // The descriptor replaces StandardOutput, which must differ from StandardError: systemd would
  // otherwise send both to the descriptor.
  call.Append("(sv)", "StandardOutput", "s", "null");
  call.Append("(sv)", "StandardError", "s", "journal");
  call.Append("(sv)", "TimeoutStopUSec", "t", kExitMicroseconds);
  call.Append("(sv)", "IgnoreSIGPIPE", "b", 0);
  // It stays registered after its program's end.
  call.Append("(sv)", "RemainAfterExit", "b", 1);
  if (job.output >= 0) {
    call.Append("(sv)", "StandardOutputFileDescriptor", "h", job.output);
  }
  call.Close();
  call.Append("a(sa(sv))", 0);
}

int Submit(sd_bus* bus, const Job& job, AuthorizationRef authorization, BusError& error) {
  ManagerCall call(bus, "StartTransientUnit", authorization);
  AppendUnit(call, job);
  return call.Send(error);
}

int StopUnit(sd_bus* bus, const std::string& unit, AuthorizationRef authorization,
             BusError& error) {
  ManagerCall call(bus, "StopUnit", authorization);
  call.Append("ss", unit.c_str(), "replace");
  return call.Send(error);
}

/// Makes systemd forget a unit that has failed.
int ResetFailedUnit(sd_bus* bus, const std::string& unit, AuthorizationRef authorization,
                    BusError& error) {
  ManagerCall call(bus, "ResetFailedUnit", authorization);
  call.Append("s", unit.c_str());
  return call.Send(error);
}

/// The unit's state of systemd's "ActiveState"; a negative errno when it is not loaded.
int ReadState(sd_bus* bus, const std::string& unit, std::string& state, BusError& error) {
  sd_bus_message* reply = nullptr;
  int result = sd_bus_call_method(bus, kSystemdService, kSystemdObject, kSystemdManager, "GetUnit",
                                  error.get(), &reply, "s", unit.c_str());
  const BusMessage owner(reply);
  const char* object = nullptr;
  if (result < 0 || (result = sd_bus_message_read(reply, "o", &object)) < 0) {
    return result;
  }
  char* text = nullptr;
  result = sd_bus_get_property_string(bus, kSystemdService, object, kUnitInterface, "ActiveState",
                                      error.get(), &text);
  if (result >= 0) {
    state = text;
    free(text);
  }
  return result;
}

/// Whether a call failed because systemd does not know the unit.
bool IsGone(const BusError& error) {
  return error.Is(kNoSuchUnit) || error.Is(SD_BUS_ERROR_UNKNOWN_OBJECT);
}

/// Waits until systemd has forgotten the unit; a failed one is reset. 0, or a negative errno and
/// perhaps the bus's error.
int AwaitRemoval(sd_bus* bus, const std::string& unit, AuthorizationRef authorization,
                 BusError& error) {
  for (int i = 0; i < kRemovalPolls; ++i) {
    std::string state;
    int result = ReadState(bus, unit, state, error);
    if (result >= 0 && state == "failed") {
      result = ResetFailedUnit(bus, unit, authorization, error);
    }
    if (result < 0) {
      return IsGone(error) ? 0 : result;
    }
    usleep(kRemovalPollMicroseconds);
  }
  return -ETIMEDOUT;
}

/// Stops the unit and waits until it is gone. 0 or more, or a negative errno.
int Remove(sd_bus* bus, const std::string& unit, AuthorizationRef authorization) {
  BusError error;
  std::string state;
  int result = ReadState(bus, unit, state, error);
  if (result >= 0) {
    result = StopUnit(bus, unit, authorization, error);
  }
  return result < 0 ? result : AwaitRemoval(bus, unit, authorization, error);
}

bool IsKnownDomain(CFStringRef domain) {
  return domain != nullptr && CFEqual(domain, kSMDomainSystemLaunchd);
}

}  // namespace

Boolean SMJobSubmit(CFStringRef domain, CFDictionaryRef jobDictionary, AuthorizationRef auth,
                    CFErrorRef* outError) {
  NSDictionary* dictionary = (NSDictionary*)jobDictionary;
  Job job;
  if (!IsKnownDomain(domain) || !ReadKeys(dictionary, job)) {
    return Fail(outError, EINVAL);
  }
  if (!FindExecutable(job) || !OpenOutput(dictionary, job)) {
    return Fail(outError, errno);
  }
  int result = 0;
  const BusConnection bus = OpenSystemBus(result);
  if (bus != nullptr) {
    BusError error;
    result = Submit(bus.get(), job, auth, error);
  }
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
  int result = 0;
  const BusConnection bus = OpenSystemBus(result);
  if (bus != nullptr) {
    result = Remove(bus.get(), unit, auth);
  }
  return result < 0 ? Fail(outError, -result) : 1;
}
