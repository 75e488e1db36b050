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

/// What the last read found at the start of the file: a byte-order mark, or none.
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
/// A read that does not reach the end of the text leaves the settings incomplete. Incomplete
/// settings are not written back, because the rest of the file would be lost. A read ends early
/// after a read error, and when the file is too large: its lines, each with one byte for its end,
/// have 256 MiB or more, or their keys and values do. (A blank value may become the tail of an
/// earlier, longer line, so keys and values may have far more bytes than the file.)
///
/// Methods that copy text throw std::bad_alloc when memory runs out. A read that ends in this way
/// is incomplete. No file has been emptied at that point.
class ConfigFileManager {
 public:
  /// Reads the file at `path`. A missing or unreadable file leaves the settings empty; with an
  /// empty path nothing is read or written.
  explicit ConfigFileManager(const SimpleString& path);
  ConfigFileManager(const ConfigFileManager&) = delete;
  ConfigFileManager& operator=(const ConfigFileManager&) = delete;
  /// Releases the path, then the settings. Nothing is written.
  ~ConfigFileManager();

  /// Reads the file into the settings. Sets `mEncoding` to what was found at the start. Returns
  /// false, with the settings unchanged, when the path is empty, and when the file cannot be
  /// opened, is not a regular file, has fewer than 4 bytes, or begins with a UTF-16 byte-order
  /// mark. Also returns false for an incomplete read; the settings read so far are then stored.
  bool ReadSettingsFile();

  /// The same as `ReadSettingsFile`. Both add to the settings: each key in the file moves to the
  /// end with the file's value, and keys that the file lacks stay.
  bool ReloadSettingsFile();

  /// Stores the settings of `file` from its current position to its end, and sets `mIsIncomplete`.
  void ProcessFile(FILE* file);

  /// If the line has a "=", removes every setting with its key and appends its setting to the list.
  ///
  /// `line` is NUL-terminated and must have a second NUL after the first: the text between the two
  /// takes the place of a blank value. A blank key is replaced by the text after the "=". The line
  /// is changed.
  void ProcessLine(char* line);

  /// Trims the bytes that count as blank, 0x00 to 0x20 and 0x80 to 0xFF, from both ends of `text`,
  /// in place, and returns where the text now begins. For blank or empty text changes nothing and
  /// returns the address after its NUL. Returns null for null.
  static char* StripString(char* text);

  /// Returns the value of the first setting with this key, or the empty string for a missing key.
  /// The reference is valid until the setting is removed.
  const SimpleString& ValueForKey(const SimpleString& key);

  /// Replaces the value of the first setting with this key, or appends a setting. Key and value are
  /// not trimmed or checked.
  void UpdateSetting(const SimpleString& key, const SimpleString& value);

  /// Writes the settings over the file. A missing file is created, a missing folder is not. Returns
  /// false, with nothing changed, when the path is empty, the settings are incomplete, or the file
  /// is not a regular file or cannot be opened and emptied. Later failures are not reported.
  bool UpdateSettingsFile();

  /// Writes one line per setting, in list order, at the current position of `file`.
  void ProcessSettingsForWrite(FILE* file);

  /// Returns a new list of every setting's key, in list order. The caller deletes it.
  StringVector* CreateListOfAllKeys();

  /// One of the kEncoding constants. A record only: writing ignores it.
  int32_t mEncoding;
  MultiMap mSettings;
  /// The path that is passed to open(2).
  SimpleString mPath;
  /// Whether the last read ended before the end of the text.
  bool mIsIncomplete = false;
  /// Bytes of the keys and values that the lines of the last read have stored.
  size_t mStoredCount = 0;
};

}  // namespace SASM
