// The command line of kpim: the only file that includes CLI11, which takes seconds to compile.
#include <CLI/CLI.hpp>

#include <memory>
#include <string>

#include "KPVendorConfig.h"
#include "tools/kpim/Commands.h"
#include "tools/kpim/Report.h"

namespace kpim {

namespace {

constexpr char kDescription[] =
    "Packs, lists, verifies and unpacks the installer's payload blobs, runs its install checks\n"
    "and fetches the current version description.";
constexpr char kFooter[] =
    "Exit status: 0 when all went well, 1 when the command failed or found a fault,\n"
    "2 when it was used wrongly.";
constexpr char kVersion[] = "kpim " KP_VERSION_TEXT "\n";

constexpr char kPackFooter[] =
    "Links are followed; .DS_Store files are left out. The format keeps names and\n"
    "contents only: execute bits, other modes, owners and times are dropped, and\n"
    "unpacking gives every file mode 0664 and every directory 0775.\n"
    "\n"
    "Warnings say what was followed or dropped, and what may have been packed by\n"
    "mistake. With --json, prints an object with \"ok\", \"blob\", \"entries\", \"bytes\",\n"
    "\"findings\", \"blobBytes\", \"compressed\", \"seconds\", \"warnings\" and \"errors\".";
constexpr char kListFooter[] =
    "With --json, every entry is an object with \"name\" and \"type\" (\"file\" or\n"
    "\"directory\"); files have \"size\", directories \"entries\". A name that is not UTF-8\n"
    "has U+FFFD for each offending byte, and beside it \"nameBytes\", the whole name in\n"
    "hexadecimal.";
constexpr char kVerifyFooter[] =
    "With BUNDLE, each difference is a line on standard output:\n"
    "  missing: PATH          in the blob only\n"
    "  extra: PATH            in the bundle only\n"
    "  different: PATH        other contents\n"
    "  type mismatch: PATH    a file on one side only\n"
    "  unreadable: PATH: WHY  in the bundle";
constexpr char kUnpackFooter[] =
    "Directories get mode 0775 and files 0664, as the installer gives them. When the\n"
    "tree cannot be written whole, what could be written stays.";
constexpr char kCheckFooter[] =
    "Why a check failed is in the install log, KorvelPlayerInstallManager.log in Library/Logs of\n"
    "the home directory, or of / when nobody is logged in.\n"
    "\n"
    "With --json, prints an object with the three verdicts, true for passed; \"result\", the sum\n"
    "of 1, 2 and 4 for those that failed; and the two versions, null where there is none.";
constexpr char kLatestFooter[] =
    "With --json, prints an object with \"version\", \"message\" (HTML), \"autoUpdateMode\" (null\n"
    "when there is none), \"dialogWidth\" and \"dialogHeight\" (in points; null when infinite).";

/// Says what is wrong with the command line, in the name of the chosen command if there is one.
void ReportUsageError(const CLI::App& app, const CLI::ParseError& error) {
  const auto commands = app.get_subcommands();
  const auto unknown = app.remaining();
  std::string help = "kpim";
  if (!commands.empty()) {
    const std::string command = commands.front()->get_name();
    ReportError(command, error.what());
    help += " " + command;
  } else if (!unknown.empty()) {
    ReportError(unknown.front(), "no such command or option");
  } else {
    ReportError("command line", "no command given");
  }
  ReportLine("Try '" + help + " --help'.");
}

void AddPackCommand(CLI::App& app, int& status) {
  const auto options = std::make_shared<PackOptions>();
  CLI::App* command = app.add_subcommand("pack", "Build a blob out of a bundle");
  command->footer(kPackFooter);
  command->add_option("BUNDLE", options->bundle, "The bundle's directory")
      ->required()
      ->type_name("DIR");
  command
      ->add_option("-o,--output", options->output,
                   "Where to write the blob (default: BUNDLE.lzma beside the bundle); - for\n"
                   "standard output")
      ->type_name("BLOB");
  command
      ->add_option("--exclude", options->excluded,
                   "Leave out entries whose name, or path in the bundle, matches; repeatable")
      ->type_name("GLOB")
      ->allow_extra_args(false);
  command
      ->add_option("--threads", options->threads,
                   "1 (the default), or more for faster packing into slightly other bytes")
      ->check(CLI::Range(1U, kMostThreads))
      ->type_name("N");
  CLI::Option* sort =
      command->add_flag("--sort", "Order entries by name; the default")->disable_flag_override();
  command
      ->add_flag("--no-sort", options->unsorted,
                 "Keep the order in which the file system lists entries")
      ->disable_flag_override()
      ->excludes(sort);
  command
      ->add_flag("--verify", options->verify,
                 "Decode the blob again and compare it with the bundle before it is written")
      ->disable_flag_override();
  command->add_flag("--quiet", options->quiet, "No warnings and no progress")
      ->disable_flag_override();
  command->add_flag("--strict", options->strict, "Make every warning an error")
      ->disable_flag_override();
  command->add_flag("--json", options->json, "Print the result as JSON")->disable_flag_override();
  command->callback([options, &status] {
    if (options->json && options->output == kStandardStream) {
      throw CLI::ValidationError("--json", "standard output is for the blob");
    }
    status = Pack(*options);
  });
}

void AddListCommand(CLI::App& app, int& status) {
  const auto options = std::make_shared<ListOptions>();
  CLI::App* command = app.add_subcommand("list", "Print the tree that a blob holds");
  command->footer(kListFooter);
  command->add_option("BLOB", options->blob, "The blob")->required()->type_name("FILE");
  command->add_flag("--json", options->json, "Print it as JSON")->disable_flag_override();
  command->callback([options, &status] { status = List(*options); });
}

void AddVerifyCommand(CLI::App& app, int& status) {
  const auto options = std::make_shared<VerifyOptions>();
  CLI::App* command =
      app.add_subcommand("verify", "Check that a blob is well formed, and the same as a bundle");
  command->footer(kVerifyFooter);
  command->add_option("BLOB", options->blob, "The blob")->required()->type_name("FILE");
  command->add_option("BUNDLE", options->bundle, "A bundle to compare its contents with")
      ->type_name("DIR");
  command->callback([options, &status] { status = VerifyBlob(*options); });
}

void AddUnpackCommand(CLI::App& app, int& status) {
  const auto options = std::make_shared<UnpackOptions>();
  CLI::App* command = app.add_subcommand("unpack", "Write the tree of a blob to disk");
  command->footer(kUnpackFooter);
  command->add_option("BLOB", options->blob, "The blob")->required()->type_name("FILE");
  command
      ->add_option("DIR", options->directory,
                   "Where to write the tree: an empty directory, or one that can be created")
      ->required()
      ->type_name("DIR");
  command->callback([options, &status] { status = Unpack(*options); });
}

void AddCheckCommand(CLI::App& app, int& status) {
  const auto options = std::make_shared<CheckOptions>();
  CLI::App* command = app.add_subcommand("check", "Tell whether this version may be installed");
  command->footer(kCheckFooter);
  command->add_flag("--json", options->json, "Print it as JSON")->disable_flag_override();
  command->callback([options, &status] { status = Check(*options); });
}

void AddLatestCommand(CLI::App& app, int& status) {
  const auto options = std::make_shared<LatestOptions>();
  CLI::App* command = app.add_subcommand("latest", "Fetch the current version description");
  command->footer(kLatestFooter);
  command->add_option("--kind", options->kind, "The player's flavour, pep (the default) or pl")
      ->check(CLI::IsMember({kPepperKind, kPluginKind}))
      ->type_name("KIND");
  command
      ->add_option("--time-limit", options->timeLimit,
                   "Seconds that it may take altogether; the default is 90")
      ->check(CLI::Range(1, kLongestTimeLimit))
      ->type_name("SECONDS");
  command->add_flag("--json", options->json, "Print it as JSON")->disable_flag_override();
  command->callback([options, &status] { status = Latest(*options); });
}

}  // namespace

int Run(int argc, char** argv) {
  int status = kExitFailed;
  CLI::App app(kDescription, "kpim");
  app.footer(kFooter);
  app.set_version_flag("--version", kVersion, "Print the version and exit");
  app.require_subcommand(1);
  AddPackCommand(app, status);
  AddListCommand(app, status);
  AddVerifyCommand(app, status);
  AddUnpackCommand(app, status);
  AddCheckCommand(app, status);
  AddLatestCommand(app, status);

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    Print(app.help());
    return kExitOK;
  } catch (const CLI::CallForVersion&) {
    Print(kVersion);
    return kExitOK;
  } catch (const CLI::ParseError& error) {
    ReportUsageError(app, error);
    return kExitUsage;
  }
  return status;
}

}  // namespace kpim
