// What kpim says: results on standard output, errors on standard error.
#pragma once

#include <string>
#include <vector>

namespace kpim {

/// Makes sure that descriptors 0 to 2 are taken, so that no file that is opened later gets
/// what is printed, and that a write to a closed pipe or past a file size limit fails
/// instead of killing the process. Call it first.
void PrepareStandardStreams();

/// Prints `text` on standard output as it stands. FinishStandardOutput reports failures.
void Print(const std::string& text);

/// Writes out what standard output still holds. False, and a line on standard error, when
/// that or an earlier write failed. A pipe whose reader has closed it is not a failure: the reader
/// has all that it asked for.
bool FinishStandardOutput();

/// Prints "kpim: WHAT: WHY" on standard error, both parts as Printable() shows them.
void ReportError(const std::string& what, const std::string& why);

/// Prints "kpim: warning: WHAT: WHY" in the same way. A warning does not change the exit status.
void ReportWarning(const std::string& what, const std::string& why);

/// An error or a warning, as it was reported.
struct Message {
  /// The file, folder or command that it is about.
  std::string what;
  std::string why;
};

/// What ReportError and ReportSystemError have reported, in order.
const std::vector<Message>& ReportedErrors();

/// What ReportWarning has reported, in order.
const std::vector<Message>& ReportedWarnings();

/// Prints "kpim: WHY" on standard error, without allocating memory.
void ReportPlainError(const char* why);

/// Prints `line` on standard error.
void ReportLine(const std::string& line);

/// ReportError with the text of the system error `error`, an errno value.
void ReportSystemError(const std::string& what, int error);

}  // namespace kpim
