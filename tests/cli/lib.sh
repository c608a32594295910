# Helpers for the scripts that test the program. A script sources this first and stands from then on in an
# empty folder of its own, which goes when the script ends. Whatever a helper finds wrong ends the script.
set -euo pipefail
export LC_ALL=C.UTF-8
. "${BASH_SOURCE[0]%/*}/../support/systems.sh"

base=$(mktemp -d)
trap 'rm -rf -- "$base"' EXIT
# A command that fails outside of a check ends the script, but not without a word.
trap 'echo "FAILED in line $LINENO of ${0##*/}: $BASH_COMMAND" >&2' ERR
mkdir -- "$base/work"
cd -- "$base/work"
out=$base/out
err=$base/err
last=nothing

fail() {
    echo "FAILED in line ${BASH_LINENO[-2]} of $(basename -- "$0"), after: $last" >&2
    echo "  $*" >&2
    echo "--- standard output" >&2
    head -c 2000 -- "$out" >&2 || true
    echo "--- standard error" >&2
    head -c 2000 -- "$err" >&2 || true
    exit 1
}

# run CODE ARGUMENT...: the program ends with this exit code. Its output is kept for the checks below.
run() {
    local wanted=$1 code=0
    shift
    last="tessel $*"
    "$TESSEL_PROGRAM" "$@" >"$out" 2>"$err" || code=$?
    with_slashes "$err"
    case " $* " in
        " info "* | " map "* | " space "* | " check "* | " compare "* | " measure "* | *" --json "*) with_slashes "$out" ;;
    esac
    ((code == wanted)) || fail "the exit code is $code, not $wanted"
}

# ok ARGUMENT...: it succeeds and says nothing at all on standard error.
ok() {
    run 0 "$@"
    [[ ! -s $err ]] || fail "there should be nothing on standard error"
}

# refused CODE TEXT ARGUMENT...: it fails with exactly this one line behind "tessel: ", and nothing on standard
# output.
refused() {
    local code=$1 text=$2
    shift 2
    run "$code" "$@" </dev/null
    error_is "tessel: $text"
    [[ ! -s $out ]] || fail "there should be nothing on standard output"
}

error_is() {
    [[ $(cat -- "$err"; echo .) == "$1"$'\n.' ]] || fail "standard error should be: $1"
}
error_holds() {
    grep -qF -- "$1" "$err" || fail "standard error should hold: $1"
}
# One line that begins with "tessel: ".
error_is_one_line() {
    [[ $(wc -l <"$err") -eq 1 && $(head -c 8 -- "$err") == "tessel: " ]] || fail "standard error should be one line"
}
output_is() {
    [[ $(cat -- "$out"; echo .) == "$1"$'\n.' ]] || fail "standard output should be: $1"
}
output_holds() {
    grep -qF -- "$1" "$out" || fail "standard output should hold: $1"
}

# json EXPRESSION: of the answer d on standard output, as Python prints it.
json() {
    python3 -c 'import json, sys; d = json.load(open(sys.argv[1])); print(eval(sys.argv[2]))' "$out" "$1"
}
json_is() {
    local found
    found=$(json "$1") || fail "standard output should be JSON with $1"
    [[ $found == "$2" ]] || fail "$1 should be $2, not $found"
}

same() {
    cmp -- "$1" "$2" >"$base/cmp" 2>&1 || fail "$1 and $2 differ: $(cat -- "$base/cmp")"
}
# The folder holds these names and no others.
only_files() {
    local found wanted
    found=$(find . -mindepth 1 -printf '%P\n' | sort)
    wanted=$(printf '%s\n' "$@" | sort)
    [[ $found == "$wanted" ]] || fail "the folder should hold: ${wanted//$'\n'/ }; it holds: ${found//$'\n'/ }"
}
size_of() {
    stat -c %s -- "$1"
}
# Bytes that a file takes on the medium.
allocated() {
    echo $(($(stat -c '%b * %B' -- "$1")))
}

# data BYTES SEED: bytes that do not compress, the same for the same seed, on standard output.
data() {
    head -c "$1" /dev/zero | openssl enc -aes-128-ctr -K "$(printf %032x "$2")" -iv "$(printf %032x 0)"
}
# put FILE OFFSET BYTES SEED: such bytes into a file, the rest of which stays.
put() {
    data "$3" "$4" | dd of="$1" bs=64K oflag=seek_bytes seek="$2" conv=notrunc status=none
}
# A raw image of 9 MiB and 1000 bytes: data, a hole, data off every boundary, written zeros, text, an odd end.
make_image() {
    rm -f -- "$1"
    truncate -s $((9 * 1048576 + 1000)) "$1"
    put "$1" 0 300000 "${2:-1}"
    put "$1" 3000001 77777 "${2:-1}"
    dd if=/dev/zero of="$1" bs=64K seek=64 count=8 conv=notrunc status=none
    seq 100000 | dd of="$1" bs=64K oflag=seek_bytes seek=5000000 conv=notrunc status=none
    put "$1" $((9 * 1048576)) 1000 "${2:-1}"
}
image_size=$((9 * 1048576 + 1000))
