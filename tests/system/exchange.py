"""Exchanges two paths over and over: exchange.py FIRST SECOND [THIRD FOURTH ...].

An attacker's program. It runs in a root of its own as an ordinary user, beside the finalizer, and
ends by itself after a bounded number of rounds.
"""

import ctypes
import os
import sys

AT_FDCWD = -100
RENAME_EXCHANGE = 2
ROUNDS = 300_000


def main(paths):
    libc = ctypes.CDLL(None, use_errno=True)
    pairs = [(os.fsencode(first), os.fsencode(second))
             for first, second in zip(paths[::2], paths[1::2])]
    print("ready", flush=True)
    for _ in range(ROUNDS):
        for first, second in pairs:
            libc.renameat2(AT_FDCWD, first, AT_FDCWD, second, RENAME_EXCHANGE)


main(sys.argv[1:])
