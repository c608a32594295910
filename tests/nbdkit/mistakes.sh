#!/usr/bin/env bash
# What a server cannot do is told: at the start in one line, later in a line of its log and an error of the client.
. "$(dirname -- "$0")/lib.sh"

make_disk_image disk.raw 1
size=$(size_of disk.raw)
printf 'geheim\n' >key
printf 'falsch\n' >wrong
: >empty
ok convert disk.raw disk.vmdk --quiet
ok convert disk.raw secret.vmdk --quiet --password-file key
ok convert disk.raw split.vmdk --quiet --split=3M
mkdir folder
mkfifo fifo
before=$(find . | sort)
here=file://$PWD

# Parameters.
known='(file, readonly, password, allow, level are known)'
refuses 'the file=DISK parameter is missing: which disk shall be served?'
refuses 'the file=DISK parameter is missing: which disk shall be served?' readonly
refuses "unknown parameter 'size' $known" disk.vmdk size=10M
refuses "unknown parameter 'Readonly' $known" disk.vmdk Readonly=1
refuses "a second disk is named: 'other.vmdk'; one is served" disk.vmdk other.vmdk
refuses 'file= is empty.' file=
refuses 'allow=: This is no folder' disk.vmdk allow=
refuses 'allow=nowhere: This is no folder' disk.vmdk allow=nowhere
refuses 'allow=disk.raw: This is no folder' disk.vmdk allow=disk.raw
refuses 'level=10 is outside 0 to 9' disk.vmdk level=10
refuses 'level=-1 is outside 0 to 9' disk.vmdk level=-1
refuses_somehow disk.vmdk level=fast
refuses_somehow disk.vmdk level=5K
refuses_somehow disk.vmdk readonly=perhaps
refuses 'the password is empty' secret.vmdk password=
refuses 'the password is empty' secret.vmdk password=+empty
# With the sanitizers' runtime before it nbdkit, whatever its plug-in, hangs at its end once it has told an error of
# the system itself.
[[ -n ${TESSEL_NBDKIT_PRELOAD-} ]] || refuses_somehow secret.vmdk password=+none
refuses_somehow secret.vmdk password=-0

# Disks.
refuses "Cannot open file: No such file or directory (problem: not found; uri: $here/none.vmdk)" none.vmdk
refuses "Cannot open file: Is a directory (problem: not a regular file; uri: $here/folder)" folder
refuses "Cannot open file: Not a regular file (problem: not a regular file; uri: $here/fifo)" fifo
refuses "This is no VMDK disk: it begins with neither a sparse extent nor a descriptor. (code 5; uri: $here/disk.raw)" \
    disk.raw
refuses "Specified VMDK encryption password is not correct. (uri: $here/secret.vmdk)" secret.vmdk password=+wrong
refuses "Specified VMDK encryption password is not correct. (uri: $here/secret.vmdk)" secret.vmdk password=falsch
refuses "VMDK is encrypted but no password provided (uri: $here/secret.vmdk)" secret.vmdk
qemu-img create -q -f vmdk -o subformat=monolithicFlat flat.vmdk 10M
refuses "VMDK disk has an unsupported create type: 'monolithicFlat'. (code 5; uri: $here/flat.vmdk)" flat.vmdk
rm flat*
[[ $(find . | sort) == "$before" ]] || fail "other files than before are there"

# What is missing is told at the start, not when a client first comes to it.
mv split-s00002.vmdk away
(nbdkit_runs split.vmdk) >"$out" 2>"$err" </dev/null && fail "a file is missing"
error_holds "Cannot open file: No such file or directory (problem: not found; uri: $here/split-s00002.vmdk)"
mv away split-s00002.vmdk

# The password, in the ways that nbdkit offers besides a terminal.
for password in password=geheim password=+key password=-7; do
    exec 7<key
    serve secret.vmdk $password
    holds disk.raw
    stop
    exec 7<&-
done
# It is the last one that counts, and is of no use to a disk that is not encrypted.
serve secret.vmdk password=falsch password=geheim
stop
serve disk.vmdk password=falsch
stop

# A grain that cannot be inflated fails by itself.
ok convert disk.raw damaged.vmdk --quiet --compressed
python3 - <<'END'
data = bytearray(open("damaged.vmdk", "rb").read())
first = data.index(b"\x78\x01", 65536) if b"\x78\x01" in data[65536:] else data.index(b"\x78", 65536)
data[first + 2000:first + 2100] = bytes(100)
open("damaged.vmdk", "wb").write(data)
END
run 3 check damaged.vmdk
serve damaged.vmdk
qemu_io_fails 'read failed: Input/output error' "read 0 $size"
qemu_io 'read 5242880 65536'
qemu_io 'write -P 1 0 9M' 'read -P 1 0 9M'
stop_after "error: $PWD/damaged.vmdk: Compressed data are damaged or cut short. ("
run 0 check damaged.vmdk

# No room: the client is told which error it is; what was there stays, and once there is room it goes on.
ok create full.vmdk 64M
rm -f -- "$base/pid" "$base/socket"
(
    trap '' XFSZ
    ulimit -f 1024
    nbdkit_runs full.vmdk >"$said" 2>&1 </dev/null
) &
wait_for_server $!
qemu_io 'write -P 1 0 65536' flush
qemu_io_fails 'No space left on device' 'write -P 2 65536 32M'
stop_after "error: $PWD/full.vmdk: "
run 0 check full.vmdk
serve full.vmdk
qemu_io 'read -P 1 0 65536' 'write -P 2 65536 32M' 'read -P 2 65536 32M'
stop
