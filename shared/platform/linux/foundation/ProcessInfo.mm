// Corrections of what GNUstep Base does at the start of a process.
#import <Foundation/Foundation.h>

#include <string>
#include <vector>

#import "shared/platform/linux/foundation/MethodReplacement.h"

namespace {

// An argument that silences GNUstep's warnings on standard error, for instance about files that
// cannot be read; macOS only returns nil. GNUstep removes it from the arguments.
constexpr char kSilenceWarnings[] = "--GNU-Debug=NoWarn";

constexpr unsigned char kLastASCII = 0x7F;
constexpr char kSubstitute = '?';

char** s_argv;
char** s_environment;

/// Keeps the kernel's arrays, the environment after EnvironmentFilter.h has removed variables. The
/// C library passes main's arguments to constructors; this one runs before those that load classes.
__attribute__((constructor(101))) void KeepArguments(int /*argc*/, char** argv,
                                                     char** environment) {
  s_argv = argv;
  s_environment = environment;
}

bool IsUTF8(const char* text) { return [NSString stringWithUTF8String:text] != nil; }

/// The argument; if it is not UTF-8, with a '?' for each byte that is not ASCII.
std::string ReadableArgument(const char* argument) {
  std::string readable = argument;
  if (!IsUTF8(argument)) {
    for (char& byte : readable) {
      byte = static_cast<unsigned char>(byte) > kLastASCII ? kSubstitute : byte;
    }
  }
  return readable;
}

/// The arguments that are there now: main may have removed some since the start.
std::vector<std::string> ReadableArguments() {
  std::vector<std::string> arguments;
  for (char** argument = s_argv; *argument != nullptr; ++argument) {
    arguments.push_back(ReadableArgument(*argument));
  }
  if (arguments.empty()) {
    arguments.emplace_back();  // GNUstep takes the first for the program's name.
  }
  return arguments;
}

/// The environment without the variables that are not UTF-8; a null pointer ends it.
std::vector<char*> ReadableEnvironment() {
  std::vector<char*> environment;
  for (char** variable = s_environment; *variable != nullptr; ++variable) {
    if (IsUTF8(*variable)) {
      environment.push_back(*variable);
    }
  }
  environment.push_back(nullptr);
  return environment;
}

/// GNUstep ends the process at the first argument or environment variable that is not UTF-8. Such
/// an argument is made readable here (main has it unchanged), and such a variable is left out.
void InitializeReadable() {
  NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
  std::vector<std::string> arguments = ReadableArguments();
  arguments.emplace_back(kSilenceWarnings);
  std::vector<char*> argv;
  argv.reserve(arguments.size() + 1);
  for (std::string& argument : arguments) {
    argv.push_back(argument.data());
  }
  argv.push_back(nullptr);
  std::vector<char*> environment = ReadableEnvironment();
  GSInitializeProcess(static_cast<int>(arguments.size()), argv.data(), environment.data());
  [pool release];
}

void (*s_initialize)(id, SEL);

void InitializeProcessInfo(id self, SEL selector) {
  static bool s_isInitialized = false;
  if (!s_isInitialized) {
    s_isInitialized = true;
    InitializeReadable();
  }
  s_initialize(self, selector);
}

const MethodReplacement s_replacement('+', "NSProcessInfo", "initialize", InitializeProcessInfo,
                                      &s_initialize);

}  // namespace
