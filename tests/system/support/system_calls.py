"""The system calls of a program on files and descriptors, as strace prints them, and the options of
strace that make one of them fail."""

import collections
import dataclasses
import os
import pathlib
import re

CLASSES = "%file,%desc,vfork,clone3"
_COMMAND = ["strace", "-qq", "-y"]
_LINE = re.compile(r'(?P<name>\w+)\((?:AT_FDCWD<[^>]*>, )?'
                   r'(?:"(?P<path>[^"]+)"|\d+<(?P<open_path>/[^>]*)>)?')


@dataclasses.dataclass(frozen=True)
class Call:
    """The `number`-th call `name` of a process or thread that is about the file at `path`; for an
    empty `path`, a call without a file, the `number`-th call of that name. `is_followed`: whether
    strace follows all threads and children, each of which has a count of its own. It does not when
    the call is the first thread's and another may make as many.

    A call in a folder other than "/" has a `folder`, and a path that may be composed of it and the
    `given` one. Strace selects no such path, so `number` counts all calls of that name. `text` is
    strace's line."""

    name: str
    path: str
    number: int
    is_followed: bool
    folder: str = ""
    given: str = dataclasses.field(default="", compare=False, repr=False)
    text: str = dataclasses.field(default="", compare=False, repr=False)

    def failing(self, what, output):
        """The beginning of a command in which strace does `what`, such as "error=EIO", to this call
        only, and writes the call to the file `output`."""
        command = [*_COMMAND, "-o", output, "-e", f"trace={self.name}", "-e",
                   f"inject={self.name}:{what}:when={self.number}"]
        if self.path and not self.folder:
            command += ["-P", self.path]
        if self.is_followed:
            command.append("-f")
            if what.startswith("error="):
                # The kernel stops the program at calls of this name only, which saves a third of the time.
                # Strace sends no signals then.
                command.append("--seccomp-bpf")
        return command


def tracing(output):
    """The beginning of a command whose calls strace writes into files that begin with `output`."""
    return [*_COMMAND, "-ff", "-o", output, "-e", "trace=" + CLASSES]


def read_trace(output: pathlib.Path):
    """The calls of a command that was begun with tracing(): those of its first thread, and those
    of its other threads, and of its children up to the program that they become."""
    files = sorted(output.parent.glob(output.name + ".*"), key=lambda file: int(file.suffix[1:]))
    first, *others = [file.read_text(errors="replace").splitlines() for file in files]
    counts = [collections.Counter(key for name, path, _ in _parsed(lines)
                                  for key in (name, (name, path))) for lines in others]
    return _calls(first, counts), [call for lines in others for call in _calls(_own(lines))]


def has_failed(output, call):
    """Whether `call`, and no other call, has failed in a command that began with call.failing()."""
    lines = [line for line in _whole(output.read_text(errors="replace").splitlines())
             if "(INJECTED)" in line]
    # With several processes, each line begins with the process id.
    found = {(match["name"], _path(match)) for match in map(_LINE.search, lines) if match}
    return found == {(call.name, call.given)}


def _whole(lines):
    """The lines, each with its rest, which strace prints later if it has meanwhile seen another process."""
    begun = {}
    for line in lines:
        process = line.split(" ", 1)[0]
        if line.endswith(" <unfinished ...>"):
            begun[process] = line.removesuffix(" <unfinished ...>")
        elif " resumed>" in line and process in begun:
            yield begun.pop(process) + line.split(" resumed>", 1)[1]
        else:
            yield line


def _own(lines):
    """The lines of a child before it has become another program."""
    for index, line in enumerate(lines):
        if line.startswith("execve(") and line.endswith(" = 0"):
            return lines[:index + 1]
    return lines


def _path(match):
    path = match["path"] or match["open_path"] or ""
    # Strace takes every relative path for one that is about this folder.
    return "" if path == "/" else path


def _parsed(lines):
    """(name, path, line) of each call."""
    for line in lines:
        match = _LINE.match(line)
        if match:
            yield match["name"], _path(match), line


def _number(numbers, name, path):
    """How many calls strace has counted, those on `path` only if there is one."""
    if not path:
        return numbers[name]
    # For a link strace also selects its target. The links of programs and libraries are the host's,
    # with the same paths.
    target = os.path.realpath(path) if path.startswith(("/usr/", "/lib")) else path
    return numbers[name, path] + (numbers[name, target] if target != path else 0)


def _calls(lines, others=None):
    """For the first thread's calls, `others` has the numbers of calls of each other thread and process."""
    numbers = collections.Counter()
    found = []
    folder = "/"
    for name, path, line in _parsed(lines):
        numbers[name] += 1
        numbers[name, path] += 1
        is_walking = folder != "/" or path and not path.startswith("/")
        selected = "" if is_walking else path
        number = _number(numbers, name, selected)
        # A child closes the descriptors that the first thread did not.
        is_followed = others is None or name != "close" and all(
            _number(other, name, selected) < number for other in others)
        whole = os.path.normpath(os.path.join(folder, path)) if path else ""
        found.append(Call(name, whole, number, is_followed, folder if is_walking else "", path, line))
        if name == "fchdir" and line.endswith(" = 0"):
            folder = path or "/"
    return found
