#import "shared/platform/linux/foundation/PropertyListCheck.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

namespace {

/// GNUstep's own serialization of lists begins with a byte below this, which text never does.
/// GNUstep allocates memory for the counts in it unchecked. macOS does not read it.
constexpr unsigned char kFirstByteOfText = '\t';

constexpr size_t kGreatestDepth = 512;

bool BeginsWith(std::string_view text, std::string_view beginning) {
  return text.substr(0, beginning.size()) == beginning;
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

/// GNUstep reads a value, and allocates memory for it, once for each reference, so a few bytes
/// could take any amount of memory.
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
  /// The number of items or bytes; for a number, the exponent of its size.
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

  /// Whether `count` items of `size` bytes from `position` on are before the table.
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

/// Each opening bracket can make GNUstep's parser call itself. All are counted, because a closing
/// bracket may be in a comment or in a string. In UTF-16 text every byte of that value is counted.
constexpr ptrdiff_t kMostBrackets = 4096;

bool IsOpeningBracket(char character) { return character == '(' || character == '{'; }

// ---- XML

constexpr std::string_view kXML = "<?";
constexpr std::string_view kXMLWithoutDeclaration = "<!";
constexpr std::string_view kUTF8Mark = "\xEF\xBB\xBF";

/// Markup that is not an element.
struct Aside {
  std::string_view start;
  std::string_view end;
};
constexpr Aside kAsides[] = {{"<!--", "-->"}, {"<![CDATA[", "]]>"}, {"<?", "?>"}, {"<!", ">"}};

/// Size of the tag at the start of `text`; an attribute may contain ">". 0 when it does not end.
size_t TagSize(std::string_view text) {
  char quote = '\0';
  for (size_t index = 0; index < text.size(); ++index) {
    const char character = text[index];
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

std::string_view ElementName(std::string_view tag) {
  return tag.substr(0, tag.find_first_of(" \t\r\n"));
}

/// Opens or closes an element by `tag`, the text between "<" and ">". False when another element
/// must be closed before, or when too many are open.
bool FollowTag(std::string_view tag, std::vector<std::string_view>& open) {
  if (BeginsWith(tag, "/")) {
    if (open.empty() || open.back() != ElementName(tag.substr(1))) {
      return false;
    }
    open.pop_back();
  } else if (tag.empty() || tag.back() != '/') {
    open.push_back(ElementName(tag));
  }
  return open.size() <= kGreatestDepth;
}

/// Removes the markup at the start of `text`. False when it does not end, since GNUstep would
/// continue at another place, or when FollowTag() returns false.
bool TakeMarkup(std::string_view& text, std::vector<std::string_view>& open) {
  for (const Aside& aside : kAsides) {
    if (BeginsWith(text, aside.start)) {
      const size_t end = text.find(aside.end, aside.start.size());
      text.remove_prefix(end != text.npos ? end + aside.end.size() : text.size());
      return end != text.npos;
    }
  }
  const size_t size = TagSize(text);
  const std::string_view tag = text.substr(0, size);
  text.remove_prefix(size);
  return size != 0 && FollowTag(tag.substr(1, size - 2), open);
}

bool IsSafeXML(std::string_view text) {
  std::vector<std::string_view> open;
  for (size_t start = text.find('<'); start != text.npos; start = text.find('<')) {
    text.remove_prefix(start);
    if (!TakeMarkup(text, open)) {
      return false;
    }
  }
  return true;
}

/// The text from where a parser begins to read it: without a mark and white space.
std::string_view Start(std::string_view text) {
  if (BeginsWith(text, kUTF8Mark)) {
    text.remove_prefix(kUTF8Mark.size());
  }
  while (!text.empty() && static_cast<unsigned char>(text.front()) <= ' ') {
    text.remove_prefix(1);
  }
  return text;
}

}  // namespace

bool IsSafePropertyList(NSData* data) {
  const std::string_view bytes(static_cast<const char*>([data bytes]), [data length]);
  if (!bytes.empty() && static_cast<unsigned char>(bytes[0]) < kFirstByteOfText) {
    return false;
  }
  if (BeginsWith(bytes, kBinaryFamily)) {
    return BinaryCheck(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()).Passes();
  }
  const std::string_view start = Start(bytes);
  if (BeginsWith(start, kXML)) {
    // GNUstep begins to read XML after white space, and fails.
    return start.data() == bytes.data() && IsSafeXML(start);
  }
  return !BeginsWith(start, kXMLWithoutDeclaration) &&
         std::count_if(bytes.begin(), bytes.end(), IsOpeningBracket) <= kMostBrackets;
}
