#include <gtest/gtest.h>
#include <sys/personality.h>
#include <sys/sysctl.h>
#include <sys/utsname.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>

namespace {

/// The value `name`; -1 when it cannot be read.
int32_t ValueOf(const char* name) {
  int32_t value = -1;
  size_t size = sizeof(value);
  return sysctlbyname(name, &value, &size, nullptr, 0) == 0 && size == sizeof(value) ? value : -1;
}

std::string MachineName() {
  utsname host;
  return uname(&host) == 0 ? host.machine : "";
}

TEST(Sysctlbyname, DescribesTheProcessor) {
  if (MachineName() == "x86_64") {
    EXPECT_EQ(7, ValueOf("hw.cputype"));
    EXPECT_EQ(1, ValueOf("hw.optional.x86_64"));
  } else {
    ASSERT_EQ("aarch64", MachineName()) << "no expectation for this machine";
    EXPECT_EQ(0x0100000C, ValueOf("hw.cputype"));
    EXPECT_EQ(0, ValueOf("hw.optional.x86_64"));
  }
  EXPECT_EQ(1, ValueOf("hw.cpu64bit_capable"));
  EXPECT_EQ(1, ValueOf("hw.optional.64bitops"));
}

TEST(Sysctlbyname, DescribesA32BitMachine) {
  const int before = personality(0xffffffff);
  ASSERT_NE(-1, personality(PER_LINUX32));
  if (MachineName() == "i686") {  // Other processors have other names for it.
    EXPECT_EQ(7, ValueOf("hw.cputype"));
    EXPECT_EQ(0, ValueOf("hw.cpu64bit_capable"));
    EXPECT_EQ(0, ValueOf("hw.optional.x86_64"));
    EXPECT_EQ(0, ValueOf("hw.optional.64bitops"));
  } else {
    EXPECT_EQ(-1, ValueOf("hw.cputype"));
    EXPECT_EQ(ENOENT, errno);
  }
  personality(static_cast<unsigned long>(before));
}

TEST(Sysctlbyname, KnowsNoOtherName) {
  for (const char* name :
       {"hw.ncpu", "kern.osrelease", "hw.cputype ", "hw.cputyp", "HW.CPUTYPE", ""}) {
    errno = 0;
    EXPECT_EQ(-1, ValueOf(name)) << name;
    EXPECT_EQ(ENOENT, errno) << name;
  }
}

TEST(Sysctlbyname, FillsNoMoreThanTheBuffer) {
  unsigned char buffer[8];
  memset(buffer, 0xAA, sizeof(buffer));
  size_t size = 2;
  EXPECT_EQ(-1, sysctlbyname("hw.cputype", buffer, &size, nullptr, 0));
  EXPECT_EQ(ENOMEM, errno);
  EXPECT_EQ(2u, size);
  EXPECT_EQ(0xAA, buffer[2]);

  size = sizeof(buffer);
  EXPECT_EQ(0, sysctlbyname("hw.cputype", buffer, &size, nullptr, 0));
  EXPECT_EQ(sizeof(int32_t), size);
  EXPECT_EQ(0xAA, buffer[4]);
}

TEST(Sysctlbyname, ReadsOnly) {
  int32_t value = 1;
  size_t size = sizeof(value);
  EXPECT_EQ(-1, sysctlbyname("hw.cputype", &value, &size, &value, sizeof(value)));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_EQ(-1, sysctlbyname("hw.cputype", nullptr, &size, nullptr, 0));
  EXPECT_EQ(EINVAL, errno);
}

}  // namespace
