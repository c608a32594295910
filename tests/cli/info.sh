#!/usr/bin/env bash
# info tells a disk's kind, sizes, parent and files, as text and as JSON, and whether it can be opened.
. "$(dirname -- "$0")/lib.sh"

ok create plain.vmdk 10M
ok info plain.vmdk --json
id=$(json 'd["contentID"]')
[[ $id =~ ^[0-9a-f]{8}$ ]] || fail "a content ID has 8 digits"
bytes=$(size_of plain.vmdk)
taken=$(allocated plain.vmdk)
json_is 'list(d)' "['file', 'kind', 'sizeBytes', 'grainSizeBytes', 'contentID', 'compressed', 'encrypted', \
'onDemand', 'descriptorEmbedded', 'allocatedBytes', 'fileSizeBytes', 'parent', 'extents']"
json_is 'd' "{'file': 'plain.vmdk', 'kind': 'monolithicSparse', 'sizeBytes': 10485760, 'grainSizeBytes': 65536, \
'contentID': '$id', 'compressed': False, 'encrypted': False, 'onDemand': False, 'descriptorEmbedded': True, \
'allocatedBytes': $taken, 'fileSizeBytes': $bytes, 'parent': None, 'extents': [{'file': '$PWD/plain.vmdk', 'access': 'RW', \
'type': 'SPARSE', 'startBytes': 0, 'sizeBytes': 10485760, 'outside': False, 'exists': True, 'fileSizeBytes': $bytes, \
'allocatedBytes': $taken}]}"
run 0 info plain.vmdk
output_is "disk:       plain.vmdk
kind:       monolithicSparse
size:       10 MiB (10485760 bytes)
allocated:  $((taken / 1024)) KiB ($taken bytes)
grain size: 64 KiB (65536 bytes)
content ID: $id
compressed: no
encrypted:  no
on demand:  no
parent:     none
extent 0:   $PWD/plain.vmdk  SPARSE  10 MiB  (file: $((bytes / 1024)) KiB)"

# A split disk whose later files are made on demand; the parent of a child.
ok create split.vmdk 20M --split=10M --on-demand
ok info split.vmdk --json
json_is 'd["kind"]' twoGbMaxExtentSparse
json_is 'd["onDemand"], d["descriptorEmbedded"]' '(True, False)'
json_is '[e["exists"] for e in d["extents"]]' '[True, False, False]'
json_is '[e["fileSizeBytes"] is None for e in d["extents"]]' '[False, True, True]'
json_is 'sum(e["sizeBytes"] for e in d["extents"])' 20971520
json_is 'd["extents"][2]["startBytes"] + d["extents"][2]["sizeBytes"]' 20971520
json_is 'd["extents"][1]["file"]' "$PWD/split-s00001.vmdk"
ok info split.vmdk
output_holds 'split-s00001.vmdk  SPARSE  9.'
output_holds '(no file yet)'

ok create small.vmdk 8M --compressed
ok info small.vmdk --json
json_is 'd["kind"], d["compressed"]' "('streamOptimized', True)"

ok create child.vmdk --parent plain.vmdk
ok info child.vmdk --json
json_is 'd["parent"]' "{'reference': 'plain.vmdk', 'file': '$PWD/plain.vmdk', 'contentID': '$id', 'outside': False, 'exists': True}"
mv plain.vmdk elsewhere.vmdk
missing="tessel: child.vmdk: Its parent is missing: $PWD/plain.vmdk (tessel rebase child.vmdk NEW_PARENT tells it where the \
parent is now)"
run 1 info child.vmdk --json
error_is "$missing"
json_is 'd["parent"]["exists"]' False
run 1 info child.vmdk
error_is "$missing"
output_holds "$PWD/plain.vmdk  (FILE IS MISSING)"

# A file that is missing although it must be there: what is known is told, and then what is wrong.
ok create broken.vmdk 20M --split=10M
rm broken-s00001.vmdk
run 1 info broken.vmdk
error_is "tessel: broken.vmdk: A file of the disk is missing: $PWD/broken-s00001.vmdk"
output_holds "$PWD/broken-s00001.vmdk  SPARSE"
output_holds '(FILE IS MISSING)'
run 1 info broken.vmdk --json
json_is '[e["exists"] for e in d["extents"]]' '[True, False, True]'
