#!/usr/bin/env bash
# Holes stay holes, runs of zeros become holes, and what nobody wrote is not read: nearly empty disks are quick.
. "$(dirname -- "$0")/lib.sh"

truncate -s 100M sparse.raw
put sparse.raw 50000000 200000 1
ok convert sparse.raw sparse.vmdk
[[ $(allocated sparse.vmdk) -lt 1000000 ]] || fail "holes should not be stored"
ok convert sparse.vmdk back.raw
same sparse.raw back.raw
[[ $(size_of back.raw) -eq 104857600 ]] || fail "the length should be set"
[[ $(allocated back.raw) -le 212992 ]] || fail "back.raw takes $(allocated back.raw) bytes"

# Zeros that are stored somewhere become holes too: in a raw image, and within a grain.
head -c 20M /dev/zero >zeros.raw
put zeros.raw 1000000 10 1
put zeros.raw 1100000 10 1
ok convert zeros.raw copy.raw --to raw
same zeros.raw copy.raw
[[ $(allocated copy.raw) -le 8192 ]] || fail "copy.raw takes $(allocated copy.raw) bytes"
ok convert zeros.raw zeros.vmdk
ok convert zeros.vmdk back.raw --force
same zeros.raw back.raw
[[ $(allocated back.raw) -le 8192 ]] || fail "back.raw takes $(allocated back.raw) bytes"

if tells_holes; then
    # A tebibyte of nothing with a little data at its ends.
    truncate -s 1T huge.raw
    put huge.raw 0 1000 1
    put huge.raw $(((1 << 40) - 1000)) 1000 2
    ok convert huge.raw huge.vmdk
    [[ $(allocated huge.vmdk) -le 1048576 ]] || fail "huge.vmdk takes $(allocated huge.vmdk) bytes"
    ok convert huge.vmdk huge.copy --to raw
    [[ $(size_of huge.copy) -eq $((1 << 40)) ]] || fail "the length should be set"
    [[ $(allocated huge.copy) -le 8192 ]] || fail "huge.copy takes $(allocated huge.copy) bytes"
    ok read huge.vmdk 0 1000
    same <(data 1000 1) "$out"
    ok read huge.vmdk $(((1 << 40) - 1000)) 1000
    same <(data 1000 2) "$out"
    cmp -n 4096 huge.raw huge.copy || fail "the start differs"
    cmp -i $(((1 << 40) - 4096)) huge.raw huge.copy || fail "the end differs"
fi

# Empty sources.
: >empty.raw
run 0 convert empty.raw empty.vmdk
error_is 'tessel: note: empty.vmdk: The size was rounded up from 0 to 8388608 bytes; --size 0 cuts it off when converting back'
ok convert empty.vmdk empty.back --to raw --size 0
same empty.raw empty.back
ok convert empty.raw empty2.raw
same empty.raw empty2.raw
