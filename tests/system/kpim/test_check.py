"""kpim check: the install checks on real property lists, and what they log."""

import json
import plistlib

import pytest

import vendor_config
from install_root import BUNDLE, SYSTEM_VERSION

OTHER_PLAYER = "/Library/Internet Plug-Ins/Korvel Player.plugin"
OWN_VERSION = "32.0.0.269"

ALL_PASS = "[I]  VM: All install checks pass"
CHANNEL = ("[E]  VM: Failed install check. You must run the Korvel Player uninstaller before "
           "installing this version of Korvel Player. Please visit the Tarvix Labs web page to "
           f"download the uninstaller. {vendor_config.tested().uninstaller_url}")


# What kpim itself says.
UNINSTALLER = CHANNEL.split()[-1]
OTHER_CHANNEL = ("the installed player comes from another build channel and must be uninstalled "
                 f"first: {UNINSTALLER}")


def newer(version):
    return f"the installed {version} is newer than {OWN_VERSION}"


def too_old(packed):
    return f"[E]  VM: Failed install check: System OS version is {packed}"


def downgrade(version):
    return ("[E]  VM: Failed install check. Version downgrade was attempted and explicitly "
            f"prevented. System Korvel Player version is {version}; Trying to install Korvel Player "
            f"version {OWN_VERSION}")


def install(root, version=None, info=None, bundle=BUNDLE, form=plistlib.FMT_XML):
    """Writes an installed player's property list in `root`."""
    content = {"CFBundleVersion": "99.9.9.9"}
    if version is not None:
        content["CFBundleShortVersionString"] = version
    if info is not None:
        content["CFBundleGetInfoString"] = info
    root.write(bundle + "/Contents/Info.plist", plistlib.dumps(content, fmt=form))


@pytest.fixture
def check(install_root, kpim):
    """Runs kpim check with --json as alice, and returns what it says."""
    assert kpim

    def run(status=0, **options):
        result = install_root.run(["check", "--json"], program="kpim", user="alice",
                                  env={"HOME": "/Users/alice"}, **options)
        assert (result.status, result.stderr) == (status, "")
        return json.loads(result.stdout)

    return run


def test_nothing_installed(check, install_root):
    assert check() == {"minimumSystem": True, "downgrade": True, "channelSwitch": True, "result": 0,
                       "reasons": {}, "installed": None, "toBeInstalled": OWN_VERSION}
    assert install_root.log("alice") == [ALL_PASS]


def test_text(install_root, kpim):
    assert kpim
    install(install_root, "33.0", "r0")
    result = install_root.run(["check"], program="kpim", user="alice")
    assert (result.status, result.stderr) == (1, "")
    assert result.stdout == ("installed: 33.0\nto be installed: 32.0.0.269\n"
                             "minimum system: passed\n"
                             f"downgrade: failed: {newer('33.0')}\n"
                             f"channel switch: failed: {OTHER_CHANNEL}\nresult: 6\n")


@pytest.mark.parametrize("form", [plistlib.FMT_XML, plistlib.FMT_BINARY])
@pytest.mark.parametrize("version", [
    "32.0.0.269", "32,0,0,269", "32.0.0.268", "31.9.9.9", "32", "32.0.0.269b1", "", "beta", "-33.0",
    "32.0.0.-1"])
def test_version_that_may_be_replaced(check, install_root, version, form):
    install(install_root, version, "d0", form=form)
    assert check()["installed"] == version
    assert install_root.log("alice") == [ALL_PASS]


@pytest.mark.parametrize("form", [plistlib.FMT_XML, plistlib.FMT_BINARY])
@pytest.mark.parametrize("version", [
    "33", "32.0.0.270", "32,0,0,270", "32.0.0.269.1", "33b", "99999999999999999999.0"])
def test_version_that_may_not_be_replaced(check, install_root, version, form):
    install(install_root, version, "d0", form=form)
    answer = check(status=1)
    assert (answer["downgrade"], answer["result"]) == (False, 2)
    assert answer["reasons"] == {"downgrade": newer(version)}
    assert install_root.log("alice") == [downgrade(version)]


def test_other_player_does_not_count(check, install_root):
    install(install_root, "99.0", "r0", bundle=OTHER_PLAYER)
    assert check()["installed"] is None


@pytest.mark.parametrize("content", [
    b"", b"<plist>", b"<plist><array/></plist>", b"\0" * 1000, b"bplist00", b"{ a = b; }",
    pytest.param(b"(" * 200_000, id="nested"),
    b"bplist00\xd1\x01\x02\x51k\x5f\x13\x7f" + b"\xff" * 7 + b"\x08\x0b\x0d"
    + bytes(6) + b"\x01\x01" + b"".join(n.to_bytes(8, "big") for n in (3, 0, 23)),
    b"<plist><dict><key>CFBundleShortVersionString</key><integer>99</integer>"
    b"<key>CFBundleGetInfoString</key><array/></dict></plist>"])
def test_property_list_that_does_not_tell(check, install_root, content):
    install_root.write(BUNDLE + "/Contents/Info.plist", content)
    assert check()["installed"] is None
    assert install_root.log("alice") == [ALL_PASS]


@pytest.mark.parametrize("form", [plistlib.FMT_XML, plistlib.FMT_BINARY])
@pytest.mark.parametrize("info, passes", [
    ("Korvel Player 32.0 d0", True), ("Korvel Player 32.0 r0", False), ("", False), ("D0", False),
    (None, True)])
def test_channel(check, install_root, info, passes, form):
    install(install_root, "32.0", info, form=form)
    answer = check(status=0 if passes else 1)
    assert (answer["channelSwitch"], answer["result"]) == (passes, 0 if passes else 4)
    assert answer["reasons"] == ({} if passes else {"channelSwitch": OTHER_CHANNEL})
    assert install_root.log("alice") == [ALL_PASS if passes else CHANNEL]


@pytest.mark.parametrize("version, packed", [
    ("10.5.255", "A05FF"), ("10.5.8", "A0508"), ("9.9", "90900")])
def test_system_too_old(check, install_root, version, packed):
    install_root.set_system_version(version)
    answer = check(status=1)
    assert (answer["minimumSystem"], answer["result"]) == (False, 1)
    found = ".".join((version + ".0").split(".")[:3])
    assert answer["reasons"] == {
        "minimumSystem": f"the system is {found}, 10.6.0 or later is needed"}
    assert install_root.log("alice") == [too_old(packed)]


@pytest.mark.parametrize("content, why", [
    (None, "is missing"), (b"", "has no version"), (b"<plist><dict/></plist>", "has no version"),
    (plistlib.dumps([]), "has no version"), (plistlib.dumps({"ProductVersion": 10}), "has no version")])
def test_system_without_a_version(check, install_root, content, why):
    install_root.path(SYSTEM_VERSION).unlink()
    if content is not None:
        install_root.write(SYSTEM_VERSION, content)
    assert check(status=1)["reasons"] == {
        "minimumSystem": f"{SYSTEM_VERSION} {why}, 10.6.0 or later is needed"}


@pytest.mark.parametrize("version", ["10", "10.0", "10.0.0"])
def test_system_of_the_version_that_stands_for_none(check, install_root, version):
    install_root.set_system_version(version)
    assert check(status=1)["reasons"] == {
        "minimumSystem": "the system is 10.0.0, 10.6.0 or later is needed"}


@pytest.mark.parametrize("version", ["10.6.0", "10.6", "10.9.5", "11.2.3", "11"])
def test_system_new_enough(check, install_root, version):
    install_root.set_system_version(version)
    assert check()["minimumSystem"]


def test_all_fail(check, install_root):
    install_root.set_system_version("10.5.8")
    install(install_root, "33.0", "r0")
    answer = check(status=1, check_leaks=True)
    assert answer["result"] == 7
    assert list(answer["reasons"]) == ["minimumSystem", "downgrade", "channelSwitch"]
    assert install_root.log("alice") == [too_old("A0508"), downgrade("33.0"), CHANNEL]


def test_machine_s_log_when_nobody_is_logged_in(check, install_root):
    install_root.set_console("loginwindow")
    install_root.path("/Library/Logs").chmod(0o777)
    check()
    assert install_root.log() == [ALL_PASS]
    assert not install_root.log_path("alice").exists()


def test_log_of_the_finalizer_is_continued(check, install_root, finalizer_run):
    finalizer_run(["/"], status=1)
    before = install_root.log("alice")
    install_root.log_path("alice").chmod(0o666)
    check()
    assert install_root.log("alice") == before + [ALL_PASS]


def test_no_log_can_be_opened(check, install_root):
    install_root.path("/Users/alice/Library/Logs").rmdir()
    assert check()["result"] == 0
    install(install_root, "33.0", "d0")
    assert check(status=1)["reasons"] == {"downgrade": newer("33.0")}


def test_version_does_not_steer_the_terminal(install_root, kpim):
    assert kpim
    install(install_root, "33\u202e", "d0")
    result = install_root.run(["check"], program="kpim", user="alice")
    assert "installed: 33\\xe2\\x80\\xae\n" in result.stdout
    assert "failed: the installed 33\\xe2\\x80\\xae is newer" in result.stdout


@pytest.mark.parametrize("arguments", [["check", "more"], ["check", "--json=yes"]])
def test_wrong_usage(install_root, kpim, arguments):
    assert kpim
    result = install_root.run(arguments, program="kpim")
    assert (result.status, result.stdout) == (2, "")
    assert result.stderr.startswith("kpim: check: ")
