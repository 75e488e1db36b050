"""docs/troubleshooting.md has every message of the sources, and no other.

A message is a text in quotes in the product's sources that people read: every argument of a function that
reports, and every other text with a letter and a space that is not one of the exceptions below. On the
page, a message is the first cell of a row in a table with the title "line" or "message"."""

import pathlib
import re

import pytest

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]
PAGE = REPOSITORY / "docs/troubleshooting.md"

# The page has these words in place of the parts that vary.
PLACEHOLDERS = {"ARGUMENTS", "COMMAND", "NAME", "NUMBER", "PATH", "REASON", "STATUS", "VERSION", "WHAT"}

REPORTING = {"LogError", "LogInformation", "LogFailure", "Log", "_logError:", "logTimeStampedString:",
             "assert:", "RunStage", "ReportError", "ReportWarning", "ReportPlainError", "ReportLine", "Refuse",
             "ValidationError", "fprintf"}
# Functions whose texts are results, help texts or names.
OTHER_FUNCTIONS = {"Print", "printf", "Add", "AddString", "AddNumber", "AddBool", "add_option", "add_flag",
                   "add_subcommand", "set_version_flag", "static_assert", "snprintf", "__attribute__"}
OTHER_CONSTANTS = {
    # The help of kpim.
    "kDescription", "kFooter", "kPackFooter", "kListFooter", "kVerifyFooter", "kDiffFooter", "kUnpackFooter",
    "kCheckFooter", "kLatestFooter", "kBlobHelp", "kJSONHelp",
    # Formats, names of files, and the markers of a version description.
    "kTimeStampPattern", "kObsoleteNamesInHome", "kObsoleteSystemName", "kVersionStart",
    "kAutoUpdateModeStart", "kSizeStart", "kMessageStart"}
# Files with the texts of kpim's progress, results and version.
OTHER_FILES = {"StageLine.cpp", "Text.cpp", "Version.cpp"}
OTHER_TEXTS = {"fetching the version description", "reading ", "compressing ", "%.1f s", " packed into ",
               ", not compressed", ": well formed, ", ", the same as ", ": the same as ", " in %.1f s"}

TOKEN = re.compile(r"""//[^\n]* | /\*.*?\*/ | ^[ \t]*\#[^\n]* | '(?:[^'\\]|\\.)*' | @?"((?:[^"\\\n]|\\.)*)" """,
                   re.X | re.M | re.S)
SPECIFIER = re.compile(r"%(?:\.\d)?(?:l?l?[udX]|[@sc%f])|\\n")


def sources():
    """The files whose texts are looked at."""
    files = [path for folder in ("player", "tools/kpim") for path in (REPOSITORY / folder).rglob("*")
             if path.suffix in (".cpp", ".mm", ".h") and path.name not in OTHER_FILES]
    port = [path for path in (REPOSITORY / "shared/platform/linux").rglob("*.*")
            if path.name in ("URLErrors.mm", "CurlLibrary.cpp") or "fprintf(stderr" in path.read_text()]
    assert len(files) > 50 and len(port) > 2
    return files + port


def literals(source):
    """(text, the functions in whose arguments it is, innermost first, the constant that it defines) of each
    text. Texts with only blanks between them are one."""
    found = []
    masked = list(source)
    previous_end = None
    for token in TOKEN.finditer(source):
        for place in range(*token.span()):
            masked[place] = " " if source[place] != "\n" else "\n"
        if token.group(1) is None:
            continue
        text = token.group(1).replace('\\"', '"')
        if previous_end is not None and not source[previous_end:token.start()].strip():
            found[-1] = (found[-1][0], found[-1][1] + text)
        else:
            found.append((token.start(), text))
        previous_end = token.end()
    code = "".join(masked)
    return [(text, calls_around(code, start), constant_of(code, start)) for start, text in found]


def calls_around(code, place):
    """The names of the functions and messages in whose arguments `place` is, within its statement."""
    names, depth = [], 0
    for at in range(place - 1, -1, -1):
        character = code[at]
        if character in ")]":
            depth += 1
        elif character in "([":
            depth -= 1
            if depth < 0:
                depth = 0
                if character == "(":
                    names += re.findall(r"(\w+)$", code[max(0, at - 60):at])
                else:
                    names += re.findall(r"(\w+:)", code[at:place])
        elif character in ";}" and depth == 0:
            break
    return names


def constant_of(code, place):
    """The name of the constant that is defined by the statement at `place`, or None."""
    start = max(code.rfind(";", 0, place), code.rfind("}", 0, place), 0)
    name = re.search(r"\b(k[A-Z]\w*)(?:\[\])?\s*=", code[start:place])
    return name.group(1) if name else None


def is_message(text, calls, constant):
    if not re.search("[A-Za-z]", SPECIFIER.sub("", text)):
        return False
    if constant in OTHER_CONSTANTS or text in OTHER_TEXTS or re.match("/?(Library|System)/", text):
        return False
    if REPORTING.intersection(calls):
        return True
    return " " in text and not OTHER_FUNCTIONS.intersection(calls)


def fragments_of(text):
    """The fixed parts of a text of a source."""
    return [part for part in map(str.strip, SPECIFIER.split(text)) if re.search(r"\S", part)]


@pytest.fixture(scope="module")
def messages():
    """The messages of the sources: each text, and the file that it is in."""
    found = {}
    for path in sources():
        for text, calls, constant in literals(path.read_text(encoding="utf-8")):
            if is_message(text, calls, constant):
                found.setdefault(text, path.name)
    assert len(found) > 120
    return found


@pytest.fixture(scope="module")
def described():
    """The messages that the page describes."""
    found, is_table = [], False
    for line in PAGE.read_text(encoding="utf-8").splitlines():
        cells = line.split(" | ")
        if not line.startswith("|"):
            is_table = False
        elif cells[0] in ("| line", "| message"):
            is_table = True
        elif is_table and not line.startswith("|---"):
            message = re.fullmatch(r"\| `(.+)`", cells[0])
            assert message, line
            assert len(cells) == 3 and all(len(cell) > 3 for cell in cells[1:]), line
            found.append(message.group(1))
    assert len(found) == len(set(found))
    return found


@pytest.fixture(scope="module")
def pieces(described):
    """For each message of the page, the texts of the sources that it consists of, or None if it has
    other words."""
    texts = set()
    for path in sources():
        for text, _, _ in literals(path.read_text(encoding="utf-8")):
            texts.update(fragments_of(text))
    # A single letter would match parts of words.
    texts = {text for text in texts if len(text) > 1 or not text.isalnum()}
    return {message: pieces_of(message, texts) for message in described}


def test_page_has_every_message(messages, pieces):
    used = {piece for found in pieces.values() for piece in found or []}
    missing = [f"{path}: {text!r}" for text, path in messages.items()
               if not used.issuperset(fragments_of(text))]
    assert not missing


def test_page_has_no_other_message(pieces):
    assert not [message for message, found in pieces.items() if found is None]


def pieces_of(message, texts):
    """The fewest of `texts` that `message` consists of between its placeholders, or None."""
    found = []
    for part in re.split(rf"\b(?:{'|'.join(PLACEHOLDERS)})\b", message):
        pieces = pieces_of_part(part.strip(), texts)
        if pieces is None:
            return None
        found += pieces
    return found


def pieces_of_part(part, texts):
    """The same for a message without placeholders: the pieces are whole words with blanks between
    them."""
    best = {0: []}
    for end in range(1, len(part) + 1):
        if end < len(part) and part[end - 1].isalnum() and part[end].isalnum():
            continue
        ways = [[*best[start], part[start:end].strip()] for start in best if part[start:end].strip() in texts]
        if ways:
            best[end] = min(ways, key=len)
    return best.get(len(part))


def test_placeholders_are_explained_on_the_page():
    text = PAGE.read_text(encoding="utf-8")
    assert PLACEHOLDERS == set(re.search(r"^Words in capitals(.*?)\n\n", text, re.M | re.S).group(1)
                               .replace("`", " ").replace(",", " ").split()) & PLACEHOLDERS


@pytest.mark.parametrize("page", [
    "README.md", "ARCHITECTURE.md", "docs/kpim.md", "tools/kpim/kpim.1",
    "player/Installers/Mac/KPInstallManager/finalizer.8"])
def test_readers_find_the_page(page):
    assert "troubleshooting.md" in (REPOSITORY / page).read_text(encoding="utf-8")
