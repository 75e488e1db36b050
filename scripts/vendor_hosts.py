#!/usr/bin/python3
"""Prints the vendor's hosts of a build, and fails when it has reserved ones.

    scripts/vendor_hosts.py BUILD... [--placeholder-hosts]

BUILD is a configured build folder; several must have the same hosts. A reserved name (RFC 2606), such as
those that a build has by default, reaches no one: with --placeholder-hosts it is allowed.
"""

import argparse
import json
import pathlib
import re
import sys

RESERVED = re.compile(r"(^|\.)(example|test|invalid|localhost|example\.(com|net|org))$", re.IGNORECASE)
# For each name in vendor-config.json: a description, and the CMake variable.
VALUES = {
    "downloadHost": ("download server", "KP_DOWNLOAD_HOST"),
    "vendorWebHost": ("web site", "KP_VENDOR_WEB_HOST"),
    "uninstallerURL": ("uninstaller", "KP_UNINSTALLER_URL"),
}


def host_of(value):
    """The host in an address, or the value itself."""
    return re.sub(r"^https?://|[:/?#].*", "", value)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("builds", nargs="+", metavar="BUILD")
    parser.add_argument("--placeholder-hosts", action="store_true")
    options = parser.parse_args()

    texts = {pathlib.Path(build, "generated/vendor-config.json").read_text(encoding="utf-8")
             for build in options.builds}
    if len(texts) != 1:
        sys.exit(f"{', '.join(options.builds)}: built for different hosts")
    values = json.loads(texts.pop())
    reserved = []
    for name, (meaning, variable) in VALUES.items():
        print(f"{meaning}: {values[name]}", flush=True)
        if RESERVED.search(host_of(values[name])):
            reserved.append(variable)
    if reserved and not options.placeholder_hosts:
        sys.exit("these hosts are reserved names, which reach no one: "
                 + ", ".join(reserved)
                 + "\nSet your own, for example "
                 + " ".join(f"-D{name}=..." for name in reserved)
                 + ", or allow them with --placeholder-hosts.")


if __name__ == "__main__":
    main()
