#!/usr/bin/env bash
# One disk, written by two programs in turn: each finds what the other has written, and nothing else has changed.
. "$(dirname -- "${BASH_SOURCE[0]}")/common.sh"

size=$((20 * 1048576))

# qemu_writes DISK RAW BYTE OFFSET COUNT
qemu_writes() {
    qemu_io -f vmdk -c "write -P $3 $4 $5" "$1"
    fill "$3" "$5" | patch "$2" "$4"
}

# verify_new_id DISK OLD: writing gave the disk another content ID, and both programs name the same one.
verify_new_id() {
    local id
    id=$(info_of "$1" contentID)
    [[ $id != "$2" ]] || fail "$1: the content ID is still $2"
    qemu-img info --output=json "$1" | grep "\"cid\": $((16#$id))" >/dev/null || fail "$1: qemu sees another content ID"
}

# take_turns DISK: the places move on with every round, within grains, over grains, over the ends of files.
take_turns() {
    local disk=$1 round at id
    truncate -s "$size" model.raw
    for round in 1 2 3 4; do
        at=$((round * 1234567))
        id=$(info_of "$disk" contentID)
        qemu_writes "$disk" model.raw $((16 + round)) "$at" 300000
        qemu_writes "$disk" model.raw $((32 + round)) $((size - round * 99999)) 50001
        qemu_writes "$disk" model.raw $((48 + round)) $((round * 65536 - 1)) 2
        verify_new_id "$disk" "$id"
        verify_by_tessel "$disk" model.raw

        id=$(info_of "$disk" contentID)
        noise "$round" 200001 | write_both "$disk" model.raw $((at + 150000))
        noise $((round + 50)) 77777 | write_both "$disk" model.raw $((size - round * 99999 - 20000))
        fill 0 70000 | write_both "$disk" model.raw $((at + 10000))
        fill $((64 + round)) 100001 | write_both "$disk" model.raw $((3000001 * round + 4100000))
        verify_new_id "$disk" "$id"
        verify_by_qemu "$disk" model.raw
        qemu_io -r -f vmdk -c "read -P 0 $((at + 10000)) 70000" \
            -c "read -P $((64 + round)) $((3000001 * round + 4100000)) 100001" "$disk"
    done
    qemu_io -f vmdk -c "write -z 100000 3000000" "$disk"
    fill 0 3000000 | patch model.raw 100000
    verify_by_tessel "$disk" model.raw
    tessel write "$disk" 0 <model.raw
    verify_by_qemu "$disk" model.raw
}

tessel create plain.vmdk $size
take_turns plain.vmdk
rm model.raw
tessel create split.vmdk $size --split=6M
take_turns split.vmdk
rm model.raw
tessel create one-file.vmdk $size --split
take_turns one-file.vmdk
