#!/usr/bin/env bash
# Usual mistakes: each is told of in the one line that stands here, and changes nothing.
. "$(dirname -- "$0")/lib.sh"

make_image disk.raw
ok convert disk.raw disk.vmdk --quiet
ok convert disk.raw split.vmdk --quiet --split=6M
mkdir folder
mkfifo fifo
printf 'createType="monolithicSparse"\n' >text.vmdk
: >empty.vmdk
cp disk.raw disk-as.vmdk
before=$(find . | sort)

for verb in info space flatten; do
    refused 1 'none.vmdk: No such file' $verb none.vmdk
    refused 1 'none/none.vmdk: No such file' $verb none/none.vmdk
    refused 1 'folder: It is a folder, not a file' $verb folder
    ! posix || refused 1 'fifo: Cannot open file: Not a regular file' $verb fifo
    refused 1 'disk.raw: This is no VMDK disk: it begins with neither a sparse extent nor a descriptor' $verb disk.raw
    refused 1 'disk-as.vmdk: This is no VMDK disk: it begins with neither a sparse extent nor a descriptor' \
        $verb disk-as.vmdk
done
for arguments in "convert none.vmdk x.raw" "convert none.raw x.vmdk" "read none.vmdk 0 1" "write none.vmdk 0" \
    "rebase none.vmdk disk.vmdk"; do
    read -ra words <<<"$arguments"
    refused 1 "${words[1]}: No such file" "${words[@]}"
done
if posix; then
    refused 1 'fifo: Cannot open file: Not a regular file' convert fifo x.raw
    refused 1 'fifo: Cannot open file: Not a regular file' convert fifo x.vmdk --from raw
fi
refused 1 'text.vmdk: VMDK disk has no extents.' convert text.vmdk x.raw
if posix; then
    run 1 info $'latin\xe4.vmdk'
    error_is 'tessel: latinä.vmdk: No such file'
fi
run 1 info $'two\nlines\e[31m.vmdk'
error_is 'tessel: two lines�[31m.vmdk: No such file'
run 1 create '' 10M
error_is_one_line

# A file of the disk is missing: info and every verb that needs it names it.
mv split-s00001.vmdk away
refused 1 "split.vmdk: A file of the disk is missing: $PWD/split-s00001.vmdk" \
    convert split.vmdk x.raw
mv away split-s00001.vmdk

# A file of another disk in its place.
mv split-s00001.vmdk away
ok convert disk.raw other.vmdk --quiet --compressed
cp other.vmdk split-s00001.vmdk
run 1 convert split.vmdk x.raw
error_is_one_line
error_holds "split-s00001.vmdk"
rm other.vmdk
mv away split-s00001.vmdk

# A disk that somebody is writing to.
python3 - "$TESSEL_PROGRAM" disk.vmdk <<'END' || fail "$(cat -- "$err")"
import os, subprocess, sys, time
program, disk = sys.argv[1:]
writer = subprocess.Popen([program, "write", disk, "0"], stdin=subprocess.PIPE)
def run(*arguments):
    return subprocess.run([program, *arguments], stdin=subprocess.DEVNULL, capture_output=True, text=True)
for _ in range(500): # a reader that came first would keep the writer out
    if os.path.exists(disk + ".lock"):
        break
    time.sleep(0.02)
time.sleep(0.2)
reader = run("read", disk, "0", "1")
locked = "It is locked by another user or process.\n"
def is_refused(done):
    ok = done.returncode == 1 and done.stderr.endswith(locked) and done.stderr.count("\n") == 1
    assert ok and done.stderr.startswith("tessel: disk.vmdk: "), done
is_refused(reader)
is_refused(run("convert", disk, "x.raw"))
is_refused(run("create", disk, "10M", "--force"))
is_refused(run("convert", "disk.raw", disk, "--force"))
is_refused(run("write", disk, "0"))
told = run("info", disk)
assert told.returncode == 0 and "monolithicSparse" in told.stdout, told
assert told.stderr == "tessel: note: disk.vmdk: The disk is in use; what is told here may be changing\n", told
writer.communicate(b"")
assert writer.returncode == 0
END
[[ $(find . | sort) == "$before" ]] || fail "other files than before are there"
ok convert disk.vmdk back.raw --size $image_size
same disk.raw back.raw

# The table: exit code | command line | the one line on standard error, without "tessel: ". HERE stands for this folder.
rm back.raw
printf 'geheim\n' >pw
printf 'falsch\n' >wrong
: >nothing.txt
ok convert disk.raw secret.vmdk --quiet --password-file pw
ok create base.vmdk 10M
ok create child.vmdk --parent base.vmdk
mkdir away hand
ok create away/far.vmdk --parent base.vmdk
ok create moved.vmdk 10M
ok create orphan.vmdk --parent moved.vmdk
ok create grand.vmdk --parent orphan.vmdk
mv moved.vmdk away/
ok create changed.vmdk 10M
ok create heir.vmdk --parent changed.vmdk
content_id() {
    ok info "$1" --json
    json 'd["contentID"]'
}
old=$(content_id changed.vmdk)
ok write changed.vmdk 0 <pw
new=$(content_id changed.vmdk)
other=$(content_id base.vmdk)
for file in split*.vmdk; do
    cp "$file" "hand/hand${file#split}"
done
ok convert disk.raw gap.vmdk --quiet --split=6M
ok create kin.vmdk --parent gap.vmdk
mv gap-s00001.vmdk away/
cp disk.vmdk version.vmdk
qemu-img convert -f raw -O vmdk -o subformat=streamOptimized disk.raw stream.vmdk
printf '\011' | dd of=version.vmdk bs=1 seek=4 conv=notrunc status=none
cp disk.vmdk wiped.vmdk
dd if=/dev/zero of=wiped.vmdk bs=512 count=1 conv=notrunc status=none
sed 's/twoGbMaxExtentSparse/monolithicFlat/' split.vmdk >flat.vmdk
before=$(find . | sort)

count=0
while IFS='|' read -r code arguments text; do
    read -ra words <<<"$arguments"
    refused "$code" "${text//HERE/$PWD}" "${words[@]}"
    ((++count))
done <<END
1|info none.vmdk|none.vmdk: No such file
1|convert disk.raw nowhere/x.vmdk|nowhere/x.vmdk: There is no such folder: nowhere
1|info folder|folder: It is a folder, not a file
1|info empty.vmdk|empty.vmdk: This is no VMDK disk: the file is empty
1|check empty.vmdk|empty.vmdk: This is no VMDK disk: the file is empty
1|convert disk-as.vmdk x.raw|disk-as.vmdk: This is no VMDK disk: it begins with neither a sparse extent nor a descriptor
1|read wiped.vmdk 0 1|wiped.vmdk: This is no VMDK disk: it begins with neither a sparse extent nor a descriptor
1|read version.vmdk 0 1|version.vmdk: VMDK file has an unsupported version: 9
1|convert stream.vmdk x.raw|stream.vmdk: Slot size directory not found in compressed VMDK; another program may have written it, and qemu-img \
convert -O vmdk makes a disk of it that is read here
1|convert flat.vmdk x.raw|flat.vmdk: VMDK disk has an unsupported create type: 'monolithicFlat'.
1|convert gap.vmdk x.raw|gap.vmdk: A file of the disk is missing: HERE/gap-s00001.vmdk
1|map gap.vmdk|gap.vmdk: A file of the disk is missing: HERE/gap-s00001.vmdk
1|info split-s00001.vmdk|split-s00001.vmdk: No VMDK descriptor found in VMDK file; it may be a part of a disk of several \
files, which is opened by its main file: the one without a number in its name
1|convert hand/hand.vmdk x.raw|hand/hand.vmdk: Files of the disk are missing: split-s00000.vmdk, split-s00001.vmdk; if it \
was renamed by hand, its files too, tessel rename hand/hand.vmdk hand/hand.vmdk puts it right
1|convert orphan.vmdk x.raw|orphan.vmdk: Its parent is missing: HERE/moved.vmdk (tessel rebase orphan.vmdk NEW_PARENT \
tells it where the parent is now)
1|convert grand.vmdk x.raw|grand.vmdk: The parent of its parent HERE/orphan.vmdk is missing: HERE/moved.vmdk (tessel rebase \
HERE/orphan.vmdk NEW_PARENT tells it where the parent is now)
1|read grand.vmdk 0 1|grand.vmdk: The parent of its parent HERE/orphan.vmdk is missing: HERE/moved.vmdk (tessel rebase \
HERE/orphan.vmdk NEW_PARENT tells it where the parent is now)
1|read kin.vmdk 7M 1|kin.vmdk: A file of its parent HERE/gap.vmdk is missing: HERE/gap-s00001.vmdk
1|map orphan.vmdk|orphan.vmdk: Its parent is missing: HERE/moved.vmdk (tessel rebase orphan.vmdk NEW_PARENT tells it where \
the parent is now)
1|map grand.vmdk|grand.vmdk: The parent of its parent HERE/orphan.vmdk is missing: HERE/moved.vmdk (tessel rebase \
HERE/orphan.vmdk NEW_PARENT tells it where the parent is now)
1|read heir.vmdk 0 1|heir.vmdk: VMDK parent disk has changed, but a child disk depended on it. (parent: \
HERE/changed.vmdk; expectedContentID: $old; actualContentID: $new)
1|flatten heir.vmdk|HERE/changed.vmdk: This disk has changed since a child was made from it
1|rebase heir.vmdk base.vmdk|base.vmdk: Its content ID is $other, but heir.vmdk was made from $old (--unsafe takes it \
nevertheless)
1|read away/far.vmdk 0 1|away/far.vmdk: The file is outside the folders that may be used; --allow DIR lets a disk name \
files below another folder (file: HERE/base.vmdk; allowed: HERE/away)
1|read secret.vmdk 0 1|secret.vmdk: VMDK is encrypted but no password provided; --password-file FILE tells it
1|read secret.vmdk 0 1 --password-file wrong|secret.vmdk: Specified VMDK encryption password is not correct.
1|read secret.vmdk 0 1 --password-file none|none: No such file
1|read secret.vmdk 0 1 --password-file nothing.txt|nothing.txt: The password is empty
1|passwd disk.vmdk|disk.vmdk: This disk is not encrypted, so there is no password to be changed (tessel convert --encrypt \
makes an encrypted copy)
1|convert disk.raw disk.vmdk|disk.vmdk: The file exists already (--force replaces it)
1|create disk.vmdk 10M|disk.vmdk: The file exists already (--force replaces it)
1|convert child.vmdk base.vmdk --force|base.vmdk: It is in use here, as the source or a parent, and cannot be replaced
1|flatten disk.vmdk|disk.vmdk: This disk has no parent and stands alone already
1|read disk.vmdk 1G 1|disk.vmdk: 1 bytes from 1073741824 on reach beyond the disk's end at 9502720
3|compare disk.vmdk none.raw|none.raw: No such file
2|create x.vmdk 10MB|create: SIZE: "10MB" is no size; write bytes, or a number with K, M, G, T or P, such as 10M (see \
tessel create --help)
2|create x.vmdk 10M --compressed --level 12|create: --level: Value 12 not in range 0 to 9 (see tessel create --help)
2|convert disk.raw x|convert: x: the name does not tell the kind of the new file; say it (--to) (see tessel convert --help)
2|convert disk.raw x.vmdk --split 2G|convert: There is an argument too many: 2G (see tessel convert --help)
2|convert disk.raw|convert: DST is required (see tessel convert --help)
2|inof disk.vmdk|"inof" is no verb (see tessel --help)
2|disk.vmdk|"disk.vmdk" is no verb (see tessel --help)
2|info disk.vmdk --jobs 3|info: There is no option --jobs (see tessel info --help)
END
# info tells what it knows, and then the same line.
run 1 info grand.vmdk
error_is "tessel: grand.vmdk: The parent of its parent $PWD/orphan.vmdk is missing: $PWD/moved.vmdk (tessel rebase \
$PWD/orphan.vmdk NEW_PARENT tells it where the parent is now)"
((count >= 30)) || fail "the table has only $count mistakes"
[[ $(find . | sort) == "$before" ]] || fail "other files than before are there"

# Sizes that are no whole number of grains are rounded up, and that is told.
run 0 create odd.vmdk 8388609
error_is 'tessel: note: odd.vmdk: The size was rounded up from 8388609 to 8454144 bytes'
run 0 convert disk.raw odd.vmdk --force
error_is "tessel: note: odd.vmdk: The size was rounded up from $image_size to 9502720 bytes; --size $image_size cuts it off \
when converting back"

if posix; then
    # No room, as where files may not grow: the file that is named is the one that was asked for.
    mkdir room
    for target in room/new.raw room/new.vmdk; do
        last="convert to $target without room"
        code=0
        (
            ulimit -f 200
            exec "$TESSEL_PROGRAM" convert disk.raw $target --quiet
        ) >"$out" 2>"$err" || code=$?
        ((code == 1)) || fail "the exit code is $code"
        error_is_one_line
        grep -q "^tessel: $target: Cannot .*: File too large" "$err" || fail "the line should name $target and say why"
    done
    [[ -z $(ls -A room) ]] || fail "something was left"
fi

# A medium that can only be read, where this user may make one.
if posix && unshare --map-root-user --mount -- true 2>/dev/null; then
    cat >read_only.sh <<'READ_ONLY'
mount -t tmpfs none room && cp disk.vmdk room/ && mount -o remount,ro none room || exit 99
"$TESSEL_PROGRAM" "$@"
READ_ONLY
    for arguments in "create room/new.vmdk 10M" "write room/disk.vmdk 0" "compact room/disk.vmdk"; do
        read -ra words <<<"$arguments"
        last="tessel $arguments on a read-only medium"
        code=0
        unshare --map-root-user --mount -- bash read_only.sh "${words[@]}" </dev/null >"$out" 2>"$err" || code=$?
        ((code == 1)) || fail "the exit code is $code"
        error_is "tessel: ${words[1]}: Cannot open file: Read-only file system (file: $PWD/${words[1]}.lock)"
    done
fi
