#!/usr/bin/env bash
# Verbs that make or change disks tell with --json what they have done, in figures that are those of the disk, and
# without it nothing on standard output.
. "$(dirname -- "$0")/lib.sh"

printf 'geheim\n' >pw
printf 'anders\n' >pw2
make_image disk.raw
cp disk.raw other.raw
put other.raw 3000000 100000 7
data 100000 3 >bytes

# answers CODE ARGUMENT...: the verb says nothing with, and just one JSON object without. Both are run on the same files.
answers() {
    local code=$1
    shift
    rm -rf ../kept
    cp -R . ../kept
    run "$code" "$@" <bytes
    [[ ! -s $out ]] || fail "there should be nothing on standard output without --json"
    cp "$err" ../told
    find . -mindepth 1 -delete
    cp -R ../kept/. .
    run "$code" "$@" --json <bytes
    [[ $(json 'type(d).__name__') == dict ]] || fail "the answer should be an object"
    # compact's note is its answer to people.
    [[ $1 == compact ]] || same ../told "$err"
}
# disk_is NAME: the answer tells of this disk as info does.
disk_is() {
    local told
    told=$(json 'd["disk"]')
    ok info "$1" --json "${@:2}"
    json_is d "$told"
}

# --- create ---

answers 0 create new.vmdk 10485761
json_is 'list(d), d["requestedBytes"], d["disk"]["sizeBytes"]' "(['requestedBytes', 'disk'], 10485761, 10551296)"
json_is 'd["disk"]["fileSizeBytes"]' "$(size_of new.vmdk)"
disk_is new.vmdk
answers 0 create split.vmdk 20M --split=6M --password-file pw
json_is 'd["disk"]["encrypted"], len(d["disk"]["extents"])' '(True, 4)'
json_is 'd["disk"]["fileSizeBytes"]' "$(cat split*.vmdk | wc -c)"
disk_is split.vmdk
answers 0 create child.vmdk --parent new.vmdk
json_is 'd["requestedBytes"], d["disk"]["parent"]["reference"]' "(10551296, 'new.vmdk')"
disk_is child.vmdk
rm ./*.vmdk

# --- convert ---

for options in "" --compressed --split=6M "--password-file pw"; do
    read -ra words <<<"$options"
    answers 0 convert disk.raw disk.vmdk "${words[@]}"
    json_is 'd["source"], d["target"], d["sourceBytes"]' "('disk.raw', 'disk.vmdk', $image_size)"
    json_is '(d["kind"], d["sizeBytes"], d["allocatedBytes"]) == tuple(d["disk"][m] for m in ("kind", "sizeBytes", "allocatedBytes"))' True
    json_is 'd["sizeBytes"]' 9502720
    files=$(json 'd["disk"]["fileSizeBytes"]')
    [[ $files == $(cat disk*.vmdk | wc -c) ]] || fail "the files have other sizes than $files"
    disk_is disk.vmdk
    # It is what measure tells of plain disks, to the byte.
    if [[ $options != --compressed && $options != *pw* ]]; then
        ok measure disk.raw disk.vmdk "${words[@]}" --json
        json_is 'd["requiredBytes"]' "$files"
    fi
    rm disk*.vmdk
done
ok convert disk.raw disk.vmdk --quiet
answers 0 convert disk.vmdk back.raw --size $image_size
json_is 'd' "{'source': 'disk.vmdk', 'sourceBytes': $image_size, 'target': 'back.raw', 'kind': 'raw', 'sizeBytes': $image_size, \
'allocatedBytes': $(if tells_holes; then allocated back.raw; else size_of back.raw; fi), 'disk': None}"
same disk.raw back.raw
answers 0 convert - pipe.vmdk --size 8M
json_is 'd["source"], d["sourceBytes"], d["sizeBytes"]' "('-', 100000, 8388608)"
refused 2 'convert: --json: standard output has the bytes of the disk already (see tessel convert --help)' \
    convert disk.vmdk - --json
# What fails answers nothing.
refused 1 'back.raw: The file exists already (--force replaces it)' convert disk.vmdk back.raw --json

# --- write ---

ok info disk.vmdk --json
before=$(json 'd["contentID"]')
answers 0 write disk.vmdk 1M
json_is 'd["startBytes"], d["sizeBytes"]' '(1048576, 100000)'
json_is "d['disk']['contentID'] == '$before'" False
disk_is disk.vmdk
ok read disk.vmdk 1M 100000
same bytes "$out"

# --- rebase, flatten ---

mkdir moved
run 0 convert disk.raw base.vmdk --quiet --force
run 0 convert other.raw child.vmdk --parent base.vmdk --quiet
ok create leaf.vmdk --parent child.vmdk
cp base.vmdk moved/
ok info base.vmdk --json
id=$(json 'd["contentID"]')
answers 0 rebase child.vmdk moved/base.vmdk
json_is 'd["oldParent"]' "{'reference': 'base.vmdk', 'file': '$PWD/base.vmdk', 'contentID': '$id', 'outside': False, 'exists': True}"
json_is 'd["disk"]["parent"]["file"]' "$PWD/moved/base.vmdk"
disk_is child.vmdk
ok space leaf.vmdk --json
held=$(json 'd["payloadBytes"]')
ok map leaf.vmdk --json
below=$(json 'sum(r["sizeBytes"] for r in d["runs"] if (r["layer"] or 0) > 0)')
answers 0 flatten leaf.vmdk
json_is 'd["takenOverBytes"], d["oldParents"]' "($below, ['$PWD/child.vmdk', '$PWD/moved/base.vmdk'])"
json_is 'd["disk"]["parent"]' None
disk_is leaf.vmdk
ok space leaf.vmdk --json
json_is 'd["payloadBytes"]' $((held + below))

# --- compact ---

old=$(size_of disk.vmdk)
head -c 131072 /dev/zero | ok write disk.vmdk 1M
answers 0 compact disk.vmdk
json_is 'list(d), d["replaced"], d["oldExtentBytes"], d["newExtentBytes"]' \
    "(['replaced', 'oldExtentBytes', 'newExtentBytes', 'disk'], True, $old, $(size_of disk.vmdk))"
[[ $(size_of disk.vmdk) -lt $old ]] || fail "it should have become smaller"
[[ ! -s $err ]] || fail "the note's figures are in the answer"
disk_is disk.vmdk
answers 0 compact disk.vmdk
json_is 'd["replaced"], d["oldExtentBytes"] == d["newExtentBytes"]' '(False, True)'

# --- rename ---

ok convert disk.raw split.vmdk --quiet --split=6M
ok create heir.vmdk --parent split.vmdk
answers 0 rename split.vmdk moved/new.vmdk
json_is 'd["oldFile"], d["children"]' "('split.vmdk', ['$PWD/heir.vmdk'])"
json_is 'd["moves"]' "[{'from': '$PWD/split.vmdk', 'to': '$PWD/moved/new.vmdk'}, \
{'from': '$PWD/split-s00000.vmdk', 'to': '$PWD/moved/new-s00000.vmdk'}, \
{'from': '$PWD/split-s00001.vmdk', 'to': '$PWD/moved/new-s00001.vmdk'}]"
disk_is moved/new.vmdk
answers 0 rename moved/new.vmdk moved/new.vmdk
json_is 'd["moves"], d["children"]' '([], [])'

# --- passwd ---

ok convert disk.raw secret.vmdk --quiet --password-file pw
answers 0 passwd secret.vmdk --password-file pw --new-password-file pw2
json_is 'd["parentToChange"], d["disk"]["encrypted"]' '(None, True)'
disk_is secret.vmdk
ok read secret.vmdk 0 1 --password-file pw2
ok create kin.vmdk --parent secret.vmdk --password-file pw2
answers 0 passwd kin.vmdk --password-file pw2 --new-password-file pw
json_is 'd["parentToChange"]' "$PWD/secret.vmdk"

# Every verb has --json, but for read, whose standard output is the bytes.
ok --help
verbs=$(sed -n '/^Verbs:/,/^$/s/^  \([a-z]*\) .*/\1/p' "$out")
[[ $(wc -w <<<"$verbs") -ge 15 ]] || fail "--help names only: $verbs"
for verb in $verbs; do
    ok "$verb" --help
    [[ $verb == read ]] || grep -q '^  --json ' "$out" || fail "$verb should have --json"
done
[[ -z $(find . -name 'tessel-tmp-*' -o -name '*.lock') ]] || fail "something was left"
