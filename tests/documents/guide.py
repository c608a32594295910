"""Every C++ block of the guide stands, line by line, in the example that the comment before it names."""
import os
import pathlib
import sys
import textwrap

root = pathlib.Path(os.environ["TESSEL_SOURCE_DIR"])
lines = (root / "docs/guide.md").read_text(encoding="utf-8").splitlines()


def stands_in(block, source):
    wanted = textwrap.dedent("\n".join(block))
    return any(
        textwrap.dedent("\n".join(source[start:start + len(block)])) == wanted
        for start in range(len(source) - len(block) + 1))


found = 0
for number, line in enumerate(lines):
    if line != "```cpp":
        continue
    marker = lines[number - 1]
    if not (marker.startswith("<!-- examples/") and marker.endswith(".cpp -->")):
        sys.exit(f"docs/guide.md:{number + 1}: no comment names the example of this block")
    name = marker[len("<!-- "):-len(" -->")]
    block = lines[number + 1:lines.index("```", number)]
    source = (root / name).read_text(encoding="utf-8").splitlines()
    if not block or not stands_in(block, source):
        sys.exit(f"docs/guide.md:{number + 1}: this block does not stand in {name}")
    if stands_in(block + ["int nothing;"], source):
        sys.exit("the comparison finds what is not there")
    found += 1

if found < 4:
    sys.exit(f"docs/guide.md has only {found} blocks of code")
