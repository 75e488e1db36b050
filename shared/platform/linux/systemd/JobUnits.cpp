#include "shared/platform/linux/systemd/JobUnits.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "shared/platform/linux/systemd/SystemBus.h"

namespace {

constexpr char kPrefix[] = "launch-job-";
constexpr char kSuffix[] = ".service";
constexpr char kServiceInterface[] = "org.freedesktop.systemd1.Service";

// systemd's UNIT_NAME_MAX without the zero byte.
constexpr size_t kLongestUnitName = 255;

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

/// Whether the unit is active: of a service of type "exec", that its program has been executed.
bool IsActive(sd_bus* bus, const char* object) {
  char* state = nullptr;
  if (sd_bus_get_property_string(bus, kSystemdService, object, kUnitInterface, "ActiveState",
                                 nullptr, &state) < 0) {
    return false;
  }
  const bool isActive = strcmp(state, "active") == 0;
  free(state);
  return isActive;
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

std::string JobExecutable(pid_t pid) {
  const std::string unit = UnitOfProcess(pid);
  if (!StartsWith(unit, kPrefix)) {
    return std::string();
  }
  int error = 0;
  const BusConnection bus = OpenSystemBus(error);
  sd_bus_message* reply = nullptr;
  if (bus == nullptr ||
      sd_bus_call_method(bus.get(), kSystemdService, kSystemdObject, kSystemdManager, "GetUnit",
                         nullptr, &reply, "s", unit.c_str()) < 0) {
    return std::string();
  }
  const BusMessage owner(reply);
  const char* object = nullptr;
  uint32_t mainPID = 0;
  if (sd_bus_message_read(reply, "o", &object) <= 0 ||
      sd_bus_get_property_trivial(bus.get(), kSystemdService, object, kServiceInterface, "MainPID",
                                  nullptr, 'u', &mainPID) < 0 ||
      static_cast<pid_t>(mainPID) != pid || !IsActive(bus.get(), object)) {
    return std::string();
  }
  const std::string path = ExecStartPath(bus.get(), object);
  return IsScript(path) ? std::string() : path;
}
