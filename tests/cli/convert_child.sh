#!/usr/bin/env bash
# A conversion with --parent stores only what differs from the parent, and reads as the source does.
. "$(dirname -- "$0")/lib.sh"

stored() {
    ok space "$1" --json
    json 'd["payloadBytes"]'
}
grain=65536

# What differs: one byte; data where the parent has none; zeros over the parent's data, as a hole and written.
data $((160 * grain)) 1 >base.raw
dd if=/dev/zero of=base.raw bs=$grain seek=100 count=20 conv=notrunc status=none
cp base.raw next.raw
printf x | dd of=next.raw bs=1 seek=$((3 * grain + 5)) conv=notrunc status=none
put next.raw $((110 * grain)) 1000 2
fallocate --punch-hole --offset $((40 * grain)) --length $((2 * grain)) next.raw
dd if=/dev/zero of=next.raw bs=$grain seek=50 count=1 conv=notrunc status=none
# Half a grain of zeros where the other half is data stays data.
dd if=/dev/zero of=next.raw bs=$((grain / 2)) seek=121 count=1 conv=notrunc status=none

for kind in "" "--split=6M" "--compressed"; do
    read -ra options <<<"$kind"
    rm -f ./*.vmdk
    ok convert base.raw base.vmdk "${options[@]}"
    ok convert next.raw child.vmdk --parent base.vmdk
    ok convert child.vmdk back.raw --force
    same next.raw back.raw
    [[ $(stored child.vmdk) -eq $((6 * grain)) ]] || fail "the child should store 6 grains, not $(stored child.vmdk)"
    ok info base.vmdk --json
    wanted=$(json 'd["kind"], d["contentID"]')
    ok info child.vmdk --json
    json_is 'd["kind"], d["parent"]["contentID"]' "$wanted"

    # On top of that one, back to what the first holds: zeros are hidden again by what was there.
    ok convert base.raw again.vmdk --parent child.vmdk
    ok convert again.vmdk back.raw --force
    same base.raw back.raw
    [[ $(stored again.vmdk) -eq $((6 * grain)) ]] || fail "the grandchild should store 6 grains"

    # Nothing differs.
    ok convert next.raw equal.vmdk --parent child.vmdk
    [[ $(stored equal.vmdk) -eq 0 ]] || fail "nothing should be stored"
    ok convert child.vmdk copy.vmdk --parent base.vmdk
    [[ $(stored copy.vmdk) -eq $((6 * grain)) ]] || fail "the copy should store 6 grains"
    ok convert equal.vmdk back.raw --force
    same next.raw back.raw
done

# A shorter source: zeros hide the rest of the parent. A longer one has no place.
head -c $((10 * grain + 100)) next.raw >short.raw
run 0 convert short.raw short.vmdk --parent base.vmdk --quiet
ok convert short.vmdk back.raw --force
truncate -s $((160 * grain)) short.raw
same short.raw back.raw
head -c $((160 * grain + 1)) /dev/zero >long.raw
refused 1 "long.raw: It is larger ($((160 * grain + 1)) bytes) than the parent, whose size the child has \
($((160 * grain)))" convert long.raw long.vmdk --parent base.vmdk
ok convert - piped.vmdk --parent base.vmdk < <(cat next.raw)
ok convert piped.vmdk back.raw --force
same next.raw back.raw
run 1 convert - long.vmdk --parent base.vmdk < <(cat long.raw)
error_is_one_line

see='(see tessel convert --help)'
refused 2 "convert: --size: a child has the size of its parent $see" \
    convert next.raw x.vmdk --parent base.vmdk --size 20M
ok convert base.raw plain.vmdk
refused 2 "convert: --compressed: the parent is not compressed, and a child is of its parent's kind $see" \
    convert next.raw x.vmdk --parent plain.vmdk --compressed
[[ ! -e x.vmdk && ! -e long.vmdk && -z $(find . -name 'tessel-tmp-*') ]] || fail "something was left behind"

# A parent that is a foreign disk with an odd size.
head -c $((10000000 / 512 * 512)) next.raw >odd.raw
qemu-img convert -f raw -O vmdk odd.raw odd.vmdk
run 0 convert short.raw - --size 9M >/dev/null
head -c 9M base.raw >nine.raw
ok convert nine.raw onodd.vmdk --parent odd.vmdk --quiet
ok convert onodd.vmdk back.raw --force --size 9M
same nine.raw back.raw
