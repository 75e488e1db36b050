"""From a bundle through kpim's blob to the installed bundle."""

import subprocess

import pytest

import blob
from install_root import BUNDLE, Node, tree_of


@pytest.mark.parametrize("options", [[], ["--no-sort"], ["--threads", "2"]])
def test_every_byte_comes_back(install_root, finalizer_run, kpim, large_bundle, options):
    packed = install_root.folder.parent / "packed"
    subprocess.run([kpim, "pack", large_bundle, "-o", packed, *options], check=True,
                   stdout=subprocess.DEVNULL)
    source = tree_of(large_bundle)
    (root,) = blob.decode(packed.read_bytes())
    assert (root.name, root.is_directory, root.compression) == (b"", True, blob.LZMA)
    assert blob.files_of([root]) == {
        name: node.content for name, node in source.items() if name != "."}

    install_root.lay_blob(packed)
    finalizer_run(["/"])
    modes = {"directory": 0o775, "file": 0o664}
    assert install_root.tree(BUNDLE) == {
        name: Node(node.kind, modes[node.kind], node.content) for name, node in source.items()}
