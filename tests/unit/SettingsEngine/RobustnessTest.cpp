// Files of any bytes. Under the sanitizers every one of these is a memory test as well.
#include <gtest/gtest.h>
#include <string.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "player/ControlPanel/Common/SMConfigFileManager.h"
#include "tests/unit/SettingsEngine/SettingsText.h"
#include "tests/unit/support/TemporaryFolder.h"

namespace {

using SASM::ConfigFileManager;
using SASM::SimpleString;

constexpr size_t kMegabyte = 1000 * 1000;

/// What docs/settings-format.md says, in other words: the buffer is as large as the
/// file from the start, lines are cut out first, and texts are offsets into the buffer.
class Model {
 public:
  explicit Model(std::string const& file) : mBuffer(file.size() + 4, '\0') {
    if (file.size() < 4) {
      return;
    }
    if (file.compare(0, 2, "\xFF\xFE") == 0 || file.compare(0, 2, "\xFE\xFF") == 0) {
      return;
    }
    size_t position = file.compare(0, 3, "\xEF\xBB\xBF") == 0 ? 3 : 0;
    while (position < file.size()) {
      const size_t end = std::min(file.find_first_of("\r\n", position), file.size());
      std::copy(&file[position], &file[end], mBuffer.begin());
      mBuffer[end - position] = '\0';
      TakeLine();
      position = end + (end < file.size() && file[end] == '\r' ? 2 : 1);
    }
  }

  Settings settings;

 private:
  static bool IsBlank(char byte) {
    const unsigned value = static_cast<unsigned char>(byte);
    return value <= 0x20 || value >= 0x80;
  }

  std::string TextAt(size_t offset) const { return &mBuffer[offset]; }

  /// Where the trimmed text begins that begins at `offset` now.
  size_t Trim(size_t offset) {
    const std::string text = TextAt(offset);
    const auto begin = std::find_if_not(text.begin(), text.end(), IsBlank);
    if (begin == text.end()) {
      return offset + text.size() + 1;
    }
    const auto end = std::find_if_not(text.rbegin(), text.rend(), IsBlank).base();
    mBuffer[offset + static_cast<size_t>(end - text.begin())] = '\0';
    return offset + static_cast<size_t>(begin - text.begin());
  }

  void TakeLine() {
    const size_t separator = TextAt(0).find('=');
    if (separator == std::string::npos) {
      return;
    }
    mBuffer[separator] = '\0';
    const size_t keyOffset = Trim(0);
    const size_t valueOffset = Trim(separator + 1);
    const std::string key = TextAt(keyOffset);
    settings.erase(std::remove_if(settings.begin(), settings.end(),
                                  [&key](auto const& setting) { return setting.first == key; }),
                   settings.end());
    settings.emplace_back(key, TextAt(valueOffset));
  }

  std::string mBuffer;
};

class Robustness : public testing::Test {
 protected:
  Settings SettingsIn(std::string const& content) {
    // Some file systems wait for the disk when a file is overwritten.
    fs::remove(mPath);
    WriteWholeFile(mPath, content);
    const ConfigFileManager manager(SimpleString(mPath.c_str()));
    return SettingsOf(manager);
  }

  TemporaryFolder mFolder;
  std::string mPath = mFolder / "rks.cfg";
};

TEST_F(Robustness, EveryShortFileIsReadAsDescribed) {
  // Every file of up to four of the bytes that matter.
  const std::string bytes("=a \n\r\0\xE9", 7);
  size_t fileCount = 1;
  for (size_t length = 0; length <= 4; ++length, fileCount *= bytes.size()) {
    for (size_t number = 0; number < fileCount; ++number) {
      std::string file;
      for (size_t rest = number; file.size() < length; rest /= bytes.size()) {
        file += bytes[rest % bytes.size()];
      }
      ASSERT_EQ(SettingsIn(file), Model(file).settings) << testing::PrintToString(file);
    }
  }
}

TEST_F(Robustness, RandomFilesAreReadAsDescribed) {
  std::mt19937 random(20230817);  // always the same files
  const std::string common("==\n\n\rab  \0\x01\x7F\x80\xFF", 14);
  for (int round = 0; round < 400; ++round) {
    std::string file;
    const size_t length = random() % 300;
    const unsigned anyByteShare = random() % 4;
    while (file.size() < length) {
      const bool isAnyByte = random() % 4 < anyByteShare;
      file += isAnyByte ? static_cast<char>(random() % 256) : common[random() % common.size()];
    }
    ASSERT_EQ(SettingsIn(file), Model(file).settings) << "round " << round;
  }
}

TEST_F(Robustness, RandomLongLinesAreReadAsDescribed) {
  std::mt19937 random(19370101);  // always the same files
  for (int round = 0; round < 100; ++round) {
    // Lines that grow the buffer, and blank values that show what it held before.
    std::string file;
    for (int line = 0; line < 10; ++line) {
      for (size_t length = random() % 5000; length > 0; --length) {
        file += "abcd \xE9"[random() % 6];
      }
      file += random() % 4 == 0 ? "\n" : "= \n";
    }
    ASSERT_EQ(SettingsIn(file), Model(file).settings) << "round " << round;
  }
}

TEST_F(Robustness, RandomBytesByTheMegabyte) {
  std::mt19937 random(7);
  std::string file;
  // Most lines of it have no "=", so the keys stay few enough for a test.
  while (file.size() < kMegabyte) {
    const char byte = static_cast<char>(random() % 256);
    file += byte == '=' && random() % 8 != 0 ? 'x' : byte;
  }
  EXPECT_EQ(SettingsIn(file), Model(file).settings);
}

TEST_F(Robustness, OneLineOfFiftyMegabytes) {
  const std::string value(50 * kMegabyte, 'v');
  EXPECT_EQ(SettingsIn("key=" + value), (Settings{{"key", value}}));
  EXPECT_EQ(SettingsIn(value), Settings{});
}

TEST_F(Robustness, NothingButCarriageReturns) {
  EXPECT_EQ(SettingsIn(std::string(50 * kMegabyte, '\r')), Settings{});
}

TEST_F(Robustness, NothingButSeparators) {
  const std::string file(50 * kMegabyte, '=');
  const std::string rest(file.size() - 1, '=');
  EXPECT_EQ(SettingsIn(file), (Settings{{rest, rest}}));
}

TEST_F(Robustness, NothingButNulBytes) {
  EXPECT_EQ(SettingsIn(std::string(50 * kMegabyte, '\0')), Settings{});
}

TEST_F(Robustness, ManyLinesOfFewKeys) {
  std::string file;
  while (file.size() < kMegabyte) {
    file += "a = 1\r\nb=2\n# note\nc=\n=\n";
  }
  EXPECT_EQ(SettingsIn(file), Model(file.substr(file.size() - 230)).settings);
}

TEST_F(Robustness, HundredsOfKeysKeepTheirOrder) {
  std::string file;
  Settings expected;
  for (int number = 0; number < 300; ++number) {
    const std::string key = "key" + std::to_string(number);
    file += key + "=" + std::to_string(number) + "\n";
    expected.emplace_back(key, std::to_string(number));
  }
  EXPECT_EQ(SettingsIn(file), expected);
}

TEST_F(Robustness, WhatIsWrittenIsReadBack) {
  std::mt19937 random(11);
  for (int round = 0; round < 20; ++round) {
    std::string file;
    for (int line = 0; line < 20; ++line) {
      file += std::string(random() % 3, ' ') + "key" + std::to_string(random() % 8) +
              std::string(random() % 2, '\t') + "=value " + std::to_string(random()) + "\r\n";
    }
    const Settings before = SettingsIn(file);
    ConfigFileManager manager{SimpleString(mPath.c_str())};
    ASSERT_TRUE(manager.UpdateSettingsFile());
    const std::string written = ReadWholeFile(mPath);
    ASSERT_EQ(SettingsIn(written), before);
    ConfigFileManager again{SimpleString(mPath.c_str())};
    ASSERT_TRUE(again.UpdateSettingsFile());
    ASSERT_EQ(ReadWholeFile(mPath), written) << "a second rewrite changes nothing";
  }
}

}  // namespace
