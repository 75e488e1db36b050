#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/ParseCommandLine.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

bool Parse(std::vector<std::string> arguments) {
  std::vector<char*> argv;
  for (std::string& argument : arguments) {
    argv.push_back(argument.data());
  }
  const int argc = static_cast<int>(argv.size());
  argv.push_back(nullptr);
  return ParseCommandLine(argc, argv.data());
}

TEST(ParseCommandLine, NoArguments) {
  EXPECT_FALSE(Parse({"finalizer"}));
  EXPECT_FALSE(Parse({}));
}

TEST(ParseCommandLine, SwitchInAnyPosition) {
  EXPECT_TRUE(Parse({"finalizer", "-disableAnalytics"}));
  EXPECT_TRUE(Parse({"finalizer", "/", "-disableAnalytics"}));
  EXPECT_TRUE(Parse({"finalizer", "-disableAnalytics", "/"}));
  EXPECT_TRUE(Parse({"finalizer", "/", "x", "y", "-disableAnalytics"}));
  EXPECT_TRUE(Parse({"finalizer", "/", "-disableAnalytics", "x"}));
}

TEST(ParseCommandLine, ProgramNameDoesNotCount) {
  EXPECT_FALSE(Parse({"-disableAnalytics"}));
  EXPECT_FALSE(Parse({"-disableAnalytics", "/"}));
}

TEST(ParseCommandLine, OnlyTheExactSpellingCounts) {
  for (const char* other :
       {"-DisableAnalytics", "-disableanalytics", "-DISABLEANALYTICS", "--disableAnalytics",
        "disableAnalytics", "-disableAnalytics ", "-disableAnalytics=1", "-disableAnalytic", "",
        "-disableAnalytics\xff"}) {
    EXPECT_FALSE(Parse({"finalizer", "/", other})) << other;
  }
}

}  // namespace
