#!/usr/bin/env bash
# passwd changes the password of an encrypted disk and nothing else: no grain, no content ID, no parent.
. "$(dirname -- "$0")/lib.sh"

make_image disk.raw
echo 'correct horse' >old
echo 'battery staple' >new
echo 'wrong' >wrong
wrong='secret.vmdk: Specified VMDK encryption password is not correct.'
bytes() {
    ok convert secret.vmdk back.raw --size $image_size --force --quiet --password-file "$1"
    same disk.raw back.raw
}

for options in "" "--compressed" "--split=6M" "--compressed --split=8M" "--split=6M --on-demand"; do
    rm -f secret*.vmdk kept-*
    read -ra words <<<"$options"
    run 0 convert disk.raw secret.vmdk --quiet --password-file old "${words[@]}"
    for file in secret*.vmdk; do
        cp "$file" "kept-$file"
    done
    ok info secret.vmdk --json
    id=$(json 'd["contentID"]')
    refused 1 "$wrong" passwd secret.vmdk --password-file wrong --new-password-file new
    refused 1 'secret.vmdk: VMDK is encrypted but no password provided; --password-file FILE tells it' passwd secret.vmdk --new-password-file new
    for file in secret*.vmdk; do
        same "$file" "kept-$file"
    done
    ok passwd secret.vmdk --password-file old --new-password-file new
    [[ ! -s $out ]] || fail "there should be nothing on standard output"
    refused 1 "$wrong" read secret.vmdk 0 1 --password-file old
    bytes new
    ok info secret.vmdk --json
    json_is 'd["contentID"], d["encrypted"]' "('$id', True)"
    # Extents of their own are the same byte by byte; of the one with the descriptor all that is behind that.
    for file in secret*.vmdk; do
        if [[ $file != secret.vmdk ]]; then
            same "$file" "kept-$file"
        else
            [[ $(cmp -l "$file" "kept-$file" | wc -l) -le 128 ]] || fail "more than a salt and a key have changed"
            [[ $(size_of "$file") == $(size_of "kept-$file") ]] || fail "the length has changed"
        fi
    done
done

# A disk that is written to goes on under the new password, and back to the old one.
printf changed | ok write secret.vmdk 0 --password-file new
ok passwd secret.vmdk --password-file new --new-password-file old
refused 1 "$wrong" read secret.vmdk 0 1 --password-file new
ok read secret.vmdk 0 7 --password-file old
[[ $(cat "$out") == changed ]] || fail "the bytes should be those written"

# What cannot be.
ok convert disk.raw open.vmdk --quiet
refused 1 'open.vmdk: This disk is not encrypted, so there is no password to be changed (tessel convert --encrypt makes an encrypted copy)' \
    passwd open.vmdk --new-password-file new
: >empty
refused 1 'empty: The password is empty' passwd secret.vmdk --password-file old --new-password-file empty
refused 1 'none: No such file' passwd secret.vmdk --password-file old --new-password-file none
refused 1 'none.vmdk: No such file' passwd none.vmdk --new-password-file new
refused 1 'standard input: It is no terminal to ask for a password on' passwd secret.vmdk --password-file old
ok read secret.vmdk 0 1 --password-file old

# A parent keeps its password, which is told; once it has the same one the child opens again.
rm -f ./*.vmdk
ok convert disk.raw base.vmdk --quiet --password-file old
ok create secret.vmdk --parent base.vmdk --password-file old
cp base.vmdk kept
run 0 passwd secret.vmdk --password-file old --new-password-file new
error_is "tessel: note: $PWD/base.vmdk: This parent's password stays as it is, and a disk is opened by the password \
of its parents; change it as well"
same kept base.vmdk
run 1 read secret.vmdk 0 1 --password-file new
error_is_one_line
ok passwd base.vmdk --password-file old --new-password-file new
bytes new

posix || exit 0 # as for terminal.sh

# On a terminal the old one is asked for, and the new one twice.
rm -f ./*.vmdk
ok convert disk.raw secret.vmdk --quiet --password-file old
cat >asks.py <<'END2'
import os, pty, select, subprocess, sys
program, answers, wanted = sys.argv[1], sys.argv[2].split(","), int(sys.argv[3])
ours, theirs = pty.openpty()
child = subprocess.Popen([program, "passwd", "secret.vmdk"], stdin=theirs, stderr=theirs, start_new_session=True)
seen = b""
for answer in answers:
    while not seen.endswith(b": "):
        assert select.select([ours], [], [], 60)[0], seen
        seen += os.read(ours, 4096)
    asked = len(seen)
    os.write(ours, answer.encode() + b"\n")
    while b"\n" not in seen[asked:]: # the next question may come along with it
        assert select.select([ours], [], [], 60)[0], seen
        seen += os.read(ours, 4096)
    assert answer.encode() not in seen, seen
assert child.wait() == wanted, (child.returncode, seen)
END2
last="passwd on a terminal"
python3 asks.py "$TESSEL_PROGRAM" "correct horse,other one,other two" 1 || fail "two different ones should be refused"
bytes old
python3 asks.py "$TESSEL_PROGRAM" "correct horse,battery staple,battery staple" 0 || fail "the change should succeed"
bytes new
[[ -z $(find . -name '*.lock') ]] || fail "a lock was left behind"
