"""Compares the library's binary interface with the record beside this script, and says what has changed.

    record.py LIBRARY [--types]            fails when the interface differs from the record
    record.py LIBRARY [--types] --renew    writes the record anew

symbols.txt has what the shared library offers: its functions and variables, as its strong symbols, which only it may
define. Templates and inline functions are weak, every user has a copy, and which ones there are differs from compiler to
compiler, as do the symbols of virtual tables.

types.txt has how the public classes lie in memory: sizes, bases, members, places in the tables of virtual functions, and
the values of enumerations, as abidw of libabigail reads them. It needs a library with debug information, and is that of
Clang: --types.
"""
import pathlib
import re
import subprocess
import sys
import xml.etree.ElementTree as ElementTree

HERE = pathlib.Path(__file__).resolve().parent
INCLUDE = HERE.parent.parent / "include"
NAMESPACES = {"lum", "sigil", "brook", "creek", "tessel"}
OWN = re.compile(r"^(" + "|".join(sorted(NAMESPACES)) + ")::")


def read_symbols(library):
    table = subprocess.run(["nm", "--dynamic", "--demangle", "--defined-only", library],
                           check=True, capture_output=True, text=True).stdout
    found = set()
    for line in table.splitlines():
        _, kind, name = line.split(" ", 2)
        if kind in "ABCDRTG" and OWN.match(name):
            found.add(re.sub(r"\[abi:\w+\]", "", name))
    return sorted(found)


class TypeReader:
    """Walks what abidw writes. Ids name types; classes stand in their namespaces or in other classes."""

    def __init__(self, library):
        text = subprocess.run(
            ["abidw", "--no-corpus-path", "--no-comp-dir-path", "--headers-dir", str(INCLUDE), library],
            check=True, capture_output=True, text=True).stdout
        self.types = {}
        self.names = {}
        self.lines = set()
        root = ElementTree.fromstring(text)
        for unit in root.iter("abi-instr"):
            self.name_all(unit, "")
        for unit in root.iter("abi-instr"):
            for space in unit.findall("namespace-decl"):
                if space.get("name") in NAMESPACES:
                    self.read_scope(space, space.get("name"))

    def name_all(self, scope, prefix):
        for node in scope:
            name = prefix + (node.get("name") or "")
            if node.get("id"):
                self.types[node.get("id")] = node
                self.names[node.get("id")] = name
            if node.tag in ("namespace-decl", "class-decl"):
                self.name_all(node, name + "::")
            elif node.tag in ("member-type", "member-template", "member-function"):
                self.name_all(node, prefix)

    def describe(self, type_id, depth=0):
        node = self.types.get(type_id)
        if node is None or depth > 8:
            return "?"
        if node.tag in ("pointer-type-def", "reference-type-def"):
            return self.describe(node.get("type-id"), depth + 1) + ("*" if node.tag[0] == "p" else "&")
        if node.tag == "qualified-type-def":
            return "const " + self.describe(node.get("type-id"), depth + 1)
        return self.names[type_id]

    def read_scope(self, scope, prefix):
        for node in scope:
            inner = node[0] if node.tag == "member-type" and len(node) else node
            name = f"{prefix}::{inner.get('name')}"
            if inner.tag == "namespace-decl":
                self.read_scope(inner, name)
            elif inner.tag in ("class-decl", "enum-decl") and self.is_public(inner, node):
                if inner.tag == "class-decl":
                    self.read_class(inner, name)
                else:
                    for value in inner.iter("enumerator"):
                        self.lines.add(f"{name}: {value.get('name')} = {value.get('value')}")

    @staticmethod
    def is_public(node, member):
        place = node.get("filepath") or ""
        return ("/include/" in place or place.startswith("include/")) and "/c++/" not in place and \
            "/usr/include/" not in place and member.get("access") != "private" and \
            node.get("is-declaration-only") != "yes"

    def read_class(self, node, name):
        self.lines.add(f"{name}: {node.get('size-in-bits')} bits")
        for base in node.findall("base-class"):
            virtual = "virtual " if base.get("is-virtual") == "yes" else ""
            self.lines.add(f"{name}: {virtual}base {self.describe(base.get('type-id'))} at {base.get('layout-offset-in-bits')}")
        for member in node.findall("data-member"):
            variable = member.find("var-decl")
            if member.get("static") != "yes":
                self.lines.add(f"{name}: member {variable.get('name')} ({self.describe(variable.get('type-id'))}) "
                               f"at {member.get('layout-offset-in-bits')}")
        for member in node.findall("member-function"):
            place = member.get("vtable-offset")
            if place is not None:
                function = member.find("function-decl")
                self.lines.add(f"{name}: virtual {function.get('name')} at {place}")
        self.read_scope(node, name)


def sort_key(line):
    return [int(part) if part.isdigit() else part for part in re.split(r"(\d+)", line)]


def compare(name, recorded, found):
    """What a reader of a failed test is told; nothing when the two are the same."""
    told = []
    gone = sorted(set(recorded) - set(found), key=sort_key)
    new = sorted(set(found) - set(recorded), key=sort_key)
    if gone:
        told += [f"{name}: gone or different. Programs built against the library before break:"] + \
            [f"  - {line}" for line in gone]
    if new:
        told += [f"{name}: new:"] + [f"  + {line}" for line in new]
    return told


def main():
    arguments = [argument for argument in sys.argv[1:] if not argument.startswith("--")]
    options = [argument for argument in sys.argv[1:] if argument.startswith("--")]
    library = arguments[0]
    parts = {"symbols.txt": read_symbols(library)}
    if "--types" in options:
        parts["types.txt"] = sorted(TypeReader(library).lines, key=sort_key)

    told = []
    for name, found in parts.items():
        if "--renew" in options:
            (HERE / name).write_text("\n".join(found) + "\n", encoding="utf-8")
            continue
        recorded = (HERE / name).read_text(encoding="utf-8").splitlines()
        told += compare(name, recorded, found)
        if len(found) < 300 or not compare(name, recorded, found[1:]):
            told.append(f"{name}: the comparison is not worth anything")
    if told:
        command = " ".join(["python3", str(pathlib.Path(__file__).resolve()), library, *options, "--renew"])
        told += ["", "If this is meant: name it in CHANGELOG.md under API; when something is gone or different and the",
                 "last release had it, raise the minor version in CMakeLists.txt, which the SONAME follows; then renew",
                 "the record and commit it:", "", f"  {command}"]
    sys.exit("\n".join(told) or 0)


main()
