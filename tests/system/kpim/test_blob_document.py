"""The example of docs/blob-format.md: its commands pack the blob that it shows."""

import os
import re
import subprocess

import blob
from install_root import REPOSITORY

DOCUMENT = REPOSITORY / "docs/blob-format.md"
DUMP_COMMAND = "xxd small.blob\n"


def blocks(language):
    """The contents of the document's code blocks in `language`."""
    return re.findall(rf"^```{language}\n(.*?)^```$", DOCUMENT.read_text(), re.MULTILINE | re.DOTALL)


def bytes_of(dump):
    """The bytes of a hex dump: an offset, up to 16 bytes in pairs, two blanks, the text."""
    return b"".join(bytes.fromhex(line[10:50]) for line in dump.splitlines())


def test_commands_pack_the_blob_that_is_shown(kpim, tmp_path):
    (commands,) = blocks("sh")
    packed, content = map(bytes_of, blocks("text"))
    assert commands.endswith(DUMP_COMMAND)
    environment = {**os.environ, "PATH": f"{kpim.parent}:{os.environ['PATH']}"}
    subprocess.run(["bash", "-e", "-c", commands.removesuffix(DUMP_COMMAND)], cwd=tmp_path,
                   env=environment, check=True, stdin=subprocess.DEVNULL,
                   stdout=subprocess.DEVNULL, timeout=300)
    assert (tmp_path / "small.blob").read_bytes() == packed
    (root,) = blob.decode(packed)
    assert root.content == blob.decode(content)
    assert blob.files_of([root]) == {
        "Contents": None, "Contents/Resources": None,
        **{f"Contents/{name}": (tmp_path / "Small.plugin/Contents" / name).read_bytes()
           for name in ("Info.plist", "PkgInfo")}}
