// The finalizer's switches.
#pragma once

/// True when "-disableAnalytics" is among `argv[1]` to `argv[argc - 1]`, spelled exactly so. It
/// may stand in any position; as the first argument it is the install root too.
bool ParseCommandLine(int argc, char** argv);
