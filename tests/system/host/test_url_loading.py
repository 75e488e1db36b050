"""http and https through Foundation's NSURLConnection on Linux, against servers of many kinds."""

import os
import shutil

import pytest

from install_root import libcurl
from url_sandbox import BIG_FILE_SIZE, UrlSandbox
from url_servers import (NGINX_PORT, NGINX_TLS_PORT, NO_CIPHER_PORT, NO_TLS_PORT, PLAIN_PORT,
                         SLOW_TLS_PORT, TLS_PORTS)

PLAIN = f"http://good.test:{PLAIN_PORT}"
TLS = f"https://good.test:{TLS_PORTS['good']}"
NGINX = f"http://good.test:{NGINX_PORT}"
NGINX_TLS = f"https://good.test:{NGINX_TLS_PORT}"

CANCELLED = ["0 cancel"]

BAD_URL = "-1000 bad URL"
TIMED_OUT = "-1001 The request timed out."
UNSUPPORTED = "-1002 unsupported URL"
NO_HOST = "-1003 A server with the specified hostname could not be found."
NO_CONNECTION = "-1004 Could not connect to the server."
LOST = "-1005 The network connection was lost."
TOO_MANY_REDIRECTS = "-1007 too many HTTP redirects"
OFFLINE = "-1009 The Internet connection appears to be offline."
NOWHERE = "-1010 redirected to nowhere"
UNPARSABLE = "-1017 cannot parse response"
TOO_LARGE = "-1103 resource exceeds maximum size"
NO_TLS = "-1200 An SSL error has occurred and a secure connection to the server cannot be made."
EXPIRED = "-1201 The certificate for this server has expired."
INVALID = "-1202 The certificate for this server is invalid."
UNKNOWN_ROOT = ("-1203 The certificate for this server was signed by an unknown certifying "
                "authority.")
TOO_EARLY = "-1204 The certificate for this server is not yet valid."


@pytest.fixture(scope="module")
def sandbox(build, tmp_path_factory):
    client = build / "tests/programs/url_client"
    assert os.access(client, os.X_OK), f"{client} is missing: build first"
    folder = tmp_path_factory.mktemp("urls")
    folder.chmod(0o755)
    sandbox = UrlSandbox(folder, client)
    yield sandbox
    sandbox.close()
    shutil.rmtree(folder)


def response(url, status=200, length=5, mime="text/plain", event="response", number=0):
    return f"{number} {event} {status} {length} {mime} {url}"


def failure(error, number=0):
    return f"{number} fail NSURLErrorDomain {error}"


def body_of(lines):
    """The data lines put together."""
    return "".join(line.split(" ", 2)[2] for line in lines if line.startswith("0 data "))


# Answers


@pytest.mark.parametrize("server", [PLAIN, TLS])
def test_plain_answer(sandbox, server):
    url = f"{server}/plain"
    assert sandbox.load(url, check_leaks=True) == ["0 started", response(url), "0 data hello", "0 finish 5"]


@pytest.mark.parametrize("server", [NGINX, NGINX_TLS])
def test_answer_of_a_real_server(sandbox, server):
    url = f"{server}/plain.txt"
    assert sandbox.load(url) == ["0 started", response(url), "0 data hello", "0 finish 5"]


def test_chunks_are_told_as_they_come(sandbox):
    url = f"{PLAIN}/in-turn"
    assert sandbox.load(url) == ["0 started", response(url, length=-1), "0 data one",
                                 "0 data two", "0 data three", "0 finish 11"]


def test_fields_of_one_name_are_joined(sandbox):
    assert "0 field a, b" in sandbox.load("--field", "x-list", f"{PLAIN}/twice")


def test_length_is_unknown_until_the_server_closes(sandbox):
    url = f"{PLAIN}/until-closed"
    lines = sandbox.load(url)
    assert lines[:2] == ["0 started", response(url, length=-1)]
    assert body_of(lines) == "firstsecond"
    assert lines[-1] == "0 finish 11"


def test_length_beyond_four_gigabytes(sandbox):
    url = f"{PLAIN}/huge"
    assert response(url, length=5000000000) in sandbox.load(url)


@pytest.mark.parametrize("url", [f"{PLAIN}/empty", f"{NGINX_TLS}/empty.txt"])
def test_empty_answer(sandbox, url):
    assert sandbox.load(url) == ["0 started", response(url, length=0), "0 finish 0"]


def test_answer_that_has_no_body(sandbox):
    lines = sandbox.load(f"{PLAIN}/no-content")
    assert lines[1].startswith("0 response 204 ")
    assert lines[2:] == ["0 finish 0"]


@pytest.mark.parametrize("path,status,body", [("missing", 404, "not here"), ("broken", 500, "sorry")])
def test_every_status_is_an_answer(sandbox, path, status, body):
    url = f"{PLAIN}/{path}"
    assert sandbox.load(url) == ["0 started", response(url, status=status, length=len(body)),
                                 f"0 data {body}", f"0 finish {len(body)}"]


def test_interim_answer_is_passed_over(sandbox):
    url = f"{PLAIN}/early-hints"
    assert sandbox.load(url) == ["0 started", response(url), "0 data hello", "0 finish 5"]


def test_body_is_not_decoded_against_the_length(sandbox):
    url = f"{PLAIN}/coded"
    assert sandbox.load(url) == ["0 started", response(url, length=15), "0 data not really gzip",
                                 "0 finish 15"]


def test_big_body_comes_in_pieces(sandbox):
    lines = sandbox.load("--summary", f"{NGINX_TLS}/big.bin")
    checksum = 0
    for byte in range(256):  # The file repeats these 256 bytes.
        checksum = checksum * 31 + byte
    total, factor = 0, pow(31, 256, 2 ** 32)
    for _ in range(BIG_FILE_SIZE // 256):
        total = (total * factor + checksum) % 2 ** 32
    assert lines[2] == f"0 finish {BIG_FILE_SIZE}"
    _, _, largest, _, found = lines[3].split()
    assert int(found) == total
    assert int(largest) < 8 * 1024 * 1024


def test_big_body_does_not_stay_in_memory(sandbox):
    big = sandbox.usage(f"{NGINX}/big.bin")
    small = sandbox.usage(f"{NGINX}/plain.txt")
    assert big["memory"] - small["memory"] < BIG_FILE_SIZE / 2


def test_two_loads_at_once(sandbox):
    lines = sandbox.load(f"{PLAIN}/last", f"{PLAIN}/plain")
    assert lines.index("1 finish 5") < lines.index("0 finish 4")


# Requests


def test_path_is_sent_as_given(sandbox):
    path = ("/get/korvelplayer/update/current/install/version.xml32.0.0.269~installVector=15&os=mac"
            "&osVer=(null)&playerType=pep&lang=en_gb/../a/./b%7e")
    sandbox.load(f"{NGINX_TLS}{path}#fragment")
    assert sandbox.nginx_requests()[-1] == f"GET {path} HTTP/1.1"


def test_headers_of_a_request(sandbox):
    head = body_of(sandbox.load(f"{PLAIN}/echo")).split("|")
    assert head[0] == "GET /echo HTTP/1.1"
    assert "Accept-Encoding: identity" in head
    agent = [line for line in head if line.startswith("User-Agent: ")]
    assert len(agent) == 1
    assert agent[0].startswith("User-Agent: url_client/(unknown version) libcurl/")


@pytest.mark.parametrize("options", [
    ("--method", "HEAD"), ("--method", "POST"), ("--body", "a=b"), ("--header", "X-A=b")])
def test_only_plain_get_is_supported(sandbox, options):
    assert sandbox.load(*options, f"{PLAIN}/echo") == ["0 started", failure("-1 unknown error")]


def test_no_cookies_are_kept(sandbox):
    echo = body_of(sandbox.load(f"{PLAIN}/cookie"))
    assert echo.startswith("GET /echo HTTP/1.1|")
    assert "cookie" not in echo.lower()


def test_environment_names_no_proxy(sandbox):
    proxy = "http://127.0.0.1:1"
    url = f"{PLAIN}/plain"
    lines = sandbox.load(url, environment={"http_proxy": proxy, "all_proxy": proxy,
                                           "https_proxy": proxy, "ALL_PROXY": proxy})
    assert lines[-1] == "0 finish 5"


def test_password_file_is_not_read(sandbox):
    sandbox.path(".netrc").write_text("machine good.test login me password secret\n")
    echo = body_of(sandbox.load(f"{PLAIN}/echo", environment={"HOME": str(sandbox.path("."))}))
    assert "authorization" not in echo.lower()


# Redirects


def test_redirect_is_told_and_followed(sandbox):
    target = f"{TLS}/plain"
    assert sandbox.load(f"{PLAIN}/absolute", check_leaks=True) == [
        "0 started", response(f"{PLAIN}/absolute", status=302, event="redirect"),
        f"0 to GET {target}", response(target), "0 data hello", "0 finish 5"]


def test_redirect_of_a_real_server(sandbox):
    lines = sandbox.load(f"{NGINX}/moved")
    assert lines[1].startswith("0 redirect 301 ")
    assert lines[2:] == [f"0 to GET {NGINX_TLS}/plain.txt", response(f"{NGINX_TLS}/plain.txt"),
                         "0 data hello", "0 finish 5"]


@pytest.mark.parametrize("path,target,body", [
    ("relative", "/plain", "hello"), ("to-blanks", "/a%20b", "blank"),
    ("to-plain-http", "/plain", "hello")])
def test_redirect_targets(sandbox, path, target, body):
    lines = sandbox.load(f"{PLAIN}/{path}")
    assert f"0 to GET {PLAIN}{target}" in lines
    assert lines[-2:] == [f"0 data {body}", "0 finish 5"]


@pytest.mark.parametrize("path", ["found", "see-other", "temporary", "permanent"])
def test_every_redirect_is_a_get(sandbox, path):
    assert body_of(sandbox.load(f"{PLAIN}/{path}")).startswith("GET /echo HTTP/1.1|")


def test_redirect_from_https_to_http_is_followed(sandbox):
    assert sandbox.load(f"{TLS}/to-plain-http")[-2:] == ["0 data hello", "0 finish 5"]


def test_certificate_is_checked_after_a_redirect(sandbox):
    lines = sandbox.load(f"{PLAIN}/to-wrong-host")
    assert lines[1].startswith("0 redirect 302 ")
    assert lines[3:] == [failure(INVALID)]


def test_redirect_target_that_is_not_ascii(sandbox):
    lines = sandbox.load(f"{PLAIN}/to-accent")
    assert body_of(lines).startswith("GET /caf%c3%a9 HTTP/1.1|")


def test_sixteen_redirects(sandbox):
    assert sandbox.load(f"{PLAIN}/chain/16")[-1] == "0 finish 7"


@pytest.mark.parametrize("url", [f"{PLAIN}/chain/17", f"{PLAIN}/loop", f"{NGINX_TLS}/again"])
def test_too_many_redirects(sandbox, url):
    lines = sandbox.load(url)
    assert lines[-1] == failure(TOO_MANY_REDIRECTS)
    assert len([line for line in lines if line.startswith("0 redirect ")]) == 16


@pytest.mark.parametrize("path,error", [
    ("to-file", UNSUPPORTED), ("to-ftp", UNSUPPORTED), ("to-javascript", UNSUPPORTED),
    ("to-nowhere", NOWHERE)])
def test_redirect_to_where_nothing_can_be_loaded(sandbox, path, error):
    assert sandbox.load(f"{PLAIN}/{path}") == ["0 started", failure(error)]


def test_redirect_without_location_is_an_answer(sandbox):
    url = f"{PLAIN}/no-location"
    assert sandbox.load(url) == ["0 started", response(url, status=302, length=4), "0 data stay",
                                 "0 finish 4"]


@pytest.mark.parametrize("path,status", [("choices", 300), ("not-modified", 304)])
def test_location_of_another_status_is_not_followed(sandbox, path, status):
    lines = sandbox.load(f"{PLAIN}/{path}")
    assert lines[1].startswith(f"0 response {status} ")
    assert not [line for line in lines if "redirect" in line]


def test_refused_redirect_is_an_answer(sandbox):
    url = f"{PLAIN}/loop"
    assert sandbox.load("--refuse-redirect", url) == [
        "0 started", response(url, status=302, event="redirect"), f"0 to GET {url}",
        response(url, status=302), "0 data moved", "0 finish 5"]


# Failures, in both modes

FAILURES = [
    (f"{PLAIN}/short", LOST), (f"{PLAIN}/short-chunk", LOST), (f"{PLAIN}/reset", LOST),
    (f"{TLS}/short", LOST), (f"{PLAIN}/hang-up", LOST), (f"{PLAIN}/half-head", LOST),
    (f"{PLAIN}/bad-chunk", LOST), (f"{PLAIN}/endless-head", LOST),
    (f"{PLAIN}/endless-trailers", TOO_LARGE),
    (f"{PLAIN}/endless-hints", LOST),  # libcurl bounds heads itself.
    (f"{PLAIN}/garbage", UNPARSABLE), (f"{PLAIN}/bad-length", UNPARSABLE),
    ("http://good.test:1/", NO_CONNECTION), ("https://good.test:1/", NO_CONNECTION),
    ("http://192.0.2.1/", OFFLINE),
    ("http://unknown.test/", NO_HOST), ("https://unknown.test/", NO_HOST),
    (f"https://good.test:{TLS_PORTS['expired']}/plain", EXPIRED),
    (f"https://good.test:{TLS_PORTS['early']}/plain", TOO_EARLY),
    (f"https://good.test:{TLS_PORTS['elsewhere']}/plain", INVALID),
    (f"https://other.test:{TLS_PORTS['good']}/plain", INVALID),
    (f"https://good.test:{TLS_PORTS['stranger']}/plain", UNKNOWN_ROOT),
    (f"https://good.test:{TLS_PORTS['selfsigned']}/plain", UNKNOWN_ROOT),
    (f"https://good.test:{NO_TLS_PORT}/plain", NO_TLS),
    (f"https://good.test:{NO_CIPHER_PORT}/plain", NO_TLS),
    ("http://", BAD_URL), ("https:///path", BAD_URL), ("no-scheme", UNSUPPORTED),
    ("two words", UNSUPPORTED), ("http://good.test/\n", UNSUPPORTED),
    (f"{PLAIN}/to-file", UNSUPPORTED), (f"{PLAIN}/loop", TOO_MANY_REDIRECTS),
    (f"{PLAIN}/silence", TIMED_OUT), (f"{PLAIN}/stall", TIMED_OUT), (f"{TLS}/silence", TIMED_OUT),
]


def limit_for(error):
    """The time-out of a load that must fail with `error`: short only if the load waits for it."""
    return ("--timeout", "1.5" if error == TIMED_OUT else "30")


@pytest.mark.parametrize("url,error", FAILURES)
def test_failure(sandbox, url, error):
    lines = sandbox.load(*limit_for(error), url)
    assert lines[-1] == failure(error)
    assert not [line for line in lines if "finish" in line]


@pytest.mark.parametrize("url,error", FAILURES)
def test_failure_of_a_synchronous_load(sandbox, url, error):
    lines = sandbox.load("--sync", *limit_for(error), url)
    if error != TIMED_OUT:  # Foundation also detects a time-out.
        assert lines[-1] == failure(error)
    else:
        assert lines[-1].startswith("0 fail NSURLErrorDomain -1001 ")


def test_what_came_before_a_drop_is_told(sandbox):
    url = f"{PLAIN}/short"
    assert sandbox.load(url, check_leaks=True) == ["0 started", response(url, length=1000, mime="text/plain"),
                                 "0 data part", failure(LOST)]


def test_certificate_is_checked_before_anything_is_asked(sandbox):
    before = len(sandbox.nginx_requests())
    sandbox.load(f"https://other.test:{NGINX_TLS_PORT}/plain.txt")
    assert len(sandbox.nginx_requests()) == before


def test_environment_cannot_widen_trust(sandbox):
    trust = {"SSL_CERT_FILE": str(sandbox.path("unknown.crt")),
             "CURL_CA_BUNDLE": str(sandbox.path("unknown.crt")),
             "SSL_CERT_DIR": str(sandbox.path("."))}
    lines = sandbox.load(f"https://good.test:{TLS_PORTS['stranger']}/plain", environment=trust)
    assert lines[-1] == failure(UNKNOWN_ROOT)


# Size

# The longest body of a synchronous load.
MOST_BYTES = 256 * 1024 * 1024
# Headers, interim ones and trailers included.
MOST_HEAD_BYTES = 1024 * 1024


@pytest.mark.parametrize("url", [f"{PLAIN}/endless-body", f"{PLAIN}/length/{MOST_BYTES + 1}"])
def test_synchronous_load_that_is_too_large(sandbox, url):
    assert sandbox.load("--sync", url)[-1] == failure(TOO_LARGE)


def test_largest_synchronous_load(sandbox):
    assert sandbox.load("--sync", f"{PLAIN}/length/{MOST_BYTES}")[-1] == f"0 finish {MOST_BYTES}"


def test_asynchronous_load_may_be_larger(sandbox):
    lines = sandbox.load("--summary", f"{PLAIN}/length/{MOST_BYTES + 1}")
    assert f"0 finish {MOST_BYTES + 1}" in lines


@pytest.mark.parametrize("path", ["endless-trailers", "endless-hints"])
def test_endless_headers_do_not_stay_in_memory(sandbox, path):
    endless = sandbox.usage(f"{PLAIN}/{path}")
    small = sandbox.usage(f"{PLAIN}/plain")
    assert endless["memory"] - small["memory"] < 32 * 1024 * 1024


@pytest.mark.parametrize("size,end", [(MOST_HEAD_BYTES - 10, "0 finish 4"),
                                      (MOST_HEAD_BYTES + 10, failure(TOO_LARGE))])
def test_size_of_headers_and_trailers(sandbox, size, end):
    assert sandbox.load(f"{PLAIN}/trailers/{size}")[-1] == end


# Time

# Seconds, much more than the time-outs of these tests and much less than the longer times that may
# not apply: those of the name's look-up, of libcurl, and of a request by default.
SOON = 20


def test_slow_first_byte(sandbox):
    assert sandbox.load("--timeout", "30", f"{PLAIN}/slow-first")[-1] == "0 finish 4"
    assert sandbox.load("--timeout", "1", f"{PLAIN}/silence")[-1] == failure(TIMED_OUT)


def test_timeout_is_of_idle_time(sandbox):
    """Each piece from the server restarts the timer."""
    trace = sandbox.path("trace")
    lines = sandbox.load("--timeout", "77", f"{PLAIN}/in-turn", wrapper=[
        "strace", "-f", "-e", "trace=timerfd_settime,write", "-o", str(trace)])
    assert lines[-1] == "0 finish 11"
    after_pieces = trace.read_text().split('"0 data ')[1:]
    assert len(after_pieces) == 3
    for calls in after_pieces:
        assert "it_value={tv_sec=77," in calls


def test_timeout_is_not_of_the_whole(sandbox):
    assert sandbox.load("--timeout", "5", f"{PLAIN}/drip")[-1] == "0 finish 8"


def test_timeout_of_the_tls_handshake_is_of_the_whole(sandbox):
    lines = sandbox.load("--timeout", "1", f"https://good.test:{SLOW_TLS_PORT}/", limit=SOON)
    assert lines[-1] == failure(TIMED_OUT)


def test_timeout_stays_the_same_after_a_redirect(sandbox):
    lines = sandbox.load("--timeout", "1", f"{PLAIN}/to-stall", limit=SOON)
    assert lines[-2:] == ["0 data part", failure(TIMED_OUT)]


@pytest.mark.parametrize("options,end", [
    (["--timeout", "1"], failure(TIMED_OUT)),
    (["--timeout", "1", "--sync"], "0 fail NSURLErrorDomain -1001 "),
    (["--cancel-after", "0.3"], "0 cancel")])
def test_name_lookup_is_not_waited_for(sandbox, options, end):
    lines = sandbox.load(*options, "http://silent.test/", check_leaks=True, limit=SOON)
    assert lines[-1].startswith(end)


def test_synchronous_load_never_takes_longer_than_its_timeout(sandbox):
    lines = sandbox.load("--sync", "--timeout", "1.2", f"{PLAIN}/drip")
    assert lines[-1].startswith("0 fail NSURLErrorDomain -1001 ")


def test_waiting_is_not_busy(sandbox):
    assert sandbox.usage(f"{PLAIN}/slow-first")["turns"] < 30


# Cancelling


@pytest.mark.parametrize("callback,path", [("redirect", "loop"), ("response", "plain"),
                                           ("data", "chunked")])
def test_nothing_follows_a_cancel_inside_a_callback(sandbox, callback, path):
    lines = sandbox.load("--cancel-in", callback, f"{PLAIN}/{path}", check_leaks=True)
    assert lines[-1:] == CANCELLED
    assert not [line for line in lines if "finish" in line or "fail" in line]


@pytest.mark.parametrize("url", [f"{PLAIN}/silence", f"{PLAIN}/stall", f"{TLS}/silence"])
def test_nothing_follows_a_cancel_while_waiting(sandbox, url):
    assert sandbox.load("--cancel-after", "0.3", url, check_leaks=True)[-1:] == CANCELLED


def test_released_connection_continues(sandbox):
    url = f"{PLAIN}/in-turn"
    assert sandbox.load("--release", url, check_leaks=True) == [
        "0 started", response(url, length=-1), "0 data one", "0 data two", "0 data three",
        "0 finish 11"]


# Surroundings


def test_synchronous_answers(sandbox):
    lines = sandbox.load("--sync", f"{PLAIN}/absolute", f"{PLAIN}/chunked", f"{PLAIN}/missing",
                         f"{PLAIN}/empty", f"{NGINX_TLS}/big.bin",
                         check_leaks=True)
    assert [line for line in lines if "finish" in line] == [
        "0 finish 5", "1 finish 11", "2 finish 8", "3 finish 0", f"4 finish {BIG_FILE_SIZE}"]


@pytest.mark.parametrize("home", [{}, {"HOME": "/nonexistent"}, {"HOME": "/proc"}])
def test_home_is_not_needed(sandbox, home):
    assert sandbox.load(f"{TLS}/plain", environment=home)[-1] == "0 finish 5"


def test_nothing_is_left_in_the_home(sandbox):
    """The account's home, which Foundation takes from the passwd file, is empty afterwards."""
    home = sandbox.path("home")
    home.mkdir()
    passwd = sandbox.path("passwd")
    passwd.write_text(f"root:x:0:0:root:{home}:/bin/sh\n")
    lines = sandbox.load(f"{TLS}/plain", wrapper=[
        "bwrap", "--dev-bind", "/", "/", "--ro-bind", str(passwd), "/etc/passwd", "--"])
    assert lines[-1] == "0 finish 5"
    assert list(home.iterdir()) == []


def test_no_descriptors_are_left_to_use(sandbox):
    answer = sandbox.run(["sh", "-c", 'ulimit -n 7; exec "$@"', "sh", sandbox.client, "--sync",
                          "--timeout", "1.5", f"{PLAIN}/plain"])
    assert (answer["status"], answer["stdout"]) == (0, failure("-1 unknown error") + "\n")


# Without a usable libcurl


def reasons_with_libcurl(sandbox, replacement):
    """The reasons of two requests that fail with the file `replacement` in libcurl's place: the
    second repeats the first's."""
    urls = [f"{PLAIN}/plain", f"{PLAIN}/plain"]
    lines = sandbox.load("--sync", "--reason", *urls, wrapper=[
        "bwrap", "--dev-bind", "/", "/", "--ro-bind", str(replacement), libcurl(), "--"])
    assert [lines[0], lines[2]] == [failure("-1 unknown error", number) for number in (0, 1)]
    return [lines[2 * number + 1].removeprefix(f"{number} because ") for number in (0, 1)]


def test_request_without_libcurl_fails(sandbox):
    first, second = reasons_with_libcurl(sandbox, "/dev/null")
    assert "libcurl.so.4" in first
    assert second == first


def test_request_with_an_old_libcurl_fails(sandbox, build):
    assert reasons_with_libcurl(sandbox, build / "tests/programs/old_libcurl.so") == [
        "libcurl 7.86.0 is too old: 7.87.0 or later is needed"] * 2
