"""Fixtures of the system tests. docs/testing.md describes how to run them."""

import os
import pathlib
import random
import shutil
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).with_name("support")))

# Failures of the helpers' own assertions show their values too.
pytest.register_assert_rewrite("install_root")

# pylint: disable=wrong-import-position
import blob
import booted_root
import download_server as servers
import sanitizer
import vendor_config
from install_root import InstallRoot, Node, PROGRAMS, REPOSITORY


def pytest_addoption(parser):
    parser.addoption("--build", default=str(REPOSITORY / "build/release"), metavar="DIR",
                     help="build folder whose programs are tested (default: build/release)")


def pytest_configure(config):
    config.addinivalue_line("markers", "release_only(reason): is not run with the sanitizer build")
    try:
        vendor_config.set_tested(vendor_config.read(config.getoption("--build")))
    except OSError as error:
        raise pytest.UsageError(f"{error}: build first") from error


def pytest_collection_modifyitems(config, items):
    if sanitizer.is_in(config.getoption("--build")):
        left_out = [item for item in items if item.get_closest_marker("release_only")]
        config.hook.pytest_deselected(items=left_out)
        items[:] = [item for item in items if item not in left_out]


@pytest.fixture(scope="session")
def build(request):
    """The build folder under test."""
    return pathlib.Path(request.config.getoption("--build")).resolve()


def _program(build, name):
    path = build / "bin" / name
    assert os.access(path, os.X_OK), f"{path} is missing: build first"
    return path


@pytest.fixture(scope="session")
def finalizer(build):
    """The finalizer's path on the host."""
    return _program(build, "finalizer")


@pytest.fixture(scope="session")
def kpim(build):
    """kpim's path on the host. It needs no root of its own: subprocess.run([kpim, ...])."""
    return _program(build, "kpim")


@pytest.fixture
def install_root(build, tmp_path, tmp_path_factory):
    """A new InstallRoot with the user alice at the console."""
    if os.geteuid() != 0:
        pytest.skip("a root of its own needs root: it changes owners and user ids")
    folder = tmp_path / "root"
    yield InstallRoot(folder, build, shared=tmp_path_factory.getbasetemp())
    shutil.rmtree(folder)


@pytest.fixture(scope="session")
def booted(build, tmp_path_factory):
    """A system that is really booted, one for all tests."""
    if os.geteuid() != 0:
        pytest.skip("booting a system needs root")
    try:
        with booted_root.BootedRoot(build, tmp_path_factory.mktemp("booted") / "console") as system:
            yield system
    except booted_root.CannotBoot as reason:
        if os.environ.get("KP_BOOTED") == "required":
            raise
        pytest.skip(f"systemd-nspawn is not allowed here: {reason}")


@pytest.fixture(scope="session")
def server_certificates(tmp_path_factory):
    """A folder with the certificates that download_server knows by name."""
    return servers.make_certificates(tmp_path_factory.mktemp("certificates"),
                                     vendor_config.tested().download_host)


@pytest.fixture
def download_server(install_root, server_certificates):
    """The vendor's download server in `install_root`."""
    return servers.DownloadServer(install_root, server_certificates)


@pytest.fixture
def finalizer_run(install_root, finalizer):
    """Runs the finalizer in `install_root`: finalizer_run(arguments, status=0, ...) with the
    options of InstallRoot.execute(); `wrapper` is a command that runs it. Checks that it ends with
    `status` and writes nothing to its output."""
    assert finalizer

    def run(arguments, status=0, wrapper=(), **options):
        result = install_root.execute([*wrapper, f"{PROGRAMS}/finalizer", *map(str, arguments)],
                                      **options)
        assert (result.status, result.stdout, result.stderr) == (status, "", "")

    return run


@pytest.fixture
def bundle(tmp_path):
    """A small bundle on the host: nested and empty folders, an empty file, awkward names."""
    folder = tmp_path / "PepperKorvelPlayer.plugin"
    for name, content in SMALL_BUNDLE.items():
        path = folder / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content)
    (folder / "Contents/Empty folder").mkdir()
    return folder


@pytest.fixture
def bundle_blob(bundle):
    """The blob of `bundle`, compressed."""
    return blob.pack(bundle, compress=True)


@pytest.fixture
def installed():
    """The tree of `bundle` once it is installed."""
    tree = {".": Node("directory", 0o775), "Contents/Empty folder": Node("directory", 0o775)}
    for name, content in SMALL_BUNDLE.items():
        tree[name] = Node("file", 0o664, content)
        for parent in pathlib.PurePath(name).parents:
            tree[str(parent)] = Node("directory", 0o775)
    return tree


SMALL_BUNDLE = {
    "Contents/Info.plist": b"<plist><dict/></plist>\n" * 20,
    "Contents/MacOS/PepperKorvelPlayer": bytes(range(256)) * 16,
    "Contents/Resources/de.lproj/Über uns.strings": "Grüße".encode("utf-16"),
    "Contents/Resources/.hidden": b"shown to nobody",
    "Contents/Resources/empty": b"",
    "Contents/Resources/" + "n" * 255: b"the longest name",
    "PkgInfo": b"BRPL????",
}


@pytest.fixture
def large_bundle(tmp_path):
    """Some hundred files of all sizes up to 60 kB, in nested folders."""
    numbers = random.Random(20161116)
    folder = tmp_path / "Large.plugin"
    for number in range(400):
        depth = numbers.randrange(5)
        path = folder.joinpath(*(f"folder {numbers.randrange(4)}" for _ in range(depth)),
                               f"file {number} é")
        path.parent.mkdir(parents=True, exist_ok=True)
        size = int(60000 ** numbers.random())
        path.write_bytes(numbers.randbytes(size // 2) + b"text " * (size // 10))
    return folder
