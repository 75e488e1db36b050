// What the reader and the writer of blobs share: the tree, the encoding of headers, and
// the allocator that the LZMA SDK is given.
#include "player/utils/InstallerCompressor/CommonInstallerCompressor.h"

#include <cstring>
#include <new>

#include "player/utils/InstallerCompressor/BlobFormat.h"

namespace {

// Releases of the LZMA SDK differ in the type of the first parameter, so it is deduced. An
// exception must not unwind through the SDK's C code: no memory is a null pointer to it.
template <typename Allocator>
void* SzAlloc(Allocator, size_t size) {
  return new (std::nothrow) unsigned char[size];
}

template <typename Allocator>
void SzFree(Allocator, void* address) {
  delete[] static_cast<unsigned char*>(address);
}

unsigned long StoredNameLength(char const* name) {
  return name ? strlen(name) & kNameLengthMask : 0;
}

}  // namespace

ISzAlloc GlobalAllocObject = {SzAlloc, SzFree};

fileChunk::~fileChunk() {
  delete[] name;
  DeleteFileChunks(children);
  delete[] data;
}

void DeleteFileChunks(fileChunk*& head) {
  while (head) {
    fileChunk* const node = head;
    head = node->next;
    delete node;
  }
}

unsigned long WriteFormattedGenericHeader(unsigned char* buffer, unsigned char compressionType,
                                          bool isDirectory, char* name, unsigned long size) {
  const unsigned long nameLength = StoredNameLength(name);
  const unsigned int directoryFlag = isDirectory ? 1U << kDirectoryFlagShift : 0;
  buffer[0] = kHeaderVersion;
  buffer[kFlagsOffset] =
      static_cast<unsigned char>(directoryFlag | (compressionType & kCompressionTypeMask));
  buffer[kNameLengthOffset] = static_cast<unsigned char>(nameLength);
  if (nameLength != 0) memcpy(buffer + kNameOffset, name, nameLength);
  WriteFormattedFileSize(buffer + kNameOffset + nameLength,
                         static_cast<unsigned int>(size & kMaximumSize));
  return kNamelessHeaderLength + nameLength;
}

unsigned long SizeofFormattedGenericHeader(char* name) {
  return kNamelessHeaderLength + StoredNameLength(name);
}

unsigned long WriteFormattedLZMASubHeader(unsigned char* buffer, unsigned int uncompressedLength,
                                          char* properties, unsigned int propertyCount) {
  if (propertyCount != kLZMAPropertyCount) return 0;
  WriteFormattedFileSize(buffer, uncompressedLength);
  memcpy(buffer + kLZMAPropertiesOffset, properties, kLZMAPropertyCount);
  return kLZMASubHeaderLength;
}

unsigned long SizeofFormattedLZMASubHeader() { return kLZMASubHeaderLength; }

unsigned long WriteFormattedFileSize(unsigned char* buffer, unsigned int size) {
  buffer[0] = static_cast<unsigned char>(size >> 24);
  buffer[1] = static_cast<unsigned char>(size >> 16);
  buffer[2] = static_cast<unsigned char>(size >> 8);
  buffer[3] = static_cast<unsigned char>(size);
  return 4;
}

unsigned int decodeFormattedFileSize(unsigned char const* buffer) {
  return static_cast<unsigned int>(buffer[0]) << 24 | static_cast<unsigned int>(buffer[1]) << 16 |
         static_cast<unsigned int>(buffer[2]) << 8 | buffer[3];
}

unsigned long decodeHeaderV2(unsigned char const* buffer, int& compressionType, char*& name,
                             bool& isDirectory, unsigned long& size) {
  if (buffer[0] != kHeaderVersion) return 0;
  const unsigned int nameLength = buffer[kNameLengthOffset];
  compressionType = static_cast<int>(buffer[kFlagsOffset] & kCompressionTypeMask);
  isDirectory = buffer[kFlagsOffset] >> kDirectoryFlagShift != 0;
  name = new (std::nothrow) char[nameLength + 1];
  if (name) {
    memcpy(name, buffer + kNameOffset, nameLength);
    name[nameLength] = '\0';
  }
  size = decodeFormattedFileSize(buffer + kNameOffset + nameLength);
  return kNamelessHeaderLength + nameLength;
}

unsigned long decodeLZMAHeader(unsigned char const* buffer, char const*& properties,
                               unsigned int& propertyCount, unsigned long& uncompressedLength) {
  uncompressedLength = decodeFormattedFileSize(buffer);
  properties = reinterpret_cast<char const*>(buffer + kLZMAPropertiesOffset);
  propertyCount = kLZMAPropertyCount;
  return kLZMASubHeaderLength;
}
