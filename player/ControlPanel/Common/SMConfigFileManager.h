// The settings file: lines of a key, "=" and a value. docs/settings-format.md describes the
// format as it is read and as it is written, with examples.
#pragma once

#include <stdint.h>
#include <stdio.h>

#include "player/ControlPanel/Common/SMMultiMap.h"
#include "player/ControlPanel/Common/SMShared.h"
#include "player/ControlPanel/Common/SMString.h"

namespace SASM {

/// What the last read found at the start of the file.
enum : int32_t {
  kEncodingNotRead = -1,
  kEncodingNoMark = 0,
  kEncodingUTF8Mark = 1,
  kEncodingUTF16Mark = 2,
};

/// The settings of one file, in memory: read once on construction, changed in memory, written
/// back whole. Nothing locks the file; whoever writes last wins.
class ConfigFileManager {
 public:
  /// Reads the file at `path`. A file that is missing or unreadable gives no settings; an empty
  /// path reads and writes nothing.
  explicit ConfigFileManager(SimpleString const& path);
  ConfigFileManager(ConfigFileManager const&) = delete;
  ConfigFileManager& operator=(ConfigFileManager const&) = delete;
  /// Releases the path, then the settings. Nothing is written.
  ~ConfigFileManager();

  /// Reads the file into the settings. False, and the settings stay as they were, when the path
  /// is empty, the file cannot be opened or has fewer than 4 bytes, begins with a UTF-16
  /// byte-order mark, or is a pipe: its first bytes are read to look for a mark, and it cannot be
  /// rewound. `mEncoding` tells what was found, also for a pipe.
  bool ReadSettingsFile();

  /// Reads the file again, on top of the settings: each key in the file moves to the end with
  /// the file's value, and keys that only memory knows stay. Fails as `ReadSettingsFile` does.
  bool ReloadSettingsFile();

  /// Stores the settings of `file` from its current position to its end.
  void ProcessFile(FILE* file);

  /// Stores the setting of one line, if it holds a "=", in place of every setting with that key
  /// and at the end of the list.
  ///
  /// `line` is NUL-terminated, is changed, and has a second NUL somewhere after the first: a
  /// blank value is answered by the text between the two.
  void ProcessLine(char* line);

  /// Trims the bytes that count as blank, 0x00 to 0x20 and 0x80 to 0xFF, from both ends of
  /// `text`, in place, and returns where the text now begins. Text that is blank or empty stays
  /// as it is, and the address after its NUL is returned. Null for null.
  static char* StripString(char* text);

  /// The value of the first setting with this key; the empty string for a missing key. The
  /// reference holds until the setting is removed.
  SimpleString const& ValueForKey(SimpleString const& key);

  /// Gives the first setting with this key a new value in its place, or appends a setting. Key
  /// and value are taken as they are.
  void UpdateSetting(SimpleString const& key, SimpleString const& value);

  /// Replaces the file by the settings, in place: it is created if absent, its folder is not.
  /// False, with nothing written, when the path is empty or the file cannot be opened; what
  /// fails after that goes unreported.
  bool UpdateSettingsFile();

  /// Writes one line per setting, in list order, at the current position of `file`.
  void ProcessSettingsForWrite(FILE* file);

  /// A new list of every setting's key, in list order; the caller deletes it.
  StringVector* CreateListOfAllKeys();

  /// One of the kEncoding constants. A record only: writing ignores it.
  int32_t mEncoding;
  MultiMap mSettings;
  /// The bytes that fopen(3) is given.
  SimpleString mPath;
};

}  // namespace SASM
