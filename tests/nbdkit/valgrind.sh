#!/usr/bin/env bash
# Under valgrind a server that does all that it can makes no use of memory that is not its own, and loses none.
. "$(dirname -- "$0")/lib.sh"

# The C library compares wide characters 32 bytes at a time where the processor can, and knows that this stays in the
# page; valgrind does not.
export GLIBC_TUNABLES=glibc.cpu.hwcaps=-AVX2,-AVX2_Usable,-AVX512VL,-AVX512BW,-EVEX,-SSE4_1
# What nbdkit itself allocates and loses, as it does when it is told to end while a client goes.
for function in malloc calloc realloc; do
    printf '{\n   nbdkit\n   Memcheck:Leak\n   fun:%s\n   obj:*/nbdkit\n}\n' $function
    # and its threads that have not ended when it does
    printf '{\n   threads\n   Memcheck:Leak\n   fun:%s\n   ...\n   fun:pthread_create*\n   obj:*/nbdkit\n}\n' $function
done >suppressions
nbdkit=(valgrind --quiet --suppressions="$PWD/suppressions" --leak-check=full --show-leak-kinds=definite,indirect,possible
    --errors-for-leak-kinds=definite,indirect,possible --error-exitcode=99 nbdkit)

make_disk_image disk.raw 1
printf 'geheim\n' >key

everything() {
    local size
    size=$(nbdinfo --size "$uri")
    client nbdinfo --map "$uri"
    client nbdcopy --connections=2 disk.raw "$uri"
    qemu_io 'write -f -P 7 1000000 5000' 'write -z 65536 200000' 'write -z -n -u 3500000 65536' \
        "write -P 3 $((size - 1)) 1" 'discard 131072 300000' flush 'read -P 7 1000000 5000'
    client nbdcopy "$uri" out.raw
    client qemu-img map -f raw "$uri"
}

ok convert disk.raw disk.vmdk --quiet
serve disk.vmdk
everything
stop
ok convert disk.raw secret.vmdk --quiet --compressed --password-file key
serve secret.vmdk password=+key
everything
stop
ok create child.vmdk --parent disk.vmdk
serve child.vmdk allow="$PWD"
everything
stop
run 0 create split.vmdk 12M --split=5M --on-demand --compressed
serve split.vmdk level=9
everything
stop
serve disk.vmdk readonly
client nbdcopy "$uri" out.raw
stop

# Errors of every kind: at the start, and of a read.
for parameters in none.vmdk disk.raw 'secret.vmdk password=falsch' 'disk.vmdk what=ever' 'disk.vmdk disk.vmdk'; do
    read -ra words <<<"$parameters"
    (nbdkit_runs "${words[@]}") >"$out" 2>"$err" </dev/null && fail "nbdkit should not start: $parameters"
    [[ $(wc -l <"$err") -eq 1 && $(<"$err") == 'nbdkit: error: '* ]] || fail "$parameters"
done
