#!/usr/bin/env bash
# Pieces, zeros and discards of a client, at even places and odd ones, do to a disk what they do to a raw image.
. "$(dirname -- "$0")/lib.sh"

make_disk_image start.raw 1
size=$(size_of start.raw)
last_grain=$((size - 65536))
printf 'geheim\n' >key

# What a client writes; "write -z -u" may make holes, "write -f" must be on the medium when it is answered.
commands=(
    'write -P 1 0 512' 'write -P 2 65535 2' 'write -P 3 196607 131075' "write -P 4 $((size - 1)) 1"
    'write -z 1000 200000' 'write -z -u 4000000 1000000' 'write -z 524288 65536' "write -z -u $((last_grain + 7)) 100"
    'write -f -P 5 7000000 4097' 'write -z -f 7000100 10' 'flush' 'writev -P 6 300 300 300'
    'write -P 7 2999999 80000' 'write -z 2999999 1' "write -z 0 $size" 'write -P 8 65536 65536'
    'write -z -u 65536 65536' 'write -P 9 8000000 70000' 'write -P 10 100000 3000000'
)

# try PARAMETERS OPTION...: each command and a look at the whole disk after it.
try() {
    local parameters=()
    [[ -z $1 ]] || parameters=("$1")
    shift
    ok convert start.raw disk.vmdk --force --quiet "$@"
    cp start.raw model.raw
    serve disk.vmdk "${parameters[@]}"
    writes_alike model.raw "${commands[@]}"
    stop
    disk_is disk.vmdk model.raw --password-file key
}
try ''
try '' --compressed
try level=9 --compressed
try '' --split=4M --on-demand
try password=+key --password-file key
try password=+key --compressed --password-file key

# Zeros that nobody needs to hold take no room.
ok create empty.vmdk 64M
before=$(size_of empty.vmdk)
serve empty.vmdk
qemu_io 'write -z 0 64M' 'write -z -u 0 64M' 'write -z -n 0 64M'
client qemu-img convert -n -f raw -O raw /dev/null "$uri"
stop
[[ $(size_of empty.vmdk) == "$before" ]] || fail "zeros in an empty disk take room"

# Zeros are fast where nothing is held, and wherever the disk is compressed; elsewhere a client that asks for fast
# ones is told that there are none, and nothing is changed.
ok convert start.raw plain.vmdk --quiet
ok convert start.raw small.vmdk --quiet --compressed
serve plain.vmdk
qemu_io 'write -z -n 3500000 65536'
qemu_io_fails 'not supported' 'write -z -n 0 65536'
holds start.raw
stop
serve small.vmdk
qemu_io 'write -z -n 0 65536' 'read -P 0 0 65536'
stop

# A discard makes zeros of whole grains of a compressed disk, and leaves parts of grains alone; a plain disk does not
# offer it, and keeps what it holds.
cp start.raw model.raw
client qemu-io -f raw -c 'write -z 65536 196608' model.raw
ok convert start.raw small.vmdk --quiet --compressed --force
serve small.vmdk
[[ $(nbdinfo --can trim "$uri" && echo yes) == yes ]] || fail "a compressed disk should offer to trim"
qemu_io 'discard 65535 196610' 'discard 1 65000' 'discard 262145 1'
holds model.raw
qemu_io "discard 0 $size"
truncate -s 0 model.raw
truncate -s "$size" model.raw
holds model.raw
stop
disk_is small.vmdk model.raw
ok convert small.vmdk again.vmdk --quiet
serve again.vmdk
[[ $(nbdinfo --map --totals "$uri" | awk '{print $1, $NF}') == "$size hole,zero" ]] ||
    fail "what was discarded should be left out of a copy"
stop
serve plain.vmdk
! nbdinfo --can trim "$uri" || fail "a plain disk should not offer to trim"
qemu_io "discard 0 $size"
holds start.raw
stop

# An odd end: zeros and a discard up to the last sector.
head -c $((9 * 1048576 + 1024)) start.raw >odd.raw
qemu-img convert -f raw -O vmdk odd.raw odd.vmdk
serve odd.vmdk
qemu_io "write -z -u $((9 * 1048576 - 1000)) 2024" "discard $((9 * 1048576)) 1024"
client qemu-io -f raw -c "write -z $((9 * 1048576 - 1000)) 2024" odd.raw
holds odd.raw
stop
