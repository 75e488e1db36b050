"""An attacker who exchanges two items of the disk, again and again, while a program works on one of
them."""

import ctypes
import signal
import subprocess
import sys

# How often a race is run.
ROUNDS = 15

AT_FDCWD = -100
RENAME_EXCHANGE = 2
PR_SET_PDEATHSIG = 1


class Exchanger:
    """A process that exchanges `one` and `other` as fast as it can while the context lasts.
    Afterwards `count` says how often it has succeeded."""

    def __init__(self, one, other):
        self._command = [sys.executable, __file__, str(one), str(other)]
        self._process = None
        self.count = None

    def __enter__(self):
        self._process = subprocess.Popen(self._command, stdout=subprocess.PIPE, text=True)
        assert self._process.stdout.readline() == "ready\n"
        return self

    def __exit__(self, *_):
        self._process.terminate()
        self.count = int(self._process.communicate()[0])


def main(*paths):
    """Exchanges the paths in pairs until SIGTERM, then prints how often that has succeeded. Also
    runs inside an InstallRoot, as an ordinary user."""
    libc = ctypes.CDLL(None, use_errno=True)
    exchange = libc.renameat2
    pairs = [(one.encode(), other.encode()) for one, other in zip(paths[::2], paths[1::2])]
    count = 0

    def finish(*_):
        print(count, flush=True)
        sys.exit()

    signal.signal(signal.SIGTERM, finish)
    # Otherwise it would go on after its parent is killed.
    libc.prctl(PR_SET_PDEATHSIG, signal.SIGTERM)
    print("ready", flush=True)
    while True:
        for one, other in pairs:
            count += exchange(AT_FDCWD, one, AT_FDCWD, other, RENAME_EXCHANGE) == 0


if __name__ == "__main__":
    main(*sys.argv[1:])
