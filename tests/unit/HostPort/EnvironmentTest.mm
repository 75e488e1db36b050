// Foundation in environments that an installer may be started in: it neither hangs nor prints.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/unit/support/TemporaryFolder.h"

namespace {

// Long enough for any machine; a hang is ended by SIGALRM and seen in the status.
constexpr unsigned int kSecondsToHang = 60;

struct Result {
  int status;
  std::string output;
  std::string errors;
};

class EnvironmentTest : public testing::Test {
 protected:
  /// Runs the probe with only these variables.
  Result Run(std::vector<std::string> environment, std::vector<std::string> arguments = {}) {
    const std::string output = folder_ / "output";
    const std::string errors = folder_ / "errors";
    const pid_t child = fork();
    if (child == 0) {
      Exec(environment, arguments, output, errors);
    }
    Result result;
    EXPECT_EQ(child, waitpid(child, &result.status, 0));
    result.output = ReadWholeFile(output);
    result.errors = ReadWholeFile(errors);
    return result;
  }

  TemporaryFolder folder_;

 private:
  [[noreturn]] static void Exec(std::vector<std::string>& environment,
                                std::vector<std::string>& arguments, const std::string& output,
                                const std::string& errors) {
    // Leaks are the other tests' subject.
    environment.push_back("ASAN_OPTIONS=detect_leaks=0");
    arguments.insert(arguments.begin(), KP_FOUNDATION_PROBE);
    std::vector<char*> argv;
    for (std::string& argument : arguments) {
      argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (std::string& variable : environment) {
      envp.push_back(variable.data());
    }
    envp.push_back(nullptr);
    const bool redirected = freopen(output.c_str(), "w", stdout) != nullptr &&
                            freopen(errors.c_str(), "w", stderr) != nullptr;
    alarm(kSecondsToHang);
    if (redirected) {
      execve(argv[0], argv.data(), envp.data());
    }
    _exit(127);
  }
};

void ExpectQuiet(const Result& result, const std::string& home) {
  EXPECT_EQ(0, result.status);
  EXPECT_EQ("HOME=" + home + "\noffset +0000\n", result.output);
  EXPECT_EQ("", result.errors);
}

TEST_F(EnvironmentTest, EmptyEnvironment) { ExpectQuiet(Run({"TZ=UTC"}), "(absent)"); }

TEST_F(EnvironmentTest, HomeThatIsNone) {
  for (const char* home : {"", "/nonexistent/home", "/dev/null", "/proc", "relative"}) {
    ExpectQuiet(Run({"TZ=UTC", std::string("HOME=") + home}), home);
  }
  EXPECT_FALSE(std::filesystem::exists("/nonexistent"));
  EXPECT_FALSE(std::filesystem::exists("relative"));
}

TEST_F(EnvironmentTest, HomeThatCannotBeWritten) {
  const std::string home = folder_ / "home";
  std::filesystem::create_directory(home);
  std::filesystem::permissions(home, std::filesystem::perms(0555));
  ExpectQuiet(Run({"TZ=UTC", "HOME=" + home}), home);
  EXPECT_TRUE(std::filesystem::is_empty(home));
}

TEST_F(EnvironmentTest, ArgumentsThatAreNotUTF8) {
  const Result result = Run({"TZ=UTC"}, {"/nonexistent", "\xFF\xC3", "t\xC3\xA4xt"});
  EXPECT_EQ(0, result.status);
  EXPECT_EQ("HOME=(absent)\noffset +0000\nread (absent)\nargument ??\nargument t\xC3\xA4xt\n",
            result.output);
  EXPECT_EQ("", result.errors);
}

TEST_F(EnvironmentTest, ArgumentsThatMainTakesOut) {
  const Result result = Run({"TZ=UTC"}, {"/nonexistent", "kept", "--taken"});
  EXPECT_EQ(0, result.status);
  EXPECT_EQ("HOME=(absent)\noffset +0000\nread (absent)\nargument kept\n", result.output);
  EXPECT_EQ("", result.errors);
}

TEST_F(EnvironmentTest, VariablesThatAreNotUTF8AreAbsent) {
  ExpectQuiet(Run({"TZ=UTC", "HOME=/\xFF"}), "(absent)");
  ExpectQuiet(Run({"TZ=UTC", "\xFF=1", "X=\xFF", "HOME=/h\xC3\xB6me"}), "/h\xC3\xB6me");
}

TEST_F(EnvironmentTest, TimeZoneThatIsNone) {
  ExpectQuiet(Run({"TZ=Nope/Nope", "HOME=/root"}), "/root");
  ExpectQuiet(Run({"TZ=", "HOME=/root"}), "/root");
}

TEST_F(EnvironmentTest, ReadingAFolderAsAFileIsQuiet) {
  const Result result = Run({"TZ=UTC", "HOME=/root"}, {folder_.Path().string()});
  EXPECT_EQ(0, result.status);
  EXPECT_EQ("HOME=/root\noffset +0000\nread (absent)\n", result.output);
  EXPECT_EQ("", result.errors);
}

}  // namespace
