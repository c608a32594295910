"""docs/errors.md and the sources name the same messages, classes and codes.

What counts as a message in the sources:
  - in src, every text with a blank in it, but for the few kinds of NO_MESSAGES; the findings of the check, which have
    files of their own and whose wording may change, are left out (docs/program.md has their kinds);
  - in cli, every such text inside of a call that fails or tells (RAISING).
Texts that are put together are taken as one, with … for what only the run tells. In the document, messages stand in
backquotes in the first column of the tables below "## Messages".
"""
import os
import pathlib
import re
import sys

ROOT = pathlib.Path(os.environ["TESSEL_SOURCE_DIR"])
FINDINGS = re.compile(r"C(CheckedExtent|ExtentChecker|GrainRecordChecker|GrainTablesChecker|VMDKDiskChecker)\.cpp$")
# Texts of the library that nobody is shown as a message: what is written into descriptors, names of methods and of
# numbers, what compressors say of themselves, and what the compiler tells.
NO_MESSAGE_CALLS = {"addGenericLine", "verify", "static_assert"}
NO_MESSAGES = re.compile(r" constructor$|\bzlib level\b|^tessel: (error|warning|note)$|^\(see … --help\)$")
# Calls of the program whose texts are told.
RAISING = re.compile(r"^(C\w*(Error|Failure)|tell\w*|fail\w*|throw\w*|log(Warning|Error))$")
NAMES_OF_FILES = {"standard input", "standard output"}
# Wrappers that take part in putting a text together.
TRANSPARENT = {"String", "std::string", "lum::String", "("}
TOKEN = re.compile(
    r"""//[^\n]*|/\*.*?\*/|(?:L|u8)?"(?:\\.|[^"\\])*"|'(?:\\.|[^'\\])*'|[A-Za-z_][\w:]*|->|\s+|.""", re.S)


def trim(text):
    return text.replace("\\n", "").strip("… :;,.\n")


class Frame:
    def __init__(self, name):
        self.name = name
        self.parts = []
        self.line = 0


def messages_in(text):
    """Yields (line, names of the enclosing calls, text) for each text, put together where it is."""
    text = re.sub(r"^\s*#\s*include.*$", "", text, flags=re.M)
    frames = [Frame("")]
    found = []
    previous = ""
    line = 1

    def flush(frame):
        whole = trim(re.sub("…+", "…", "".join(frame.parts)))
        if " " in whole.replace("…", "").strip():
            found.append((frame.line, [f.name for f in frames], whole))
        frame.parts = []
        frame.line = 0

    for match in TOKEN.finditer(text):
        token = match.group()
        start = line
        line += token.count("\n")
        if token.isspace() or token.startswith(("//", "/*")):
            continue
        frame = frames[-1]
        if len(token) > 1 and token.endswith('"'):
            frame.parts.append(token[token.index('"') + 1:-1].replace('\\"', '"').replace("\\\\", "\\"))
            frame.line = frame.line or start
        elif len(token) > 1 and token.endswith("'"):
            frame.parts.append(token[1:-1].lstrip("'"))
        elif token in "({[":
            frames.append(Frame(previous if re.match(r"[A-Za-z_]", previous) else token))
        elif token in ")}]":
            if len(frames) > 1:
                if frame.name in TRANSPARENT and token == ")" and any(part != "…" for part in frame.parts):
                    frames.pop()
                    frames[-1].parts += frame.parts
                    frames[-1].line = frames[-1].line or frame.line
                else:
                    flush(frame)
                    frames.pop()
                    frames[-1].parts.append("…")
        elif token in ",;?:":
            flush(frame)
        elif token != "+":
            frame.parts.append("…")
        previous = token
    return found


def sources(folder):
    return sorted(path for path in (ROOT / folder).rglob("*") if path.suffix in (".cpp", ".h"))


def is_message(folder, calls, text):
    if folder == "src":
        return not NO_MESSAGE_CALLS & set(calls) and not NO_MESSAGES.search(text)
    return (any(RAISING.match(call.split("::")[-1]) for call in calls) and text not in NAMES_OF_FILES
            and not NO_MESSAGES.search(text))


def documented(text):
    """The messages of the document, in the form of those of the sources."""
    begin = text.index("\n## Messages")
    return {
        trim(message)
        for row in re.findall(r"^\| (`.*?) \|", text[begin:], re.M)
        for message in re.findall(r"`([^`]+)`", row)
        if " " in trim(message)
    }


def check_codes(text):
    faults = []
    for header, enumeration in (("CIOError", "Code"), ("CFileSystemError", "Problem")):
        source = (ROOT / f"include/lum/{header}.h").read_text(encoding="utf-8")
        codes = re.findall(rf"^\s+{enumeration}_(\w+) = (\d+)", source, re.M)
        rows = re.findall(rf"^\| (\d+) \| `{enumeration}_(\w+)` \|", text, re.M)
        if not codes or sorted(codes) != sorted((name, number) for number, name in rows):
            faults.append(f"docs/errors.md has other numbers or names of {header} than {header}.h: {rows}")
    for header in sorted((ROOT / "include").rglob("C*Error.h")):
        if f"`{header.stem}`" not in text:
            faults.append(f"docs/errors.md does not name the class {header.stem}")
    return faults


def main():
    page = (ROOT / "docs/errors.md").read_text(encoding="utf-8")
    told = documented(page)
    faults = check_codes(page)
    existing = set()
    count = 0
    for folder in ("src", "cli"):
        for path in sources(folder):
            if FINDINGS.search(path.name):
                continue
            for line, calls, text in messages_in(path.read_text(encoding="utf-8")):
                existing.add(text)
                if is_message(folder, calls, text):
                    count += 1
                    if text not in told:
                        faults.append(f"{path.relative_to(ROOT)}:{line}: docs/errors.md lacks `{text}`")
    for text in sorted(told - existing):
        faults.append(f"docs/errors.md: no source has `{text}`")

    # The search finds what it should: a message in pieces, and only where something is raised.
    sample = 'void f() { throw CFailure(name, "It is " + std::to_string(n) + " bytes " "too long"); g("no message"); }'
    if [text for _, calls, text in messages_in(sample) if is_message("cli", calls, text)] != ["It is … bytes too long"]:
        faults.append(f"the search is wrong: {messages_in(sample)}")
    if count < 200:
        faults.append(f"only {count} messages were found")
    sys.exit("\n".join(faults) or 0)


main()
