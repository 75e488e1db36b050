// Replaces pkexec(1) in AuthorizationTest. With "refuse" or "dismiss" in KP_FAKE_PKEXEC it ends as
// pkexec does then; otherwise it closes the other files and executes the tool, as pkexec does.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

int main(int /*argc*/, char** argv) {
  const char* answer = getenv("KP_FAKE_PKEXEC");
  if (answer != nullptr && strcmp(answer, "refuse") == 0) {
    return 127;
  }
  if (answer != nullptr && strcmp(answer, "dismiss") == 0) {
    return 126;
  }
  if (strcmp(argv[1], "--keep-cwd") != 0) {
    return 127;
  }
  for (int file = STDERR_FILENO + 1; file < 1024; ++file) {
    fcntl(file, F_SETFD, FD_CLOEXEC);
  }
  execv(argv[2], argv + 2);
  return 127;
}
