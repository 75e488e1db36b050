// A library that leaves a file behind once it has been loaded, in the place of a module that a
// caller would have root's process load.
#include <cstdio>

namespace {

__attribute__((constructor)) void LeaveMark() {
  FILE* const mark = fopen("/tmp/loaded", "w");
  if (mark != nullptr) {
    (void)fclose(mark);
  }
}

}  // namespace
