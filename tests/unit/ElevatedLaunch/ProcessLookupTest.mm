#include "shared/platform/mac/ProcessLookup.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include "tests/unit/ElevatedLaunch/FakePlatform.h"

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::ElementsAreArray;

using Table = std::vector<pid_t>;

class ProcessLookupTest : public testing::Test {
 protected:
  ProcessLookupTest() { ResetFakePlatform(); }

  static Table AllPIDs() {
    pid_t* pids = nullptr;
    const int32_t count = getAllPIDs(&pids);
    EXPECT_NE(nullptr, pids);
    const Table table(pids, pids + count);
    free(pids);
    return table;
  }
};

TEST_F(ProcessLookupTest, TheFirstHalfOfTheListCounts) {
  fakePlatform->tables = {{1001, 1002, 1003, 1004, 1005, 1006}};
  EXPECT_THAT(AllPIDs(), ElementsAre(1001, 1002, 1003));
  fakePlatform->tables = {{1001, 1002, 1003, 1004, 1005}};
  EXPECT_THAT(AllPIDs(), ElementsAre(1001, 1002));
  fakePlatform->tables = {{1001}};
  EXPECT_THAT(AllPIDs(), ElementsAre());
}

TEST_F(ProcessLookupTest, TheWholeListIsStored) {
  const Table table = {1001, 1002, 1003, 1004};
  fakePlatform->tables = {table};
  pid_t* pids = nullptr;
  ASSERT_EQ(2, getAllPIDs(&pids));
  EXPECT_THAT(Table(pids, pids + 4), ElementsAreArray(table));
  free(pids);
}

TEST_F(ProcessLookupTest, TheBufferHasTheAnnouncedSize) {
  fakePlatform->tables = {{1001, 1002, 1003, 1004}};
  fakePlatform->announcedSize = 96;
  EXPECT_THAT(AllPIDs(), ElementsAre(1001, 1002));
  EXPECT_THAT(fakePlatform->bufferSizes, ElementsAre(96));
}

TEST_F(ProcessLookupTest, ProcessesThatStartBetweenTheCallsAreCut) {
  fakePlatform->tables = {{1001, 1002, 1003, 1004, 1005, 1006}};
  fakePlatform->announcedSize = 16;
  EXPECT_THAT(AllPIDs(), ElementsAre(1001, 1002));
}

TEST_F(ProcessLookupTest, ProcessesThatEndBetweenTheCallsAreMissing) {
  fakePlatform->tables = {{1001, 1002}};
  fakePlatform->announcedSize = 400;
  EXPECT_THAT(AllPIDs(), ElementsAre(1001));
}

TEST_F(ProcessLookupTest, AListThatCannotBeReadIsEmpty) {
  EXPECT_THAT(AllPIDs(), ElementsAre());
  EXPECT_THAT(fakePlatform->bufferSizes, ElementsAre(1));
}

TEST_F(ProcessLookupTest, AliveInTheFirstHalf) {
  fakePlatform->tables = {{1001, 1002, 1003, 1004}};
  EXPECT_TRUE(isPIDAlive(1001));
  EXPECT_TRUE(isPIDAlive(1002));
  EXPECT_FALSE(isPIDAlive(1003));
  EXPECT_FALSE(isPIDAlive(7));
}

TEST_F(ProcessLookupTest, OlderThanTheCallerIsNotAlive) {
  fakePlatform->tables = {{1001, getpid(), 1003, 1004, 1005, 1006}};
  EXPECT_TRUE(isPIDAlive(1001));
  EXPECT_FALSE(isPIDAlive(1003));
}

TEST_F(ProcessLookupTest, TheCallerItselfIsNotAlive) {
  fakePlatform->tables = {{getpid(), 1002, 1003, 1004}};
  EXPECT_FALSE(isPIDAlive(getpid()));
}

TEST_F(ProcessLookupTest, TheProcessIdZeroCanBeAlive) {
  fakePlatform->tables = {{0, 1002}};
  EXPECT_TRUE(isPIDAlive(0));
}

TEST_F(ProcessLookupTest, FindsTheFirstWithThePath) {
  fakePlatform->tables = {{1001, 1002, 1003, 1, 1, 1}};
  fakePlatform->paths = {{1001, "/bin/other"}, {1002, "/bin/tool"}, {1003, "/bin/tool"}};
  EXPECT_EQ(1002, findPID("/bin/tool"));
}

TEST_F(ProcessLookupTest, ThePathIsComparedByteForByte) {
  fakePlatform->tables = {{1001, 1}};
  fakePlatform->paths = {{1001, "/bin/tool"}};
  EXPECT_EQ(0, findPID("/bin/Tool"));
  EXPECT_EQ(0, findPID("/bin/too"));
  EXPECT_EQ(0, findPID("/bin/tool "));
  EXPECT_EQ(0, findPID("/bin/../bin/tool"));
  EXPECT_EQ(0, findPID(""));
  EXPECT_EQ(0, findPID(nullptr));
}

TEST_F(ProcessLookupTest, OlderThanTheCallerIsNotFound) {
  fakePlatform->tables = {{1001, getpid(), 1003, 1, 1, 1}};
  fakePlatform->paths = {{getpid(), "/bin/tool"}, {1003, "/bin/tool"}};
  EXPECT_EQ(0, findPID("/bin/tool"));
  EXPECT_THAT(fakePlatform->askedPaths, ElementsAre(1001));
}

TEST_F(ProcessLookupTest, InTheSecondHalfIsNotFound) {
  fakePlatform->tables = {{1001, 1002, 1003, 1004}};
  fakePlatform->paths = {{1003, "/bin/tool"}};
  EXPECT_EQ(0, findPID("/bin/tool"));
}

TEST_F(ProcessLookupTest, ProcessesWithoutAPathArePassedOver) {
  fakePlatform->tables = {{1001, 1002, 1, 1}};
  fakePlatform->paths = {{1002, "/bin/tool"}};
  EXPECT_EQ(1002, findPID("/bin/tool"));
}

TEST_F(ProcessLookupTest, ThePathBeforeIsNotTakenForThatOfAProcessWithoutOne) {
  fakePlatform->tables = {{1001, 1002, 1003, 1, 1, 1}};
  fakePlatform->paths = {{1001, "/bin/other"}, {1003, "/bin/tool"}};
  EXPECT_EQ(0, findPID(""));
  EXPECT_EQ(1003, findPID("/bin/tool"));
}

TEST_F(ProcessLookupTest, TheProcessIdZeroIsNotAsked) {
  fakePlatform->tables = {{0, 1002, 1, 1}};
  fakePlatform->paths = {{0, "/bin/tool"}, {1002, "/bin/tool"}};
  EXPECT_EQ(1002, findPID("/bin/tool"));
  EXPECT_THAT(fakePlatform->askedPaths, ElementsAre(1002));
}

TEST_F(ProcessLookupTest, ThePathsBufferHas4096Bytes) {
  fakePlatform->tables = {{1001, 1002, 1, 1}};
  const std::string longest = "/" + std::string(4094, 'x');
  fakePlatform->paths = {{1001, longest + "x"}, {1002, longest}};
  EXPECT_EQ(0, findPID((longest + "x").c_str()));
  EXPECT_EQ(1002, findPID(longest.c_str()));
  EXPECT_THAT(fakePlatform->pathCapacities, Each(4096u));
}

}  // namespace
