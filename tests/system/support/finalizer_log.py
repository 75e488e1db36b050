"""The lines that the finalizer writes into its log, without the time stamps."""

from install_root import BLOB, BUNDLE

STARTED = "[I] FIN: [finalizer started]"
FAILED = "[E] FIN: [finalizer failed to decompress plugin]"
READING_VERSION = "[I] FIN: Reading previous version file"
DISABLING_ANALYTICS = "[I] FIN: Disabling Analytics in rks.cfg"
SUCCEEDED = "[I] FIN: [finalizer succeeded]"
TOO_LARGE_BLOB = ("[E] FIN: ERROR: The payload blob is malformed: too large for a blob: 4 GiB or more "
                  "at byte 4294967295.")
UNLOCKED_BLOB = "[E] FIN: ERROR: The payload blob cannot be locked: No locks available."
HELD_BLOB = "[E] FIN: ERROR: The payload blob cannot be locked: another process holds it."
MALFORMED = r"\[E\] FIN: ERROR: The payload blob is malformed: .+ at byte \d+\."


def paths(root=""):
    """The two lines that name the bundle and the blob below `root`, which has no last "/"."""
    return [f"[I] FIN: Compression Output Path: '{root}{BUNDLE}'.",
            f"[I] FIN: Compression Input Path: '{root}{BLOB}'."]


def unreadable_blob(reason):
    """The line about a blob that cannot be read to its end."""
    return f"[E] FIN: ERROR: The payload blob cannot be read: {reason}."


UNREADABLE_BLOB = unreadable_blob("Input/output error")
NO_MEMORY_FOR_BLOB = unreadable_blob("Cannot allocate memory")


def not_removed(count, reason):
    """The line about items of the old bundle that stay."""
    return f"[E] FIN: ERROR: {count} of the old bundle's items could not be removed: {reason}."


def not_written(path, failed, entries, reason):
    """The two lines about entries that could not be written, the first of them at `path`."""
    return [f"[E] FIN: Error writing file: '{path}'.",
            f"[E] FIN: ERROR: {failed} of {entries} entries of the payload could not be written: "
            f"{reason}."]


def success(root="", *stages):
    """The log of a run that found its blob; `stages` are the later stages' lines."""
    return [STARTED, *paths(root), *stages, SUCCEEDED]


def missing_blob(root=""):
    """The log of a run that found no blob."""
    return [STARTED, *paths(root), f"[E] FIN: Input path not found: '{root}{BLOB}'.", FAILED]
