#include "player/ControlPanel/Common/SMConfigFileManager.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <utility>

#include "shared/platform/posix/RegularFile.h"
#include "shared/platform/posix/Uninterrupted.h"

namespace SASM {

namespace {

// A file shorter than this is never parsed.
constexpr size_t kMinimumFileSize = 4;
constexpr unsigned char kUTF8Mark[] = {0xEF, 0xBB, 0xBF};
// The two UTF-16 marks as little-endian numbers: FE FF and FF FE.
constexpr unsigned int kUTF16BigEndianMark = 0xFFFE;
constexpr unsigned int kUTF16LittleEndianMark = 0xFEFF;

constexpr size_t kInitialLineCapacity = 1024;
constexpr char kSeparator = '=';
constexpr char kLineFormat[] = "%s=%s\n";
// As a signed byte: the controls, the space, and everything from 0x80.
constexpr signed char kLastBlank = ' ';

// Reading ends when the lines, each with one byte for its end, have this many bytes, or when their
// keys and values do. A blank value becomes the tail of an earlier line, so without the second
// limit a small file could use up all memory.
constexpr size_t kMostBytes = size_t{256} * 1024 * 1024;

// For a file that is created; the process's mask applies.
constexpr mode_t kNewFileMode = 0666;

struct FileCloser {
  void operator()(FILE* file) const { (void)fclose(file); }
};
using OwnedFile = std::unique_ptr<FILE, FileCloser>;

// Returns a stream that owns `descriptor`. On failure closes the descriptor and returns null.
OwnedFile StreamOf(int descriptor, const char* mode) {
  FILE* file = fdopen(descriptor, mode);
  if (file == nullptr) {
    (void)close(descriptor);
  }
  return OwnedFile(file);
}

bool EmptyFile(FILE* file) {
  return Uninterrupted([&] { return ftruncate(fileno(file), 0); }) == 0;
}

// Reads the first bytes of `file`, from its start. Returns the kEncoding constant for them.
int32_t DetectEncoding(FILE* file) {
  unsigned char start[kMinimumFileSize];
  for (unsigned char& each : start) {
    const int byte = NextByte(file);
    if (byte == EOF) {
      return kEncodingNotRead;
    }
    each = static_cast<unsigned char>(byte);
  }
  if (memcmp(start, kUTF8Mark, sizeof kUTF8Mark) == 0) {
    return kEncodingUTF8Mark;
  }
  const unsigned int mark = start[0] | static_cast<unsigned int>(start[1]) << 8;
  const bool isUTF16 = mark == kUTF16BigEndianMark || mark == kUTF16LittleEndianMark;
  return isUTF16 ? kEncodingUTF16Mark : kEncodingNoMark;
}

bool IsBlank(char byte) { return static_cast<signed char>(byte) <= kLastBlank; }

// Holds the text of one line at a time. The buffer is not cleared between lines: the value of a
// line with a blank value is what an earlier, longer line has left in it.
class LineBuffer {
 public:
  LineBuffer() : bytes_(Allocate(kInitialLineCapacity)), capacity_(kInitialLineCapacity) {}
  LineBuffer(const LineBuffer&) = delete;
  LineBuffer& operator=(const LineBuffer&) = delete;
  ~LineBuffer() { delete[] bytes_; }

  // Reads one line and terminates it. Returns whether the file may have another. Does not read a
  // line of `kMostBytes` to its end.
  bool ReadLine(FILE* file) {
    size_t length = 0;
    int byte = NextByte(file);
    for (; byte != EOF && byte != '\n' && byte != '\r' && length + 1 < kMostBytes;
         byte = NextByte(file)) {
      if (length + 1 == capacity_) {
        Grow();
      }
      bytes_[length++] = static_cast<char>(byte);
    }
    bytes_[length] = '\0';
    readCount_ += length + 1;
    // The byte after a CR counts as part of the line end, whatever it is.
    if (byte == '\r') {
      byte = NextByte(file);
    }
    return byte != EOF;
  }

  char* Text() { return bytes_; }

  // Bytes read so far, each line end counted as one.
  size_t ReadCount() const { return readCount_; }

 private:
  // Returns zeroed memory with one extra byte: even after a line that fills the buffer there is a
  // text after its NUL, the empty one.
  static char* Allocate(size_t capacity) { return new char[capacity + 1](); }

  void Grow() {
    char* grown = Allocate(2 * capacity_);
    memcpy(grown, bytes_, capacity_);
    delete[] bytes_;
    bytes_ = grown;
    capacity_ *= 2;
  }

  char* bytes_;
  size_t capacity_;
  size_t readCount_ = 0;
};

}  // namespace

ConfigFileManager::ConfigFileManager(const SimpleString& path) : mEncoding(kEncodingNotRead) {
  mSettings.Initialize();
  try {
    mPath = path;
    ReadSettingsFile();
  } catch (...) {
    mSettings.DeleteAllEntries();
    throw;
  }
}

ConfigFileManager::~ConfigFileManager() {
  // The path is released before the settings. Its own destructor then finds null.
  delete[] std::exchange(mPath.mString, nullptr);
  mSettings.DeleteAllEntries();
}

bool ConfigFileManager::ReadSettingsFile() {
  if (mPath.mString[0] == '\0') {
    return false;
  }
  const int descriptor = OpenRegularFile(mPath.mString, O_RDONLY, 0, FileNames::kAny);
  if (descriptor < 0) {
    return false;
  }
  mIsIncomplete = true;
  const OwnedFile file = StreamOf(descriptor, "rb");
  if (file == nullptr) {
    return false;
  }
  mEncoding = DetectEncoding(file.get());
  const bool isText = mEncoding == kEncodingNoMark || mEncoding == kEncodingUTF8Mark;
  mIsIncomplete = isText || ferror(file.get()) != 0;
  const long textOffset = mEncoding == kEncodingUTF8Mark ? sizeof kUTF8Mark : 0;
  if (!isText || fseek(file.get(), textOffset, SEEK_SET) != 0) {
    return false;
  }
  ProcessFile(file.get());
  return !mIsIncomplete;
}

bool ConfigFileManager::ReloadSettingsFile() { return ReadSettingsFile(); }

void ConfigFileManager::ProcessFile(FILE* file) {
  mIsIncomplete = true;
  mStoredCount = 0;
  LineBuffer line;
  bool hasMore = true;
  while (hasMore) {
    hasMore = line.ReadLine(file);
    if (line.ReadCount() >= kMostBytes) {
      return;
    }
    ProcessLine(line.Text());
    if (mStoredCount >= kMostBytes) {
      return;
    }
  }
  mIsIncomplete = ferror(file) != 0;
}

void ConfigFileManager::ProcessLine(char* line) {
  char* separator = strchr(line, kSeparator);
  if (separator == nullptr) {
    return;
  }
  *separator = '\0';

  const char* key = StripString(line);
  const char* value = StripString(separator + 1);
  // Untested: both are non-null, because the line is.
  if (key == nullptr || value == nullptr) {
    return;
  }
  mStoredCount += strlen(key) + strlen(value);

  const SimpleString settingKey(key);
  mSettings.erase(settingKey);
  mSettings.insert(settingKey, SimpleString(value));
}

char* ConfigFileManager::StripString(char* text) {
  if (text == nullptr) {
    return nullptr;
  }
  char* terminator = text + strlen(text);
  char* first = text;
  while (first < terminator && IsBlank(*first)) {
    ++first;
  }
  // The NUL counts as blank too, so for blank text the search ends one byte after it, where the
  // next text begins.
  if (first == terminator) {
    return terminator + 1;
  }

  char* last = terminator - 1;
  while (IsBlank(*last)) {
    --last;
  }
  last[1] = '\0';
  return first;
}

const SimpleString& ConfigFileManager::ValueForKey(const SimpleString& key) {
  return mSettings.findFirst(key).mPair->value;
}

void ConfigFileManager::UpdateSetting(const SimpleString& key, const SimpleString& value) {
  const MultiMap::iterator found = mSettings.findFirst(key);
  if (found.mPair == mSettings.mEnd) {
    mSettings.insert(key, value);
  } else {
    found.mPair->value = value;
  }
}

bool ConfigFileManager::UpdateSettingsFile() {
  if (mPath.mString[0] == '\0' || mIsIncomplete) {
    return false;
  }
  const int descriptor =
      OpenRegularFile(mPath.mString, O_WRONLY | O_CREAT, kNewFileMode, FileNames::kAny);
  if (descriptor < 0) {
    return false;
  }
  const OwnedFile file = StreamOf(descriptor, "wb");
  // The file is not emptied earlier: from here on nothing can run out of memory.
  if (file == nullptr || !EmptyFile(file.get())) {
    return false;
  }
  (void)fseek(file.get(), 0, SEEK_SET);
  ProcessSettingsForWrite(file.get());
  return true;
}

void ConfigFileManager::ProcessSettingsForWrite(FILE* file) {
  for (const MultiMapPair* pair = mSettings.mFirst; pair != mSettings.mEnd; pair = pair->next) {
    (void)fprintf(file, kLineFormat, pair->key.mString, pair->value.mString);
  }
}

StringVector* ConfigFileManager::CreateListOfAllKeys() {
  StringVector* keys = new StringVector;
  for (const MultiMapPair* pair = mSettings.mFirst; pair != mSettings.mEnd; pair = pair->next) {
    keys->addElement(&pair->key);
  }
  return keys;
}

}  // namespace SASM
