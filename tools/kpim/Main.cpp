// kpim: payload blobs, install checks and the version description on the command line.
#include <exception>
#include <new>
#include <string>

#include "KPVendorConfig.h"
#include "tools/kpim/Commands.h"
#include "tools/kpim/Report.h"

namespace {

constexpr char kDescription[] =
    "Packs, lists, verifies and unpacks the installer's payload blobs, runs its install checks\n"
    "and fetches the current version description.";
constexpr char kFooter[] =
    "Exit status: 0 when all went well, 1 when the command failed or found a fault,\n"
    "2 when it was used wrongly.";
constexpr char kVersion[] = "kpim " KP_VERSION_TEXT "\n";

/// Says what is wrong with the command line, in the name of the chosen command if there is one.
void ReportUsageError(const CLI::App& app, const CLI::ParseError& error) {
  const auto commands = app.get_subcommands();
  const auto unknown = app.remaining();
  std::string help = "kpim";
  if (!commands.empty()) {
    const std::string command = commands.front()->get_name();
    kpim::ReportError(command, error.what());
    help += " " + command;
  } else if (!unknown.empty()) {
    kpim::ReportError(unknown.front(), "no such command or option");
  } else {
    kpim::ReportError("command line", "no command given");
  }
  kpim::ReportLine("Try '" + help + " --help'.");
}

int Run(int argc, char** argv) {
  int status = kpim::kExitFailed;
  CLI::App app(kDescription, "kpim");
  app.footer(kFooter);
  app.set_version_flag("--version", kVersion, "Print the version and exit");
  app.require_subcommand(1);
  kpim::AddPackCommand(app, status);
  kpim::AddListCommand(app, status);
  kpim::AddVerifyCommand(app, status);
  kpim::AddUnpackCommand(app, status);
  kpim::AddCheckCommand(app, status);
  kpim::AddLatestCommand(app, status);

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    kpim::Print(app.help());
    return kpim::kExitOK;
  } catch (const CLI::CallForVersion&) {
    kpim::Print(kVersion);
    return kpim::kExitOK;
  } catch (const CLI::ParseError& error) {
    ReportUsageError(app, error);
    return kpim::kExitUsage;
  }
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  kpim::PrepareStandardStreams();
  int status = kpim::kExitFailed;
  try {
    status = Run(argc, argv);
  } catch (const std::bad_alloc&) {
    kpim::ReportPlainError("out of memory");
  } catch (const std::exception& error) {
    kpim::ReportPlainError(error.what());
  }
  if (!kpim::FinishStandardOutput()) {
    return kpim::kExitFailed;
  }
  return status;
}
