"""Trees of real files of the machine, for the contestants to pack and extract."""

import os
import subprocess
import sys
from pathlib import Path

# Where real files are taken from.
SOURCES = ["/usr/lib", "/usr/share", "/usr/include"]
FILES_PER_FOLDER = 200


def real_files(largest):
    """Regular files of the machine up to a size, in an order that does not change."""
    for source in SOURCES:
        for folder, folders, names in os.walk(source):
            folders.sort()
            for name in sorted(names):
                path = Path(folder, name)
                try:
                    if path.is_symlink() or not path.is_file():
                        continue
                    size = path.stat().st_size
                except OSError:
                    continue
                if 0 < size <= largest:
                    yield path, size


def make_tree(target, wanted_bytes, wanted_files, largest):
    """Copies real files until there are enough bytes and files; returns both counts.

    When the machine has too few, the same ones are taken again, each time with a line in
    front, so that no file is quite like another.
    """
    count = total = again = 0
    while count < wanted_files or total < wanted_bytes:
        before = count
        for path, _ in real_files(largest):
            if count >= wanted_files and total >= wanted_bytes:
                break
            folder = target / "Contents" / f"part{count // FILES_PER_FOLDER:04}"
            if count % FILES_PER_FOLDER == 0:
                folder.mkdir(parents=True, exist_ok=True)
            content = path.read_bytes()
            if again:
                content = b"copy %d\n" % again + content
            (folder / f"{count:06}-{path.name[:80]}").write_bytes(content)
            count += 1
            total += len(content)
        if count == before:
            sys.exit("no files to take")
        again += 1
    return count, total


def same_tree(one, other):
    """Whether both have the same files with the same bytes."""
    result = subprocess.run(["diff", "-rq", one, other], stdout=subprocess.PIPE, check=False)
    return result.returncode == 0
