// Foundation in environments that an installer may be started in: it neither hangs nor prints.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "tests/unit/support/TemporaryFolder.h"

namespace {

// Long enough for any machine. SIGALRM ends a hang, which the status then shows.
constexpr unsigned int kSecondsToHang = 300;

constexpr int kNoNamespace = 77;

struct Result {
  int status;
  std::string output;
  std::string errors;
};

class EnvironmentTest : public testing::Test {
 protected:
  /// Runs the probe with only these variables. The child calls `prepare` before.
  Result Run(
      std::vector<std::string> environment, std::vector<std::string> arguments = {},
      const std::function<void()>& prepare = [] {}) {
    const std::string output = folder_ / "output";
    const std::string errors = folder_ / "errors";
    const pid_t child = fork();
    if (child == 0) {
      prepare();
      Exec(environment, arguments, output, errors);
    }
    Result result;
    EXPECT_EQ(child, waitpid(child, &result.status, 0));
    result.output = std::filesystem::exists(output) ? ReadWholeFile(output) : "";
    result.errors = std::filesystem::exists(errors) ? ReadWholeFile(errors) : "";
    return result;
  }

  TemporaryFolder folder_;

 private:
  [[noreturn]] static void Exec(std::vector<std::string>& environment,
                                std::vector<std::string>& arguments, const std::string& output,
                                const std::string& errors) {
    // Other tests look for leaks.
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
  for (const char* zone : {"zone.tab", "tzdata.zi", "leapseconds", "posix", "/etc/passwd"}) {
    ExpectQuiet(Run({std::string("TZ=") + zone, "HOME=/root"}), "/root");
  }
  ExpectQuiet(Run({"TZ=Nope/Nope", "HOME=/root"}), "/root");
  ExpectQuiet(Run({"TZ=", "HOME=/root"}), "/root");
}

TEST_F(EnvironmentTest, ReadingAFolderAsAFileIsQuiet) {
  const Result result = Run({"TZ=UTC", "HOME=/root"}, {folder_.Path()});
  EXPECT_EQ(0, result.status);
  EXPECT_EQ("HOME=/root\noffset +0000\nread (absent)\n", result.output);
  EXPECT_EQ("", result.errors);
}

// ---- With other files of the machine

/// Runs the probe with an /etc of the test's, which also sets the user's home.
class MachineTest : public EnvironmentTest {
 protected:
  void SetUp() override {
    std::filesystem::create_directories(etc_);
    for (const char* name : {"GNUstep", "ld.so.cache"}) {
      if (std::filesystem::exists(std::string("/etc/") + name)) {
        std::filesystem::copy(std::string("/etc/") + name, etc_ + "/" + name,
                              std::filesystem::copy_options::recursive);
      }
    }
    // In a user namespace without a mapping every user has the id 65534.
    WriteWholeFile(etc_ + "/passwd", "root:x:0:0::" + home_ +
                                         ":/bin/sh\nnobody:x:65534:65534::" + home_ + ":/bin/sh\n");
    SetLocalTime("Etc/UTC");
    if (RunThere({}).status == kNoNamespace << 8) {
      GTEST_SKIP() << "needs a mount namespace, which this machine does not allow";
    }
  }

  void SetLocalTime(const std::string& zone) const {
    std::filesystem::remove(etc_ + "/localtime");
    std::filesystem::create_symlink("/usr/share/zoneinfo/" + zone, etc_ + "/localtime");
  }

  /// What `defaults write NSGlobalDomain AppleLanguages '(fr)'` writes.
  void SaveLanguages() const {
    std::filesystem::create_directories(defaults_);
    WriteWholeFile(defaults_ + "/NSGlobalDomain.plist",
                   "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                   "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
                   "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
                   "<plist version=\"1.0\">\n<dict>\n    <key>AppleLanguages</key>\n    <array>\n"
                   "\t<string>fr</string>\n    </array>\n</dict>\n</plist>");
  }

  Result RunThere(std::vector<std::string> environment, bool homeIsReadOnly = false,
                  std::vector<std::string> arguments = {}) {
    return Run(std::move(environment), std::move(arguments),
               [this, homeIsReadOnly] { EnterMachine(homeIsReadOnly); });
  }

  const std::string etc_ = folder_ / "etc";
  const std::string home_ = folder_ / "home";
  const std::string defaults_ = home_ + "/GNUstep/Defaults";

 private:
  void EnterMachine(bool homeIsReadOnly) const {
    const int flags = geteuid() == 0 ? CLONE_NEWNS : CLONE_NEWNS | CLONE_NEWUSER;
    const bool isThere =
        unshare(flags) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
        mount(etc_.c_str(), "/etc", nullptr, MS_BIND, nullptr) == 0 &&
        (!homeIsReadOnly ||
         (mount(home_.c_str(), home_.c_str(), nullptr, MS_BIND, nullptr) == 0 &&
          mount(nullptr, home_.c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) == 0));
    if (!isThere) {
      _exit(kNoNamespace);
    }
  }
};

void ExpectOutput(const Result& result, const std::string& output) {
  EXPECT_EQ(0, result.status) << (WIFSIGNALED(result.status) ? "it hung" : "");
  EXPECT_EQ(output, result.output);
  EXPECT_EQ("", result.errors);
}

constexpr char kNoLanguages[] = "HOME=(absent)\noffset +0000\n";
constexpr char kFrench[] = "HOME=(absent)\noffset +0000\nlanguages fr\n";

std::vector<std::string> FilesBelow(const std::string& folder) {
  std::vector<std::string> files;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
    files.push_back(entry.path().lexically_relative(folder));
  }
  return files;
}

using Files = std::vector<std::string>;

TEST_F(MachineTest, DefaultsOfTheHomeInThePasswdEntryAreRead) {
  SaveLanguages();
  ExpectOutput(RunThere({}), kFrench);
  ExpectOutput(RunThere({"LANG=it"}), kFrench);
  ExpectOutput(RunThere({"HOME=/nonexistent"}), "HOME=/nonexistent\noffset +0000\nlanguages fr\n");
  EXPECT_EQ(Files{"NSGlobalDomain.plist"}, FilesBelow(defaults_)) << "nothing is left behind";
}

TEST_F(MachineTest, DefaultsOfTheProgramComeFirst) {
  SaveLanguages();
  WriteWholeFile(defaults_ + "/foundation_probe.plist", "{ AppleLanguages = (sv, da); }");
  ExpectOutput(RunThere({}), "HOME=(absent)\noffset +0000\nlanguages sv,da\n");
}

TEST_F(MachineTest, NobodyWaitsForALockThatWasLeftBehind) {
  SaveLanguages();
  const std::string lock = defaults_ + "/.lck/.GNUstepDefaults.lck";
  std::filesystem::create_directories(lock);
  // In the future, so that it does not become stale during the test.
  std::filesystem::last_write_time(
      lock, std::filesystem::file_time_type::clock::now() + std::chrono::hours(24));
  ExpectOutput(RunThere({}), kFrench);
  ExpectOutput(RunThere({}, true), kFrench);
  EXPECT_TRUE(std::filesystem::exists(lock));
}

TEST_F(MachineTest, HomeThatIsMissing) {
  ExpectOutput(RunThere({}), kNoLanguages);
  EXPECT_FALSE(std::filesystem::exists(home_));
}

TEST_F(MachineTest, HomeWithoutDefaults) {
  std::filesystem::create_directories(home_);
  ExpectOutput(RunThere({}), kNoLanguages);
  ExpectOutput(RunThere({}, true), kNoLanguages);
  EXPECT_EQ(Files{}, FilesBelow(home_));

  std::filesystem::create_directories(defaults_);
  ExpectOutput(RunThere({}), kNoLanguages);
  EXPECT_EQ(Files{}, FilesBelow(defaults_));
}

TEST_F(MachineTest, AConnectionLeavesNothingInTheHome) {
  std::filesystem::create_directories(home_);
  ExpectOutput(RunThere({}, false, {"--connect"}), std::string(kNoLanguages) + "not loaded\n");
  ExpectOutput(RunThere({"HOME=" + home_}, false, {"--connect"}),
               "HOME=" + home_ + "\noffset +0000\nnot loaded\n");
  EXPECT_EQ(Files{}, FilesBelow(home_));
}

TEST_F(MachineTest, HomeThatIsReadOnly) {
  SaveLanguages();
  ExpectOutput(RunThere({}, true), kFrench);
}

TEST_F(MachineTest, HomeThatIsNoFolder) {
  WriteWholeFile(home_, "");
  ExpectOutput(RunThere({}), kNoLanguages);
}

TEST_F(MachineTest, DefaultsThatAreBroken) {
  SaveLanguages();
  for (const std::string& contents :
       {std::string(), std::string("<?xml version=\"1.0\"?><plist><di"), std::string("(fr)"),
        std::string("{ AppleLanguages = (fr"), std::string("bplist00"),
        "bplist00" + std::string(38, '\xFF'), std::string("\x00\xFF\xFE", 3),
        std::string("\x01\x02", 2), std::string("\xFF\xFE{")}) {
    WriteWholeFile(defaults_ + "/NSGlobalDomain.plist", contents);
    ExpectOutput(RunThere({}), kNoLanguages);
  }
}

TEST_F(MachineTest, TimeZoneOfTheMachine) {
  for (const char* zone : {"Asia/Kolkata", "posix/Asia/Kolkata", "right/Asia/Kolkata",
                           "../zoneinfo/posix/./Asia//Kolkata"}) {
    SetLocalTime(zone);
    ExpectOutput(RunThere({}), "HOME=(absent)\noffset +0530\n");
  }
  SetLocalTime("Nope/Nope");
  ExpectOutput(RunThere({}), kNoLanguages);
  std::filesystem::remove(etc_ + "/localtime");
  ExpectOutput(RunThere({}), kNoLanguages);
}

TEST_F(MachineTest, TimeZoneOfTheMachineInACopy) {
  std::filesystem::remove(etc_ + "/localtime");
  std::filesystem::copy_file("/usr/share/zoneinfo/Asia/Kolkata", etc_ + "/localtime");
  ExpectOutput(RunThere({}), "HOME=(absent)\noffset +0530\n");
}

}  // namespace
