#!/usr/bin/python3
"""Makes three blobs whose streams come from another LZMA encoder than the product's: liblzma.

marker.blob holds the stream as `xz --format=raw --lzma1=dict=64MiB,lc=3,lp=0,pb=2,nice=32`
writes it. That ends in an end marker, which the decoder only looks for when more output is
promised than there is, so the blob claims one byte more.

no-marker.blob is the regular form. liblzma leaves the end marker out for the filter
LZMA1EXT only (since 5.4.0), which Python's own module does not offer; hence ctypes.

other-properties.blob has the same content with lc 0, lp 2, pb 0 and a dictionary of 4096 bytes,
less than that content.

The blobs are kept as they were made: other releases of liblzma may compress differently.
"""

import ctypes
import lzma
import pathlib
import struct

FOLDER = pathlib.Path(__file__).parent

DICTIONARY_SIZE, LC, LP, PB, NICE = 1 << 26, 3, 0, 2, 32
MODE_NORMAL, MATCH_FINDER_BT4 = 2, 0x14
FILTER_LZMA1EXT, END_OF_FILTERS = 0x4000000000000002, 0xFFFFFFFFFFFFFFFF


class Options(ctypes.Structure):
    """lzma_options_lzma of lzma/lzma12.h."""
    _fields_ = [("dict_size", ctypes.c_uint32), ("preset_dict", ctypes.c_void_p),
                ("preset_dict_size", ctypes.c_uint32), ("lc", ctypes.c_uint32),
                ("lp", ctypes.c_uint32), ("pb", ctypes.c_uint32), ("mode", ctypes.c_int),
                ("nice_len", ctypes.c_uint32), ("mf", ctypes.c_int), ("depth", ctypes.c_uint32),
                ("ext_flags", ctypes.c_uint32), ("ext_size", ctypes.c_uint32 * 2),
                ("reserved_numbers", ctypes.c_uint32 * 5), ("reserved_enums", ctypes.c_int * 4),
                ("reserved_pointers", ctypes.c_void_p * 2)]


class Filter(ctypes.Structure):
    _fields_ = [("id", ctypes.c_uint64), ("options", ctypes.POINTER(Options))]


def compress_without_marker(data, lc=LC, lp=LP, pb=PB, dictionary=DICTIONARY_SIZE):
    library = ctypes.CDLL("liblzma.so.5")
    options = Options(dict_size=dictionary, lc=lc, lp=lp, pb=pb, mode=MODE_NORMAL, nice_len=NICE,
                      mf=MATCH_FINDER_BT4,
                      ext_size=(len(data) & 0xFFFFFFFF, len(data) >> 32))
    filters = (Filter * 2)((FILTER_LZMA1EXT, ctypes.pointer(options)), (END_OF_FILTERS, None))
    output = ctypes.create_string_buffer(len(data) * 2 + 1024)
    length = ctypes.c_size_t(0)
    result = library.lzma_raw_buffer_encode(
        filters, None, data, ctypes.c_size_t(len(data)), output, ctypes.byref(length),
        ctypes.c_size_t(len(output)))
    if result != 0:
        raise SystemExit(f"liblzma gave error {result}; is it 5.4.0 or later?")
    return output.raw[:length.value]


def compress_with_marker(data):
    options = {"id": lzma.FILTER_LZMA1, "dict_size": DICTIONARY_SIZE, "lc": LC, "lp": LP, "pb": PB,
               "nice_len": NICE}
    return lzma.compress(data, lzma.FORMAT_RAW, filters=[options])


def entry(name, content, directory=False):
    return bytes([2, directory << 7, len(name)]) + name + struct.pack(">I", len(content)) + content


def solid_root(stream, claim, lc=LC, lp=LP, pb=PB, dictionary=DICTIONARY_SIZE):
    properties = bytes([(pb * 5 + lp) * 9 + lc]) + struct.pack("<I", dictionary)
    payload = struct.pack(">I", claim) + properties + stream
    return bytes([2, 0x81, 0]) + struct.pack(">I", len(payload)) + payload


def main():
    words = b"".join(b"line %d of the text\n" % line for line in range(500))
    tree = entry(b"Contents", entry(b"text", words) + entry(b"MacOS", b"", directory=True),
                 directory=True) + entry(b"empty", b"")
    (FOLDER / "marker.blob").write_bytes(solid_root(compress_with_marker(tree), len(tree) + 1))
    (FOLDER / "no-marker.blob").write_bytes(solid_root(compress_without_marker(tree), len(tree)))
    other = {"lc": 0, "lp": 2, "pb": 0, "dictionary": 4096}
    (FOLDER / "other-properties.blob").write_bytes(
        solid_root(compress_without_marker(tree, **other), len(tree), **other))


if __name__ == "__main__":
    main()
