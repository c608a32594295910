#!/usr/bin/env bash
# measure tells the room that the result of convert takes: of plain disks to the byte, of compressed ones nearly.
. "$(dirname -- "$0")/lib.sh"

# sum_of NAME: the lengths of all files of the new disk.
sum_of() {
    local sum=0 file
    for file in "$1".vmdk "$1"-s?????.vmdk; do
        [[ ! -e $file ]] || sum=$((sum + $(size_of "$file")))
    done
    echo $sum
}
# exact SOURCE [OPTION]...: convert makes files of just that length, and as many.
exact() {
    run 0 measure "$1" new.vmdk "${@:2}" --json
    local required files
    required=$(json 'd["requiredBytes"]')
    files=$(json 'd["files"]')
    json_is 'd["estimate"], d["marginBytes"]' '(False, 0)'
    local kind size
    kind=$(json 'd["kind"]')
    size=$(json 'd["sizeBytes"]')
    only_new
    run 0 convert "$1" new.vmdk "${@:2}" --quiet
    [[ $(sum_of new) -eq $required ]] || fail "$required bytes were foretold, and it has $(sum_of new)"
    [[ $(ls new.vmdk new-s*.vmdk 2>/dev/null | wc -l) -eq $files ]] || fail "$files files were foretold"
    ok info new.vmdk --json
    json_is 'd["kind"], d["sizeBytes"]' "('$kind', $size)"
    rm new*.vmdk
}
only_new() {
    [[ -z $(find . -name 'new*') ]] || fail "measure should make nothing"
}
make_image disk.raw
exact disk.raw
exact disk.raw --split
exact disk.raw --split=2M
exact disk.raw --split=2M --on-demand
cp --sparse=never disk.raw written.raw # zeros that are no hole make no file either
exact written.raw --split=2M --on-demand
exact disk.raw --size 20M
exact disk.raw --size 3000000
data 9M 1 >full.raw
exact full.raw --size 1000
run 0 measure full.raw --size 1000 --json
[[ $(json 'd["requiredBytes"]') -lt 300000 ]] || fail "what --size cuts off should not count"
truncate -s 5G large.raw
put large.raw 4000000000 3000000 1
exact large.raw
exact large.raw --split
exact large.raw --split --on-demand
long=$(printf 'n%.0s' {1..200})
run 0 measure disk.raw "$long.vmdk" --json --split=2M
required=$(json 'd["requiredBytes"]')
run 0 convert disk.raw "$long.vmdk" --split=2M --quiet
[[ $(sum_of "$long") -eq $required ]] || fail "long names should count"
rm "$long"*

# From disks, to children, encrypted.
run 0 convert disk.raw disk.vmdk --quiet
run 0 convert disk.raw packed.vmdk --compressed --quiet
exact disk.vmdk
exact packed.vmdk --split=3M
make_image changed.raw
put changed.raw 700000 200000 7
dd if=/dev/zero of=changed.raw bs=64K seek=2 count=1 conv=notrunc status=none
exact changed.raw --parent disk.vmdk
exact disk.raw --parent disk.vmdk
truncate -s 1M short.raw
exact short.raw --parent disk.vmdk
truncate -s 1000000 odd.raw
put odd.raw 0 1000000 1
exact odd.raw --parent disk.vmdk
printf 'pw\n' >pw
ok measure disk.raw --encrypt --json
required=$(json 'd["requiredBytes"]')
run 0 convert disk.raw new.vmdk --password-file pw --quiet
[[ $(size_of new.vmdk) -eq $required ]] || fail "encryption of plain grains should take no more room"
ok measure new.vmdk --password-file pw --json
json_is 'd["requiredBytes"]' "$required"
rm new.vmdk

# Raw images: holes take none.
ok measure disk.vmdk disk2.raw --json
json_is 'd["kind"], d["fullyAllocatedBytes"], d["sizeBytes"], d["files"]' "('raw', 9502720, 9502720, 1)"
required=$(json 'd["requiredBytes"]')
ok convert disk.vmdk disk2.raw
[[ $required -le $(allocated disk2.raw) && $required -gt 300000 ]] || fail "$required bytes are no hole"
rm disk2.raw

# A full disk takes what was foretold for it.
data $((10 * 1048576)) 3 >full.raw
ok measure full.raw --json
json_is 'd["requiredBytes"] == d["fullyAllocatedBytes"]' True

# Compressed disks are estimated. close SOURCE PERCENT [OPTION]...
close() {
    local percent=$2
    run 0 measure "$1" new.vmdk --compressed "${@:3}" --json
    json_is 'd["estimate"]' True
    json_is 'd["requiredBytes"] <= d["fullyAllocatedBytes"]' True
    local told margin
    told=$(json 'd["requiredBytes"]')
    margin=$(json 'd["marginBytes"]')
    run 0 convert "$1" new.vmdk --compressed "${@:3}" --quiet
    local found off
    found=$(sum_of new)
    off=$((told > found ? told - found : found - told))
    ((off * 100 <= found * percent)) || fail "$told bytes were foretold (give or take $margin), and it has $found"
    rm new*.vmdk
}
# All of a small disk is looked at.
close disk.raw 0 --level 6
close disk.raw 0 --level 1
close disk.raw 0 --split=4M
close packed.vmdk 0
ok measure disk.vmdk --compressed --encrypt --json
told=$(json 'd["requiredBytes"]')
run 0 convert disk.vmdk new.vmdk --compressed --password-file pw --quiet
[[ $(size_of new.vmdk) -eq $told ]] || fail "$told bytes were foretold of an encrypted disk"
rm new.vmdk
run 0 create parent.vmdk 10M --compressed
run 0 convert disk.raw base.vmdk --compressed --size 9502720 --quiet
run 0 measure changed.raw --parent base.vmdk --json
told=$(json 'd["requiredBytes"]')
run 0 convert changed.raw new.vmdk --parent base.vmdk --quiet
[[ $(size_of new.vmdk) -eq $told ]] || fail "$told bytes were foretold of a child"
rm new.vmdk
# Of a large one, some: noise, text and zeros by turns.
python3 - <<'END'
import random
chance = random.Random(4)
with open("mixed.raw", "wb") as file:
    for i in range(3000):
        kind = chance.randrange(3)
        noise = chance.randbytes(65536 if kind == 0 else 16384)
        file.write(noise if kind == 0 else noise + b"abcd" * 12288 if kind == 1 else bytes(65536))
END
close mixed.raw 5 --level 1
make_image few.raw
ok measure few.raw --compressed
output_holds ' bytes); every grain was looked at'
ok measure few.raw --compressed --json
json_is 'd["estimate"], d["marginBytes"]' '(True, 0)'
rm few.raw
ok measure mixed.raw --compressed --level 1
output_holds 'required:  about '
output_holds '; estimated from a sample'
ok measure mixed.raw --compressed --level 1 --json
json_is '0 < d["marginBytes"] < d["requiredBytes"] / 10' True
same_answer=$(cat "$out")
ok measure mixed.raw --compressed --level 1 --json
output_is "$same_answer"
rm mixed.raw

# The metadata of a large compressed disk are reckoned.
truncate -s 600G huge.raw
ok measure huge.raw --compressed --json
told=$(json 'd["requiredBytes"]')
run 0 create huge.vmdk 600G --compressed
off=$(($(size_of huge.vmdk) - told))
((off < 65536 && off > -65536)) || fail "the metadata are off by $off bytes"
rm huge.*

ok measure disk.raw
output_holds 'new disk:  monolithicSparse, 9.06 MiB (9502720 bytes)'
only_new
refused 2 'measure: A pipe cannot be measured, since it can be read only once (see tessel measure --help)' measure -
refused 2 'measure: Options of VMDK disks do not go with raw data (--to vmdk) (see tessel measure --help)' \
    measure disk.vmdk x.raw --to raw --compressed
refused 2 'measure: --level: only compressed disks have a level (--compressed) (see tessel measure --help)' \
    measure disk.raw --level 3
refused 2 'measure: --split=1K: a file of this size has no room for data beside its metadata; choose a larger limit, such as 2G (see tessel measure --help)' \
    measure disk.raw --split=1K
refused 1 'none.raw: No such file' measure none.raw
