"""The manual page and --help name the same verbs, arguments, options, examples and exit codes, and the page is well
formed.

    manual.py PAGE
"""
import os
import re
import subprocess
import sys
from pathlib import Path

PROGRAM = os.environ["TESSEL_PROGRAM"]
PAGE = Path(sys.argv[1])


def get_help(*verb):
    return subprocess.run([PROGRAM, *verb, "--help"], capture_output=True, check=True, encoding="utf-8").stdout


def show(command, **environment):
    """What a command prints, which must not warn."""
    shown = subprocess.run(command, capture_output=True, encoding="utf-8", env={**os.environ, **environment})
    assert shown.returncode == 0 and shown.stderr == "", (command, shown.stderr)
    return shown.stdout


def part(text, head):
    """The lines below a head, up to the next empty line."""
    return text.split(f"\n{head}:\n", 1)[1].split("\n\n", 1)[0].rstrip("\n").split("\n")


def rows(lines):
    """Of two columns the left one; lines of the right one alone are left out."""
    return [re.split(" {2,}", line.strip())[0] for line in lines if re.match(" {2}[^ ]", line)]


def facts_of_help(verb):
    text = get_help(verb)
    options = rows(part(text, "Options"))
    assert options[0] == "-h, --help", options
    return {
        "usage": part(text, "Usage")[0].strip(),
        "arguments": rows(part(text, "Arguments")),
        "options": options[1:],
        "examples": [line.strip() for line in part(text, "Examples")],
        "exit codes": re.search(r"^Exit codes: (.*)\.$", text, re.M)[1],
    }


def facts_of_section(verb, lines):
    """Of the page as it is shown: tags stand 7 columns from the left, examples 11, other texts 7 or 21."""
    exit_codes = re.search(r"^ {7}Exit status: (.*)\.$", "\n".join(lines), re.M)
    assert exit_codes, f"the section of {verb} has no exit codes"
    # Of a tag that leaves room for it, the text stands beside it, else below it.
    tags = []
    for line, below in zip(lines, [*lines[1:], ""]):
        tag = re.match(r" {7}([^ ].*)$", line)
        beside = re.match(r" {7}(\[?[A-Z_]+\]?|-.*) $", line[:21].rstrip() + " ") and re.match(r" [^ ]", line[20:])
        if beside:
            tags.append(line[:21].strip())
        elif tag and re.match(r" {21}[^ ]", below):
            tags.append(tag[1])
    return {
        "usage": next(line.strip() for line in lines if line.strip()),
        "arguments": [tag for tag in tags if not tag.startswith("-")],
        "options": [tag for tag in tags if tag.startswith("-")],
        "examples": [line.strip() for line in lines if re.match(r" {11}tessel |.*\| tessel ", line)],
        "exit codes": exit_codes[1],
    }


show(["groff", "-man", "-ww", "-Tutf8", str(PAGE)])
# Wide enough for lines that no text of the page reaches the end of, so that nothing is hyphenated or justified.
page = show(["man", "-l", "--warnings", "--nj", "--nh", str(PAGE)], MANWIDTH="140", LC_ALL="C.UTF-8", MAN_KEEP_FORMATTING="")
version = subprocess.run([PROGRAM, "--version"], capture_output=True, check=True, encoding="utf-8").stdout.strip()
assert version in page, f"the page is not that of {version}"

general = get_help()
verbs = page.split("\nVERBS\n", 1)[1].split("\nSIZES\n", 1)[0]
sections = re.split(r"^ {3}([a-z]+)\n", verbs, flags=re.M)
assert sections[0].strip() == "", sections[0]
names = sections[1::2]
helped = rows(part(general, "Verbs"))
assert len(helped) >= 15, helped
assert names == helped, f"the page has the verbs {names}, --help has {helped}"

options = page.split("\nOPTIONS\n", 1)[1].split("\nVERBS\n", 1)[0]
told = [re.split(" {2,}", line.strip())[0] for line in options.split("\n") if re.match(" {7}-", line)]
assert told == rows(part(general, "Options")), told

faults = []
for name, text in zip(names, sections[2::2]):
    told, helped = facts_of_section(name, text.split("\n")), facts_of_help(name)
    for fact in helped:
        if told[fact] != helped[fact]:
            faults.append(f"{name}: {fact} are {told[fact]} in the manual and {helped[fact]} in --help")
assert not faults, "\n".join(faults)
print(f"{len(names)} verbs")
