#include "tests/unit/HostPort/FakeSystemBus.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "shared/platform/linux/systemd/SystemBus.h"

namespace {

constexpr char kAddressVariable[] = "DBUS_SYSTEM_BUS_ADDRESS";
constexpr char kClientName[] = ":1.1";
constexpr uint64_t kPollMicroseconds = 20'000;
constexpr uint64_t kRealBusTimeLimit = 25'000'000;
constexpr unsigned int kSecondsToHang = 100;

uint64_t s_busTimeLimit = kRealBusTimeLimit;

/// The time limit of the port's calls, for those that follow.
std::atomic<uint64_t> s_callTimeLimit;

/// Opens a socket and makes DBUS_SYSTEM_BUS_ADDRESS lead there.
int ListenAsSystemBus() {
  static int number = 0;
  const std::string name =
      "kp-test-bus-" + std::to_string(getpid()) + "-" + std::to_string(++number);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  // A name that begins with a zero byte is in no file system (unix(7)).
  memcpy(address.sun_path + 1, name.c_str(), name.size());
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  EXPECT_EQ(0, bind(listener, reinterpret_cast<sockaddr*>(&address), size));
  EXPECT_EQ(0, listen(listener, 4));
  setenv(kAddressVariable, ("unix:abstract=" + name).c_str(), 1);
  return listener;
}

void LeaveNoSystemBus() { setenv(kAddressVariable, "unix:path=/nonexistent", 1); }

/// `text` in one line with single blanks.
std::string Flattened(const std::string& text) {
  std::string flat;
  for (const char byte : text) {
    const bool isBlank = byte == ' ' || byte == '\n';
    if (!isBlank || (!flat.empty() && flat.back() != ' ')) {
      flat += isBlank ? ' ' : byte;
    }
  }
  return flat;
}

std::string Dump(sd_bus_message* message) {
  char* text = nullptr;
  size_t size = 0;
  FILE* stream = open_memstream(&text, &size);
  EXPECT_LE(0, sd_bus_message_dump(message, stream, 0));
  (void)fclose(stream);
  const std::string dump = Flattened(text);
  free(text);
  EXPECT_LE(0, sd_bus_message_rewind(message, 1));
  return dump;
}

std::string NameOf(sd_bus_message* message) {
  std::string name = sd_bus_message_get_member(message);
  const char* argument = nullptr;
  char type = '\0';
  if (sd_bus_message_peek_type(message, &type, nullptr) > 0 && type == 's' &&
      sd_bus_message_read(message, "s", &argument) > 0) {
    name += std::string(" ") + argument;
  }
  EXPECT_LE(0, sd_bus_message_rewind(message, 1));
  return name;
}

}  // namespace

uint64_t BusTimeLimit() { return s_busTimeLimit; }

/// Notes the limit, in place of libsystemd's function, and calls that.
int sd_bus_set_method_call_timeout(sd_bus* bus, uint64_t microseconds) {
  s_callTimeLimit = microseconds;
  static const auto s_real =
      reinterpret_cast<decltype(&sd_bus_set_method_call_timeout)>(dlsym(RTLD_NEXT, __func__));
  return s_real(bus, microseconds);
}

ScopedBusTimeLimit::ScopedBusTimeLimit(uint64_t microseconds) {
  s_busTimeLimit = microseconds;
  alarm(kSecondsToHang);
}

ScopedBusTimeLimit::~ScopedBusTimeLimit() {
  alarm(0);
  s_busTimeLimit = kRealBusTimeLimit;
}

SilentSystemBus::SilentSystemBus() : listener_(ListenAsSystemBus()) {}

SilentSystemBus::~SilentSystemBus() {
  LeaveNoSystemBus();
  close(listener_);
}

FakeSystemBus::FakeSystemBus(Answer answer) : answer_(std::move(answer)) {
  listener_ = ListenAsSystemBus();
  EXPECT_EQ(0, pipe(stop_));
  thread_ = std::thread(&FakeSystemBus::AcceptConnections, this);
}

FakeSystemBus::~FakeSystemBus() {
  LeaveNoSystemBus();
  close(stop_[1]);
  thread_.join();
  close(stop_[0]);
  close(listener_);
}

std::vector<FakeSystemBus::Call> FakeSystemBus::calls() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return calls_;
}

std::vector<std::string> FakeSystemBus::names() const {
  std::vector<std::string> names;
  for (const Call& call : calls()) {
    names.push_back(call.name);
  }
  return names;
}

void FakeSystemBus::AcceptConnections() {
  for (;;) {
    pollfd ready[] = {{listener_, POLLIN, 0}, {stop_[0], POLLIN, 0}};
    if (poll(ready, 2, -1) < 0 && errno == EINTR) {
      continue;
    }
    if (ready[1].revents != 0) {
      return;
    }
    const int connection = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (connection >= 0) {
      Serve(connection);
    }
  }
}

/// Runs until the client or the bus closes the connection.
void FakeSystemBus::Serve(int connection) {
  sd_bus* bus = nullptr;
  sd_id128_t id;
  EXPECT_LE(0, sd_id128_randomize(&id));
  EXPECT_LE(0, sd_bus_new(&bus));
  EXPECT_LE(0, sd_bus_set_fd(bus, connection, connection));
  EXPECT_LE(0, sd_bus_set_server(bus, 1, id));
  EXPECT_LE(0, sd_bus_negotiate_fds(bus, 1));
  EXPECT_LE(0, sd_bus_start(bus));
  int result = 0;
  while (result >= 0) {
    sd_bus_message* message = nullptr;
    result = sd_bus_process(bus, &message);
    if (result > 0 && message != nullptr) {
      result = Process(message);
      sd_bus_message_unref(message);
    } else if (result == 0) {
      result = sd_bus_wait(bus, kPollMicroseconds);
    }
  }
  sd_bus_close_unref(bus);
}

int FakeSystemBus::Process(sd_bus_message* message) {
  if (!sd_bus_message_is_method_call(message, nullptr, nullptr)) {
    return 0;
  }
  if (sd_bus_message_is_method_call(message, "org.freedesktop.DBus", "Hello")) {
    return sd_bus_reply_method_return(message, "s", kClientName);
  }
  {
    const Call call = {NameOf(message), Dump(message),
                       sd_bus_message_get_allow_interactive_authorization(message) > 0,
                       s_callTimeLimit};
    const std::lock_guard<std::mutex> lock(mutex_);
    calls_.push_back(call);
  }
  return answer_(message);
}
