#!/usr/bin/env bash
# Disks that qemu made, at sizes and under names that are not the usual ones, are read here to the last byte.
. "$(dirname -- "${BASH_SOURCE[0]}")/common.sh"

GiB=1073741824

# verify_piece DISK OFFSET COUNT BYTE
verify_piece() {
    tessel read "$1" "$2" "$3" | cmp - <(fill "$4" "$3") || fail "$1: $3 bytes at $2"
}

# try SUBFORMAT RAW NAME: the disk that qemu makes of a raw image has the same bytes here.
try() {
    local disk=$3.vmdk
    qemu-img convert -f raw -O vmdk -o subformat="$1" "$2" "$disk"
    equal "kind of $disk" "$1" "$(info_of "$disk" kind)"
    equal "grain size of $disk" 65536 "$(info_of "$disk" grainSizeBytes)"
    verify_by_tessel "$disk" "$2"
    tessel read "$disk" 0 "$(stat -c %s "$2")" | cmp - "$2"
    tessel read "$disk" 65537 131071 | cmp - <(bytes "$2" 65537 131071)
}

make_raw plain.raw $((32 * 1048576)) 1
make_raw odd.raw $((1000003 * 512)) 2
make_raw one-more.raw $((16 * 1048576 + 512)) 3
noise 4 $((20 * 1048576)) >full.raw
for raw in plain odd one-more full; do
    for kind in monolithicSparse twoGbMaxExtentSparse; do
        try $kind $raw.raw "$raw-$kind"
    done
done
rm -- odd*.vmdk full*.vmdk

mkdir 'ein Ordner, größer' 'プール'
for name in 'two  blanks' 'Größe çà' 'ein Ordner, größer/диск' 'プール/仮想 ディスク' "it's #1 & 100%"; do
    try monolithicSparse plain.raw "$name"
    try twoGbMaxExtentSparse plain.raw "$name split"
done

# Nearly empty: data at the start, across the middle, and in the last sectors.
for size in $((2048 * GiB)) $((2048 * GiB - 512)); do
    qemu-img create -q -f vmdk -o subformat=monolithicSparse big.vmdk "$size"
    qemu_io -f vmdk -c 'write -P 17 0 512' -c "write -P 34 $((1024 * GiB - 70000)) 140000" \
        -c "write -P 51 $((size - 1024)) 1024" big.vmdk
    equal "size" "$size" "$(info_of big.vmdk sizeBytes)"
    verify_piece big.vmdk 0 512 17
    verify_piece big.vmdk 512 100000 0
    verify_piece big.vmdk $((1024 * GiB - 170000)) 100000 0
    verify_piece big.vmdk $((1024 * GiB - 70000)) 140000 34
    verify_piece big.vmdk $((1024 * GiB + 70000)) 100000 0
    verify_piece big.vmdk $((size - 100000)) $((100000 - 1024)) 0
    verify_piece big.vmdk $((size - 1024)) 1024 51
    rm big.vmdk
done

# Three files of 2 GiB, 2 GiB and 1 GiB; data lies across both joints.
size=$((5 * GiB))
qemu-img create -q -f vmdk -o subformat=twoGbMaxExtentSparse joints.vmdk "$size"
qemu_io -f vmdk -c "write -P 68 $((2 * GiB - 100001)) 200002" -c "write -P 85 $((4 * GiB - 512)) 1024" \
    -c "write -P 102 $((size - 512)) 512" joints.vmdk
equal "size" "$size" "$(info_of joints.vmdk sizeBytes)"
equal "files" 3 "$(tessel info --json joints.vmdk | grep -c '"access"')"
verify_piece joints.vmdk $((2 * GiB - 200001)) 100000 0
verify_piece joints.vmdk $((2 * GiB - 100001)) 200002 68
verify_piece joints.vmdk $((2 * GiB + 100001)) 100000 0
verify_piece joints.vmdk $((4 * GiB - 512)) 1024 85
verify_piece joints.vmdk $((size - 512)) 512 102
tessel convert --quiet joints.vmdk joints.raw
equal "size of the copy" "$size" "$(stat -c %s joints.raw)"
qemu-img compare -q -f vmdk -F raw joints.vmdk joints.raw
