// Settings files of any bytes: read, against a second reading, then changed as the finalizer does,
// written, read again.
#include <string.h>

#include <algorithm>
#include <iterator>
#include <memory>
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
constexpr size_t kShortestFile = 4;

// Memory that a read takes besides the settings. Fixed: the stream with its buffer, the path, the
// end marker and the smallest line buffer. In lines as long as the longest: the line buffer while
// it doubles, and the copies of a key and a value.
constexpr size_t kFixedBytes = 6144;
constexpr size_t kLinesInUse = 10;
constexpr size_t kSettingBytes = sizeof(SASM::MultiMapPair) + 2;

Pairs PairsOf(const ConfigFileManager& manager) {
  Pairs pairs;
  for (const SASM::MultiMapPair* pair = manager.mSettings.mFirst; pair != manager.mSettings.mEnd;
       pair = pair->next) {
    pairs.emplace_back(pair->key.mString, pair->value.mString);
  }
  return pairs;
}

bool IsBlank(char byte) { return static_cast<signed char>(byte) <= ' '; }

/// Trims the text at `start` in the line buffer and returns where it begins then. Blank text begins
/// after its end: it is what an earlier line left there.
size_t Trim(std::string& buffer, size_t start) {
  const size_t end = buffer.find('\0', start);
  const auto isKept = [](char byte) { return !IsBlank(byte); };
  const auto text = buffer.begin() + static_cast<std::ptrdiff_t>(start);
  const auto textEnd = buffer.begin() + static_cast<std::ptrdiff_t>(end);
  const auto first = std::find_if(text, textEnd, isKept);
  if (first == textEnd) {
    return end + 1;
  }
  *std::find_if(std::make_reverse_iterator(textEnd), std::make_reverse_iterator(first), isKept)
       .base() = '\0';
  return static_cast<size_t>(first - buffer.begin());
}

/// The settings of a file, and the counts that bound the memory for them.
struct Reading {
  Pairs pairs;
  size_t settings = 0;
  size_t blankSides = 0;
  size_t longestLine = 0;
};

/// Reads a line, which the buffer holds over the lines before it.
void ReadLine(const std::string& line, std::string& buffer, Reading& reading) {
  reading.longestLine = std::max(reading.longestLine, line.size());
  std::copy(line.begin(), line.end(), buffer.begin());
  buffer[line.size()] = '\0';
  const size_t separator = buffer.find('=');
  if (separator > buffer.find('\0')) {
    return;
  }
  buffer[separator] = '\0';
  const size_t keyStart = Trim(buffer, 0);
  const size_t valueEnd = buffer.find('\0', separator + 1);
  const size_t valueStart = Trim(buffer, separator + 1);
  const std::string key = buffer.c_str() + keyStart;
  const std::string value = buffer.c_str() + valueStart;
  reading.pairs.erase(std::remove_if(reading.pairs.begin(), reading.pairs.end(),
                                     [&key](const auto& pair) { return pair.first == key; }),
                      reading.pairs.end());
  reading.pairs.emplace_back(key, value);
  ++reading.settings;
  reading.blankSides += (keyStart > separator ? 1 : 0) + (valueStart > valueEnd ? 1 : 0);
}

/// A second reading, after docs/settings-format.md.
Reading Read(std::string file) {
  Reading reading;
  const std::string start = file.substr(0, 2);
  if (file.size() < kShortestFile || start == "\xFF\xFE" || start == "\xFE\xFF") {
    return reading;
  }
  if (file.compare(0, 3, "\xEF\xBB\xBF") == 0) {
    file.erase(0, 3);
  }
  // Zeros, two of them after the longest line.
  std::string buffer(file.size() + 3, '\0');
  for (size_t at = 0; at < file.size();) {
    const size_t end = std::min(file.find_first_of("\r\n", at), file.size());
    ReadLine(file.substr(at, end - at), buffer, reading);
    at = end + (end < file.size() && file[end] == '\r' ? 2 : 1);
  }
  return reading;
}

/// The most memory that a read may take. A setting takes its line's text, and a blank side what
/// another line has left.
size_t MemoryBound(size_t size, const Reading& reading) {
  return kFixedBytes + size + reading.settings * kSettingBytes +
         (reading.blankSides + kLinesInUse) * (reading.longestLine + 1);
}

bool IsTrimmed(const std::string& text) {
  return !text.empty() && !IsBlank(text.front()) && !IsBlank(text.back());
}

/// Whether reading `written` must find `pairs`. Not if a side was blank in the file: its text is
/// left over from other lines, and may have blanks around it or, in a key, a "=". Not if the file
/// is too short to be read.
bool ReadsBack(const Pairs& pairs, const std::string& written) {
  return written.size() >= kShortestFile &&
         std::all_of(pairs.begin(), pairs.end(), [](const auto& pair) {
           return IsTrimmed(pair.first) && IsTrimmed(pair.second) &&
                  pair.first.find('=') == std::string::npos;
         });
}

/// `pairs` with the opt-out set: in its place, or after all others. Nothing else changes.
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
  std::unique_ptr<ConfigFileManager> owner;
  size_t peak = 0;
  {
    const MemoryCount count;
    owner = std::make_unique<ConfigFileManager>(SimpleString(path.c_str()));
    peak = MemoryCount::Peak();
  }
  ConfigFileManager& manager = *owner;
  const Reading expected = Read(std::string(data, data + size));
  FUZZ_CHECK(peak <= MemoryBound(size, expected));
  const Pairs read = PairsOf(manager);
  FUZZ_CHECK(read == expected.pairs);
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
