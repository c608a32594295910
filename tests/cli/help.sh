#!/usr/bin/env bash
# --help shows examples first, and all that it names exists; --version tells the version.
. "$(dirname -- "$0")/lib.sh"

verbs="info convert create read write space map compare measure check rebase flatten compact rename passwd"
ok --version
version=$(sed -n 's/^ *VERSION \([0-9.]*\)$/\1/p' "$TESSEL_SOURCE_DIR/CMakeLists.txt" | head -n 1)
output_is "tessel $version"

ok --help
cp "$out" help
for verb in $verbs; do
    grep -q "^  $verb  " help || fail "--help should name $verb"
done
[[ $(sed -n '/^Verbs:/,/^$/p' help | grep -c '^  ') -eq $(wc -w <<<"$verbs") ]] || fail "other verbs are named"
ok -h
same help "$out"

for verb in $verbs; do
    ok "$verb" --help
    cp "$out" help
    # The examples stand before usage, arguments and options.
    [[ $(grep -n -m 1 '^Examples:' help | cut -d: -f1) -lt $(grep -n -m 1 '^Usage:' help | cut -d: -f1) ]] ||
        fail "examples should come first"
    grep -q "^  tessel $verb [A-Z]" help || fail "the usage of $verb is missing"
    # Every example's options are options of the verb.
    sed -n '/^Examples:/,/^Usage:/p' help | tr ' =' '\n\n' | sed -n '/^--[a-z-]*$/p' | sort -u >used
    while IFS= read -r option; do
        grep -q -- "^  \(-., \)\?$option\b" help || fail "the example's option $option is none of $verb's"
    done <used
    ok "$verb" -h
    same help "$out"
    # Help wins over whatever else is wrong.
    ok "$verb" --help one two three
    [[ $(awk '{ print length($0) }' help | sort -n | tail -n 1) -le 100 ]] || fail "a line of the help is too long"
done
only_files help used
