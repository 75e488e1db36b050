// The tool that the tests let run with administrator rights. It first appends one record to the
// file named by its own path with ".ran" behind it: its user, and its arguments, so that a test
// knows what really ran.
//
//   probe_tool print TEXT [SECONDS]   prints TEXT, waits, ends
//   probe_tool flood BYTES            prints that many bytes, in lines of 64, and waits a second
//   probe_tool stay FILE              waits until FILE is there
//   probe_tool between FILE COUNT     starts COUNT processes that sleep, prints a line, waits until
//                                     FILE is there, ends them and prints a second line
//   probe_tool signals                prints which signals it ignores, and waits a second
//   probe_tool variables              prints its environment, one variable a line, and waits a
//   second probe_tool fail STATUS            prints to standard error, waits a second, ends with
//   STATUS probe_tool anything else          prints its arguments, one a line, waits a second
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

namespace {

constexpr int kLineLength = 64;
constexpr int kLongestStay = 6000;

void Record(int argc, char** argv) {
  char path[4096];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof(path) - 1);
  FILE* file = fopen(
      (std::string(path, static_cast<size_t>(length > 0 ? length : 0)) + ".ran").c_str(), "ab");
  if (file == nullptr) {
    return;
  }
  (void)fprintf(file, "%u", geteuid());
  for (int i = 1; i < argc; ++i) {
    (void)fputc('\0', file);
    (void)fputs(argv[i], file);
  }
  (void)fputc('\0', file);
  (void)fputc('\n', file);
  (void)fclose(file);
}

void Flood(long bytes) {
  for (long i = 1; i <= bytes; ++i) {
    (void)putchar(i % kLineLength == 0 ? '\n' : 'x');
  }
}

void Stay(const char* path) {
  for (int i = 0; i < kLongestStay && access(path, F_OK) != 0; ++i) {
    usleep(10'000);
  }
}

/// Processes that sleep until the object goes.
class Sleepers {
 public:
  explicit Sleepers(int count) : pids_(static_cast<size_t>(count)) {
    for (pid_t& pid : pids_) {
      pid = fork();
      if (pid == 0) {
        pause();
        _exit(0);
      }
    }
  }
  ~Sleepers() {
    for (const pid_t pid : pids_) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
  }
  Sleepers(const Sleepers&) = delete;
  Sleepers& operator=(const Sleepers&) = delete;

 private:
  std::vector<pid_t> pids_;
};

void PrintBetween(const char* path, int count) {
  const Sleepers sleepers(count);
  (void)puts("first");
  (void)fflush(stdout);
  Stay(path);
  (void)puts("last");
}

void PrintIgnoredSignals() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.compare(0, 7, "SigIgn:") == 0) {
      (void)puts(line.c_str());
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  Record(argc, argv);
  const char* command = argc > 1 ? argv[1] : "";
  unsigned int seconds = 1;
  int status = 0;
  if (strcmp(command, "print") == 0 && argc > 2) {
    (void)fputs(argv[2], stdout);
    seconds = argc > 3 ? static_cast<unsigned int>(atoi(argv[3])) : 1;
  } else if (strcmp(command, "flood") == 0 && argc > 2) {
    Flood(atol(argv[2]));
  } else if (strcmp(command, "stay") == 0 && argc > 2) {
    Stay(argv[2]);
  } else if (strcmp(command, "between") == 0 && argc > 3) {
    PrintBetween(argv[2], atoi(argv[3]));
  } else if (strcmp(command, "signals") == 0) {
    PrintIgnoredSignals();
  } else if (strcmp(command, "variables") == 0) {
    for (char** variable = environ; *variable != nullptr; ++variable) {
      (void)puts(*variable);
    }
  } else if (strcmp(command, "fail") == 0 && argc > 2) {
    (void)fputs("this is standard error\n", stderr);
    status = atoi(argv[2]);
  } else {
    for (int i = 1; i < argc; ++i) {
      (void)puts(argv[i]);
    }
  }
  (void)fflush(stdout);
  sleep(seconds);
  return status;
}
