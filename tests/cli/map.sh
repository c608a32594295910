#!/usr/bin/env bash
# map tells of every byte of a disk where it is stored, as few runs as there are, and draws it.
. "$(dirname -- "$0")/lib.sh"

# The runs are the whole disk, and plain bytes are where they are said to be.
cat >verify.py <<'END'
import json, sys
told, raw = json.load(open(sys.argv[1])), open(sys.argv[2], "rb").read()
position, before = 0, None
for run in told["runs"]:
    assert run["startBytes"] == position and run["sizeBytes"] > 0, run
    position += run["sizeBytes"]
    data = raw[run["startBytes"]:position]
    assert (run["layer"] is None) == (run["state"] == "zero") == (run["file"] is None), run
    if run["state"] == "zero":
        assert not any(data) and run["storedBytes"] == 0 and run["sector"] is None, run
        assert before is None or before["state"] != "zero", "two runs of zeros in a row"
    elif not run["compressed"]:
        assert run["storedBytes"] == run["sizeBytes"], run
        with open(run["file"], "rb") as file:
            file.seek(run["sector"] * 512)
            assert (file.read(run["sizeBytes"]) == data) != run["encrypted"], run
    else:
        assert run["sector"] is None and 0 < run["storedBytes"] % 512 == 0 or run["storedBytes"] > 0, run
    before = run
assert position == told["sizeBytes"] == len(raw), position
END
whole() {
    ok convert "$1" whole.raw --force --quiet
    ok map "$1" --json
    last="verify.py $1"
    python3 verify.py "$out" whole.raw || fail "see above"
}
make_image disk.raw
run 0 convert disk.raw disk.vmdk --quiet
whole disk.vmdk
[[ $(json 'len(d["runs"])') -le 12 ]] || fail "runs of one state should be one"
run 0 convert disk.raw packed.vmdk --compressed --quiet
whole packed.vmdk
stored=$(json 'sum(r["storedBytes"] for r in d["runs"])')
ok space packed.vmdk --json
json_is 'd["payloadInFileBytes"]' "$stored"
run 0 convert disk.raw split.vmdk --split=4M --on-demand --quiet
whole split.vmdk
json_is 'len({r["file"] for r in d["runs"]}) > 2' True
printf 'pw\n' >pw
run 0 convert disk.raw secret.vmdk --quiet --password-file pw
ok map secret.vmdk --json --password-file pw
ok convert secret.vmdk secret.raw --password-file pw
ok map secret.vmdk --json --password-file pw
python3 verify.py "$out" secret.raw || fail "see above"
refused 1 'secret.vmdk: VMDK is encrypted but no password provided; --password-file FILE tells it' map secret.vmdk

# Layers.
ok create mid.vmdk --parent disk.vmdk
data 65536 5 >grain
ok write mid.vmdk 0 <grain
ok create top.vmdk --parent mid.vmdk
ok write top.vmdk 64K <grain
whole top.vmdk
json_is '[r["layer"] for r in d["runs"]][:3]' '[1, 0, 2]'
json_is '[r["state"] for r in d["runs"]][:3]' "['parent', 'data', 'parent']"
json_is 'd["layers"] == ["/".join([sys.argv[1].rsplit("/", 1)[0], "work", n + ".vmdk"]) for n in ("top", "mid", "disk")]' True
ok map top.vmdk
output_holds '      0    65536  parent 1  mid.vmdk, sector 128'
output_holds '  65536    65536  data      top.vmdk, sector 128'
[[ $(head -n 1 "$out") == ' offset   length  state     place' ]] || fail "the first line should name the columns"

# What people read.
ok create small.vmdk 10M
ok write small.vmdk 1M <grain
ok map small.vmdk
output_is '  offset    length  state     place
       0   1048576  zero
 1048576     65536  data      small.vmdk, sector 128
 1114112   9371648  zero'
ok create smallc.vmdk 10M --compressed
head -c 65536 /dev/zero | tr '\0' x >text
ok write smallc.vmdk 0 <text
ok map smallc.vmdk
output_is '  offset    length  state     place
       0     65536  data      smallc.vmdk, compressed to 512
   65536  10420224  zero'
mkdir folder
mv small.vmdk folder/
ok map folder/small.vmdk
output_holds 'data      folder/small.vmdk, sector 128'

# 2 TiB of nothing is one run, at once.
run 0 create huge.vmdk 2T
ok map huge.vmdk
output_is '       offset         length  state     place
            0  2199023255552  zero'
rm huge.vmdk

# Pictures.
ok map packed.vmdk --svg packed.svg
[[ ! -s $out ]] || fail "a picture is no answer"
python3 -c 'import sys, xml.dom.minidom as m; r = m.parse(sys.argv[1]).documentElement
assert r.tagName == "svg" and len(r.getElementsByTagName("rect")) > 140' packed.svg || fail "it should be an SVG image"
grep -q 'Map of packed.vmdk' packed.svg || fail "the picture should name the disk"
grep -q 'dead space' packed.svg || fail "the picture should tell of dead space"
refused 1 'packed.svg: The file exists already (--force replaces it)' map packed.vmdk --svg packed.svg
ok map top.vmdk --svg packed.svg --force
grep -q 'Map of top.vmdk' packed.svg || fail "it should be replaced"
cp disk.vmdk before
refused 1 'disk.vmdk: It is in use here, as part of the disk, and cannot be replaced' \
    map top.vmdk --svg disk.vmdk --force
refused 1 'none/a.svg: There is no such folder: none' map top.vmdk --svg none/a.svg
same before disk.vmdk
ok map top.vmdk --blocks
grep -q $'\x1b' "$out" && fail "there should be no colours where no terminal is"
output_holds '   0 bytes 1█222···'
output_holds '1 in parent 1, mid.vmdk'
output_holds '· stored nowhere: zeros'

refused 2 'map: --json and --blocks do not go together (see tessel map --help)' map top.vmdk --json --blocks
refused 2 'map: --force: only a picture is written to a file (--svg) (see tessel map --help)' map top.vmdk --force
refused 1 'none.vmdk: No such file' map none.vmdk
[[ -z $(find . -name 'tessel-tmp*') ]] || fail "something was left behind"
