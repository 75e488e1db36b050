// kpim: payload blobs, install checks and the version description on the command line.
#include <exception>
#include <new>

#include "tools/kpim/Commands.h"
#include "tools/kpim/Report.h"

int main(int argc, char** argv) {
  kpim::PrepareStandardStreams();
  int status = kpim::kExitFailed;
  try {
    status = kpim::Run(argc, argv);
  } catch (const std::bad_alloc&) {
    // Untested: the commands report it themselves.
    kpim::ReportPlainError("out of memory");
  } catch (const std::exception& error) {
    // Untested: nothing else is known to throw.
    kpim::ReportPlainError(error.what());
  }
  if (!kpim::FinishStandardOutput()) {
    return kpim::kExitFailed;
  }
  return status;
}
