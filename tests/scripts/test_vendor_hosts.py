"""The vendor's hosts: the values that CMake accepts, and the packages."""

import json
import pathlib
import shutil
import subprocess

import pytest

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]
SCRIPTS = REPOSITORY / "scripts"
OWN = {"downloadHost": "get.vendor-1.com", "vendorWebHost": "www.vendor-1.com",
       "uninstallerURL": "https://www.vendor-1.com:8443/u?a=[1]"}
PRINTED = ("download server: get.vendor-1.com\nweb site: www.vendor-1.com\n"
           "uninstaller: https://www.vendor-1.com:8443/u?a=[1]\n")


def check(**values):
    """CMake's standard error for the values, its lines joined; "" for good ones."""
    done = subprocess.run(["cmake", *(f"-D{name}={value}" for name, value in values.items()),
                           "-P", REPOSITORY / "cmake/KPVendorHosts.cmake"],
                          text=True, capture_output=True, check=False)
    assert (done.returncode == 0) == (done.stderr == "")
    return " ".join(done.stderr.split())


# ---- The values that CMake accepts


def test_defaults_are_valid():
    assert check() == ""


LONGEST = ".".join(["a" * 63] * 3 + ["b" * 61])


@pytest.mark.parametrize("host", ["a.b", "A-1.B", "localhost", "1.2.3.com", "xn--bcher-kva.de", LONGEST])
def test_host_names(host):
    assert check(KP_DOWNLOAD_HOST=host, KP_VENDOR_WEB_HOST=host) == ""


@pytest.mark.parametrize("variable", ["KP_DOWNLOAD_HOST", "KP_VENDOR_WEB_HOST"])
@pytest.mark.parametrize("host", [
    "", "https://a.com", "a.com/", "a.com:443", "a b.com", " a.com", 'a".com', "'a.com", "a\\b.com",
    "a..com", ".a.com", "a.com.", "-a.com", "a-.com", "a_b.com", "é.com", "a;b.com", "127.0.0.1", "1",
    "[::1]", "user@a.com", "${X}.com", "a" * 64 + ".com", LONGEST + "b"])
def test_what_is_not_a_host_name(variable, host):
    said = check(**{variable: host})
    assert f'{variable} is "{host}". It must be a host name alone, such as downloads.vendor.com' in said


@pytest.mark.parametrize("url", ["http://a.com", "https://a.com/", "http://a.com:8080/~x/y?z=%41&[1];#'$"])
def test_addresses(url):
    assert check(KP_UNINSTALLER_URL=url) == ""


@pytest.mark.parametrize("url", [
    "", "a.com/x", "ftp://a.com/", "HTTP://a.com/", "http://", "http:///x", "http://a.com/a b",
    'http://a.com/"', "http://a.com/\\", "http://a.com/é", "http://a.com/\x7f", "http://a.com/\x1f",
    "http://a_b/", "http://u@a.com/", "http://a.com:x/", "http://1.2.3.4/"])
def test_what_is_not_an_address(url):
    said = check(KP_UNINSTALLER_URL=url)
    assert "KP_UNINSTALLER_URL is " in said
    assert "It must be an address that begins with http:// or https:// and a host name" in said


def test_every_fault_is_named():
    said = check(KP_DOWNLOAD_HOST="", KP_VENDOR_WEB_HOST="a b", KP_UNINSTALLER_URL="x")
    for name in ("KP_DOWNLOAD_HOST", "KP_VENDOR_WEB_HOST", "KP_UNINSTALLER_URL"):
        assert f"{name} is " in said


# ---- Packages


def configure(build, **values):
    """Writes the files that CMake would write to the build folder."""
    (build / "generated").mkdir(parents=True, exist_ok=True)
    (build / "generated/vendor-config.json").write_text(json.dumps({**OWN, **values}))


def hosts(*arguments):
    return subprocess.run([SCRIPTS / "vendor_hosts.py", *arguments], text=True, capture_output=True,
                          check=False)


def test_hosts_are_printed(tmp_path):
    configure(tmp_path)
    result = hosts(tmp_path)
    assert (result.returncode, result.stdout, result.stderr) == (0, PRINTED, "")


@pytest.mark.parametrize("name, value, variable", [
    ("downloadHost", "get.vendor.example", "KP_DOWNLOAD_HOST"),
    ("downloadHost", "get.vendor.Test", "KP_DOWNLOAD_HOST"),
    ("downloadHost", "localhost", "KP_DOWNLOAD_HOST"),
    ("downloadHost", "a.example.com", "KP_DOWNLOAD_HOST"),
    ("vendorWebHost", "www.invalid", "KP_VENDOR_WEB_HOST"),
    ("uninstallerURL", "https://a.localhost", "KP_UNINSTALLER_URL"),
    ("uninstallerURL", "https://a.example:80/x", "KP_UNINSTALLER_URL"),
    ("uninstallerURL", "https://a.example?x.com", "KP_UNINSTALLER_URL")])
def test_reserved_names_are_refused(tmp_path, name, value, variable):
    configure(tmp_path, **{name: value})
    result = hosts(tmp_path)
    assert result.returncode == 1
    assert f"reserved names, which reach no one: {variable}\n" in result.stderr
    allowed = hosts(tmp_path, "--placeholder-hosts")
    assert (allowed.returncode, allowed.stdout, allowed.stderr) == (0, result.stdout, "")


@pytest.mark.parametrize("value", ["my-example", "example.de", "latest", "x.localhost.com"])
def test_names_that_are_not_reserved(tmp_path, value):
    configure(tmp_path, downloadHost=value)
    assert hosts(tmp_path).returncode == 0


def test_builds_must_agree(tmp_path):
    configure(tmp_path / "a")
    configure(tmp_path / "b", downloadHost="other.com")
    result = hosts(tmp_path / "a", tmp_path / "b")
    assert result.returncode == 1
    assert "built for different hosts" in result.stderr


# Records its arguments; configuring leaves the hosts of the file hosts.json.
CMAKE = """#!/bin/sh
echo "cmake $*" >> calls
[ "$1" = --build ] || { mkdir -p build/release/generated && cp hosts.json build/release/generated/vendor-config.json; }
cp CMakeCache.txt build/release
"""
CPACK = """#!/bin/sh
echo cpack >> ../../calls
mkdir packages && echo package > packages/it.deb
"""


@pytest.fixture
def package(tmp_path):
    """Runs package.sh with stand-ins for what it calls; returns its result and the calls."""
    (tmp_path / "scripts").mkdir()
    (tmp_path / "bin").mkdir()
    for name in ("package.sh", "vendor_hosts.py"):
        shutil.copy(SCRIPTS / name, tmp_path / "scripts")
    for name, text in {"scripts/bootstrap.sh": "#!/bin/sh\n", "bin/cmake": CMAKE, "bin/cpack": CPACK}.items():
        (tmp_path / name).write_text(text)
        (tmp_path / name).chmod(0o755)

    def run(*arguments, cache="KP_DOWNLOAD_HOST:STRING=x", **values):
        (tmp_path / "CMakeCache.txt").write_text(f"{cache}\nKP_WERROR:BOOL=OFF\n")
        (tmp_path / "hosts.json").write_text(json.dumps({**OWN, **values}))
        result = subprocess.run([tmp_path / "scripts/package.sh", *arguments], text=True,
                                capture_output=True, check=False,
                                env={"PATH": f"{tmp_path}/bin:/usr/bin:/bin"})
        calls = tmp_path / "calls"
        return result, calls.read_text().splitlines() if calls.exists() else []

    return run


def test_package_passes_options_to_cmake(package):
    result, calls = package("-DKP_DOWNLOAD_HOST=get.vendor-1.com", "-DA=b c")
    assert result.returncode == 0, result.stderr
    assert calls[0] == "cmake --preset release -DKP_DOWNLOAD_HOST=get.vendor-1.com -DA=b c"
    assert calls[1].startswith("cmake --build --preset release ") and calls[2:] == ["cpack"]
    assert result.stdout == PRINTED + "build/release/packages/it.deb 8 bytes\n"


def test_package_refuses_reserved_names_before_it_builds(package):
    result, calls = package(downloadHost="download.vendor.example")
    assert result.returncode == 1
    assert "reserved names, which reach no one: KP_DOWNLOAD_HOST\n" in result.stderr
    assert calls == ["cmake --preset release"]


def test_package_refuses_a_setting_that_does_not_exist(package):
    result, calls = package("-DKP_HOST=a.com", cache="KP_HOST:UNINITIALIZED=a.com")
    assert (result.returncode, result.stderr) == (1, "package: no such setting: KP_HOST\n")
    # Forgotten, so that the next call does not report it again.
    assert calls == ["cmake --preset release -DKP_HOST=a.com", "cmake build/release -UKP_HOST"]


def test_package_refuses_the_placeholder_of_the_contact(package):
    cache = "CPACK_PACKAGE_CONTACT:STRING=Installer engineering <installers@tarvix.example>"
    result, calls = package(cache=cache)
    assert (result.returncode, calls) == (1, ["cmake --preset release"])
    assert result.stderr.startswith("package: the contact is a placeholder: ")
    assert package("--placeholder-hosts", cache=cache)[0].returncode == 0


def test_package_with_placeholders(package):
    result, calls = package("--placeholder-hosts", downloadHost="download.vendor.example")
    assert result.returncode == 0, result.stderr
    assert calls[-1] == "cpack"
    assert "download server: download.vendor.example\n" in result.stdout


@pytest.mark.parametrize("arguments", [["--macos"], ["--macos", "a", "b"], ["--macos", "a", "-DA=b"],
                                       ["--other"], ["DIR"], ["-D"], ["-DA"], ["A=b"]])
def test_wrong_usage(package, arguments):
    result, calls = package(*arguments)
    assert (result.returncode, calls) == (2, [])
    assert result.stderr == (
        "usage: scripts/package.sh [--placeholder-hosts] [--macos DIR | -DNAME=VALUE...]\n")
