#include "shared/platform/linux/systemd/JobUnits.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "shared/platform/linux/systemd/SystemBus.h"

namespace {

TEST(JobUnits, NamesAreSystemdsEscaping) {
  EXPECT_EQ("launch-job-com.example.tool.service", JobUnitName("com.example.tool"));
  EXPECT_EQ("launch-job-AZaz09:_.service", JobUnitName("AZaz09:_"));
  EXPECT_EQ("launch-job-a-b.service", JobUnitName("a/b"));
  EXPECT_EQ("launch-job-a\\x2db.service", JobUnitName("a-b"));
  EXPECT_EQ("launch-job-\\x2ehidden.service", JobUnitName(".hidden"));
  EXPECT_EQ("launch-job--.service", JobUnitName("/"));
  EXPECT_EQ("launch-job-a\\x20\\x25n\\x5c\\x40.service", JobUnitName("a %n\\@"));
  EXPECT_EQ("launch-job-\\xc3\\xa9.service", JobUnitName("\xc3\xa9"));
}

TEST(JobUnits, LabelsNeverShareAName) {
  EXPECT_NE(JobUnitName("a/b"), JobUnitName("a-b"));
  EXPECT_NE(JobUnitName("a\\x2db"), JobUnitName("a-b"));
  EXPECT_NE(JobUnitName("A"), JobUnitName("a"));
}

TEST(JobUnits, NoNameIsCut) {
  const std::string longest(255 - 11 - 8, 'x');
  EXPECT_EQ(255u, JobUnitName(longest).size());
  EXPECT_EQ("", JobUnitName(longest + "x"));
  EXPECT_EQ("", JobUnitName(std::string(255, '-')));
  EXPECT_EQ("", JobUnitName(""));
}

// The tests with a bus of their own replace this function.
TEST(JobUnits, TheBusHas25Seconds) { EXPECT_EQ(25'000'000u, BusTimeLimit()); }

TEST(JobUnits, AProcessThatIsNoJobHasNoExecutable) {
  EXPECT_EQ("", JobExecutable(getpid()));
  EXPECT_EQ("", JobExecutable(1));
  EXPECT_EQ("", JobExecutable(-1));
}

}  // namespace
