#!/usr/bin/env bash
# space tells how the bytes of a disk's files are used; its parts add up to the files.
. "$(dirname -- "$0")/lib.sh"

data $((10 * 65536)) 1 >data
ok create plain.vmdk 10M
ok space plain.vmdk --json
header=$(json 'd["headerBytes"]')
json_is 'd' "{'file': 'plain.vmdk', 'sizeBytes': 10485760, 'payloadBytes': 0, 'payloadInFileBytes': 0, \
'headerBytes': $header, 'deadSpaceBytes': 0, 'totalInFileBytes': $header}"
[[ $header -eq $(size_of plain.vmdk) ]] || fail "an empty disk is nothing but metadata"
ok write plain.vmdk 1M <data
ok space plain.vmdk --json
json_is 'd["payloadBytes"], d["payloadInFileBytes"], d["deadSpaceBytes"]' '(655360, 655360, 0)'
json_is 'd["totalInFileBytes"]' "$(size_of plain.vmdk)"
ok space plain.vmdk
output_is "disk:         plain.vmdk
size:         10 MiB (10485760 bytes)
written:      640 KiB (655360 bytes)
in files:     $(((header + 655360) / 1024)) KiB ($((header + 655360)) bytes)
  grains:     640 KiB (655360 bytes)
  metadata:   $((header / 1024)) KiB ($header bytes)
  dead space: 0 bytes"

# A grain of a compressed disk that no longer fits its place leaves it behind.
ok create packed.vmdk 10M --compressed
ok space packed.vmdk --json
json_is 'd["payloadBytes"], d["payloadInFileBytes"]' '(0, 0)'
empty=$(json 'd["deadSpaceBytes"]')
head -c 655360 /dev/zero | tr '\0' x >text
ok write packed.vmdk 0 <text
ok space packed.vmdk --json
json_is 'd["payloadBytes"], d["payloadInFileBytes"]' '(655360, 5120)'
ok write packed.vmdk 0 <data
ok space packed.vmdk --json
json_is 'd["payloadBytes"]' 655360
json_is "d['deadSpaceBytes'] >= 5120 + $empty" True
json_is 'd["totalInFileBytes"]' "$(size_of packed.vmdk)"
ok read packed.vmdk 0 655360
same data "$out"

# Several files add up, those that are not made yet to nothing.
ok create split.vmdk 20M --split=10M --on-demand
ok space split.vmdk --json
json_is 'd["totalInFileBytes"]' "$(size_of split-s00000.vmdk)"
ok write split.vmdk 15M <data
ok space split.vmdk --json
json_is 'd["totalInFileBytes"]' $(($(size_of split-s00000.vmdk) + $(size_of split-s00001.vmdk)))
json_is 'd["payloadBytes"]' 655360

# What a parent holds is not this disk's.
ok create child.vmdk --parent plain.vmdk
ok space child.vmdk --json
json_is 'd["payloadBytes"]' 0
refused 1 'none.vmdk: No such file' space none.vmdk
