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
    refused 1 'fifo: Cannot open file: Not a regular file' $verb fifo
    refused 1 'disk.raw: This is no VMDK disk: it begins with neither a sparse extent nor a descriptor' $verb disk.raw
    refused 1 'disk-as.vmdk: This is no VMDK disk: it begins with neither a sparse extent nor a descriptor' \
        $verb disk-as.vmdk
done
for arguments in "convert none.vmdk x.raw" "convert none.raw x.vmdk" "read none.vmdk 0 1" "write none.vmdk 0" \
    "rebase none.vmdk disk.vmdk"; do
    read -ra words <<<"$arguments"
    refused 1 "${words[1]}: No such file" "${words[@]}"
done
refused 1 'fifo: Cannot open file: Not a regular file' convert fifo x.raw
refused 1 'fifo: Cannot open file: Not a regular file' convert fifo x.vmdk --from raw
refused 1 'text.vmdk: VMDK disk has no extents.' convert text.vmdk x.raw
run 1 info empty.vmdk
error_is_one_line
run 1 info $'latin\xe4.vmdk'
error_is 'tessel: latinä.vmdk: No such file'
run 1 info $'two\nlines\e[31m.vmdk'
error_is 'tessel: two lines�[31m.vmdk: No such file'
run 1 create '' 10M
error_is_one_line

# A file of the disk is missing: info and every verb that needs it names it.
mv split-s00001.vmdk away
refused 1 "split.vmdk: Cannot open file: No such file or directory (file: $PWD/split-s00001.vmdk)" \
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
