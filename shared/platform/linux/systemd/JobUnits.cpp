#include "shared/platform/linux/systemd/JobUnits.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "shared/platform/linux/systemd/SystemBus.h"

namespace {

constexpr char kPrefix[] = "launch-job-";
constexpr char kSuffix[] = ".service";
// systemd's manager on the bus: org.freedesktop.systemd1(5).
constexpr char kSystemdService[] = "org.freedesktop.systemd1";
constexpr char kSystemdObject[] = "/org/freedesktop/systemd1";
constexpr char kSystemdManager[] = "org.freedesktop.systemd1.Manager";
constexpr char kUnitInterface[] = "org.freedesktop.systemd1.Unit";
constexpr char kServiceInterface[] = "org.freedesktop.systemd1.Service";
constexpr char kNoSuchUnit[] = "org.freedesktop.systemd1.NoSuchUnit";

// systemd's UNIT_NAME_MAX without the zero byte.
constexpr size_t kLongestUnitName = 255;

// launchd.plist(5)'s default: how long a job may take to end (ExitTimeOut) before it is killed.
constexpr uint64_t kExitMicroseconds = 20'000'000;

// The interval and the number of checks whether a job is gone: twice as long as systemd takes to
// end it and then to kill it.
constexpr useconds_t kRemovalPollMicroseconds = 10'000;
constexpr int kRemovalPolls = 8'000;

bool IsKept(char byte, bool isFirst) {
  return (byte >= '0' && byte <= '9') || (byte >= 'a' && byte <= 'z') ||
         (byte >= 'A' && byte <= 'Z') || byte == ':' || byte == '_' || (byte == '.' && !isFirst);
}

bool StartsWith(const std::string& text, const char* start) {
  return text.compare(0, strlen(start), start) == 0;
}

/// The unit in which the process is: the last folder of the path of its control group (cgroups(7)).
/// Empty when that cannot be read.
std::string UnitOfProcess(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/cgroup");
  std::string line;
  while (std::getline(file, line)) {
    if (StartsWith(line, "0::") || line.find(":name=systemd:") != std::string::npos) {
      return line.substr(line.rfind('/') + 1);
    }
  }
  return std::string();
}

/// The path in the service's only ExecStart entry; empty when there is none.
std::string ExecStartPath(sd_bus* bus, const char* object) {
  sd_bus_message* reply = nullptr;
  if (sd_bus_get_property(bus, kSystemdService, object, kServiceInterface, "ExecStart", nullptr,
                          &reply, "a(sasbttttuii)") < 0) {
    return std::string();
  }
  const BusMessage owner(reply);
  const char* path = nullptr;
  if (sd_bus_message_enter_container(reply, 'a', "(sasbttttuii)") <= 0 ||
      sd_bus_message_enter_container(reply, 'r', "sasbttttuii") <= 0 ||
      sd_bus_message_read(reply, "s", &path) <= 0) {
    return std::string();
  }
  return path;
}

bool IsScript(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return file.get() == '#' && file.get() == '!';
}

/// Sets `object` to the bus object of a unit. Returns a negative errno when it is not loaded.
int FindUnit(sd_bus* bus, const std::string& unit, std::string& object, BusError& error) {
  sd_bus_message* reply = nullptr;
  int result = sd_bus_call_method(bus, kSystemdService, kSystemdObject, kSystemdManager, "GetUnit",
                                  error.get(), &reply, "s", unit.c_str());
  const BusMessage owner(reply);
  const char* path = nullptr;
  if (result >= 0 && (result = sd_bus_message_read(reply, "o", &path)) >= 0) {
    object = path;
  }
  return result;
}

/// Sets `state` to the ActiveState of a unit's bus object. A service of type "exec" is "active"
/// once its program has been executed. Returns a negative errno on failure.
int ReadState(sd_bus* bus, const std::string& object, std::string& state, BusError& error) {
  char* text = nullptr;
  const int result = sd_bus_get_property_string(bus, kSystemdService, object.c_str(),
                                                kUnitInterface, "ActiveState", error.get(), &text);
  if (result >= 0) {
    state = text;
    free(text);
  }
  return result;
}

/// The same of the unit itself.
int ReadStateOfUnit(sd_bus* bus, const std::string& unit, std::string& state, BusError& error) {
  std::string object;
  const int result = FindUnit(bus, unit, object, error);
  return result < 0 ? result : ReadState(bus, object, state, error);
}

/// A call of a method of systemd's manager. After a failure the rest of it does nothing.
class ManagerCall {
 public:
  /// If `mayInteract`, polkit may ask the user for a password, and the call waits for that.
  ManagerCall(sd_bus* bus, const char* member, bool mayInteract) : bus_(bus) {
    sd_bus_message* message = nullptr;
    result_ = sd_bus_message_new_method_call(bus, &message, kSystemdService, kSystemdObject,
                                             kSystemdManager, member);
    message_.reset(message);
    if (message != nullptr && mayInteract) {
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
void AppendCommand(ManagerCall& call, const JobUnit& job) {
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
void AppendUnit(ManagerCall& call, const JobUnit& job) {
  call.Append("ss", job.name.c_str(), "fail");
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

/// Calls a method of systemd's manager with these arguments, as sd_bus_message_append(3) takes
/// them.
template <typename... Values>
int CallManager(sd_bus* bus, const char* member, bool mayInteract, BusError& error,
                const char* types, Values... values) {
  ManagerCall call(bus, member, mayInteract);
  call.Append(types, values...);
  return call.Send(error);
}

/// Whether a call failed because systemd does not know the unit.
bool IsGone(const BusError& error) {
  return error.Is(kNoSuchUnit) || error.Is(SD_BUS_ERROR_UNKNOWN_OBJECT);
}

/// Waits until systemd has forgotten the unit; a failed one is reset. 0, or a negative errno and
/// perhaps the bus's error.
int AwaitRemoval(sd_bus* bus, const std::string& unit, bool mayInteract, BusError& error) {
  for (int i = 0; i < kRemovalPolls; ++i) {
    std::string state;
    int result = ReadStateOfUnit(bus, unit, state, error);
    if (result >= 0 && state == "failed") {
      result = CallManager(bus, "ResetFailedUnit", mayInteract, error, "s", unit.c_str());
    }
    if (result < 0) {
      return IsGone(error) ? 0 : result;
    }
    usleep(kRemovalPollMicroseconds);
  }
  return -ETIMEDOUT;
}

}  // namespace

std::string JobUnitName(const std::string& label) {
  std::string name = kPrefix;
  for (size_t i = 0; i < label.size(); ++i) {
    char escaped[5];
    if (label[i] == '/') {
      name += '-';
    } else if (IsKept(label[i], i == 0)) {
      name += label[i];
    } else {
      (void)snprintf(escaped, sizeof(escaped), "\\x%02x", static_cast<unsigned char>(label[i]));
      name += escaped;
    }
  }
  name += kSuffix;
  return label.empty() || name.size() > kLongestUnitName ? std::string() : name;
}

int StartJobUnit(const JobUnit& job, bool mayInteract) {
  int result = 0;
  const BusConnection bus = OpenSystemBus(result);
  if (bus == nullptr) {
    return result;
  }
  ManagerCall call(bus.get(), "StartTransientUnit", mayInteract);
  AppendUnit(call, job);
  BusError error;
  return call.Send(error);
}

int RemoveJobUnit(const std::string& name, bool mayInteract) {
  int result = 0;
  const BusConnection bus = OpenSystemBus(result);
  if (bus == nullptr) {
    return result;
  }
  BusError error;
  std::string state;
  result = ReadStateOfUnit(bus.get(), name, state, error);
  if (result >= 0) {
    result = CallManager(bus.get(), "StopUnit", mayInteract, error, "ss", name.c_str(), "replace");
  }
  return result < 0 ? result : AwaitRemoval(bus.get(), name, mayInteract, error);
}

std::string JobExecutable(pid_t pid) {
  const std::string unit = UnitOfProcess(pid);
  if (!StartsWith(unit, kPrefix)) {
    return std::string();
  }
  int result = 0;
  const BusConnection bus = OpenSystemBus(result);
  BusError error;
  std::string object;
  std::string state;
  uint32_t mainPID = 0;
  if (bus == nullptr || FindUnit(bus.get(), unit, object, error) < 0 ||
      sd_bus_get_property_trivial(bus.get(), kSystemdService, object.c_str(), kServiceInterface,
                                  "MainPID", error.get(), 'u', &mainPID) < 0 ||
      static_cast<pid_t>(mainPID) != pid || ReadState(bus.get(), object, state, error) < 0 ||
      state != "active") {
    return std::string();
  }
  const std::string path = ExecStartPath(bus.get(), object.c_str());
  return IsScript(path) ? std::string() : path;
}
