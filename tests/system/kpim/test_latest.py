"""kpim latest: the version description from the vendor's server, over TLS."""

import json
import re

import pytest

import vendor_config
from download_server import CURRENT
from install_root import PROGRAMS

EXAMPLE = ('<XML><update version="32.0.0.270"><description><meta>message "A new version is '
           'available.";size 400 300;autoUpdateMode 1;</meta></description></update></XML>')
# The locale of the installed strings table, and of a request without a table.
DEFAULT = "en"
KEY = "AutoUpdateXmlLocale"
# kpim's messages about an answer, and the documented lines of the log.
LACKS_BOTH = "HTTP status 200, but the answer lacks a version and a message"
LACKS_VERSION = "HTTP status 200, but the answer lacks a version"
LACKS_MESSAGE = "HTTP status 200, but the answer lacks a message"
NO_VERSION = "Parsing error in version XML. Could not find version string."
NO_MESSAGE = "Parsing error in version XML. Could not find HTML display string."
NOT_FETCHED = "Failed to download version XML."

OWN_CLOCK = "AddressSanitizer has a clock_gettime of its own"

MISSING = "HTTP status 404, and the answer lacks a version and a message"


def path_of(locale=DEFAULT, kind="pep"):
    return f"/xml/version_{locale}_mac_{kind}.xml"


def address(locale=DEFAULT, kind="pep"):
    return f"https://{vendor_config.tested().download_host}{CURRENT}{path_of(locale, kind)}"


def request(locale=DEFAULT, kind="pep"):
    return f"GET {CURRENT}{path_of(locale, kind)} HTTP/1.1"


@pytest.fixture
def latest(install_root, download_server, kpim):
    """Runs kpim latest as alice beside the server. Checks the status and the output, except the
    loader's own words in brackets."""
    assert kpim and install_root

    def run(*arguments, program=f"{PROGRAMS}/kpim", status=0, errors=(), about=address(),
            wrapper=(), language="C.UTF-8", **options):
        result = download_server.run([*wrapper, program, "latest", *arguments], user="alice",
                                     env={"HOME": "/Users/alice", "LANG": language}, **options)
        assert [re.sub(r" \(.*\)$", "", line) for line in result.stderr.splitlines()] == [
            f"kpim: {about}: {error}" for error in errors]
        assert result.status == status
        return result.stdout

    return run


@pytest.fixture
def answer(latest, download_server):
    """The output of kpim latest --json for the server's answer `content`."""

    def run(content, **options):
        download_server.offer(path_of(), content)
        output = latest("--json", **options)
        return json.loads(output) if output else None

    return run


def test_example(answer, download_server, install_root):
    assert answer(EXAMPLE, check_leaks=True) == {
        "version": "32.0.0.270", "message": "A new version is available.", "autoUpdateMode": "1",
        "dialogWidth": 400, "dialogHeight": 300}
    assert download_server.requests() == [request()]
    assert install_root.log("alice") == [f"[I]  VM: {len(EXAMPLE)}"]


def test_text(latest, download_server):
    download_server.offer(path_of(), EXAMPLE)
    assert latest() == ("version: 32.0.0.270\nauto-update mode: 1\ndialog size: 400 x 300\n"
                        "message: A new version is available.\n")


def test_text_does_not_steer_the_terminal(latest, download_server):
    download_server.offer(path_of(), EXAMPLE.replace("A new", "\x1b[2J\n"))
    assert "message: \\x1b[2J\\x0a version is available.\n" in latest()


def test_other_player(latest, download_server):
    download_server.offer(path_of(kind="pl"), EXAMPLE.replace("270", "271"))
    assert json.loads(latest("--json", "--kind", "pl"))["version"] == "32.0.0.271"
    assert latest("--kind", "pep", status=1, errors=[MISSING]) == ""
    assert download_server.requests() == [request(kind="pl"), request(kind="pep")]


@pytest.mark.parametrize("language", ["C", "en_GB.UTF-8", "de_DE.UTF-8", "zh_CN.UTF-8"])
def test_default_locale_is_one_that_exists(latest, download_server, language):
    download_server.offer(path_of("en"), EXAMPLE)
    assert "32.0.0.270" in latest(language=language)
    assert download_server.requests() == [request("en")]


def test_translated_locale(latest, download_server, install_root, build):
    """A program whose bundle has a strings table of its own, and one without any."""
    install_root.mount(build / "bin/kpim", "/opt/localized/kpim")
    install_root.write("/opt/localized/Resources/kpim/en.lproj/Localizable.strings",
                       f'"{KEY}" = "xx";\n')
    install_root.mkdir("/opt/bare")
    install_root.mount(build / "bin/kpim", "/opt/bare/kpim")
    for program, locale in [("/opt/localized/kpim", "xx"), ("/opt/bare/kpim", KEY)]:
        download_server.offer(path_of(locale), EXAMPLE)
        assert "32.0.0.270" in latest(program=program)
    assert download_server.requests() == [request("xx"), request(KEY)]


def test_chosen_locale(latest, download_server):
    download_server.offer(path_of("pt_BR", "pl"), EXAMPLE)
    assert "32.0.0.270" in latest("--locale", "pt_BR", "--kind", "pl")
    assert latest("--locale", "zz-1", status=1, errors=[MISSING], about=address("zz-1")) == ""
    assert download_server.requests() == [request("pt_BR", "pl"), request("zz-1")]


def redirect_to_example(download_server, install_root):
    """Has the server answer the default address with a redirect to the example."""
    configuration = install_root.path("/run/server/nginx.conf").read_text()
    download_server.configure(configuration.replace(
        "location " + CURRENT + "/install/",
        f"location = {CURRENT}{path_of()} {{ return 302 {CURRENT}/xml/other.xml; }}\n"
        "    location " + CURRENT + "/install/"))
    download_server.offer("/xml/other.xml", EXAMPLE)


def test_redirect(latest, download_server, install_root):
    redirect_to_example(download_server, install_root)
    assert "32.0.0.270" in latest()


# ---- Scanning


def test_partial_descriptions(answer):
    without_mode = EXAMPLE.replace("autoUpdateMode 1;", "autoUpdateMode1;")
    assert answer(without_mode)["autoUpdateMode"] is None
    assert answer(EXAMPLE.replace("1;</meta>", "1</meta>"))["autoUpdateMode"] == "0"
    without_size = EXAMPLE.replace(";size 400 300", ";size")
    assert (answer(without_size)["dialogWidth"], answer(without_size)["dialogHeight"]) == (320, 450)
    one_piece = EXAMPLE[:EXAMPLE.index("400")] + "400;autoUpdateMode1"
    assert (answer(one_piece)["dialogWidth"], answer(one_piece)["dialogHeight"]) == (320, 450)


def test_size_that_no_number_holds(answer, latest):
    huge = EXAMPLE.replace("400 300", "1e39 1e39")
    assert answer(huge) == {"version": "32.0.0.270", "message": "A new version is available.",
                            "autoUpdateMode": "1", "dialogWidth": None, "dialogHeight": None}
    assert "dialog size: inf x inf\n" in latest()


@pytest.mark.parametrize("content, error, logged", [
    ("", LACKS_BOTH, [NO_VERSION, NO_MESSAGE]),
    ("<html>Not found</html>", LACKS_BOTH, [NO_VERSION, NO_MESSAGE]),
    (EXAMPLE.replace("32.0.0.270", ""), LACKS_VERSION, [NO_VERSION]),
    ('"><description>' + EXAMPLE, LACKS_VERSION, [NO_VERSION]),
    (EXAMPLE.replace("message", "text"), LACKS_MESSAGE, [NO_MESSAGE]),
    (EXAMPLE.encode() + b"\xff", LACKS_BOTH, [NO_VERSION, NO_MESSAGE]),
    (EXAMPLE.encode("utf-16"), LACKS_BOTH, [NO_VERSION, NO_MESSAGE]),
    (b"\0" * 1000, LACKS_BOTH, [NO_VERSION, NO_MESSAGE]),
])
def test_scan_that_fails(answer, install_root, content, error, logged):
    assert answer(content, status=1, errors=[error]) is None
    size = len(content if isinstance(content, bytes) else content.encode())
    assert install_root.log("alice") == [
        f"[I]  VM: {size}", *(f"[E]  VM: ERROR: {error}" for error in logged)]


def test_page_that_is_missing(latest, download_server, install_root):
    assert latest(status=1, errors=[MISSING]) == ""
    assert download_server.requests() == [request()]
    assert install_root.log("alice")[1:] == [f"[E]  VM: ERROR: {NO_VERSION}",
                                             f"[E]  VM: ERROR: {NO_MESSAGE}"]


def test_description_in_an_answer_that_is_an_error(install_root, download_server):
    configuration = install_root.path("/run/server/nginx.conf").read_text()
    download_server.configure(configuration.replace(
        "location " + CURRENT + "/install/",
        f"error_page 404 =503 {CURRENT}/xml/other.xml;\n    location " + CURRENT + "/install/"))
    download_server.offer("/xml/other.xml", EXAMPLE)
    result = download_server.run([f"{PROGRAMS}/kpim", "latest"], user="alice",
                                 env={"HOME": "/Users/alice"})
    assert (result.status, result.stderr) == (
        0, f"kpim: warning: {address()}: HTTP status 503, with a version description all the same\n")
    assert result.stdout.startswith("version: 32.0.0.270\n")


def test_eight_megabytes(answer):
    message = " ;size \"é" * (8_000_000 // 10)
    assert answer(EXAMPLE.replace("A new version is available.", message))["message"] == message


# ---- Servers that never end

BUFFERED = 32 << 20


@pytest.mark.parametrize("kind, reason", [
    ("endless", "HTTP status 200, then: The reply is longer than 8388608 bytes."),
    ("endless trailers", "HTTP status 200, then: resource exceeds maximum size")])
def test_endless_answer(latest, download_server, install_root, kind, reason):
    download_server.kind = kind
    latest(status=1, errors=[reason],
           wrapper=install_root.within_memory(1 << 29))
    assert download_server.sent() < BUFFERED


def test_description_that_is_announced_too_long(latest, download_server):
    download_server.offer(path_of(), b" " * ((8 << 20) + 1))
    latest(status=1, errors=["HTTP status 200, then: The reply is longer than 8388608 bytes."])


@pytest.mark.release_only("AddressSanitizer reserves more addresses than any limit")
def test_too_little_memory(latest, download_server):
    download_server.offer(path_of(), EXAMPLE.replace("A new version", "x" * 8_000_000))
    latest(status=1, errors=["Default zone has run out of memory"], about="latest",
           wrapper=["prlimit", f"--as={100 << 20}"])


# ---- Servers that do not answer


def test_connection_refused(latest, download_server, install_root):
    download_server.kind = "none"
    reason = "Could not connect to the server."
    latest(status=1, errors=[reason])
    assert install_root.log("alice") == [f"[E]  VM: ERROR: URL download failed: {reason}",
                                         f"[E]  VM: ERROR: {NOT_FETCHED}"]


def test_name_that_does_not_resolve(latest, install_root):
    install_root.write("/etc/hosts", "127.0.0.1 localhost\n")
    latest(status=1, errors=["A server with the specified hostname could not be found."])


@pytest.mark.parametrize("certificate, reason", [
    ("elsewhere", "The certificate for this server is invalid."),
    ("expired", "The certificate for this server has expired."),
    ("stranger", "The certificate for this server was signed by an unknown certifying authority.")])
def test_wrong_certificate(latest, download_server, certificate, reason):
    download_server.set_certificate(certificate)
    latest(status=1, errors=[reason])
    assert download_server.requests() == []


UNKNOWN = "The certificate for this server was signed by an unknown certifying authority."


def test_authorities_of_one_s_own(latest, download_server, install_root,
                                  server_certificates):
    """Only the file's authorities are trusted, also after a redirect."""
    download_server.set_certificate("stranger")
    install_root.mount(server_certificates / "unknown.crt", "/opt/own.pem")
    install_root.mount(server_certificates / "trusted.crt", "/opt/other.pem")
    download_server.trust_from_folder("trusted")
    redirect_to_example(download_server, install_root)
    assert "32.0.0.270" in latest("--ca-file", "/opt/own.pem")
    latest("--ca-file", "/opt/other.pem", status=1, errors=[UNKNOWN])
    latest(status=1, errors=[UNKNOWN])
    download_server.set_certificate("good")
    latest("--ca-file", "/opt/own.pem", status=1, errors=[UNKNOWN])


def test_authority_in_the_folder_of_the_trust_store(latest, download_server):
    download_server.set_certificate("stranger")
    download_server.trust_from_folder("unknown")
    download_server.offer(path_of(), EXAMPLE)
    assert "32.0.0.270" in latest()


@pytest.mark.parametrize("path, why", [
    ("/opt/missing.pem", "No such file or directory"), ("", "No such file or directory"),
    ("/opt", "Is a directory"), ("/opt/\udcff.pem", "the name is not UTF-8")])
def test_authorities_that_cannot_be_read(latest, path, why):
    shown = path.replace("\udcff", "\\xff") or "''"
    latest("--ca-file", path, status=1, errors=[why], about=shown)


@pytest.mark.parametrize("content", ["", "no certificate\n"])
def test_authorities_that_are_none(latest, download_server, install_root, content):
    install_root.write("/opt/own.pem", content)
    result = download_server.run([f"{PROGRAMS}/kpim", "latest", "--ca-file", "/opt/own.pem"],
                                 user="alice", env={"HOME": "/Users/alice"})
    assert (result.status, result.stdout) == (1, "")
    # The loader's own words name the file.
    assert re.fullmatch(rf"kpim: {re.escape(address())}: An SSL error has occurred and a secure "
                        r"connection to the server cannot be made\. \(.*/opt/own\.pem.*\)\n",
                        result.stderr)
    assert download_server.requests() == []


def test_longest_time_limit(latest, download_server):
    download_server.offer(path_of(), EXAMPLE)
    assert "32.0.0.270" in latest("--time-limit", "86400")


@pytest.fixture
def running_clock(install_root, build):
    """A command that runs kpim with the clocks of RunningClock.cpp."""
    install_root.write("/opt/running_clock.so", (build / "tests/programs/running_clock.so").read_bytes(), 0o755)
    return ["/usr/bin/env", "LD_PRELOAD=/opt/running_clock.so"]


@pytest.mark.release_only(OWN_CLOCK)
def test_clock_that_is_set(latest, download_server, running_clock):
    """The limit is a length of time, and does not end at a date."""
    download_server.offer(path_of(), EXAMPLE)
    assert "32.0.0.270" in latest(wrapper=running_clock)


def test_silent_server(latest, download_server):
    download_server.kind = "silent"
    latest("--time-limit", "1", status=1, errors=["no complete answer within 1 second"])


@pytest.mark.release_only(OWN_CLOCK)
def test_trickling_server(latest, download_server, running_clock):
    """The limit covers the whole request: a server that keeps sending does not extend it."""
    download_server.kind = "trickling"
    latest(wrapper=running_clock, status=1,
           errors=["HTTP status 200, but no complete answer within 90 seconds"])


def test_reason_is_told_without_a_log(latest, download_server, install_root):
    install_root.path("/Users/alice/Library/Logs").rmdir()
    download_server.kind = "none"
    latest(status=1, errors=["Could not connect to the server."])


# ---- The command line


@pytest.mark.parametrize("arguments", [
    ["--kind", "other"], ["--locale", ""], ["--locale", "../x"], ["--locale", "e n"],
    ["--locale", "en?"], ["--ca-file"], ["--time-limit", "0"], ["--time-limit", "86401"],
    ["--time-limit", "never"], ["--json=no"], ["more"]])
def test_wrong_usage(install_root, kpim, arguments):
    assert kpim
    result = install_root.run(["latest", *arguments], program="kpim")
    assert (result.status, result.stdout) == (2, "")
    assert result.stderr.startswith("kpim: latest: ")


def test_progress_on_a_terminal(latest, download_server, install_root):
    download_server.offer(path_of(), EXAMPLE)
    script = ("script -qec '{ %s/kpim latest > /dev/null; }' /run/server/typescript > /dev/null"
              % PROGRAMS)
    result = download_server.run(["sh", "-c", script], env={"HOME": "/Users/alice"})
    assert result.status == 0
    shown = install_root.path("/run/server/typescript").read_text()
    assert "fetching the version description ... 0 s" in shown
