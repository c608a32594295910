#!/usr/bin/env bash
# Disks of another program: those that can be read are, the others are refused in one line that says why.
. "$(dirname -- "$0")/lib.sh"

make_image disk.raw
truncate -s $(((image_size + 511) / 512 * 512)) disk.raw # a disk has whole sectors

for kind in monolithicSparse twoGbMaxExtentSparse; do
    qemu-img convert -f raw -O vmdk -o subformat=$kind disk.raw $kind.vmdk
    ok info $kind.vmdk --json
    json_is 'd["kind"], d["sizeBytes"], d["grainSizeBytes"]' "('$kind', $(size_of disk.raw), 65536)"
    ok convert $kind.vmdk back.raw --force
    same disk.raw back.raw
    run 0 create child.vmdk --parent $kind.vmdk --force
    error_is "tessel: note: child.vmdk: The size was rounded up from $(size_of disk.raw) to 9502720 bytes"
    ok convert child.vmdk back.raw --force --size "$(size_of disk.raw)"
    same disk.raw back.raw
done

# Written by that program once more, over ours.
ok convert disk.raw ours.vmdk --quiet
qemu-io -f vmdk -c 'write -P 0x61 1000000 70000' -c 'write -P 0x62 7000000 512' ours.vmdk >/dev/null
cp disk.raw changed.raw
head -c 70000 /dev/zero | tr '\0' a | dd of=changed.raw bs=64K oflag=seek_bytes seek=1000000 conv=notrunc status=none
head -c 512 /dev/zero | tr '\0' b | dd of=changed.raw bs=64K oflag=seek_bytes seek=7000000 conv=notrunc status=none
ok convert ours.vmdk back.raw --force --size "$(size_of disk.raw)"
same changed.raw back.raw

qemu-img convert -f raw -O vmdk -o subformat=streamOptimized disk.raw stream.vmdk
without_sizes='stream.vmdk: Slot size directory not found in compressed VMDK; another program may have written it, and qemu-img convert -O vmdk makes a disk of it that is read here'
refused 1 "$without_sizes" convert stream.vmdk new.raw
refused 1 "$without_sizes" space stream.vmdk
run 1 info stream.vmdk
error_is "tessel: $without_sizes"
output_holds 'kind:       streamOptimized'
qemu-img convert -f raw -O vmdk -o subformat=monolithicFlat disk.raw flat.vmdk
refused 1 "flat.vmdk: VMDK disk has an unsupported create type: 'monolithicFlat'." convert flat.vmdk new.raw
qemu-img convert -f raw -O vmdk -o zeroed_grain=on disk.raw zeroed.vmdk
run 1 convert zeroed.vmdk new.raw
error_is_one_line

# A descriptor file without room for what is written first: the advice that is given helps.
printf x >byte
python3 - <<'END'
text = open("twoGbMaxExtentSparse.vmdk", "rb").read().rstrip(b"\0\n") + b"\n"
open("twoGbMaxExtentSparse.vmdk", "wb").write(text)
END
run 1 write twoGbMaxExtentSparse.vmdk 0 <byte
error_is_one_line
error_holds 'tessel: twoGbMaxExtentSparse.vmdk: Internal error: actual VMDK descriptor size exceeds target size'
error_holds 'The place of the descriptor is full'
error_holds 'truncate -s +512'
ok convert twoGbMaxExtentSparse.vmdk back.raw --force
same disk.raw back.raw
truncate -s +512 twoGbMaxExtentSparse.vmdk
ok write twoGbMaxExtentSparse.vmdk 0 <byte
ok read twoGbMaxExtentSparse.vmdk 0 2
same <(printf x; dd if=disk.raw bs=1 skip=1 count=1 status=none) "$out"
[[ ! -e new.raw ]] || fail "a refused disk was converted"

# A disk that was renamed by hand still names its old file.
cp ours.vmdk renamed.vmdk
ok convert ours.vmdk ours.raw --force
run 0 convert renamed.vmdk back.raw --force
error_is 'tessel: note: renamed.vmdk: The disk was renamed or copied by hand: its descriptor still names "ours.vmdk", which is not looked at (tessel rename renamed.vmdk renamed.vmdk puts it right)'
same ours.raw back.raw
