// The payload blob: the tree of files and directories that it holds, and the two
// walks that turn the tree into bytes and back. docs/blob-format.md describes the
// format byte by byte.
//
// No function throws when memory for a file or a blob runs out: each reports it as described. Every
// list that a function returns belongs to the caller, who frees it with DeleteFileChunks. "Absent"
// means a null pointer.
#pragma once

#include <LzmaDec.h>

/// One node of the payload tree: a file, a directory, or a block of encoded bytes.
///
/// Nodes are made with `new` and freed with `delete`; `name` and `data` with `new[]` and
/// `delete[]`. A node owns its name, its data and its whole list of children, but not its siblings:
/// those belong to the owner of the list.
struct fileChunk {
  fileChunk() = default;
  ~fileChunk();
  fileChunk(const fileChunk&) = delete;
  fileChunk& operator=(const fileChunk&) = delete;

  /// A single path leaf, which may end in one slash, NUL-terminated. Absent for encoded blocks and
  /// for a solid root that has not been decoded; empty for a decoded one.
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

/// The greatest depth of nested directories inside a blob, the solid root included. Deeper ones are
/// refused, which limits the recursion of every walk over a decoded tree.
constexpr unsigned int kMaximumNesting = 512;

/// The greatest length of a blob, and of one file in it, in bytes: sizes have 32 bits in the format
/// and in the reader.
constexpr unsigned long kMaximumBlobLength = 0xFFFFFFFF;
/// The reason for which a longer blob is refused. The offset of that fault is kMaximumBlobLength.
constexpr char kBlobTooLarge[] = "too large for a blob: 4 GiB or more";

/// Why a blob was refused.
struct BlobFault {
  /// What is wrong, as a phrase in lower case without a full stop; absent without a fault.
  const char* reason = nullptr;
  /// The offset of the faulty field in the blob or, with `inDecodedContent`, in the decoded content
  /// of the innermost LZMA entry around it, in bytes.
  unsigned long offset = 0;
  bool inDecodedContent = false;
  /// Memory ran out while the blob was decoded; it may be well formed.
  bool isWantOfMemory = false;
};

/// Allocator of the LZMA SDK, for reading and writing: array new, which returns a null pointer when
/// memory runs out, and array delete.
extern ISzAlloc GlobalAllocObject;

// ---- Writing

/// Writes an entry's generic header at `buffer`: 7 bytes and the name. Returns its length in bytes.
/// The name's length is stored modulo 256, with that many of its first bytes; `size` modulo 2^32.
/// An absent name is written as an empty one.
unsigned long WriteFormattedGenericHeader(unsigned char* buffer, unsigned char compressionType,
                                          bool isDirectory, char* name, unsigned long size);

/// Returns the length in bytes of the generic header of an entry called `name`, which may be
/// absent.
unsigned long SizeofFormattedGenericHeader(char* name);

/// Writes the LZMA sub-header: the uncompressed length and the SDK's property bytes. Returns
/// 9, or writes nothing and returns 0 when `propertyCount` is not 5.
unsigned long WriteFormattedLZMASubHeader(unsigned char* buffer, unsigned int uncompressedLength,
                                          char* properties, unsigned int propertyCount);

/// Returns the length of the LZMA sub-header in bytes: 9.
unsigned long SizeofFormattedLZMASubHeader();

/// Writes `size` as 4 bytes, most significant first, and returns 4.
unsigned long WriteFormattedFileSize(unsigned char* buffer, unsigned int size);

/// Returns the encoded length of a sibling list in bytes, modulo 2^32. With `compressionType` 0 it
/// is the length that `flatten` writes; with 1 it is 9 bytes more for each entry, for its LZMA
/// sub-header, and says nothing about compressed lengths.
unsigned int totalSizeof(fileChunk* list, int compressionType);

/// Encodes a sibling list at `buffer`, stored and depth first. The buffer must have room for all of
/// it: `totalSizeof(list, 0)` bytes if the length is less than 4 GiB. The low 32 bits of a file's
/// size are the number of bytes that are copied. Returns the number of bytes written, modulo 2^32.
unsigned int flatten(unsigned char* buffer, fileChunk* list);

/// Flattens a sibling list into one nameless directory node that holds the encoded bytes, ready for
/// PrepareFileChunk. Returns the node, which the caller owns; absent when the encoded bytes are 4
/// GiB or more, which does not fit in a size field, or when memory runs out. The list is not
/// changed.
fileChunk* PrepareSourceForSolidCompression(fileChunk* list);

/// Encodes one chunk as one complete entry. With `compressionType` 1 it is compressed with LZMA
/// (level 5, 64 MiB dictionary, lc 3, lp 0, pb 2, 32 fast bytes, one thread, no end marker) if the
/// stream is more than 24 bytes shorter than the data, and stored otherwise, also when the encoder
/// fails.
///
/// Returns a nameless node whose `data` is the entry, owned by the caller. Absent when the chunk is
/// absent, has size 0 or no data, or is so large that the entry's length overflows, when the type
/// is neither 0 nor 1, or when memory runs out.
fileChunk* PrepareFileChunk(fileChunk* chunk, int compressionType);

/// Called while a chunk is encoded: `done` of its `total` bytes are encoded. `done` never decreases
/// and is `total` in the last call, after the entry is complete. The handler runs on the thread
/// that encodes and must not throw. `context` is the one passed to PrepareFileChunk.
typedef void EncodingProgressHandler(unsigned long done, unsigned long total, void* context);

/// The same, with progress and threads. `handler`, unless it is absent, is called about every 128
/// KiB; the entry is the same with and without it. With `threads` 0 or 1 the result is as above.
/// With 2 or more the SDK searches for matches in threads of its own. That is faster, and the
/// length of the entry may differ by about a kilobyte; every run with threads makes the same entry.
/// If threads cannot be started, or the LZMA SDK of the build has none, one thread is used.
fileChunk* PrepareFileChunk(fileChunk* chunk, int compressionType, unsigned int threads,
                            EncodingProgressHandler* handler, void* context);

// ---- Reading

/// Returns the 4 bytes at `buffer` as a number, most significant first.
unsigned int decodeFormattedFileSize(const unsigned char* buffer);

/// Decodes the generic header at `buffer`, where 7 bytes and the name must be readable. Returns its
/// length in bytes, or 0, with no argument changed, when the version byte is not 2. `name` becomes
/// a new array that the caller owns, absent only when memory runs out.
unsigned long decodeHeaderV2(const unsigned char* buffer, int& compressionType, char*& name,
                             bool& isDirectory, unsigned long& size);

/// Decodes the 9 bytes of an LZMA sub-header at `buffer` and returns 9. `properties` becomes a
/// pointer into the buffer.
unsigned long decodeLZMAHeader(const unsigned char* buffer, const char*& properties,
                               unsigned int& propertyCount, unsigned long& uncompressedLength);

/// Decodes the `length` encoded bytes at `buffer` into a new sibling list, in their order. Returns
/// absent for length 0 and for a malformed sequence. docs/blob-format.md lists what is malformed;
/// if memory runs out the sequence counts as malformed too.
fileChunk* dismantle(unsigned char* buffer, unsigned int length);

/// The same, with the reason in `fault`: `fault.reason` is absent exactly when the sequence was
/// well formed.
fileChunk* dismantle(unsigned char* buffer, unsigned int length, BlobFault& fault);

/// Decodes the data of each node of `sources` with `dismantle`; the length is the low 32 bits of
/// the node's size. Returns the first result. The head of each later result becomes the `next` of
/// the head before it, in place of that head's own siblings, which are freed; a source that decodes
/// to nothing is skipped. Absent when `sources` is absent, when all sources are empty, or when one
/// is malformed. The sources are not changed.
fileChunk* DismantleInstallerBlob(fileChunk* sources);

/// The same, with the reason in `fault`. Its offset is an offset in the malformed source.
fileChunk* DismantleInstallerBlob(fileChunk* sources, BlobFault& fault);

/// Frees a whole sibling list with everything below it and sets `head` to null.
void DeleteFileChunks(fileChunk*& head);

// ---- Other functions

/// Prints a listing of the tree to standard output, indented by two spaces for each level,
/// beginning with `depth` levels. A directory's name is followed by '/', a file's by its size,
/// truncated to whole KB, MB or GB. An absent name is printed as an empty one. Despite its name, it
/// compares nothing.
void Verify(fileChunk* list, int depth);

/// Premultiplies the colours of a run-length encoded Truevision TGA image (18-byte header, no
/// image identifier, no colour map, no footer) by their alpha, as (colour * alpha) >> 8.
///
/// Returns a new nameless node of the same size, owned by the caller. Absent when the chunk or its
/// data is absent, the data is shorter than a header, a pixel does not have 4 bytes, the last
/// packet does not end exactly at the end of the image, or memory runs out. The number of bytes of
/// a pixel is header byte 16, the depth in bits, divided by 8 and truncated, so depths 33 to 39
/// count as 32.
fileChunk* PremultiplyTexture(const fileChunk* chunk);
