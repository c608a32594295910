#!/usr/bin/env bash
# A file system with files in it goes into a disk of every kind and comes out again whole.
. "$(dirname -- "${BASH_SOURCE[0]}")/common.sh"
PATH=$PATH:/usr/sbin:/sbin

bash "${TESSEL_SOURCE_DIR:?}/tests/support/make_tree.sh"

# verify_file_system RAW: it is clean, and its files are those that were put in.
verify_file_system() {
    e2fsck -fn "$1" >checked 2>&1 || fail "e2fsck: $(<checked)"
    rm -rf out
    mkdir out
    debugfs -R 'rdump / out' "$1" 2>/dev/null
    (cd out && sha256sum --quiet --strict -c ../sums) || fail "the files in $1"
}

for type in ext4 ext2; do
    mke2fs -q -t $type -d tree $type.raw 48M >made 2>&1 || fail "mke2fs: $(<made)"
    verify_file_system $type.raw
    printf 'password\n' >key
    for options in '' --compressed '--split=16M' '--split --on-demand' '--compressed --password-file key' \
        '--password-file key'; do
        tessel convert --quiet $type.raw disk.vmdk $options
        tessel convert --quiet disk.vmdk back.raw --password-file key
        cmp $type.raw back.raw
        verify_file_system back.raw
        rm -- *.vmdk back.raw
    done
done

# On disks that are no files of their own either: the file system is made anew over what a disk held before.
tessel convert --quiet ext4.raw disk.vmdk
tessel write disk.vmdk 0 <ext2.raw
tessel convert --quiet disk.vmdk back.raw
cmp ext2.raw back.raw
verify_file_system back.raw
