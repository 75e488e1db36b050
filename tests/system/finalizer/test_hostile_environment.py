"""Variables with which a caller would make root's process load, write or contact something of the
caller's choice.

Only HOME, USER, LOGNAME, PATH, TMPDIR, TZ, LANG, LANGUAGE and LC_* reach the libraries of the
finalizer, and of kpim when it runs as root.
"""

import pytest

import finalizer_log
import vendor_config
from install_root import EXPRESS_FLAG, LINE, LOG, PROGRAMS

FINALIZER = [f"{PROGRAMS}/finalizer", "/"]
LATEST = [f"{PROGRAMS}/kpim", "latest"]
PLANTED = "/opt/planted_library.so"
MARK = "/tmp/loaded"
KEYS = "/tmp/keys"
OPEN_ENVIRONMENT = "/tmp/environment"

OPENSSL_CONFIGURATION = f"""openssl_conf = start
[start]
providers = all
[all]
default = standard
planted = caller
[standard]
activate = 1
[caller]
module = {PLANTED}
activate = 1
"""

DESCRIPTION = ('<XML><update version="32.0.0.270"><description><meta>message "A new version.";'
               "size 400 300;autoUpdateMode 1;</meta></description></update></XML>")


@pytest.fixture
def planted(install_root, build):
    """An environment that makes OpenSSL load a library of the caller's."""
    install_root.write("/opt/openssl.cnf", OPENSSL_CONFIGURATION)
    install_root.write(PLANTED, (build / "tests/programs/planted_library.so").read_bytes(), 0o755)
    return {"OPENSSL_CONF": "/opt/openssl.cnf"}


def with_variables(env, command):
    """The command that runs `command` with `env`, which the server beside it does not get."""
    return ["/usr/bin/env", *(f"{name}={value}" for name, value in env.items()), *command]


def install(install_root, server, blob, env):
    """Runs the finalizer with `env` beside the server, quietly and with success."""
    install_root.lay_blob(blob)
    result = server.run(with_variables({"LANG": "en_US.UTF-8", **env}, FINALIZER))
    assert (result.status, result.stdout, result.stderr) == (0, "", "")
    assert install_root.log("alice") == finalizer_log.success("")


def test_openssl_loads_no_library_of_the_callers(install_root, download_server, bundle_blob, planted):
    install(install_root, download_server, bundle_blob, planted)
    assert len(download_server.requests()) == 1
    assert not install_root.path(MARK).exists()


def test_tls_secrets_are_written_nowhere(install_root, download_server, bundle_blob):
    install(install_root, download_server, bundle_blob, {"SSLKEYLOGFILE": KEYS})
    assert len(download_server.requests()) == 1
    assert not install_root.path(KEYS).exists()


@pytest.mark.parametrize("variables", [{"LOCALDOMAIN": "caller.example"},
                                       {"RES_OPTIONS": "ndots:9"}])
def test_the_download_host_is_asked_for_under_its_own_name_first(install_root, download_server, bundle_blob,
                                                                 variables):
    download_server.kind = "names"
    install_root.write("/etc/hosts", "127.0.0.1 localhost\n")
    install_root.write("/etc/nsswitch.conf", "passwd: files\ngroup: files\nhosts: files dns\n")
    install_root.write("/etc/resolv.conf", "nameserver 127.0.0.1\nsearch machine.example\n")
    install(install_root, download_server, bundle_blob, variables)
    host = vendor_config.tested().download_host
    assert download_server.names() == [host, f"{host}.machine.example"]


def test_gnustep_reads_no_configuration_of_the_callers(install_root, download_server, bundle_blob):
    install_root.write("/opt/gnustep.conf", "GNUSTEP_USER_DEFAULTS_DIR=Caller\n", 0o600)
    for home in ("/Users/alice", "/var/root"):
        install_root.write(f"{home}/Caller/NSGlobalDomain.plist", "{ AppleLanguages = (de); }\n")
    install(install_root, download_server, bundle_blob, {"GNUSTEP_CONFIG_FILE": "/opt/gnustep.conf"})
    (request,) = download_server.requests()
    assert "&lang=en&" in request


def test_constructors_of_libraries_do_not_see_the_variables(install_root, finalizer_run):
    # GnuTLS reads this one before main and then writes to standard error.
    finalizer_run(["/"], status=1, env={"GNUTLS_DEBUG_LEVEL": "9"})


def test_what_the_finalizer_launches_gets_the_allowed_variables_only(
        install_root, finalizer, download_server, bundle_blob):
    download_server.kind = "express"
    recorder = install_root.write(
        "/opt/open", f"#!/usr/bin.host/bash\n/usr/bin.host/env -0 > {OPEN_ENVIRONMENT}\n", 0o755)
    install_root.mount(recorder, "/usr/bin/open")
    install_root.lay_blob(bundle_blob)
    allowed = {"HOME": "/Users/alice", "LANG": "de_DE.UTF-8", "LANGUAGE": "de:fr", "LC_CTYPE": "C",
               "LOGNAME": "root", "PATH": "/usr/bin:/bin", "TMPDIR": "/var", "TZ": "Europe/Berlin",
               "USER": "root"}
    others = ["DBUS_SYSTEM_BUS_ADDRESS", "GCONV_PATH", "GNUSTEP_CONFIG_FILE", "GNUTLS_DEBUG_LEVEL",
              "HOSTALIASES", "LOCALDOMAIN", "LOCPATH", "OPENSSL_CONF", "RES_OPTIONS",
              "SSLKEYLOGFILE", "TZDIR", "homes", "LANGUAGES", "LC"]
    result = download_server.run(
        with_variables({**allowed, **dict.fromkeys(others, "/nonexistent")}, FINALIZER))
    assert (result.status, result.stdout, result.stderr) == (0, "", "")
    tools = {"ASAN_OPTIONS", "LSAN_OPTIONS", "UBSAN_OPTIONS", "LLVM_PROFILE_FILE"}
    seen = dict(each.split("=", 1) for each in
                install_root.path(OPEN_ENVIRONMENT).read_text().split("\0")[:-1])
    # bash's own.
    for name in ("PWD", "SHLVL", "OLDPWD", "_"):
        seen.pop(name, None)
    program = finalizer.read_bytes()
    if b"__asan_init" in program or b"__llvm_profile" in program:
        assert {name for name in seen if name in tools}
        seen = {name: value for name, value in seen.items() if name not in tools}
    assert seen == allowed


@pytest.mark.parametrize("zone, offset", [
    ("Asia/Kolkata", "+0530"), (":Asia/Kolkata", "+0530"), ("IST-5:30", "+0530"),
    ("/usr/share/zoneinfo/Asia/Kolkata", "+0530"), ("/tmp/zone", "+0000"), (":/tmp/zone", "+0000"),
    ("../../../tmp/zone", "+0000"), ("/usr/share/zoneinfo/../../../tmp/zone", "+0000")])
def test_time_zone(install_root, finalizer_run, zone, offset):
    install_root.write("/tmp/zone", open("/usr/share/zoneinfo/Asia/Kolkata", "rb").read())
    finalizer_run(["/"], status=1, env={"TZ": zone})
    for line in install_root.path(f"/Users/alice/{LOG}").read_text().splitlines():
        assert LINE.fullmatch(line).group(1).endswith(offset)


def test_language_still_counts(install_root, download_server, bundle_blob):
    install(install_root, download_server, bundle_blob, {"LANG": "fr_FR.UTF-8"})
    (request,) = download_server.requests()
    assert "&lang=fr&" in request


@pytest.fixture
def latest(install_root, download_server, kpim):
    """Runs `kpim latest` as `user` with `env`, and returns its status and its standard error."""
    assert kpim
    download_server.offer("/xml/version_en_mac_pep.xml", DESCRIPTION)
    install_root.mkdir("/tmp", 0o1777)

    def run(env, user=None):
        result = download_server.run(with_variables(env, LATEST), user=user)
        return result.status, result.stderr

    return run


def test_kpim_as_root_keeps_the_allowed_variables_only(install_root, latest, planted):
    env = {**planted, "SSLKEYLOGFILE": KEYS, "GNUTLS_DEBUG_LEVEL": "9"}
    assert latest(env) == (0, "")
    assert not install_root.path(MARK).exists()
    assert not install_root.path(KEYS).exists()


def test_kpim_keeps_the_environment_of_an_ordinary_user(install_root, latest, planted):
    latest({**planted, "SSLKEYLOGFILE": KEYS}, user="alice")
    assert install_root.path(MARK).exists()
    assert install_root.path(KEYS).exists()
