# What the shell scripts of this folder share; it is sourced, and leaves the script in an empty folder of its own,
# which goes away when the script ends.
set -euo pipefail

: "${TESSEL_PROGRAM:?the path of the program}"
. "${BASH_SOURCE[0]%/*}/../support/systems.sh"
export LC_ALL=C.UTF-8

work=$(mktemp -d)
trap 'rm -rf -- "$work"' EXIT
trap 'echo "${0##*/}:${BASH_LINENO[0]}/$LINENO: failed: $BASH_COMMAND" >&2' ERR
set -E
cd -- "$work"

fail() {
    echo "${0##*/}:${BASH_LINENO[*]}: $*" >&2
    exit 1
}

tessel() {
    "$TESSEL_PROGRAM" "$@"
}

# noise SEED COUNT: COUNT bytes that nothing compresses, the same ones for the same number.
noise() {
    head -c "$2" /dev/zero | openssl enc -aes-128-ctr -K "$(printf %032x "$1")" -iv 00000000000000000000000000000000
}

# fill BYTE COUNT: COUNT times one byte, which is a number.
fill() {
    head -c "$2" /dev/zero | tr '\000' "\\$(printf %03o "$1")"
}

# patch FILE OFFSET: puts standard input into a file that is there, and leaves the rest of it.
patch() {
    dd of="$1" seek="$2" oflag=seek_bytes conv=notrunc bs=1M status=none
}

# bytes FILE OFFSET COUNT
bytes() {
    dd if="$1" skip="$2" count="$3" iflag=skip_bytes,count_bytes,fullblock bs=1M status=none
}

# make_raw FILE SIZE SEED: an image with noise, text, single bytes, runs of zeros and holes; its end is no zero.
make_raw() {
    local file=$1 size=$2 seed=$3
    truncate -s "$size" "$file"
    noise "$seed" 300000 | patch "$file" 0
    fill 77 200000 | patch "$file" $((size / 3))
    noise "$((seed + 1))" 70001 | patch "$file" $((size / 2 + 12345))
    fill 0 65536 | patch "$file" $((size / 4))
    seq "$seed" $((seed + 9999)) | patch "$file" $((size * 3 / 4))
    printf '\001' | patch "$file" $((size / 5))
    noise "$((seed + 2))" 777 | patch "$file" $((size - 777))
}

# whole_grains COUNT: the size in bytes that a disk made here has for so many bytes.
whole_grains() {
    echo $((($1 + 65535) / 65536 * 65536))
}

# write_both DISK RAW OFFSET: the program writes standard input into a disk; a raw image is kept in step.
write_both() {
    cat >piece
    tessel write "$1" "$3" <piece
    patch "$2" "$3" <piece
}

# qemu_io [ARGUMENT...]: fails when a pattern is not what is read, whatever the exit code says.
qemu_io() {
    local said
    said=$(qemu-io "$@" 2>&1) || fail "qemu-io $*: $said"
    case $said in
        *failed* | *rror*) fail "qemu-io $*: $said" ;;
    esac
}

# value_of KEY INDENT: the value of a key in the JSON text in standard input, one key a line, behind so many blanks.
value_of() {
    sed -nE "s/^ {$2}\"$1\": \"?([^\"]*[^\",])\"?,?\$/\1/p"
}

# info_of DISK KEY: what info tells of a disk.
info_of() {
    tessel info --json "$1" | value_of "$2" 2
}

qemu_size_of() {
    qemu-img info --output=json "$1" | value_of virtual-size 4
}

# equal WHAT WANTED GOT
equal() {
    [[ $2 == "$3" ]] || fail "$1: expected '$2', got '$3'"
}

# verify_by_qemu DISK RAW: qemu-img finds the disk whole, and of the same size and bytes as the raw image.
verify_by_qemu() {
    qemu-img check -q -f vmdk "$1" || fail "qemu-img check: $1"
    equal "size of $1" "$(stat -c %s "$2")" "$(qemu_size_of "$1")"
    qemu-img compare -q -f vmdk -F raw "$1" "$2" || fail "qemu-img compare: $1"
}

# verify_by_tessel DISK RAW: the program reads the same bytes, and as many of them.
verify_by_tessel() {
    equal "size of $1" "$(stat -c %s "$2")" "$(info_of "$1" sizeBytes)"
    tessel convert --quiet --from vmdk --to raw "$1" - | cmp - "$2" || fail "tessel convert: $1"
}

# verify_refused MESSAGE COMMAND...: exit code 1, one line on standard error that begins with the program's name and
# holds the message, and nothing on standard output, unless it is info, which tells first what it knows.
verify_refused() {
    local message=$1 code=0
    shift
    tessel "$@" >refused.out 2>refused.err </dev/null || code=$?
    equal "exit code of $*" 1 "$code"
    with_slashes refused.err
    [[ ! -s refused.out || $1 == info ]] || fail "$*: standard output: $(head -c 300 refused.out)"
    equal "lines of $*" 1 "$(wc -l <refused.err)"
    [[ $(<refused.err) == "tessel: "*"$message"* ]] || fail "$*: $(<refused.err)"
}
