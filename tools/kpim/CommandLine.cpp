// The command line of kpim: the only file that includes CLI11, which takes seconds to compile.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "tools/kpim/Commands.h"
#include "tools/kpim/Report.h"
#include "tools/kpim/Version.h"

namespace kpim {

namespace {

constexpr char kDescription[] =
    "Packs, lists, verifies, compares and unpacks the installer's payload blobs, runs its install\n"
    "checks and fetches the current version description.";
constexpr char kFooter[] =
    "Exit status: 0 when all went well, 1 when the command failed, or found a fault or a\n"
    "difference, or a check failed, 2 when the command line was wrong.";
constexpr char kProgram[] = "kpim";
constexpr char kEndOfOptions[] = "--";
constexpr char kNoSuchCommand[] = "no such command or option";
constexpr char kEmptyValue[] = "the value is empty";
constexpr char kOptionOfCommand[] = "an option of a command: put it after the command";

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
    "  unreadable: PATH: WHY  in the bundle\n"
    "\n"
    "With --json, prints an object with \"ok\", \"blob\", \"bundle\", \"entries\", \"bytes\",\n"
    "\"differences\", \"seconds\", \"warnings\" and \"errors\" instead.";
constexpr char kDiffFooter[] =
    "LEFT or RIGHT may be a directory. Each difference is a line on standard output:\n"
    "  missing: PATH          in LEFT only\n"
    "  extra: PATH            in RIGHT only\n"
    "  different: PATH        other contents\n"
    "  type mismatch: PATH    a file on one side only\n"
    "  unreadable: PATH: WHY  in the directory\n"
    "The exit status is 1 when there is one.\n"
    "\n"
    "With --json, prints an object with \"ok\", \"left\", \"right\", \"entries\", \"bytes\",\n"
    "\"differences\", \"seconds\", \"warnings\" and \"errors\" instead.";
constexpr char kUnpackFooter[] =
    "With PATH, only these entries are written, with what is below them, in their\n"
    "directories: DIR/PATH. Directories get mode 0775 and files 0664, as the installer\n"
    "gives them. When the tree cannot be written whole, what could be written stays.\n"
    "\n"
    "With --json, prints an object with \"ok\", \"blob\", \"directory\", \"entries\",\n"
    "\"bytes\", \"differences\", \"seconds\", \"warnings\" and \"errors\" instead.";
constexpr char kCheckFooter[] =
    "A check that failed is followed by the reason, which is also in the install log:\n"
    "KorvelPlayerInstallManager.log in Library/Logs of the home directory, or of / when no one\n"
    "is logged in.\n"
    "\n"
    "With --json, prints an object with the three verdicts, true for passed; \"result\", the sum\n"
    "of 1, 2 and 4 for those that failed; \"reasons\", an object that has the reason of each of\n"
    "these; and the two versions, null where there is none.";
constexpr char kLatestFooter[] =
    "With --json, prints an object with \"version\", \"message\" (HTML), \"autoUpdateMode\" (null\n"
    "when there is none), \"dialogWidth\" and \"dialogHeight\" (in points; null when infinite).";

constexpr char kBlobHelp[] = "The blob; - for standard input";
constexpr char kJSONHelp[] = "Print the result as JSON";

// Returns false for operands, for "-" and for the "--" that ends the options.
bool IsOption(const std::string& argument) {
  return argument.size() > 1 && argument.front() == '-' && argument != kEndOfOptions;
}

// Returns whether a command of `app` has the option in `argument`.
bool IsOptionOfCommand(const CLI::App& app, const std::string& argument) {
  const bool isLong = argument.compare(0, 2, "--") == 0;
  const std::string name = argument.substr(0, isLong ? argument.find('=') : 2);
  const auto all = app.get_subcommands([](const CLI::App*) { return true; });
  return IsOption(argument) && std::any_of(all.begin(), all.end(), [&](const CLI::App* command) {
           return command->get_option_no_throw(name) != nullptr;
         });
}

// Returns the name of the first option that is written with an empty value, as in "--exclude=";
// empty if there is none. CLI11 would take the next argument for the value, even an option.
std::string OptionWithEmptyValue(int argc, char** argv) {
  for (int i = 1; i < argc && std::string(argv[i]) != kEndOfOptions; ++i) {
    const std::string argument = argv[i];
    if (argument.compare(0, 2, "--") == 0 && argument.find('=') + 1 == argument.size()) {
      return argument.substr(0, argument.size() - 1);
    }
  }
  return "";
}

// Returns the arguments that `command` does not take, in their order; only the options if there are
// any, because an operand can be the value of an option.
std::vector<std::string> LeftOver(const CLI::App& app, const CLI::App& command) {
  std::vector<std::string> arguments = command.remaining();
  // After "--", what the command does not take goes back to the program.
  const std::vector<std::string> others = app.remaining();
  arguments.insert(arguments.end(), others.begin(), others.end());
  const bool hasOption = std::any_of(arguments.begin(), arguments.end(), IsOption);
  arguments.erase(std::remove_if(arguments.begin(), arguments.end(),
                                 [&](const std::string& argument) {
                                   return hasOption ? !IsOption(argument)
                                                    : argument == kEndOfOptions;
                                 }),
                  arguments.end());
  return arguments;
}

// Returns CLI11's message about the unexpected `arguments`.
std::string DescribeLeftOver(const std::vector<std::string>& arguments) {
  std::string text = arguments.size() > 1 ? "The following arguments were not expected:"
                                          : "The following argument was not expected:";
  for (const std::string& argument : arguments) {
    text += " " + argument;
  }
  return text;
}

// Reports what is wrong with the command line, whose first argument is `first`, null if there is
// none. If the first argument is a command, the message is about that command.
void ReportUsageError(const CLI::App& app, const CLI::ParseError& error, const char* first) {
  const auto commands = app.get_subcommands();
  std::string help = kProgram;
  if (!first) {
    ReportError("command line", "no command given");
  } else if (commands.empty() || commands.front()->get_name() != first) {
    ReportError(first, IsOptionOfCommand(app, first) ? kOptionOfCommand : kNoSuchCommand);
  } else {
    const CLI::App& command = *commands.front();
    const std::vector<std::string> leftOver = LeftOver(app, command);
    const bool isLeftOver = dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr ||
                            (!leftOver.empty() && IsOption(leftOver.front()));
    ReportError(command.get_name(), isLeftOver ? DescribeLeftOver(leftOver) : error.what());
    help += " " + command.get_name();
  }
  ReportLine("Try '" + help + " --help'.");
}

// Returns an empty string when `pattern` can match an entry, otherwise a message.
std::string CheckPattern(const std::string& pattern) {
  return pattern.empty() ? "an empty pattern matches nothing" : "";
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
      ->check(CLI::Validator(CheckPattern, ""))
      ->type_name("GLOB")
      // Without it, help says that one --exclude takes several patterns.
      ->option_text("GLOB")
      ->allow_extra_args(false);
  command
      ->add_option("--threads", options->threads,
                   "1 (the default), or 2 for faster packing into slightly other bytes (more\n"
                   "is the same as 2)")
      ->check(CLI::Range(1U, kMostThreads))
      ->option_text("N");
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
  command
      ->add_flag("--strict", options->strict,
                 "Make every warning an error, so that nothing is packed")
      ->disable_flag_override();
  command->add_flag("--json", options->json, kJSONHelp)->disable_flag_override();
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
  command->add_option("BLOB", options->blob, kBlobHelp)->required()->type_name("FILE");
  command->add_flag("--json", options->json, "Print it as JSON")->disable_flag_override();
  command->callback([options, &status] { status = List(*options); });
}

void AddVerifyCommand(CLI::App& app, int& status) {
  const auto options = std::make_shared<VerifyOptions>();
  CLI::App* command =
      app.add_subcommand("verify", "Check that a blob is well formed, and the same as a bundle");
  command->footer(kVerifyFooter);
  command->add_option("BLOB", options->blob, kBlobHelp)->required()->type_name("FILE");
  command->add_option("BUNDLE", options->bundle, "A bundle to compare its contents with")
      ->type_name("DIR");
  command->add_flag("--json", options->json, kJSONHelp)->disable_flag_override();
  command->callback([options, &status] { status = VerifyBlob(*options); });
}

void AddDiffCommand(CLI::App& app, int& status) {
  const auto options = std::make_shared<DiffOptions>();
  CLI::App* command = app.add_subcommand("diff", "Compare two blobs, or a blob and a directory");
  command->footer(kDiffFooter);
  command->add_option("LEFT", options->left, "A blob or a directory; - for standard input")
      ->required()
      ->type_name("FILE");
  command->add_option("RIGHT", options->right, "What to compare it with")
      ->required()
      ->type_name("FILE");
  command->add_flag("--json", options->json, kJSONHelp)->disable_flag_override();
  command->callback([options, &status] { status = Diff(*options); });
}

void AddUnpackCommand(CLI::App& app, int& status) {
  const auto options = std::make_shared<UnpackOptions>();
  CLI::App* command = app.add_subcommand("unpack", "Write the tree of a blob to disk");
  command->footer(kUnpackFooter);
  command->add_option("BLOB", options->blob, kBlobHelp)->required()->type_name("FILE");
  command
      ->add_option("DIR", options->directory,
                   "Where to write the tree: an empty directory, or one that can be created")
      ->required()
      ->type_name("DIR");
  command->add_option("PATH", options->paths, "An entry of the blob to write (default: all)")
      ->type_name("ENTRY");
  command->add_flag("--json", options->json, kJSONHelp)->disable_flag_override();
  command->callback([options, &status] { status = Unpack(*options); });
}

void AddCheckCommand(CLI::App& app, int& status) {
  const auto options = std::make_shared<CheckOptions>();
  CLI::App* command = app.add_subcommand("check", "Check whether this version may be installed");
  command->footer(kCheckFooter);
  command->add_flag("--json", options->json, "Print it as JSON")->disable_flag_override();
  command->callback([options, &status] { status = Check(*options); });
}

// Returns an empty string when `text` can be the locale in a file's name, otherwise a message.
std::string CheckLocale(const std::string& text) {
  const auto isPart = [](char character) {
    return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
           (character >= '0' && character <= '9') || character == '_' || character == '-';
  };
  const bool isLocale = !text.empty() && std::all_of(text.begin(), text.end(), isPart);
  return isLocale ? "" : "\"" + text + "\" is not a locale: letters, digits, _ and -";
}

void AddLatestCommand(CLI::App& app, int& status) {
  const auto options = std::make_shared<LatestOptions>();
  CLI::App* command = app.add_subcommand("latest", "Fetch the current version description");
  command->footer(kLatestFooter);
  command
      ->add_option("--locale", options->locale,
                   "Whose description to fetch, as in en or pt_BR (default: en, as installed)")
      ->check(CLI::Validator(CheckLocale, ""))
      ->type_name("LOCALE");
  command
      ->add_option("--ca-file", options->authorities,
                   "A PEM file with the authorities to trust instead of the system's")
      ->type_name("FILE");
  command->add_option("--kind", options->kind, "The player's flavour, pep (the default) or pl")
      ->check(CLI::IsMember({kPepperKind, kPluginKind}))
      ->type_name("KIND");
  command
      ->add_option("--time-limit", options->timeLimit,
                   "Seconds that it may take altogether; the default is " +
                       std::to_string(options->timeLimit))
      ->check(CLI::Range(1, kLongestTimeLimit))
      ->type_name("SECONDS");
  command->add_flag("--json", options->json, "Print it as JSON")->disable_flag_override();
  command->callback([options, &status] { status = Latest(*options); });
}

// Adds "kpim help [COMMAND]", which prints the help of that command or of kpim.
void AddHelpCommand(CLI::App& app, int& status) {
  const auto name = std::make_shared<std::string>();
  CLI::App* command = app.add_subcommand("help", "Print the help of a command");
  command->add_option("COMMAND", *name, "The command")->type_name("COMMAND");
  command->callback([name, &app, &status] {
    status = kExitOK;
    if (name->empty()) {
      // App::help would print the help of the command that has been parsed.
      Print(app.get_formatter()->make_help(&app, kProgram, CLI::AppFormatMode::Normal));
      return;
    }
    const auto others =
        app.get_subcommands([&](const CLI::App* other) { return other->get_name() == *name; });
    if (!others.empty()) {
      Print(others.front()->help(kProgram));
      return;
    }
    ReportError(*name, kNoSuchCommand);
    ReportLine("Try 'kpim --help'.");
    status = kExitUsage;
  });
}

}  // namespace

int Run(int argc, char** argv) {
  int status = kExitFailed;
  CLI::App app(kDescription, kProgram);
  app.footer(kFooter);
  app.set_version_flag("--version", kVersionText,
                       "Print the version and the vendor's hosts and exit");
  app.require_subcommand(1);
  AddPackCommand(app, status);
  AddListCommand(app, status);
  AddVerifyCommand(app, status);
  AddDiffCommand(app, status);
  AddUnpackCommand(app, status);
  AddCheckCommand(app, status);
  AddLatestCommand(app, status);
  AddHelpCommand(app, status);

  const std::string withEmptyValue = OptionWithEmptyValue(argc, argv);
  if (!withEmptyValue.empty()) {
    ReportError(withEmptyValue, kEmptyValue);
    ReportLine("Try 'kpim --help'.");
    return kExitUsage;
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    Print(app.help());
    return kExitOK;
  } catch (const CLI::CallForVersion&) {
    Print(kVersionText);
    return kExitOK;
  } catch (const CLI::ParseError& error) {
    ReportUsageError(app, error, argc > 1 ? argv[1] : nullptr);
    return kExitUsage;
  }
  return status;
}

}  // namespace kpim
