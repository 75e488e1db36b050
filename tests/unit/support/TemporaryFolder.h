// A private folder for one test, and whole files in one line.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>
#include <iterator>
#include <string>

#include "tests/unit/support/Files.h"

/// A new empty folder, which the destructor removes with everything in it.
class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::string pattern = fs::temp_directory_path() + "/kp-test-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
      ADD_FAILURE() << "no temporary folder";
    }
    mPath = pattern;
  }
  TemporaryFolder(TemporaryFolder const&) = delete;
  TemporaryFolder& operator=(TemporaryFolder const&) = delete;
  ~TemporaryFolder() { fs::remove_all(mPath); }

  std::string const& Path() const { return mPath; }
  /// The path of `name` in the folder.
  std::string operator/(char const* name) const { return mPath + '/' + name; }

 private:
  std::string mPath;
};

/// Every byte of the file; a missing file fails the test.
inline std::string ReadWholeFile(std::string const& path) {
  std::ifstream file(path, std::ios::binary);
  EXPECT_TRUE(file.is_open()) << path;
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

/// Creates or replaces the file.
inline void WriteWholeFile(std::string const& path, std::string const& content) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(content.data(), static_cast<std::streamsize>(content.size()));
  ASSERT_TRUE(file.good()) << path;
}
