#!/usr/bin/env bash
# Whatever a raw image is converted into, converting back gives every byte, and so does going from kind to kind.
. "$(dirname -- "$0")/lib.sh"

make_image disk.raw
printf 'an old päßword\n' >password
kinds=("" "--split=10M" "--compressed" "--compressed --level 0" "--compressed --level 9"
    "--split=6M --on-demand" "--password-file password" "--compressed --password-file password")

goes_back() {
    ok convert "$1" back.raw --size $image_size --force "${@:2}"
    same disk.raw back.raw
}

index=0
for kind in "${kinds[@]}"; do
    index=$((index + 1))
    read -ra options <<<"$kind"
    ok convert disk.raw "$index.vmdk" --quiet "${options[@]}"
    opening=()
    [[ $kind != *password* ]] || opening=(--open-password-file password)
    [[ $kind != *password* ]] || refused 1 "$index.vmdk: VMDK is encrypted but no password provided; --password-file FILE tells it" \
        convert "$index.vmdk" no.raw
    ok convert "$index.vmdk" whole.raw --force "${opening[@]}"
    [[ $(size_of whole.raw) -eq 9502720 ]] || fail "the disk has whole grains"
    cmp -n $image_size disk.raw whole.raw || fail "the bytes differ"
    goes_back "$index.vmdk" "${opening[@]}"
done

# With --sync everything is the same.
ok convert disk.raw synced.vmdk --quiet --sync --split=6M
ok convert synced.vmdk synced.raw --sync --size $image_size
same disk.raw synced.raw

# From each of the plain kinds into each.
for from in 1 2 3; do
    for to in 1 2 3; do
        read -ra options <<<"${kinds[to - 1]}"
        ok convert "$from.vmdk" copy.vmdk --force "${options[@]}"
        goes_back copy.vmdk
    done
done

# Nothing is stored for zeros: neither for holes nor for zeros that were written.
stored() {
    ok space "$1" --json
    json 'd["payloadBytes"]'
}
expected=$(python3 - disk.raw <<'END'
import sys
raw = open(sys.argv[1], "rb").read()
print(sum(65536 for at in range(0, len(raw), 65536) if any(raw[at:at + 65536])))
END
)
for kind in 1 2 3 4 5; do
    [[ $(stored $kind.vmdk) -eq $expected ]] || fail "$kind.vmdk should store $expected bytes"
done

# A split disk has several files, and its main file is text.
[[ $(find . -name '2-s0*.vmdk' | wc -l) -ge 1 ]] || fail "2.vmdk should have files of its own"
[[ $(head -n 1 2.vmdk) == "# Disk DescriptorFile" ]] || fail "2.vmdk should be a descriptor"

# An image that begins with anything is no disk, and nobody is warned of what it holds in place of a descriptor.
mkdir noise
cd noise
for bytes in 600 5000 70000 2000000; do
    data $bytes 6 >x.raw
    run 0 convert x.raw x.vmdk --quiet --force
    [[ ! -s $err ]] || fail "there should be nothing on standard error"
    { printf 'encoding="UTF-8"\n\344\n'; data $bytes 6; } >y.img
    run 0 convert y.img x.vmdk --quiet --force
    [[ ! -s $err ]] || fail "there should be nothing on standard error"
    # Nor of those that lie beside a disk.
    cp x.raw other.vmdk
    cp y.img another.vmdk
    run 0 rename x.vmdk moved.vmdk
    [[ ! -s $err ]] || fail "there should be nothing on standard error"
    run 0 compact moved.vmdk --quiet
    [[ ! -s $err ]] || fail "there should be nothing on standard error"
    mv moved.vmdk x.vmdk
done
cd ..
