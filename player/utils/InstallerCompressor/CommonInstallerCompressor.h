// The payload blob: the tree of files and directories that it holds, and the two
// walks that turn the tree into bytes and back. docs/blob-format.md describes the
// format byte by byte.
//
// Nothing in here throws on purpose: memory for anything as large as a file or a blob may run
// out, and is then reported as the functions say. Every list that a function hands out belongs
// to the caller, who frees it with DeleteFileChunks.
#pragma once

#include <LzmaDec.h>

/// One node of the payload tree: a file, a directory, or a block of encoded bytes.
///
/// Nodes are made with `new` and freed with `delete`; `name` and `data` with `new[]` and
/// `delete[]`. A node owns its name, its data and its whole list of children, but not its
/// siblings: those belong to whoever holds the list.
struct fileChunk {
  fileChunk() = default;
  ~fileChunk();
  fileChunk(const fileChunk&) = delete;
  fileChunk& operator=(const fileChunk&) = delete;

  /// A single path leaf, NUL-terminated; absent for the solid root and for encoded blocks.
  char* name = nullptr;
  /// Bytes in `data`.
  unsigned long size = 0;
  bool isDirectory = false;
  /// A file's contents, or encoded bytes.
  unsigned char* data = nullptr;
  /// First node of the directory's list.
  fileChunk* children = nullptr;
  /// Next node of the list that holds this one.
  fileChunk* next = nullptr;
};

/// Compression types: bits 0 to 6 of an entry's flags byte.
constexpr int kCompressionStored = 0;
constexpr int kCompressionLZMA = 1;

/// Directories, the solid root among them, may nest this deep inside a blob; deeper ones are
/// refused, which bounds the recursion of every walk over a decoded tree.
constexpr unsigned int kMaximumNesting = 512;

/// The greatest size that a field of a blob holds, and the greatest length of a blob for its
/// reader, in bytes: 32 bits.
constexpr unsigned long kMaximumSize = 0xFFFFFFFF;
/// Why a longer blob is refused. The offset of that fault is the greatest length.
constexpr char kBlobTooLarge[] = "too large for a blob: 4 GiB or more";

/// Why a blob was refused.
struct BlobFault {
  /// What is wrong, as a phrase in lower case without a full stop; absent while nothing is.
  const char* reason = nullptr;
  /// Where: the offset of the offending field in the blob, or, with `inDecodedContent`, in
  /// the content that the innermost LZMA entry around it decodes to.
  unsigned long offset = 0;
  bool inDecodedContent = false;
  /// The blob may be well formed: there is too little memory to decode it.
  bool isWantOfMemory = false;
};

/// Allocator record that both directions give to the LZMA SDK: array new, which answers a
/// request that cannot be met with an absent pointer, and array delete.
extern ISzAlloc GlobalAllocObject;

// ---- Writing

/// Writes an entry's generic header at `buffer`, 7 bytes and the name's, and returns that
/// count. The name's length is stored modulo 256, with as many of its first bytes; `size`
/// modulo 2^32. An absent name is written as an empty one.
unsigned long WriteFormattedGenericHeader(unsigned char* buffer, unsigned char compressionType,
                                          bool isDirectory, char* name, unsigned long size);

/// Length of the generic header of an entry called `name` (which may be absent).
unsigned long SizeofFormattedGenericHeader(char* name);

/// Writes the LZMA sub-header: the uncompressed length and the SDK's property bytes. Returns
/// 9, or writes nothing and returns 0 when `propertyCount` is not 5.
unsigned long WriteFormattedLZMASubHeader(unsigned char* buffer, unsigned int uncompressedLength,
                                          char* properties, unsigned int propertyCount);

/// Length of the LZMA sub-header: 9.
unsigned long SizeofFormattedLZMASubHeader();

/// Writes `size` as 4 bytes, most significant first, and returns 4.
unsigned long WriteFormattedFileSize(unsigned char* buffer, unsigned int size);

/// Encoded length of a sibling list, modulo 2^32: exactly what `flatten` writes when
/// `compressionType` is 0, and 9 bytes more per entry when it is 1 (room for an LZMA
/// sub-header each; it does not foretell compressed lengths).
unsigned int totalSizeof(fileChunk* list, int compressionType);

/// Encodes a sibling list, stored and depth first, at `buffer`, which must have room for
/// all of it: `totalSizeof(list, 0)` bytes as long as that is less than 4 GiB. Of a file, the
/// low 32 bits of its size say how much is copied. Returns the count written, modulo 2^32.
unsigned int flatten(unsigned char* buffer, fileChunk* list);

/// Flattens a sibling list into one nameless directory node that holds the encoded bytes,
/// ready for PrepareFileChunk. The caller owns the node; the list stays as it is. Absent when
/// the encoded bytes are 4 GiB or more, which no size field can tell, or when memory runs out.
fileChunk* PrepareSourceForSolidCompression(fileChunk* list);

/// Encodes one chunk as one complete entry. With type 1 it is compressed with LZMA (level 5,
/// 64 MiB dictionary, lc 3, lp 0, pb 2, 32 fast bytes, one thread, no end marker) if that
/// saves more than 24 bytes, and stored otherwise, also when the encoder fails.
///
/// Returns a nameless node whose `data` is the entry, owned by the caller; absent when the
/// chunk is absent, has size 0 or no data, or a size that leaves no room for headers in the
/// address space, when the type is neither 0 nor 1, or when memory runs out.
fileChunk* PrepareFileChunk(fileChunk* chunk, int compressionType);

/// Called while a chunk is encoded: `done` of its `total` bytes have been. `done` never decreases
/// and is `total` in the last call, which comes after the entry is complete. The handler runs on
/// the thread that encodes and must not throw. `context` is the one passed to PrepareFileChunk.
typedef void EncodingProgressHandler(unsigned long done, unsigned long total, void* context);

/// The same, with progress and threads. `handler`, unless it is absent, is called every 128 KiB or
/// so, and changes no byte of the entry. With `threads` 0 or 1 the result is as above. With 2 or
/// more the SDK searches for matches on threads of its own: that is faster, and the entry may
/// differ by a kilobyte, but every run gives the same. One thread is used instead when
/// more cannot be started, and in a build with an LZMA SDK that has no such threads.
fileChunk* PrepareFileChunk(fileChunk* chunk, int compressionType, unsigned int threads,
                            EncodingProgressHandler* handler, void* context);

// ---- Reading

/// The 4 bytes at `buffer` as a number, most significant first.
unsigned int decodeFormattedFileSize(unsigned char const* buffer);

/// Decodes the generic header at `buffer`, of which 7 bytes and the name's must be readable.
/// Returns its length, or 0, touching no argument, when the version byte is not 2. `name` is
/// a new array that the caller owns, absent only when memory runs out.
unsigned long decodeHeaderV2(unsigned char const* buffer, int& compressionType, char*& name,
                             bool& isDirectory, unsigned long& size);

/// Decodes the 9 bytes of an LZMA sub-header at `buffer` and returns 9. `properties` becomes
/// a view into the buffer.
unsigned long decodeLZMAHeader(unsigned char const* buffer, char const*& properties,
                               unsigned int& propertyCount, unsigned long& uncompressedLength);

/// Decodes a sequence of `length` encoded bytes into a new sibling list, in their order.
/// Returns absent for length 0, and for a malformed sequence, of which nothing is kept.
/// docs/blob-format.md lists what is malformed; running out of memory counts as that too.
fileChunk* dismantle(unsigned char* buffer, unsigned int length);

/// The same, telling why: `fault.reason` is absent exactly when the sequence was well formed.
fileChunk* dismantle(unsigned char* buffer, unsigned int length, BlobFault& fault);

/// Decodes the data of each node of `sources` with `dismantle`, the low 32 bits of its size
/// giving the length. Returns the first result. The head of each later result is stored as
/// the `next` of the head before it, and the nodes that this displaces are freed; a source
/// that decodes to nothing is passed over. Absent when `sources` is absent, when all are empty,
/// or when any is malformed. The sources stay as they are.
fileChunk* DismantleInstallerBlob(fileChunk* sources);

/// The same, telling why; the fault's offset counts within the source that is malformed.
fileChunk* DismantleInstallerBlob(fileChunk* sources, BlobFault& fault);

/// Frees a whole sibling list with everything below it and makes `head` absent.
void DeleteFileChunks(fileChunk*& head);

// ---- Beside the two walks

/// Prints a listing of the tree to standard output, two blanks of indentation per level
/// beginning with `depth`; a directory's name ends in '/', a file's is followed by its size,
/// truncated to whole KB, MB or GB. An absent name is printed as an empty one. It compares
/// nothing.
void Verify(fileChunk* list, int depth);

/// Premultiplies the colours of a run-length encoded Truevision TGA image (18-byte header, no
/// image identifier, no colour map, no footer) by their alpha, as (colour * alpha) >> 8.
///
/// Returns a new nameless node of the same size, owned by the caller; absent for an absent
/// chunk or data, for less than a header, for pixels of other than 4 bytes, for an image whose
/// packets do not end exactly at its end, and when memory runs out. A pixel's bytes are header
/// byte 16, the depth in bits, divided by 8 and cut off, so that 33 to 39 pass for 32.
fileChunk* PremultiplyTexture(fileChunk const* chunk);
