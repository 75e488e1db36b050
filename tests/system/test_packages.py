"""The packages that cpack makes, and the shell completions in them."""

import os
import pty
import re
import select
import subprocess
import time

import pytest

from install_root import REPOSITORY, tree_of

COMPLETIONS = REPOSITORY / "tools/kpim/completions"
COMMANDS = ["pack", "list", "verify", "unpack", "check", "latest"]


def options_of(kpim, *command):
    """The long options that --help tells of."""
    text = subprocess.run([kpim, *command, "--help"], check=True, text=True,
                          stdout=subprocess.PIPE).stdout
    return set(re.findall(r"(--[a-z][a-z-]+)(?=[ \n\]]|$|:)", text.split("Options:")[1]
                          .split("\n\n")[0]))


def complete(*words):
    """What bash offers for the last of `words`."""
    script = f"""source {COMPLETIONS}/kpim.bash
COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _kpim; printf '%s\\n' "${{COMPREPLY[@]}}" """
    output = subprocess.run(["bash", "-c", script, "bash", *words], check=True, text=True,
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT).stdout
    return set(output.split("\n")) - {""}


def test_completion_of_commands(kpim):
    assert complete("kpim", "") == {*COMMANDS, "--help", "--version"}
    assert complete("kpim", "p") == {"pack"}
    help_text = subprocess.run([kpim, "--help"], check=True, text=True,
                               stdout=subprocess.PIPE).stdout
    told = set(re.findall(r"^  ([a-z]+)  ", help_text.split("Subcommands:")[1], re.M))
    assert told == set(COMMANDS)


@pytest.mark.parametrize("command", COMMANDS)
def test_completion_of_options(kpim, command):
    assert complete("kpim", command, "-") == options_of(kpim, command)


class Zsh:
    """An interactive zsh on a terminal of its own, in `folder`. To be closed."""

    SECONDS = 20

    def __init__(self, kpim, folder):
        self._terminal, side = pty.openpty()
        path = f"{os.path.dirname(kpim)}:/usr/bin:/bin"
        self._process = subprocess.Popen(
            ["zsh", "-f", "-i"], stdin=side, stdout=side, stderr=side, start_new_session=True,
            cwd=folder, env={"PATH": path, "TERM": "dumb", "LC_ALL": "C", "HOME": str(folder)})
        os.close(side)
        self._said = b""
        try:
            self._type(f"bindkey -e; fpath=('{COMPLETIONS}' $fpath); autoload -Uz compinit\n"
                       "compinit -u -D; print -r -- rea''dy\n")
            self._await(rb"(ready)\r")
        except BaseException:
            self.close()
            raise

    def close(self):
        self._process.kill()
        self._process.wait()
        os.close(self._terminal)

    def completed(self, line):
        """What the Tab key makes of the line, without a blank at the end."""
        self._said = b""
        # Then the line is quoted and printed.
        self._type(f"{line}\t\x01print -r -- '<\x05>'\n")
        return self._await(rb"(?m)^<([^\r\n]*)>\r").decode().rstrip()

    def _type(self, text):
        os.write(self._terminal, text.encode())

    def _await(self, pattern):
        end = time.monotonic() + self.SECONDS
        while time.monotonic() < end:
            found = re.search(pattern, self._said)
            if found:
                return found.group(1)
            if select.select([self._terminal], [], [], 0.1)[0]:
                try:
                    self._said += os.read(self._terminal, 4096)
                except OSError:  # EIO: the shell has ended.
                    break
        raise AssertionError(self._said.decode(errors="replace"))


@pytest.fixture
def zsh(kpim, tmp_path):
    shell = Zsh(kpim, tmp_path)
    yield shell
    shell.close()


@pytest.mark.parametrize("command", COMMANDS)
def test_zsh_completes_commands_and_options(kpim, zsh, command):
    assert zsh.completed(f"kpim {command[:-1]}") == f"kpim {command}"
    options = options_of(kpim, command)
    for option in options:
        assert zsh.completed(f"kpim {command} {option[:-1]}") == f"kpim {command} {option}"
    told = (COMPLETIONS / "_kpim").read_text()
    part = re.search(rf"^  {command}\)(.*?);;", told, re.M | re.S).group(1)
    assert options == {"--help", *re.findall(r"--[a-z][a-z-]+", part)}


def test_zsh_completes_values(zsh, tmp_path):
    assert zsh.completed("kpim latest --kind pe") == "kpim latest --kind pep"
    (tmp_path / "folder").mkdir()
    (tmp_path / "file").touch()
    assert zsh.completed("kpim pack f") == "kpim pack folder"
    assert zsh.completed("kpim list fi") == "kpim list file"


def test_completion_of_values(tmp_path):
    assert complete("kpim", "latest", "--kind", "") == {"pep", "pl"}
    assert complete("kpim", "latest", "--time-limit", "") == set()
    (tmp_path / "folder").mkdir()
    (tmp_path / "file").touch()
    start = str(tmp_path) + "/f"
    assert complete("kpim", "pack", start) == {start + "older"}
    assert complete("kpim", "list", start) == {start + "older", start + "ile"}


@pytest.fixture(scope="module")
def packages(build, tmp_path_factory):
    """The Debian package and the tarball of the build."""
    if build.name == "asan":
        pytest.skip("packages are made of a build without sanitizers")
    folder = tmp_path_factory.mktemp("packages")
    done = subprocess.run(["cpack", "-D", f"CPACK_OUTPUT_FILE_PREFIX={folder}"], cwd=build, text=True, stdout=subprocess.PIPE, umask=0o022,
                          stderr=subprocess.STDOUT, check=False)
    assert done.returncode == 0, done.stdout
    (deb,) = folder.glob("*.deb")
    (tarball,) = folder.glob("*.tar.gz")
    return deb, tarball


def test_debian_package_names_its_libraries(packages):
    fields = subprocess.run(["dpkg-deb", "--field", packages[0]], check=True, text=True,
                            stdout=subprocess.PIPE).stdout
    assert re.search(r"^Package: kpinstallmanager$", fields, re.M)
    assert re.search(r"^Version: 32\.0\.0\.269$", fields, re.M)
    depends = re.search(r"^Depends: (.*)$", fields, re.M).group(1)
    for library in ("libc6", "libcurl4", "libgnustep-base1.28", "libobjc4", "libsystemd0"):
        assert re.search(rf"(^|, ){re.escape(library)}( |,|$)", depends), library
    # The first with all the options that are set.
    assert "libcurl4 (>= 7.87)" in depends


def check_runs(booted, kpim, finalizer, bundle):
    assert booted.ask(kpim, "--version").endswith("32.0.0.269")
    booted.ask("rm", "-rf", "/Library", "/root/try")
    for path in sorted(bundle.rglob("*")):
        inside = f"/root/try/bundle/{path.relative_to(bundle)}"
        if path.is_dir():
            booted.path(inside).mkdir(parents=True, exist_ok=True)
        else:
            booted.write(inside, path.read_bytes())
    folder = "/Library/Internet Plug-Ins/PepperKorvelPlayer"
    booted.path(folder).mkdir(parents=True)
    booted.path("/Library/Logs").mkdir()
    target = folder + "/PepperKorvelPlayer.plugin"
    booted.ask(kpim, "pack", "/root/try/bundle", "-o", target + ".lzma", "--sort")
    booted.ask(finalizer, "/")
    assert {name: node.content for name, node in tree_of(booted.path(target)).items()} == {
        name: node.content for name, node in tree_of(bundle).items()}
    booted.ask("rm", "-rf", "/Library", "/root/try")


def test_debian_package_installs_and_runs(booted, packages, bundle):
    booted.write("/root/it.deb", packages[0].read_bytes())
    booted.ask("dpkg", "--install", "/root/it.deb")
    try:
        check_runs(booted, "/usr/bin/kpim", "/usr/libexec/kpinstallmanager/finalizer", bundle)
        for file in ("/usr/share/man/man1/kpim.1", "/usr/share/man/man8/finalizer.8",
                     "/usr/share/bash-completion/completions/kpim"):
            assert booted.path(file).exists() or booted.path(file + ".gz").exists(), file
    finally:
        booted.ask("dpkg", "--purge", "kpinstallmanager")
    assert not booted.path("/usr/libexec/kpinstallmanager").exists()


def test_tarball_runs_from_any_folder(booted, packages, bundle):
    booted.write("/root/it.tar.gz", packages[1].read_bytes())
    booted.ask("mkdir", "/root/anywhere")
    booted.ask("tar", "-xzf", "/root/it.tar.gz", "-C", "/root/anywhere", "--strip-components=1")
    check_runs(booted, "/root/anywhere/bin/kpim",
               "/root/anywhere/libexec/kpinstallmanager/finalizer", bundle)
