#!/usr/bin/env bash
# Whatever ends a conversion early, nothing is left under the target's name nor beside it.
. "$(dirname -- "$0")/lib.sh"

make_image disk.raw
mkfifo pipe

# interrupt SIGNAL ARGUMENT...: starts a conversion from a pipe, waits until it is at work, and sends the signal.
interrupt() {
    local signal=$1 code=0
    shift
    last="tessel $* (SIG$signal)"
    # A shell starts what runs in the background with SIGINT ignored.
    env --default-signal "$TESSEL_PROGRAM" "$@" <pipe >"$out" 2>"$err" &
    local child=$!
    exec 3>pipe
    data 3000000 1 >&3
    for ((i = 0; i < 500; i++)); do
        [[ -z $(find . -path './tessel-tmp-*' -type f -size +1000k) ]] || break
        sleep 0.02
    done
    [[ -n $(find . -path './tessel-tmp-*' -type f -size +1000k) ]] || fail "the conversion does not get to work"
    kill -s "$signal" $child
    wait $child 2>/dev/null || code=$?
    exec 3>&-
    ((code == $(code_of_signal "$signal"))) || fail "the exit code is $code"
    [[ ! -s $err ]] || fail "there should be nothing on standard error"
}

for signal in INT TERM HUP; do
    posix || [[ $signal == INT ]] || continue # which Wine makes Ctrl+C of
    interrupt $signal convert - new.raw --to raw --size 64M
    only_files disk.raw pipe
done
interrupt INT convert - new.vmdk --size 64M
only_files disk.raw pipe
interrupt INT convert - new.vmdk --size 64M --split=10M
only_files disk.raw pipe
interrupt INT convert - new.vmdk --size 64M --compressed
only_files disk.raw pipe

# What stood under the name before is still there.
ok convert disk.raw old.vmdk --quiet --split=6M
ok convert disk.raw old.raw
before=$(find . | sort)
interrupt INT convert - old.vmdk --size 64M --split=10M --force
interrupt INT convert - old.raw --to raw --size 64M --force
[[ $(find . | sort) == "$before" ]] || fail "other files than before are there"
same disk.raw old.raw
ok convert old.vmdk back.raw --size $image_size
same disk.raw back.raw
rm back.raw

# A source that cannot be read to its end.
ok convert disk.raw broken.vmdk --quiet
truncate -s -200000 broken.vmdk
before=$(find . | sort)
run 1 convert broken.vmdk new.raw
error_is_one_line
error_holds 'tessel: broken.vmdk: '
run 1 convert broken.vmdk new.vmdk --compressed
error_is_one_line
run 1 convert broken.vmdk old.vmdk --force
error_is_one_line
[[ $(find . | sort) == "$before" ]] || fail "other files than before are there"
ok convert old.vmdk back.raw --size $image_size
same disk.raw back.raw
