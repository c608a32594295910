#!/usr/bin/env bash
# compact rewrites a disk without dead space and zero grains: the same bytes, the same content ID, the same parent.
#
#   compact.sh KILLER    KILLER: the library that ends the program at one of its changes
. "$(dirname -- "$0")/lib.sh"
killer=${1-}

check() {
    ok convert "$1" back.raw --size "$(size_of "$2")" --force --quiet "${@:3}"
    same "$2" back.raw
}
facts() {
    ok info "$1" --json
    json '[(d["kind"], d["sizeBytes"], d["grainSizeBytes"], d["contentID"], d["encrypted"], d["onDemand"],
        d["parent"] and (d["parent"]["reference"], d["parent"]["contentID"])),
        [(e["file"], e["sizeBytes"]) for e in d["extents"]]]'
}
sizes() {
    cat -- "$@" | wc -c
}
echo 'correct horse' >pw

make_image disk.raw 1
cp disk.raw after.raw
# Grains that become zeros, and grains that no longer fit their slots.
dd if=/dev/zero of=after.raw bs=64K seek=1 count=2 conv=notrunc status=none
put after.raw 5000000 300000 8

for options in "" "--compressed" "--split=6M" "--compressed --split=8M" "--split=6M --on-demand" \
    "--compressed --password-file pw" "--split=6M --password-file pw"; do
    rm -f ./*.vmdk
    read -ra words <<<"$options"
    secret=()
    [[ $options != *pw* ]] || secret=(--password-file pw)
    run 0 convert disk.raw disk.vmdk --quiet "${words[@]}"
    ok write disk.vmdk 0 "${secret[@]}" <after.raw
    before=$(facts disk.vmdk)
    old=$(sizes disk*.vmdk)
    files=$(find . -name '*.vmdk' | sort)
    chmod 640 disk.vmdk
    ok compact disk.vmdk --quiet "${secret[@]}"
    [[ ! -s $out ]] || fail "there should be nothing on standard output"
    [[ $(facts disk.vmdk) == "$before" ]] || fail "info differs: $before, then $(facts disk.vmdk)"
    [[ $(find . -name '*.vmdk' | sort) == "$files" ]] || fail "other files than before are there"
    keeps_others_out disk.vmdk || fail "the file should have the permissions that it had"
    new=$(sizes disk*.vmdk)
    ((new + 131072 <= old)) || fail "it has $new bytes, and had $old"
    check disk.vmdk after.raw "${secret[@]}"
    ok check disk.vmdk "${secret[@]}"
    ! grep -q 'note\|damage:' "$out" || fail "the check should find nothing"
    # A second time there is nothing to gain, and nothing changes.
    cp disk.vmdk kept
    inode=$(stat -c %i disk.vmdk)
    run 0 compact disk.vmdk "${secret[@]}"
    error_is 'tessel: note: disk.vmdk: It is compact already, and stays as it is'
    [[ $(stat -c %i disk.vmdk) == "$inode" ]] || fail "the file should be the same"
    same kept disk.vmdk
    # It goes on as a disk that can be written to.
    ok write disk.vmdk 0 "${secret[@]}" <disk.raw
    check disk.vmdk disk.raw "${secret[@]}"
    [[ -z $(find . -name 'tessel-tmp-*' -o -name '*.lock') ]] || fail "something was left"
done

# An extent that is made on demand and holds nothing any more needs no file.
rm -f ./*.vmdk
ok create disk.vmdk 12M --split=6M --on-demand
data 65536 3 | ok write disk.vmdk 7M
head -c 65536 /dev/zero | ok write disk.vmdk 7M
[[ $(find . -name 'disk-s*' | wc -l) -eq 2 ]] || fail "the second extent should have a file"
ok compact disk.vmdk --quiet
[[ $(find . -name 'disk-s*' | wc -l) -eq 1 ]] || fail "the second extent should have no file"
head -c 12M /dev/zero >zeros.raw
check disk.vmdk zeros.raw

# Children: zeros over a parent's data stay, zeros over nothing go; grandchildren still fit.
cp disk.raw child.raw
dd if=/dev/zero of=child.raw bs=64K seek=0 count=3 conv=notrunc status=none
put child.raw 2000000 200000 4
cp child.raw full.raw
truncate -s 9502720 full.raw
for options in "" "--compressed" "--split=6M" "--compressed --password-file pw"; do
    rm -f ./*.vmdk
    read -ra words <<<"$options"
    secret=()
    [[ $options != *pw* ]] || secret=(--password-file pw)
    ok convert disk.raw base.vmdk --quiet "${words[@]}"
    run 0 convert child.raw disk.vmdk --parent base.vmdk --quiet "${secret[@]}"
    data 200000 5 | ok write disk.vmdk 3400000 "${secret[@]}"
    dd if=full.raw bs=100000 skip=34 count=2 status=none | ok write disk.vmdk 3400000 "${secret[@]}"
    ok create leaf.vmdk --parent disk.vmdk "${secret[@]}"
    cp base.vmdk kept
    ok info disk.vmdk --json
    before=$(facts disk.vmdk)
    ok space disk.vmdk --json "${secret[@]}"
    payload=$(json 'd["payloadBytes"]')
    old=$(sizes disk*.vmdk)
    run 0 compact disk.vmdk --quiet "${secret[@]}"
    [[ $(facts disk.vmdk) == "$before" ]] || fail "info differs"
    same kept base.vmdk
    ok space disk.vmdk --json "${secret[@]}"
    [[ $(json 'd["payloadBytes"]') -ge $((65536 * 3)) ]] || fail "the zeros over the parent's data are gone"
    [[ $(json 'd["payloadBytes"]') -lt $payload ]] || fail "the zeros over nothing are still there"
    [[ $(sizes disk*.vmdk) -lt $old ]] || fail "it should have become smaller"
    check disk.vmdk child.raw "${secret[@]}"
    check leaf.vmdk child.raw "${secret[@]}"
done

# Disks of others: an end within a grain and within a sector's boundary of one, grains of zeros stored.
head -c 8000000 disk.raw | head -c $((8000000 / 512 * 512)) >odd.raw
for kind in monolithicSparse twoGbMaxExtentSparse; do
    rm -f ./*.vmdk
    qemu-img create -q -f vmdk -o subformat=$kind odd.vmdk "$(size_of odd.raw)"
    [[ $kind == monolithicSparse ]] || truncate -s +512 odd.vmdk # room in the descriptor
    data 2M 9 >noise
    ok write odd.vmdk 4M <noise
    ok write odd.vmdk 0 <odd.raw
    before=$(facts odd.vmdk)
    extent=odd.vmdk
    [[ $kind == monolithicSparse ]] || extent=odd-s001.vmdk
    capacity=$(od -An -td8 -j12 -N8 $extent)
    run 0 compact odd.vmdk --quiet
    [[ $(facts odd.vmdk) == "$before" ]] || fail "info differs: $before; $(facts odd.vmdk)"
    [[ $(od -An -td8 -j12 -N8 $extent) == "$capacity" ]] || fail "the capacity differs"
    check odd.vmdk odd.raw
    qemu-img convert -f vmdk -O raw odd.vmdk back.raw
    same odd.raw back.raw
done

# A disk that was copied by hand is compacted itself; the other is not touched.
rm -f ./*.vmdk
ok convert disk.raw disk.vmdk --quiet
ok write disk.vmdk 0 <after.raw
cp disk.vmdk copy.vmdk
cp disk.vmdk kept
run 0 compact copy.vmdk --quiet
error_holds 'copy.vmdk: The disk was renamed or copied by hand'
same kept disk.vmdk
check copy.vmdk after.raw
ok space copy.vmdk

if posix; then
    # Without room the old disk is as it was.
    for options in "" "--split=6M" "--compressed"; do
        rm -f ./*.vmdk
        read -ra words <<<"$options"
        run 0 convert disk.raw disk.vmdk --quiet "${words[@]}"
        ok write disk.vmdk 0 <after.raw
        for file in disk*.vmdk; do cp "$file" "kept-$file"; done
        files=$(find . | sort)
        for limit in 1 100 300; do
            code=0
            (ulimit -f $limit; exec "$TESSEL_PROGRAM" compact disk.vmdk --quiet) >"$out" 2>"$err" || code=$?
            last="compact with files limited to $limit KiB"
            ((code == 1)) || fail "the exit code is $code, not 1"
            error_is_one_line
            error_holds 'tessel: disk.vmdk: '
            ! grep -q tessel-tmp "$err" || fail "the folder for the new files should not be named"
            [[ $(find . | sort) == "$files" ]] || fail "other files than before are there"
            for file in disk*.vmdk; do same "$file" "kept-$file"; done
        done
    done
fi
# Interrupted by the user it leaves nothing.
data 40M 6 >big.raw
ok convert big.raw big.vmdk --quiet
head -c 2M /dev/zero | ok write big.vmdk 0
cp big.vmdk kept
for ((attempt = 0; attempt < 20; attempt++)); do
    last="compact, interrupted as soon as it makes files"
    code=0
    python3 - "$TESSEL_PROGRAM" compact big.vmdk --quiet <<'END2' 2>"$err" || code=$?
import glob, signal, subprocess, sys
child = subprocess.Popen(sys.argv[1:])
while child.poll() is None and not glob.glob("tessel-tmp-*/new/big.vmdk"):
    pass
child.send_signal(signal.SIGINT)
code = child.wait()
sys.exit(code if code >= 0 else 128 - code)
END2
    ((code == 0)) || break # else it was done before the signal came
    cp kept big.vmdk
done
((code == $(code_of_signal INT))) || fail "the program should end as by SIGINT, not with $code"
same kept big.vmdk
[[ -z $(find . -name 'tessel-tmp-*' -o -name '*.lock') ]] || fail "something was left"

if posix; then
    # Killed while the files are put in their place: any mixture of old and new ones is the disk.
    export ASAN_OPTIONS=${ASAN_OPTIONS:+$ASAN_OPTIONS:}verify_asan_link_order=0
    for options in "--split=4M" "--compressed --split=8M"; do
        rm -f ./*.vmdk
        read -ra words <<<"$options"
        run 0 convert disk.raw disk.vmdk --quiet "${words[@]}"
        ok write disk.vmdk 0 <after.raw
        rm -rf start
        mkdir start
        cp disk*.vmdk start/
        mixtures=0
        for ((changes = 1; changes < 60; changes++)); do
            rm -f disk*.vmdk
            cp start/* .
            code=0
            bash -c '"$@"; exit $?' - env LD_PRELOAD="$killer" TESSEL_KILL_AT=$changes TESSEL_ONLY_NAMES=1 \
                "$TESSEL_PROGRAM" compact disk.vmdk --quiet >"$out" 2>"$err" || code=$?
            last="compact disk.vmdk ($options), ended at change $changes"
            ((code != 0)) || break
            ((code == 137)) || fail "the exit code is $code, not 137"
            rm -rf tessel-tmp-* ./*.lock
            check disk.vmdk after.raw
            old=0
            for file in disk*.vmdk; do
                if cmp -s "$file" "start/$file"; then ((old += 1)); fi
            done
            ((old == 0 || old == $(ls start | wc -l))) || ((mixtures += 1))
        done
        ((code == 0 && mixtures > 0)) || fail "there should have been mixtures of old and new files"
        check disk.vmdk after.raw
    done
    rm -rf start
fi

# What can be repaired, the old files are needed for: a lost entry of a table, a record of another grain.
spoilt='tessel check spoilt.vmdk tells'
while IFS='|' read -r options code text; do
    rm -f spoilt.vmdk
    read -ra words <<<"$options"
    secret=()
    [[ $options != *pw* ]] || secret=(--password-file pw)
    run 0 convert disk.raw spoilt.vmdk --quiet "${words[@]}"
    ok write spoilt.vmdk 0 "${secret[@]}" <after.raw
    python3 "$TESSEL_SOURCE_DIR/tests/support/spoil.py" spoilt.vmdk "$code"
    cp spoilt.vmdk kept
    refused 1 "spoilt.vmdk: $text" compact spoilt.vmdk --quiet "${secret[@]}"
    same kept spoilt.vmdk
    [[ -z $(find . -name 'tessel-tmp-*' -o -name '*.lock') ]] || fail "something was left"
done <<TABLE
|p(entry(0), 0)|It is damaged, and stays as it is ($spoilt how)
--compressed|p(entry(0), 0)|It is damaged, and stays as it is ($spoilt how)
--compressed --password-file pw|p(entry(0), 0)|It is damaged, and stays as it is ($spoilt how)
--compressed|p(u(entry(0)) * 512, 128 * 7)|The grain at byte 0 holds another grain's record; it stays as it is (tessel check spoilt.vmdk tells more)
--compressed --password-file pw|p(u(entry(0)) * 512, 128 * 7)|The grain at byte 0 holds another grain's record; it stays as it is (tessel check spoilt.vmdk tells more)
TABLE
rm -f spoilt.vmdk kept

# A main file that was copied alone names files of another disk, which may be in use.
ok convert disk.raw first.vmdk --quiet --split=6M
ok write first.vmdk 0 <after.raw
cp first.vmdk alone.vmdk
before=$(sha256sum first*.vmdk alone.vmdk)
refused 1 "alone.vmdk: It names a file that is another disk's: $PWD/first-s00000.vmdk (disk: $PWD/first.vmdk)" \
    compact alone.vmdk --quiet
[[ $(sha256sum first*.vmdk alone.vmdk) == "$before" ]] || fail "something has changed"
ok compact first.vmdk --quiet # whose names these are
check first.vmdk after.raw
rm -f first* alone.vmdk

if posix; then
    ln -s disk.vmdk link.vmdk
    refused 1 'link.vmdk: It is a link; name the file that it leads to' compact link.vmdk
fi
refused 1 'none.vmdk: No such file' compact none.vmdk

# Others are kept out while it works, and it leaves others alone that work.
mkfifo data
"$TESSEL_PROGRAM" write disk.vmdk 0 <data &
writer=$!
exec 9>data
for _ in $(seq 200); do [[ -e disk.vmdk.lock ]] && break; sleep 0.05; done
sleep 0.2
run 1 compact disk.vmdk
error_holds 'It is locked by another user or process.'
exec 9>&-
wait $writer
check disk.vmdk after.raw
