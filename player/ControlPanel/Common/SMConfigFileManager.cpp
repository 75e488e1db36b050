#include "player/ControlPanel/Common/SMConfigFileManager.h"

#include <errno.h>
#include <string.h>

#include <utility>

namespace SASM {

namespace {

/// A file shorter than this is never parsed.
constexpr size_t kMinimumFileSize = 4;
constexpr unsigned char kUTF8Mark[] = {0xEF, 0xBB, 0xBF};
/// The two UTF-16 marks as little-endian numbers: FE FF and FF FE.
constexpr unsigned int kUTF16BigEndianMark = 0xFFFE;
constexpr unsigned int kUTF16LittleEndianMark = 0xFEFF;

constexpr size_t kInitialLineCapacity = 1024;
constexpr char kSeparator = '=';
constexpr char kLineFormat[] = "%s=%s\n";
/// As a signed byte: the controls, the space, and everything from 0x80.
constexpr signed char kLastBlank = ' ';

/// As fopen(3), again when a signal has interrupted it: settings that are not read are lost when
/// they are written back.
FILE* OpenUninterrupted(char const* path, char const* mode) {
  FILE* file = fopen(path, mode);
  // Untested: test_faults.py interrupts it, where counts are not written.
  while (file == nullptr && errno == EINTR) file = fopen(path, mode);
  return file;
}

/// What the first bytes of `file`, at its start, tell about it.
int32_t DetectEncoding(FILE* file) {
  unsigned char start[kMinimumFileSize];
  if (fread(start, 1, sizeof start, file) < sizeof start) return kEncodingNotRead;
  if (memcmp(start, kUTF8Mark, sizeof kUTF8Mark) == 0) return kEncodingUTF8Mark;
  const unsigned int mark = start[0] | static_cast<unsigned int>(start[1]) << 8;
  const bool isUTF16 = mark == kUTF16BigEndianMark || mark == kUTF16LittleEndianMark;
  return isUTF16 ? kEncodingUTF16Mark : kEncodingNoMark;
}

bool IsBlank(char byte) { return static_cast<signed char>(byte) <= kLastBlank; }

/// The text of one line after the other. It is never cleared in between: a blank value is
/// answered with what an earlier, longer line left behind.
class LineBuffer {
 public:
  LineBuffer() : mBytes(Allocate(kInitialLineCapacity)), mCapacity(kInitialLineCapacity) {}
  LineBuffer(LineBuffer const&) = delete;
  LineBuffer& operator=(LineBuffer const&) = delete;
  ~LineBuffer() { delete[] mBytes; }

  /// Reads one line and terminates it. Returns whether the file may hold another.
  bool ReadLine(FILE* file) {
    size_t length = 0;
    int byte = NextByte(file);
    for (; byte != EOF && byte != '\n' && byte != '\r'; byte = NextByte(file)) {
      if (length + 1 == mCapacity) Grow();
      mBytes[length++] = static_cast<char>(byte);
    }
    mBytes[length] = '\0';
    // Whatever follows a CR belongs to the line end.
    if (byte == '\r') byte = NextByte(file);
    return byte != EOF;
  }

  char* Text() { return mBytes; }

 private:
  /// The engine has one thread: the stream's lock, taken for each byte, would be most of the
  /// work (getc_unlocked(3)).
  static int NextByte(FILE* file) { return getc_unlocked(file); }

  /// Zeros, and one more than asked for: after a line that fills the buffer, the text behind
  /// its NUL is still a text, the empty one.
  static char* Allocate(size_t capacity) { return new char[capacity + 1](); }

  void Grow() {
    char* grown = Allocate(2 * mCapacity);
    memcpy(grown, mBytes, mCapacity);
    delete[] mBytes;
    mBytes = grown;
    mCapacity *= 2;
  }

  char* mBytes;
  size_t mCapacity;
};

}  // namespace

ConfigFileManager::ConfigFileManager(SimpleString const& path) : mEncoding(kEncodingNotRead) {
  mSettings.Initialize();
  mPath = path;
  ReadSettingsFile();
}

ConfigFileManager::~ConfigFileManager() {
  // The path is the first to go; its own destructor then finds null.
  delete[] std::exchange(mPath.mString, nullptr);
  mSettings.DeleteAllEntries();
}

bool ConfigFileManager::ReadSettingsFile() {
  if (mPath.mString[0] == '\0') return false;
  FILE* file = OpenUninterrupted(mPath.mString, "rb");
  if (file == nullptr) return false;

  mEncoding = DetectEncoding(file);
  const bool isText = mEncoding == kEncodingNoMark || mEncoding == kEncodingUTF8Mark;
  const long textOffset = mEncoding == kEncodingUTF8Mark ? sizeof kUTF8Mark : 0;
  // A pipe cannot be rewound; without its first bytes its text would be another one.
  const bool isReadable = isText && fseek(file, textOffset, SEEK_SET) == 0;
  if (isReadable) ProcessFile(file);
  (void)fclose(file);
  return isReadable;
}

bool ConfigFileManager::ReloadSettingsFile() { return ReadSettingsFile(); }

void ConfigFileManager::ProcessFile(FILE* file) {
  LineBuffer line;
  bool hasMore = true;
  while (hasMore) {
    hasMore = line.ReadLine(file);
    ProcessLine(line.Text());
  }
}

void ConfigFileManager::ProcessLine(char* line) {
  char* separator = strchr(line, kSeparator);
  if (separator == nullptr) return;
  *separator = '\0';

  char const* key = StripString(line);
  char const* value = StripString(separator + 1);
  // Untested: neither is null, as no line is.
  if (key == nullptr || value == nullptr) return;

  const SimpleString settingKey(key);
  mSettings.erase(settingKey);
  mSettings.insert(settingKey, SimpleString(value));
}

char* ConfigFileManager::StripString(char* text) {
  if (text == nullptr) return nullptr;
  char* terminator = text + strlen(text);
  char* first = text;
  while (first < terminator && IsBlank(*first)) ++first;
  // The NUL is a blank too: it takes blank text one byte past its end, where the next text lies.
  if (first == terminator) return terminator + 1;

  char* last = terminator - 1;
  while (IsBlank(*last)) --last;
  last[1] = '\0';
  return first;
}

SimpleString const& ConfigFileManager::ValueForKey(SimpleString const& key) {
  return mSettings.findFirst(key).mPair->value;
}

void ConfigFileManager::UpdateSetting(SimpleString const& key, SimpleString const& value) {
  const MultiMap::iterator found = mSettings.findFirst(key);
  if (found.mPair == mSettings.mEnd) {
    mSettings.insert(key, value);
  } else {
    found.mPair->value = value;
  }
}

bool ConfigFileManager::UpdateSettingsFile() {
  if (mPath.mString[0] == '\0') return false;
  FILE* file = OpenUninterrupted(mPath.mString, "wb");
  if (file == nullptr) return false;
  (void)fseek(file, 0, SEEK_SET);
  ProcessSettingsForWrite(file);
  (void)fclose(file);
  return true;
}

void ConfigFileManager::ProcessSettingsForWrite(FILE* file) {
  for (MultiMapPair const* pair = mSettings.mFirst; pair != mSettings.mEnd; pair = pair->next) {
    (void)fprintf(file, kLineFormat, pair->key.mString, pair->value.mString);
  }
}

StringVector* ConfigFileManager::CreateListOfAllKeys() {
  StringVector* keys = new StringVector;
  for (MultiMapPair const* pair = mSettings.mFirst; pair != mSettings.mEnd; pair = pair->next) {
    keys->addElement(&pair->key);
  }
  return keys;
}

}  // namespace SASM
