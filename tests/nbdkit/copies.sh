#!/usr/bin/env bash
# Whole disks go in and come out again by clients of other makers, whatever the kind of disk.
. "$(dirname -- "$0")/lib.sh"

make_disk_image one.raw 1
make_disk_image two.raw 2
size=$(size_of one.raw)
printf 'geheim\nnot this\n' >key
key=()

# both_ways OPTION...: for a kind of disk.
both_ways() {
    # Out of a disk that the program made.
    run 0 convert one.raw disk.vmdk --force --quiet "$@"
    serve disk.vmdk readonly "${key[@]}"
    [[ $(nbdinfo --size "$uri") == "$size" ]] || fail "the size is not $size"
    holds one.raw
    client qemu-img convert -f raw -O raw "$uri" out.raw
    same one.raw out.raw
    client qemu-img compare -f raw -F raw "$uri" one.raw
    stop
    # Into one that was empty, and over what that holds.
    run 0 create disk.vmdk "$size" --force "$@"
    serve disk.vmdk "${key[@]}"
    client nbdcopy one.raw "$uri"
    holds one.raw
    client qemu-img convert -n -f raw -O raw two.raw "$uri"
    holds two.raw
    client nbdcopy --connections=4 --requests=16 --destination-is-zero --flush one.raw "$uri"
    client nbdcopy --connections=1 --no-extents one.raw "$uri"
    stop
    holds_now=(disk.vmdk one.raw)
    ((${#key[@]} == 0)) || holds_now+=(--password-file key)
    disk_is "${holds_now[@]}"
}

both_ways
both_ways --compressed
both_ways --split=3M
both_ways --split=3M --on-demand
both_ways --compressed --split=5M --on-demand
key=(password=+key)
both_ways --password-file key
both_ways --compressed --password-file key

# A disk of another program, whose size is no whole number of grains.
make_image odd.raw 3
truncate -s $(((image_size + 511) / 512 * 512)) odd.raw
qemu-img convert -f raw -O vmdk odd.raw odd.vmdk
serve odd.vmdk
holds odd.raw
head -c "$(size_of odd.raw)" two.raw >other.raw
client nbdcopy other.raw "$uri"
holds other.raw
stop
run 0 check odd.vmdk
qemu-img compare -q -f vmdk -F raw odd.vmdk other.raw || fail "qemu-img finds another content"
