"""The install pingback, from the finalizer to the request line in the server's log."""

import time

import pytest

import finalizer_log
import vendor_config
from download_server import NGINX
from install_root import (EXPRESS_FLAG, INSTALL_VECTOR, PREVIOUS_VERSION, PROGRAMS, ROOT_HOME,
                          SYSTEM_VERSION, libcurl)

FINALIZER = f"{PROGRAMS}/finalizer"
PATH = "/get/korvelplayer/update/current/install/version.xml32.0.0.269"

# The pingback's time-out, in seconds.
TIME_OUT = 30

DEFAULTS = """{{
    AppleLanguages = ({languages});
}}
"""


def request(vector="15", os_version="10.9.5", previous="0.0.0.0", language="en", word="64",
            arch="x86_64"):
    """The line of the request with those fields."""
    return (f"GET {PATH}~installVector={vector}&os=mac&osVer={os_version}&playerType=pep"
            f"&previousVersion={previous}&lang={language}&cpuWordLength={word}&cpuArch={arch}"
            " HTTP/1.1")


@pytest.fixture
def pingback(install_root, download_server, finalizer, bundle_blob):
    """Installs on the boot volume beside the server and returns the lines of the requests that
    came. The run itself succeeds, quietly."""
    assert finalizer

    def run(*arguments, wrapper=(), log=(), home="alice", **options):
        install_root.lay_blob(bundle_blob)
        options.setdefault("env", {}).setdefault("LANG", "en_US.UTF-8")
        result = download_server.run([*wrapper, FINALIZER, "/", *arguments], **options)
        assert (result.status, result.stdout, result.stderr) == (0, "", "")
        assert install_root.log(home) == finalizer_log.success("", *log)
        return download_server.requests()

    return run


def set_languages(install_root, user, *languages):
    """Sets the languages that `user` prefers."""
    install_root.write(f"/Users/{user}/GNUstep/Defaults/NSGlobalDomain.plist",
                       DEFAULTS.format(languages=", ".join(languages)))


def test_first_install(pingback):
    assert pingback(check_leaks=True) == [
        "GET /get/korvelplayer/update/current/install/version.xml32.0.0.269~installVector=15&os=mac"
        "&osVer=10.9.5&playerType=pep&previousVersion=0.0.0.0&lang=en&cpuWordLength=64"
        "&cpuArch=x86_64 HTTP/1.1"]


@pytest.mark.parametrize("content, field", [("32.0.0.255\n", "32.0.0.255"), (" \n", "")])
def test_previous_version(pingback, install_root, content, field):
    install_root.write(PREVIOUS_VERSION, content)
    assert pingback(log=[finalizer_log.READING_VERSION]) == [request(previous=field)]


def test_previous_version_that_no_url_can_hold(pingback, install_root):
    install_root.write(PREVIOUS_VERSION, "32.0 beta\n")
    assert pingback(log=[finalizer_log.READING_VERSION]) == []


# ---- Install vector


def test_express_install(pingback, install_root):
    install_root.write(EXPRESS_FLAG, "")
    install_root.write(INSTALL_VECTOR, "7")
    assert pingback() == [request(vector="3")]
    assert not install_root.path(EXPRESS_FLAG).exists()
    assert install_root.open_calls() == [], "the pingback has taken the flag away"


def test_vector_file(pingback, install_root):
    install_root.write(INSTALL_VECTOR, "7")
    assert pingback() == [request(vector="7")]
    assert install_root.path(INSTALL_VECTOR).exists()


@pytest.mark.parametrize("content", ["7\n", "7 8", "\t"])
def test_vector_that_no_url_can_hold(pingback, install_root, content):
    install_root.write(INSTALL_VECTOR, content)
    assert pingback() == []


def test_vector_file_that_is_not_utf_8(pingback, install_root):
    install_root.write(INSTALL_VECTOR, b"\xff7")
    assert pingback() == [request(vector="(null)")]


def test_empty_vector_file(pingback, install_root):
    install_root.write(INSTALL_VECTOR, "")
    assert pingback() == [request(vector="")]


@pytest.mark.parametrize("content", ["7%zz", "7\\8", "é", "7\0", "7#8#9"])
def test_vector_that_would_need_escaping(pingback, install_root, content):
    install_root.write(INSTALL_VECTOR, content)
    assert pingback() == []


def test_vector_that_ends_the_address(pingback, install_root):
    # Nothing is escaped: a fragment is not sent.
    install_root.write(INSTALL_VECTOR, "7#8")
    assert pingback() == [f"GET {PATH}~installVector=7 HTTP/1.1"]


def test_vector_in_brackets(pingback, install_root):
    install_root.write(INSTALL_VECTOR, "[7]")
    assert pingback() == [request(vector="[7]")]


def test_flag_made_again_meanwhile(pingback, download_server, install_root):
    install_root.write(EXPRESS_FLAG, "")
    updater = install_root.write(ROOT_HOME + vendor_config.tested().updater, "updater")
    download_server.kind = "express"
    assert pingback() == [request(vector="3")]
    assert install_root.open_calls() == [[vendor_config.tested().redirect_page]]
    assert not updater.exists()
    assert not install_root.path(EXPRESS_FLAG).exists()


# ---- Language


def test_console_user_speaks_french(pingback, install_root):
    set_languages(install_root, "alice", "fr", "en")
    set_languages(install_root, "bob", "de")
    assert pingback() == [request(language="fr")]


def test_language_is_not_root_s(pingback, install_root):
    install_root.write(ROOT_HOME + "/GNUstep/Defaults/NSGlobalDomain.plist",
                       DEFAULTS.format(languages="de"))
    assert pingback() == [request(language="en")]


def test_console_user_speaks_british_english(pingback, install_root):
    set_languages(install_root, "alice", '"en-GB"')
    assert pingback() == [request(language="en_gb")]


def test_language_with_its_region(pingback, install_root):
    set_languages(install_root, "alice", '"zh-Hant-HK"')
    assert pingback() == [request(language="zh-TW")]


def test_language_that_the_player_does_not_speak(pingback, install_root):
    set_languages(install_root, "alice", "eo")
    assert pingback() == [request(language="xu")]


@pytest.mark.parametrize("console", [None, "loginwindow"])
def test_nobody_at_the_console(pingback, install_root, console):
    install_root.set_console(console)
    assert pingback(home=None) == [request(language="xu")]


def test_console_user_without_an_entry(pingback, install_root):
    install_root.set_console("unknown")
    name = next(line.split("=")[1] for line in install_root.path(
        "/run/systemd/sessions/7").read_text().splitlines() if line.startswith("USER="))
    install_root.mkdir(f"/Users/{name}/Library/Logs")
    assert pingback(home=name) == [request(language="xu")]


# ---- Effective user


def switches(install_root):
    """The changes of the effective user that strace saw, in order."""
    trace = install_root.path("/run/trace").read_text()
    return [line.split(" ", 1)[1] for line in trace.splitlines() if "setresuid" in line]


def switched_users(install_root):
    return [line.split(",")[1].strip() for line in switches(install_root)]


STRACE = ["strace", "-f", "-o", "/run/trace", "-e", "trace=setresuid,setresgid,setgroups"]


def test_user_is_switched_for_the_log_and_for_the_language(pingback, install_root):
    assert pingback(wrapper=STRACE) == [request()]
    calls = [line.strip() for line in switches(install_root)]
    assert [call.replace(" ", "") for call in calls] == [
        "setresuid(-1,1001,-1)=0", "setresuid(-1,0,-1)=0"] * 2


def test_user_that_cannot_be_switched(pingback, install_root):
    set_languages(install_root, "alice", "fr")
    wrapper = [*STRACE, "-e", "inject=setresuid:error=EPERM"]
    requests = pingback(wrapper=wrapper)
    # The language is still read, and is now root's.
    assert requests == [request()]
    # A switch for the log, back, and one for the language. The switch back from that, to the id -1,
    # fails without a system call.
    assert switched_users(install_root) == ["1001", "0", "1001"]


@pytest.mark.parametrize("call", ["setgroups", "setresgid"])
def test_user_whose_groups_cannot_be_taken(pingback, install_root, call):
    set_languages(install_root, "alice", "fr")
    assert pingback(wrapper=[*STRACE, "-e", f"inject={call}:error=EPERM"]) == [request(language="fr")]
    # Back for the log, then there and back for the language. Root opens the log.
    assert switched_users(install_root) == ["0", "1001", "0"]
    assert install_root.log_path("alice").stat().st_uid == 0


def test_no_switch_without_a_user(pingback, install_root):
    install_root.set_console("loginwindow")
    pingback(wrapper=STRACE, home=None)
    assert switches(install_root) == []


# ---- System


def test_system_version(pingback, install_root):
    install_root.set_system_version("11.2.3")
    assert pingback() == [request(os_version="11.2.3")]


def test_missing_system_version(pingback, install_root):
    install_root.path(SYSTEM_VERSION).unlink()
    assert pingback() == [request(os_version="(null)")]


@pytest.mark.parametrize("content", ["", "<plist", "\0\1\2", "<plist><array/></plist>"])
def test_broken_system_version(pingback, install_root, content):
    install_root.write(SYSTEM_VERSION, content)
    assert pingback() == [request(os_version="(null)")]


def test_thirty_two_bit_processor(pingback):
    assert pingback(wrapper=["setarch", "i686"]) == [request(word="32", arch="i386")]


def test_processor_that_the_kernel_does_not_tell(pingback):
    wrapper = ["strace", "-f", "-o", "/run/trace", "-e", "trace=uname",
               "-e", "inject=uname:error=EFAULT"]
    assert pingback(wrapper=wrapper) == [request(word="32", arch="unknown")]


# ---- Servers that do not answer


def test_connection_refused(pingback, download_server):
    download_server.kind = "none"
    assert pingback() == []


def test_name_that_does_not_resolve(pingback, install_root):
    install_root.write("/etc/hosts", "127.0.0.1 localhost\n")
    assert pingback() == []


@pytest.mark.parametrize("certificate", ["elsewhere", "expired", "stranger"])
def test_wrong_certificate_gets_no_request(pingback, download_server, certificate):
    download_server.set_certificate(certificate)
    assert pingback() == []


def test_silent_server_costs_thirty_seconds(pingback, download_server):
    download_server.kind = "silent"
    start = time.monotonic()
    # One attempt. The limits leave time for a slow machine; the time-out of downloads is a minute.
    assert pingback(timeout=20 * TIME_OUT) == ["connection"]
    assert TIME_OUT - 1 < time.monotonic() - start < 2 * TIME_OUT


def test_server_that_leaves_while_the_request_is_written(pingback, download_server):
    download_server.kind = "leaving"
    assert pingback() == ["connection"]


# Bytes that may be in buffers between the program and the server.
BUFFERED = 32 << 20


def test_endless_answer_ends_within_256_mebibytes(pingback, download_server, install_root):
    download_server.kind = "endless"
    assert pingback(wrapper=install_root.within_memory(1 << 30),
                    timeout=20 * TIME_OUT) == [request()]
    assert download_server.sent() < (256 << 20) + BUFFERED


def test_endless_trailers_end(pingback, download_server, install_root):
    download_server.kind = "endless trailers"
    assert pingback(wrapper=install_root.within_memory(1 << 28),
                    timeout=20 * TIME_OUT) == [request()]
    assert download_server.sent() < BUFFERED


def test_answer_is_ignored(pingback, download_server):
    download_server.configure(NGINX.replace('return 200 "thank you"', "return 500"))
    assert pingback() == [request()]


def test_installation_needs_no_libcurl(install_root, bundle_blob):
    install_root.lay_blob(bundle_blob)
    install_root.mount("/dev/null", libcurl())
    result = install_root.run(["/"])
    assert (result.status, result.stdout, result.stderr) == (0, "", "")
    assert install_root.log("alice") == finalizer_log.success("")
