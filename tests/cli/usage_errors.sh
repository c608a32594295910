#!/usr/bin/env bash
# A command line that cannot be followed is told of in one line, with exit code 2, and touches no file.
. "$(dirname -- "$0")/lib.sh"

see() {
    echo "(see tessel${1:+ $1} --help)"
}

refused 2 "A verb is missing $(see "")"
refused 2 "\"frobnicate\" is no verb $(see "")" frobnicate
refused 2 "There is no option --frobnicate $(see "")" --frobnicate
for verb in info convert create read write space rebase flatten compact rename passwd; do
    run 2 "$verb"
    error_is_one_line
    error_holds " is required $(see "$verb")"
    run 2 "$verb" --frobnicate a b c d
    error_is_one_line
done

refused 2 "info: There is an argument too many: b.vmdk $(see info)" info a.vmdk b.vmdk
refused 2 "convert: DST is required $(see convert)" convert a.vmdk
refused 2 "create: SIZE is missing $(see create)" create a.vmdk
refused 2 "create: SIZE: a child has the size of its parent $(see create)" create a.vmdk 10M --parent b.vmdk
refused 2 "create: SIZE: a disk has at least one byte $(see create)" create a.vmdk 0
refused 2 "create: --level: Value 10 not in range 0 to 9 $(see create)" create a.vmdk 10M --compressed --level 10
refused 2 "create: --level: only compressed disks have a level (--compressed) $(see create)" \
    create a.vmdk 10M --level 3
refused 2 "create: --on-demand: only a split disk has files to be made later (--split) $(see create)" \
    create a.vmdk 10M --on-demand
refused 2 "create: --split=100K: a file of this size has no room for data beside its metadata; choose a larger \
limit, such as 2G $(see create)" create a.vmdk 10M --split=100K
refused 2 "create: A disk in a single file has at most 2 TiB; a larger one must be split (--split) $(see create)" \
    create a.vmdk 3T
refused 2 "create: --split: a disk of this size would have too many files; choose a larger limit (2T at most) or \
a smaller disk $(see create)" create a.vmdk 7E --split

data 1000 1 >raw.bin
data 1000 1 >strange.name
refused 2 "convert: strange.copy: the name does not tell the kind of the new file; say it (--to) $(see convert)" \
    convert strange.name strange.copy
refused 2 "convert: --size is needed to make a disk from a pipe $(see convert)" convert - a.vmdk < <(cat raw.bin)
refused 2 "convert: --from vmdk: a VMDK disk cannot be read from standard input $(see convert)" \
    convert - a.raw --from vmdk
refused 2 "convert: --to vmdk: a VMDK disk cannot be written to standard output $(see convert)" \
    convert raw.bin - --to vmdk
refused 2 "convert: Options of VMDK disks do not go with raw data (--to vmdk) $(see convert)" \
    convert raw.bin a.raw --to raw --compressed
refused 2 "convert: --to: qcow2 not in {raw,vmdk} $(see convert)" convert raw.bin a.raw --to qcow2

# The name says raw, but what a guest may have written looks like a disk that names other files.
printf '# Disk DescriptorFile\n' >guest.raw
refused 2 "convert: guest.raw: the name is that of a raw image, but the content looks like a VMDK; say which it is \
(--from) $(see convert)" convert guest.raw a.raw
ok convert guest.raw a.raw --from raw
same guest.raw a.raw

only_files raw.bin strange.name guest.raw a.raw
