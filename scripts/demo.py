#!/usr/bin/python3
"""The part of scripts/demo.sh that follows the build."""

import argparse
import os
import pathlib
import plistlib
import shutil
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests/system/support"))

from download_server import DownloadServer, make_certificates  # noqa: E402
from install_root import (BLOB, BUNDLE, PROGRAMS, SETTINGS, InstallRoot,  # noqa: E402
                          tree_of)

MB = 1000 * 1000
LANGUAGES = ("ar bg cs da de el en en_GB es et fi fr he hr hu it ja ko lt lv nb nl pl pt pt_PT ro "
             "ru sk sl sr sv th tr uk zh_CN zh_TW").split()
RESOURCES_PER_LANGUAGE = 30
LARGEST_RESOURCE = 64 * 1000
BINARY_SIZE = (4 * MB, 16 * MB)
LIBRARY_SIZE = (100 * 1000, 2 * MB)
BUNDLE_SIZE = 31 * MB


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", default="build/release",
                        help="build folder (default: build/release)")
    parser.add_argument("--small", action="store_true",
                        help="a bundle of one language, without binaries")
    options = parser.parse_args()
    build = pathlib.Path(options.build).resolve()

    work = pathlib.Path(tempfile.mkdtemp(prefix="kpinstall-demo-"))
    try:
        work.chmod(0o755)
        return demonstrate(build, work, options.small)
    finally:
        shutil.rmtree(work)


def demonstrate(build, work, small):
    """Packs, installs and compares. Returns the exit status."""
    heading("A bundle, from files of this machine")
    bundle = work / "PepperKorvelPlayer.plugin"
    make_bundle(bundle, small)
    source = tree_of(bundle)
    print(describe(source))

    heading("kpim pack: some ten seconds, one thread")
    blob = work / "payload.lzma"
    subprocess.run([build / "bin/kpim", "pack", bundle, "-o", blob], check=True)

    heading("Before: an older install, the blob beside it, and a settings file")
    root = InstallRoot(work / "root", build, console="alice")
    root.write(f"{BUNDLE}/Contents/Info.plist", "an older version")
    root.write(f"{BUNDLE}/Contents/Frameworks/Retired.framework/Retired", "no longer shipped")
    root.lay_blob(blob)
    root.write(SETTINGS, "ExampleSetting = 1\r\n# a note\r\nDisableAnalytics=0\r\n")
    show_folder(root)
    show_settings(root)

    host = root.vendor.download_host
    heading(f"finalizer / -disableAnalytics, while nginx serves https://{host} in the same root")
    certificates = work / "certificates"
    certificates.mkdir()
    server = DownloadServer(root, make_certificates(certificates, host))
    start = time.monotonic()
    result = server.run([f"{PROGRAMS}/finalizer", "/", "-disableAnalytics"],
                        env={"LANG": "en_US.UTF-8"})
    print(f"exit status {result.status} after {time.monotonic() - start:.2f} s, "
          f"output: {result.stdout + result.stderr or 'none'}")

    heading("The install log, in the home of the console user: " +
            str(root.log_path("alice").relative_to(root.folder)))
    print(root.log_path("alice").read_text(encoding="utf-8"), end="")

    heading("The pingback, as nginx received it")
    requests = server.requests()
    print("\n".join(requests) or f"none: the finalizer sent no request to {host}")

    heading("After")
    show_folder(root)
    show_settings(root)

    heading("Every byte")
    faults = compare(source, root.tree(BUNDLE), bundle, root.path(BUNDLE))
    if not requests:
        faults.append(f"{host} received no pingback")
    if result.status != 0:
        faults.append(f"the finalizer ended with status {result.status}")
    for fault in faults:
        print(f"demo: FAILED: {fault}", file=sys.stderr)
    return 1 if faults else 0


def heading(text):
    """Starts a section. Flushed, because the programs that follow write to the same output."""
    print(f"\n-- {text}", flush=True)


def make_bundle(bundle, small):
    """A plug-in bundle: a large binary, localized resources, libraries. Always the same on one
    machine. A `small` one has resources of one language only."""
    contents = bundle / "Contents"
    for folder in ("MacOS", "Resources", "Frameworks"):
        (contents / folder).mkdir(parents=True)
    (bundle / "PkgInfo").write_text("BRPL????")
    with open(contents / "Info.plist", "wb") as file:
        plistlib.dump({"CFBundleExecutable": "PepperKorvelPlayer",
                       "CFBundleIdentifier": "com.velmora.PepperKorvelPlayer",
                       "CFBundleVersion": "32.0.0.269"}, file)

    resources = files_of("/usr/share", 1, LARGEST_RESOURCE)
    for language in LANGUAGES[:1] if small else LANGUAGES:
        folder = contents / f"Resources/{language}.lproj"
        folder.mkdir()
        for number in range(RESOURCES_PER_LANGUAGE):
            path = next(resources)
            shutil.copyfile(path, folder / f"{number:02} {path.name}"[:255])

    if small:
        return
    binary = next(files_of("/usr/lib", *BINARY_SIZE))
    shutil.copyfile(binary, contents / "MacOS/PepperKorvelPlayer")
    size = sum(path.stat().st_size for path in bundle.rglob("*"))
    for number, path in enumerate(files_of("/usr/lib", *LIBRARY_SIZE)):
        if size > BUNDLE_SIZE:
            break
        shutil.copyfile(path, contents / f"Frameworks/{number:03} {path.name}")
        size += path.stat().st_size


def files_of(folder, smallest, largest):
    """The regular files below `folder` with a size in that range, in a fixed order."""
    for parent, folders, names in os.walk(folder):
        folders.sort()
        for name in sorted(names):
            path = pathlib.Path(parent, name)
            if path.is_file() and not path.is_symlink():
                if smallest <= path.stat().st_size <= largest:
                    yield path


def describe(tree):
    """A tree in one line: counts, bytes and modes."""
    files = [node for node in tree.values() if node.kind == "file"]
    folders = [node for node in tree.values() if node.kind == "directory"]
    return (f"{len(files)} files ({modes(files)}), {len(folders)} folders ({modes(folders)}), "
            f"{sum(len(node.content) for node in files) / MB:.1f} MB")


def modes(nodes):
    """The modes that occur in `nodes`."""
    return ", ".join(sorted({f"{node.mode:04o}" for node in nodes}))


def show_folder(root):
    """Prints the contents of the bundle's folder."""
    folder = root.path(BUNDLE).parent
    print(f"{folder.relative_to(root.folder)}:")
    for path in sorted(folder.iterdir()):
        if path.is_dir():
            print(f"  {path.name}/  {describe(tree_of(path))}")
        else:
            print(f"  {path.name}  {path.stat().st_size / MB:.1f} MB")
    if not root.path(BLOB).exists():
        print("  no blob")


def show_settings(root):
    """The settings file, line ends and all."""
    path = root.path(SETTINGS)
    print(f"{path.relative_to(root.folder)}:")
    for line in path.read_bytes().splitlines(keepends=True):
        print(f"  {line.decode()!r}")


def compare(source, installed, source_folder, installed_folder):
    """Compares contents with our own eyes and with diff(1). Returns the faults, as sentences."""
    same = sum(node.kind == "file" and installed.get(name) is not None
               and installed[name].content == node.content for name, node in source.items())
    files = sum(node.kind == "file" for node in source.values())
    diff = subprocess.run(["diff", "-r", source_folder, installed_folder], check=False)
    print(f"{same} of {files} files are identical, "
          f"{len(installed.keys() - source.keys())} are left of the older install")
    print(f"diff -r: {'no difference' if diff.returncode == 0 else 'different'}")
    return [] if diff.returncode == 0 and same == files else ["the bundles differ"]


if __name__ == "__main__":
    sys.exit(main())
