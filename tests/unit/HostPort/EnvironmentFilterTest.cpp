#include "shared/platform/linux/environment/EnvironmentFilter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// The variables that the filter keeps.
std::vector<std::string> Kept(std::vector<std::string> variables) {
  std::vector<char*> environment;
  for (std::string& variable : variables) {
    environment.push_back(variable.data());
  }
  environment.push_back(nullptr);
  RemoveUntrustedVariables(environment.data());
  std::vector<std::string> kept;
  for (char** variable = environment.data(); *variable != nullptr; ++variable) {
    kept.emplace_back(*variable);
  }
  return kept;
}

bool IsKept(const std::string& variable) { return !Kept({variable}).empty(); }

TEST(EnvironmentFilter, KeepsTheTrustedVariablesInTheirOrder) {
  const std::vector<std::string> trusted = {
      "USER=root", "TZ=UTC",        "TMPDIR=/tmp",    "PATH=/bin:relative",    "LOGNAME=root",
      "LC_ALL=C",  "LC_MESSAGES=C", "LANGUAGE=de:fr", "LANG=de_DE.UTF-8@euro", "HOME=/any/where",
      "HOME=again"};
  EXPECT_EQ(trusted, Kept(trusted));
  EXPECT_THAT(Kept({"A=1", "HOME=", "B=2", "LANG=", "C=3"}), ElementsAre("HOME=", "LANG="));
  EXPECT_THAT(Kept({}), IsEmpty());
}

TEST(EnvironmentFilter, RemovesEveryOther) {
  EXPECT_THAT(
      Kept({"OPENSSL_CONF=x", "SSLKEYLOGFILE=x", "LOCALDOMAIN=x", "RES_OPTIONS=x",
            "GNUSTEP_CONFIG_FILE=x", "DBUS_SYSTEM_BUS_ADDRESS=x", "LD_PRELOAD=x", "GCONV_PATH=x"}),
      IsEmpty());
}

TEST(EnvironmentFilter, NamesAreComparedWhole) {
  EXPECT_THAT(Kept({"HOMES=x", "XHOME=x", "HOM=x", "home=x", "LANGUAGES=x", "LC=x", "PATHS=x",
                    "TZDIR=x", "HOME", "LANG", "", "=", "=HOME=x"}),
              IsEmpty());
}

TEST(EnvironmentFilter, ALocaleIsNoPath) {
  for (const char* name : {"LANG=", "LANGUAGE=", "LC_ALL=", "LC_MESSAGES="}) {
    EXPECT_TRUE(IsKept(std::string(name) + "sr_RS@latin"));
    EXPECT_FALSE(IsKept(std::string(name) + "../../tmp/x"));
    EXPECT_FALSE(IsKept(std::string(name) + "/tmp/x"));
    EXPECT_FALSE(IsKept(std::string(name) + "de:x/"));
  }
}

TEST(EnvironmentFilter, ATimeZoneIsOneOfTheSystems) {
  for (const char* zone :
       {"", "UTC", "Europe/Berlin", ":Europe/Berlin", "CET-1CEST,M3.5.0,M10.5.0/3", "<+0330>-3:30",
        "/usr/share/zoneinfo/Europe/Berlin", ":/usr/share/zoneinfo/posix/UTC"}) {
    EXPECT_TRUE(IsKept(std::string("TZ=") + zone)) << zone;
  }
  for (const char* zone : {"/etc/shadow", ":/dev/tty", "/usr/share/zoneinfo", "..",
                           "../../../etc/shadow", "/usr/share/zoneinfo/../../../etc/shadow"}) {
    EXPECT_FALSE(IsKept(std::string("TZ=") + zone)) << zone;
  }
}

TEST(EnvironmentFilter, OnlyAnInstrumentedBuildKeepsWhatItsToolsNeed) {
#if defined(KP_INSTRUMENTED)
  constexpr bool kIsInstrumented = true;
#else
  constexpr bool kIsInstrumented = false;
#endif
  for (const char* name : {"ASAN_OPTIONS", "ASAN_SYMBOLIZER_PATH", "LLVM_PROFILE_FILE",
                           "LSAN_OPTIONS", "UBSAN_OPTIONS"}) {
    EXPECT_EQ(kIsInstrumented, IsKept(std::string(name) + "=x")) << name;
  }
}

}  // namespace
