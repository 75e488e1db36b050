// A stand-in for the install log's class that records what is logged. A test that links it
// does not link the real one.
#pragma once

#include <string>
#include <vector>

/// Everything that happened, in order. The logger adds "log file PATH", "log level N",
/// "log prefix TEXT" and, for each line, "[LEVEL] MESSAGE"; tests add what their own fakes see.
extern std::vector<std::string> g_events;

/// Whether `initWithPath:` yields a logger.
extern bool g_logCanBeOpened;
