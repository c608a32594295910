#!/usr/bin/env bash
# What the documents say of the program and the library is so.
. "$(dirname -- "$0")/lib.sh"
cd -- "$TESSEL_SOURCE_DIR"
last="reading the documents"

# README quotes the example that is compiled.
sed -n '/^```cpp$/,/^```$/p' README.md | sed '1d;$d' >"$base/quoted"
same "$base/quoted" examples/read_sector.cpp

# Every verb stands in README, every option in an example or a sentence of the program's page exists.
ok --help
verbs=$(sed -n '/^Verbs:/,/^$/s/^  \([a-z]*\) .*/\1/p' "$out")
for verb in $verbs; do
    grep -q "\`$verb\`" README.md || fail "README.md does not name $verb"
    ok "$verb" --help
    cat -- "$out" >>"$base/help"
done
while IFS= read -r option; do
    grep -q -- "$option\b" "$base/help" || fail "docs/program.md names $option, which no verb has"
done < <(grep -o -- '`--[a-z-]*' docs/program.md | tr -d '`' | grep -v '^--$' | sort -u)

# The members of the JSON answers are those of the page.
cd -- "$base/work"
ok create base.vmdk 10M
ok create child.vmdk --parent base.vmdk
members() {
    json '"\n".join(sorted(k for o in [d, *(d.get("extents") or []), d.get("parent") or {}] for k in o))' | sort -u
}
ok info child.vmdk --json
members >found
sed -n '/^```json$/,/^```$/p' "$TESSEL_SOURCE_DIR/docs/program.md" | grep -o '"[a-zA-Z]*":' | tr -d '":' | sort -u >told
same told found
# section VERB: the members that the page names for the answer of a verb.
section() {
    awk -v head="## \`$1 --json\`" '/^##/{on = $0 == head} on' "$TESSEL_SOURCE_DIR/docs/program.md" |
        grep '^| `' | cut -d'|' -f2 | grep -o '[a-zA-Z]*' | sort -u
}
# told_of VERB MEMBERS...: the members of the answer, by an expression, are those of the page.
told_of() {
    json "'\n'.join(sorted({*d, *($2)}))" >found
    section "$1" >told
    [[ -s told ]] || fail "docs/program.md has no section of $1 --json"
    same told found
}
ok space child.vmdk --json
told_of space '()'
ok map child.vmdk --json
told_of map 'd["runs"][0]'
run 1 compare base.vmdk found --json
told_of compare 'd["ranges"][0]'
ok measure base.vmdk --json
told_of measure '()'
ok write base.vmdk 0 --json <found
told_of write '()'
run 3 check child.vmdk --json
told_of check 'd["findings"][0]'
ok create other.vmdk 10M --json
told_of create '()'
ok convert base.vmdk image.raw --json
told_of convert '()'
ok rebase child.vmdk other.vmdk --unsafe --json
told_of rebase '()'
ok flatten child.vmdk --json
told_of flatten '()'
ok compact child.vmdk --json
told_of compact '()'
ok rename child.vmdk new.vmdk --json
told_of rename 'd["moves"][0]'
printf 'geheim\n' >pw
ok create secret.vmdk 10M --password-file pw
ok passwd secret.vmdk --password-file pw --new-password-file pw --json
told_of passwd '()'
# Every kind of finding has its row, and only these.
sed -n '/getVMDKCheckKindName/,/};/p' "$TESSEL_SOURCE_DIR/src/disk/CVMDKDiskChecker.cpp" | grep -o '"[a-zA-Z]*"' |
    tr -d '"' | sort >found
sed -n '/^### Kinds of findings/,/^## /p' "$TESSEL_SOURCE_DIR/docs/program.md" | grep '^| `' | cut -d'|' -f2 |
    grep -o '[a-zA-Z]*' | sort >told
same told found

# Links between the documents lead somewhere.
cd -- "$TESSEL_SOURCE_DIR"
links=0
for page in *.md docs/*.md; do
    while IFS= read -r target; do
        links=$((links + 1))
        [[ -e $(dirname -- "$page")/${target%%#*} ]] || fail "$page leads to $target, which is not there"
    done < <(grep -o ']([^)#:]*[^):]*)' "$page" | grep -v '](#' | sed 's/^](//; s/)$//' | grep -v '://' || true)
done
((links > 20)) || fail "only $links links were found"
