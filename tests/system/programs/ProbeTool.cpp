// The tool that the tests let run with administrator rights. It first appends a record, its user
// and its arguments, to the file with its own path and ".ran" at the end, so that a test knows what
// really ran.
//
//   probe_tool print TEXT [SECONDS]   prints TEXT, waits, ends
//   probe_tool flood BYTES            prints that many bytes, in lines of 64, and waits
//   probe_tool stay FILE              waits until FILE is there
//   probe_tool between FILE COUNT     starts COUNT processes that sleep, prints a line, waits until
//                                     FILE is there, ends them and prints a second line
//   probe_tool signals                prints which signals it ignores, and waits
//   probe_tool variables              prints its environment, one variable a line, and waits
//   probe_tool fail STATUS            prints to standard error, waits, ends with STATUS
//   probe_tool anything else          prints its arguments, one a line, and waits
//
// A job waits until its launch must have seen it, however slow the machine: until the driver has
// had a tenth of a second of processor time, or has ended. Run directly the tool does not wait: the
// driver reads its output to the end.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr int kLineLength = 64;
constexpr int kLongestStay = 60000;
// The driver looks without a pause; a look takes half a millisecond, in the sanitizer build two.
constexpr double kLookSeconds = 0.1;
constexpr char kDriver[] = "elevated_launch_driver";

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

/// The folder in /proc of the driver that runs; empty when none does.
std::filesystem::path Driver() {
  std::error_code error;
  for (const auto& process : std::filesystem::directory_iterator("/proc")) {
    if (std::filesystem::read_symlink(process.path() / "exe", error).filename() == kDriver) {
      return process.path();
    }
  }
  return {};
}

/// The processor time that a process has used, in seconds; infinite when it has ended.
double ProcessorSeconds(const std::filesystem::path& process) {
  std::ifstream file(process / "stat");
  std::string text;
  // The name may hold blanks and parentheses.
  if (!std::getline(file, text, '\0') || text.rfind(')') == std::string::npos) {
    return HUGE_VAL;
  }
  std::istringstream fields(text.substr(text.rfind(')') + 1));
  std::string skipped;
  for (int i = 0; i < 11; ++i) {
    fields >> skipped;
  }
  double user = 0;
  double system = 0;
  fields >> user >> system;
  return (user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

void AwaitLook() {
  const std::filesystem::path driver = Driver();
  const double end = ProcessorSeconds(driver) + kLookSeconds;
  for (int i = 0; i < kLongestStay && ProcessorSeconds(driver) < end; ++i) {
    usleep(10'000);
  }
}

/// Processes that sleep, and end with the object.
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
  int seconds = -1;
  int status = 0;
  if (strcmp(command, "print") == 0 && argc > 2) {
    (void)fputs(argv[2], stdout);
    if (argc > 3) {
      seconds = atoi(argv[3]);
    }
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
  if (seconds >= 0) {
    sleep(static_cast<unsigned int>(seconds));
  } else if (getppid() == 1) {  // a job
    AwaitLook();
  }
  return status;
}
