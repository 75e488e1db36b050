"""Fixtures of kpim's tests."""

import os

import pytest

import blob
from kpim_program import Kpim


@pytest.fixture
def run(kpim, tmp_path):
    return Kpim(kpim, tmp_path)


@pytest.fixture
def noise(tmp_path):
    """A bundle that takes about a second to compress."""
    folder = tmp_path / "Noise.plugin"
    folder.mkdir()
    (folder / "noise").write_bytes(os.urandom(2 << 20))
    return folder


@pytest.fixture
def small_blob(tmp_path):
    """A blob file called small."""
    path = tmp_path / "small"
    path.write_bytes(blob.solid_root([blob.stored_file("a", b"12345")]))
    return path
