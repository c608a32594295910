#!/usr/bin/env bash
# Blanks, letters outside ASCII, and characters that mean something in URIs are parts of names like any others.
. "$(dirname -- "$0")/lib.sh"

make_image disk.raw
others=('what?' 'dots..')
posix || others=() # which Windows cannot have
for name in 'with blanks' 'Größe 磁盘 😀' 'a%20b' 'hash#1' "it's" '[brackets]' '-dash' 'plus+&=' "${others[@]}"; do
    mkdir "./$name"
    ok convert --quiet --split=6M -- disk.raw "$name/$name.vmdk"
    ok info --json -- "$name/$name.vmdk"
    json_is 'all(e["exists"] for e in d["extents"])' True
    ok convert --size $image_size -- "$name/$name.vmdk" "$name/$name.raw"
    same disk.raw "$name/$name.raw"
    ok create --parent="$name/$name.vmdk" -- "child of $name.vmdk"
    ok convert --force --size $image_size -- "child of $name.vmdk" child.raw
    same disk.raw child.raw
    (
        cd -- "$name"
        ok convert --force --size $image_size -- "./$name.vmdk" ../child.raw
        ok create --parent "../$name/./$name.vmdk" -- "child.vmdk"
        ok info --json child.vmdk
        json_is 'd["parent"]["reference"]' "$name.vmdk"
    )
    same disk.raw child.raw
done

# Names that a descriptor cannot hold are refused before anything is made; so are names that are no text.
mkdir empty
refused_name() {
    run 1 create "empty/$1" 10M
    error_is_one_line
    error_holds "$2"
}
if posix; then
    refused_name 'quote".vmdk' 'cannot be used for a VMDK file'
    refused_name $'line\nbreak.vmdk' 'cannot be used for a VMDK file'
    refused_name 'colon:.vmdk' 'cannot be used for a VMDK file'
    refused_name 'back\slash.vmdk' 'cannot be used for a VMDK file'
    refused_name $'latin\xe4.vmdk' 'This name cannot be used'
else
    for name in 'quote".vmdk' $'line\nbreak.vmdk' 'what?.vmdk'; do
        refused_name "$name" 'This name cannot be used'
    done
    for name in colon:.vmdk dots.. 'blank.vmdk ' nul.vmdk Com1.vmdk; do
        refused_name "$name" 'This name cannot be used: Windows takes it for another one'
    done
fi
[[ -z $(ls -A empty) ]] || fail "nothing should have been made"

# Options may stand before, between and behind the names.
ok convert --compressed disk.raw x.vmdk --quiet
ok convert disk.raw --quiet --split=6M y.vmdk
ok convert disk.raw z.vmdk --quiet --split --force
ok info x.vmdk --json
json_is 'd["kind"]' streamOptimized
ok info --json y.vmdk
json_is 'd["kind"]' twoGbMaxExtentSparse
ok info z.vmdk --json
json_is 'd["kind"], len(d["extents"])' "('twoGbMaxExtentSparse', 1)"
# --split alone does not take the next word.
ok create --split w.vmdk 10M
ok info w.vmdk --json
json_is 'd["kind"]' twoGbMaxExtentSparse
