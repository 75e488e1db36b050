// The numbers of the blob format. docs/blob-format.md describes the format itself.
#pragma once

/// The only header version: byte 0 of every entry.
constexpr unsigned char kHeaderVersion = 2;

/// Byte 1 of an entry: the directory flag above the compression type.
constexpr unsigned int kDirectoryFlagShift = 7;
constexpr unsigned int kCompressionTypeMask = 0x7F;

/// Offsets within an entry's generic header; the size field follows the name.
constexpr unsigned int kFlagsOffset = 1;
constexpr unsigned int kNameLengthOffset = 2;
constexpr unsigned int kNameOffset = 3;

/// Length of a generic header without its name.
constexpr unsigned int kNamelessHeaderLength = 7;

/// A name's length is stored modulo 256. (A size is stored modulo 2^32, as an unsigned int.)
constexpr unsigned long kNameLengthMask = 0xFF;

/// The LZMA sub-header: the uncompressed length, then the SDK's property bytes.
constexpr unsigned int kLZMASubHeaderLength = 9;
constexpr unsigned int kLZMAPropertiesOffset = 4;
constexpr unsigned int kLZMAPropertyCount = 5;
