// The output of kpim: results on standard output, errors on standard error.
#pragma once

#include <string>
#include <vector>

namespace kpim {

/// Opens descriptors 0 to 2 if they are closed, so that output never goes to a file that is opened
/// later. Ignores SIGPIPE and SIGXFSZ, so that a write to a closed pipe or over the file size limit
/// fails instead of ending the process. Call it before all other functions.
void PrepareStandardStreams();

/// Prints `text` on standard output, unchanged. FinishStandardOutput reports failures.
void Print(const std::string& text);

/// Flushes standard output. Returns false, with a line on standard error, when this or an earlier
/// write has failed. A pipe that its reader has closed is not a failure: the reader has all that it
/// needs.
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

/// Returns the messages of ReportError and ReportSystemError so far, in order.
const std::vector<Message>& ReportedErrors();

/// Returns the messages of ReportWarning so far, in order.
const std::vector<Message>& ReportedWarnings();

/// Prints "kpim: WHY" on standard error, without allocating memory.
void ReportPlainError(const char* why);

/// Prints `line` on standard error.
void ReportLine(const std::string& line);

/// Calls ReportError with the text of `error`, an errno value.
void ReportSystemError(const std::string& what, int error);

}  // namespace kpim
