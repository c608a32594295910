#!/usr/bin/env bash
# Sizes are plain bytes or carry a binary unit; what is none is refused; a disk's size is rounded up, and that is
# told.
. "$(dirname -- "$0")/lib.sh"

# makes TEXT BYTES: the size is that of the disk.
makes() {
    ok create a.vmdk "$1" --force
    ok info a.vmdk --json
    json_is 'd["sizeBytes"]' "$2"
}
makes 10485760 10485760
makes 10240K 10485760
makes 10M 10485760
makes 10m 10485760
makes 10MiB 10485760
makes 3G 3221225472
makes 1T 1099511627776
makes 8388608B 8388608

is_no_size() {
    refused 2 "create: SIZE: \"$1\" is no size; write bytes, or a number with K, M, G, T or P, such as 10M \
(see tessel create --help)" create b.vmdk -- "$1"
}
is_no_size x
is_no_size -1
is_no_size 10X
is_no_size 10MB
is_no_size 1.5G
is_no_size '10 M'
is_no_size 0x100
is_no_size +5
refused 2 'create: SIZE: "8388608T" is more than a disk can have (see tessel create --help)' create b.vmdk 8388608T
refused 2 'create: SIZE: "99999999999999999999" is more than a disk can have (see tessel create --help)' \
    create b.vmdk 99999999999999999999
refused 2 'read: OFFSET: "far" is no size; write bytes, or a number with K, M, G, T or P, such as 10M (see tessel read --help)' \
    read a.vmdk far 1

run 0 create b.vmdk 1
error_is 'tessel: note: b.vmdk: The size was rounded up from 1 to 8388608 bytes'
run 0 create c.vmdk 10485761
error_is 'tessel: note: c.vmdk: The size was rounded up from 10485761 to 10551296 bytes'

# What is shown to people.
ok info c.vmdk
output_holds 'size:       10.1 MiB (10551296 bytes)'
makes 3G 3221225472
ok info a.vmdk
output_holds 'size:       3 GiB (3221225472 bytes)'
only_files a.vmdk b.vmdk c.vmdk
