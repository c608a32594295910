#!/usr/bin/env bash
# Interrupted at one of its changes to files, no verb leaves anything half-made: either it ends by SIGINT, and what was
# there before is there as it was, or it is done, and answers. Tried are the first changes, the last, and some between.
#
#   interrupted.sh KILLER PART    KILLER: the library that interrupts the program at one of its changes; PART: which
#                                 verbs, those that make files, replace them, or change disks
. "$(dirname -- "$0")/lib.sh"
killer=$1
part=$2
export ASAN_OPTIONS=${ASAN_OPTIONS:+$ASAN_OPTIONS:}verify_asan_link_order=0

# What there is before: images, and disks of which each verb finds something to do.
mkdir start now
cd start
mkdir other
size=$((8 * 1048576))
truncate -s $size disk.raw
put disk.raw 0 400000 1
put disk.raw 5000000 300000 2
cp disk.raw other.raw
put other.raw 5000000 200000 3
put other.raw 7000000 100000 4
data 300000 5 >bytes
printf 'geheim\n' >pw
printf 'anders\n' >pw2
{ head -c 4000000 disk.raw; cat bytes; tail -c +4300001 disk.raw; } >written.raw
for kind in plain: packed:--compressed split:--split=6M; do
    options=${kind#*:}
    kind=${kind%%:*}
    ok convert disk.raw "$kind.vmdk" --quiet ${options:+$options}
    ok convert other.raw "$kind-child.vmdk" --quiet --parent "$kind.vmdk"
    ok convert disk.raw "$kind-secret.vmdk" --quiet --password-file pw ${options:+$options}
    # Something to be compacted: a grain of zeros, and in a compressed disk places that were given up.
    ok convert other.raw "$kind-loose.vmdk" --quiet ${options:+$options}
    head -c 131072 /dev/zero | ok write "$kind-loose.vmdk" 7012352
done
cp plain.vmdk packed.vmdk split.vmdk split-s*.vmdk other/
cp disk.raw old.raw
cp other.raw loose.raw
dd if=/dev/zero of=loose.raw bs=131072 oflag=seek_bytes seek=7012352 count=1 conv=notrunc status=none
cd ../now

sums() {
    find . -type f -exec sha256sum {} + | sort
}
# holds IMAGE DISK [OPTION...]: the disk is whole and reads as the image.
holds() {
    ok check "$2" --quick "${@:3}"
    run 0 compare "$1" "$2" --quiet "${@:3}"
}

# each BEGUN DONE ARGUMENT...: runs a verb uninterrupted, and then interrupts it at its changes. BEGUN is "unchanged", or
# a command that tells that what was begun did no harm; DONE is a command that tells that all is done.
each() {
    local begun=$1 is_done=$2 count code interrupted=0 points point before after
    shift 2
    local input=/dev/null answers=0 answer=$base/answer
    [[ " $* " != *" --json "* ]] || answers=1
    [[ $1 != write && $* != "convert - "* ]] || input=bytes
    reset
    before=$(sums)
    last="tessel $*"
    LD_PRELOAD=$killer TESSEL_COUNT_NEW=1 TESSEL_COUNT_TO=$base/count "$TESSEL_PROGRAM" "$@" <$input >"$out" 2>"$err" ||
        fail "it fails when nobody interrupts it"
    count=$(cat -- "$base/count")
    after=$(find . | sort)
    ((count >= 2)) || fail "only $count changes were counted"
    points=$( (seq 1 4; seq 5 $((count / 4 + 1)) "$count"; seq $((count - 3)) "$count") |
        awk -v most="$count" '$1 >= 1 && $1 <= most' | sort -nu)
    for point in $points; do
        reset
        code=0
        # Within a shell of its own, which tells of the end.
        bash -c '"$@"; exit $?' - env --default-signal=INT LD_PRELOAD="$killer" TESSEL_COUNT_NEW=1 TESSEL_INTERRUPT=1 \
            TESSEL_KILL_AT="$point" "$TESSEL_PROGRAM" "$@" <$input >"$out" 2>"$err" || code=$?
        last="tessel $*, interrupted at change $point of $count"
        [[ -z $(find . -name 'tessel-tmp-*' -o -name '*.lock') ]] || fail "something was left behind: $(find .)"
        case $code in
        130)
            interrupted=$((interrupted + 1))
            [[ ! -s $out ]] || fail "there should be nothing on standard output"
            ! grep -qv '^tessel: \(note\|warning\): ' "$err" || fail "an interruption needs no message"
            if [[ $begun == unchanged ]]; then
                [[ $(sums) == "$before" ]] || fail "something has changed: $(diff <(sums) - <<<"$before")"
            else
                eval "$begun"
            fi
            ;;
        0)
            cp -- "$out" "$answer" # before others write there
            [[ $(find . | sort) == "$after" ]] || fail "other files are there than after the whole work"
            eval "$is_done"
            [[ $answers == 0 || $(head -c 1 -- "$answer") == "{" ]] || fail "it should answer that it is done"
            ;;
        *) fail "the exit code is $code" ;;
        esac
        # Whatever is no result is as it was.
        for file in *.raw pw pw2 bytes; do
            [[ $file == new.raw || $file == old.raw || ! -e ../start/$file ]] || same "../start/$file" "$file"
        done
    done
    ((interrupted > 0)) || fail "it could not be interrupted at any change"
    echo "interrupted at $interrupted of $(wc -w <<<"$points") points among $count changes: tessel $*"
}
reset() {
    find . -mindepth 1 -delete
    cp -R ../start/. .
}

# The first of the new bytes, and then the old ones.
mixture() {
    ok check "$1" --quick
    ok convert "$1" read.raw --size "$size" --quiet
    python3 - written.raw disk.raw read.raw <<'END' || fail "it should be a mixture of old and new bytes"
import sys
new, old, found = (open(name, "rb").read() for name in sys.argv[1:])
assert all(found[i:i + 512] in (new[i:i + 512], old[i:i + 512]) for i in range(0, len(found), 512))
assert len(found) == len(old)
END
    rm read.raw
    # The same command again finishes it.
    ok write "$1" 4000000 <bytes
    holds written.raw "$1"
}

case $part in
makes) # and leaves no file
    each unchanged 'same new.raw disk.raw' convert plain.vmdk new.raw
    each unchanged 'same new.raw disk.raw' convert packed.vmdk new.raw
    each unchanged 'holds disk.raw new.vmdk' convert disk.raw new.vmdk
    each unchanged 'holds disk.raw new.vmdk' convert disk.raw new.vmdk --sync --jobs 1
    each unchanged 'holds disk.raw new.vmdk' convert disk.raw new.vmdk --compressed
    each unchanged 'holds disk.raw new.vmdk' convert packed.vmdk new.vmdk --compressed --json
    each unchanged 'holds disk.raw new.vmdk' convert disk.raw new.vmdk --split=6M
    each unchanged 'holds disk.raw new.vmdk' convert disk.raw new.vmdk --split=6M --on-demand
    each unchanged 'holds other.raw new.vmdk' convert other.raw new.vmdk --parent plain.vmdk
    each unchanged 'holds disk.raw new.vmdk --password-file pw' convert disk.raw new.vmdk --password-file pw
    each unchanged 'same new.raw bytes' convert - new.raw --to raw
    each unchanged 'same <(head -c 300000 new.raw) bytes' convert - new.raw --to raw --size 8M --sync
    each unchanged 'ok check new.vmdk' create new.vmdk 10M
    each unchanged 'ok check new.vmdk' create new.vmdk 20M --split=6M
    each unchanged 'ok check new.vmdk' create new.vmdk 20M --compressed --sync
    each unchanged 'holds disk.raw new.vmdk' create new.vmdk --parent packed.vmdk
    each unchanged 'grep -q "^</svg>" new.svg' map plain-child.vmdk --svg new.svg
    ;;
replaces) # and leaves the old file
    each unchanged 'same loose.raw old.raw' convert plain-loose.vmdk old.raw --force --json
    each unchanged 'holds other.raw plain.vmdk' convert other.raw plain.vmdk --force
    each unchanged 'holds other.raw packed.vmdk' convert other.raw packed.vmdk --compressed --force
    each unchanged 'holds other.raw split.vmdk' convert other.raw split.vmdk --split=6M --force
    each unchanged 'holds other.raw split.vmdk' convert other.raw split.vmdk --force
    each unchanged 'ok check split.vmdk' create split.vmdk 8M --force
    ;;
changes)
    for kind in plain packed split; do
        each unchanged "holds loose.raw $kind-loose.vmdk" compact $kind-loose.vmdk --json
        each unchanged "holds other.raw $kind-child.vmdk" rebase $kind-child.vmdk other/$kind.vmdk --json
        each unchanged "holds disk.raw $kind-secret.vmdk --password-file pw2" \
            passwd $kind-secret.vmdk --password-file pw --new-password-file pw2
        each unchanged 'holds disk.raw new.vmdk' rename $kind.vmdk new.vmdk --json
        each unchanged 'holds other.raw other/new.vmdk --allow .' rename $kind-child.vmdk other/new.vmdk
    done
    # Stopped between two steps, nothing is lost.
    for kind in plain packed split; do
        each "mixture $kind.vmdk" "holds written.raw $kind.vmdk" write $kind.vmdk 4000000
        each "holds other.raw $kind-child.vmdk; ok flatten $kind-child.vmdk; holds other.raw $kind-child.vmdk" \
            "holds other.raw $kind-child.vmdk" flatten $kind-child.vmdk
    done
    ;;
*) fail "there is no part $part" ;;
esac
