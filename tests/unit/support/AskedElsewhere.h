// Running a function in a child process, for results that are cached once per process.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>

#include "tests/unit/support/EndChild.h"

/// Runs `question` in a forked child and returns its answer, at most 255 bytes up to the first NUL.
/// Fails the test if the child does not exit with 0.
inline std::string AskedElsewhere(const std::function<std::string()>& question) {
  int answer[2];
  EXPECT_EQ(0, pipe(answer));
  const pid_t child = fork();
  if (child == 0) {
    const std::string text = question();
    const bool isWritten =
        write(answer[1], text.data(), text.size()) == static_cast<ssize_t>(text.size());
    EndChild(isWritten ? 0 : 1);
  }
  close(answer[1]);
  char text[256] = {};
  EXPECT_LE(0, read(answer[0], text, sizeof(text) - 1));
  close(answer[0]);
  int status = 0;
  EXPECT_EQ(child, waitpid(child, &status, 0));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  return text;
}
