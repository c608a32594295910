#!/usr/bin/env bash
# The examples do what they say, seen by the program.
#
#   examples.sh FOLDER    where the built examples are; TESSEL_PROGRAM names the program
. "$(dirname -- "$0")/../cli/lib.sh"
folder=$1

example_program() {
    local program=("$folder/tessel-example-$1")
    posix || program=("$TESSEL_SOURCE_DIR/scripts/wine" "${program[0]}.exe")
    "${program[@]}" "${@:2}"
}

# example CODE NAME ARGUMENT...: it ends with this exit code, and is silent on standard error when that is 0.
example() {
    local wanted=$1 name=$2 code=0
    shift 2
    last="$name $*"
    example_program "$name" "$@" >"$out" 2>"$err" || code=$?
    if ! posix; then
        with_slashes "$err"
        sed -i 's/\r$//' "$out" "$err" # they write by C's text streams
    fi
    ((code == wanted)) || fail "the exit code is $code, not $wanted"
    if ((code == 0)) && [[ -s $err ]]; then
        fail "there should be nothing on standard error"
    fi
}
checked="create_disk read_sector child_disk encrypted_disk prepared_copy own_file_system stream_in"

# Each is short, and none is missing here.
for source in "$TESSEL_SOURCE_DIR"/examples/*.cpp; do
    last="looking at $source"
    name=$(basename -- "$source" .cpp)
    [[ " $checked " == *" $name "* ]] || fail "$name is not tried here"
    (($(wc -l <"$source") < 60)) || fail "$name has 60 lines or more"
    example 2 "$name"
done

example 0 create_disk new.vmdk
ok info new.vmdk --json
json_is 'd["sizeBytes"]' 67108864
json_is 'd["kind"]' streamOptimized
ok read new.vmdk 0 13
output_is 'Hello, disk!'
ok check new.vmdk
example 5 create_disk new.vmdk
error_is 'There is a file already.'
example 3 create_disk none/new.vmdk
error_is 'There is no such folder'
if posix; then
    example 1 create_disk $'\xff.vmdk'
    error_is 'Invalid UTF-8 text (position: 0)'
fi

example 0 read_sector new.vmdk
[[ $(head -n 1 "$out") == "67108864 bytes" ]] || fail "the size is wrong"
[[ $(tail -n 1 "$out" | cut -c 1-26) == 48656c6c6f2c206469736b210a ]] || fail "the sector is wrong"
example 1 read_sector none.vmdk
error_holds 'No such file or directory'

make_image disk.raw
ok convert disk.raw base.vmdk --quiet
example 0 child_disk base.vmdk child.vmdk
[[ $(head -n 1 "$out") == "0 65536 0" && $(sed -n 2p "$out") == "65536 "*" 1" ]] || fail "the runs are wrong"
ok convert child.vmdk child.raw --quiet --size $image_size
cp disk.raw wanted.raw
head -c 512 /dev/zero | tr '\0' c | dd of=wanted.raw conv=notrunc status=none
same wanted.raw child.raw
ok info child.vmdk --json
json_is 'd["parent"]["reference"]' base.vmdk

printf 'a secret\n' >password
example 0 encrypted_disk secret.vmdk <password
output_is 'the same'
ok read secret.vmdk 65535 2 --password-file password
[[ $(od -An -c <"$out") == *"s  \0" ]] || fail "the bytes are wrong"
run 1 read secret.vmdk 0 1 </dev/null
example 1 encrypted_disk empty.vmdk </dev/null
error_holds 'An empty password'
[[ ! -e empty.vmdk ]] || fail "a disk was made"

# Grains that pass as they are stored keep the level at which they were compressed.
ok convert disk.raw small.vmdk --quiet --compressed --level 9
example 0 prepared_copy small.vmdk copy.vmdk
ok convert copy.vmdk copy.raw --quiet --size $image_size
same disk.raw copy.raw
ok space small.vmdk --json
stored=$(json 'd["payloadInFileBytes"]')
ok space copy.vmdk --json
json_is 'd["payloadInFileBytes"]' "$stored"
ok check copy.vmdk
example 0 prepared_copy child.vmdk alone.vmdk
rm base.vmdk
ok convert alone.vmdk alone.raw --quiet --size $image_size
same wanted.raw alone.raw

ok convert disk.raw split.vmdk --quiet --split=6M
before=$(find . | sort)
last="own_file_system split.vmdk"
example_program own_file_system split.vmdk >"$out" 2>"$err" || fail "it failed"
posix || sed -i 's/\r$//' "$out" "$err"
sort -u -o "$out" -- "$out"
output_is "$(find . -name 'split*' -printf '%P\n' | sort)"
error_holds 'Nothing is changed here.'
[[ $(wc -l <"$err") -eq 1 ]] || fail "standard error should be one warning"
[[ $(find . | sort) == "$before" ]] || fail "other files than before are there"

posix || exit 0 # the last one reads bytes by a stream that Windows takes for text
example 0 stream_in streamed.vmdk 10485760 <disk.raw
ok convert streamed.vmdk streamed.raw --quiet --size $image_size
same disk.raw streamed.raw
ok check streamed.vmdk
example 1 stream_in short.vmdk 8388608 <disk.raw
error_is 'The image is longer than the disk.'
example 1 stream_in wrong.vmdk ten </dev/null
error_holds 'Not a number: ten'
