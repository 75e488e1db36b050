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

std::vector<Message>& Errors() {
  static std::vector<Message> s_errors;
  return s_errors;
}

std::vector<Message>& Warnings() {
  static std::vector<Message> s_warnings;
  return s_warnings;
}

std::string Subject(const std::string& what) { return what.empty() ? kEmptyName : Printable(what); }

}  // namespace

void PrepareStandardStreams() {
  // The replacement is opened for the opposite direction, so using it fails like using a closed
  // stream.
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
    if (errno == EPIPE) {
      return true;
    }
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
  Errors().push_back({what, why});
  ReportLine("kpim: " + Subject(what) + ": " + Printable(why));
}

void ReportWarning(const std::string& what, const std::string& why) {
  Warnings().push_back({what, why});
  ReportLine("kpim: warning: " + Subject(what) + ": " + Printable(why));
}

const std::vector<Message>& ReportedErrors() { return Errors(); }

const std::vector<Message>& ReportedWarnings() { return Warnings(); }

// Untested: called for exceptions that no one else catches.
void ReportPlainError(const char* why) { (void)fprintf(stderr, "kpim: %s\n", why); }

void ReportLine(const std::string& line) { (void)fprintf(stderr, "%s\n", line.c_str()); }

void ReportSystemError(const std::string& what, int error) { ReportError(what, strerror(error)); }

}  // namespace kpim
