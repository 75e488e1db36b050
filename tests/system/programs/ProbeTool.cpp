// The tool that the tests let run with administrator rights. It first appends one record to the
// file named by its own path with ".ran" behind it: its user, and its arguments, so that a test
// knows what really ran.
//
//   probe_tool print TEXT [SECONDS]   prints TEXT, waits, ends
//   probe_tool flood BYTES            prints that many bytes, in lines of 64, and waits a second
//   probe_tool stay FILE              waits until FILE is there
//   probe_tool fail STATUS            prints to standard error, waits a second, ends with STATUS
//   probe_tool anything else          prints its arguments, one a line, waits a second
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

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
