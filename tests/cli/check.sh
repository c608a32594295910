#!/usr/bin/env bash
# check finds what is wrong with a disk, and nothing in disks that are whole.
. "$(dirname -- "$0")/lib.sh"

# spoil FILE PYTHON: changes a disk; spoil.py says what the code has at hand.
spoil() {
    python3 "$TESSEL_SOURCE_DIR/tests/support/spoil.py" "$@"
}

# damaged KIND TABLE GRAIN REPAIRABLE DISK [OPTION]...: exit code 3, and one damage among the findings, which is
# this one, by both forms of the answer.
damaged() {
    local wanted="('$1', $2, $3, $4)"
    shift 4
    run 3 check "$@"
    [[ ! -s $err ]] || fail "damage is no failure of the program"
    grep -q "^damage: $PWD/" "$out" || fail "the damage should be told"
    [[ $(tail -n 1 -- "$out") == "$1: "*" found; "* ]] || fail "the last line should sum up"
    run 3 check "$@" --json
    [[ ! -s $err ]] || fail "damage is no failure of the program"
    json_is '[(f["kind"], f["table"], f["grain"], f["repairable"]) for f in d["findings"] if f["severity"] == "damage"]' \
        "[$wanted]"
    json_is 'd["damageCount"], d["uncheckedCount"]' '(1, 0)'
}

data $((3 * 65536)) 1 >data
head -c 200000 /dev/zero | tr '\0' x >text
echo secret >password
ok create plain.vmdk 10M
ok create packed.vmdk 10M --compressed
ok create sealed.vmdk 10M --compressed --password-file password
ok create parts.vmdk 20M --split=10M
ok create later.vmdk 20M --split=10M --on-demand
for disk in plain packed sealed parts later; do
    options=()
    [[ $disk != sealed ]] || options=(--password-file password)
    ok write $disk.vmdk 0 "${options[@]}" <data
    ok check $disk.vmdk "${options[@]}"
    files=1
    plural=
    [[ $disk != parts ]] || { files=3 plural=s; }
    [[ $(tail -n 1 -- "$out") == "$disk.vmdk: no damage found; 3 grains in $files file$plural checked" ]] ||
        fail "the last line should sum up"
    ok check $disk.vmdk --json --quick
    json_is 'd["file"], d["quick"], d["damageCount"], d["uncheckedCount"], d["checkedGrains"], d["checkedFiles"]' \
        "('$disk.vmdk', True, 0, 0, 3, $files)"
done

# An extent that has no file yet is worth a note, and what was given up is too.
ok check later.vmdk
output_is "note: $PWD/later-s00001.vmdk: the extent has no file yet: nothing was written to it
note: $PWD/later-s00002.vmdk: the extent has no file yet: nothing was written to it
later.vmdk: no damage found; 3 grains in 1 file checked"
ok create moved.vmdk 10M --compressed
ok write moved.vmdk 0 <text
ok write moved.vmdk 0 <data
ok check moved.vmdk --json
json_is '[(f["severity"], f["kind"], f["path"], f["extent"], f["table"]) for f in d["findings"]]' \
    "[('note', 'deadSpace', '$PWD/moved.vmdk', 0, None)]"
json_is 'd["damageCount"], d["noteCount"]' '(0, 1)'

mkdir whole
cp *.vmdk whole

# A lost entry is told with its grain and its place, and can be had from the redundant table.
for disk in plain packed; do
    cp whole/$disk.vmdk .
    spoil $disk.vmdk 'p(entry(1), 0)'
    damaged tablesDiffer 0 1 True $disk.vmdk
    json_is 'd["findings"][0]["diskPositionBytes"]' 65536
    damaged tablesDiffer 0 1 True $disk.vmdk --quick
done
cp whole/plain.vmdk .
spoil plain.vmdk 'p(other(2), 0)'
damaged tablesDiffer 0 2 False plain.vmdk
cp whole/plain.vmdk .
spoil plain.vmdk 'p(entry(2), u(entry(0))); p(other(2), u(entry(0)))'
damaged slotShared 0 2 False plain.vmdk
spoil plain.vmdk 'p(entry(2), 1 << 20); p(other(2), 1 << 20)'
damaged entryBehindEnd 0 2 False plain.vmdk
run 3 check plain.vmdk
output_is "damage: $PWD/plain.vmdk: table 0, grain 2: the slot does not lie in the file of \
$(($(size_of plain.vmdk) / 512)) sectors (sector 1048576, 128 sectors long)
note: $PWD/plain.vmdk: 65536 bytes of the file are not used any more
plain.vmdk: 1 damage found; 3 grains in 1 file checked"

# What only the contents tell, --quick does not see.
cp whole/packed.vmdk .
spoil packed.vmdk 'd[u(entry(1)) * 512 + 5000] ^= 1'
damaged recordDamaged 0 1 False packed.vmdk
ok check packed.vmdk --quick
output_is "packed.vmdk: no damage found; metadata of 3 grains in 1 file checked"
cp whole/sealed.vmdk .
spoil sealed.vmdk 'd[u(entry(2)) * 512 + 5000] ^= 1'
damaged recordDamaged 0 2 False sealed.vmdk --password-file password
ok check sealed.vmdk --quick

# The header of a compressed disk is in its footer once more.
cp whole/packed.vmdk .
spoil packed.vmdk 'd[len(d) - 1024 + 70] ^= 1'
damaged trailDiffers None None False packed.vmdk
cp whole/packed.vmdk .
spoil packed.vmdk 'd[0:4] = bytes(4)'
damaged headerInvalid None None False packed.vmdk

# A copy by another name is what is checked, not the file that its descriptor names.
cp whole/packed.vmdk .
cp whole/packed.vmdk copy.vmdk
run 0 check copy.vmdk
error_holds 'tessel: note: copy.vmdk: The disk was renamed or copied by hand: its descriptor still names "packed.vmdk"'
output_holds 'copy.vmdk: no damage found; '
spoil packed.vmdk 'd[0:4] = bytes(4)'
run 0 check copy.vmdk

# Files and parents.
cp whole/plain.vmdk whole/packed.vmdk whole/sealed.vmdk .
ok create child.vmdk --parent plain.vmdk
ok check child.vmdk
ok write plain.vmdk 1M <text
damaged contentIDMismatch None None False child.vmdk
rm parts-s00001.vmdk
damaged extentMissing None None False parts.vmdk

# What cannot be checked is no damage.
refused 1 'none.vmdk: No such file' check none.vmdk
refused 1 'data: This is no VMDK disk: it begins with neither a sparse extent nor a descriptor' check data
refused 1 'sealed.vmdk: VMDK is encrypted but no password provided; --password-file FILE tells it' check sealed.vmdk
echo wrong >other
run 1 check sealed.vmdk --password-file other
error_is_one_line
cp whole/plain.vmdk .
spoil plain.vmdk 'd[8] |= 4'
run 1 check plain.vmdk
error_is 'tessel: plain.vmdk: Not all of the disk could be checked'
output_holds "unchecked: $PWD/plain.vmdk: "
run 1 check plain.vmdk --json
json_is 'd["damageCount"], d["uncheckedCount"], d["findings"][0]["kind"]' "(0, 1, 'notSupported')"
refused 2 'check: DISK is required (see tessel check --help)' check

# Nothing was changed, and no lock was left.
before=$(sha256sum -- *.* data)
run 0 check packed.vmdk
run 1 check plain.vmdk
run 3 check parts.vmdk
[[ $(sha256sum -- *.* data) == "$before" ]] || fail "check should change nothing"
