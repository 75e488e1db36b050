// Settings files of any bytes: read, changed as the finalizer does, written, read again.
#include <string.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "player/ControlPanel/Common/SMConfigFileManager.h"
#include "tests/fuzz/FuzzCheck.h"

namespace {

using SASM::ConfigFileManager;
using SASM::SimpleString;
using Pairs = std::vector<std::pair<std::string, std::string>>;

constexpr char kOptOut[] = "DisableAnalytics";
constexpr size_t kFixedBytes = 1UL << 16;
constexpr size_t kShortestFile = 4;

Pairs PairsOf(const ConfigFileManager& manager) {
  Pairs pairs;
  for (const SASM::MultiMapPair* pair = manager.mSettings.mFirst; pair != manager.mSettings.mEnd;
       pair = pair->next) {
    pairs.emplace_back(pair->key.mString, pair->value.mString);
  }
  return pairs;
}

bool IsBlank(char byte) { return static_cast<signed char>(byte) <= ' '; }

bool IsTrimmed(const std::string& text) {
  return !text.empty() && !IsBlank(text.front()) && !IsBlank(text.back());
}

/// Whether a later read is to find the same. A side that is blank in the file stands for other
/// bytes of it, which may have blanks around them and, as a key, a "=" in them; and a file that is
/// too short is not read.
bool ReadsBack(const Pairs& pairs, const std::string& written) {
  return written.size() >= kShortestFile &&
         std::all_of(pairs.begin(), pairs.end(), [](const auto& pair) {
           return IsTrimmed(pair.first) && IsTrimmed(pair.second) &&
                  pair.first.find('=') == std::string::npos;
         });
}

/// The opt-out in its place, or behind all others; nothing else is touched.
Pairs WithOptOut(Pairs pairs) {
  const auto found = std::find_if(pairs.begin(), pairs.end(),
                                  [](const auto& pair) { return pair.first == kOptOut; });
  if (found != pairs.end()) {
    found->second = "1";
  } else {
    pairs.emplace_back(kOptOut, "1");
  }
  return pairs;
}

void CheckPairs(const Pairs& pairs) {
  for (const auto& [key, value] : pairs) {
    FUZZ_CHECK(key.find_first_of("\r\n") == std::string::npos);
    FUZZ_CHECK(value.find_first_of("\r\n") == std::string::npos);
    FUZZ_CHECK(std::count_if(pairs.begin(), pairs.end(),
                             [&key = key](const auto& pair) { return pair.first == key; }) == 1);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string& path = *new std::string(FuzzFolder() + "/settings");
  WriteFuzzFile(path, data, size);
  const MemoryCount count;
  ConfigFileManager manager{SimpleString(path.c_str())};
  // A line may ask for what a longer one has left: lines by their greatest length.
  FUZZ_CHECK(MemoryCount::Peak() <= kFixedBytes + 64 * size + size * size);
  const Pairs read = PairsOf(manager);
  CheckPairs(read);

  FUZZ_CHECK(manager.UpdateSettingsFile());
  const std::string written = ReadFuzzFile(path);
  {
    ConfigFileManager again{SimpleString(path.c_str())};
    if (ReadsBack(read, written)) {
      FUZZ_CHECK(PairsOf(again) == read);
      FUZZ_CHECK(again.UpdateSettingsFile());
      FUZZ_CHECK(ReadFuzzFile(path) == written);
    }
  }

  manager.UpdateSetting(SimpleString(kOptOut), SimpleString("1"));
  FUZZ_CHECK(strcmp(manager.ValueForKey(SimpleString(kOptOut)).mString, "1") == 0);
  FUZZ_CHECK(manager.UpdateSettingsFile());
  const Pairs changed = PairsOf(manager);
  FUZZ_CHECK(changed == WithOptOut(read));
  const ConfigFileManager last{SimpleString(path.c_str())};
  FUZZ_CHECK(!ReadsBack(changed, ReadFuzzFile(path)) || PairsOf(last) == changed);
  return 0;
}
