#!/usr/bin/python3
"""Checks the load commands of a linked macOS program, and prints one line for each of its slices.

    scripts/macos_file.py [--commands] --version VERSION --slice ARCHITECTURE:MINIMUM... FILE

FILE is an executable for one architecture or a universal one. It must hold exactly the slices that
are listed, each an executable that asks for its minimum release, was linked with an SDK of macOS 11
or later, carries an information dictionary with the version, and has room for the load command that
a signature adds. A slice for Apple's processors must be signed, at least ad hoc. --commands prints
the load commands too.
"""

import argparse
import plistlib
import struct
import sys
from xml.parsers.expat import ExpatError

FAT_MAGIC, FAT_MAGIC_64 = 0xCAFEBABE, 0xCAFEBABF
MACHO_64 = 0xFEEDFACF
ARCHITECTURES = {0x01000007: "x86_64", 0x0100000C: "arm64"}
EXECUTE = 2
HEADER_SIZE = 32
NEEDS_SIGNATURE = {"arm64"}

# Notarization asks for 10.9. A program linked with an SDK before 11 reads 10.16 as the version of
# macOS 11 and later, and the pingback would report that.
OLDEST_SDK = (11, 0)
# Size of LC_CODE_SIGNATURE.
SIGNATURE_COMMAND = 16

SEGMENT, UNIXTHREAD, UUID, SIGNATURE, MAIN = 0x19, 0x5, 0x1B, 0x1D, 0x80000028
VERSION_MIN, BUILD_VERSION = 0x24, 0x32
COMMANDS = {
    0x2: "LC_SYMTAB", UNIXTHREAD: "LC_UNIXTHREAD", 0xB: "LC_DYSYMTAB", 0xC: "LC_LOAD_DYLIB",
    0xE: "LC_LOAD_DYLINKER", SEGMENT: "LC_SEGMENT_64", UUID: "LC_UUID",
    SIGNATURE: "LC_CODE_SIGNATURE", 0x22: "LC_DYLD_INFO", VERSION_MIN: "LC_VERSION_MIN_MACOSX",
    0x26: "LC_FUNCTION_STARTS", 0x29: "LC_DATA_IN_CODE", 0x2A: "LC_SOURCE_VERSION",
    BUILD_VERSION: "LC_BUILD_VERSION", 0x80000018: "LC_LOAD_WEAK_DYLIB",
    0x80000022: "LC_DYLD_INFO_ONLY", MAIN: "LC_MAIN", 0x80000033: "LC_DYLD_EXPORTS_TRIE",
    0x80000034: "LC_DYLD_CHAINED_FIXUPS",
}
STARTS = {UNIXTHREAD: "LC_UNIXTHREAD (any macOS)", MAIN: "LC_MAIN (macOS 10.8 and later)"}


class Malformed(Exception):
    """The file is malformed."""


def unpack(layout, data, offset):
    """The fields at `offset`, which must lie in `data`."""
    if offset < 0 or offset + struct.calcsize(layout) > len(data):
        raise Malformed("the file ends within a structure")
    return struct.unpack_from(layout, data, offset)


def part(data, offset, size):
    if offset + size > len(data):
        raise Malformed("the file ends within a part")
    return data[offset:offset + size]


def release(number):
    """(10, 6) for 10.6.0 as load commands pack it."""
    return number >> 16, number >> 8 & 0xFF


def dotted(numbers):
    return ".".join(map(str, numbers))


def text(field):
    return field.split(b"\0", 1)[0].decode("ascii", "replace")


class Slice:
    """One architecture's executable."""

    def __init__(self, data):
        magic, cpu, _, kind, count, self.commands_size = unpack("<6I", data, 0)
        if magic != MACHO_64 or kind != EXECUTE:
            raise Malformed("not a 64-bit executable")
        self.data = data
        self.architecture = ARCHITECTURES.get(cpu, hex(cpu))
        self.commands = []
        self.minimum = self.sdk = self.start = self.info = None
        self.first_section = len(data)
        offset = HEADER_SIZE
        for _ in range(count):
            command, size = unpack("<2I", data, offset)
            if size < 8 or offset + size > HEADER_SIZE + self.commands_size:
                raise Malformed("a load command has a wrong size")
            self._read(command, offset)
            offset += size

    def _read(self, command, offset):
        detail = ""
        if command == SEGMENT:
            detail = self._read_segment(offset)
        elif command == VERSION_MIN:
            self.minimum, self.sdk = map(release, unpack("<2I", self.data, offset + 8))
        elif command == BUILD_VERSION:
            self.minimum, self.sdk = map(release, unpack("<2I", self.data, offset + 12))
        elif command in STARTS:
            self.start = command
        elif command in (0xC, 0x80000018):
            name, = unpack("<I", self.data, offset + 8)
            detail = text(part(self.data, offset + name, 256))
        self.commands.append((command, detail))

    def _read_segment(self, offset):
        name = text(unpack("<16s", self.data, offset + 8)[0])
        sections, = unpack("<I", self.data, offset + 64)
        for index in range(sections):
            section, _, _, size, where = unpack("<16s16s2QI", self.data, offset + 72 + 80 * index)
            if where and size:
                self.first_section = min(self.first_section, where)
            if text(section) == "__info_plist":
                self.info = part(self.data, where, size)
        return name

    def room(self):
        """Bytes between the load commands and the first section."""
        return self.first_section - HEADER_SIZE - self.commands_size

    def is_signed(self):
        return any(command == SIGNATURE for command, _ in self.commands)

    def version(self):
        """The bundle version of the information dictionary, or None."""
        try:
            return plistlib.loads(self.info or b"").get("CFBundleVersion")
        except (plistlib.InvalidFileException, ExpatError, ValueError, AttributeError):
            return None

    def faults(self, minimum, version):
        if self.minimum != minimum:
            yield f"asks for macOS {dotted(self.minimum or ['?'])} instead of {dotted(minimum)}"
        if self.sdk is None or self.sdk < OLDEST_SDK:
            yield (f"was linked with an SDK of {dotted(self.sdk or ['?'])}: it must be "
                   f"{dotted(OLDEST_SDK)} or later (SDKSettings.json names it)")
        if self.start is None:
            yield "has no entry point"
        if self.version() != version:
            yield f"__TEXT,__info_plist does not carry the version {version}"
        if self.is_signed():
            return
        if self.architecture in NEEDS_SIGNATURE:
            yield "is not signed: Apple's processors run nothing without a signature"
        elif self.room() < SIGNATURE_COMMAND:
            yield f"has {self.room()} bytes of room for a signature's load command (-headerpad)"

    def line(self):
        return (f"{self.architecture}: {len(self.data)} bytes, {len(self.commands)} load commands "
                f"of {self.commands_size} bytes with room for {self.room()} more, "
                f"macOS {dotted(self.minimum)}, SDK {dotted(self.sdk)}, "
                f"starts by {STARTS[self.start]}, "
                f"{'signed' if self.is_signed() else 'not signed'}")


def slices(data):
    """The slices of the file, one when it is not universal."""
    magic, count = unpack(">2I", data, 0)
    if magic not in (FAT_MAGIC, FAT_MAGIC_64):
        return [Slice(data)]
    layout, record = (">2I2I", 20) if magic == FAT_MAGIC else (">2I2Q", 32)
    places = (unpack(layout, data, 8 + record * index)[2:] for index in range(min(count, 64)))
    return [Slice(part(data, *place)) for place in places]


def wanted(argument):
    """("x86_64", (10, 6)) for "x86_64:10.6"."""
    architecture, minimum = argument.split(":")
    major, minor = minimum.split(".")
    return architecture, (int(major), int(minor))


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", 1)[0])
    parser.add_argument("file")
    parser.add_argument("--version", required=True, help="the product's version")
    parser.add_argument("--slice", action="append", required=True, type=wanted,
                        metavar="ARCHITECTURE:MINIMUM", help="a slice that the file must have")
    parser.add_argument("--commands", action="store_true", help="print the load commands")
    arguments = parser.parse_args()

    try:
        with open(arguments.file, "rb") as file:
            found = slices(file.read())
    except Malformed as malformed:
        print(f"macos_file: {arguments.file}: {malformed}", file=sys.stderr)
        return 1
    except OSError as error:
        print(f"macos_file: {arguments.file}: {error.strerror}", file=sys.stderr)
        return 1
    minimums = dict(arguments.slice)
    faults = []
    architectures = sorted(one.architecture for one in found)
    if architectures != sorted(minimums):
        faults.append(f"holds {', '.join(architectures)} instead of {', '.join(sorted(minimums))}")
    for one in found:
        if one.architecture not in minimums:
            continue
        own = list(one.faults(minimums[one.architecture], arguments.version))
        faults += [f"{one.architecture} {fault}" for fault in own]
        if not own:
            print(f"  {one.line()}")
        if arguments.commands:
            for command, detail in one.commands:
                print(f"    {COMMANDS.get(command, hex(command))} {detail}".rstrip())
    for fault in faults:
        print(f"macos_file: {arguments.file}: {fault}", file=sys.stderr)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
