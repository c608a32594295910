#!/usr/bin/env bash
# The map that clients see is the allocation: what nobody holds is a hole of zeros, everything else is data.
. "$(dirname -- "$0")/lib.sh"

make_disk_image disk.raw 1

# wanted IMAGE...: the map of a disk that holds the grains in which any of the images has other bytes than zeros.
wanted() {
    python3 - "$@" <<'END'
import sys
images = [open(name, "rb").read() for name in sys.argv[1:]]
grain, zero = 65536, bytes(65536)
runs = []
for start in range(0, len(images[0]), grain):
    pieces = [image[start:start + grain] for image in images]
    kind = "data" if any(piece != zero[:len(piece)] for piece in pieces) else "hole,zero"
    if runs and runs[-1][2] == kind:
        runs[-1][1] += len(pieces[0])
    else:
        runs.append([start, len(pieces[0]), kind])
for run in runs:
    print(*run)
END
}
# What nbdinfo sees, in the same words.
map_of() {
    last="nbdinfo --map"
    nbdinfo --map "$uri" | awk '{print $1, $2, $4}'
}
map_is() {
    wanted "$@" >"$base/wanted"
    map_of >"$base/map"
    same "$base/wanted" "$base/map"
}

for options in '' --compressed '--split=3M' '--split=3M --on-demand' '--compressed --split=5M'; do
    # shellcheck disable=SC2086
    run 0 convert disk.raw disk.vmdk --force --quiet $options
    serve disk.vmdk readonly
    map_is disk.raw
    # What the clients make of it: holes stay holes.
    client qemu-img convert -f raw -O raw "$uri" sparse.raw
    same disk.raw sparse.raw
    stop
done
(($(wc -l <"$base/map") >= 5)) || fail "the map should have several runs"

# The peer's own view of the same file.
ok convert disk.raw disk.vmdk --force --quiet
qemu-img map -f vmdk --output=json disk.vmdk | python3 -c '
import json, sys
runs = []
for run in json.load(sys.stdin):
    kind = "data" if run["data"] else "hole,zero"
    if runs and runs[-1][2] == kind:
        runs[-1][1] += run["length"]
    else:
        runs.append([run["start"], run["length"], kind])
for run in runs:
    print(*run)' >"$base/wanted"
serve disk.vmdk
map_of >"$base/map"
same "$base/wanted" "$base/map"

# It follows what is written, before anything is flushed.
qemu_io 'write -P 1 3500000 1' 'write -z 4000000 100'
cp disk.raw model.raw
client qemu-io -f raw -c 'write -P 1 3500000 1' model.raw
map_is disk.raw model.raw
stop

# Of a child, what it or its parent holds; of an empty child of an empty parent, nothing.
ok convert disk.raw parent.vmdk --quiet
ok create child.vmdk --parent parent.vmdk
serve child.vmdk
map_is disk.raw
qemu_io 'write -P 1 3500000 1' 'write -z 0 65536'
map_is disk.raw model.raw
stop
ok create empty.vmdk 20G
ok create child.vmdk --parent empty.vmdk --force
serve child.vmdk readonly
[[ $(map_of) == "0 21474836480 hole,zero" ]] || fail "an empty disk should be one hole"
# Asked for one run only, as some clients do.
client qemu-img map --output=json -f raw "$uri"
json_length=$(python3 -c 'import json, sys; print([(r["length"], r["data"]) for r in json.load(open(sys.argv[1]))])' \
    "$base/client")
[[ $json_length == '[(21474836480, False)]' ]] || fail "qemu-img map finds $json_length"
stop
