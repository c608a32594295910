#!/usr/bin/env bash
# Children read through to their parents, keep apart from them, and hold zeros over what those hold.
. "$(dirname -- "$0")/lib.sh"

make_disk_image base.raw 1
size=$(size_of base.raw)
printf 'geheim\n' >key

commands=('write -P 0 5308416 65536' 'write -P 0 5373951 200000' 'write -z 0 300000' 'write -P 7 3000000 100' 'write -z -u 5000000 65536' 'write -z 5242880 1000'
    'write -P 0 196608 65536' 'write -P 0 262144 100' "write -z $((size - 65536)) 65536" 'write -P 3 4194304 70000'
    "write -z -f $((size - 1)) 1")

# try PARAMETER OPTION...: a child of a child, of disks of a kind.
try() {
    local parameters=()
    [[ -z $1 ]] || parameters=("$1")
    shift
    rm -f -- *.vmdk
    ok convert base.raw base.vmdk --quiet "$@"
    ok create middle.vmdk --parent base.vmdk "$@"
    cp base.raw model.raw

    serve middle.vmdk "${parameters[@]}"
    qemu_io 'write -P 9 65536 65536'
    stop
    client qemu-io -f raw -c 'write -P 9 65536 65536' model.raw
    ok create child.vmdk --parent middle.vmdk "$@"
    sha256sum base.vmdk middle.vmdk >sums

    serve child.vmdk "${parameters[@]}"
    holds model.raw
    writes_alike model.raw "${commands[@]}"
    stop
    disk_is child.vmdk model.raw --password-file key
    sha256sum --quiet -c sums || fail "a parent was changed"

    # Everything becomes zeros, and stays so.
    serve child.vmdk "${parameters[@]}"
    qemu_io "write -z 0 $size" flush
    truncate -s 0 model.raw
    truncate -s "$size" model.raw
    holds model.raw
    stop
    disk_is child.vmdk model.raw --password-file key
    sha256sum --quiet -c sums || fail "a parent was changed"
}
try ''
try '' --compressed
try password=+key --password-file key
try password=+key --compressed --password-file key

# A discard leaves the parent's data where they are, and makes zeros only of the child's own grains.
rm -f -- *.vmdk
ok convert base.raw base.vmdk --quiet --compressed
ok create child.vmdk --parent base.vmdk --compressed
serve child.vmdk
qemu_io 'write -P 5 0 65536' "discard 0 $size" 'read -P 0 0 65536'
cp base.raw model.raw
client qemu-io -f raw -c 'write -z 0 65536' model.raw
holds model.raw
stop

# The last grain of a disk whose size is no whole number of grains, over a parent's data.
head -c $((9 * 1048576 + 1024)) base.raw >odd.raw
qemu-img convert -f raw -O vmdk odd.raw odd.vmdk
qemu-img create -q -f vmdk -b odd.vmdk -F vmdk oddchild.vmdk
serve oddchild.vmdk
holds odd.raw
qemu_io "write -z $((9 * 1048576)) 1024"
client qemu-io -f raw -c "write -z $((9 * 1048576)) 1024" odd.raw
holds odd.raw
stop

# A parent elsewhere is found only where the user says so; one that has changed is refused.
mkdir home
mv child.vmdk home/
ok rebase home/child.vmdk base.vmdk --allow .
refuses "The file is outside the folders that may be used. (problem: access denied; uri: file://$PWD/base.vmdk.lock; \
allowed: file://$PWD/home); allow=DIR lets a disk name files below another folder" home/child.vmdk
serve home/child.vmdk allow="$PWD"
holds model.raw
stop
ok write base.vmdk 0 <key
refuses "The parent disk has changed since a child was made from it. (code 5; uri: file://$PWD/base.vmdk)" \
    home/child.vmdk allow=.
rm base.vmdk
refuses "Cannot open file: No such file or directory (problem: not found; uri: file://$PWD/base.vmdk)" \
    home/child.vmdk allow=.
