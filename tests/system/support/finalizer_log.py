"""What the finalizer writes into its log, line by line, without the time stamps."""

from install_root import BLOB, BUNDLE

STARTED = "[I] FIN: [finalizer started]"
FAILED = "[E] FIN: [finalizer failed to decompress plugin]"
READING_VERSION = "[I] FIN: Reading previous version file"
DISABLING_ANALYTICS = "[I] FIN: Disabling Analytics in rks.cfg"
SUCCEEDED = "[I] FIN: [finalizer succeeded]"
UNREADABLE_BLOB = "[E] FIN: ERROR: The payload blob cannot be read: Input/output error."
MALFORMED = r"\[E\] FIN: ERROR: The payload blob is malformed: .+ at byte \d+\."


def paths(root=""):
    """The two lines that name the bundle and the blob below `root`, which has no last "/"."""
    return [f"[I] FIN: Compression Output Path: '{root}{BUNDLE}'.",
            f"[I] FIN: Compression Input Path: '{root}{BLOB}'."]


def success(root="", *stages):
    """The log of a run that found its blob; `stages` are the later stages' lines."""
    return [STARTED, *paths(root), *stages, SUCCEEDED]


def missing_blob(root=""):
    """The log of a run that found no blob."""
    return [STARTED, *paths(root), f"[E] FIN: Input path not found: '{root}{BLOB}'.", FAILED]
