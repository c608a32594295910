#!/usr/bin/env bash
# Children and parents of the two programs in every combination: each reads what the other's child shows of
# either's parent, and what was written into it; a parent that has changed is noticed.
. "$(dirname -- "${BASH_SOURCE[0]}")/common.sh"

changed='VMDK parent disk has changed, but a child disk depended on it.'

# make_child MAKER CHILD PARENT
make_child() {
    if [[ $1 == tessel ]]; then
        tessel create "$2" --parent "$3"
    else
        qemu-img create -q -f vmdk -b "$3" -F vmdk "$2"
    fi
}

# write_into CHILD RAW WRITER: parts of grains, grains, and zeros over what the parent holds.
write_into() {
    local child=$1 raw=$2 size
    size=$(stat -c %s "$raw")
    if [[ $3 == tessel ]]; then
        noise 90 5 | write_both "$child" "$raw" 100001
        noise 91 200000 | write_both "$child" "$raw" 1234567
        fill 0 300000 | write_both "$child" "$raw" 65000
        fill 99 1000 | write_both "$child" "$raw" $((size - 1000))
    else
        qemu_io -f vmdk -c 'write -P 51 99999 7' -c 'write -P 52 2345678 200000' -c 'write -P 0 140000 250000' \
            -c "write -P 53 $((size - 512)) 512" "$child"
        fill 51 7 | patch "$raw" 99999
        fill 52 200000 | patch "$raw" 2345678
        fill 0 250000 | patch "$raw" 140000
        fill 53 512 | patch "$raw" $((size - 512))
    fi
}

# verify DISK RAW: both programs agree on the bytes.
verify() {
    qemu-img compare -q -f vmdk -F raw "$1" "$2" || fail "qemu-img compare: $1"
    equal "size of $1" "$(stat -c %s "$2")" "$(qemu_size_of "$1")"
    verify_by_tessel "$1" "$2"
}

# try PARENT RAW MAKER: a child, and a child of that one, written by both programs.
try() {
    local parent=$1 maker=$3 raw=child.raw before
    before=$(sha256sum -- "$parent"*)
    cp --sparse=always "$2" $raw
    make_child "$maker" child.vmdk "$parent"
    verify child.vmdk $raw
    write_into child.vmdk $raw "$maker"
    verify child.vmdk $raw
    # Writing gives a child a new content ID; its tie to the parent must outlive that, whoever writes.
    write_into child.vmdk $raw tessel
    write_into child.vmdk $raw qemu
    verify child.vmdk $raw

    for maker in tessel qemu; do
        cp --sparse=always $raw grandchild.raw
        make_child $maker grandchild.vmdk child.vmdk
        verify grandchild.vmdk grandchild.raw
        write_into grandchild.vmdk grandchild.raw $maker
        verify grandchild.vmdk grandchild.raw
        rm grandchild*.vmdk
    done
    verify child.vmdk $raw
    equal "parent of the child" "$before" "$(sha256sum -- "$parent"*)"
}

# try_change PARENT: writing into the parent of a child breaks the tie, and both say so, whoever writes.
try_change() {
    local writer
    for writer in qemu tessel; do
        rm -f child*.vmdk
        make_child tessel child.vmdk "$1"
        tessel read child.vmdk 0 512 >/dev/null
        if [[ $writer == qemu ]]; then
            qemu_io -f vmdk -c 'write -P 1 0 512' "$1"
        else
            fill 2 512 | tessel write "$1" 0
        fi
        verify_refused "$changed" read child.vmdk 0 512
        verify_refused "$changed" convert --quiet child.vmdk out.raw
        [[ ! -e out.raw ]] || fail "a broken child was converted"
    done
    rm -f child*.vmdk
    make_child qemu child.vmdk "$1"
    fill 3 512 | tessel write "$1" 0
    verify_refused "$changed" read child.vmdk 0 512
}

make_raw base.raw $((24 * 1048576)) 5
tessel convert --quiet base.raw own.vmdk
tessel convert --quiet base.raw own-split.vmdk --split=8M
qemu-img convert -f raw -O vmdk -o subformat=monolithicSparse base.raw theirs.vmdk

for parent in own.vmdk theirs.vmdk; do
    for maker in tessel qemu; do
        try $parent base.raw $maker
        rm -f child* grandchild*
    done
done
try own-split.vmdk base.raw tessel
rm -f child* grandchild*
try own-split.vmdk base.raw qemu

try_change own.vmdk
try_change theirs.vmdk
