// The finalizer's arguments.
#pragma once

#import <Foundation/Foundation.h>

/// Returns true when "-disableAnalytics" is among `argv[1]` to `argv[argc - 1]`, spelled exactly
/// so. The switch may be in any position; as the first argument it is the install root too.
bool ParseCommandLine(int argc, char** argv);

/// Returns the install root, `argv[1]`, autoreleased. Nil when the argument is missing or not
/// UTF-8.
NSString* InstallRootArgument(int argc, char** argv);
