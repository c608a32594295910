#!/usr/bin/env bash
# A disk that the program made on one system is the same disk on the other: each kind is made on Windows and read,
# checked and changed on Linux, and the other way round, byte for byte. qemu-img looks at those that it can read.
#
#   two_systems.sh NATIVE    NATIVE: the program built for this system, of the same sources
. "$(dirname -- "$0")/common.sh"
native=$1
[[ -x $native ]] || fail "the program for this system is not built: $native"
posix && fail "this compares the program for Windows with the one for this system"

# on SYSTEM ARGUMENT...
on() {
    local system=$1
    shift
    case $system in
        windows) "$TESSEL_PROGRAM" "$@" ;;
        linux) "$native" "$@" ;;
        *) fail "there is no system $system" ;;
    esac
}

size=$((12 * 1048576))
make_raw base.raw "$size" 1
make_raw other.raw "$size" 10
noise 20 100000 >piece
echo 'correct horse ü' >pw

# reads SYSTEM DISK RAW [OPTION...]: it finds no damage, and these bytes.
reads() {
    local system=$1 disk=$2 raw=$3
    shift 3
    on "$system" check "$disk" "$@" >told || fail "check on $system: $disk: $(<told)"
    on "$system" convert --quiet --from vmdk --to raw "$disk" - "$@" | cmp - "$raw" || fail "read on $system: $disk"
}

# changes SYSTEM DISK RAW OFFSET [OPTION...]: it writes the piece, and the raw image is kept in step.
changes() {
    local system=$1 disk=$2 raw=$3 offset=$4
    shift 4
    on "$system" write "$disk" "$offset" "$@" <piece || fail "write on $system: $disk"
    patch "$raw" "$offset" <piece
}

# tried MAKER READER DISK RAW QEMU [OPTION...]: what was made by one is read and changed by the other, and read again
# by the first.
tried() {
    local maker=$1 reader=$2 disk=$3 raw=$4 qemu=$5
    shift 5
    reads "$reader" "$disk" "$raw" "$@"
    [[ $qemu == - ]] || verify_by_qemu "$disk" "$raw"
    changes "$reader" "$disk" "$raw" 1000000 "$@"
    reads "$maker" "$disk" "$raw" "$@"
    changes "$maker" "$disk" "$raw" 5000003 "$@"
    reads "$reader" "$disk" "$raw" "$@"
    [[ $qemu == - ]] || verify_by_qemu "$disk" "$raw"
}

count=0
both_ways() {
    local maker=$1 reader=$2 name options qemu words secret
    # By the disk's kind: the options that make it; whether qemu-img reads it. Of names, letters outside ASCII too.
    while IFS='|' read -r name options qemu; do
        read -ra words <<<"$options"
        secret=()
        [[ $options != *pw* ]] || secret=(--password-file pw)
        mkdir -p made
        cp base.raw now.raw
        # Of a compressed and split disk it is told that others see its first file only.
        on "$maker" convert --quiet base.raw "made/$name.vmdk" "${words[@]}" 2>told || fail "convert on $maker: $(<told)"
        tried "$maker" "$reader" "made/$name.vmdk" now.raw "$qemu" "${secret[@]}"
        [[ -z $(find made -name '*.lock' -o -name 'tessel-tmp-*') ]] || fail "something was left behind"

        # A child beside it, and one in another folder.
        cp now.raw child.raw
        on "$maker" create "made/child.vmdk" --parent "made/$name.vmdk" "${secret[@]}" || fail "create on $maker"
        changes "$maker" made/child.vmdk child.raw 2000000 "${secret[@]}"
        tried "$maker" "$reader" made/child.vmdk child.raw - "${secret[@]}"
        mkdir -p far
        cp now.raw child.raw
        on "$maker" create "far/child.vmdk" --parent "made/$name.vmdk" "${secret[@]}" || fail "create on $maker"
        equal "the parent's name" "../made/$name.vmdk" "$(on "$reader" info --json far/child.vmdk --allow made | value_of reference 4)"
        changes "$maker" far/child.vmdk child.raw 2000000 --allow made "${secret[@]}"
        tried "$maker" "$reader" far/child.vmdk child.raw - --allow made "${secret[@]}"
        rm -r made far
        count=$((count + 1))
    done <<'TABLE'
monolithicSparse||qemu
twoGbMaxExtentSparse|--split=5M|qemu
streamOptimized|--compressed|qemu
streamOptimized in parts|--compressed --split=8M|-
encrypted|--password-file pw|-
encrypted in parts|--split=5M --password-file pw|-
encrypted and compressed|--compressed --password-file pw|-
Größe 磁盘|--split=5M|-
TABLE

    # Extents that have no file until something is written to them.
    mkdir made
    rm now.raw
    truncate -s "$size" now.raw
    on "$maker" create made/demand.vmdk "$size" --split=4M --on-demand || fail "create on $maker"
    equal "the files" "demand-s00000.vmdk demand.vmdk" "$(cd made; ls | paste -sd' ')"
    tried "$maker" "$reader" made/demand.vmdk now.raw -
    equal "the files" "demand-s00000.vmdk demand-s00001.vmdk demand.vmdk" "$(cd made; ls | paste -sd' ')"
    rm -r made now.raw
    count=$((count + 1))

    # The same source makes the same disk, but for its numbers; raw images are the same bytes.
    on "$maker" convert --quiet other.raw one.vmdk
    on "$reader" convert --quiet other.raw two.vmdk
    equal "the size on $reader" "$(stat -c %s one.vmdk)" "$(stat -c %s two.vmdk)"
    on "$maker" compare one.vmdk two.vmdk >told || fail "compare on $maker: $(<told)"
    on "$reader" compare one.vmdk two.vmdk >told || fail "compare on $reader: $(<told)"
    rm one.vmdk two.vmdk
}

both_ways windows linux
both_ways linux windows
equal "kinds that were tried" 18 "$count"
