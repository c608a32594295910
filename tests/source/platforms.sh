#!/usr/bin/env bash
# No source outside of src/foundation asks for the system or its compiler: what differs there stands in files that the
# build chooses, and everything else tests for the feature that it wants.
#
#   platforms.sh FOLDER    the root of the sources
set -euo pipefail
export LC_ALL=C.UTF-8
root=$1

names='_WIN32|_WIN64|WIN32|_MSC_VER|__MINGW[A-Z0-9_]*|__CYGWIN__|__(gnu_)?linux(__)?|__unix(__)?|__APPLE__'
names+='|__MACH__|__ANDROID__|__(Free|Net|Open)BSD__|__sun|_AIX|__GLIBC__'
condition="^[[:space:]]*#[[:space:]]*(if|ifdef|ifndef|elif|elifdef|elifndef)\\b.*\\b($names)\\b"
defined="(\\bdefined[[:space:](]*|#[[:space:]]*(el)?ifn?def[[:space:]]+)($names|linux|unix)\\b"

# find_conditions FOLDER: where they stand, one a line.
find_conditions() {
    local folder folders=()
    for folder in include src cli common tests fuzz examples benchmarks plugins; do
        [[ ! -d $1/$folder ]] || folders+=("$folder")
    done
    (
        cd -- "$1"
        grep -rnE --include='*.h' --include='*.h.in' --include='*.cpp' --include='*.c' "$condition|$defined" \
            "${folders[@]}" || [[ $? -eq 1 ]]
    ) | grep -v '^src/foundation/' || [[ $? -eq 1 ]]
}

# What it looks for it must find.
scratch=$(mktemp -d)
trap 'rm -rf -- "$scratch"' EXIT
mkdir -p -- "$scratch/cli" "$scratch/src/foundation"
cat >"$scratch/cli/wrong.cpp" <<'WRONG'
#ifdef _WIN32
#  if defined ( __linux__ ) || \
      defined(_MSC_VER)
#elif !defined(__APPLE__)
WRONG
cp -- "$scratch/cli/wrong.cpp" "$scratch/src/foundation"
printf '%s\n' '#if defined(SEEK_DATA)' '#if __has_include(<linux/fs.h>)' '// _WIN32 is defined' >"$scratch/cli/right.cpp"
found=$(find_conditions "$scratch" | cut -d: -f1,2 | paste -sd' ')
if [[ $found != "cli/wrong.cpp:1 cli/wrong.cpp:2 cli/wrong.cpp:3 cli/wrong.cpp:4" ]]; then
    echo "Conditions are not found as they should be: $found" >&2
    exit 1
fi

found=$(find_conditions "$root")
if [[ -n $found ]]; then
    printf 'These ask for a system or its compiler outside of src/foundation:\n%s\n' "$found" >&2
    exit 1
fi
count=$(find "$root/cli" "$root/include" -name '*.h' | wc -l)
if ((count < 10)); then
    echo "There are no sources in $root" >&2
    exit 1
fi
