#!/usr/bin/env bash
# rebase tells a child where its parent is now, and does not take another disk for it unless it is told to.
. "$(dirname -- "$0")/lib.sh"

make_image one.raw 1
make_image two.raw 2
ok convert one.raw base.vmdk --quiet
ok convert two.raw other.vmdk --quiet
ok create child.vmdk --parent base.vmdk
printf changed >change
ok write child.vmdk 3M <change
cp one.raw child.raw
dd if=change of=child.raw bs=64K oflag=seek_bytes seek=3M conv=notrunc status=none
check() {
    ok convert "$1" back.raw --size $image_size --force "${allow[@]}"
    same "$2" back.raw
}
check child.vmdk child.raw

# The child moves away from its parent.
ok info child.vmdk --json
id=$(json 'd["contentID"]')
mkdir -p 'a b/ö'
mv child.vmdk 'a b/ö/'
lost="a b/ö/child.vmdk: Its parent is missing: $PWD/a b/ö/base.vmdk (tessel rebase a b/ö/child.vmdk NEW_PARENT tells it \
where the parent is now)"
allow=()
refused 1 "$lost" convert 'a b/ö/child.vmdk' x.raw
ok rebase 'a b/ö/child.vmdk' base.vmdk
allow=(--allow .)
check 'a b/ö/child.vmdk' child.raw
ok info 'a b/ö/child.vmdk' --json
json_is 'd["parent"]["reference"], d["contentID"]' "('../../base.vmdk', '$id')"
# A parent that lies deeper, seen from another folder.
mv 'a b/ö/child.vmdk' child.vmdk
mv other.vmdk 'a b/ö/'
(cd 'a b'; ok rebase ../child.vmdk ../base.vmdk)
check child.vmdk child.raw

# Another disk is not the parent, nor is the parent once it has changed; --unsafe takes either.
ok info base.vmdk --json
expected=$(json 'd["contentID"]')
ok info 'a b/ö/other.vmdk' --json
actual=$(json 'd["contentID"]')
refused 1 "a b/ö/other.vmdk: Its content ID is $actual, but child.vmdk was made from $expected (--unsafe takes it \
nevertheless)" rebase child.vmdk 'a b/ö/other.vmdk'
check child.vmdk child.raw
ok rebase child.vmdk 'a b/ö/other.vmdk' --unsafe
python3 - <<'END'
# The child holds the whole grain that was written to.
grain, start = 65536, 3145728 // 65536 * 65536
mixed = bytearray(open("two.raw", "rb").read())
mixed[start:start + grain] = open("child.raw", "rb").read()[start:start + grain]
open("mixed.raw", "wb").write(mixed)
END
check child.vmdk mixed.raw
ok rebase child.vmdk base.vmdk --unsafe
check child.vmdk child.raw
ok write base.vmdk 0 <change
run 1 convert child.vmdk x.raw
error_is_one_line
error_holds 'VMDK parent disk has changed, but a child disk depended on it.'
run 1 rebase child.vmdk base.vmdk
error_is_one_line
ok rebase child.vmdk base.vmdk --unsafe
ok read child.vmdk 0 7
same change "$out"

# A disk that is not encrypted takes an encrypted parent with a warning, also one that is so further back.
echo secret >pw
ok convert one.raw secret.vmdk --quiet --password-file pw
ok create between.vmdk --parent secret.vmdk --password-file pw
ok create open.vmdk --parent base.vmdk
for parent in secret.vmdk between.vmdk; do
    run 0 rebase open.vmdk $parent --unsafe --password-file pw
    error_is 'tessel: warning: open.vmdk: The new parent is encrypted and this disk is not: what it stores can be read by everybody'
    ok convert open.vmdk back.raw --size $image_size --force --password-file pw
    same one.raw back.raw
done
refused 1 "between.vmdk: VMDK is encrypted but no password provided; --password-file FILE tells it" rebase open.vmdk between.vmdk --unsafe
ok create hidden.vmdk --parent secret.vmdk --password-file pw
ok rebase hidden.vmdk between.vmdk --unsafe --password-file pw
ok rebase open.vmdk base.vmdk --unsafe --password-file pw

# Not a child; itself; a loop; files that are not there.
refused 1 'base.vmdk: This disk has no parent that could be replaced (--unsafe gives it one)' \
    rebase base.vmdk 'a b/ö/other.vmdk'
refused 1 'child.vmdk: This disk is child.vmdk itself or has it as a parent' rebase child.vmdk child.vmdk
refused 1 'child.vmdk: This disk is base.vmdk itself or has it as a parent' rebase base.vmdk child.vmdk --unsafe
refused 1 'none.vmdk: No such file' rebase child.vmdk none.vmdk
refused 1 'none.vmdk: No such file' rebase none.vmdk base.vmdk
refused 1 'one.raw: This is no VMDK disk: it begins with neither a sparse extent nor a descriptor' \
    rebase child.vmdk one.raw
[[ ! -e x.raw && -z $(find . -name '*.lock') ]] || fail "something was left behind"
