"""From a bundle through kpim's blob to the installed bundle."""

import random
import subprocess

import pytest

import blob
from install_root import BUNDLE, Node, tree_of


@pytest.fixture
def large_bundle(tmp_path):
    """Some hundred files of all sizes up to 60 kB, in nested folders."""
    numbers = random.Random(20161117)
    folder = tmp_path / "PepperKorvelPlayer.plugin"
    for number in range(400):
        depth = numbers.randrange(5)
        path = folder.joinpath(*(f"folder {numbers.randrange(4)}" for _ in range(depth)),
                               f"file {number} é")
        path.parent.mkdir(parents=True, exist_ok=True)
        size = int(60000 ** numbers.random())
        path.write_bytes(numbers.randbytes(size // 2) + b"text " * (size // 10))
    return folder


@pytest.mark.parametrize("options", [[], ["--sort"]])
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
