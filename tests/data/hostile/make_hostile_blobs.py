#!/usr/bin/python3
"""Makes the malformed blobs of this folder, and expected.txt, which says for each of them
where and why it is refused.

    make_hostile_blobs.py           writes the files
    make_hostile_blobs.py --check   fails when the files differ from what would be written

The LZMA streams come from the small encoder below, not from a library: it writes no end
marker, always writes the same bytes, and can be told to write foolish ones.
"""

import argparse
import pathlib
import struct
import sys

FOLDER = pathlib.Path(__file__).parent

STORED, LZMA = 0, 1


# ---- LZMA: the range coder and as much of the model as runs and periods need


class RangeEncoder:
    """LZMA's binary range coder. Probabilities that were not used yet are even."""

    def __init__(self):
        self.low, self.range, self.cache, self.pending = 0, 0xFFFFFFFF, 0, 1
        self.output = bytearray()
        self.probabilities = {}

    def bit(self, context, bit):
        probability = self.probabilities.get(context, 1024)
        bound = (self.range >> 11) * probability
        if bit:
            self.low += bound
            self.range -= bound
            probability -= probability >> 5
        else:
            self.range = bound
            probability += (2048 - probability) >> 5
        self.probabilities[context] = probability
        self._normalize()

    def direct(self, bits, value):
        for shift in reversed(range(bits)):
            self.range >>= 1
            if value >> shift & 1:
                self.low += self.range
            self._normalize()

    def tree(self, context, bits, value):
        node = 1
        for shift in reversed(range(bits)):
            self.bit((context, node), value >> shift & 1)
            node = node << 1 | value >> shift & 1

    def reverse_tree(self, context, bits, value):
        node = 1
        for shift in range(bits):
            self.bit((context, node), value >> shift & 1)
            node = node << 1 | value >> shift & 1

    def finish(self):
        for _ in range(5):
            self._shift()
        return bytes(self.output)

    def _normalize(self):
        while self.range < 1 << 24:
            self.range <<= 8
            self._shift()

    def _shift(self):
        if self.low < 0xFF000000 or self.low > 0xFFFFFFFF:
            carry = self.low >> 32
            self.output.append(self.cache + carry & 0xFF)
            self.output.extend([0xFF + carry & 0xFF] * (self.pending - 1))
            self.pending = 0
            self.cache = self.low >> 24 & 0xFF
        self.pending += 1
        self.low = (self.low & 0x00FFFFFF) << 8


class Encoder:
    """Encodes bytes as literals and as matches with one distance."""

    GREATEST_MATCH = 273

    def __init__(self, lc, lp, pb):
        self.lc, self.lp, self.pb = lc, lp, pb
        self.coder = RangeEncoder()
        self.state = 0
        self.distance = 1

    def encode(self, data, period):
        """`period` is the distance of all matches."""
        self.data, self.position = data, 0
        while self.position < len(data):
            length = self._match_length(period)
            if length < 2:
                self._literal()
            elif period == self.distance:
                self._repeated_match(length)
            else:
                self._match(period, length)
        return self.coder.finish()

    def _match_length(self, period):
        start, limit = self.position, min(len(self.data), self.position + self.GREATEST_MATCH)
        if start < period:
            return 0
        if self.data[start:limit] == self.data[start - period:limit - period]:
            return limit - start
        length = 0
        while self.data[start + length] == self.data[start + length - period]:
            length += 1
        return length

    def _position_state(self):
        return self.position & (1 << self.pb) - 1

    def _literal(self):
        self.coder.bit(("match", self.state, self._position_state()), 0)
        before = self.data[self.position - 1] if self.position else 0
        literal_state = (self.position & (1 << self.lp) - 1) << self.lc | before >> 8 - self.lc
        byte, node = self.data[self.position], 1
        in_step = self.state >= 7
        matched = self.data[self.position - self.distance] if in_step else 0
        for shift in reversed(range(8)):
            bit, matched_bit = byte >> shift & 1, matched >> shift & 1
            context = node + (1 + matched_bit << 8) if in_step else node
            self.coder.bit(("literal", literal_state, context), bit)
            in_step = in_step and bit == matched_bit
            node = node << 1 | bit
        self.state = 0 if self.state < 4 else self.state - (3 if self.state < 10 else 6)
        self.position += 1

    def _repeated_match(self, length):
        position_state = self._position_state()
        self.coder.bit(("match", self.state, position_state), 1)
        self.coder.bit(("repeated", self.state), 1)
        self.coder.bit(("not last distance", self.state), 0)
        self.coder.bit(("long", self.state, position_state), 1)
        self._length("repeated length", length, position_state)
        self.state = 8 if self.state < 7 else 11
        self.position += length

    def _match(self, distance, length):
        position_state = self._position_state()
        self.coder.bit(("match", self.state, position_state), 1)
        self.coder.bit(("repeated", self.state), 0)
        self._length("length", length, position_state)
        value, length_state = distance - 1, min(length - 2, 3)
        low_bits = max(value.bit_length() - 2, 0)
        slot = low_bits + 1 << 1 | value >> low_bits & 1 if value >= 4 else value
        low = value & (1 << low_bits) - 1
        self.coder.tree(("slot", length_state), 6, slot)
        if slot >= 14:
            self.coder.direct(low_bits - 4, low >> 4)
            self.coder.reverse_tree("align", 4, low & 15)
        elif slot >= 4:
            self.coder.reverse_tree(("distance", slot), low_bits, low)
        self.state = 7 if self.state < 7 else 10
        self.distance = distance
        self.position += length

    def _length(self, name, length, position_state):
        value = length - 2
        self.coder.bit((name, "beyond low"), value >= 8)
        if value < 8:
            self.coder.tree((name, "low", position_state), 3, value)
            return
        self.coder.bit((name, "beyond middle"), value >= 16)
        if value < 16:
            self.coder.tree((name, "middle", position_state), 3, value - 8)
        else:
            self.coder.tree((name, "high"), 8, value - 16)


# ---- Entries


def header(name, size, kind=STORED, directory=False, version=2, name_length=None):
    length = len(name) if name_length is None else name_length
    return bytes([version, directory << 7 | kind, length]) + name + struct.pack(">I", size)


def file(name, data):
    return header(name, len(data)) + data


def directory(name, *children):
    content = b"".join(children)
    return header(name, len(content), directory=True) + content


def properties(lc=3, lp=0, pb=2, dictionary=1 << 26):
    return bytes([(pb * 5 + lp) * 9 + lc]) + struct.pack("<I", dictionary)


def lzma_entry(name, content, is_directory, period=1, claim=None, lc=3, lp=0, pb=2,
               property_bytes=None, spoil=None, size_change=0):
    """An LZMA entry of `content`; what is given beyond that falsifies one of its fields."""
    stream = Encoder(lc, lp, pb).encode(content, period)
    if spoil:
        stream = spoil(stream)
    sub_header = struct.pack(">I", len(content) if claim is None else claim)
    sub_header += property_bytes or properties(lc, lp, pb)
    size = len(sub_header) + len(stream) + size_change
    return header(name, size, LZMA, is_directory) + sub_header + stream


def root(*children, **falsified):
    return lzma_entry(b"", b"".join(children), True, **falsified)


# ---- The blobs

HEADER_CUT = "an entry's header is cut short"
VERSION = "an entry has an unknown header version"
TYPE = "an entry has an unknown compression type"
NAME_CUT = "an entry's name is cut short"
NAME_NUL = "an entry's name contains a NUL"
NAME_SLASH = "an entry's name contains a slash"
NAME_DOTS = "an entry's name leads out of its directory"
SIZE = "an entry's size runs past the end"
SUB_HEADER = "an entry's size has no room for the LZMA sub-header"
CLAIM = "an entry claims more than its LZMA stream can hold"
PROPERTIES = "an entry has invalid LZMA properties"
STREAM = "an entry's LZMA stream is damaged"
STREAM_LENGTH = "an entry's LZMA stream runs past its size"
COST = "LZMA entries cost too much to decode"

ESCAPE = b"written by a blob that should have been refused\n"
README = file(b"README", b"Read me.\n")

# The decoder needs its largest table, 6295424 bytes, for this entry of 22.
GREATEST_TABLE = lzma_entry(b"", b"x", False, lc=8, lp=4, pb=4)

# Well-formed blobs. The tests cut the first two at every byte, repeat the third,
# and change the claim of the fourth.
SMALL_TREE = (directory(b"Contents", file(b"Info.plist", b"<plist/>\n"), directory(b"MacOS")),
              file(b"empty", b""), README)
BASES = {
    "base-stored.blob": directory(b"", *SMALL_TREE),
    "base-lzma.blob": root(*SMALL_TREE),
    "base-greatest-table.blob": GREATEST_TABLE,
    "base-run.blob": lzma_entry(b"", b"x" * 300, False),
}


def bomb():
    """Three levels; all its files together would take 2.5 TB, and the tables for them six times
    that. So large ones keep the tests short: it is refused the sooner."""
    entry = lzma_entry(b"z", bytes(1000000), False, lc=8, lp=4, pb=4)
    for name in (b"a", b"b"):
        entry = lzma_entry(name, entry * 1600, True, period=len(entry))
    return entry


def cases():
    """Yields (file name, blob, reason, offset, whether that counts in decoded content)."""
    after_readme = len(README)

    # Fields of the generic header.
    yield "version-1", header(b"a", 0, version=1), VERSION, 0, False
    yield "version-of-second-entry", README + header(b"a", 0, version=3), VERSION, after_readme, False
    yield "type-2", header(b"a", 0, kind=2), TYPE, 1, False
    yield "type-127-directory", header(b"a", 0, kind=127, directory=True), TYPE, 1, False
    yield "trailing-byte", README + b"\x02", HEADER_CUT, after_readme, False
    yield "name-length-too-large", header(b"a", 0, name_length=2), NAME_CUT, 2, False
    yield "name-length-255", header(b"a", 0, name_length=255), NAME_CUT, 2, False
    yield "size-too-large-by-1", header(b"a", 4) + b"abc", SIZE, 4, False
    yield "size-greatest", header(b"a", 0xFFFFFFFF) + b"abc", SIZE, 4, False
    yield "directory-size-too-large", header(b"", 8, directory=True) + header(b"", 0), SIZE, 3, False
    yield ("child-runs-past-its-directory",
           header(b"", 9, directory=True) + header(b"a", 4) + b"abcdefgh", SIZE, 11, False)
    yield ("child-header-cut-by-its-directory",
           header(b"", 6, directory=True) + header(b"a", 0), HEADER_CUT, 7, False)

    # Names. Where ESCAPE would land depends on the name: nowhere, say the tests.
    for title, name, reason in (
            ("dot", b".", NAME_DOTS), ("dot-dot", b"..", NAME_DOTS),
            ("dot-slash", b"./", NAME_DOTS), ("dot-dot-slash", b"../", NAME_DOTS),
            ("parent", b"../escaped", NAME_SLASH), ("absolute", b"/escaped", NAME_SLASH),
            ("slash-inside", b"a/b", NAME_SLASH), ("two-slashes", b"a//", NAME_SLASH),
            ("only-two-slashes", b"//", NAME_SLASH), ("nul", b"a\0b", NAME_NUL),
            ("nul-first", b"\0", NAME_NUL), ("dot-dot-nul", b"..\0", NAME_NUL)):
        yield f"name-{title}-file", file(name, ESCAPE), reason, 3, False
        nested = directory(name, file(b"escaped", ESCAPE))
        yield f"name-{title}-directory", directory(b"", nested), reason, 10, False
        yield f"name-{title}-in-lzma", root(README, nested), reason, after_readme + 3, True

    # The LZMA sub-header and its stream.
    yield "lzma-size-8", header(b"", 8, LZMA) + bytes(8), SUB_HEADER, 3, False
    yield "lzma-size-0", header(b"", 0, LZMA, True), SUB_HEADER, 3, False
    yield "lzma-no-stream", header(b"", 9, LZMA) + bytes(4) + properties(), STREAM, 16, False
    yield ("lzma-stream-of-4", header(b"", 13, LZMA) + bytes(4) + properties() + bytes(4),
           STREAM, 16, False)
    yield "lzma-size-too-large", root(README, size_change=1), SIZE, 3, False
    yield "lzma-size-greatest", header(b"", 0xFFFFFFFF, LZMA, True) + bytes(20), SIZE, 3, False
    for missing in (1, 8, 9):
        yield (f"lzma-size-too-small-by-{missing}", root(README, size_change=-missing),
               STREAM_LENGTH, 3, False)
    yield "lzma-size-too-small-by-10", root(README, size_change=-10), STREAM, 16, False
    yield "lzma-claim-greatest", root(README, claim=0xFFFFFFFF), CLAIM, 7, False
    yield "lzma-claim-too-large-by-1", root(README, claim=len(README) + 1), STREAM, 16, False
    yield ("lzma-properties-225", root(README, property_bytes=b"\xe1" + bytes(4)),
           PROPERTIES, 11, False)
    yield ("lzma-properties-255", root(README, property_bytes=b"\xff" * 5), PROPERTIES, 11, False)
    yield ("lzma-first-byte-not-0", root(README, spoil=lambda stream: b"\1" + stream[1:]),
           STREAM, 16, False)
    yield ("lzma-distance-too-large",
           root(bytes(100), spoil=lambda stream: stream[:1] + b"\xff" * (len(stream) - 1)),
           STREAM, 16, False)
    yield ("lzma-claims-less-than-its-tree", root(README, README, claim=len(README) + 3),
           HEADER_CUT, after_readme, True)
    yield "lzma-tree-cut", root(README[:-1]), SIZE, 9, True

    # LZMA within LZMA: offsets count in the innermost content.
    inner = lzma_entry(b"inner", header(b"a", 1), True)
    yield "inner-tree-cut", root(README, inner), SIZE, 4, True
    inner = lzma_entry(b"inner", README, True, claim=0xFFFFFFFF)
    yield "inner-claim-greatest", root(README, inner), CLAIM, after_readme + 12, True
    inner = lzma_entry(b"inner", README, True, property_bytes=b"\xe1" + bytes(4))
    yield "inner-properties-225", root(README, inner), PROPERTIES, after_readme + 16, True

    # Bombs: little data, much work.
    yield "bomb-of-bombs", bomb(), COST, None, True
    yield ("bomb-of-probability-tables",
           lzma_entry(b"", GREATEST_TABLE * 20000, True, period=len(GREATEST_TABLE)),
           COST, None, True)
    # The budget is 4 GiB and 8192 times the length: 702 tables, but not 703.
    yield ("bomb-of-outer-probability-tables", GREATEST_TABLE * 720, COST,
           len(GREATEST_TABLE) * 702 + 7, False)


def files():
    made = dict(BASES)
    expected = ["# File, offset (a star: any), content that it counts in, reason."]
    for title, blob, reason, offset, in_decoded in cases():
        made[title + ".blob"] = blob
        where = "*" if offset is None else offset
        expected.append(f"{title}.blob\t{where}\t{'decoded' if in_decoded else 'blob'}\t{reason}")
    made["expected.txt"] = ("\n".join(expected) + "\n").encode()
    return made


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--check", action="store_true", help="compare instead of writing")
    check = parser.parse_args().check

    made = files()
    present = {path.name for path in FOLDER.iterdir() if path.suffix in (".blob", ".txt")}
    differing = sorted(present - made.keys())
    for name, content in made.items():
        path = FOLDER / name
        if check:
            if name not in present or path.read_bytes() != content:
                differing.append(name)
        else:
            path.write_bytes(content)
    if not check:
        return 0
    for name in differing:
        print(f"{name} is not what {pathlib.Path(__file__).name} makes", file=sys.stderr)
    return 1 if differing else 0


if __name__ == "__main__":
    sys.exit(main())
