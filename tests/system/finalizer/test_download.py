"""Downloads through KPIMDownload, in both modes, against servers of many kinds."""

import os
import re
import shutil

import pytest

from url_sandbox import BIG_FILE_SIZE, UrlSandbox
from url_servers import NGINX_PORT, NGINX_TLS_PORT, PLAIN_PORT, TLS_PORTS

PLAIN = f"http://good.test:{PLAIN_PORT}"
TLS = f"https://good.test:{TLS_PORTS['good']}"
NGINX = f"http://good.test:{NGINX_PORT}"
NGINX_TLS = f"https://good.test:{NGINX_TLS_PORT}"

ASYNC = "--async"
NO_PATH = "path (absent)"
TOO_EARLY = "[E] ERROR: attempt to access downloaded data before download was completed."


@pytest.fixture(scope="module")
def sandbox(build, tmp_path_factory):
    client = build / "tests/programs/download_client"
    assert os.access(client, os.X_OK), f"{client} is missing: build first"
    folder = tmp_path_factory.mktemp("downloads")
    folder.chmod(0o755)
    sandbox = UrlSandbox(folder, client)
    yield sandbox
    sandbox.close()
    shutil.rmtree(folder)


@pytest.fixture
def download(sandbox, tmp_path):
    """Downloads a URL; the result has the client's output, the body and the log."""

    class Download:
        def __init__(self, url, *arguments):
            self.lines = sandbox.load("--log", tmp_path / "log", "--body", tmp_path / "body",
                                      *arguments, url, check_leaks=ASYNC in arguments)
            body = tmp_path / "body"
            self.body = body.read_bytes() if body.exists() else None
            stamp = r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d [+-]\d{4} "
            self.log = [re.sub(stamp, "", line)
                        for line in (tmp_path / "log").read_text().splitlines()]

    return Download


def without_progress(lines):
    """The lines without the number of chunks, which depends on the network."""
    return [line for line in lines if not line.startswith("progress ")]


BODIES = [
    (f"{NGINX}/plain.txt", b"hello"),
    (f"{NGINX_TLS}/plain.txt", b"hello"),
    (f"{NGINX}/empty.txt", b""),
    (f"{PLAIN}/chunked", b"onetwothree"),
    (f"{TLS}/chunked", b"onetwothree"),
    (f"{PLAIN}/until-closed", b"firstsecond"),
    (f"{NGINX_TLS}/moved", b"hello"),
    (f"{PLAIN}/chain/3", b"arrived"),
    (f"{PLAIN}/missing", b"not here"),
    (f"{PLAIN}/broken", b"sorry"),
    (f"{PLAIN}/slow-first", b"late"),
]


@pytest.mark.parametrize("url, body", BODIES)
def test_synchronous(download, url, body):
    result = download(url)
    assert result.lines == [f"body {len(body)}", NO_PATH], "the delegate hears nothing"
    assert result.body == body
    assert result.log == []


@pytest.mark.parametrize("url, body", BODIES)
def test_asynchronous(download, url, body):
    result = download(url, ASYNC)
    assert without_progress(result.lines) == ["complete", f"body {len(body)}", NO_PATH]
    assert result.body == body
    assert result.log == [f"[I] {len(body)}"]


def test_chunks_come_as_they_are_sent(download):
    lines = download(f"{PLAIN}/in-turn", ASYNC).lines
    assert lines[:4] == ["progress 1", "progress 2", "progress 3", "complete"]


def test_page_that_nginx_does_not_have(download):
    # A status is not a failure: the page that describes it is the body.
    result = download(f"{NGINX}/nowhere", ASYNC)
    assert result.lines[-3] == "complete"
    assert b"404 Not Found" in result.body


@pytest.mark.parametrize("mode", [[], [ASYNC]])
def test_fifty_megabytes(download, sandbox, mode):
    result = download(f"{NGINX}/big.bin", *mode)
    assert result.lines[-2] == f"body {BIG_FILE_SIZE}"
    assert result.body == sandbox.path("www/big.bin").read_bytes()


def test_file(download, tmp_path):
    folder = tmp_path / "to"
    folder.mkdir()
    (folder / "body").write_text("an older and longer download")
    result = download(f"{NGINX}/plain.txt", ASYNC, "--directory", folder, "--filename", "body")
    assert without_progress(result.lines) == ["complete", "body 5", f"path {folder / 'body'}"]
    assert (folder / "body").read_bytes() == b"hello"
    assert result.body == b"hello", "in memory as well"


def test_big_file(download, sandbox, tmp_path):
    download(f"{NGINX}/big.bin", ASYNC, "--directory", tmp_path, "--filename", "big")
    assert (tmp_path / "big").read_bytes() == sandbox.path("www/big.bin").read_bytes()


def test_file_of_an_empty_body(download, tmp_path):
    download(f"{NGINX}/empty.txt", ASYNC, "--directory", tmp_path, "--filename", "empty")
    assert not (tmp_path / "empty").exists(), "the first chunk creates it, and there is none"


def test_missing_folder(download, tmp_path):
    missing = tmp_path / "missing"
    result = download(f"{NGINX}/plain.txt", ASYNC, "--directory", missing, "--filename", "body")
    assert without_progress(result.lines) == ["complete", "body 5", NO_PATH]
    assert result.log == [
        f"[E] ERROR: The file path passed into the downloader does not exist: {missing}",
        "[E] Keeping data in memory instead.", "[I] 5"]


TIMED_OUT = "The request timed out."

FAILURES = [
    (f"{PLAIN}/short", "The network connection was lost."),
    (f"{PLAIN}/reset", "The network connection was lost."),
    (f"{PLAIN}/silence", TIMED_OUT),
    (f"{PLAIN}/stall", TIMED_OUT),
    ("http://good.test:9/", "Could not connect to the server."),
    ("http://nobody.test/", "A server with the specified hostname could not be found."),
    (f"https://good.test:{TLS_PORTS['expired']}/plain",
     "The certificate for this server has expired."),
]


def limit_for(reason):
    """The time-out of a download that must fail with `reason`: short only if the download waits for
    it."""
    return ("--time-out", "1" if reason == TIMED_OUT else "30")


@pytest.mark.parametrize("url, reason", FAILURES)
def test_asynchronous_failure(download, url, reason):
    result = download(url, ASYNC, *limit_for(reason))
    assert without_progress(result.lines) == ["fail", "body (absent)", NO_PATH]
    assert result.log == [f"[E] ERROR: URL download failed: {reason}", TOO_EARLY]


@pytest.mark.parametrize("url, reason", FAILURES)
def test_synchronous_failure(download, url, reason):
    result = download(url, *limit_for(reason))
    assert result.lines == ["body 0", NO_PATH]
    assert result.log == []


def test_cancelled_download_hears_nothing_more(download):
    result = download(f"{NGINX}/big.bin", ASYNC, "--cancel-at", "2")
    assert result.lines == ["progress 1", "progress 2", "cancelled", "body (absent)", NO_PATH]
    assert result.log == [TOO_EARLY]
