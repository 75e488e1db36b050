"""The installation: the packages that cpack makes, on a Debian with nothing else in it, the files
of `cmake --install`, and the shell completions."""

import gzip
import os
import pathlib
import platform
import pty
import re
import select
import shutil
import subprocess
import time

import pytest

import finalizer_log
import vendor_config
from debian_root import BareRoot
from install_root import BLOB, BUNDLE, LINE, LOG, REPOSITORY, tree_of

VERSION = "32.0.0.269"
COMPLETIONS = REPOSITORY / "tools/kpim/completions"
MAN_PAGES = {
    "man1/kpim.1": REPOSITORY / "tools/kpim/kpim.1",
    "man8/finalizer.8":
        REPOSITORY / "player/Installers/Mac/KPInstallManager/finalizer.8",
}
# The README, and what it links to.
PAGES = {"README.md", "ARCHITECTURE.md", "CONTRIBUTING.md",
         *(f"docs/{page.name}" for page in (REPOSITORY / "docs").iterdir())}
# The files that every way of installing places below its prefix.
PROGRAM_FILES = {
    "bin/kpim",
    "libexec/kpinstallmanager/finalizer",
    "libexec/kpinstallmanager/kpim",
    "libexec/kpinstallmanager/Resources/finalizer/Info-gnustep.plist",
    "libexec/kpinstallmanager/Resources/kpim/Info-gnustep.plist",
    "libexec/kpinstallmanager/Resources/kpim/en.lproj/Localizable.strings",
    "share/bash-completion/completions/kpim",
    "share/fish/vendor_completions.d/kpim.fish",
    "share/doc/kpinstallmanager/LICENSE",
    "share/doc/kpinstallmanager/copyright",
    *(f"share/doc/kpinstallmanager/{page}" for page in PAGES),
}
INSTALLED_FILES = PROGRAM_FILES | {
    "share/doc/kpinstallmanager/CHANGELOG.md",
    "share/man/man1/kpim.1",
    "share/man/man8/finalizer.8",
    "share/zsh/site-functions/_kpim",
}
# As Debian's policy requires: chapter 12.
DEBIAN_FILES = PROGRAM_FILES | {
    "share/doc/kpinstallmanager/changelog.gz",
    "share/man/man1/kpim.1.gz",
    "share/man/man8/finalizer.8.gz",
    "share/zsh/vendor-completions/_kpim",
}
NOBODY = 65534
COMMANDS = ["pack", "list", "verify", "diff", "unpack", "check", "latest", "help"]


def options_of(kpim, *command):
    """The long options in --help."""
    text = subprocess.run([kpim, *command, "--help"], check=True, text=True,
                          stdout=subprocess.PIPE).stdout
    return set(re.findall(r"(--[a-z][a-z-]+)(?=[ \n\]]|$|:)", text.split("Options:")[1]
                          .split("\n\n")[0]))


def complete(*words):
    """The completions that bash offers for the last of `words`."""
    script = f"""source {COMPLETIONS}/kpim.bash
COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _kpim; printf '%s\\n' "${{COMPREPLY[@]}}" """
    output = subprocess.run(["bash", "-c", script, "bash", *words], check=True, text=True,
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT).stdout
    return set(output.split("\n")) - {""}


def test_completion_of_commands(kpim):
    assert complete("kpim", "") == {*COMMANDS, "--help", "--version"}
    assert complete("kpim", "p") == {"pack"}
    assert complete("kpim", "help", "") == set(COMMANDS)
    help_text = subprocess.run([kpim, "--help"], check=True, text=True,
                               stdout=subprocess.PIPE).stdout
    commands = set(re.findall(r"^  ([a-z]+)  ", help_text.split("Subcommands:")[1], re.M))
    assert commands == set(COMMANDS)


@pytest.mark.parametrize("command", COMMANDS)
def test_completion_of_options(kpim, command):
    assert complete("kpim", command, "-") == options_of(kpim, command)


def test_bash_completes_behind_an_equals_sign(tmp_path, monkeypatch):
    # As bash splits the words.
    assert complete("kpim", "latest", "--kind", "=") == {"pep", "pl"}
    assert complete("kpim", "latest", "--kind", "=", "pe") == {"pep"}
    monkeypatch.chdir(tmp_path)
    (tmp_path / "out.lzma").touch()
    assert complete("kpim", "pack", "bundle", "--output", "=", "o") == {"out.lzma"}


class Zsh:
    """An interactive zsh on a terminal of its own, in `folder`. To be closed."""

    SECONDS = 120

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
        """The line after the Tab key, without a blank at the end."""
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
    text = (COMPLETIONS / "_kpim").read_text()
    part = re.search(rf"^  {command}\)(.*?);;", text, re.M | re.S).group(1).replace(
        "$json", "--json")
    assert options == {"--help", *re.findall(r"--[a-z][a-z-]+", part)}


def test_zsh_completes_values(zsh, tmp_path):
    assert zsh.completed("kpim latest --kind pe") == "kpim latest --kind pep"
    assert zsh.completed("kpim help di") == "kpim help diff"
    (tmp_path / "folder").mkdir()
    (tmp_path / "file").touch()
    assert zsh.completed("kpim pack f") == "kpim pack folder"
    assert zsh.completed("kpim list fi") == "kpim list file"
    assert zsh.completed("kpim verify file f") == "kpim verify file folder"
    assert zsh.completed("kpim unpack file f") == "kpim unpack file folder"
    assert zsh.completed("kpim diff file fi") == "kpim diff file file"
    assert zsh.completed("kpim latest --ca-file fi") == "kpim latest --ca-file file"


def test_completion_of_values(tmp_path):
    assert complete("kpim", "latest", "--kind", "") == {"pep", "pl"}
    assert complete("kpim", "latest", "--time-limit", "") == set()
    (tmp_path / "folder").mkdir()
    (tmp_path / "file").touch()
    start = str(tmp_path) + "/f"
    assert complete("kpim", "pack", start) == {start + "older"}
    folders, both = {start + "older"}, {start + "older", start + "ile"}
    for words, offered in [
            (["list"], both), (["list", "a"], set()), (["verify"], both), (["verify", "a"], folders),
            (["verify", "--json", "a"], folders), (["verify", "-"], folders),
            (["verify", "a", "b"], set()), (["unpack"], both), (["unpack", "a"], folders),
            (["unpack", "a", "b"], set()), (["diff"], both), (["diff", "a"], both),
            (["diff", "a", "b"], set()), (["pack", "-o", "b"], folders),
            (["pack", "--output", "=", "b"], folders), (["pack", "a"], set()),
            (["pack", "-o"], both), (["latest", "--ca-file"], both), (["latest", "--locale"], set()),
            (["check"], set())]:
        assert complete("kpim", *words, start) == offered, words


def test_fish_completion_has_every_command_and_option(kpim):
    """Checked by its text only: it is not run."""
    text = (COMPLETIONS / "kpim.fish").read_text()
    for command in COMMANDS:
        assert f"-n $none -a {command} -d" in text
        described = "".join(line for line in text.splitlines(True) if re.search(
            rf"__fish_seen_subcommand_from [a-z ]*\b{command}\b", line))
        assert {"--help", *(f"--{name}" for name in re.findall(r" -l ([a-z-]+)", described))} == (
            options_of(kpim, command))


def files_below(folder):
    """Relative paths of all files and links."""
    return {str(path.relative_to(folder)) for path in folder.rglob("*")
            if path.is_symlink() or not path.is_dir()}


def check_modes(folder):
    """All users may read everything, and only the owner may write it."""
    for path in folder.rglob("*"):
        if not path.is_symlink():
            runs = path.is_dir() or path.name in ("finalizer", "kpim") and "libexec" in path.parts
            assert path.stat().st_mode & 0o7777 == (0o755 if runs else 0o644), path


def check_texts(prefix, zsh_folder):
    """Completions, pages, and the license's texts."""
    doc = prefix / "share/doc/kpinstallmanager"
    for page in PAGES:
        assert (doc / page).read_bytes() == (REPOSITORY / page).read_bytes()
        if page.endswith(".md"):
            for link in re.findall(r"\]\(([^)#:\s]+)(?:#[^)]*)?\)", (doc / page).read_text()):
                assert os.path.lexists((doc / page).parent / link), f"{page} links to {link}"
    assert (prefix / "share/bash-completion/completions/kpim").read_bytes() == (
        COMPLETIONS / "kpim.bash").read_bytes()
    assert (prefix / "share/fish/vendor_completions.d/kpim.fish").read_bytes() == (
        COMPLETIONS / "kpim.fish").read_bytes()
    assert (prefix / f"share/zsh/{zsh_folder}/_kpim").read_bytes() == (
        COMPLETIONS / "_kpim").read_bytes()
    notice = (prefix / "share/doc/kpinstallmanager/copyright").read_text()
    assert notice.startswith(
        "Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/\n")
    assert re.search(r"^Files: \*\nCopyright: .+\nLicense: Apache-2.0\n .+", notice, re.M)
    comment = re.search(r"^Comment:\n(?: .+\n)+", notice, re.M)[0]
    assert "LZMA SDK" in comment and "CLI11" in comment
    assert "License: BSD-3-clause\n Redistribution" in notice


# cmake --install


@pytest.fixture
def prefix(build, tmp_path):
    """The build, installed into a folder of its own."""
    folder = tmp_path / "prefix"
    subprocess.run(["cmake", "--install", build, "--prefix", folder], check=True, umask=0o022,
                   stdout=subprocess.DEVNULL)
    return folder


def test_cmake_installs_everything(prefix):
    assert files_below(prefix) == INSTALLED_FILES
    check_modes(prefix)
    check_texts(prefix, "site-functions")
    for name, source in MAN_PAGES.items():
        assert (prefix / "share/man" / name).read_bytes() == source.read_bytes()
    doc = prefix / "share/doc/kpinstallmanager"
    for name in ("CHANGELOG.md", "LICENSE"):
        assert (doc / name).read_bytes() == (REPOSITORY / name).read_bytes()
    assert os.readlink(prefix / "bin/kpim") == "../libexec/kpinstallmanager/kpim"


def test_installed_programs_run(prefix, install_root, bundle, installed):
    install_root.mount(prefix, "/opt/prefix")
    shutil.copytree(bundle, install_root.path("/home/it"))
    packed = install_root.execute(["/opt/prefix/bin/kpim", "pack", "/home/it", "-o", BLOB])
    assert (packed.status, packed.stderr) == (0, "")
    # The version is in the dictionary beside the program.
    checked = install_root.execute(["/opt/prefix/bin/kpim", "check"])
    assert checked.stdout.startswith(f"installed: none\nto be installed: {VERSION}\n")
    finished = install_root.execute(["/opt/prefix/libexec/kpinstallmanager/finalizer", "/"])
    assert (finished.status, finished.stdout, finished.stderr) == (0, "", "")
    assert install_root.tree(BUNDLE) == installed
    assert install_root.log("alice") == finalizer_log.success()


def test_shells_look_where_completions_are_installed():
    folders = subprocess.run(["zsh", "-fc", "print -l $fpath"], check=True, text=True,
                             stdout=subprocess.PIPE).stdout.splitlines()
    assert "/usr/share/zsh/vendor-completions" in folders
    assert "/usr/local/share/zsh/site-functions" in folders


# Packages


@pytest.fixture(scope="module")
def packages(build, tmp_path_factory):
    """The folder with the Debian package and the tarball of the build."""
    if build.name in ("asan", "coverage"):
        pytest.skip("packages are made of a build without instruments")
    folder = tmp_path_factory.mktemp("packages")
    done = subprocess.run(["cpack", "-D", f"CPACK_OUTPUT_FILE_PREFIX={folder}"], cwd=build,
                          text=True, stdout=subprocess.PIPE, umask=0o022,
                          stderr=subprocess.STDOUT, check=False)
    assert done.returncode == 0, done.stdout
    yield folder
    shutil.rmtree(folder)


@pytest.fixture(scope="module")
def deb(packages):
    (path,) = packages.glob("kpinstallmanager_*.deb")
    return path


@pytest.fixture(scope="module")
def tarball(packages):
    (path,) = packages.glob("kpinstallmanager-*.tar.gz")
    return path


def dependencies(deb):
    """The package's dependencies: conditions by name."""
    field = subprocess.run(["dpkg-deb", "--field", deb, "Depends"], check=True, text=True,
                           stdout=subprocess.PIPE).stdout
    return dict(re.fullmatch(r"(\S+)(?: \((.*)\))?", part).groups()
                for part in field.strip().split(", "))


def test_fields_of_the_debian_package(deb, build):
    fields = subprocess.run(["dpkg-deb", "--field", deb], check=True, text=True,
                            stdout=subprocess.PIPE).stdout
    contact = re.search(r"^CPACK_PACKAGE_CONTACT:STRING=(.*)$",
                        (build / "CMakeCache.txt").read_text(), re.M)[1]
    for field in ("Package: kpinstallmanager", f"Version: {VERSION}", "Section: utils",
                  "Priority: optional", f"Maintainer: {contact}"):
        assert re.search(rf"^{re.escape(field)}$", fields, re.M), field
    vendor = vendor_config.tested()
    description = subprocess.run(["dpkg-deb", "--field", deb, "Description"], check=True, text=True,
                                 stdout=subprocess.PIPE).stdout
    text, hosts = description.split("\n .\n")
    assert all(len(line) <= 80 for line in text.split("\n"))
    # Lines that begin with a second blank are shown as they are.
    assert hosts == (" This build uses these hosts of the vendor:\n"
                     f"  download server: {vendor.download_host}\n  web site: {vendor.web_host}\n"
                     f"  uninstaller: {vendor.uninstaller_url}\n kpim --version prints them.\n")


def test_debian_package_depends_on_what_it_needs(deb):
    needed = dependencies(deb)
    for name in ("ca-certificates", "gnustep-base-runtime", "libc6", "libcurl4", "libgcc-s1",
                 "libgnustep-base1.28", "libobjc4", "libstdc++6", "libsystemd0"):
        assert name in needed
    # No linked file names libcurl, so the package does: the first release with all the options that
    # are set.
    assert needed["libcurl4"] == ">= 7.87"


def test_files_of_the_debian_package(deb, tmp_path):
    subprocess.run(["dpkg-deb", "--extract", deb, tmp_path / "it"], check=True)
    usr = tmp_path / "it/usr"
    assert {path.name for path in usr.parent.iterdir()} == {"usr"}
    assert files_below(usr) == DEBIAN_FILES
    check_modes(usr)
    check_texts(usr, "vendor-completions")
    texts = {}
    for path in usr.rglob("*.gz"):
        packed = path.read_bytes()
        # The flags are 0 (no name), the time is 0, and the compression is the best. RFC 1952, 2.3.
        assert (packed[3:8], packed[8]) == (bytes(5), 2), path
        texts[path.stem] = gzip.decompress(packed).decode()
    for source in MAN_PAGES.values():
        assert texts[source.name] == source.read_text()
    doc = usr / "share/doc/kpinstallmanager"
    assert "/usr/share/common-licenses/Apache-2.0" in (doc / "copyright").read_text()
    assert os.readlink(doc / "LICENSE") == "/usr/share/common-licenses/Apache-2.0"
    parsed = subprocess.run(["dpkg-parsechangelog", "--file", "-", "--show-field", "Version"],
                          input=texts["changelog"], check=True, text=True, stdout=subprocess.PIPE)
    assert parsed.stdout.strip() == VERSION


def test_files_of_the_tarball(tarball, tmp_path):
    subprocess.run(["tar", "-xzf", tarball, "-C", tmp_path], check=True)
    (top,) = tmp_path.iterdir()
    assert top.name == f"kpinstallmanager-{VERSION}-Linux-{platform.machine()}"
    assert tarball.name == f"{top.name}.tar.gz"
    assert files_below(top) == INSTALLED_FILES
    check_modes(top)
    check_texts(top, "site-functions")
    for name, source in MAN_PAGES.items():
        assert (top / "share/man" / name).read_bytes() == source.read_bytes()


def lay_out_for_debian(folder, history, version="2.0"):
    """Runs the script that makes Debian's layout, and returns the changelog."""
    share = folder / "usr/share"
    for path, text in {"doc/it/CHANGELOG.md": history, "doc/it/LICENSE": "l",
                       "man/man1/it.1": "page", "zsh/site-functions/_it": "z"}.items():
        (share / path).parent.mkdir(parents=True, exist_ok=True)
        (share / path).write_text(text)
    settings = {"CPACK_GENERATOR": "DEB", "CPACK_TEMPORARY_INSTALL_DIRECTORY": folder,
                "CPACK_PACKAGING_INSTALL_PREFIX": "/usr", "CPACK_PACKAGE_NAME": "it",
                "CPACK_PACKAGE_VERSION": version, "CPACK_PACKAGE_CONTACT": "A <a@b.example>"}
    subprocess.run(["cmake", *(f"-D{name}={value}" for name, value in settings.items()),
                    "-P", REPOSITORY / "cmake/KPDebianLayout.cmake"], check=True,
                   env={**os.environ, "SOURCE_DATE_EPOCH": "1000000000"}, stderr=subprocess.PIPE)
    return gzip.decompress((share / "doc/it/changelog.gz").read_bytes()).decode()


@pytest.mark.parametrize("date, distribution", [
    ("unreleased", "UNRELEASED"), ("2026-11-30", "unstable")])
def test_changelog_holds_the_newest_section(tmp_path, date, distribution):
    assert lay_out_for_debian(tmp_path, f"""# Changelog

## 2.0 ({date})

- First; with a #mark and
  a second line.
- Second.

## 1.1 (2026-01-01)

- Older.

## 1.0 (2026-01-01)

- Oldest.
""") == f"""it (2.0) {distribution}; urgency=medium

  * First; with a #mark and
    a second line.
  * Second.

 -- A <a@b.example>  Sun, 09 Sep 2001 01:46:40 +0000
"""


@pytest.mark.parametrize("history", [
    "# Changelog\n\n## 1.9 (unreleased)\n\n- Item.\n\n## 2.0 (2026-01-01)\n\n- Item.\n",
    "# Changelog\n\n## 2x0 (unreleased)\n\n- Item.\n",
    "# Changelog\n\n## 2.0 (unreleased)\n\nText.\n",
    "# Changelog\n",
])
def test_changelog_without_the_version_makes_no_package(tmp_path, history):
    with pytest.raises(subprocess.CalledProcessError) as failure:
        lay_out_for_debian(tmp_path, history)
    assert b'CHANGELOG.md does not begin with "## 2.0 (DATE)"' in failure.value.stderr


# On a Debian with nothing else in it


def readme_commands(about):
    """The commands of the block with `about` in the README's section on installing."""
    section = re.search(r"^## Install\n(.*?)^## ", (REPOSITORY / "README.md").read_text(),
                        re.M | re.S).group(1)
    (block,) = [text for text in re.findall(r"^```sh\n(.*?)^```$", section, re.M | re.S)
                if about in text]
    return 'sudo() { "$@"; }\n' + block


def test_readme_names_what_the_tarball_needs(deb):
    words = readme_commands(".tar.gz").replace("\\\n", " ")
    (named,) = re.findall(r"^sudo apt-get install (.*)$", words, re.M)
    assert set(named.split()) == set(dependencies(deb))


@pytest.fixture
def bare(packages, tmp_path):
    """A bare Debian with the packages where scripts/package.sh would leave them, seen from /srv. It
    has none of the packages that ours require."""
    if os.geteuid() != 0:
        pytest.skip("a Debian of its own needs root")
    root = BareRoot(tmp_path / "bare")
    shutil.copytree(packages, root.path("/srv/build/release/packages"),
                    ignore=shutil.ignore_patterns("_CPack_Packages"))
    found = root.sh("dpkg-query --show --showformat '${Package}\\n'").split()
    assert not {"libcurl4", "libgnustep-base1.28", "libobjc4", "ca-certificates"} & set(found)
    yield root
    shutil.rmtree(root.folder)


def check_runs(bare, kpim, finalizer, bundle, installed):
    assert bare.sh(f"{kpim} --version", user=NOBODY).startswith(f"kpim {VERSION}\n")
    shutil.copytree(bundle, bare.path("/srv/bundle"))
    bare.sh(f"{kpim} pack /srv/bundle -o /tmp/blob && {kpim} verify /tmp/blob /srv/bundle",
            user=NOBODY)
    # The version is in the dictionary beside the program.
    assert f"to be installed: {VERSION}\n" in bare.sh(f"{kpim} check || true", user=NOBODY)
    # libcurl and its dependencies are installed: the request fails only because there is no
    # network.
    assert re.match(r"kpim: https://\S+/version_en_mac_pep\.xml: "
                    r"A server with the specified hostname could not be found\. ",
                    bare.sh(f"! {kpim} latest 2>&1", user=NOBODY))

    target = bare.path(BLOB)
    target.parent.mkdir(parents=True)
    bare.path("/Library/Logs").mkdir()
    shutil.copyfile(bare.path("/tmp/blob"), target)
    assert bare.sh(f"{finalizer} / 2>&1") == ""
    assert tree_of(bare.path(BUNDLE)) == installed
    assert not target.exists()
    lines = bare.path("/" + LOG).read_text(encoding="utf-8").splitlines()
    assert [LINE.fullmatch(line).group(2) for line in lines] == finalizer_log.success()


def test_debian_package_on_a_bare_debian(bare, bundle, installed):
    bare.sh_with_packages(readme_commands(".deb"), cwd="/srv")
    check_runs(bare, "kpim", "/usr/libexec/kpinstallmanager/finalizer", bundle, installed)
    assert DEBIAN_FILES <= files_below(bare.path("/usr"))

    listed = [pathlib.PurePath(line) for line in bare.sh("dpkg -L kpinstallmanager").splitlines()]
    bare.sh_with_packages("apt-get remove kpinstallmanager")
    for path in listed:
        at = bare.path(path)
        # Folders of other packages stay.
        assert not os.path.lexists(at) or at.is_dir() and bare.sh(f"dpkg -S {path}"), path
    assert bare.sh("find / -xdev -iname '*kpim*' -o -xdev -iname '*kpinstallmanager*'"
                   "| grep -v -e ^/srv/ -e ^/proc/ || true") == ""
    assert bare.sh("dpkg-query --show kpinstallmanager 2>&1 || true").startswith(
        "dpkg-query: no packages found")


def test_tarball_on_a_bare_debian(bare, bundle, installed):
    said = bare.sh_with_packages(readme_commands(".tar.gz"), cwd="/srv")
    assert f"kpim {VERSION}\n" in said
    (top,) = bare.path("/srv").glob("kpinstallmanager-*")
    assert files_below(top) == INSTALLED_FILES
    inside = f"/srv/{top.name}"
    check_runs(bare, f"{inside}/bin/kpim", f"{inside}/libexec/kpinstallmanager/finalizer", bundle,
               installed)
