// The numbers of the blob format. docs/blob-format.md describes the format itself.
#pragma once

/// The one header version there is: byte 0 of every entry.
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

/// Names keep their length modulo 256, sizes modulo 2^32 (kMaximumSize).
constexpr unsigned long kNameLengthMask = 0xFF;

/// The LZMA sub-header: the uncompressed length, then the SDK's property bytes.
constexpr unsigned int kLZMASubHeaderLength = 9;
constexpr unsigned int kLZMAPropertiesOffset = 4;
constexpr unsigned int kLZMAPropertyCount = 5;
