#include "tools/kpim/Report.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "tools/kpim/Text.h"

namespace kpim {

namespace {

constexpr char kEmptyName[] = "''";

}  // namespace

void PrepareStandardStreams() {
  // A stand-in is opened the wrong way round: using it fails as a closed stream would.
  for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
    if (fcntl(descriptor, F_GETFD) < 0 && errno == EBADF) {
      (void)open("/dev/null", descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY);
    }
  }
  (void)signal(SIGPIPE, SIG_IGN);
  (void)signal(SIGXFSZ, SIG_IGN);
}

void Print(const std::string& text) { (void)fwrite(text.data(), 1, text.size(), stdout); }

bool FinishStandardOutput() {
  const bool failedEarlier = ferror(stdout) != 0;
  if (fflush(stdout) != 0) {
    ReportSystemError("standard output", errno);
    return false;
  }
  if (failedEarlier) {
    // Untested: a flush after a failed write fails too.
    ReportError("standard output", "write error");
    return false;
  }
  return true;
}

void ReportError(const std::string& what, const std::string& why) {
  ReportLine("kpim: " + (what.empty() ? kEmptyName : Printable(what)) + ": " + Printable(why));
}

// Untested: called for exceptions that no one else catches.
void ReportPlainError(const char* why) { (void)fprintf(stderr, "kpim: %s\n", why); }

void ReportLine(const std::string& line) { (void)fprintf(stderr, "%s\n", line.c_str()); }

void ReportSystemError(const std::string& what, int error) { ReportError(what, strerror(error)); }

}  // namespace kpim
