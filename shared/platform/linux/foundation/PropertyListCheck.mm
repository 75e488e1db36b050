#import "shared/platform/linux/foundation/PropertyListCheck.h"

#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

namespace {

/// GNUstep's own serialization of lists begins with a byte below this, which text never does. The
/// counts in it are believed and allocated for. macOS does not read it.
constexpr unsigned char kFirstByteOfText = '\t';

constexpr size_t kGreatestDepth = 512;

bool BeginsWith(const char* beginning, const char* text, size_t size) {
  const size_t length = strlen(beginning);
  return size >= length && memcmp(text, beginning, length) == 0;
}

// ---- Binary lists: header, objects, table of their offsets, trailer

// The first bytes of every version of the format, and of the only one in use.
constexpr char kBinaryFamily[] = "bplist";
constexpr char kBinaryHeader[] = "bplist00";
constexpr uint64_t kHeaderSize = 8;

constexpr uint64_t kTrailerSize = 32;
constexpr uint64_t kOffsetSizeField = 6;
constexpr uint64_t kReferenceSizeField = 7;
constexpr uint64_t kCountField = 8;
constexpr uint64_t kTopField = 16;
constexpr uint64_t kTableField = 24;
constexpr uint64_t kFieldSize = 8;

/// A value that is referred to more than once is read, and takes memory, as often. So few bytes
/// could stand for any number of them.
constexpr uint64_t kMostVisits = 1000000;
constexpr uint64_t kMostRepeatedBytes = 64U << 20U;

constexpr unsigned int kLengthFollows = 0xF;

/// The upper half of an object's first byte.
enum ObjectType : unsigned int {
  kSimple = 0x0,
  kInteger = 0x1,
  kReal = 0x2,
  kDate = 0x3,
  kData = 0x4,
  kASCIIString = 0x5,
  kUTF16String = 0x6,
  kUID = 0x8,
  kArray = 0xA,
  kOrderedSet = 0xB,
  kSet = 0xC,
  kDictionary = 0xD,
};

/// An object: what its first byte says, and where its contents begin.
struct Object {
  unsigned int type;
  /// Of items or bytes; of a number, the exponent of its size.
  uint64_t count;
  uint64_t position;
};

class BinaryCheck {
 public:
  BinaryCheck(const uint8_t* bytes, uint64_t size) : bytes_(bytes), size_(size) {}

  bool Passes() {
    if (size_ < kHeaderSize + kTrailerSize || memcmp(bytes_, kBinaryHeader, kHeaderSize) != 0) {
      return false;
    }
    const uint64_t trailer = size_ - kTrailerSize;
    offsetSize_ = bytes_[trailer + kOffsetSizeField];
    referenceSize_ = bytes_[trailer + kReferenceSizeField];
    count_ = Number(trailer + kCountField, kFieldSize);
    table_ = Number(trailer + kTableField, kFieldSize);
    const bool hasTable = IsFieldSize(offsetSize_) && IsFieldSize(referenceSize_) &&
                          table_ >= kHeaderSize && table_ <= trailer &&
                          count_ <= (trailer - table_) / offsetSize_;
    return hasTable && Visit(Number(trailer + kTopField, kFieldSize), 0);
  }

 private:
  static bool IsFieldSize(uint64_t size) { return size >= 1 && size <= kFieldSize; }

  uint64_t Number(uint64_t position, uint64_t size) const {
    uint64_t number = 0;
    for (uint64_t index = 0; index < size; ++index) {
      number = (number << 8U) | bytes_[position + index];
    }
    return number;
  }

  /// Whether `count` items of `size` bytes from `position` on lie before the table.
  bool Fits(uint64_t position, uint64_t count, uint64_t size) const {
    return position <= table_ && count <= (table_ - position) / size;
  }

  /// Reads the count that follows an object's first byte, and moves `position` past it.
  bool ReadCount(uint64_t& position, uint64_t& count) const {
    if (!Fits(position, 1, 1)) {
      return false;
    }
    const unsigned int marker = bytes_[position];
    const unsigned int exponent = marker & 0xFU;
    const uint64_t size = 1U << exponent;
    if (marker >> 4U != kInteger || size > kFieldSize || !Fits(position + 1, size, 1)) {
      return false;
    }
    count = Number(position + 1, size);
    position += 1 + size;
    return true;
  }

  /// Finds the object `number` and reads its first byte and its count. False when there is no such
  /// object or its count does not fit.
  bool ReadObject(uint64_t number, Object& object) const {
    if (number >= count_) {
      return false;
    }
    const uint64_t position = Number(table_ + number * offsetSize_, offsetSize_);
    if (position < kHeaderSize || !Fits(position, 1, 1)) {
      return false;
    }
    const unsigned int marker = bytes_[position];
    object = {marker >> 4U, marker & 0xFU, position + 1};
    const bool hasLength = object.type >= kData && object.type != kUID;
    const bool lengthFollows = hasLength && object.count == kLengthFollows;
    return !lengthFollows || ReadCount(object.position, object.count);
  }

  /// Checks an object and all that it refers to. Cycles end at the greatest depth.
  bool Visit(uint64_t number, size_t depth) {
    Object object = {};
    if (depth > kGreatestDepth || ++visits_ > kMostVisits || !ReadObject(number, object)) {
      return false;
    }
    switch (object.type) {
      case kSimple:
        return true;
      case kInteger:
      case kReal:
      case kDate:
        return VisitBytes(object.position, uint64_t{1} << object.count, 1);
      case kUID:
        return VisitBytes(object.position, object.count + 1, 1);
      case kData:
      case kASCIIString:
        return VisitBytes(object.position, object.count, 1);
      case kUTF16String:
        return VisitBytes(object.position, object.count, sizeof(unichar));
      case kArray:
      case kOrderedSet:
      case kSet:
        return VisitReferences(object.position, object.count, 1, depth);
      case kDictionary:
        return VisitReferences(object.position, object.count, 2, depth);
      default:
        return false;
    }
  }

  bool VisitBytes(uint64_t position, uint64_t count, uint64_t size) {
    if (!Fits(position, count, size)) {
      return false;
    }
    visitedBytes_ += count * size;
    return visitedBytes_ <= size_ + kMostRepeatedBytes;
  }

  /// `count` entries of `references` references each: keys come first, then values.
  bool VisitReferences(uint64_t position, uint64_t count, uint64_t references, size_t depth) {
    if (!Fits(position, count, references * referenceSize_)) {
      return false;
    }
    for (uint64_t index = 0; index < count * references; ++index) {
      if (!Visit(Number(position + index * referenceSize_, referenceSize_), depth + 1)) {
        return false;
      }
    }
    return true;
  }

  const uint8_t* bytes_;
  uint64_t size_;
  uint64_t offsetSize_ = 0;
  uint64_t referenceSize_ = 0;
  uint64_t count_ = 0;
  uint64_t table_ = 0;
  uint64_t visits_ = 0;
  uint64_t visitedBytes_ = 0;
};

// ---- Text

constexpr char kOpening[] = "({<";
constexpr char kClosing[] = ")}>";

// What ends a string without quotation marks. In such a string a slash begins no comment.
constexpr char kDelimiters[] = "(){}<>,;=\" \t\r\n\v\f";

bool IsOneOf(const char* characters, char character) {
  return character == '\0' || strchr(characters, character) != nullptr;
}

/// Text in UTF-8 of a list in UTF-16, else `data` itself.
NSData* TextOf(NSData* data) {
  const auto* bytes = static_cast<const char*>([data bytes]);
  if (!BeginsWith("\xFE\xFF", bytes, [data length]) &&
      !BeginsWith("\xFF\xFE", bytes, [data length])) {
    return data;
  }
  NSString* text = [[NSString alloc] initWithData:data encoding:NSUnicodeStringEncoding];
  NSData* result = [text dataUsingEncoding:NSUTF8StringEncoding];
  [text release];
  return result;
}

class TextCheck {
 public:
  TextCheck(const char* text, size_t size) : text_(text), end_(text + size) {}

  bool Passes() {
    size_t depth = 0;
    while (text_ != end_) {
      const char character = *text_;
      if (character == '"') {
        SkipString();
      } else if (character == '/' && IsNext('/')) {
        SkipTo("\n");
      } else if (character == '/' && IsNext('*')) {
        text_ += 2;
        SkipTo("*/");
      } else if (!IsOneOf(kDelimiters, character)) {
        SkipWord();
      } else if (!Count(*text_++, depth)) {
        return false;
      }
    }
    return true;
  }

 private:
  /// Whether a list may be as deep as it is after `character`.
  static bool Count(char character, size_t& depth) {
    if (character == '\0') {
      return true;
    }
    if (IsOneOf(kOpening, character)) {
      ++depth;
    } else if (IsOneOf(kClosing, character) && depth > 0) {
      --depth;
    }
    return depth <= kGreatestDepth;
  }

  bool IsNext(char character) const { return end_ - text_ > 1 && text_[1] == character; }

  void SkipWord() {
    while (text_ != end_ && !IsOneOf(kDelimiters, *text_)) {
      ++text_;
    }
  }

  void SkipString() {
    for (++text_; text_ != end_ && *text_ != '"'; ++text_) {
      if (*text_ == '\\' && text_ + 1 != end_) {
        ++text_;
      }
    }
    text_ += text_ != end_ ? 1 : 0;
  }

  /// Skips everything up to and with the next `mark`.
  void SkipTo(const char* mark) {
    const size_t length = strlen(mark);
    const void* found = memmem(text_, static_cast<size_t>(end_ - text_), mark, length);
    text_ = found != nullptr ? static_cast<const char*>(found) + length : end_;
  }

  const char* text_;
  const char* end_;
};

// ---- XML

constexpr std::string_view kXML = "<?";
constexpr std::string_view kXMLWithoutDeclaration = "<!";
constexpr std::string_view kUTF8Mark = "\xEF\xBB\xBF";

/// Start and end of what is not an element.
constexpr const char* kXMLAsides[][2] = {
    {"<!--", "-->"}, {"<![CDATA[", "]]>"}, {"<?", "?>"}, {"<!", ">"}};

class XMLCheck {
 public:
  explicit XMLCheck(std::string_view text) : text_(text) {}

  bool Passes() {
    while (SkipTo("<", 0)) {
      const char* const* aside = AsideHere();
      if (aside != nullptr ? !SkipAside(aside[0], aside[1]) : !ReadTag()) {
        return false;
      }
    }
    return true;
  }

 private:
  /// Moves to the next `mark` and `beyond` it; to the end when there is none.
  bool SkipTo(std::string_view mark, size_t beyond) {
    const size_t found = text_.find(mark);
    text_.remove_prefix(found != text_.npos ? found + beyond : text_.size());
    return found != text_.npos;
  }

  /// Start and end of the aside that begins here; null when none does.
  const char* const* AsideHere() const {
    for (const auto& aside : kXMLAsides) {
      const std::string_view start = aside[0];
      if (text_.substr(0, start.size()) == start) {
        return aside;
      }
    }
    return nullptr;
  }

  /// An aside must end: GNUstep takes up the text again at a place of its own.
  bool SkipAside(std::string_view start, std::string_view end) {
    text_.remove_prefix(start.size());
    return SkipTo(end, end.size());
  }

  /// Size of the tag at the beginning; an attribute may have a ">" in it. 0 when it does not end.
  size_t TagSize() const {
    char quote = '\0';
    for (size_t index = 0; index < text_.size(); ++index) {
      const char character = text_[index];
      if (quote != '\0') {
        quote = character == quote ? '\0' : quote;
      } else if (character == '"' || character == '\'') {
        quote = character;
      } else if (character == '>') {
        return index + 1;
      }
    }
    return 0;
  }

  /// Reads a tag. An element must end before the one that it is in.
  bool ReadTag() {
    const size_t size = TagSize();
    if (size == 0) {
      return false;
    }
    const std::string_view tag = text_.substr(1, size - 2);
    text_.remove_prefix(size);
    if (!tag.empty() && tag.front() == '/') {
      const bool matches = !open_.empty() && open_.back() == Name(tag.substr(1));
      if (matches) {
        open_.pop_back();
      }
      return matches;
    }
    if (tag.empty() || tag.back() != '/') {
      open_.push_back(Name(tag));
    }
    return open_.size() <= kGreatestDepth;
  }

  static std::string_view Name(std::string_view tag) {
    return tag.substr(0, tag.find_first_of(" \t\r\n"));
  }

  std::string_view text_;
  std::vector<std::string_view> open_;
};

/// The text from where a parser begins to read it: without a mark and white space.
std::string_view Start(std::string_view text) {
  if (text.substr(0, kUTF8Mark.size()) == kUTF8Mark) {
    text.remove_prefix(kUTF8Mark.size());
  }
  while (!text.empty() && static_cast<unsigned char>(text.front()) <= ' ') {
    text.remove_prefix(1);
  }
  return text;
}

}  // namespace

bool IsSafePropertyList(NSData* data) {
  const size_t size = [data length];
  const auto* bytes = static_cast<const char*>([data bytes]);
  if (size > 0 && static_cast<unsigned char>(bytes[0]) < kFirstByteOfText) {
    return false;
  }
  if (BeginsWith(kBinaryFamily, bytes, size)) {
    return BinaryCheck(reinterpret_cast<const uint8_t*>(bytes), size).Passes();
  }
  const std::string_view start = Start({bytes, size});
  if (start.substr(0, kXML.size()) == kXML) {
    // GNUstep begins to read XML after white space, and fails.
    return start.data() == bytes && XMLCheck(start).Passes();
  }
  if (start.substr(0, kXMLWithoutDeclaration.size()) == kXMLWithoutDeclaration) {
    return false;
  }
  NSData* text = TextOf(data);
  return TextCheck(static_cast<const char*>([text bytes]), [text length]).Passes();
}
