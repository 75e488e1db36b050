"""The tests' own tools do what their documentation says."""

import subprocess

import pytest

import blob
import system_calls


def test_network_is_loopback_only(install_root):
    interfaces = install_root.execute(["cat", "/proc/net/dev"]).stdout.splitlines()[2:]
    assert [line.split(":")[0].strip() for line in interfaces] == ["lo"]


def test_open_is_recorded(install_root):
    result = install_root.execute(["/usr/bin/open", "http://host/a b", ""])
    assert result.status == 0
    assert install_root.open_calls() == [["http://host/a b", ""]]


def test_a_call_of_open_that_nobody_waits_for_is_recorded(install_root):
    install_root.execute(["sh", "-c", "(sleep 0.3; open late) &"])
    assert install_root.open_calls() == [["late"]]


def test_nothing_of_the_host_can_be_written(install_root):
    script = "for d in /usr /usr/lib /usr/bin.host /etc/ssl; do test -w $d && echo $d; done"
    # /usr itself belongs to the root; the folders below it are the host's.
    assert install_root.execute(["sh", "-c", script]).stdout == "/usr\n"


def test_runs_as_another_user(install_root):
    result = install_root.execute(["id", "-u"], user="bob")
    assert (result.status, result.stdout) == (0, "1002\n")


def test_a_program_that_hangs_is_ended(install_root):
    with pytest.raises(subprocess.TimeoutExpired):
        install_root.execute(["sleep", "600"], timeout=0.5)


def test_exit_status_and_output_come_back(install_root):
    result = install_root.execute(["sh", "-c", "echo out; echo err >&2; exit 3"])
    assert (result.status, result.stdout, result.stderr) == (3, "out\n", "err\n")


def test_encoder_agrees_with_liblzma():
    content = bytes(range(256)) * 8 + b"\xff" * 5000 + b"abc" * 500 + b"\0" * 3000
    (entry,) = blob.decode(blob.compressed("name", content, is_directory=False))
    assert (entry.name, entry.compression, entry.content) == (b"name", blob.LZMA, content)


@pytest.mark.parametrize("compress", [False, True])
def test_packed_bundle_is_read_back(bundle, compress):
    (root,) = blob.decode(blob.pack(bundle, compress))
    assert root.name == b"" and root.is_directory
    expected = {str(path.relative_to(bundle)): path.read_bytes() if path.is_file() else None
                for path in bundle.rglob("*")}
    assert blob.files_of([root]) == expected


@pytest.mark.parametrize("lines, failed", [
    (["5     fcntl(6</>, F_SETFD, FD_CLOEXEC) = -1 EINTR (Interrupted system call) (INJECTED)"], True),
    (["5     fcntl(6</>, F_SETFD, FD_CLOEXEC <unfinished ...>", "7     fcntl(0</dev/null>, F_GETFL) = 0",
      "5     <... fcntl resumed>)                = -1 EINTR (Interrupted system call) (INJECTED)"], True),
    (["5     fcntl(6</>, F_SETFD, FD_CLOEXEC) = 0"], False),
    (["5     fcntl(6</tmp>, F_SETFD, FD_CLOEXEC) = -1 EINTR (Interrupted system call) (INJECTED)"], False),
])
def test_failed_call_is_found(tmp_path, lines, failed):
    (tmp_path / "trace").write_text("\n".join(lines) + "\n")
    call = system_calls.Call("fcntl", "", 29, is_followed=True)
    assert system_calls.has_failed(tmp_path / "trace", call) == failed
