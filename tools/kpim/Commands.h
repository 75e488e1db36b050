// The commands of kpim. Each has a file of its own, and Main.cpp adds them to the
// command line.
#pragma once

#include <CLI/CLI.hpp>

namespace kpim {

/// Exit statuses.
constexpr int kExitOK = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

/// Add a command to `app`. When the command line chooses it, it runs within
/// `CLI::App::parse` and leaves its exit status in `status`, which must live as long as
/// `app`. It has then said on standard error what went wrong.
void AddPackCommand(CLI::App& app, int& status);
void AddListCommand(CLI::App& app, int& status);
void AddVerifyCommand(CLI::App& app, int& status);
void AddUnpackCommand(CLI::App& app, int& status);
void AddCheckCommand(CLI::App& app, int& status);
void AddLatestCommand(CLI::App& app, int& status);

}  // namespace kpim
