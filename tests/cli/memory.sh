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

most=65536

data 1M 1 >data
ok create huge.vmdk $((2 * 1024 * 1024))M
ok write huge.vmdk 1T <data
ok write huge.vmdk $((2 * 1024 * 1024 - 1))M <data
for options in "" --compressed; do
    rm -f copy.vmdk
    read -ra words <<<"$options"
    found=$(peak convert huge.vmdk copy.vmdk --quiet "${words[@]}")
    echo "2 TiB, nearly empty $options: $found KiB"
    [[ $found -lt $most ]] || fail "$found KiB were needed"
done
ok read copy.vmdk 1T 1M
same data "$out"
rm ./*.vmdk

data 256M 2 >full.raw
for options in "" --compressed; do
    rm -f full.vmdk
    read -ra words <<<"$options"
    found=$(peak convert full.raw full.vmdk --quiet "${words[@]}")
    echo "256 MiB, full, from raw $options: $found KiB"
    [[ $found -lt $most ]] || fail "$found KiB were needed"
    found=$(peak convert full.vmdk back.raw --quiet --force)
    echo "256 MiB, full, to raw $options: $found KiB"
    [[ $found -lt $most ]] || fail "$found KiB were needed"
    same full.raw back.raw
done
