// A library that creates a file when it is loaded. It replaces a module that a caller tries to make
// root's process load.
#include <cstdio>

namespace {

__attribute__((constructor)) void LeaveMark() {
  FILE* const mark = fopen("/tmp/loaded", "w");
  if (mark != nullptr) {
    (void)fclose(mark);
  }
}

}  // namespace
