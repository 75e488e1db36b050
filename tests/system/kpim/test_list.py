"""kpim list."""

import json
import os
import pty
import re

import blob
from kpim_program import AWKWARD_NAMES, MAXIMUM_NESTING, OK, read_terminal, write_blob


def test_list(run, tmp_path):
    name = write_blob(tmp_path, [
        blob.stored_directory("Contents", [
            blob.stored_file("small", b"1" * 1023),
            blob.stored_directory("Empty", []),
        ]),
        blob.stored_file("PkgInfo", b"BRPL????"),
        blob.stored_file("large", b"1" * 1024),
    ])
    result = run("list", name)
    assert (result.returncode, result.stderr) == (OK, "")
    assert result.stdout == ("- /\n"
                             "  - Contents/\n"
                             "    - small (1023 bytes)\n"
                             "    - Empty/\n"
                             "  - PkgInfo (8 bytes)\n"
                             "  - large (1 KB)\n")


def test_list_json(run, tmp_path):
    name = write_blob(tmp_path, [
        blob.stored_directory("Contents", [
            blob.stored_file("a", b"1" * 1023),
            blob.stored_directory("Empty", []),
        ]),
        blob.compressed("b", b"2" * 50, is_directory=False),
    ])
    result = run("list", "--json", name)
    assert (result.returncode, result.stderr) == (OK, "")
    assert json.loads(result.stdout) == [
        {"name": "", "type": "directory", "entries": [
            {"name": "Contents", "type": "directory", "entries": [
                {"name": "a", "type": "file", "size": 1023},
                {"name": "Empty", "type": "directory", "entries": []},
            ]},
            {"name": "b", "type": "file", "size": 50},
        ]},
    ]


def test_list_of_an_empty_root(run, tmp_path):
    write_blob(tmp_path, [])
    result = run("list", "blob", "--json")
    assert (result.returncode, result.stderr) == (OK, "")
    assert json.loads(result.stdout) == [{"name": "", "type": "directory", "entries": []}]


def replaced(name):
    """`name` as text, with U+FFFD for every byte that is not UTF-8."""
    return re.sub("[\udc80-\udcff]", "\ufffd", name.decode(errors="surrogateescape"))


def test_list_json_is_lossless(run, tmp_path):
    name = write_blob(tmp_path, [blob.stored_file(name, b"") for name in AWKWARD_NAMES])
    result = run("list", "--json", name)
    assert result.returncode == OK
    text = os.fsencode(result.stdout).decode()  # strict: the output is UTF-8 in any case
    assert not re.search(r"[\x00-\x09\x0b-\x1f\x7f-\x9f]", text)
    (root,) = json.loads(text)
    for entry, original in zip(root["entries"], AWKWARD_NAMES, strict=True):
        assert entry["name"] == replaced(original)
        if "nameBytes" in entry:
            assert bytes.fromhex(entry["nameBytes"]) == original
            assert original != entry["name"].encode()
        else:
            assert entry["name"].encode() == original


def test_list_json_of_the_deepest_tree(run, tmp_path):
    entry = blob.stored_directory("d", [])
    for _ in range(MAXIMUM_NESTING - 2):
        entry = blob.stored_directory("d", [entry])
    write_blob(tmp_path, [entry], compress=False)
    result = run("list", "--json", "blob")
    assert result.returncode == OK
    assert result.stdout.count('"name": "d"') == MAXIMUM_NESTING - 1
    assert result.stdout.count("{") == result.stdout.count("}") == MAXIMUM_NESTING


def test_list_does_not_let_names_steer_the_terminal(run, tmp_path):
    write_blob(tmp_path, [blob.stored_file(b"\x1b[31mred\n\xc2\x9b\xff \xc3\xa9\xe2\x80\xaetxt", b"")])
    assert run("list", "blob").stdout == "- /\n  - \x1b[31mred\n\x9b\udcff é\u202etxt (0 bytes)\n"
    terminal, side = pty.openpty()
    process = run.start("list", "blob", stdout=side)
    os.close(side)
    shown = read_terminal(terminal).decode()
    assert process.wait(timeout=300) == OK
    assert shown == "- /\r\n  - ?[31mred???? é???txt (0 bytes)\r\n"
