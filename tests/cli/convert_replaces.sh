#!/usr/bin/env bash
# An existing file is only replaced with --force, then completely, and never when it is needed for the new one.
. "$(dirname -- "$0")/lib.sh"

make_image one.raw 1
make_image two.raw 2
check() {
    ok convert "$1" back.raw --force --size $image_size
    same "$2" back.raw
    rm back.raw
}

exists='The file exists already (--force replaces it)'
ok convert one.raw disk.vmdk --quiet --split=6M
for verb in "convert two.raw disk.vmdk" "create disk.vmdk 10M" "convert two.raw disk.vmdk --split=6M"; do
    read -ra arguments <<<"$verb"
    refused 1 "disk.vmdk: $exists" "${arguments[@]}"
done
refused 1 "one.raw: $exists" convert disk.vmdk one.raw
check disk.vmdk one.raw
# Another file of the new disk counts as well.
echo mine >other-s00001.vmdk
refused 1 "other-s00001.vmdk: $exists" convert two.raw other.vmdk --split=6M
[[ $(cat other-s00001.vmdk) == mine && ! -e other.vmdk ]] || fail "a file was replaced"
rm other-s00001.vmdk

# From split to single, back, and to one that makes its files on demand: no file of the old disk stays.
only_files one.raw two.raw disk.vmdk disk-s00000.vmdk disk-s00001.vmdk
ok convert two.raw disk.vmdk --quiet --force
check disk.vmdk two.raw
only_files one.raw two.raw disk.vmdk
ok convert one.raw disk.vmdk --quiet --force --split=6M
check disk.vmdk one.raw
ok create disk.vmdk 10M --force --split=6M --on-demand
only_files one.raw two.raw disk.vmdk disk-s00000.vmdk
ok read disk.vmdk 0 10M
[[ $(tr -d '\0' <"$out" | wc -c) -eq 0 ]] || fail "the new disk should be empty"
ok convert two.raw disk.vmdk --quiet --force --compressed
check disk.vmdk two.raw
ok convert disk.vmdk one.copy --to raw --size $image_size
ok convert one.raw one.copy --to raw --force
same one.raw one.copy

# An old disk that names files elsewhere, or others beside it, loses nothing but itself.
mkdir elsewhere
echo mine | tee elsewhere/bad-s00001.vmdk >precious.vmdk
printf '# Disk DescriptorFile\ncreateType="twoGbMaxExtentSparse"\nRW 9 SPARSE "%s"\nRW 9 SPARSE "%s"\n' \
    elsewhere/bad-s00001.vmdk precious.vmdk >bad.vmdk
ok convert two.raw bad.vmdk --force --quiet
[[ $(cat elsewhere/bad-s00001.vmdk precious.vmdk) == $'mine\nmine' ]] || fail "a strange file was removed"

# The source, its files and its parents are never replaced.
in_use='It is in use here, as the source or a parent, and cannot be replaced'
ok convert one.raw base.vmdk --quiet --split=6M
ok create child.vmdk --parent base.vmdk
refused 1 "base.vmdk: $in_use" convert base.vmdk base.vmdk --force
refused 1 "child.vmdk: $in_use" convert child.vmdk child.vmdk --force
refused 1 "base.vmdk: $in_use" convert child.vmdk base.vmdk --force
refused 1 "base.vmdk: $in_use" create base.vmdk --parent base.vmdk --force
refused 1 "base.vmdk: $in_use" create base.vmdk --parent child.vmdk --force
refused 1 "one.raw: $in_use" convert one.raw one.raw --to vmdk --force
for file in base.vmdk base-s00001.vmdk; do
    refused 1 "$file: It is in use here, as the source, and cannot be replaced" \
        convert child.vmdk $file --to raw --force
done
# A copy of a descriptor names the same files; they are the source's now.
cp base.vmdk copy.vmdk
ok convert copy.vmdk base.vmdk --force
check copy.vmdk one.raw
refused 1 "base-s00000.vmdk: $in_use" convert copy.vmdk base.vmdk --force --split=6M
cp copy.vmdk base.vmdk
ln base-s00000.vmdk link.raw
refused 1 "link.raw: It is in use here, as the source, and cannot be replaced" convert base.vmdk link.raw --force
check child.vmdk one.raw

# Only regular files are replaced; a link's file is, and the link stays.
mkdir folder
refused 1 'folder: It is a folder, not a file' convert disk.vmdk folder --to raw --force
if posix; then
    refused 1 '/dev/null: Only a regular file can be replaced' convert disk.vmdk /dev/null --to raw --force
    ln -s one.copy link
    ok convert disk.vmdk link --to raw --force --size $image_size
    [[ -L link ]] || fail "the link should stay"
    same two.raw one.copy
    ln -s nowhere broken
    refused 1 'broken: It is a link that leads nowhere' convert disk.vmdk broken --to raw --force
fi
