#!/usr/bin/env bash
# A disk may name files beside it, and below the folders that --allow names; no others, by whatever name.
. "$(dirname -- "$0")/lib.sh"

mkdir home away home/inner
make_image one.raw 1
ok convert one.raw away/base.vmdk --quiet
ok convert one.raw home/near.vmdk --quiet
ok create home/child.vmdk --parent away/base.vmdk
ok create home/close.vmdk --parent home/near.vmdk
ok create home/inner/above.vmdk --parent home/near.vmdk

outside() {
    echo "The file is outside the folders that may be used; --allow DIR lets a disk name files below another \
folder (file: $1; allowed: $2)"
}

# Parents. Beside the child, and below its folder, is allowed; elsewhere only where the user says so.
ok read home/close.vmdk 0 4
base=$PWD/away/base.vmdk
refused 1 "home/child.vmdk: $(outside "$base" "$PWD/home")" read home/child.vmdk 0 4
refused 1 "home/inner/above.vmdk: $(outside "$PWD/home/near.vmdk" "$PWD/home/inner")" \
    read home/inner/above.vmdk 0 4
ok read home/inner/above.vmdk 0 4 --allow home
ok read home/child.vmdk 0 4 --allow away
ok read home/child.vmdk 0 4 --allow home --allow .
(cd home; ok read child.vmdk 0 4 --allow ../away)
for verb in convert read flatten; do
    case $verb in
    convert) arguments=(home/child.vmdk x.raw) ;;
    read) arguments=(home/child.vmdk 0 4) ;;
    flatten) arguments=(home/child.vmdk) ;;
    esac
    run 1 "$verb" "${arguments[@]}"
    error_is_one_line
    error_holds '--allow DIR'
    ok "$verb" "${arguments[@]}" --allow away
    rm -f x.raw
done
ok create home/child.vmdk --parent away/base.vmdk --force
ok info home/child.vmdk --json
json_is 'd["parent"]["outside"], d["parent"]["exists"]' '(True, False)'
ok info home/child.vmdk --json --allow away
json_is 'd["parent"]["outside"], d["parent"]["exists"]' '(False, True)'
for verb in map compare measure; do
    code=1
    arguments=(home/child.vmdk)
    if [[ $verb == compare ]]; then
        code=3
        arguments=(one.raw home/child.vmdk --quiet)
    fi
    run $code "$verb" "${arguments[@]}"
    error_is_one_line
    error_holds '--allow DIR'
    ok "$verb" "${arguments[@]}" --allow away
done
# A parent may name what the child may, not what lies beside itself.
ok create away/middle.vmdk --parent home/near.vmdk
ok create home/grandchild.vmdk --parent away/middle.vmdk --allow home
ok read home/grandchild.vmdk 0 4 --allow away
mkdir third
mv home/near.vmdk third/
ok rebase away/middle.vmdk third/near.vmdk
run 1 read home/grandchild.vmdk 0 4 --allow away
error_holds "third/near.vmdk"
ok read home/grandchild.vmdk 0 4 --allow away --allow third
refused 1 'nowhere: This is no folder (--allow)' read home/close.vmdk 0 4 --allow nowhere
refused 1 'one.raw: This is no folder (--allow)' read home/close.vmdk 0 4 --allow one.raw

# Extents, by every kind of name. What they name exists and would make a disk.
ok create home/split.vmdk 8M --split
size=$(stat -c %s home/split-s00000.vmdk)
cp home/split-s00000.vmdk away/secret.vmdk
ln -s ../away/secret.vmdk home/link.vmdk
ln -s ../away home/folder
cp home/split.vmdk original.vmdk
names=("$PWD/away/secret.vmdk" ../away/secret.vmdk inner/../../away/secret.vmdk link.vmdk folder/secret.vmdk
    "file://$PWD/away/secret.vmdk" '\\server\share\secret.vmdk' 'http://server/secret.vmdk' /etc/passwd)
for name in "${names[@]}"; do
    NAME=$name python3 - <<'END'
import os
text = open("original.vmdk", "rb").read()
made = text.replace(b"split-s00000.vmdk", os.environ["NAME"].encode()).rstrip(b"\0")
open("home/split.vmdk", "wb").write(made + bytes(len(text) - len(made) if len(text) > len(made) else 0))
END
    for verb in read space; do
        arguments=(home/split.vmdk)
        [[ $verb == space ]] || arguments+=(0 4)
        run 1 "$verb" "${arguments[@]}"
        error_is_one_line
        [[ ! -s $out ]] || fail "nothing should be told of $name"
    done
    error_holds '--allow DIR'
    run 1 info home/split.vmdk --json
    json_is 'd["extents"][0]["outside"], d["extents"][0]["exists"], d["extents"][0]["fileSizeBytes"]' \
        '(True, False, None)'
    error_holds '--allow DIR'
    run 1 write home/split.vmdk 0 <one.raw
    error_is_one_line
done
[[ $(stat -c %s away/secret.vmdk) == "$size" ]] || fail "the file outside should stay as it is"
NAME=../away/secret.vmdk python3 - <<'END'
import os
text = open("original.vmdk", "rb").read()
open("home/split.vmdk", "wb").write(text.replace(b"split-s00000.vmdk", os.environ["NAME"].encode()))
END
ok read home/split.vmdk 0 4 --allow away

# The user's own choice of a file is no disk's: a link as the main file leads to it and what lies beside it.
ln -s away/base.vmdk linked.vmdk
ok space away/base.vmdk
ok space linked.vmdk # a disk in a single file, wherever it is named from
ln -s ../home/close.vmdk away/linked.vmdk
run 1 read away/linked.vmdk 0 4

# What is no regular file is an error at once, never something to wait for.
mkfifo home/pipe.vmdk
mkdir home/dir.vmdk
for name in pipe.vmdk dir.vmdk; do
    posix || [[ $name == dir.vmdk ]] || continue
    NAME=$name python3 - <<'END'
import os
text = open("original.vmdk", "rb").read()
made = text.replace(b"split-s00000.vmdk", os.environ["NAME"].encode())
open("home/split.vmdk", "wb").write(made + bytes(len(text) - len(made)))
END
    run 1 read home/split.vmdk 0 4
    error_is_one_line
    error_holds "home/$name"
    run 1 space home/split.vmdk
    run 1 space "home/$name"
    error_is_one_line
done

# The check looks at nothing outside either, and says that it could not.
ok create home/child.vmdk --parent away/base.vmdk --force
run 1 check home/child.vmdk
grep -qF -- 'outside the folders that may be used' "$out" "$err" || fail "the parent outside should be named"
ok check home/child.vmdk --allow away
