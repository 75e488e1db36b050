"""The file that names the previously installed version."""

import pytest

import finalizer_log
from install_root import PREVIOUS_VERSION, VOLUME

READ = [finalizer_log.READING_VERSION]


@pytest.mark.parametrize("content", [
    b"32.0.0.255", b"32.0.0.255\n", b" \t\r\n", b"", b"\xff\xfe not UTF-8", pytest.param(b"x" * 100000, id="long"),
    "32.0.0.255 \u2028".encode()])
def test_any_file_is_read(install_root, finalizer_run, bundle_blob, content):
    path = install_root.write(PREVIOUS_VERSION, content)
    install_root.lay_blob(bundle_blob)
    finalizer_run(["/"])
    assert install_root.log("alice") == finalizer_log.success("", *READ)
    assert path.read_bytes() == content


def test_a_folder_in_its_place_is_passed_over(install_root, bundle_blob):
    install_root.mkdir(PREVIOUS_VERSION)
    install_root.lay_blob(bundle_blob)
    # Not every Foundation reads it without writing to standard error.
    assert install_root.run(["/"]).status == 0
    assert install_root.log("alice") == finalizer_log.success("", *READ)


def test_it_lies_below_the_install_root(install_root, finalizer_run, bundle_blob):
    install_root.write(VOLUME + PREVIOUS_VERSION, "32.0.0.255")
    for root, stages in [(VOLUME, READ), ("/", [])]:
        install_root.log_path("alice").unlink(missing_ok=True)
        install_root.lay_blob(bundle_blob, root)
        finalizer_run([root])
        assert install_root.log("alice") == finalizer_log.success(root.rstrip("/"), *stages)


@pytest.mark.parametrize("root", ["/", VOLUME])
def test_it_is_read_with_nobody_at_the_console(install_root, finalizer_run, bundle_blob, root):
    install_root.set_console(None)
    install_root.write(root.rstrip("/") + PREVIOUS_VERSION, "32.0.0.255")
    install_root.lay_blob(bundle_blob, root)
    finalizer_run([root])
    assert install_root.log() == finalizer_log.success(root.rstrip("/"), *READ)


def test_unreadable_file(install_root, finalizer_run):
    install_root.set_console("bob")
    install_root.write(VOLUME + PREVIOUS_VERSION, "32.0.0.255", mode=0)
    install_root.lay_blob(b"", VOLUME)
    finalizer_run([VOLUME], user="bob", env={"HOME": "/Users/bob"})
    assert install_root.log("bob") == finalizer_log.success(VOLUME, *READ)


def test_order_of_the_stages(install_root, finalizer_run, bundle_blob):
    install_root.write(PREVIOUS_VERSION, "32.0.0.255\n")
    install_root.lay_blob(bundle_blob)
    finalizer_run(["/", "-disableAnalytics"], check_leaks=True)
    assert install_root.log("alice") == [
        "[I] FIN: [finalizer started]",
        "[I] FIN: Compression Output Path: '/Library/Internet Plug-Ins/PepperKorvelPlayer/"
        "PepperKorvelPlayer.plugin'.",
        "[I] FIN: Compression Input Path: '/Library/Internet Plug-Ins/PepperKorvelPlayer/"
        "PepperKorvelPlayer.plugin.lzma'.",
        "[I] FIN: Reading previous version file",
        "[I] FIN: Disabling Analytics in rks.cfg",
        "[I] FIN: [finalizer succeeded]",
    ]
