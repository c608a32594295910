#!/usr/bin/env bash
# On a terminal there are a progress bar, which goes when the work is done, and a prompt for passwords without
# echo. Elsewhere there is neither.
#
#   terminal.sh KILLER    KILLER: the library that makes reading slow
. "$(dirname -- "$0")/lib.sh"
killer=$1
export ASAN_OPTIONS=${ASAN_OPTIONS:+$ASAN_OPTIONS:}verify_asan_link_order=0

make_image disk.raw
printf 'geheim ü\n' >pw
ok convert disk.raw secret.vmdk --quiet --password-file pw
cat >on_terminal.py <<'END'
import os, select, pty, subprocess, sys, termios, time

PROGRAM = sys.argv[1]

class Terminal:
    def __init__(self):
        self.ours, self.theirs = pty.openpty()
        self.seen = b""

    def start(self, *arguments, **streams):
        streams = {"stdin": self.theirs, "stderr": self.theirs, "stdout": subprocess.DEVNULL, **streams}
        self.child = subprocess.Popen([PROGRAM, *arguments], start_new_session=True, **streams)

    def read_until(self, text):
        deadline = time.monotonic() + 60
        while text not in self.seen:
            ready, _, _ = select.select([self.ours], [], [], max(0, deadline - time.monotonic()))
            assert ready, f"{text!r} does not come: {self.seen!r}"
            self.seen += os.read(self.ours, 4096)

    def has_echo(self):
        return bool(termios.tcgetattr(self.theirs)[3] & termios.ECHO)

    def finish(self):
        self.child.wait()
        # What was written may still be on its way through the terminal.
        while select.select([self.ours], [], [], 0.5)[0]:
            self.seen += os.read(self.ours, 65536)
        return self.child.returncode

def answer(*lines, arguments):
    terminal = Terminal()
    terminal.start(*arguments)
    for line in lines:
        terminal.read_until(b": ")
        terminal.seen = b""
        assert not terminal.has_echo(), "what is typed is shown"
        os.write(terminal.ours, line.encode() + b"\n")
    code = terminal.finish()
    assert terminal.has_echo(), "the terminal stays without echo"
    assert lines[-1].encode() not in terminal.seen, terminal.seen
    return code, terminal.seen

# Passwords.
code, seen = answer("geheim ü", arguments=["convert", "secret.vmdk", "asked.raw"])
assert code == 0, (code, seen)
code, seen = answer("falsch", arguments=["convert", "secret.vmdk", "x.raw"])
assert code == 1 and b"Specified VMDK encryption password is not correct." in seen, (code, seen)
code, seen = answer("neu", "neu", arguments=["create", "new.vmdk", "10M", "--encrypt"])
assert code == 0, (code, seen)
code, seen = answer("neu", "nie", arguments=["create", "x.vmdk", "10M", "--encrypt"])
assert code == 1 and b"The two passwords differ" in seen, (code, seen)
code, seen = answer("neu", arguments=["read", "new.vmdk", "0", "1"])
assert code == 0, (code, seen)

# Ctrl-C at the prompt leaves the terminal as it was.
terminal = Terminal()
terminal.start("convert", "secret.vmdk", "x.raw")
terminal.read_until(b"Password of secret.vmdk: ")
terminal.child.send_signal(2)
assert terminal.finish() == -2 and terminal.has_echo()

# Progress.
def convert_slowly(*options):
    terminal = Terminal()
    terminal.start("convert", "-", "slow.raw", "--to", "raw", "--size", "8M", "--force", *options,
                   stdin=subprocess.PIPE)
    for _ in range(4):
        terminal.child.stdin.write(b"x" * 2097152)
        terminal.child.stdin.flush()
        time.sleep(0.3)
    terminal.child.stdin.close()
    assert terminal.finish() == 0
    return terminal.seen
seen = convert_slowly()
for part in (b"\r[###", b"...", b"%  ", b" of 8 MiB  ", b"iB/s  ", b" left"):
    assert part in seen, (part, seen)
assert seen.endswith(b"\r\x1b[K"), seen
assert b"\n" not in seen, seen
assert convert_slowly("--quiet") == b""
END
last="on_terminal.py"
python3 on_terminal.py "$TESSEL_PROGRAM" || fail "see above"
cmp -n $image_size disk.raw asked.raw || fail "the bytes differ"
[[ ! -e x.raw && ! -e x.vmdk ]] || fail "something was made"

# Whatever takes long shows that, unless it is to be quiet, and the line is gone before anything else is written.
ok create base.vmdk 320M --split=32M # each file is read by itself
for ((i = 0; i < 10; i++)); do
    ok write base.vmdk $((i * 32))M <pw
done
ok create child.vmdk --parent base.vmdk
ok convert base.vmdk base.raw
mkdir start
cp base*.vmdk child*.vmdk start/
cat >slowly.py <<'END'
import os, pty, select, shutil, subprocess, sys

def run(line, *options, shares_terminal=False):
    """The exit code, and what is shown on the terminal that standard error is."""
    ours, theirs = pty.openpty()
    environment = {**os.environ, "LD_PRELOAD": sys.argv[2], "TESSEL_SLOW_READS": "3000" if line.startswith("write") else "20000"}
    with open("base.raw" if line.startswith("write") else os.devnull, "rb") as given:
        child = subprocess.Popen([sys.argv[1], *line.split(), *options], env=environment, stdin=given, stderr=theirs,
                                 stdout=theirs if shares_terminal else subprocess.DEVNULL)
    seen = b""
    while child.poll() is None or select.select([ours], [], [], 0.3)[0]:
        if select.select([ours], [], [], 0.3)[0]:
            seen += os.read(ours, 65536)
    os.close(ours)
    os.close(theirs)
    return child.returncode, seen

lines = ["convert base.vmdk new.raw --force", "convert base.vmdk - ", "read base.vmdk 0 320M", "map base.vmdk",
         "map base.vmdk --json", "map base.vmdk --blocks", "map base.vmdk --svg x.svg --force",
         "compare base.vmdk base.raw", "measure base.vmdk", "check base.vmdk", "space base.vmdk", "compact base.vmdk",
         "flatten child.vmdk", "write child.vmdk 0"]
for line in lines:
    code, seen = run(line)
    assert code == 0, (line, code, seen)
    for part in (b"\r[", b"%  ", b" of 320 MiB  ", b"iB/s  ", b" left"):
        assert part in seen, (line, part, seen)
    shown = seen.rsplit(b"\r\x1b[K", 1)[1]
    assert shown == b"" or line.startswith("compact"), (line, shown)
    shutil.copytree("start", ".", dirs_exist_ok=True)
    code, seen = run(line, "--quiet")
    assert code == 0 and seen == b"", (line, code, seen)

# On one terminal, text follows only on an empty line.
code, seen = run("map base.vmdk", shares_terminal=True)
assert code == 0 and b"%  " in seen, seen
text = seen.rsplit(b"\x1b[K", 1)[1]
assert text.startswith(b"   offset     length  state     place\r\n") and text.count(b".vmdk, sector") == 10, seen
for target, first in ("new.raw", b"{\r\n"), ("new.vmdk", b"tessel: note: new.vmdk: The size was rounded up"):
    code, seen = run(f"convert base.vmdk {target} --size 300000001 --json --force", shares_terminal=True)
    assert code == 0 and b"%  " in seen and seen.rsplit(b"\x1b[K", 1)[1].startswith(first), (target, seen)
END
last="slowly.py"
python3 slowly.py "$TESSEL_PROGRAM" "$killer" || fail "see above"

# Bytes of a disk are not for a terminal.
last="read to a terminal"
python3 - "$TESSEL_PROGRAM" <<'END' || fail "see above"
import pty, subprocess, sys
ours, theirs = pty.openpty()
for arguments in (["read", "slow.raw", "0", "1"], ["convert", "slow.raw", "-"]):
    if arguments[0] == "read":
        subprocess.run([sys.argv[1], "create", "y.vmdk", "10M"], check=True)
        arguments[1] = "y.vmdk"
    done = subprocess.run([sys.argv[1], *arguments], stdin=subprocess.DEVNULL, stdout=theirs, stderr=subprocess.PIPE)
    assert done.returncode == 2 and b"not for a terminal" in done.stderr, done
END

# A disk is drawn in colours on a terminal, unless the user wants none.
ok write y.vmdk 0 <pw
last="map --blocks on a terminal"
python3 - "$TESSEL_PROGRAM" <<'END' || fail "see above"
import os, pty, select, subprocess, sys
def draw(**environment):
    ours, theirs = pty.openpty()
    child = subprocess.Popen([sys.argv[1], "map", "y.vmdk", "--blocks"], stdin=subprocess.DEVNULL, stdout=theirs,
                             stderr=theirs, env={**os.environ, **environment})
    seen = b""
    while child.poll() is None or select.select([ours], [], [], 0.5)[0]:
        if select.select([ours], [], [], 0.5)[0]:
            seen += os.read(ours, 65536)
    assert child.returncode == 0, seen
    return seen.decode()
assert "\x1b[38;5;32m" in draw(TERM="xterm"), "there should be colours"
for plain in {"TERM": "dumb"}, {"TERM": "xterm", "NO_COLOR": "1"}:
    seen = draw(**plain)
    assert "\x1b" not in seen and "One place is 64 KiB" in seen, seen
END
