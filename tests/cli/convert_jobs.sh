#!/usr/bin/env bash
# However many jobs work on a conversion, the result is the same, and so is what is said of a failure.
. "$(dirname -- "$0")/lib.sh"

make_image disk.raw
data 20M 9 >big.raw
dd if=disk.raw of=big.raw bs=1M seek=7 conv=notrunc status=none
printf 'an old password\n' >password
printf 'a new password\n' >other

# A disk's own name and random content ID stand in its descriptor: the names are made the same, the ID is blanked.
make_alike() {
    sed -i -e 's/CID=[0-9a-f]\{8\}/CID=00000000/' -- "$1"
}
convert_with() {
    local jobs=$1 target=$2
    mkdir -p "$jobs"
    run 0 convert big.raw "$jobs/$target" --quiet --force --jobs "$jobs" "${@:3}"
    [[ ! -s $err ]] || fail "there should be nothing on standard error"
}

for kind in "" "--compressed" "--compressed --level 2" "--compressed --level 6" "--compressed --level 0"; do
    read -ra options <<<"$kind"
    for jobs in 1 2 7; do
        convert_with $jobs disk.vmdk "${options[@]}"
        make_alike $jobs/disk.vmdk
    done
    same 1/disk.vmdk 2/disk.vmdk
    same 1/disk.vmdk 7/disk.vmdk
done
for jobs in 1 2 7; do
    convert_with $jobs split.vmdk --split=6M
    make_alike $jobs/split.vmdk
done
for file in 1/split*.vmdk; do
    same "$file" "2/${file#1/}"
    same "$file" "7/${file#1/}"
done

# The same of what machines are made of; then a child of that, which differs from it all over.
cat "$TESSEL_PROGRAM" /usr/bin/bash /usr/bin/openssl >programs.raw
truncate -s $(($(size_of programs.raw) / 65536 * 65536)) programs.raw
cp programs.raw changed.raw
for ((i = 0; i < $(size_of programs.raw); i += 3 * 65536)); do
    put changed.raw $i 10 $((i / 65536 % 250))
done
run 0 convert programs.raw programs.vmdk --quiet --compressed
grains=$(($(size_of programs.raw) / 65536))
for jobs in 1 2 7; do
    run 0 convert programs.raw $jobs/programs.vmdk --quiet --force --compressed --jobs $jobs
    make_alike $jobs/programs.vmdk
    run 0 convert changed.raw $jobs/child.vmdk --quiet --parent programs.vmdk --jobs $jobs
    ok convert $jobs/child.vmdk back.raw --force --allow . --size "$(size_of changed.raw)" --jobs $jobs
    same changed.raw back.raw
    ok space $jobs/child.vmdk --allow . --json
    json_is "d['payloadBytes'] // 65536" $(((grains + 2) / 3))
    make_alike $jobs/child.vmdk
done
for file in programs child; do
    same 1/$file.vmdk 2/$file.vmdk
    same 1/$file.vmdk 7/$file.vmdk
done

# Back again, by each number of jobs, and from disk to disk: compressed, encrypted, of another kind.
ok convert big.raw plain.vmdk --quiet
ok convert big.raw packed.vmdk --quiet --compressed
ok convert big.raw locked.vmdk --quiet --compressed --password-file password
for jobs in 1 2 7 64; do
    for source in plain packed locked; do
        ok convert $source.vmdk back.raw --force --jobs $jobs --open-password-file password
        same big.raw back.raw
        run 0 convert $source.vmdk copy.vmdk --compressed --force --jobs $jobs --password-file other \
            --open-password-file password
        ok convert copy.vmdk back.raw --force --jobs $jobs --open-password-file other
        same big.raw back.raw
        run 0 convert $source.vmdk copy.vmdk --compressed --level 3 --force --jobs $jobs \
            --open-password-file password
        ok convert copy.vmdk back.raw --force --jobs $jobs
        same big.raw back.raw
    done
    ok convert packed.vmdk - --jobs $jobs
    same big.raw "$out"
    run 0 convert - piped.vmdk --size 20M --compressed --force --quiet --jobs $jobs <big.raw
    ok convert piped.vmdk back.raw --force
    same big.raw back.raw
done

# Of several failures the first in the copy is told, and nothing is left.
ok convert big.raw broken.vmdk --quiet --compressed
size=$(size_of broken.vmdk)
# Behind the first 7 MiB, which do not compress, and so behind where a file of 3000 KiB is full.
for at in $((size / 2)) $((size / 2 + 1000000)) $((size - 500000)); do
    put broken.vmdk $at 3000 7
done
rm -rf 1 2 7
before=$(find . | sort)
run 1 convert broken.vmdk new.raw --jobs 1
error_is_one_line
error_holds 'tessel: broken.vmdk: '
cp "$err" told
before="$before
./told"
for jobs in 1 2 7; do
    for attempt in 1 2 3; do
        run 1 convert broken.vmdk new.raw --jobs $jobs
        same told "$err"
        run 1 convert broken.vmdk new.vmdk --compressed --level 1 --jobs $jobs
        same told "$err"
        posix || continue
        code=0
        (ulimit -f 3000; exec "$TESSEL_PROGRAM" convert broken.vmdk new.raw --jobs $jobs) 2>"$err" || code=$?
        ((code == 1)) || fail "the exit code is $code, not 1"
        error_is_one_line
        error_holds 'File too large'
    done
done
[[ $(find . | sort) == "$(sort <<<"$before")" ]] || fail "other files than before are there"

# A record that is another grain's is not taken over, where nothing would tell any more.
ok convert big.raw swapped.vmdk --quiet --compressed
python3 "$TESSEL_SOURCE_DIR/tests/support/spoil.py" swapped.vmdk \
    'first, second = u(entry(5)), u(entry(9)); p(entry(5), second); p(entry(9), first)'
for target in new.vmdk new.raw; do
    options=(--quiet)
    [[ $target != *.vmdk ]] || options+=(--compressed)
    for jobs in 1 7; do
        refused 1 "swapped.vmdk: The grain at byte $((5 * 65536)) holds another grain's record; it stays as it is \
(tessel check swapped.vmdk tells more)" convert swapped.vmdk $target "${options[@]}" --jobs $jobs
        [[ ! -e $target ]] || fail "nothing should be left"
    done
done

if posix; then
    # A target that fails ends the program, though the source has nothing to say for a long time.
    mkfifo pipe
    (ulimit -f 1000; exec "$TESSEL_PROGRAM" convert - new.raw --to raw --size 64M --jobs 4) <pipe 2>"$err" &
    child=$!
    exec 3>pipe
    head -c 20000000 big.raw >&3 || true # the pipe breaks when the program ends, as it should
    for ((i = 0; i < 500; i++)); do
        kill -0 $child 2>/dev/null || break
        sleep 0.02
    done
    code=0
    last="convert from a pipe that stays open, with files limited to 1000 KiB"
    kill -0 $child 2>/dev/null && fail "the program still waits for input"
    wait $child || code=$?
    exec 3>&-
    ((code == 1)) || fail "the exit code is $code, not 1"
    error_is_one_line
    error_holds 'File too large'
fi

# How many jobs there may be.
refused 2 "convert: --jobs: Value 0 not in range 1 to 64 (see tessel convert --help)" convert big.raw new.vmdk --jobs 0
refused 2 "convert: --jobs: Value 65 not in range 1 to 64 (see tessel convert --help)" convert big.raw new.vmdk --jobs 65
