"""kpim latest: the version description from the vendor's server, over TLS."""

import json

import pytest

from download_server import CURRENT, NGINX
from install_root import PROGRAMS

EXAMPLE = ('<XML><update version="32.0.0.270"><description><meta>message "A new version is '
           'available.";size 400 300;autoUpdateMode 1;</meta></description></update></XML>')
# What is asked for when no translation names a locale.
KEY = "AutoUpdateXmlLocale"
NO_VERSION = "Parsing error in version XML. Could not find version string."
NO_MESSAGE = "Parsing error in version XML. Could not find HTML display string."
NOT_FETCHED = "Failed to download version XML."


def path_of(locale=KEY, kind="pep"):
    return f"/xml/version_{locale}_mac_{kind}.xml"


def request(locale=KEY, kind="pep"):
    return f"GET {CURRENT}{path_of(locale, kind)} HTTP/1.1"


@pytest.fixture
def latest(install_root, download_server, kpim):
    """Runs kpim latest as alice beside the server; the status and what it prints are checked."""
    assert kpim and install_root

    def run(*arguments, program=f"{PROGRAMS}/kpim", status=0, errors=(), wrapper=(), **options):
        result = download_server.run([*wrapper, program, "latest", *arguments], user="alice",
                                     env={"HOME": "/Users/alice"}, **options)
        assert result.stderr.splitlines() == [f"kpim: latest: {error}" for error in errors]
        assert result.status == status
        return result.stdout

    return run


@pytest.fixture
def answer(latest, download_server):
    """What kpim latest --json makes of the server's answer `content`."""

    def run(content, **options):
        download_server.offer(path_of(), content)
        output = latest("--json", **options)
        return json.loads(output) if output else None

    return run


def test_example(answer, download_server, install_root):
    assert answer(EXAMPLE) == {
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
    assert latest("--kind", "pep", status=1, errors=[NO_VERSION, NO_MESSAGE]) == ""
    assert download_server.requests() == [request(kind="pl"), request(kind="pep")]


def test_translated_locale(latest, download_server, install_root, build):
    """A program whose bundle has a strings table that names the locale."""
    install_root.mount(build / "bin/kpim", "/opt/localized/kpim")
    install_root.write("/opt/localized/Resources/kpim/en.lproj/Localizable.strings",
                       f'"{KEY}" = "en";\n')
    download_server.offer(path_of("en"), EXAMPLE)
    assert "32.0.0.270" in latest(program="/opt/localized/kpim")
    assert download_server.requests() == [request("en")]


def test_redirect(latest, download_server, install_root):
    configuration = install_root.path("/run/server/nginx.conf").read_text()
    download_server.configure(configuration.replace(
        "location " + CURRENT + "/install/",
        f"location = {CURRENT}{path_of()} {{ return 302 {CURRENT}/xml/other.xml; }}\n"
        "    location " + CURRENT + "/install/"))
    download_server.offer("/xml/other.xml", EXAMPLE)
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


@pytest.mark.parametrize("content, errors", [
    ("", [NO_VERSION, NO_MESSAGE]),
    ("<html>Not found</html>", [NO_VERSION, NO_MESSAGE]),
    (EXAMPLE.replace("32.0.0.270", ""), [NO_VERSION]),
    ('"><description>' + EXAMPLE, [NO_VERSION]),
    (EXAMPLE.replace("message", "text"), [NO_MESSAGE]),
    (EXAMPLE.encode() + b"\xff", [NO_VERSION, NO_MESSAGE]),
    (EXAMPLE.encode("utf-16"), [NO_VERSION, NO_MESSAGE]),
    (b"\0" * 1000, [NO_VERSION, NO_MESSAGE]),
])
def test_scan_that_fails(answer, install_root, content, errors):
    assert answer(content, status=1, errors=errors) is None
    size = len(content if isinstance(content, bytes) else content.encode())
    assert install_root.log("alice") == [
        f"[I]  VM: {size}", *(f"[E]  VM: ERROR: {error}" for error in errors)]


def test_page_that_is_missing(latest, download_server):
    assert latest(status=1, errors=[NO_VERSION, NO_MESSAGE]) == ""
    assert download_server.requests() == [request()]


def test_eight_megabytes(answer):
    message = " ;size \"é" * (8_000_000 // 10)
    assert answer(EXAMPLE.replace("A new version is available.", message))["message"] == message


# ---- Servers that never end

BUFFERED = 32 << 20


@pytest.mark.parametrize("kind, reason", [
    ("endless", "The reply is longer than 8388608 bytes."),
    ("endless trailers", "resource exceeds maximum size")])
def test_endless_answer(latest, download_server, install_root, kind, reason):
    download_server.kind = kind
    latest(status=1, errors=[f"URL download failed: {reason}", NOT_FETCHED],
           wrapper=install_root.within_memory(1 << 29))
    assert download_server.sent() < BUFFERED


def test_description_that_is_announced_too_long(latest, download_server):
    download_server.offer(path_of(), b" " * ((8 << 20) + 1))
    latest(status=1, errors=["URL download failed: The reply is longer than 8388608 bytes.",
                             NOT_FETCHED])


def test_too_little_memory(latest, download_server, install_root):
    limit = install_root.within_memory(100 << 20)
    if not limit:
        pytest.skip("a sanitizer reserves more than any limit")
    download_server.offer(path_of(), EXAMPLE.replace("A new version", "x" * 8_000_000))
    latest(status=1, errors=["Default zone has run out of memory"], wrapper=limit)


# ---- Servers that do not answer


def test_connection_refused(latest, download_server, install_root):
    download_server.kind = "none"
    reason = "URL download failed: Could not connect to the server."
    latest(status=1, errors=[reason, NOT_FETCHED])
    assert install_root.log("alice") == [f"[E]  VM: ERROR: {reason}",
                                         f"[E]  VM: ERROR: {NOT_FETCHED}"]


def test_name_that_does_not_resolve(latest, install_root):
    install_root.write("/etc/hosts", "127.0.0.1 localhost\n")
    latest(status=1, errors=["URL download failed: A server with the specified hostname could not "
                             "be found.", NOT_FETCHED])


@pytest.mark.parametrize("certificate, reason", [
    ("elsewhere", "The certificate for this server is invalid."),
    ("expired", "The certificate for this server has expired."),
    ("stranger", "The certificate for this server was signed by an unknown certifying authority.")])
def test_wrong_certificate(latest, download_server, certificate, reason):
    download_server.set_certificate(certificate)
    latest(status=1, errors=[f"URL download failed: {reason}", NOT_FETCHED])
    assert download_server.requests() == []


def test_silent_server(latest, download_server):
    download_server.kind = "silent"
    latest("--time-limit", "1", status=1, errors=["no complete answer within 1 second"],
           check_leaks=False)


def test_trickling_server(latest, download_server):
    """The limit is one of everything: a server that is never silent for long does not extend it."""
    download_server.configure(NGINX.replace("  server {", "  server {\n    limit_rate 10000;", 1))
    # It takes the server ten seconds.
    download_server.offer(path_of(), EXAMPLE + " " * 100_000)
    latest("--time-limit", "2", status=1, errors=["no complete answer within 2 seconds"],
           check_leaks=False)


def test_reason_is_told_without_a_log(latest, download_server, install_root):
    install_root.path("/Users/alice/Library/Logs").rmdir()
    download_server.kind = "none"
    latest(status=1, errors=["URL download failed: Could not connect to the server.", NOT_FETCHED])


# ---- The command line


@pytest.mark.parametrize("arguments", [
    ["--kind", "other"], ["--time-limit", "0"], ["--time-limit", "never"], ["--json=no"], ["more"]])
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
