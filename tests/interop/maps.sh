#!/usr/bin/env bash
# What map, compare and measure tell is what the other program tells of the same disks.
. "$(dirname -- "${BASH_SOURCE[0]}")/common.sh"

make_raw disk.raw $((12 * 1048576)) 7
tessel convert --quiet disk.raw ours.vmdk
tessel convert --quiet disk.raw ours_split.vmdk --split=5M
qemu-img convert -f raw -O vmdk disk.raw theirs.vmdk
qemu-img convert -f raw -O vmdk -o subformat=twoGbMaxExtentSparse disk.raw theirs_split.vmdk
tessel create child.vmdk --parent ours.vmdk
noise 3 200000 | tessel write child.vmdk 3M
noise 4 100 | tessel write child.vmdk 65536

cat >same_map.py <<'END'
import json, sys
# Runs of both, cut where either ends one, tell the same; and ours are no more.
ours, theirs = (json.load(open(name)) for name in sys.argv[1:])
def of_us(run):
    return run["state"] != "zero", run["layer"] or 0, run["sector"] and run["sector"] * 512, run["startBytes"]
def of_them(run):
    return run["data"], run["depth"] if run["data"] else 0, run.get("offset"), run["start"]
ours = [(r["startBytes"], r["sizeBytes"], of_us(r)) for r in ours["runs"]]
theirs = [(r["start"], r["length"], of_them(r)) for r in theirs]
assert ours[-1][0] + ours[-1][1] == theirs[-1][0] + theirs[-1][1]
def at(runs, position):
    for start, size, (data, layer, offset, first) in runs:
        if start <= position < start + size:
            return data, layer, offset + position - first if data else None
for position in sorted({run[0] for run in ours + theirs}):
    assert at(ours, position) == at(theirs, position), (position, at(ours, position), at(theirs, position))
assert len(ours) <= len(theirs), (len(ours), len(theirs))
END
for disk in ours ours_split theirs theirs_split child; do
    tessel map $disk.vmdk --json >ours.json
    qemu-img map --output=json -f vmdk $disk.vmdk >theirs.json
    python3 same_map.py ours.json theirs.json || fail "the maps of $disk.vmdk differ"
done

# compare A B: both programs have the same exit code, 0 or 1.
compare() {
    local ours=0 theirs=0
    tessel compare "$1" "$2" >ours.txt 2>ours.err || ours=$?
    qemu-img compare "$@" >theirs.txt 2>&1 || theirs=$?
    equal "exit code for $1 and $2" $theirs $ours
    [[ $ours -ne 1 ]] || [[ $(<theirs.txt) != *offset* ]] ||
        equal "first sector" "$(sed -n 's/.*offset \([0-9]*\)!.*/\1/p' theirs.txt)" \
            "$(sed -n 's/^differ: .* from \([0-9]*\) on$/\1/p' ours.txt | head -n 1)"
}
for a in disk.raw ours.vmdk theirs.vmdk; do
    for b in disk.raw ours_split.vmdk theirs_split.vmdk child.vmdk; do
        compare $a $b
    done
done
cp disk.raw longer.raw
truncate -s 13M longer.raw
compare disk.raw longer.raw
printf x >>longer.raw
compare longer.raw ours.vmdk

# measure: the other program counts clusters that are stored, and here all of them hold something.
noise 5 1000000 >full.raw
truncate -s 12M full.raw
tessel convert --quiet full.raw full.vmdk
equal "size of a raw image" "$(qemu-img measure -f vmdk -O raw full.vmdk | sed -n 's/fully allocated size: //p')" \
    "$(tessel measure full.vmdk x.raw --json | value_of fullyAllocatedBytes 2)"
qemu-img convert -f vmdk -O raw full.vmdk theirs.raw
equal "required size of a raw image" 1003520 "$(tessel measure theirs.raw x.raw --json | value_of requiredBytes 2)"
