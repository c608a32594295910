#!/usr/bin/env bash
# rename gives a disk another name or folder, with all its files. Wherever it ends early the disk opens by one of
# its names; what was renamed by hand it puts right.
#
#   rename.sh KILLER    KILLER: the library that ends the program at one of its changes
. "$(dirname -- "$0")/lib.sh"
killer=${1-}

make_image disk.raw
make_image base.raw 2
echo 'correct horse' >pw
check() {
    ok convert "$1" back.raw --size $image_size --force --quiet "${@:2}"
    same disk.raw back.raw
}
names() {
    find . -name '*.vmdk*' -printf '%P\n' | sort | paste -sd' '
}
holds() {
    [[ $(names) == "$*" ]] || fail "there should be: $*; there are: $(names)"
}
clear() {
    rm -rf ./*.vmdk other
    mkdir other
}

# --- Names and folders ---

while IFS='|' read -r options old new; do
    read -ra words <<<"$options"
    secret=()
    [[ $options != *pw* ]] || secret=(--password-file pw)
    for target in new.vmdk other/new.vmdk other/disk.vmdk; do
        clear
        run 0 convert disk.raw disk.vmdk --quiet "${words[@]}"
        eval "holds $old"
        ok info disk.vmdk --json
        id=$(json 'd["contentID"]')
        ok rename disk.vmdk $target # no password is needed
        # shellcheck disable=SC2034
        stem=${target%.vmdk}
        eval "holds $new"
        check $target "${secret[@]}"
        ok info $target --json
        json_is 'd["contentID"], all(e["exists"] for e in d["extents"][:1])' "('$id', True)"
        ok check $target "${secret[@]}"
        printf x | ok write $target 0 "${secret[@]}"
        ok rename $target disk.vmdk
        eval "holds $old"
    done
done <<'TABLE'
|disk.vmdk|$stem.vmdk
--compressed|disk.vmdk|$stem.vmdk
--password-file pw|disk.vmdk|$stem.vmdk
--split=6M|disk-s00000.vmdk disk-s00001.vmdk disk.vmdk|$stem-s00000.vmdk $stem-s00001.vmdk $stem.vmdk
--compressed --split=16M|disk-s00001.vmdk disk.vmdk|$stem-s00001.vmdk $stem.vmdk
--split=6M --password-file pw|disk-s00000.vmdk disk-s00001.vmdk disk.vmdk|$stem-s00000.vmdk $stem-s00001.vmdk $stem.vmdk
TABLE

# Extents that have no file yet; names of others, with numbers of their own; permissions.
clear
ok create disk.vmdk 20M --split=6M --on-demand
printf x | ok write disk.vmdk 13M
ok rename disk.vmdk new.vmdk
holds new-s00000.vmdk new-s00002.vmdk new.vmdk
printf y | ok write new.vmdk 7M
holds new-s00000.vmdk new-s00001.vmdk new-s00002.vmdk new.vmdk
clear
qemu-img convert -f raw -O vmdk -o subformat=twoGbMaxExtentSparse disk.raw disk.vmdk
chmod 640 disk.vmdk
ok rename disk.vmdk new.vmdk
holds new-s001.vmdk new.vmdk
keeps_others_out new.vmdk || fail "the main file should have the permissions that it had"
check new.vmdk
qemu-img convert -f vmdk -O raw new.vmdk qemu.raw
cmp -n $image_size qemu.raw disk.raw || fail "another reader should find the same"

# --- Parents and children ---

for options in "" "--split=6M" "--compressed"; do
    clear
    read -ra words <<<"$options"
    ok convert disk.raw base.vmdk --quiet "${words[@]}"
    ok create child.vmdk --parent base.vmdk
    ok create leaf.vmdk --parent child.vmdk
    # Children are told of, not changed.
    cp leaf.vmdk kept
    run 0 rename child.vmdk other/moved.vmdk
    error_is "tessel: note: $PWD/leaf.vmdk: Its parent has another name now (tessel rebase $PWD/leaf.vmdk other/moved.vmdk)"
    same kept leaf.vmdk
    ok rebase leaf.vmdk other/moved.vmdk
    check leaf.vmdk
    # A relative reference leads to the same parent as before, an absolute one stays.
    ok info other/moved.vmdk --json --allow .
    json_is 'd["parent"]["reference"], d["parent"]["exists"]' "('../base.vmdk', True)"
    check other/moved.vmdk --allow .
    run 0 rename other/moved.vmdk other/again.vmdk
    ok info other/again.vmdk --json --allow .
    json_is 'd["parent"]["reference"]' ../base.vmdk
done

# --- What was renamed by hand ---

clear
ok convert disk.raw disk.vmdk --quiet
cp disk.vmdk copy.vmdk
cp disk.vmdk kept
run 0 read copy.vmdk 0 1
error_is 'tessel: note: copy.vmdk: The disk was renamed or copied by hand: its descriptor still names "disk.vmdk", which is not looked at (tessel rename copy.vmdk copy.vmdk puts it right)'
printf z >byte
for arguments in "info copy.vmdk" "info copy.vmdk --json" "space copy.vmdk" "check copy.vmdk" "convert copy.vmdk x.raw" \
    "map copy.vmdk" "measure copy.vmdk" "compare copy.vmdk disk.raw" "compact copy.vmdk --quiet" \
    "create x.vmdk --parent copy.vmdk" "rebase x.vmdk copy.vmdk" "flatten x.vmdk" "write copy.vmdk 0"; do
    read -ra words <<<"$arguments"
    run 0 "${words[@]}" <byte
    [[ $(grep -c 'was renamed or copied by hand' "$err") -eq 1 ]] || fail "there should be one note"
    ! grep -q warning "$err" || fail "there should be no warning"
done
same kept disk.vmdk # the other file is never touched
rm -f x.raw x.vmdk
run 0 read copy.vmdk 0 1
[[ $(cat "$out") == z ]] || fail "the copy should have been written to"
ok info disk.vmdk --json
ok rename copy.vmdk copy.vmdk
ok read copy.vmdk 0 1
rm disk.vmdk
ok read copy.vmdk 0 1
ok rename copy.vmdk copy.vmdk # nothing to be done
if posix; then
    # A link is no other name.
    ln -s ../copy.vmdk other/link.vmdk
    ok read other/link.vmdk 0 1
    refused 1 'other/link.vmdk: It is a link; name the file that it leads to' rename other/link.vmdk new.vmdk
fi

# A disk of several files.
for options in "--split=6M" "--compressed --split=16M"; do
    clear
    read -ra words <<<"$options"
    run 0 convert disk.raw disk.vmdk --quiet "${words[@]}"
    missing=disk-s00000.vmdk
    [[ $options != *--compressed* ]] || missing=disk.vmdk
    missing+=", disk-s00001.vmdk"
    for file in disk*.vmdk; do mv "$file" "hand${file#disk}"; done
    for arguments in "read hand.vmdk 0 1" "space hand.vmdk" "convert hand.vmdk x.raw" "write hand.vmdk 0"; do
        read -ra words <<<"$arguments"
        refused 1 "hand.vmdk: Files of the disk are missing: $missing; if it was renamed by hand, its files too, tessel rename hand.vmdk hand.vmdk puts it right" \
            "${words[@]}"
    done
    run 1 info hand.vmdk
    error_holds 'tessel rename hand.vmdk hand.vmdk puts it right'
    before=$(names)
    ok rename hand.vmdk hand.vmdk
    [[ $(names) == "$before" ]] || fail "no file should have another name"
    check hand.vmdk
    ok check hand.vmdk
    # The main file alone, and to a third name at once.
    mv hand.vmdk main.vmdk
    ok rename main.vmdk third.vmdk
    [[ $(names) == "${before//hand/third}" ]] || fail "all files should have the new name"
    check third.vmdk
done

# --- What cannot be, and changes nothing ---

clear
ok convert disk.raw disk.vmdk --quiet --split=6M
ok convert disk.raw single.vmdk --quiet
: >taken-s00001.vmdk
: >taken2.vmdk
: >other/disk-s00000.vmdk
before=$(find . -type f -exec sha256sum {} + | sort)
refused 1 "$PWD/taken-s00001.vmdk: The file exists already" rename disk.vmdk taken.vmdk
refused 1 'taken2.vmdk: The file exists already' rename disk.vmdk taken2.vmdk
refused 1 'taken2.vmdk: The file exists already' rename single.vmdk taken2.vmdk
refused 1 'disk.vmdk: The file exists already' rename single.vmdk disk.vmdk
refused 1 "$PWD/other/disk-s00000.vmdk: The file exists already" rename disk.vmdk other/disk.vmdk
refused 1 'other: It is a folder; name the file that the disk shall be' rename disk.vmdk other
refused 1 "nowhere/x.vmdk: There is no such folder: $PWD/nowhere" rename disk.vmdk nowhere/x.vmdk
reason='A disk cannot have this name: its files would be read as others'
posix || reason='This name cannot be used: Invalid path: a:b.vmdk'
refused 1 "a:b.vmdk: $reason" rename disk.vmdk a:b.vmdk
run 1 rename single.vmdk 'a"b.vmdk'
error_is_one_line
refused 1 'none.vmdk: No such file' rename none.vmdk x.vmdk
refused 1 'disk.raw: This is no VMDK disk: it begins with neither a sparse extent nor a descriptor' rename disk.raw x.vmdk
[[ $(find . -type f -exec sha256sum {} + | sort) == "$before" ]] || fail "something has changed"
# A descriptor that was copied alone names files of another disk.
cp disk.vmdk alone.vmdk
refused 1 "alone.vmdk: It names a file that is another disk's: $PWD/disk-s00000.vmdk (disk: $PWD/disk.vmdk)" \
    rename alone.vmdk x.vmdk
for file in disk-s*; do cp "$file" "alone${file#disk}"; done
refused 1 "alone.vmdk: It cannot be told which is a file of this disk: $PWD/disk-s00000.vmdk, which it names, or \
$PWD/alone-s00000.vmdk, which is named after it" rename alone.vmdk x.vmdk
rm alone*
mv disk-s00001.vmdk away
refused 1 "disk.vmdk: A file of the disk is missing: $PWD/disk-s00001.vmdk" rename disk.vmdk x.vmdk
mv away disk-s00001.vmdk
# What is no extent of a disk, or another disk's, is not moved, whatever the descriptor says.
clear
ok create disk.vmdk 10M --split=6M
sed 's/disk-s00001.vmdk/notes.txt/' disk.vmdk >foreign.vmdk
sed -i 's/disk-s00000.vmdk/foreign-s00000.vmdk/' foreign.vmdk
mv disk-s00000.vmdk foreign-s00000.vmdk
rm disk.vmdk
echo notes >notes.txt
refused 1 "foreign.vmdk: It names something that is no extent of a disk: $PWD/notes.txt" rename foreign.vmdk x.vmdk
rm notes.txt
mkdir notes.txt
refused 1 "foreign.vmdk: It names something that is no extent of a disk: $PWD/notes.txt" rename foreign.vmdk x.vmdk
rmdir notes.txt
mv disk-s00001.vmdk notes.txt
sed 's/foreign-s/others-s/' foreign.vmdk >others.vmdk # another disk that has it, with another name than its own
refused 1 "foreign.vmdk: It names a file that is another disk's: $PWD/notes.txt (disk: $PWD/others.vmdk)" \
    rename foreign.vmdk x.vmdk
rm others.vmdk
ok rename foreign.vmdk x.vmdk
holds x-s00000.vmdk x-s00001.vmdk x.vmdk
# Nor is a lock made that lies elsewhere.
clear
mkdir inner
ok create inner/disk.vmdk 10M
for locked in disk new; do
    posix || break
    ln -s ../outside inner/$locked.vmdk.lock
    run 1 rename inner/disk.vmdk inner/new.vmdk
    error_is_one_line
    [[ ! -e outside ]] || fail "a lock outside of the folder was made"
    rm inner/$locked.vmdk.lock
done
ok rename inner/disk.vmdk inner/new.vmdk
rm -r inner
if posix; then
    # A link is no new name, wherever it leads.
    for options in "" "--split=6M"; do
        read -ra words <<<"$options"
        clear
        run 0 convert disk.raw disk.vmdk --quiet "${words[@]}"
        ln -s disk.vmdk link.vmdk
        refused 1 'link.vmdk: The file exists already' rename disk.vmdk link.vmdk
        check disk.vmdk
        rm link.vmdk
        if [[ -n $options ]]; then
            ln -s disk-s00001.vmdk link-s00001.vmdk
            refused 1 "$PWD/link-s00001.vmdk: The file exists already" rename disk.vmdk link.vmdk
            rm link-s00001.vmdk
            mv disk-s00001.vmdk real
            ln -s real disk-s00001.vmdk
            refused 1 "$PWD/disk-s00001.vmdk: It is a link, which is given no other name" rename disk.vmdk x.vmdk
            check disk.vmdk
        fi
    done
    # A folder has two names: extents that have theirs keep it, and a disk that has its name keeps that.
    for options in "" "--split=6M"; do
        read -ra words <<<"$options"
        clear
        ln -s other linked
        run 0 convert disk.raw other/disk.vmdk --quiet "${words[@]}"
        mv other/disk.vmdk other/hand.vmdk
        run 0 rename other/hand.vmdk linked/disk.vmdk
        check other/disk.vmdk
        before=$(names)
        ok rename other/disk.vmdk linked/disk.vmdk
        [[ $(names) == "$before" ]] || fail "no file should have another name"
        check linked/disk.vmdk
        ok rename linked/disk.vmdk other/last.vmdk
        [[ $(names) == "${before//disk/last}" ]] || fail "all files should have the new name"
        check other/last.vmdk
        rm linked
    done
fi
# Files outside are not looked at.
clear
ok create other/disk.vmdk 10M --split=6M
sed "s/disk-s/..\/disk-s/" other/disk.vmdk >other/x.vmdk
run 1 rename other/x.vmdk other/y.vmdk
error_is "tessel: other/x.vmdk: It has a file outside its folder, which --allow DIR lets it name: $PWD/disk-s00000.vmdk"

# --- Ended at any of its changes ---

if posix; then
    export ASAN_OPTIONS=${ASAN_OPTIONS:+$ASAN_OPTIONS:}verify_asan_link_order=0
    opens() {
        local code=0
        "$TESSEL_PROGRAM" convert "$1" back.raw --size $image_size --force --quiet --allow . --allow other \
            >"$out" 2>"$err" || code=$?
        ((code == 0)) || return 1
        same disk.raw back.raw
    }
    # cut LINKS TARGET OPTION...: LINKS is empty where files can have two names. With by_hand, the main file had been
    # renamed alone, so that no extent is named after it.
    by_hand=
    cut() {
        local links=$1 target=$2 changes code before expected
        shift 2
        rm -rf start
        clear
        run 0 convert base.raw base.vmdk --quiet "$@"
        run 0 convert disk.raw ${by_hand:-disk}.vmdk --parent base.vmdk --quiet
        [[ -z $by_hand ]] || mv $by_hand.vmdk disk.vmdk
        mkdir start
        cp ./*.vmdk start/
        for ((changes = 1; changes < 60; changes++)); do
            clear
            cp start/* .
            code=0
            # Within a shell of its own, which tells of the end.
            bash -c '"$@"; exit $?' - env LD_PRELOAD="$killer" TESSEL_KILL_AT=$changes ${links:+TESSEL_NO_LINKS=1} \
                "$TESSEL_PROGRAM" rename disk.vmdk $target >"$out" 2>"$err" || code=$?
            last="rename disk.vmdk $target ($*), ended at change $changes${links:+, without links}${by_hand:+, of $by_hand.vmdk}"
            ((code != 0)) || break
            ((code == 137)) || fail "the exit code is $code, not 137"
            if [[ -z $links ]]; then
                # One of the names is that of the whole disk, at every moment.
                { [[ -e disk.vmdk ]] && opens disk.vmdk; } || { [[ -e $target ]] && opens $target; } ||
                    fail "the disk opens by neither of its names"
            fi
            # The same command again finishes it, unless it was finished but for old names of the extents.
            if [[ -e disk.vmdk ]]; then
                ok rename disk.vmdk $target
                # In place, old names of extents may be left, and nothing is lost with them.
                [[ -n $links || $target != disk.vmdk ]] || rm -f hand*
                expected=$(cd start; ls -- [!b]*.vmdk | sed "s,^[a-z]*,${target%.vmdk}," | sort | paste -sd' ')
                [[ $(find . -path ./start -prune -o -name '*.vmdk' ! -name 'base*' -printf '%P\n' | sort | paste -sd' ') == "$expected" ]] ||
                    fail "there should be $expected"
            fi
            [[ ! -e disk.vmdk || $target == disk.vmdk ]] || fail "the old name is still there"
            opens $target || fail "the disk should open by its new name"
            before=$changes
        done
        ((code == 0 && before >= 3)) || fail "the program was ended at $before changes only"
        opens $target || fail "the disk should open by its new name"
        ok info $target --json --allow .
        json_is 'd["parent"]["exists"]' True
    }
    cut "" other/new.vmdk
    cut "" new.vmdk --split=6M
    cut "" other/disk.vmdk --split=6M
    cut "" other/new.vmdk --compressed --split=8M
    cut yes new.vmdk --split=6M
    cut yes other/new.vmdk --compressed --split=8M
    cut yes other/new.vmdk
    by_hand=hand
    cut "" disk.vmdk --split=6M
    cut yes disk.vmdk --split=6M
    cut yes new.vmdk --split=6M
    cut yes disk.vmdk --compressed --split=8M
    cut yes new.vmdk --compressed --split=8M
    cut yes other/new.vmdk --compressed --split=8M
fi
