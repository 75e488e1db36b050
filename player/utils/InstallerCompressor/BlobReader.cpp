// From the bytes of a blob to a tree. A blob is not trusted: every field is checked against
// the bytes that are really there before it is used, and the first fault refuses the whole.
#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>

#include "player/utils/InstallerCompressor/BlobFormat.h"
#include "player/utils/InstallerCompressor/CommonInstallerCompressor.h"

namespace {

constexpr char kHeaderCutShort[] = "an entry's header is cut short";
constexpr char kUnknownVersion[] = "an entry has an unknown header version";
constexpr char kUnknownType[] = "an entry has an unknown compression type";
constexpr char kNameCutShort[] = "an entry's name is cut short";
constexpr char kNameHasNUL[] = "an entry's name contains a NUL";
constexpr char kNameHasSlash[] = "an entry's name contains a slash";
constexpr char kNameIsDots[] = "an entry's name leads out of its directory";
constexpr char kSizeTooLarge[] = "an entry's size runs past the end";
constexpr char kSubHeaderCutShort[] = "an entry's size has no room for the LZMA sub-header";
constexpr char kClaimTooLarge[] = "an entry claims more than its LZMA stream can hold";
constexpr char kBadProperties[] = "an entry has invalid LZMA properties";
constexpr char kStreamTooLong[] = "an entry's LZMA stream runs past its size";
constexpr char kBadStream[] = "an entry's LZMA stream is damaged";
constexpr char kTooCostly[] = "LZMA entries cost too much to decode";
constexpr char kNestedTooDeep[] = "directories are nested too deep";
constexpr char kNoMemory[] = "an entry needs more memory than there is";

// An upper bound of what LZMA makes of one byte. Most output per input comes from matches of
// the greatest length, 273, with the last distance: 14 binary decisions, of which each takes
// at least -log2(1 - 31/2048) = 0.022 bits because a probability of 2048ths never leaves 31 to
// 2017. That is 0.308 bits for 273 bytes, less than 7100 bytes for each byte of input.
constexpr unsigned long kGreatestExpansion = 8192;

// LZMA within LZMA multiplies that bound by itself, and for a stream of five bytes the decoder may
// set up a table of megabytes. So the tables of all LZMA entries and the claims of inner ones may,
// in bytes, together exceed the bound for the blob as it stands by no more than this allowance. It
// is what any encoder's blob of a bundle could need, and bounds the time: at most one table is in
// memory at a time.
constexpr unsigned long kCostAllowance = 1UL << 32;

// The properties byte is (pb * 5 + lp) * 9 + lc.
constexpr unsigned int kLiteralContexts = 9;
constexpr unsigned int kLiteralPositions = 5;
constexpr unsigned int kPropertiesEnd = 9 * 5 * 5;

// The decoder's probabilities, which it sets up anew for every stream: 2 bytes each, a fixed
// count and one set for each literal coder. Releases of the SDK differ in the fixed count: at
// most 1984, in current ones (LzmaDec.c).
constexpr unsigned long kBaseProbabilities = 1984;
constexpr unsigned long kLiteralProbabilities = 768;

unsigned long ProbabilityTableSize(unsigned int propertiesByte) {
  const unsigned int literalContextBits = propertiesByte % kLiteralContexts;
  const unsigned int literalPositionBits = propertiesByte / kLiteralContexts % kLiteralPositions;
  const unsigned long literals = kLiteralProbabilities
                                 << (literalContextBits + literalPositionBits);
  return (kBaseProbabilities + literals) * 2;
}

// Decoded content is discarded in steps of the size of the largest pages.
constexpr unsigned long kDiscardStep = 2UL << 20;

// Content that an LZMA stream was decoded into, and of which a directory's entries are taken one
// after the other. What has been copied is discarded on the way, so that the content and the
// private copies of its files are never in memory twice over.
class DecodedContent {
 public:
  explicit DecodedContent(unsigned char* bytes) : bytes_(bytes), discarded_(BytesToStep(bytes)) {}

  // Nothing before `end`, which lies within the content, is read again.
  void DiscardUpTo(const unsigned char* end) {
    const auto before = static_cast<unsigned long>(end - bytes_);
    if (before < discarded_ + kDiscardStep) {
      return;
    }
    const unsigned long count = (before - discarded_) / kDiscardStep * kDiscardStep;
    // Advice only: if the system ignores it, the pages stay until the array is freed.
    (void)madvise(bytes_ + discarded_, count, MADV_FREE);
    discarded_ += count;
  }

 private:
  static unsigned long BytesToStep(const unsigned char* bytes) {
    const unsigned long beyondStep = reinterpret_cast<std::uintptr_t>(bytes) % kDiscardStep;
    return (kDiscardStep - beyondStep) % kDiscardStep;
  }

  unsigned char* bytes_;
  unsigned long discarded_;  // offset of the first byte that is kept, at a step
};

// A run of entries in memory, and its place, for the report of a fault.
struct Sequence {
  const unsigned char* bytes;
  unsigned long length;
  unsigned long origin;     // offset of `bytes` in the blob, or in the decoded content
  DecodedContent* decoded;  // the content it lies in; absent in the blob itself
  unsigned int depth;       // directories around it

  Sequence Within(unsigned long offset, unsigned long count) const {
    return {bytes + offset, count, origin + offset, decoded, depth};
  }
};

// Where the parts of one entry begin within its sequence.
struct EntryLayout {
  unsigned long start;
  unsigned long sizeField;
  unsigned long payload;
  unsigned long payloadLength;
  int compressionType;
  bool isDirectory;
};

// What an LZMA entry's stream was decoded into.
struct DecodedStream {
  unsigned char* bytes;  // a new array
  unsigned long claim;   // its length, as the sub-header has it
  SizeT produced;        // bytes of the array that the stream has filled
  SizeT consumed;        // bytes of the sequence that the stream has taken
};

class BlobDecoder {
 public:
  BlobDecoder(unsigned long blobLength, BlobFault& fault)
      : budget_(kCostAllowance + kGreatestExpansion * blobLength), fault_(fault) {}

  // Returns null for an empty sequence and for a malformed one.
  fileChunk* DecodeSequence(const Sequence& sequence);

 private:
  bool DecodeEntry(const Sequence& sequence, unsigned long& position, fileChunk& node);
  bool DecodeHeader(const Sequence& sequence, EntryLayout& entry, fileChunk& node);
  bool CheckName(const Sequence& sequence, unsigned long offset, unsigned long length);
  bool CheckLZMAClaim(const Sequence& sequence, unsigned long subHeader, unsigned long claim,
                      unsigned long streamLength);
  bool DecodeLZMAEntry(const Sequence& sequence, const EntryLayout& entry, unsigned long& position,
                       fileChunk& node);
  bool DecodeStream(const Sequence& sequence, const EntryLayout& entry, DecodedStream& decoded);
  bool Rehearse(const Sequence& content);
  bool RehearseSequence(const Sequence& sequence);
  bool TakeContent(const Sequence& content, const EntryLayout& entry, fileChunk& node);
  static void CopyContent(const Sequence& content, unsigned char* copy);
  bool TakeChildren(const Sequence& content, fileChunk& node);

  bool Refuse(const char* reason, const Sequence& sequence, unsigned long offset) {
    fault_ = {reason, sequence.origin + offset, sequence.decoded != nullptr, reason == kNoMemory};
    return false;
  }

  unsigned long budget_;
  BlobFault& fault_;
  // Entries are only checked; none is kept.
  bool isRehearsal_ = false;
};

fileChunk* BlobDecoder::DecodeSequence(const Sequence& sequence) {
  fileChunk* head = nullptr;
  fileChunk** link = &head;
  for (unsigned long position = 0; position != sequence.length;) {
    fileChunk* const node = new (std::nothrow) fileChunk;
    if (!node) {
      Refuse(kNoMemory, sequence, position);
    }
    // Linked while it is still empty, so that freeing the list frees everything.
    *link = node;
    if (!node || !DecodeEntry(sequence, position, *node)) {
      DeleteFileChunks(head);
      return nullptr;
    }
    link = &node->next;
  }
  return head;
}

// Fills `node` from the entry at `position`, which moves on to the next entry.
bool BlobDecoder::DecodeEntry(const Sequence& sequence, unsigned long& position, fileChunk& node) {
  EntryLayout entry = {};
  entry.start = position;
  if (!DecodeHeader(sequence, entry, node)) {
    return false;
  }
  if (entry.compressionType == kCompressionLZMA) {
    return DecodeLZMAEntry(sequence, entry, position, node);
  }
  position = entry.payload + entry.payloadLength;
  return TakeContent(sequence.Within(entry.payload, entry.payloadLength), entry, node);
}

bool BlobDecoder::DecodeHeader(const Sequence& sequence, EntryLayout& entry, fileChunk& node) {
  const unsigned long start = entry.start;
  const unsigned long available = sequence.length - start;
  if (available < kNamelessHeaderLength) {
    return Refuse(kHeaderCutShort, sequence, start);
  }
  const unsigned char* const header = sequence.bytes + start;
  if (header[0] != kHeaderVersion) {
    return Refuse(kUnknownVersion, sequence, start);
  }
  const unsigned long nameLength = header[kNameLengthOffset];
  if (available < kNamelessHeaderLength + nameLength) {
    return Refuse(kNameCutShort, sequence, start + kNameLengthOffset);
  }
  if (!CheckName(sequence, start + kNameOffset, nameLength)) {
    return false;
  }

  entry.payload = start + decodeHeaderV2(header, entry.compressionType, node.name,
                                         entry.isDirectory, entry.payloadLength);
  entry.sizeField = start + kNameOffset + nameLength;
  if (!node.name) {
    return Refuse(kNoMemory, sequence, start + kNameOffset);
  }
  if (entry.compressionType != kCompressionStored && entry.compressionType != kCompressionLZMA) {
    return Refuse(kUnknownType, sequence, start + kFlagsOffset);
  }
  if (entry.payloadLength > sequence.length - entry.payload) {
    return Refuse(kSizeTooLarge, sequence, entry.sizeField);
  }
  if (entry.isDirectory && sequence.depth == kMaximumNesting) {
    return Refuse(kNestedTooDeep, sequence, start + kFlagsOffset);
  }
  return true;
}

// A name is one path leaf, which may end in one slash.
bool BlobDecoder::CheckName(const Sequence& sequence, unsigned long offset, unsigned long length) {
  if (length == 0) {
    return true;
  }
  const unsigned char* const name = sequence.bytes + offset;
  const unsigned long leafLength = name[length - 1] == '/' ? length - 1 : length;
  if (memchr(name, '\0', length)) {
    return Refuse(kNameHasNUL, sequence, offset);
  }
  if (memchr(name, '/', leafLength)) {
    return Refuse(kNameHasSlash, sequence, offset);
  }
  if ((leafLength == 1 || leafLength == 2) && memcmp(name, "..", leafLength) == 0) {
    return Refuse(kNameIsDots, sequence, offset);
  }
  return true;
}

// Checks an entry's sub-header against the length of its stream and charges what the entry
// costs, before memory is asked for.
bool BlobDecoder::CheckLZMAClaim(const Sequence& sequence, unsigned long subHeader,
                                 unsigned long claim, unsigned long streamLength) {
  if (claim > streamLength * kGreatestExpansion) {
    return Refuse(kClaimTooLarge, sequence, subHeader);
  }
  const unsigned int propertiesByte = sequence.bytes[subHeader + kLZMAPropertiesOffset];
  if (propertiesByte >= kPropertiesEnd) {
    return Refuse(kBadProperties, sequence, subHeader + kLZMAPropertiesOffset);
  }
  unsigned long cost = ProbabilityTableSize(propertiesByte);
  // At the top level the claim is already bounded by the stream's length, checked above.
  if (sequence.decoded) {
    cost += claim;
  }
  if (cost > budget_) {
    return Refuse(kTooCostly, sequence, subHeader);
  }
  budget_ -= cost;
  return true;
}

bool BlobDecoder::DecodeLZMAEntry(const Sequence& sequence, const EntryLayout& entry,
                                  unsigned long& position, fileChunk& node) {
  DecodedStream decoded = {};
  if (!DecodeStream(sequence, entry, decoded)) {
    return false;
  }
  position = entry.payload + kLZMASubHeaderLength + decoded.consumed;

  if (!entry.isDirectory && decoded.produced == decoded.claim) {
    // The array is exactly the private copy that a file node is to own.
    node.data = decoded.bytes;
    node.size = decoded.produced;
    return true;
  }
  DecodedContent content(decoded.bytes);
  const Sequence inner = {decoded.bytes, decoded.produced, 0, &content, sequence.depth};
  const bool isOutermost = sequence.decoded == nullptr;
  const bool taken =
      !(entry.isDirectory && isOutermost && !Rehearse(inner)) && TakeContent(inner, entry, node);
  delete[] decoded.bytes;
  return taken;
}

// Decodes an entry's LZMA stream into a new array, which the caller frees. Returns false, without
// an array, when the entry is refused.
bool BlobDecoder::DecodeStream(const Sequence& sequence, const EntryLayout& entry,
                               DecodedStream& decoded) {
  if (entry.payloadLength < kLZMASubHeaderLength) {
    return Refuse(kSubHeaderCutShort, sequence, entry.sizeField);
  }
  const unsigned long stream = entry.payload + kLZMASubHeaderLength;
  const unsigned long streamLength = entry.payloadLength - kLZMASubHeaderLength;
  const char* properties = nullptr;
  unsigned int propertyCount = 0;
  decodeLZMAHeader(sequence.bytes + entry.payload, properties, propertyCount, decoded.claim);
  if (!CheckLZMAClaim(sequence, entry.payload, decoded.claim, streamLength)) {
    return false;
  }
  decoded.bytes = new (std::nothrow) unsigned char[decoded.claim];
  if (!decoded.bytes) {
    return Refuse(kNoMemory, sequence, entry.payload);
  }

  decoded.produced = decoded.claim;
  // The size field counts the sub-header too. A stream that goes on into the bytes after the entry
  // is reported as too long, not as damaged.
  decoded.consumed = std::min(entry.payloadLength, sequence.length - stream);
  ELzmaStatus status = LZMA_STATUS_NOT_SPECIFIED;
  const SRes result = LzmaDecode(decoded.bytes, &decoded.produced, sequence.bytes + stream,
                                 &decoded.consumed, reinterpret_cast<const Byte*>(properties),
                                 propertyCount, LZMA_FINISH_ANY, &status, &GlobalAllocObject);
  if (result == SZ_OK && decoded.produced <= decoded.claim && decoded.consumed <= streamLength) {
    return true;
  }
  delete[] decoded.bytes;
  if (result == SZ_OK) {
    return Refuse(kStreamTooLong, sequence, entry.sizeField);
  }
  return Refuse(result == SZ_ERROR_MEM ? kNoMemory : kBadStream, sequence, stream);
}

// Goes through a directory's content without keeping any of it. What streams within the content
// would together take is only known after the last of them: a blob that costs too much is refused
// while at most one stream of each level of nesting is in memory. A blob of the writer has no such
// streams, and loses no time.
bool BlobDecoder::Rehearse(const Sequence& content) {
  const unsigned long budget = budget_;
  fileChunk nothing;
  isRehearsal_ = true;
  const bool isWellFormed = TakeChildren(content, nothing);
  isRehearsal_ = false;
  budget_ = budget;
  return isWellFormed;
}

bool BlobDecoder::RehearseSequence(const Sequence& sequence) {
  for (unsigned long position = 0; position != sequence.length;) {
    fileChunk node;
    if (!DecodeEntry(sequence, position, node)) {
      return false;
    }
  }
  return true;
}

bool BlobDecoder::TakeContent(const Sequence& content, const EntryLayout& entry, fileChunk& node) {
  if (entry.isDirectory) {
    return TakeChildren(content, node);
  }
  if (isRehearsal_) {
    return true;
  }
  node.data = new (std::nothrow) unsigned char[content.length];
  if (!node.data) {
    return Refuse(kNoMemory, content, 0);
  }
  CopyContent(content, node.data);
  node.size = content.length;
  return true;
}

// In steps, so that no part of a large file is in memory twice for long.
void BlobDecoder::CopyContent(const Sequence& content, unsigned char* copy) {
  for (unsigned long position = 0; position != content.length;) {
    const unsigned long count = std::min(content.length - position, kDiscardStep);
    memcpy(copy + position, content.bytes + position, count);
    position += count;
    if (content.decoded) {
      content.decoded->DiscardUpTo(content.bytes + position);
    }
  }
}

bool BlobDecoder::TakeChildren(const Sequence& content, fileChunk& node) {
  Sequence children = content;
  ++children.depth;
  if (isRehearsal_) {
    return RehearseSequence(children);
  }
  node.isDirectory = true;
  node.children = DecodeSequence(children);
  return !fault_.reason;
}

}  // namespace

fileChunk* dismantle(unsigned char* buffer, unsigned int length) {
  BlobFault fault;
  return dismantle(buffer, length, fault);
}

fileChunk* dismantle(unsigned char* buffer, unsigned int length, BlobFault& fault) {
  fault = BlobFault();
  return BlobDecoder(length, fault).DecodeSequence({buffer, length, 0, nullptr, 0});
}

fileChunk* DismantleInstallerBlob(fileChunk* sources) {
  BlobFault fault;
  return DismantleInstallerBlob(sources, fault);
}

fileChunk* DismantleInstallerBlob(fileChunk* sources, BlobFault& fault) {
  fault = BlobFault();
  fileChunk* first = nullptr;
  fileChunk* last = nullptr;
  for (fileChunk* source = sources; source; source = source->next) {
    fileChunk* const decoded =
        dismantle(source->data, static_cast<unsigned int>(source->size), fault);
    if (fault.reason) {
      DeleteFileChunks(first);
      return nullptr;
    }
    if (!decoded) {
      continue;
    }
    if (last) {
      DeleteFileChunks(last->next);
      last->next = decoded;
    } else {
      first = decoded;
    }
    last = decoded;
  }
  return first;
}
