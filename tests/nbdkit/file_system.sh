#!/usr/bin/env bash
# A file system with files in it goes in and comes out whole, and another one over it.
. "$(dirname -- "$0")/lib.sh"
PATH=$PATH:/usr/sbin:/sbin

bash "${TESSEL_SOURCE_DIR:?}/tests/support/make_tree.sh"

verify_file_system() {
    rm -rf -- out.raw out
    client nbdcopy "$uri" out.raw
    client e2fsck -fn out.raw
    mkdir out
    debugfs -R 'rdump / out' out.raw 2>/dev/null
    (cd out && sha256sum --quiet --strict -c ../sums) || fail "other files come out"
}

client mke2fs -q -t ext4 -d tree ext4.raw 48M
client mke2fs -q -t ext2 -d tree ext2.raw 48M
printf 'geheim\n' >key
for options in '' '--compressed --split=16M --on-demand' '--compressed --password-file key'; do
    # shellcheck disable=SC2086
    run 0 create disk.vmdk 48M --force $options
    serve disk.vmdk password=+key
    client nbdcopy ext4.raw "$uri"
    verify_file_system
    stop
    serve disk.vmdk password=+key
    client nbdcopy ext2.raw "$uri"
    verify_file_system
    stop
    disk_is disk.vmdk ext2.raw --password-file key
done

# In a child over a parent that holds another file system.
ok convert ext4.raw base.vmdk --quiet
ok create child.vmdk --parent base.vmdk
serve child.vmdk
verify_file_system
client nbdcopy ext2.raw "$uri"
verify_file_system
stop
disk_is child.vmdk ext2.raw
disk_is base.vmdk ext4.raw
