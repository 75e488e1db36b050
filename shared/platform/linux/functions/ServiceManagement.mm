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

// launchd.plist(5)'s defaults: how long a job may take to end (ExitTimeOut) before it is killed,
// and how long one that is kept alive waits before it is started again (ThrottleInterval).
constexpr uint64_t kExitMicroseconds = 20'000'000;
constexpr uint64_t kThrottleMicroseconds = 10'000'000;

// How often, and how many times, it is looked whether a job is gone: for twice as long as systemd
// takes to end it and then to kill it.
constexpr useconds_t kRemovalPollMicroseconds = 10'000;
constexpr int kRemovalPolls = 8'000;

/// A job as systemd is to be told of it.
struct Job {
  std::string unit;
  std::string executable;
  std::vector<std::string> arguments;
  bool isKeptAlive = false;
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

/// Tells the caller why it failed: `what`, and the bus's or the system's words. Returns 0.
Boolean Fail(CFErrorRef* outError, int code, NSString* what, const char* why = nullptr) {
  if (outError != nullptr) {
    NSString* reason = why == nullptr ? nil : [NSString stringWithUTF8String:why];
    NSString* text = reason == nil ? what : [NSString stringWithFormat:@"%@: %@", what, reason];
    NSDictionary* info = [NSDictionary dictionaryWithObject:text forKey:NSLocalizedDescriptionKey];
    *outError =
        (CFErrorRef)[[NSError alloc] initWithDomain:NSPOSIXErrorDomain code:code userInfo:info];
  }
  return 0;
}

Boolean FailOnBus(CFErrorRef* outError, int result, NSString* what, const BusError& error) {
  return Fail(outError, -result, what,
              error.Message() != nullptr ? error.Message() : strerror(-result));
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

/// What is wrong with the job's keys; nil when nothing is. Fills `job` but for the files.
NSString* ReadKeys(NSDictionary* dictionary, Job& job) {
  NSArray* known = [NSArray arrayWithObjects:kLabelKey, kRunAtLoadKey, kKeepAliveKey,
                                             kStandardOutPathKey, kProgramArgumentsKey, nil];
  for (id key in dictionary) {
    std::string name;
    if (!ReadText(key, name)) {
      return @"a key is not a string";
    }
    if (![known containsObject:key]) {
      return [NSString stringWithFormat:@"the key \"%@\" is not supported", key];
    }
  }
  std::string label;
  if (!ReadText([dictionary objectForKey:kLabelKey], label)) {
    return @"\"Label\" is not a string";
  }
  job.unit = JobUnitName(label);
  if (job.unit.empty()) {
    return @"\"Label\" is empty or too long";
  }
  id runAtLoad = [dictionary objectForKey:kRunAtLoadKey];
  if (![runAtLoad isKindOfClass:[NSNumber class]] || ![runAtLoad boolValue]) {
    return @"\"RunAtLoad\" is not true, and starting a job later is not supported";
  }
  id keepAlive = [dictionary objectForKey:kKeepAliveKey];
  if (keepAlive != nil && ![keepAlive isKindOfClass:[NSNumber class]]) {
    return @"\"KeepAlive\" is not a boolean";
  }
  job.isKeptAlive = [keepAlive boolValue];
  id arguments = [dictionary objectForKey:kProgramArgumentsKey];
  if (![arguments isKindOfClass:[NSArray class]] || [arguments count] == 0) {
    return @"\"ProgramArguments\" is not a list with a program in it";
  }
  for (id each in arguments) {
    std::string argument;
    if (!ReadText(each, argument)) {
      return @"\"ProgramArguments\" holds something that no argument can be";
    }
    job.arguments.push_back(argument);
  }
  return nil;
}

/// Opens the job's output with the caller's own rights, so that no job writes where its submitter
/// may not. A FIFO that nobody reads is an error and not waited for. False with errno.
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

/// A call of the manager's method `member`, which may ask the user when `authorization` allows it.
BusMessage NewCall(sd_bus* bus, const char* member, AuthorizationRef authorization) {
  sd_bus_message* message = nullptr;
  if (sd_bus_message_new_method_call(bus, &message, kSystemdService, kSystemdObject,
                                     kSystemdManager, member) < 0) {
    return nullptr;
  }
  if (authorization != nullptr && ObjectOf(authorization)->mayInteract) {
    sd_bus_message_set_allow_interactive_authorization(message, 1);
    sd_bus_set_method_call_timeout(bus, kInteractionMicroseconds);
  }
  return BusMessage(message);
}

/// Appends the command as systemd.service(5) has it, with an expansion of nothing in it.
int AppendCommand(sd_bus_message* message, const Job& job) {
  std::vector<char*> arguments;
  for (const std::string& each : job.arguments) {
    arguments.push_back(const_cast<char*>(each.c_str()));
  }
  arguments.push_back(nullptr);
  int result = sd_bus_message_open_container(message, 'r', "sv");
  result = result < 0 ? result : sd_bus_message_append(message, "s", "ExecStartEx");
  result = result < 0 ? result : sd_bus_message_open_container(message, 'v', "a(sasas)");
  result = result < 0 ? result : sd_bus_message_open_container(message, 'a', "(sasas)");
  result = result < 0 ? result : sd_bus_message_open_container(message, 'r', "sasas");
  result = result < 0 ? result : sd_bus_message_append(message, "s", job.executable.c_str());
  result = result < 0 ? result : sd_bus_message_append_strv(message, arguments.data());
  result = result < 0 ? result : sd_bus_message_append(message, "as", 1, "no-env-expand");
  for (int depth = 0; depth < 4; ++depth) {
    result = result < 0 ? result : sd_bus_message_close_container(message);
  }
  return result;
}

/// Appends what makes the job stay registered after its program's end: systemd starts the program
/// again, however often it ends, or keeps the service without it. It does not do both.
int AppendLifetime(sd_bus_message* message, const Job& job) {
  return job.isKeptAlive ? sd_bus_message_append(message, "(sv)(sv)(sv)", "Restart", "s", "always",
                                                 "RestartUSec", "t", kThrottleMicroseconds,
                                                 "StartLimitIntervalUSec", "t", uint64_t{0})
                         : sd_bus_message_append(message, "(sv)", "RemainAfterExit", "b", 1);
}

/// Appends what StartTransientUnit takes: name, mode, properties, and no further units.
int AppendUnit(sd_bus_message* message, const Job& job) {
  int result = sd_bus_message_append(message, "ss", job.unit.c_str(), "fail");
  result = result < 0 ? result : sd_bus_message_open_container(message, 'a', "(sv)");
  result = result < 0 ? result : AppendCommand(message, job);
  // The descriptor takes the place of StandardOutput, which must not be StandardError's own:
  // systemd would then send both to the descriptor.
  result = result < 0 ? result
                      : sd_bus_message_append(message, "(sv)(sv)(sv)(sv)(sv)", "Type", "s", "exec",
                                              "StandardOutput", "s", "null", "StandardError", "s",
                                              "journal", "TimeoutStopUSec", "t", kExitMicroseconds,
                                              "IgnoreSIGPIPE", "b", 0);
  result = result < 0 ? result : AppendLifetime(message, job);
  if (job.output >= 0) {
    result = result < 0 ? result
                        : sd_bus_message_append(message, "(sv)", "StandardOutputFileDescriptor",
                                                "h", job.output);
  }
  result = result < 0 ? result : sd_bus_message_close_container(message);
  return result < 0 ? result : sd_bus_message_append(message, "a(sa(sv))", 0);
}

int Submit(sd_bus* bus, const Job& job, AuthorizationRef authorization, BusError& error) {
  const BusMessage message = NewCall(bus, "StartTransientUnit", authorization);
  if (message == nullptr) {
    return -ENOMEM;
  }
  const int result = AppendUnit(message.get(), job);
  return result < 0 ? result : sd_bus_call(bus, message.get(), 0, error.get(), nullptr);
}

/// Calls a method that takes a unit's name and perhaps a mode.
int CallForUnit(sd_bus* bus, const char* member, const std::string& unit, const char* mode,
                AuthorizationRef authorization, BusError& error) {
  const BusMessage message = NewCall(bus, member, authorization);
  if (message == nullptr) {
    return -ENOMEM;
  }
  int result = sd_bus_message_append(message.get(), "s", unit.c_str());
  if (mode != nullptr) {
    result = result < 0 ? result : sd_bus_message_append(message.get(), "s", mode);
  }
  return result < 0 ? result : sd_bus_call(bus, message.get(), 0, error.get(), nullptr);
}

/// The unit's state of systemd's "ActiveState"; a negative errno when it is not loaded.
int ReadState(sd_bus* bus, const std::string& unit, std::string& state, BusError& error) {
  sd_bus_message* reply = nullptr;
  int result = sd_bus_call_method(bus, kSystemdService, kSystemdObject, kSystemdManager, "GetUnit",
                                  error.get(), &reply, "s", unit.c_str());
  const BusMessage owner(reply);
  const char* object = nullptr;
  result = result < 0 ? result : sd_bus_message_read(reply, "o", &object);
  char* text = nullptr;
  result = result < 0 ? result
                      : sd_bus_get_property_string(bus, kSystemdService, object, kUnitInterface,
                                                   "ActiveState", error.get(), &text);
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

/// Waits until systemd has forgotten the unit; one that has failed is remembered until it is
/// told not to. 0, or a negative errno and perhaps the bus's error.
int AwaitRemoval(sd_bus* bus, const std::string& unit, AuthorizationRef authorization,
                 BusError& error) {
  for (int i = 0; i < kRemovalPolls; ++i) {
    std::string state;
    int result = ReadState(bus, unit, state, error);
    if (result >= 0 && state == "failed") {
      result = CallForUnit(bus, "ResetFailedUnit", unit, nullptr, authorization, error);
    }
    if (result < 0) {
      return IsGone(error) ? 0 : result;
    }
    usleep(kRemovalPollMicroseconds);
  }
  return -ETIMEDOUT;
}

/// Null, with the error told, when there is no connection to be had.
BusConnection ConnectToBus(CFErrorRef* outError) {
  int result = 0;
  BusConnection bus = OpenSystemBus(result);
  if (bus == nullptr) {
    Fail(outError, -result, @"the system's message bus cannot be reached", strerror(-result));
  }
  return bus;
}

bool IsKnownDomain(CFStringRef domain) {
  return domain != nullptr && CFEqual(domain, kSMDomainSystemLaunchd);
}

}  // namespace

Boolean SMJobSubmit(CFStringRef domain, CFDictionaryRef jobDictionary, AuthorizationRef auth,
                    CFErrorRef* outError) {
  NSString* const what = @"the job cannot be submitted";
  NSDictionary* dictionary = (NSDictionary*)jobDictionary;
  if (!IsKnownDomain(domain)) {
    return Fail(outError, EINVAL, what, "the domain is not the system's");
  }
  Job job;
  NSString* fault = dictionary == nil ? @"there is none" : ReadKeys(dictionary, job);
  if (fault != nil) {
    return Fail(outError, EINVAL, what, [fault UTF8String]);
  }
  if (!FindExecutable(job)) {
    const int error = errno;
    return Fail(outError, error, @"the job's program cannot be found", strerror(error));
  }
  if (!OpenOutput(dictionary, job)) {
    const int error = errno;
    return Fail(outError, error, @"the job's output cannot be opened", strerror(error));
  }
  const BusConnection bus = ConnectToBus(outError);
  if (bus == nullptr) {
    return 0;
  }
  BusError error;
  const int result = Submit(bus.get(), job, auth, error);
  return result < 0 ? FailOnBus(outError, result, what, error) : 1;
}

Boolean SMJobRemove(CFStringRef domain, CFStringRef jobLabel, AuthorizationRef auth, Boolean wait,
                    CFErrorRef* outError) {
  NSString* const what = @"the job cannot be removed";
  if (!IsKnownDomain(domain)) {
    return Fail(outError, EINVAL, what, "the domain is not the system's");
  }
  std::string label;
  const std::string unit =
      ReadText((NSString*)jobLabel, label) ? JobUnitName(label) : std::string();
  if (unit.empty()) {
    return Fail(outError, EINVAL, what, "no job has such a label");
  }
  const BusConnection bus = ConnectToBus(outError);
  if (bus == nullptr) {
    return 0;
  }
  BusError error;
  std::string state;
  int result = ReadState(bus.get(), unit, state, error);
  if (result >= 0) {
    result = CallForUnit(bus.get(), "StopUnit", unit, "replace", auth, error);
  }
  if (result < 0) {
    return FailOnBus(outError, result, what, error);
  }
  if (!wait) {
    BusError ignored;
    CallForUnit(bus.get(), "ResetFailedUnit", unit, nullptr, auth, ignored);
    return 1;
  }
  result = AwaitRemoval(bus.get(), unit, auth, error);
  return result < 0 ? FailOnBus(outError, result, what, error) : 1;
}
