#!/usr/bin/env bash
# create makes empty disks of every kind, of which nothing stands under the name when it fails.
. "$(dirname -- "$0")/lib.sh"

# is_empty DISK SIZE KIND FILES
is_empty() {
    ok info "$1" --json
    json_is 'd["sizeBytes"], d["kind"], len(d["extents"])' "($2, '$3', $4)"
    ok convert "$1" empty.raw --force
    [[ $(size_of empty.raw) -eq $2 && $(allocated empty.raw) -eq 0 ]] || fail "$1 should be empty"
}
ok create plain.vmdk 20M
is_empty plain.vmdk 20971520 monolithicSparse 1
ok create packed.vmdk 20M --compressed --level 9
is_empty packed.vmdk 20971520 streamOptimized 1
ok create split.vmdk 20M --split=10M
is_empty split.vmdk 20971520 twoGbMaxExtentSparse 3
ok create standard.vmdk 5G --split
is_empty standard.vmdk 5368709120 twoGbMaxExtentSparse 3
ok create demand.vmdk 20M --split=10M --on-demand
is_empty demand.vmdk 20971520 twoGbMaxExtentSparse 3
only_files plain.vmdk packed.vmdk split.vmdk split-s0000{0,1,2}.vmdk standard.vmdk standard-s0000{0,1,2}.vmdk \
    demand.vmdk demand-s00000.vmdk empty.raw
run 0 create both.vmdk 20M --split=10M --compressed
error_is 'tessel: warning: both.vmdk: Other readers see only the first file of a disk that is compressed and split'
is_empty both.vmdk 20971520 streamOptimized "$(find . -name 'both*' | wc -l)"

# No file of a split disk reaches the limit, also when it is full.
data 20M 1 >full.raw
ok convert full.raw full.vmdk --split=10M
for file in full-s*.vmdk; do
    [[ $(size_of "$file") -lt 10485760 ]] || fail "$file has $(size_of "$file") bytes"
done
[[ -z $(find . -name 'full-s*' -size +10M) ]] || fail "a file is too large"

# Other programs agree.
for disk in plain split standard full; do
    qemu-img check -q -f vmdk $disk.vmdk || fail "qemu-img finds $disk.vmdk damaged"
done
qemu-img compare -q -f raw -F vmdk full.raw full.vmdk || fail "qemu-img reads other bytes"

# A child has its parent's size and kind.
ok create child.vmdk --parent split.vmdk
is_empty child.vmdk 20971520 twoGbMaxExtentSparse 1
ok create child2.vmdk --parent packed.vmdk
is_empty child2.vmdk 20971520 streamOptimized 1
refused 1 'none.vmdk: No such file' create x.vmdk --parent none.vmdk
refused 1 'full.raw: This is no VMDK disk: it begins with neither a sparse extent nor a descriptor' \
    create x.vmdk --parent full.raw

# What a child cannot have of its parent is told: an end within a grain, and grains of another size.
truncate -s $((10 * 1048576 + 512)) odd.raw
for kind in monolithicSparse twoGbMaxExtentSparse; do
    rm -f odd*.vmdk
    qemu-img convert -f raw -O vmdk -o subformat=$kind odd.raw odd.vmdk
    run 0 create oddchild.vmdk --parent odd.vmdk --force
    error_is 'tessel: note: oddchild.vmdk: The size was rounded up from 10486272 to 10551296 bytes'
    is_empty oddchild.vmdk 10551296 $kind 1
done
python3 - <<'END'
# Grains of 64 sectors, one of which is stored: header, descriptor, directory, table, grain.
import struct
text = b"""# Disk DescriptorFile
version=1
CID=12345678
parentCID=ffffffff
createType="monolithicSparse"
RW 20480 SPARSE "small.vmdk"
"""
header = struct.pack("<4sIIQQQQIQQQ?4sH", b"KDMV", 1, 1, 20480, 64, 1, 20, 512, 0, 21, 64, False, b"\n \r\n", 0)
table = [0] * 512
table[7] = 64
with open("small.vmdk", "wb") as file:
    for sector, data in ((0, header), (1, text), (21, struct.pack("<I", 22)), (22, struct.pack("<512I", *table)),
                         (64, b"x" * 32768)):
        file.seek(sector * 512)
        file.write(data)
END
run 0 create smallchild.vmdk --parent small.vmdk
error_is "tessel: note: smallchild.vmdk: Its grains have 65536 bytes, as all disks made here; the parent's have 32768"
ok read smallchild.vmdk $((7 * 32768)) 32768
same <(head -c 32768 /dev/zero | tr '\0' x) "$out"

# Two disks of a name, one after the other, have different content IDs.
ok info plain.vmdk --json
before=$(json 'd["contentID"]')
ok create plain.vmdk 20M --force
ok info plain.vmdk --json
[[ $(json 'd["contentID"]') != "$before" ]] || fail "the content ID should be a new one"
[[ -z $(find . -name 'x*' -o -name 'tessel-tmp-*' -o -name '*.lock') ]] || fail "something was left behind"
