"""Every command and option that kpim --help lists is in the man page, docs/kpim.md and the shells'
completions, and every command in the README."""

import re
import subprocess

import pytest

from install_root import REPOSITORY

KPIM = REPOSITORY / "tools/kpim"


def help_text(kpim, *command):
    return subprocess.run([kpim, *command, "--help"], check=True, text=True,
                          stdout=subprocess.PIPE).stdout


@pytest.fixture(scope="module")
def commands(kpim):
    """The long options of each command, --help left out, by its name."""
    listed = re.findall(r"^  ([a-z]+)  ", help_text(kpim).split("Subcommands:")[1], re.M)
    assert len(listed) >= 6
    return {command: set(re.findall(r"--[a-z][a-z-]+", help_text(kpim, command))) - {"--help"}
            for command in listed}


def test_man_page(commands):
    manual = (KPIM / "kpim.1").read_text()
    synopsis, text = manual.split(".Sh DESCRIPTION")
    for command, options in commands.items():
        assert f".Nm\n.Cm {command}\n" in synopsis, command
        (part,) = re.findall(rf"^\.It Cm {command}\b(.*?)(?=^\.It Cm (?:{'|'.join(commands)})\b|^\.Sh )",
                             text, re.M | re.S)
        for option in options:
            assert re.search(rf"^\.It Fl .*-{option[2:]}(?![a-z-])", part, re.M), (command, option)


def test_reference(commands):
    reference = (REPOSITORY / "docs/kpim.md").read_text()
    for command, options in commands.items():
        assert f"[`kpim {command}" in reference, f"{command} is not in the table"
        (part,) = re.findall(rf"^## kpim {command}$(.*?)(?=^## |\Z)", reference, re.M | re.S)
        for option in options:
            assert re.search(rf"{option}(?![a-z-])", part), (command, option)


def test_readme(commands):
    table = re.search(r"^## All commands$(.*?)^## ", (REPOSITORY / "README.md").read_text(), re.M | re.S)[1]
    assert re.findall(r"^\| `kpim ([a-z]+)", table, re.M) == list(commands)


@pytest.mark.parametrize("shell", sorted(path.name for path in (KPIM / "completions").iterdir()))
def test_completions(commands, shell):
    """The tests of packages test what each shell then offers."""
    text = (KPIM / "completions" / shell).read_text()
    for command, options in commands.items():
        assert re.search(rf"(?<![\w-]){command}(?![\w-])", text), command
        for option in options:
            # fish names options without their hyphens.
            assert re.search(rf"(?:--|-l ){option[2:]}(?![\w-])", text), (command, option)


def test_time_limit_of_latest(kpim):
    """Help, man page and reference have the same numbers."""
    assert re.search(r"--time-limit SECONDS:INT in \[1 - 86400\]\s+Seconds that it may take altogether; the "
                     r"default is 90$", help_text(kpim, "latest"), re.M)
    for path in (KPIM / "kpim.1", REPOSITORY / "docs/kpim.md"):
        assert re.search(r"take altogether, at most 86400 \(a day\)[.;] the default is 90 seconds\.",
                         " ".join(path.read_text().split()), re.I), path


def test_exit_status_of_failures(kpim):
    """Help, man page and reference have the same words."""
    for text in (help_text(kpim), (KPIM / "kpim.1").read_text(),
                 (REPOSITORY / "docs/kpim.md").read_text()):
        assert ("the command failed, or found a fault or a difference, or a check failed"
                in " ".join(text.split()).lower())
