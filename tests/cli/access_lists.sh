#!/usr/bin/env bash
# Files that are written anew keep the POSIX access control list that they had, and get none from their folder.
#
#   access_lists.sh KILLER    KILLER: the library that keeps the program from giving lists
. "$(dirname -- "$0")/lib.sh"
killer=$1
export ASAN_OPTIONS=${ASAN_OPTIONS:+$ASAN_OPTIONS:}verify_asan_link_order=0

# list FILE: its entries, or "none". The numbers of tags are those of <sys/acl.h>'s lists on Linux.
cat >acl.py <<'END'
import errno, os, struct, sys
tags = {"user": 1, "user:4711": 2, "group": 4, "group:4712": 8, "mask": 16, "other": 32}
def pack(text):
    parts = [entry.split("=") for entry in text.split(",")]
    return struct.pack("<I", 2) + b"".join(
        struct.pack("<HHI", tags[who], int(rights), int(who.split(":")[1]) if ":" in who else 0xFFFFFFFF)
        for who, rights in parts)
def show(file):
    try:
        value = os.getxattr(file, "system.posix_acl_access")
    except OSError as error:
        if error.errno != errno.ENODATA:
            raise
        return "none"
    names = {tag: who for who, tag in tags.items()}
    return ",".join(f"{names[tag]}={rights}" for tag, rights, _ in struct.iter_unpack("<HHI", value[4:]))
if sys.argv[1] == "show":
    print(show(sys.argv[2]))
else:
    os.setxattr(sys.argv[2], "system.posix_acl_" + sys.argv[1], pack(sys.argv[3]))
END
list() {
    python3 acl.py show "$1"
}
has() {
    [[ $(list "$1") == "$2" ]] || fail "the list of $1 should be $2, not $(list "$1")"
    [[ $(stat -c %a "$1") == "$3" ]] || fail "the mode of $1 should be $3, not $(stat -c %a "$1")"
}
# A disk with something to gain, in one file and in several.
make() {
    rm -rf disks
    mkdir disks
    make_image disk.raw
    head -c $image_size /dev/zero >zeros
    ok convert disk.raw disks/disk.vmdk --quiet "$@"
    ok write disks/disk.vmdk 0 <zeros
}

# The mode of such a file is 660, of which the group has nothing.
closed="user=6,user:4711=6,group=0,mask=6,other=0"
open="user=6,group=4,group:4712=6,mask=6,other=4"
for wanted in "$closed 660" "$open 664"; do
    read -r entries mode <<<"$wanted"
    make
    python3 acl.py access disks/disk.vmdk "$entries"
    has disks/disk.vmdk "$entries" "$mode"
    before=$(size_of disks/disk.vmdk)
    ok compact disks/disk.vmdk --quiet
    (($(size_of disks/disk.vmdk) < before)) || fail "the file should have been written anew"
    has disks/disk.vmdk "$entries" "$mode"

    make --split=6M
    python3 acl.py access disks/disk.vmdk "$entries"
    python3 acl.py access disks/disk-s00001.vmdk "$entries"
    ok rename disks/disk.vmdk disks/new.vmdk
    ok compact disks/new.vmdk --quiet
    has disks/new.vmdk "$entries" "$mode"
    has disks/new-s00001.vmdk "$entries" "$mode"
done

# A list that the folder gives to new files lets nobody into files that had none.
for options in "" "--split=6M"; do
    read -ra words <<<"$options"
    make "${words[@]}"
    chmod 640 disks/*
    python3 acl.py default disks "user=7,user:4711=7,group=7,mask=7,other=0"
    : >disks/probe
    [[ $(list disks/probe) == user=6,user:4711=7,* ]] || fail "the folder should give lists, not $(list disks/probe)"
    ok rename disks/disk.vmdk disks/new.vmdk
    ok compact disks/new.vmdk --quiet
    for file in disks/new*; do
        has "$file" none 640
    done
done

# Where no list can be given or taken, the group and whoever a list names get nothing.
compact_without_lists() {
    local before
    before=$(size_of disks/disk.vmdk)
    env LD_PRELOAD="$killer" TESSEL_NO_LISTS=1 "$TESSEL_PROGRAM" compact disks/disk.vmdk --quiet >"$out" 2>"$err" ||
        fail "compact should do without lists"
    (($(size_of disks/disk.vmdk) < before)) || fail "the file should have been written anew"
}
make
python3 acl.py access disks/disk.vmdk "$open"
compact_without_lists
has disks/disk.vmdk none 604
make
chmod 640 disks/disk.vmdk
python3 acl.py default disks "user=7,user:4711=7,group=7,mask=7,other=0"
compact_without_lists
has disks/disk.vmdk user=6,user:4711=7,group=7,mask=0,other=0 600
