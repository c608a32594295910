#!/usr/bin/env bash
# A disk in a single file that was copied or renamed by hand is served as what it is now, and so are parents. The
# file that its descriptor still names is neither read nor written, be it there or not.
. "$(dirname -- "$0")/lib.sh"

make_disk_image disk.raw 1
printf 'geheim\n' >key
# warned DISK OLD: the server ends in order, and has told that the name is an old one, and nothing else.
warned() {
    stop_after "warning: $PWD/$1: The disk was renamed or copied by hand: its descriptor still names \"$2\", which is not looked at (tessel rename puts it right)"
    [[ $(wc -l <"$said") -eq 1 ]] || fail "there should be one line: $(cat -- "$said")"
}

# try PARAMETER OPTION...: a disk of a kind.
try() {
    local parameters=()
    [[ -z $1 ]] || parameters=("$1")
    shift
    for old in kept changed gone; do
        rm -f -- *.vmdk
        ok convert disk.raw a.vmdk --quiet "$@"
        cp a.vmdk b.vmdk
        cp disk.raw model.raw
        case $old in
            changed) data 65536 7 | ok write a.vmdk 65536 --password-file key ;;
            gone) rm a.vmdk ;;
        esac
        [[ $old == gone ]] || cp a.vmdk before
        serve b.vmdk "${parameters[@]}"
        holds model.raw
        qemu_io 'write -P 9 0 70000' 'write -P 8 4194304 70000' 'write -z 131072 65536'
        client qemu-io -f raw -c 'write -P 9 0 70000' -c 'write -P 8 4194304 70000' -c 'write -z 131072 65536' model.raw
        holds model.raw
        warned b.vmdk a.vmdk
        serve b.vmdk readonly "${parameters[@]}"
        holds model.raw
        warned b.vmdk a.vmdk
        if [[ $old == gone ]]; then
            [[ ! -e a.vmdk ]] || fail "the old file should not have been made again"
        else
            same before a.vmdk
        fi
        disk_is b.vmdk model.raw --password-file key

        # It is the parent of a child.
        run 0 create child.vmdk --parent b.vmdk "$@"
        cp b.vmdk parent
        serve child.vmdk "${parameters[@]}"
        holds model.raw
        qemu_io 'write -P 5 65000 1000'
        client qemu-io -f raw -c 'write -P 5 65000 1000' model.raw
        holds model.raw
        warned b.vmdk a.vmdk
        same parent b.vmdk
        [[ $old == gone ]] || same before a.vmdk
        disk_is child.vmdk model.raw --password-file key
    done
}
try ''
try '' --compressed
try password=+key --password-file key

# With its own name again there is nothing to tell; a link is no other name.
rm -f -- *.vmdk
ok convert disk.raw a.vmdk --quiet
mv a.vmdk b.vmdk
ok rename b.vmdk b.vmdk
mkdir links
ln -s ../b.vmdk links/link.vmdk
for disk in b.vmdk links/link.vmdk; do
    serve $disk
    holds disk.raw
    stop
done
