#!/usr/bin/env bash
# Passwords come from files; a missing or wrong one is told of in one line; nothing is decrypted by accident.
. "$(dirname -- "$0")/lib.sh"

make_image disk.raw
printf 'correct horse\nsecond line\n' >pw
printf 'correct horse' >pw-no-line-end
printf 'correct horse\r\n' >pw-windows
printf 'wrong\n' >pw-wrong
printf '\nsecond line\n' >pw-empty
printf 'p\xe4ssword\n' >pw-latin

ok convert disk.raw secret.vmdk --quiet --password-file pw
for file in pw pw-no-line-end pw-windows; do
    ok convert secret.vmdk back.raw --size $image_size --force --password-file $file
    same disk.raw back.raw
done
# The bytes are not in the file.
grep -qaF 98765 disk.raw || fail "the image should hold this text"
! grep -qaF 98765 secret.vmdk || fail "the data are in the clear"

# Each verb, without a password and with a wrong one.
missing='secret.vmdk: VMDK is encrypted but no password provided; --password-file FILE tells it'
wrong='secret.vmdk: Specified VMDK encryption password is not correct.'
for arguments in "convert secret.vmdk x.raw" "convert secret.vmdk x.vmdk" "read secret.vmdk 0 1" \
    "write secret.vmdk 0" "space secret.vmdk" "flatten secret.vmdk"; do
    read -ra words <<<"$arguments"
    refused 1 "$missing" "${words[@]}"
    refused 1 "$wrong" "${words[@]}" --password-file pw-wrong
done
refused 1 'pw-empty: The password is empty' read secret.vmdk 0 1 --password-file pw-empty
refused 1 'pw-latin: Invalid UTF-8 text (position: 1)' read secret.vmdk 0 1 --password-file pw-latin
refused 1 'nowhere: No such file' read secret.vmdk 0 1 --password-file nowhere
refused 2 "convert: --password-file excludes --encrypt (see tessel convert --help)" \
    convert disk.raw x.vmdk --encrypt --password-file pw
refused 1 'standard input: It is no terminal to ask for a password on' create x.vmdk 10M --encrypt

# info needs none, and says whether one that is given is right.
ok info secret.vmdk --json
json_is 'd["encrypted"]' True
ok info secret.vmdk --password-file pw
run 1 info secret.vmdk --password-file pw-wrong
error_is "tessel: $wrong"

# From disk to disk: --password-file encrypts the new one, --open-password-file only opens the old one.
ok convert secret.vmdk new.vmdk --password-file pw
ok convert new.vmdk back.raw --size $image_size --force --password-file pw
same disk.raw back.raw
ok convert secret.vmdk new.vmdk --force --open-password-file pw --password-file pw-wrong
ok convert new.vmdk back.raw --size $image_size --force --password-file pw-wrong
same disk.raw back.raw
run 0 convert secret.vmdk open.vmdk --open-password-file pw
error_is 'tessel: warning: open.vmdk: The source is encrypted and this disk is not'
ok convert open.vmdk back.raw --size $image_size --force
same disk.raw back.raw

# Children: the password serves the whole chain.
ok create child.vmdk --parent secret.vmdk --password-file pw
ok convert child.vmdk back.raw --size $image_size --force --password-file pw
same disk.raw back.raw
run 0 create plain.vmdk --parent secret.vmdk --open-password-file pw
error_is 'tessel: warning: plain.vmdk: The parent is encrypted and this disk is not: what it stores can be read by everybody'
ok convert plain.vmdk back.raw --size $image_size --force --password-file pw
same disk.raw back.raw
refused 1 'plain.vmdk: VMDK is encrypted but no password provided; --password-file FILE tells it (file: '"$PWD"'/secret.vmdk)' convert plain.vmdk x.raw
# Who writes to a disk in the clear is told of the parent whose data come along.
printf changed >change
run 0 write plain.vmdk 3M --password-file pw <change
error_is 'tessel: warning: plain.vmdk: A parent is encrypted and this disk is not: what it stores, the rest of each grain included, can be read by everybody'
ok write child.vmdk 3M --password-file pw <change
dd if=change of=disk.raw bs=64K oflag=seek_bytes seek=3M conv=notrunc status=none
for disk in plain child; do
    ok convert $disk.vmdk back.raw --size $image_size --force --password-file pw
    same disk.raw back.raw
done
refused 1 'x.vmdk: A child needs the password of its parents' \
    create x.vmdk --parent secret.vmdk --open-password-file pw --password-file pw-wrong
run 0 flatten plain.vmdk --password-file pw
error_is 'tessel: warning: plain.vmdk: A parent is encrypted and this disk is not: what it takes over can be read by everybody'
ok convert plain.vmdk back.raw --size $image_size --force
same disk.raw back.raw
[[ ! -e x.vmdk && ! -e x.raw && -z $(find . -name 'tessel-tmp-*' -o -name '*.lock') ]] || fail "something was left"

# The password serves rebase, space and flatten as well.
ok space secret.vmdk --json --password-file pw
json_is 'd["sizeBytes"], d["totalInFileBytes"]' "(9502720, $(size_of secret.vmdk))"
payload=$(json 'd["payloadBytes"]')
[[ $payload -gt 0 ]] || fail "the disk should store something"
mkdir moved
mv secret.vmdk moved/
refused 1 "child.vmdk: Its parent is missing: $PWD/secret.vmdk (tessel rebase child.vmdk NEW_PARENT tells it where the parent is now)" \
    convert child.vmdk x.raw --password-file pw
refused 1 'child.vmdk: VMDK is encrypted but no password provided; --password-file FILE tells it' rebase child.vmdk moved/secret.vmdk
refused 1 'child.vmdk: Specified VMDK encryption password is not correct.' \
    rebase child.vmdk moved/secret.vmdk --password-file pw-wrong
ok rebase child.vmdk moved/secret.vmdk --password-file pw
ok convert child.vmdk back.raw --size $image_size --force --password-file pw
same disk.raw back.raw
ok flatten child.vmdk --password-file pw
mv moved/secret.vmdk .
ok info child.vmdk --json
json_is 'd["parent"], d["encrypted"]' '(None, True)'
ok space child.vmdk --json --password-file pw
json_is 'd["payloadBytes"]' $((payload + 65536)) # the grain that was written is one that was a hole
mv secret.vmdk away.vmdk
ok convert child.vmdk back.raw --size $image_size --force --password-file pw
same disk.raw back.raw
! grep -qaF 98765 child.vmdk || fail "the data are in the clear"
mv away.vmdk secret.vmdk

# A password file may be a pipe.
if posix; then
    ok read secret.vmdk 0 1000 --password-file <(echo 'correct horse')
    same <(head -c 1000 disk.raw) "$out"
fi

# A program that knows a password writes no core dump; without one it is left to the user.
has_core_limit() {
    local wanted=$1 disk=$2 limit='' pid
    shift 2
    mkfifo data
    # (The address sanitizer would set the limit to 0 by itself.)
    (ulimit -S -c "$(ulimit -H -c)"
        export ASAN_OPTIONS=${ASAN_OPTIONS-}:disable_coredump=0
        exec "$TESSEL_PROGRAM" write "$disk" 0 "$@" <data) >"$out" 2>"$err" &
    pid=$!
    exec 9>data
    for _ in $(seq 200); do
        # What it opens last is the disk: from then on its password has been read.
        [[ -e $disk.lock ]] && break
        sleep 0.05
    done
    limit=$(awk '/^Max core file size/ { print $5 }' "/proc/$pid/limits")
    printf x >&9
    exec 9>&-
    wait "$pid" || fail "writing should succeed"
    rm data
    [[ $limit == "$wanted" ]] || fail "the limit on core dumps is $limit, not $wanted"
}
if posix && [[ -r /proc/self/limits ]]; then
    has_core_limit 0 secret.vmdk --password-file pw
    ok create unlocked.vmdk 10M
    [[ $(ulimit -H -c) == 0 ]] || has_core_limit "$(ulimit -H -c)" unlocked.vmdk
fi
