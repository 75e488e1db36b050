"""The finalizer's extraction: from a blob below the install root to a bundle beside it."""

import random
import re

import pytest

import blob
import finalizer_log
from install_root import BLOB, BUNDLE, Node, VOLUME, tree_of

OLD_FILES = {"Contents/Info.plist": b"old", "Contents/Frameworks/Old.framework/Old": b"old"}


@pytest.fixture
def old_bundle(install_root):
    """An installed bundle that shares one file with the new one."""
    for name, content in OLD_FILES.items():
        install_root.write(f"{BUNDLE}/{name}", content)
    return install_root.path(BUNDLE)


def as_installed(folder):
    """The tree of `folder` with the modes that an installed bundle has."""
    modes = {"directory": 0o775, "file": 0o664}
    return {name: Node(node.kind, modes[node.kind], node.content)
            for name, node in tree_of(folder).items()}


@pytest.mark.parametrize("compress", [False, True])
def test_installed_bundle(install_root, finalizer_run, bundle, installed, compress):
    install_root.lay_blob(blob.pack(bundle, compress))
    finalizer_run(["/"], check_leaks=True)
    assert install_root.log("alice") == finalizer_log.success()
    assert install_root.tree(BUNDLE) == installed


@pytest.mark.parametrize("umask", [0o000, 0o022, 0o077, 0o777])
def test_umask_does_not_matter(install_root, finalizer_run, bundle_blob, installed, umask):
    install_root.lay_blob(bundle_blob)
    # The log comes first: under umask 0777 another user could not write a fresh one.
    install_root.log_path("alice").touch()
    finalizer_run(["/"], umask=umask)
    tree = install_root.tree(BUNDLE)
    assert tree == installed
    assert {node.mode for node in tree.values() if node.kind == "directory"} == {0o775}
    assert {node.mode for node in tree.values() if node.kind == "file"} == {0o664}


def test_old_bundle_is_replaced_whole(install_root, finalizer_run, old_bundle, bundle_blob,
                                      installed):
    assert old_bundle.exists()
    install_root.lay_blob(bundle_blob)
    finalizer_run(["/"])
    assert install_root.tree(BUNDLE) == installed


def test_neighbours_of_the_bundle_stay(install_root, finalizer_run, bundle_blob):
    neighbour = install_root.write("/Library/Internet Plug-Ins/PepperKorvelPlayer/manifest.json",
                                   "{}")
    install_root.lay_blob(bundle_blob)
    finalizer_run(["/"])
    assert neighbour.read_text() == "{}"
    assert {path.name for path in neighbour.parent.iterdir()} == {
        "manifest.json", "PepperKorvelPlayer.plugin"}


def test_second_blob_replaces_the_first(install_root, finalizer_run, bundle_blob):
    install_root.lay_blob(bundle_blob)
    finalizer_run(["/"])
    install_root.lay_blob(blob.solid_root([blob.stored_file("only", b"this")]))
    finalizer_run(["/"])
    assert install_root.tree(BUNDLE) == {
        ".": Node("directory", 0o775), "only": Node("file", 0o664, b"this")}


def test_missing_blob_touches_nothing(install_root, finalizer_run, old_bundle):
    before = install_root.tree("/Library")
    finalizer_run(["/"], status=1, check_leaks=True)
    assert install_root.log("alice") == finalizer_log.missing_blob()
    assert old_bundle.exists()
    assert install_root.tree("/Library") == before


def test_missing_blob_ends_the_run(install_root, finalizer_run):
    install_root.write("/Library/Application Support/Velmora/previous_version.txt", "32.0.0.1")
    finalizer_run(["/", "-disableAnalytics"], status=1)
    assert install_root.log("alice") == finalizer_log.missing_blob()
    assert not install_root.path("/Library/Application Support/Velmora/rks.cfg").exists()


def test_missing_install_root(install_root, finalizer_run):
    finalizer_run(["/Volumes/Missing"], status=1)
    assert install_root.log("alice") == finalizer_log.missing_blob("/Volumes/Missing")
    assert not install_root.path("/Volumes/Missing").exists()


def test_blob_that_is_a_dangling_link_is_missing(install_root, finalizer_run, old_bundle):
    install_root.path(BLOB).symlink_to("/nowhere")
    finalizer_run(["/"], status=1)
    assert install_root.log("alice") == finalizer_log.missing_blob()
    assert old_bundle.exists()


def test_blob_may_be_a_link(install_root, finalizer_run, bundle_blob, installed):
    install_root.write("/downloaded", bundle_blob)
    install_root.path(BLOB).symlink_to("/downloaded")
    finalizer_run(["/"])
    assert install_root.tree(BUNDLE) == installed
    assert not install_root.path(BLOB).is_symlink()
    assert install_root.path("/downloaded").exists()


def test_link_in_place_of_the_old_bundle_is_not_followed(install_root, finalizer_run, bundle_blob,
                                                         installed):
    elsewhere = install_root.write("/elsewhere/kept", "kept")
    install_root.path(BUNDLE).symlink_to("/elsewhere")
    install_root.lay_blob(bundle_blob)
    finalizer_run(["/"])
    assert install_root.tree("/elsewhere") == {
        ".": Node("directory", 0o755), "kept": Node("file", 0o644, b"kept")}
    assert elsewhere.read_text() == "kept"
    assert not install_root.path(BUNDLE).is_symlink()
    assert install_root.tree(BUNDLE) == installed


def test_dangling_link_in_place_of_the_old_bundle(install_root, finalizer_run, bundle_blob,
                                                  installed):
    install_root.path(BUNDLE).symlink_to("/elsewhere")
    install_root.lay_blob(bundle_blob)
    finalizer_run(["/"])
    assert not install_root.path("/elsewhere").exists()
    assert not install_root.path(BUNDLE).is_symlink()
    assert install_root.tree(BUNDLE) == installed


def test_link_inside_the_old_bundle_is_not_followed(install_root, finalizer_run, old_bundle,
                                                    bundle_blob, installed):
    elsewhere = install_root.write("/elsewhere/kept", "kept")
    (old_bundle / "Contents/link").symlink_to("/elsewhere")
    install_root.lay_blob(bundle_blob)
    finalizer_run(["/"])
    assert elsewhere.read_text() == "kept"
    assert install_root.tree(BUNDLE) == installed


def test_file_in_place_of_the_old_bundle(install_root, finalizer_run, bundle_blob, installed):
    install_root.write(BUNDLE, "a file")
    install_root.lay_blob(bundle_blob)
    finalizer_run(["/"])
    assert install_root.tree(BUNDLE) == installed


def test_old_bundle_that_goes_in_part_only(install_root, finalizer_run, old_bundle, bundle_blob,
                                           installed):
    (old_bundle / "Contents").chmod(0o700)
    kept = "Contents/Frameworks/Old.framework/Old"
    install_root.pin(f"{BUNDLE}/{kept}")
    install_root.lay_blob(bundle_blob)
    finalizer_run(["/"], check_leaks=True)
    assert install_root.log("alice") == finalizer_log.success(
        "", finalizer_log.not_removed(1, "Device or resource busy"))
    tree = install_root.tree(BUNDLE)
    assert tree.pop(kept) == Node("file", 0o644, OLD_FILES[kept])
    # The folder that holds the file has stayed, and keeps its mode.
    assert tree["Contents"].mode == 0o700
    for name in (".", "Contents", "Contents/Frameworks", "Contents/Frameworks/Old.framework"):
        assert tree.pop(name).kind == "directory"
    assert tree == {name: node for name, node in installed.items() if name not in (".", "Contents")}
    assert not install_root.path(BLOB).exists()


def test_blob_that_cannot_be_removed(install_root, finalizer_run, old_bundle, bundle_blob,
                                     installed):
    assert old_bundle.exists()
    install_root.lay_blob(bundle_blob)
    install_root.pin(BLOB)
    finalizer_run(["/"])
    assert install_root.log("alice") == finalizer_log.success()
    assert install_root.tree(BUNDLE) == installed
    assert install_root.path(BLOB).read_bytes() == bundle_blob


def test_directory_in_place_of_the_blob(install_root, finalizer_run, old_bundle, bundle_blob):
    assert old_bundle.exists()
    install_root.write(f"{BLOB}/Contents/payload.lzma", bundle_blob)
    finalizer_run(["/"])
    assert install_root.log("alice") == finalizer_log.success()
    assert_nothing_but_the_folder_left(install_root)


@pytest.mark.parametrize(("entry", "count"), [
    (blob.stored_file("name", b"lost"), 1),
    (blob.stored_directory("name", [blob.stored_file("f", b"")]), 2)])
def test_top_entry_with_a_name(install_root, finalizer_run, old_bundle, entry, count):
    # The entry belongs in the bundle's folder, which only a nameless entry makes.
    assert old_bundle.exists()
    install_root.lay_blob(entry)
    finalizer_run(["/"])
    assert install_root.log("alice") == finalizer_log.success("", *finalizer_log.not_written(
        f"{BUNDLE}/name", count, count, "No such file or directory"))
    assert_nothing_but_the_folder_left(install_root)


def test_top_entry_with_a_name_after_the_root(install_root, finalizer_run, bundle, installed):
    install_root.lay_blob(blob.pack(bundle) + blob.stored_file("name", b"beside"))
    finalizer_run(["/"])
    assert install_root.log("alice") == finalizer_log.success()
    assert install_root.tree(BUNDLE) == {**installed, "name": Node("file", 0o664, b"beside")}


@pytest.mark.parametrize("root", ["/Volumes/a\\b", "/Volumes/a\\", "/Volumes/\\\\a", "/Volumes/C:"])
def test_volume_with_a_backslash_or_a_colon(install_root, finalizer_run, bundle_blob, installed,
                                            root):
    install_root.lay_blob(bundle_blob, root)
    finalizer_run([root])
    assert install_root.log("alice") == finalizer_log.success(root)
    assert install_root.tree(root + BUNDLE) == installed
    assert not install_root.path(root + BLOB).exists()
    assert {path.name for path in install_root.path("/Volumes").iterdir()} == {
        "Target", root.removeprefix("/Volumes/")}


def assert_nothing_but_the_folder_left(install_root):
    plug_ins = install_root.path("/Library/Internet Plug-Ins")
    assert sorted(path.name for path in plug_ins.rglob("*")) == ["PepperKorvelPlayer"]


def test_empty_blob(install_root, finalizer_run, old_bundle):
    assert old_bundle.exists()
    install_root.lay_blob(b"")
    finalizer_run(["/"])
    assert install_root.log("alice") == finalizer_log.success()
    assert_nothing_but_the_folder_left(install_root)


@pytest.mark.parametrize("compress", [False, True])
def test_blob_of_an_empty_bundle(install_root, finalizer_run, compress):
    install_root.lay_blob(blob.solid_root([], compress))
    finalizer_run(["/"])
    assert install_root.log("alice") == finalizer_log.success()
    assert install_root.tree(BUNDLE) == {".": Node("directory", 0o775)}


def test_unreadable_blob(install_root, finalizer_run, bundle_blob):
    # Root can read everything: the one that cannot is a user who owns the volume.
    install_root.set_console("bob")
    install_root.write(f"{VOLUME}{BUNDLE}/old", "old")
    install_root.lay_blob(bundle_blob, VOLUME).chmod(0)
    give_to_bob(install_root, VOLUME, but=BLOB)
    finalizer_run([VOLUME], user="bob", env={"HOME": "/Users/bob"})
    assert install_root.log("bob") == finalizer_log.success(VOLUME)
    assert list(install_root.path(VOLUME + BUNDLE).parent.iterdir()) == []


def test_user_who_may_write_the_volume(install_root, finalizer_run, bundle_blob, installed):
    install_root.set_console("bob")
    install_root.lay_blob(bundle_blob, VOLUME)
    give_to_bob(install_root, VOLUME)
    finalizer_run([VOLUME], user="bob", env={"HOME": "/Users/bob"})
    assert install_root.log("bob") == finalizer_log.success(VOLUME)
    assert install_root.tree(VOLUME + BUNDLE) == installed
    assert not install_root.path(VOLUME + BLOB).exists()


def test_user_who_may_not_write_the_volume(install_root, finalizer_run, old_bundle, bundle_blob):
    install_root.set_console("bob")
    install_root.lay_blob(bundle_blob)
    before = install_root.tree("/Library")
    finalizer_run(["/"], user="bob", env={"HOME": "/Users/bob"})
    denied = "Permission denied"
    assert install_root.log("bob") == finalizer_log.success(
        "", finalizer_log.not_removed(2, denied),
        *finalizer_log.not_written(f"{BUNDLE}/Contents/Empty folder", 11, 13, denied))
    assert old_bundle.exists()
    assert install_root.tree("/Library") == before


def give_to_bob(install_root, folder, but=None):
    """Makes bob the owner of a folder and its contents, except of the item at `but` in it."""
    script = 'chown -R bob "$1"; test -z "$2" || chown root "$1$2"'
    assert install_root.execute(["sh", "-c", script, "sh", folder, but or ""]).status == 0


STORED = blob.solid_root([blob.stored_file("a", b"a" * 100)], compress=False)
COMPRESSED = blob.solid_root([blob.stored_file("a", b"a" * 100)])


@pytest.mark.parametrize("malformed", [
    pytest.param(b"\x01" + STORED[1:], id="version 1"),
    pytest.param(b"\x02", id="a version and no more"),
    pytest.param(STORED[:-1], id="cut off by one byte"),
    pytest.param(STORED + b"\x02", id="one byte too many"),
    pytest.param(COMPRESSED[:12], id="cut off in the properties"),
    pytest.param(COMPRESSED[:7] + b"\xff" * 4 + COMPRESSED[11:], id="wrong length"),
    pytest.param(COMPRESSED[:11] + b"\xff" + COMPRESSED[12:], id="invalid properties"),
    pytest.param(COMPRESSED[:16] + b"\xff" * (len(COMPRESSED) - 16), id="invalid stream"),
    pytest.param(b"\x02\x02" + STORED[2:], id="unknown compression"),
    pytest.param(blob.solid_root([blob.stored_file("..", b"")]), id="parent folder"),
    pytest.param(blob.solid_root([blob.stored_directory("..", [])]), id="parent as folder"),
    pytest.param(blob.solid_root([blob.stored_file(".", b"")]), id="same folder"),
    pytest.param(blob.solid_root([blob.stored_file("../evil", b"")]), id="path upwards"),
    pytest.param(blob.solid_root([blob.stored_file("/evil", b"")]), id="absolute path"),
    pytest.param(blob.solid_root([blob.stored_file("a/b", b"")]), id="path downwards"),
    pytest.param(blob.solid_root([blob.stored_file("a\0b", b"")]), id="NUL in a name"),
    pytest.param(b"<html>404</html>", id="not a blob"),
    pytest.param(random.Random(1).randbytes(4096), id="noise"),
])
def test_malformed_blob_writes_nothing(install_root, finalizer_run, old_bundle, malformed):
    assert old_bundle.exists()
    install_root.lay_blob(malformed)
    finalizer_run(["/"])
    started, *paths, fault, succeeded = install_root.log("alice")
    assert [started, *paths, succeeded] == finalizer_log.success()
    assert re.fullmatch(finalizer_log.MALFORMED, fault)
    assert_nothing_but_the_folder_left(install_root)
    assert not list(install_root.folder.rglob("evil"))


def test_fault_after_good_entries_writes_nothing(install_root, finalizer_run):
    good = [blob.stored_file(f"file {number}", b"good") for number in range(20)]
    install_root.lay_blob(blob.solid_root(good + [b"\x03"]))
    finalizer_run(["/"], check_leaks=True)
    assert re.fullmatch(finalizer_log.MALFORMED, install_root.log("alice")[3])
    assert_nothing_but_the_folder_left(install_root)


def nested(depth, name="d"):
    """A blob of nested directories, with a file in the last one and one at the top."""
    entry = blob.stored_file("deep", b"deep")
    for _ in range(depth):
        entry = blob.stored_directory(name, [entry])
    return blob.solid_root([entry, blob.stored_file("top", b"top")])


def test_deep_tree(install_root, finalizer_run):
    # The path is far longer than 256 bytes; the root itself is the first of 512 levels.
    install_root.lay_blob(nested(500))
    finalizer_run(["/"])
    assert install_root.log("alice") == finalizer_log.success()
    deep = install_root.path(BUNDLE) / "/".join(["d"] * 500) / "deep"
    assert deep.read_bytes() == b"deep"


def test_tree_that_is_too_deep(install_root, finalizer_run):
    install_root.lay_blob(nested(513))
    finalizer_run(["/"])
    assert re.fullmatch(finalizer_log.MALFORMED, install_root.log("alice")[3])
    assert_nothing_but_the_folder_left(install_root)


def test_paths_longer_than_the_system_takes(install_root, finalizer_run):
    # 30 names of 250 bytes are more than a path may have (PATH_MAX, 4096).
    install_root.lay_blob(nested(30, "n" * 250))
    finalizer_run(["/"])
    assert install_root.log("alice") == finalizer_log.success()
    tree = install_root.tree(BUNDLE)
    assert tree["top"].content == b"top"
    assert tree["/".join(["n" * 250] * 30) + "/deep"] == Node("file", 0o664, b"deep")


def test_modes_are_not_taken_from_the_source(install_root, finalizer_run, bundle):
    (bundle / "Contents/MacOS/PepperKorvelPlayer").chmod(0o755)
    (bundle / "Contents").chmod(0o700)
    install_root.lay_blob(blob.pack(bundle))
    finalizer_run(["/"])
    assert install_root.tree(BUNDLE) == as_installed(bundle)


def test_large_bundle_comes_back(install_root, finalizer_run, large_bundle):
    install_root.lay_blob(blob.pack(large_bundle))
    finalizer_run(["/"])
    assert install_root.tree(BUNDLE) == as_installed(large_bundle)
