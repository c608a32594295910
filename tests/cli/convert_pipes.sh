#!/usr/bin/env bash
# "-" is raw data on standard input or output.
. "$(dirname -- "$0")/lib.sh"

make_image disk.raw

# Out, into a pipe and into a file.
ok convert disk.raw disk.vmdk --quiet
"$TESSEL_PROGRAM" convert disk.vmdk - --size $image_size | cat >piped.raw
same disk.raw piped.raw
"$TESSEL_PROGRAM" convert disk.vmdk - --size $image_size >redirected.raw
same disk.raw redirected.raw

# In, from a file, whose size is known, and from a pipe, whose size must be told.
ok convert - in1.vmdk --quiet <disk.raw
ok convert in1.vmdk back.raw --size $image_size
same disk.raw back.raw
# A file that was read in part is taken from there on.
(dd bs=1000 count=1 of=/dev/null status=none; ok convert - in2.vmdk --quiet) <disk.raw
ok convert in2.vmdk back.raw --force --size $((image_size - 1000))
same <(tail -c +1001 disk.raw) back.raw
ok convert - in3.vmdk --quiet --size $image_size --compressed < <(cat disk.raw)
ok convert in3.vmdk back.raw --force --size $image_size
same disk.raw back.raw
ok convert - copy.raw --to raw < <(cat disk.raw)
same disk.raw copy.raw
ok convert - - < <(cat disk.raw)
same disk.raw "$out"

# A pipe that holds more than was told is an error; one that ends early is told of.
run 1 convert - more.vmdk --quiet --size 9M < <(cat disk.raw)
error_is 'tessel: standard input: It holds more bytes than were announced, or than the new disk has room for'
run 0 convert - less.vmdk --quiet --size 16M < <(cat disk.raw)
error_is "tessel: warning: standard input: It ended after $image_size bytes; the rest of the 16777216 are zeros"
ok convert less.vmdk less.raw
truncate -s 16M disk.raw
same disk.raw less.raw

# A reader that wants no more ends the program by the pipe's signal, silently; a full medium is an error.
set +o pipefail
codes=$("$TESSEL_PROGRAM" convert less.vmdk - 2>"$err" | head -c 10 >"$out"; echo "${PIPESTATUS[0]}")
set -o pipefail
[[ $codes -eq $(code_of_signal PIPE) && ! -s $err ]] || fail "the exit code is $codes, not that of SIGPIPE"
if [[ -c /dev/full ]]; then
    last="convert to a full device"
    code=0
    "$TESSEL_PROGRAM" convert less.vmdk - >/dev/full 2>"$err" || code=$?
    ((code == 1)) || fail "the exit code is $code, not 1"
    error_is 'tessel: standard output: Cannot write: No space left on device'
    code=0
    "$TESSEL_PROGRAM" info less.vmdk >/dev/full 2>"$err" || code=$?
    ((code == 1)) || fail "the exit code is $code, not 1"
fi
if posix; then
    # Standard streams that are closed fail; no file takes their place.
    closed() {
        last="a closed stream"
        local code=0
        "$@" || code=$?
        ((code == 1)) || fail "the exit code is $code, not 1"
    }
    cp less.vmdk before.vmdk
    closed "$TESSEL_PROGRAM" convert less.vmdk - >&- 2>"$err"
    error_is 'tessel: standard output: Cannot write: Bad file descriptor'
    closed "$TESSEL_PROGRAM" write less.vmdk 0 <&- 2>"$err"
    error_is 'tessel: standard input: Cannot read: Bad file descriptor'
    closed "$TESSEL_PROGRAM" write less.vmdk 100M 2>&- </dev/null
    same before.vmdk less.vmdk
fi

[[ -z $(find . -name 'tessel-tmp-*' -o -name '*.lock' -o -name 'more*') ]] || fail "something was left behind"

# --size cuts a source alike, wherever it comes from; in the room that a disk has behind it are zeros.
data 10M 4 >long.raw
for cut in 1000 8388608 8388700; do
    head -c $cut long.raw >cut.raw
    truncate -s 9M cut.raw
    for options in "" --compressed; do
        read -ra words <<<"$options"
        ok convert long.raw cut1.vmdk --quiet --force --size $cut "${words[@]}"
        ok convert - cut2.vmdk --quiet --force --size $cut "${words[@]}" <long.raw
        head -c $cut long.raw | ok convert - cut3.vmdk --quiet --force --size $cut "${words[@]}"
        for file in cut1 cut2 cut3; do
            ok convert $file.vmdk back.raw --force --size 9M
            same cut.raw back.raw
        done
    done
done

# Who reads standard output must wait for the medium himself.
refused 2 "convert: --sync: standard output is not this program's to wait for (see tessel convert --help)" \
    convert disk.vmdk - --sync
