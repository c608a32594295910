#!/usr/bin/env bash
# A target that cannot grow, as on a full medium, is told of in one line, and nothing of it is left.
. "$(dirname -- "$0")/lib.sh"

make_image disk.raw
ok convert disk.raw disk.vmdk --quiet
before=$(find . | sort)

# no_room KIB ARGUMENT...: no file may grow beyond that many KiB.
no_room() {
    local limit=$1 code=0
    shift
    last="tessel $* (files limited to $limit KiB)"
    (
        ulimit -f "$limit"
        exec "$TESSEL_PROGRAM" "$@"
    ) >"$out" 2>"$err" || code=$?
    ((code == 1)) || fail "the exit code is $code, not 1"
    error_is_one_line
    error_holds 'File too large'
    [[ $(find . | sort) == "$before" ]] || fail "other files than before are there"
}

for limit in 1 100 400; do
    no_room $limit convert disk.vmdk new.raw
    no_room $limit convert disk.raw new.vmdk
    no_room $limit convert disk.raw new.vmdk --compressed --level 1
    no_room $limit convert disk.raw new.vmdk --split=8M
    no_room $limit convert disk.raw disk.vmdk --force
done
no_room 1 create new.vmdk 10M
no_room 1 create new.vmdk 10M --split=6M
error_holds 'tessel: new.vmdk: '

# The length alone is too much.
truncate -s 100M empty.raw
before=$(find . | sort)
no_room 10000 convert empty.raw new.raw

ok convert disk.vmdk back.raw --size $image_size
same disk.raw back.raw

# Folders that are missing, or may not be written.
refused 1 'nowhere/new.raw: There is no such folder: nowhere' convert disk.vmdk nowhere/new.raw
refused 1 'nowhere/new.vmdk: There is no such folder: nowhere' convert disk.raw nowhere/new.vmdk
refused 1 'nowhere/new.vmdk: There is no such folder: nowhere' create nowhere/new.vmdk 10M
if ((EUID != 0)); then
    mkdir closed
    chmod a-w closed
    refused 1 'closed/new.raw: Cannot make file: Permission denied' convert disk.vmdk closed/new.raw
fi
