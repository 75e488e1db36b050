// The settings file: lines of a key, "=" and a value. docs/settings-format.md describes the
// format as it is read and as it is written, with examples.
#pragma once

#include <stddef.h>
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
/// back whole. Nothing locks the file; the last process to write it wins.
///
/// Only a regular file, or a link to one, is read and written; anything else (a folder, a pipe, a
/// device) counts as a missing file and is not written. No call waits for the other end of a pipe.
///
/// A read that does not reach the end of the text leaves the settings incomplete, and they are then
/// not written, because that would lose the rest: after a read error, and for a file that is too
/// large: 256 MiB and more, or with lines that store so much. A line with a blank value may store
/// the tail of a longer line, so that many of them ask for far more memory than the file has bytes.
///
/// Methods that copy text throw std::bad_alloc when there is no memory. A read that it ends is
/// incomplete, and no file has been emptied.
class ConfigFileManager {
 public:
  /// Reads the file at `path`. For a file that is missing or unreadable there are no settings; with
  /// an empty path nothing is read or written.
  explicit ConfigFileManager(const SimpleString& path);
  ConfigFileManager(const ConfigFileManager&) = delete;
  ConfigFileManager& operator=(const ConfigFileManager&) = delete;
  /// Releases the path, then the settings. Nothing is written.
  ~ConfigFileManager();

  /// Reads the file into the settings. Returns false, and the settings stay as they were, when the
  /// path is empty, the file cannot be opened or is not a regular one, has fewer than 4 bytes, or
  /// begins with a UTF-16 byte-order mark. Also returns false for an incomplete read; the settings
  /// up to its end are then stored. `mEncoding` holds what was found at the start.
  bool ReadSettingsFile();

  /// Reads the file again, on top of the settings: each key in the file moves to the end with
  /// the file's value, and keys that only memory knows stay. Fails as `ReadSettingsFile` does.
  bool ReloadSettingsFile();

  /// Stores the settings of `file` from its current position to its end, and sets `mIsIncomplete`.
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
  const SimpleString& ValueForKey(const SimpleString& key);

  /// Gives the first setting with this key a new value in its place, or appends a setting. Key
  /// and value are taken as they are.
  void UpdateSetting(const SimpleString& key, const SimpleString& value);

  /// Replaces the file by the settings, in place: it is created if absent, its folder is not.
  /// Returns false, with nothing changed, when the path is empty, the settings are incomplete, or
  /// the file cannot be opened and emptied or is not a regular one; what fails after that is not
  /// reported.
  bool UpdateSettingsFile();

  /// Writes one line per setting, in list order, at the current position of `file`.
  void ProcessSettingsForWrite(FILE* file);

  /// A new list of every setting's key, in list order; the caller deletes it.
  StringVector* CreateListOfAllKeys();

  /// One of the kEncoding constants. A record only: writing ignores it.
  int32_t mEncoding;
  MultiMap mSettings;
  /// The bytes that open(2) is given.
  SimpleString mPath;
  /// Whether the last read of a file ended before its text did.
  bool mIsIncomplete = false;
  /// Bytes of the keys and values that the lines of the last read have stored.
  size_t mStoredCount = 0;
};

}  // namespace SASM
