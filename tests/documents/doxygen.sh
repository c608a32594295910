#!/usr/bin/env bash
# The reference can be made without a warning: everything public is documented, and every reference leads somewhere.
set -euo pipefail
cd -- "$TESSEL_SOURCE_DIR"

work=$(mktemp -d)
trap 'rm -rf -- "$work"' EXIT
configuration=$(cat -- docs/Doxyfile; printf 'OUTPUT_DIRECTORY = %s\n' "$work")
doxygen - <<<"$configuration"
[[ -s $work/html/classtessel_1_1CVMDKDisk.html ]] || { echo "no page on CVMDKDisk was made" >&2; exit 1; }

# The check can fail: a header with something undocumented, named like those that are looked at.
mkdir -p "$work/wrong/include"
printf '#pragma once\n\n/// Documented.\nclass CThing {\npublic:\n    void method();\n};\n' >"$work/wrong/include/CThing.h"
if (cd -- "$work/wrong" && grep -v '^INPUT ' <<<"$configuration" |
    sed "s|^USE_MDFILE_AS_MAINPAGE.*||; \$a INPUT = include" | doxygen - 2>"$work/warnings"); then
    echo "an undocumented method passes" >&2
    exit 1
fi
grep -q 'Member method() .* is not documented' "$work/warnings" || { cat -- "$work/warnings" >&2; exit 1; }
