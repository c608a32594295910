#!/usr/bin/env bash
# read and write move bytes of a disk in place, zeros over a parent's data included.
. "$(dirname -- "$0")/lib.sh"

truncate -s 10M model.raw
check() {
    ok convert "$1" back.raw --force
    same model.raw back.raw
}
# change DISK OFFSET FILE: in the disk and in the model.
change() {
    ok write "$1" "$2" <"$3"
    dd if="$3" of=model.raw bs=64K oflag=seek_bytes seek="$2" conv=notrunc status=none
}

data 300000 1 >large
printf 'a few bytes' >small
head -c 200000 /dev/zero >zeros
: >nothing
for options in "" "--compressed" "--split=6M" "--split=6M --on-demand"; do
    read -ra words <<<"$options"
    rm -f model.raw
    truncate -s 10M model.raw
    ok create disk.vmdk 10M --force "${words[@]}"
    change disk.vmdk 0 large
    change disk.vmdk 1000003 large
    change disk.vmdk 1000010 small
    change disk.vmdk 1000100 zeros
    change disk.vmdk 5900000 large
    change disk.vmdk $((10485760 - 11)) small
    change disk.vmdk 10M nothing
    check disk.vmdk
    ok read disk.vmdk 1000000 123
    same <(tail -c +1000001 model.raw | head -c 123) "$out"
    ok read disk.vmdk 5M 3M
    same <(tail -c +5242881 model.raw | head -c 3M) "$out"
    ok read disk.vmdk 10M 0
    [[ ! -s $out ]] || fail "nothing should be read"

    # Over a parent: zeros hide its data, in whole grains, in parts of them, and piece by piece from a pipe.
    ok create child.vmdk --parent disk.vmdk --force
    cp model.raw parent.raw
    change child.vmdk 0 zeros
    change child.vmdk 1000000 zeros
    change child.vmdk 5900000 small
    change child.vmdk 7M zeros
    ok write child.vmdk 6000000 < <(head -c 100000 zeros; sleep 0.1; head -c 100000 zeros)
    dd if=zeros of=model.raw bs=64K oflag=seek_bytes seek=6000000 conv=notrunc status=none
    check child.vmdk
    # A grain of the parent that holds little, of which just that is overwritten.
    head -c 11 zeros >eleven
    change child.vmdk $((10485760 - 11)) eleven
    check child.vmdk
    ok convert disk.vmdk back.raw --force
    same parent.raw back.raw
done

beyond() {
    echo "disk.vmdk: $1 bytes from $2 on reach beyond the disk's end at 10485760"
}
refused 1 "$(beyond 2 10485759)" read disk.vmdk 10485759 2
refused 1 "$(beyond 9223372036854775807 1)" read disk.vmdk 1 9223372036854775807
refused 1 "$(beyond 0 10485761)" read disk.vmdk 10485761 0
refused 1 "$(beyond 0 10485761)" write disk.vmdk 10485761
cp model.raw before.raw
ok convert disk.vmdk before.raw --force
run 1 write disk.vmdk 10485759 <small
error_is "tessel: $(beyond 11 10485759)"
ok convert disk.vmdk back.raw --force
same before.raw back.raw
run 1 write disk.vmdk 10485755 < <(cat small)
error_is 'tessel: disk.vmdk: Standard input holds more than the disk has room for; its first 5 bytes were written'
ok read disk.vmdk 10485754 6
same <(tail -c 6 before.raw | head -c 1; head -c 5 small) "$out"

# A changed disk has another content ID, so that children can tell; reading changes nothing.
id_of() {
    ok info "$1" --json
    json 'd["contentID"]'
}
before=$(id_of disk.vmdk)
ok read disk.vmdk 0 1000
[[ $(id_of disk.vmdk) == "$before" ]] || fail "reading changed the content ID"
ok write disk.vmdk 0 <small
[[ $(id_of disk.vmdk) != "$before" ]] || fail "writing did not change the content ID"
[[ -z $(find . -name '*.lock') ]] || fail "a lock was left behind"
