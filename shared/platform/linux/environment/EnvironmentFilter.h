// Which environment variables a program that runs as root keeps.
#pragma once

/// Removes from `environment`, a null-terminated array as execve(2) takes it, every variable except
/// HOME, LANG, LANGUAGE, LC_*, LOGNAME, PATH, TMPDIR, TZ and USER. The order stays, and no string
/// is changed.
///
/// A language or locale with a slash in it is removed as well, and so is a TZ that is an absolute
/// path outside /usr/share/zoneinfo or has ".." in it: the C library would open the file they name.
/// An instrumented build keeps the variables of its tools.
///
/// Calls no other function of any library, so it can run before their constructors.
void RemoveUntrustedVariables(char** environment);
