#!/usr/bin/env bash
# A server among others: locks, the background, several clients, read-only, the end.
. "$(dirname -- "$0")/lib.sh"

make_disk_image disk.raw 1
ok convert disk.raw disk.vmdk --quiet
locked="It is locked by another user or process."
cannot_lock="Cannot lock \"$PWD/disk.vmdk.lock\": $locked"

# While a disk is served for writing nobody else uses it; readers share it.
serve disk.vmdk
refused 1 "disk.vmdk: $cannot_lock" read disk.vmdk 0 1
stop
only_files disk.raw disk.vmdk
serve disk.vmdk readonly
ok read disk.vmdk 0 1
refused 1 "disk.vmdk: $cannot_lock" write disk.vmdk 0
first=$server
cp disk.vmdk before.vmdk
nbdinfo --is read-only "$uri" || fail "the disk should be read-only"
! nbdinfo --can write "$uri" 2>/dev/null || fail "the disk should be read-only"
last="qemu-io"
! qemu-io -f raw -c 'write 0 512' "$uri" >"$base/client" 2>&1 || fail "a write into a disk that is only read"
stop
same before.vmdk disk.vmdk
rm before.vmdk
for word in readonly=true readonly=1 readonly=yes; do
    serve disk.vmdk $word
    nbdinfo --is read-only "$uri" || fail "$word does not do"
    stop
done
serve readonly=off disk.vmdk
! nbdinfo --is read-only "$uri" || fail "readonly=off should let clients write"
stop

# nbdkit's own option keeps clients from writing.
nbdkit=(nbdkit -r)
serve disk.vmdk
nbdinfo --is read-only "$uri" || fail "the disk should be read-only"
holds disk.raw
stop
nbdkit=(nbdkit)

# A disk that the name of a parameter fits.
cp disk.vmdk readonly
serve ./readonly
! nbdinfo --is read-only "$uri" || fail "./readonly is a disk"
holds disk.raw
stop_after 'its descriptor still names "disk.vmdk"'
rm readonly

# Names are seen from the folder that the server is started in, which it leaves in the background. What whoever
# started it does at its end changes nothing for the disk.
mkdir inner
ok convert disk.raw split.vmdk --quiet --split=3M
ok create inner/child.vmdk --parent split.vmdk
cd inner
rm -f -- "$base/socket" "$base/pid"
LD_PRELOAD=${TESSEL_NBDKIT_PRELOAD-} nbdkit -U "$base/socket" -P "$base/pid" "$TESSEL_NBDKIT_PLUGIN" child.vmdk \
    allow=.. >"$out" 2>"$err" </dev/null
server=$(cat "$base/pid")
[[ $(readlink "/proc/$server/cwd") == / ]] || fail "the server should have left the folder"
run 1 read child.vmdk 0 1
error_holds "$locked"
holds ../disk.raw
qemu_io 'write -P 3 8000000 70000'
run 1 read child.vmdk 0 1
kill "$server"
for ((i = 0; i < 600; i++)); do
    kill -0 "$server" 2>/dev/null || break
    sleep 0.05
done
server=
[[ ! -e child.vmdk.lock ]] || fail "the lock file should be gone"
cd ..
cp disk.raw model.raw
client qemu-io -f raw -c 'write -P 3 8000000 70000' model.raw
disk_is inner/child.vmdk model.raw --allow .

# Many connections at once, each to a range of its own, and one disk.
ok create shared.vmdk 16M --compressed
truncate -s 0 model.raw
truncate -s 16M model.raw
serve shared.vmdk
clients=()
for ((i = 0; i < 8; i++)); do
    commands=()
    for ((j = 0; j < 12; j++)); do
        command="write -P $((16 * i + j + 1)) $((i * 2097152 + j * 170001)) 170001"
        commands+=(-c "$command")
        qemu-io -f raw -c "$command" model.raw >/dev/null
    done
    qemu-io -f raw "${commands[@]}" "$uri" >"$base/client$i" 2>&1 &
    clients+=($!)
done
for client in "${clients[@]}"; do
    wait "$client" || fail "a client of many failed"
done
[[ $(nbdinfo --can multi-conn "$uri" && echo yes) == yes ]] || fail "several connections should be offered"
holds model.raw
stop
disk_is shared.vmdk model.raw

# A client that is killed leaves the disk to the others.
serve shared.vmdk
data 16777216 5 >other.raw
stays_connected 'write -P 1 0 16M'
kill -KILL "$staying"
wait "$staying" 2>/dev/null || true
qemu_io 'read -P 1 0 16M'
client nbdcopy other.raw "$uri"
stop
disk_is shared.vmdk other.raw
