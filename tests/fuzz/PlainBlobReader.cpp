#include "tests/fuzz/PlainBlobReader.h"

#include <algorithm>
#include <memory>
#include <string>

#include "tests/fuzz/FuzzCheck.h"

namespace {

constexpr size_t kHeaderLength = 7;
constexpr size_t kSubHeaderLength = 9;
constexpr size_t kNameOffset = 3;
constexpr size_t kPropertiesOffset = 4;
constexpr unsigned int kPropertyCount = 5;
constexpr size_t kGreatestDepth = 512;
constexpr size_t kGreatestExpansion = 8192;
constexpr size_t kAllowance = 4UL << 30;

unsigned int ByteAt(std::string_view bytes, size_t offset) {
  return static_cast<unsigned char>(bytes[offset]);
}

size_t NumberAt(std::string_view bytes, size_t offset) {
  size_t number = 0;
  for (size_t end = offset + 4; offset < end; ++offset) {
    number = number * 256 + ByteAt(bytes, offset);
  }
  return number;
}

bool IsLeaf(std::string_view name) {
  if (!name.empty() && name.back() == '/') {
    name.remove_suffix(1);
  }
  return name != "." && name != ".." && name.find('/') == std::string_view::npos &&
         name.find('\0') == std::string_view::npos;
}

size_t TableLength(unsigned int properties) {
  const unsigned int bits = properties % 9 + properties / 9 % 5;
  return 2 * (1984 + (768UL << bits));
}

struct Place {
  size_t depth;
  bool isInStream;
};

class Reader {
 public:
  Reader(size_t length, bool compares, size_t allowance = kAllowance)
      : compares_(compares), budget_(allowance + kGreatestExpansion * length) {}

  BlobReading Read(std::string_view blob, const fileChunk* list) {
    reading_.isWellFormed = ReadSequence(blob, {0, false}, list);
    return reading_;
  }

 private:
  bool ReadSequence(std::string_view rest, Place place, const fileChunk* node);
  size_t ReadEntry(std::string_view bytes, Place place, const fileChunk* node);
  size_t ReadStream(std::string_view payload, bool isDirectory, Place place, const fileChunk* node);
  bool ReadContent(std::string_view content, bool isDirectory, Place place, const fileChunk* node);
  bool Charge(size_t claim, unsigned int properties, Place place);

  bool compares_;
  size_t budget_;
  BlobReading reading_;
};

bool Reader::ReadSequence(std::string_view rest, Place place, const fileChunk* node) {
  while (!rest.empty()) {
    FUZZ_CHECK(!compares_ || node != nullptr);
    const size_t length = ReadEntry(rest, place, node);
    if (length == 0) {
      return false;
    }
    rest.remove_prefix(length);
    node = compares_ ? node->next : nullptr;
  }
  FUZZ_CHECK(node == nullptr);
  return true;
}

/// The length of the entry that `bytes` begin with; 0 when it is malformed.
size_t Reader::ReadEntry(std::string_view bytes, Place place, const fileChunk* node) {
  ++reading_.entries;
  if (bytes.size() < kHeaderLength || ByteAt(bytes, 0) != 2) {
    return 0;
  }
  const bool isDirectory = ByteAt(bytes, 1) >= 0x80;
  const unsigned int type = ByteAt(bytes, 1) % 0x80;
  const size_t headerLength = kHeaderLength + ByteAt(bytes, 2);
  if (type > 1 || headerLength > bytes.size() || (isDirectory && place.depth == kGreatestDepth)) {
    return 0;
  }
  const std::string_view name = bytes.substr(kNameOffset, headerLength - kHeaderLength);
  const size_t size = NumberAt(bytes, headerLength - 4);
  if (!IsLeaf(name) || size > bytes.size() - headerLength) {
    return 0;
  }
  if (compares_) {
    FUZZ_CHECK(node->name != nullptr && node->name == name);
    FUZZ_CHECK(node->isDirectory == isDirectory);
  }
  const std::string_view payload = bytes.substr(headerLength, size);
  if (type == 0) {
    return ReadContent(payload, isDirectory, place, node) ? headerLength + size : 0;
  }
  const size_t consumed = ReadStream(payload, isDirectory, place, node);
  return consumed == 0 ? 0 : headerLength + consumed;
}

/// How much of the payload the sub-header and the stream take; 0 when they are malformed.
size_t Reader::ReadStream(std::string_view payload, bool isDirectory, Place place,
                          const fileChunk* node) {
  reading_.isStoredOnly = false;
  if (payload.size() < kSubHeaderLength) {
    return 0;
  }
  const size_t claim = NumberAt(payload, 0);
  SizeT consumed = payload.size() - kSubHeaderLength;
  if (claim > kGreatestExpansion * consumed ||
      !Charge(claim, ByteAt(payload, kPropertiesOffset), place)) {
    return 0;
  }
  const auto* bytes = reinterpret_cast<const Byte*>(payload.data());
  const std::unique_ptr<Byte[]> content(new Byte[claim]);
  SizeT produced = claim;
  ELzmaStatus status = LZMA_STATUS_NOT_SPECIFIED;
  if (LzmaDecode(content.get(), &produced, bytes + kSubHeaderLength, &consumed,
                 bytes + kPropertiesOffset, kPropertyCount, LZMA_FINISH_ANY, &status,
                 &GlobalAllocObject) != SZ_OK) {
    return 0;
  }
  const std::string_view text(reinterpret_cast<const char*>(content.get()), produced);
  place.isInStream = true;
  return ReadContent(text, isDirectory, place, node) ? kSubHeaderLength + consumed : 0;
}

/// Takes the cost of an LZMA entry from the budget. False when the budget is too small.
bool Reader::Charge(size_t claim, unsigned int properties, Place place) {
  if (properties > 224) {
    return false;
  }
  const size_t table = TableLength(properties);
  const size_t cost = table + (place.isInStream ? claim : 0);
  if (cost > budget_) {
    reading_.isTooCostly = true;
    return false;
  }
  budget_ -= cost;
  reading_.claims += claim;
  reading_.largestTable = std::max(reading_.largestTable, table);
  return true;
}

bool Reader::ReadContent(std::string_view content, bool isDirectory, Place place,
                         const fileChunk* node) {
  if (compares_) {
    FUZZ_CHECK(node->size == (isDirectory ? 0 : content.size()));
    FUZZ_CHECK((node->data == nullptr) == isDirectory);
    FUZZ_CHECK(isDirectory || node->children == nullptr);
  }
  if (isDirectory) {
    ++place.depth;
    return ReadSequence(content, place, compares_ ? node->children : nullptr);
  }
  FUZZ_CHECK(!compares_ ||
             content == std::string_view(reinterpret_cast<const char*>(node->data), node->size));
  return true;
}

}  // namespace

bool CostsMoreThan(std::string_view blob, size_t allowance) {
  return Reader(blob.size(), false, allowance).Read(blob, nullptr).isTooCostly;
}

BlobReading ReadBlob(std::string_view blob) {
  return Reader(blob.size(), false).Read(blob, nullptr);
}

BlobReading ReadBlob(std::string_view blob, const fileChunk* decoded) {
  return Reader(blob.size(), true).Read(blob, decoded);
}
