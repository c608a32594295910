#!/usr/bin/env bash
# A file system is made on the device itself, filled and checked there.
. "$(dirname -- "$0")/lib.sh"
PATH=$PATH:/usr/sbin:/sbin

fuse=
device=$PWD/device/nbd
mkdir device
trap 'unmount; end_server -KILL; rm -rf -- "$base"' EXIT
mount_device() {
    local i
    nbdfuse device/ "$uri" >"$base/fuse" 2>&1 &
    fuse=$!
    for ((i = 0; i < 600; i++)); do
        [[ ! -e $device ]] || return 0
        kill -0 "$fuse" 2>/dev/null || fail "nbdfuse: $(cat -- "$base/fuse")"
        sleep 0.05
    done
    fail "there is no device"
}
unmount() {
    [[ -n $fuse ]] || return 0
    fusermount3 -u device 2>/dev/null || umount device
    wait "$fuse" || true
    fuse=
}

data 3000001 11 >noise
seq 1 300000 >numbers
printf 'geheim\n' >key
ok create base.vmdk 48M
data 50331648 3 | run 0 write base.vmdk 0 # a parent whose every grain holds something
for options in '' '--compressed' '--split=16M --on-demand --compressed --password-file key' '--parent base.vmdk'; do
    size=48M
    [[ $options != --parent* ]] || size=
    # shellcheck disable=SC2086
    run 0 create disk.vmdk $size --force $options
    serve disk.vmdk password=+key
    mount_device
    client mke2fs -q -F -t ext4 "$device"
    client debugfs -w -R 'write noise noise' "$device"
    client debugfs -w -R 'write numbers numbers' "$device"
    client debugfs -w -R 'mkdir folder' "$device"
    client debugfs -w -R 'write numbers folder/again' "$device"
    client debugfs -w -R 'rm numbers' "$device"
    client e2fsck -fn "$device"
    unmount
    stop

    # By another server, and by the program.
    serve disk.vmdk readonly password=+key
    client nbdcopy "$uri" served.raw
    stop
    disk_is disk.vmdk served.raw --password-file key
    client e2fsck -fn served.raw
    rm -rf out
    mkdir out
    debugfs -R 'rdump / out' served.raw 2>/dev/null
    same noise out/noise
    same numbers out/folder/again
    [[ ! -e out/numbers ]] || fail "a removed file is back"
    rm served.raw
done
