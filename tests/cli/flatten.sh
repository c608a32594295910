#!/usr/bin/env bash
# flatten takes over what the parents hold, and the disk stands alone; ended early, it is still a valid child.
. "$(dirname -- "$0")/lib.sh"

stored() {
    ok space "$1" --json
    json 'd["payloadBytes"]'
}
check() {
    ok convert "$1" back.raw --size "$(size_of "$2")" --force
    same "$2" back.raw
}
parent_of() {
    ok info "$1" --json
    json 'd["parent"] and d["parent"]["reference"]'
}

make_image base.raw 1
cp base.raw middle.raw
put middle.raw 1000000 100000 2
cp middle.raw top.raw
put top.raw 2000000 100000 3
dd if=/dev/zero of=top.raw bs=64K seek=1 count=1 conv=notrunc status=none

for options in "" "--compressed" "--split=6M --on-demand"; do
    rm -f ./*.vmdk
    read -ra words <<<"$options"
    ok convert base.raw base.vmdk --quiet "${words[@]}"
    run 0 convert middle.raw middle.vmdk --parent base.vmdk --quiet
    run 0 convert top.raw top.vmdk --parent middle.vmdk --quiet
    check top.vmdk top.raw
    ok create leaf.vmdk --parent top.vmdk
    ok info top.vmdk --json
    id=$(json 'd["contentID"]')
    ok flatten top.vmdk
    ok info top.vmdk --json
    json_is 'd["parent"], d["contentID"]' "(None, '$id')"
    check leaf.vmdk top.raw
    rm base*.vmdk middle*.vmdk
    check top.vmdk top.raw
    # What no disk of the chain held is not stored.
    [[ $(stored top.vmdk) -lt 2000000 ]] || fail "unwritten grains were stored: $(stored top.vmdk)"
    refused 1 'top.vmdk: This disk has no parent and stands alone already' flatten top.vmdk
done

# Parents whose grains are of another size or kind, or whose end lies within a grain.
head -c 8000000 base.raw | head -c $((8000000 / 512 * 512)) >odd.raw
for kind in monolithicSparse twoGbMaxExtentSparse; do
    rm -f ./*.vmdk
    qemu-img convert -f raw -O vmdk -o subformat=$kind odd.raw odd.vmdk
    run 0 create child.vmdk --parent odd.vmdk
    error_is 'tessel: note: child.vmdk: The size was rounded up from 8000000 to 8388608 bytes'
    check child.vmdk odd.raw
    ok flatten child.vmdk
    rm odd*.vmdk
    check child.vmdk odd.raw
done
rm -f ./*.vmdk
ok convert base.raw plain.vmdk --quiet
ok convert base.raw packed.vmdk --compressed --quiet
ok create child.vmdk --parent packed.vmdk
ok rebase child.vmdk plain.vmdk --unsafe
ok flatten child.vmdk
rm plain.vmdk packed.vmdk
check child.vmdk base.raw

# A parent whose files begin within grains: nothing of it can be passed on as it is stored.
rm -f ./*.vmdk
head -c $((2 * 6500 * 512)) base.raw >two.raw
for half in 0 1; do
    dd if=two.raw bs=$((6500 * 512)) skip=$half count=1 of=half.raw status=none
    qemu-img convert -f raw -O vmdk half.raw half$half.vmdk
done
cat >halves.vmdk <<'end'
# Disk DescriptorFile
version=1
CID=12345678
parentCID=ffffffff
createType="twoGbMaxExtentSparse"

RW 6500 SPARSE "half0.vmdk"
RW 6500 SPARSE "half1.vmdk"

ddb.adapterType = "ide"
end
check halves.vmdk two.raw
run 0 create child.vmdk --parent halves.vmdk
ok flatten child.vmdk
rm half*.vmdk
check child.vmdk two.raw
ok check child.vmdk
rm -f ./*.vmdk

# A parent's record that is another grain's is not taken over, where nothing would tell any more.
ok convert base.raw base.vmdk --quiet --compressed
python3 "$TESSEL_SOURCE_DIR/tests/support/spoil.py" base.vmdk \
    'first, second = u(entry(0)), u(entry(1)); p(entry(0), second); p(entry(1), first)'
ok create child.vmdk --parent base.vmdk
refused 1 "$PWD/base.vmdk: The grain at byte 0 holds another grain's record; it stays as it is (tessel check \
$PWD/base.vmdk tells more)" flatten child.vmdk
[[ $(parent_of child.vmdk) == base.vmdk ]] || fail "the disk should still be a child"
rm -f ./*.vmdk

# A parent that has changed since is not taken over, whichever of them it is; the child stays as it is.
for changed in base middle; do
    rm -f ./*.vmdk
    ok convert base.raw base.vmdk --quiet
    run 0 convert middle.raw middle.vmdk --parent base.vmdk --quiet
    ok create top.vmdk --parent middle.vmdk
    cp top.vmdk before.vmdk
    printf changed | ok write $changed.vmdk 0
    refused 1 "$PWD/$changed.vmdk: This disk has changed since a child was made from it" flatten top.vmdk
    same before.vmdk top.vmdk
done
rm -f ./*.vmdk

# Ended by a full medium, it is still a child with the same bytes, and the rest can be done later.
data 40M 5 >big.raw
ok convert big.raw big.vmdk
ok create cut.vmdk --parent big.vmdk
for limit in 1000 9000 15000; do
    posix || break
    code=0
    (ulimit -f $limit; exec "$TESSEL_PROGRAM" flatten cut.vmdk) 2>"$err" || code=$?
    last="flatten with files limited to $limit KiB"
    ((code == 1)) || fail "the exit code is $code, not 1"
    error_is_one_line
    [[ $(parent_of cut.vmdk) == big.vmdk ]] || fail "the disk should still be a child"
    check cut.vmdk big.raw
done
if posix; then
    [[ $(stored cut.vmdk) -gt 0 ]] || fail "the disk should have taken over something"
fi
ok flatten cut.vmdk
rm big.vmdk
[[ $(parent_of cut.vmdk) == None ]] || fail "the disk should stand alone"
check cut.vmdk big.raw
[[ -z $(find . -name '*.lock') ]] || fail "a lock was left behind"
