#!/usr/bin/env bash
# What was flushed, or written with forced unit access, or left by a client that has gone, survives a server that is
# killed.
. "$(dirname -- "$0")/lib.sh"

kill_all() {
    kill -KILL "$server" "$staying"
    wait "$server" "$staying" 2>/dev/null || true
    server=
}

data 8388608 1 >model.raw
for options in '' --compressed '--split=5M --on-demand --compressed'; do
    for command in 'write -f -P 7 1000000 200000' 'write -z -f 2000000 200000' 'write -f -z -u 3000000 300000'; do
        # shellcheck disable=SC2086
        run 0 convert model.raw disk.vmdk --force --quiet $options
        cp model.raw wanted.raw
        client qemu-io -f raw -c "$command" wanted.raw
        serve disk.vmdk
        stays_connected "$command"
        kill_all
        disk_is disk.vmdk wanted.raw
    done
    # Into a disk that held nothing: tables and, on demand, files are new.
    # shellcheck disable=SC2086
    run 0 create disk.vmdk 8M --force $options
    truncate -s 0 wanted.raw
    truncate -s 8M wanted.raw
    client qemu-io -f raw -c 'write -P 7 6000000 200000' wanted.raw
    serve disk.vmdk
    stays_connected 'write -f -P 7 6000000 200000'
    kill_all
    disk_is disk.vmdk wanted.raw
done

# A flush of one client is one of all.
run 0 create disk.vmdk 8M --force
serve disk.vmdk
stays_connected 'write -P 7 6000000 200000'
qemu_io 'read -P 7 6000000 200000' flush
kill_all
disk_is disk.vmdk wanted.raw

# The last client has gone without a flush.
run 0 create disk.vmdk 8M --force
serve disk.vmdk
client nbdcopy wanted.raw "$uri"
for ((i = 0; i < 100; i++)); do
    cp disk.vmdk copy.vmdk
    run 0 convert copy.vmdk read.raw --force --quiet
    ! cmp -s wanted.raw read.raw || break
    sleep 0.1
done
same wanted.raw read.raw
end_server -KILL
run 0 convert disk.vmdk read.raw --force --quiet
same wanted.raw read.raw
