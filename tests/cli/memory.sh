#!/usr/bin/env bash
# convert needs little memory, however large the disk: neither its size nor what it stores counts.
. "$(dirname -- "$0")/lib.sh"

# peak ARGUMENT...: the most memory, in KiB, that the program had while it succeeded; not less than what Python has.
peak() {
    last="tessel $*"
    python3 - "$TESSEL_PROGRAM" "$@" <<'END' 2>"$err" || fail "it failed, or its memory cannot be told"
import resource, subprocess, sys
subprocess.run(sys.argv[1:], check=True, stdout=subprocess.DEVNULL)
print(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss)
END
}

# stays_small WHAT ARGUMENT...: it does with this much, in KiB.
stays_small() {
    local what=$1 most=65536 found
    shift
    found=$(peak "$@")
    echo "$what: $found KiB"
    [[ $found -lt $most ]] || fail "$found KiB were needed"
}

data 1M 1 >data
ok create huge.vmdk $((2 * 1024 * 1024))M
ok write huge.vmdk 1T <data
ok write huge.vmdk $((2 * 1024 * 1024 - 1))M <data
for options in "" --compressed; do
    rm -f copy.vmdk
    read -ra words <<<"$options"
    stays_small "2 TiB, nearly empty $options" convert huge.vmdk copy.vmdk --quiet "${words[@]}"
done
ok read copy.vmdk 1T 1M
same data "$out"
rm ./*.vmdk

data 256M 2 >full.raw
for options in "" --compressed; do
    rm -f full.vmdk
    read -ra words <<<"$options"
    stays_small "256 MiB, full, from raw $options" convert full.raw full.vmdk --quiet "${words[@]}"
    stays_small "256 MiB, full, to raw $options" convert full.vmdk back.raw --quiet --force
    same full.raw back.raw
done
