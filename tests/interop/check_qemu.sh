#!/usr/bin/env bash
# check finds nothing in disks that qemu-img made and qemu-io wrote to, whoever wrote to them last, and finds
# each kind of damage that such disks can have.
. "$(dirname -- "${BASH_SOURCE[0]}")/common.sh"

# whole DISK...: no finding but dead space, by either way of looking.
whole() {
    local disk option
    for disk; do
        for option in "" --quick; do
            tessel check "$disk" --json $option >found.json || fail "check $disk $option: exit code $?"
            python3 - "$disk" <<'END' || fail "check $disk $option"
import json, sys
found = json.load(open("found.json"))
bad = [f for f in found["findings"] if f["kind"] != "deadSpace"]
assert found["damageCount"] == 0 and not bad, bad
assert found["checkedFiles"] > 0
END
        done
    done
}

# damaged DISK KIND TABLE GRAIN
damaged() {
    local code=0
    tessel check "$1" --json >found.json || code=$?
    equal "exit code for $1" 3 $code
    python3 - "$@" <<'END' || fail "check $*"
import json, sys
disk, kind, table, grain = sys.argv[1:5]
found = json.load(open("found.json"))["findings"]
assert any(f["severity"] == "damage" and f["kind"] == kind and str(f["table"]) == table and str(f["grain"]) == grain
           for f in found), found
END
}

# spoil FILE PYTHON: as if the medium had changed it; spoil.py says what the code has at hand.
spoil() {
    python3 "${TESSEL_SOURCE_DIR:?}/tests/support/spoil.py" "$@"
}

# try EXTENT DISK KIND TABLE GRAIN PYTHON: the damage is found, and gone when the extent is put back.
try() {
    local extent=$1
    cp -- "$extent" kept
    spoil "$extent" "$6"
    damaged "$2" "$3" "$4" "$5"
    cp -- kept "$extent"
}

make_raw base.raw $((40 * 1048576 + 512)) 5
for format in monolithicSparse twoGbMaxExtentSparse; do
    disk=$format.vmdk
    qemu-img create -q -f vmdk -o subformat=$format empty-$disk 100M
    whole empty-$disk
    qemu_io -f vmdk -c 'write -P 1 0 512' -c 'write -P 2 40M 700k' -c 'write -P 3 99M 1M' -c 'write -z 1M 1M' \
        -c 'write -P 4 39M 2M' empty-$disk
    whole empty-$disk
    qemu-img convert -f raw -O vmdk -o subformat=$format base.raw $disk
    whole $disk
    qemu_io -f vmdk -c 'write -P 1 65000 2000' -c 'write -P 0 1M 3M' -c 'discard 5M 1M' $disk
    whole $disk
    noise 9 300000 | tessel write $disk 2222222
    whole $disk
    qemu_io -f vmdk -c 'write -P 7 2200000 900000' $disk
    whole $disk
done
qemu-img create -q -f vmdk -o subformat=twoGbMaxExtentSparse large.vmdk 5G
qemu_io -f vmdk -c 'write -P 1 0 512' -c 'write -P 2 2047M 2M' -c 'write -P 3 4G 1M' large.vmdk
whole large.vmdk
for format in monolithicSparse twoGbMaxExtentSparse; do
    qemu-img create -q -f vmdk -o subformat=monolithicSparse -b $format.vmdk -F vmdk child-$format.vmdk
    whole child-$format.vmdk
    qemu_io -f vmdk -c 'write -P 51 99999 7' -c 'write -P 0 140000 250000' child-$format.vmdk
    whole child-$format.vmdk
done

for format in monolithicSparse twoGbMaxExtentSparse; do
    disk=$format.vmdk
    extent=$disk
    [[ $format == monolithicSparse ]] || extent=${disk%.vmdk}-s001.vmdk
    try $extent $disk tablesDiffer 0 2 'p(entry(2), 0)'
    try $extent $disk tablesDiffer 0 3 'p(other(3), 5)'
    try $extent $disk entryBehindEnd 0 0 'p(entry(0), 1 << 24); p(other(0), 1 << 24)'
    try $extent $disk entryInMetadata 0 0 'p(entry(0), 2); p(other(0), 2)'
    try $extent $disk entryMisaligned 0 0 'p(entry(0), u(entry(0)) + 1); p(other(0), u(entry(0)))'
    try $extent $disk slotShared 0 1 'p(entry(1), u(entry(0))); p(other(1), u(entry(0)))'
    try $extent $disk directoriesDiffer 0 None 'p(u(56) * 512, 0)'
    try $extent $disk tablePositionInvalid 0 None 'p(u(48) * 512, 1 << 24)'
    try $extent $disk tablePositionInvalid 1 None 'p(u(56) * 512 + 4, u(u(56) * 512))'
    try $extent $disk headerInvalid None None 'p(56, 1 << 30)'
    whole $disk
done
try monolithicSparse.vmdk child-monolithicSparse.vmdk contentIDMismatch None None \
    'at = d.index(b"CID="); d[at + 4 : at + 12] = b"01234567"'
mv twoGbMaxExtentSparse-s001.vmdk elsewhere
damaged twoGbMaxExtentSparse.vmdk extentMissing None None

# Compressed disks of others are not supported, but what is damaged in them is found all the same.
qemu-img convert -f raw -O vmdk -o subformat=streamOptimized base.raw theirs.vmdk
code=0
tessel check theirs.vmdk >found.txt 2>/dev/null || code=$?
equal "exit code" 1 $code
grep -q '^theirs.vmdk: no damage found in what could be checked; ' found.txt || fail "$(cat found.txt)"
try theirs.vmdk theirs.vmdk recordDamaged 0 0 'd[u(entry(0)) * 512 + 400] ^= 1'
try theirs.vmdk theirs.vmdk recordOfOtherGrain 0 1 'd[u(entry(1)) * 512] ^= 3'
try theirs.vmdk theirs.vmdk tablesDiffer 0 2 'p(entry(2), 0)'
