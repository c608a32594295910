#!/usr/bin/env bash
# 7-Zip takes disks made here apart into the bytes that went in.
. "$(dirname -- "${BASH_SOURCE[0]}")/common.sh"

# verify_by_7zip DISK RAW: it knows the disk as one, finds one image of the right size in it, and nothing wrong. In a
# compressed disk it does not know the footer, and only says so.
verify_by_7zip() {
    local listing complaints=''
    [[ $(info_of "$1" compressed) == false ]] || complaints='There are data after the end of archive Tail Size = 1536'
    listing=$(7zz l -slt -tVMDK "$1")
    grep -qx "Size = $(stat -c %s "$2")" <<<"$listing" || fail "7zz l $1: $listing"
    equal "what 7-Zip finds wrong with $1" "$complaints" \
        "$(sed -nE '/^(ERRORS|WARNINGS):/,/ = /{/:$|^Physical/!p};/^Tail/p' <<<"$listing" | xargs)"
    7zz t -tVMDK "$1" >tested || fail "7zz t $1: $(<tested)"
    7zz x -tVMDK -so "$1" | cmp - "$2" || fail "7zz x $1"
}

make_raw image.raw $((20 * 1048576)) 6
make_raw odd.raw $((9 * 1048576 + 512)) 7
truncate -s "$(whole_grains "$(stat -c %s odd.raw)")" odd.raw
truncate -s 8M empty.raw
noise 8 $((10 * 1048576)) >full.raw

for raw in image odd empty full; do
    for options in '' --compressed --split=4M --split; do
        tessel convert --quiet $raw.raw disk.vmdk $options
        verify_by_7zip disk.vmdk $raw.raw
        cp --sparse=always $raw.raw changed.raw
        noise 9 200001 | write_both disk.vmdk changed.raw 4100000
        noise 10 1 | write_both disk.vmdk changed.raw 77777
        verify_by_7zip disk.vmdk changed.raw
        rm -- *.vmdk
    done
done
