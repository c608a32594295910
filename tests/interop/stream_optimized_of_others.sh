#!/usr/bin/env bash
# Compressed disks of other programs lack the table of slot sizes, and every verb says so instead of guessing;
# those whose directory is only named in the footer likewise.
. "$(dirname -- "${BASH_SOURCE[0]}")/common.sh"

# verify_not_compared MESSAGE A B: as verify_refused, but for the exit code.
verify_not_compared() {
    local message=$1 code=0
    shift
    tessel compare "$@" >refused.out 2>refused.err || code=$?
    equal "exit code of compare" 3 "$code"
    [[ ! -s refused.out && $(<refused.err) == "tessel: "*"$message"* ]] || fail "compare $*: $(<refused.err)"
}

# verify_all_refuse DISK MESSAGE: whatever is asked, the answer is the one line, and no file has changed.
verify_all_refuse() {
    local disk=$1 message=$2 verb before
    before=$(sha256sum -- *.vmdk *.raw)
    for verb in $(tessel --help | sed -n '/^Verbs:/,/^$/s/^  \([a-z]*\) .*/\1/p'); do
        case $verb in
            info) verify_refused "$message" info "$disk"
                verify_refused "$message" info --json "$disk" ;;
            convert) verify_refused "$message" convert --quiet "$disk" new.raw
                verify_refused "$message" convert --quiet "$disk" new.vmdk
                verify_refused "$message" convert --quiet "$disk" -
                verify_refused "$message" convert --quiet data.raw new.vmdk --parent "$disk" ;;
            create) verify_refused "$message" create new.vmdk --parent "$disk" ;;
            read) verify_refused "$message" read "$disk" 0 512 ;;
            write) verify_refused "$message" write "$disk" 0 ;;
            rebase) verify_refused "$message" rebase "$disk" own.vmdk --unsafe
                verify_refused "$message" rebase own.vmdk "$disk" --unsafe ;;
            check) verify_not_whole "$disk" ;;
            compare) verify_not_compared "$message" "$disk" data.raw
                verify_not_compared "$message" data.raw "$disk" ;;
            measure) verify_refused "$message" measure "$disk"
                verify_refused "$message" measure data.raw --parent "$disk" ;;
            compact) verify_refused "$message" compact "$disk" ;;
            passwd) verify_refused "This disk is not encrypted" passwd "$disk" ;;
            rename) ;; # it needs no more than the descriptor
            space | map | flatten) verify_refused "$message" "$verb" "$disk" ;;
            *) fail "say here how $verb refuses a disk" ;;
        esac
    done
    equal "the files" "$before" "$(sha256sum -- *.vmdk *.raw)"
}

# verify_not_whole DISK: what is there is checked all the same, but nobody takes the disk for one that can be opened.
# In a disk made here, a header that is unlike the footer is damage.
verify_not_whole() {
    local code=0 wanted=1
    tessel check "$1" >/dev/null 2>&1 || code=$?
    [[ $1 == theirs.vmdk ]] || wanted=3
    equal "exit code of check" $wanted $code
}

noise 12 65536 >data.raw
truncate -s 8M data.raw
tessel convert --quiet data.raw own.vmdk
qemu-img convert -f raw -O vmdk -o subformat=streamOptimized data.raw theirs.vmdk

verify_all_refuse theirs.vmdk 'Slot size directory not found in compressed VMDK; another program may have written it, and qemu-img convert -O vmdk makes a disk of it that is read here'

# The same where nothing else is wrong with the disk, since it was made here.
tessel convert --quiet --compressed data.raw patched.vmdk
verify_by_qemu patched.vmdk data.raw
for disk in patched.vmdk theirs.vmdk; do
    python3 - "$disk" <<'END'
import struct, sys
with open(sys.argv[1], "r+b") as file:
    header = file.read(512)
    assert header[:4] == b"KDMV" and struct.unpack_from("<Q", header, 56)[0] < 1000
    file.seek(56)
    file.write(b"\xff" * 8)
END
    verify_all_refuse "$disk" "VMDK file uses an unsupported variant of the 'stream optimized' format; another program may have written it, and qemu-img convert -O vmdk makes a disk of it that is read here"
done
