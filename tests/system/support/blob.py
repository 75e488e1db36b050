"""Payload blobs written and read without the product's code: a second implementation of the format.

A blob is a sequence of entries. Each has a header (version 2, flags, name length, name,
big-endian size) and a payload: the bytes of a file, or the entries of a directory, stored or
compressed. docs/blob-format.md describes every byte.
"""

import dataclasses
import lzma
import os
import pathlib
import struct

VERSION = 2
DIRECTORY = 0x80
STORED = 0
LZMA = 1
SUB_HEADER_LENGTH = 9
DICTIONARY_SIZE = 1 << 26
PROPERTIES = struct.pack("<BI", (2 * 5 + 0) * 9 + 3, DICTIONARY_SIZE)


def header(name, size, flags=STORED, version=VERSION):
    """The header of an entry whose payload has `size` bytes."""
    name = os.fsencode(name)
    return struct.pack(">BBB", version, flags, len(name)) + name + struct.pack(">I", size)


def stored_file(name, data):
    """A file entry, stored."""
    return header(name, len(data)) + data


def stored_directory(name, entries):
    """A directory entry, stored; `entries` are its encoded children."""
    payload = b"".join(entries)
    return header(name, len(payload), DIRECTORY | STORED) + payload


def compressed(name, content, is_directory):
    """An LZMA entry. For a directory `content` is the concatenation of its encoded children."""
    payload = struct.pack(">I", len(content)) + PROPERTIES + lzma_stream(content)
    return header(name, len(payload), (DIRECTORY if is_directory else 0) | LZMA) + payload


def solid_root(entries, compress=True):
    """A blob: the nameless directory that holds the top-level `entries`."""
    content = b"".join(entries)
    if compress:
        return compressed("", content, is_directory=True)
    return stored_directory("", [content])


def entries_of(folder):
    """The encoded entries of everything in `folder` except .DS_Store, sorted by name."""
    encoded = []
    for path in sorted(pathlib.Path(folder).iterdir()):
        if path.name == ".DS_Store":
            continue
        if path.is_dir():
            encoded.append(stored_directory(path.name, entries_of(path)))
        else:
            encoded.append(stored_file(path.name, path.read_bytes()))
    return encoded


def pack(bundle, compress=False):
    """The blob of the bundle directory `bundle`. Compressing takes about 5 s per MB."""
    return solid_root(entries_of(bundle), compress)


def lzma_stream(data):
    """`data` as a raw LZMA stream of literals only, without end marker (lc 3, lp 0, pb 2).

    Python's own encoder always writes an end marker, which this format does not have.
    """
    out = bytearray()
    low, range_, cache, pending = 0, 0xFFFFFFFF, 0, 1
    # In state 0 (only literals so far), is-match depends on the position's low bits.
    is_match = [1024] * 4
    literals = [[1024] * 0x300 for _ in range(8)]

    def shift_low():
        nonlocal low, cache, pending
        if low < 0xFF000000 or low > 0xFFFFFFFF:
            carry = low >> 32
            while pending:
                out.append((cache + carry) & 0xFF)
                cache = 0xFF
                pending -= 1
            cache = (low >> 24) & 0xFF
        pending += 1
        low = (low & 0x00FFFFFF) << 8

    def encode(probabilities, index, bit):
        nonlocal low, range_
        probability = probabilities[index]
        bound = (range_ >> 11) * probability
        if bit:
            low += bound
            range_ -= bound
            probabilities[index] = probability - (probability >> 5)
        else:
            range_ = bound
            probabilities[index] = probability + ((2048 - probability) >> 5)
        while range_ < 1 << 24:
            range_ <<= 8
            shift_low()

    previous = 0
    for position, byte in enumerate(data):
        encode(is_match, position & 3, 0)
        probabilities = literals[previous >> 5]
        symbol = 1
        for shift in range(7, -1, -1):
            bit = (byte >> shift) & 1
            encode(probabilities, symbol, bit)
            symbol = symbol << 1 | bit
        previous = byte
    for _ in range(5):
        shift_low()
    return bytes(out)


@dataclasses.dataclass
class Entry:
    """A decoded entry: `content` of a file are bytes, of a directory a list of entries."""

    name: bytes
    compression: int
    is_directory: bool
    content: object


def decode(data):
    """The entries of `data`. Raises ValueError on anything that is not well formed."""
    entries = []
    position = 0
    while position < len(data):
        entry, position = _decode_entry(data, position)
        entries.append(entry)
    return entries


def _decode_entry(data, start):
    if len(data) - start < 7 or data[start] != VERSION:
        raise ValueError(f"no entry at byte {start}")
    flags, name_length = data[start + 1], data[start + 2]
    payload = start + 7 + name_length
    if payload > len(data):
        raise ValueError(f"the header at byte {start} is cut off")
    name = data[start + 3 : start + 3 + name_length]
    (size,) = struct.unpack_from(">I", data, payload - 4)
    if size > len(data) - payload:
        raise ValueError(f"the payload at byte {payload} is cut off")
    content = data[payload : payload + size]
    compression = flags & 0x7F
    if compression == LZMA:
        content = _decompress(content)
    elif compression != STORED:
        raise ValueError(f"unknown compression {compression} at byte {start}")
    is_directory = bool(flags & DIRECTORY)
    entry = Entry(name, compression, is_directory, decode(content) if is_directory else content)
    return entry, payload + size


def _decompress(payload):
    if len(payload) < SUB_HEADER_LENGTH:
        raise ValueError("the LZMA sub-header is cut off")
    length, properties, dictionary = struct.unpack_from("<4sBI", payload)
    (length,) = struct.unpack(">I", length)
    decoder = lzma.LZMADecompressor(
        lzma.FORMAT_RAW,
        filters=[{
            "id": lzma.FILTER_LZMA1,
            "dict_size": dictionary,
            "lc": properties % 9,
            "lp": properties // 9 % 5,
            "pb": properties // 45,
        }],
    )
    content = decoder.decompress(payload[SUB_HEADER_LENGTH:], max_length=length)
    if len(content) != length:
        raise ValueError(f"the LZMA stream gives {len(content)} bytes, not {length}")
    return content


def files_of(entries, prefix=""):
    """Decoded `entries` as a dictionary of paths: bytes for a file, None for a directory."""
    found = {}
    for entry in entries:
        path = os.path.join(prefix, os.fsdecode(entry.name))
        if entry.is_directory:
            if entry.name:
                found[path] = None
            found.update(files_of(entry.content, path))
        else:
            found[path] = entry.content
    return found
