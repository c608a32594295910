#!/usr/bin/env bash
# Disks made here, of every kind and at several sizes, are to qemu what they were meant to be; after writing into
# them as well.
. "$(dirname -- "${BASH_SOURCE[0]}")/common.sh"

MiB=1048576

# rewrite DISK RAW: small pieces at odd places, within grains, across them, across files, up to the last byte.
rewrite() {
    local disk=$1 raw=$2 size offset
    size=$(stat -c %s "$raw")
    for offset in 1 511 65535 196601 $((4 * MiB - 3)) $((size / 2 + 1)) $((size - 4097)); do
        noise $((offset % 100000)) 4097 | write_both "$disk" "$raw" "$offset"
    done
    fill 0 200000 | write_both "$disk" "$raw" 3333
    fill 165 150000 | write_both "$disk" "$raw" 2000001
    verify_by_qemu "$disk" "$raw"
    qemu_io -r -f vmdk -c 'read -P 0 3333 200000' -c 'read -P 165 2000001 150000' "$disk"
}

# try NAME RAW OPTION...: a copy of a raw image, and an empty disk that the same bytes are written into.
try() {
    local name=$1 raw=$2 size
    shift 2
    cp --sparse=always "$raw" model.raw
    truncate -s "$(whole_grains "$(stat -c %s "$raw")")" model.raw
    size=$(stat -c %s "$raw")

    tessel convert --quiet "$raw" "$name-copy.vmdk" "$@"
    verify_by_qemu "$name-copy.vmdk" model.raw

    tessel create "$name-made.vmdk" "$size" "$@" 2>/dev/null
    truncate -s "$(stat -c %s model.raw)" empty.raw
    verify_by_qemu "$name-made.vmdk" empty.raw
    tessel write "$name-made.vmdk" 0 <"$raw"
    verify_by_qemu "$name-made.vmdk" model.raw
    if [[ $name == *-odd ]]; then
        cp --sparse=always model.raw copy.raw
        rewrite "$name-copy.vmdk" copy.raw
    fi
    rewrite "$name-made.vmdk" model.raw
    rm -- *.vmdk model.raw empty.raw
}

# A disk of several files really has several, and qemu sees the joints.
verify_is_split() {
    tessel convert --quiet "$1" split.vmdk --split="$2"
    (($(tessel info --json split.vmdk | grep -c '"access"') >= $3)) || fail "$1: too few files"
    rm -- split*.vmdk
}

make_raw small.raw $((8 * MiB)) 1
make_raw odd.raw $((9 * MiB + 12345)) 2
make_raw sparse.raw $((100 * MiB)) 3
noise 4 $((12 * MiB)) >full.raw

for image in small odd sparse full; do
    try "plain-$image" $image.raw
    try "packed-$image" $image.raw --compressed
done
for image in odd sparse full; do
    verify_is_split $image.raw 4M 3
    try "split-$image" $image.raw --split=4M
done
try "split-small" small.raw --split
try "on-demand" full.raw --split=3M
try "level-0" odd.raw --compressed --level 0
try "level-9" odd.raw --compressed --level 9
