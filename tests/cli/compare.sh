#!/usr/bin/env bash
# compare tells whether two disks or images hold the same, and where not: 0, 1, and 3 when that cannot be told.
. "$(dirname -- "$0")/lib.sh"

make_image disk.raw
truncate -s $((9 * 1048576 + 65536)) disk.raw
ok convert disk.raw disk.vmdk
ok convert disk.raw packed.vmdk --compressed
ok convert disk.raw split.vmdk --split=4M
printf 'pw\n' >pw
printf 'other\n' >pw2
ok convert disk.raw secret.vmdk --password-file pw
ok convert disk.raw secret2.vmdk --compressed --password-file pw2
for a in disk.raw disk.vmdk packed.vmdk split.vmdk; do
    for b in disk.raw disk.vmdk packed.vmdk split.vmdk; do
        ok compare $a $b
        output_is "$a and $b hold the same"
    done
done
ok compare secret.vmdk disk.raw --password-file pw
ok compare secret.vmdk secret2.vmdk --password-file pw --b-password-file pw2
run 3 compare secret.vmdk secret2.vmdk --password-file pw
error_is 'tessel: secret2.vmdk: Specified VMDK encryption password is not correct.'

# Differences.
cp disk.raw other.raw
printf x | dd of=other.raw bs=1 seek=3000100 conv=notrunc status=none
put other.raw 6000000 100000 9
for a in disk.vmdk packed.vmdk; do
    run 1 compare $a other.raw
    output_is "differ: 512 bytes from 2999808 on
differ: 100864 bytes from 5999616 on
$a and other.raw differ: 101376 bytes in 2 ranges; the first different byte is at 3000100"
    [[ ! -s $err ]] || fail "there should be nothing on standard error"
done
run 1 compare other.raw disk.vmdk --json
json_is 'd' "{'a': 'other.raw', 'b': 'disk.vmdk', 'aSizeBytes': 9502720, 'bSizeBytes': 9502720, 'ranges': \
[{'startBytes': 2999808, 'sizeBytes': 512}, {'startBytes': 5999616, 'sizeBytes': 100864}], 'same': False, \
'firstDifferenceBytes': 3000100, 'differingBytes': 101376}"
run 1 compare other.raw disk.vmdk --first
output_is 'differ: 512 bytes from 2999808 on
other.raw and disk.vmdk differ; the first different byte is at 3000100'
ok compare disk.vmdk disk.raw --json
json_is 'd["same"], d["ranges"], d["firstDifferenceBytes"], d["differingBytes"]' '(True, [], None, 0)'

# A child is compared with what its parent shows.
ok create child.vmdk --parent disk.vmdk
ok compare child.vmdk disk.raw
printf y >byte
ok write child.vmdk 8M <byte
run 1 compare child.vmdk disk.vmdk
output_holds 'the first different byte is at 8388608'

# Of different sizes the rest has to be zeros.
make_image odd.raw
run 0 compare odd.raw disk.vmdk
error_is "tessel: note: disk.vmdk: It is longer than odd.raw (9502720 and $image_size bytes); where the other has \
ended, zeros are the same"
output_is 'odd.raw and disk.vmdk hold the same'
ok compare odd.raw disk.vmdk --quiet
cp disk.raw longer.raw
printf z >>longer.raw
run 1 compare disk.vmdk longer.raw --quiet
output_holds 'differ: 1 bytes from 9502720 on'

# What neither holds is not read: 4 TiB of it are no work.
if tells_holes; then
    truncate -s 2T empty.raw
    run 0 create empty.vmdk 2T
    SECONDS=0
    ok compare empty.vmdk empty.raw
    ((SECONDS < 60)) || fail "holes should not be read"
fi

# What cannot be compared, and what cannot be followed.
for arguments in "none.raw disk.raw" "disk.raw none.vmdk"; do
    # shellcheck disable=SC2086 # two arguments
    run 3 compare $arguments
    error_is_one_line
    [[ ! -s $out ]] || fail "there should be nothing on standard output"
done
refused 3 'none: This is no folder (--allow)' compare disk.raw disk.vmdk --allow none
run 3 compare disk.raw disk.vmdk --password-file none
error_is 'tessel: none: No such file'
refused 3 'disk.raw: This is no VMDK disk: it begins with neither a sparse extent nor a descriptor' \
    compare disk.raw disk.vmdk --a-kind vmdk
cp disk.vmdk looks.raw
refused 2 'compare: looks.raw: the name is that of a raw image, but the content looks like a VMDK; say which it is (--a-kind) (see tessel compare --help)' \
    compare looks.raw disk.vmdk
run 0 compare looks.raw disk.vmdk --a-kind vmdk --quiet
run 2 compare disk.raw
run 2 compare disk.raw disk.vmdk --nothing
mkdir broken
cp disk.vmdk broken/
truncate -s 200000 broken/disk.vmdk
run 3 compare broken/disk.vmdk disk.raw
error_is_one_line
if [[ -e /dev/full ]]; then
    code=0
    "$TESSEL_PROGRAM" compare disk.raw disk.vmdk >/dev/full 2>"$err" || code=$?
    ((code == 3)) || fail "an answer that cannot be written is no comparison: $code"
fi
