"""Readers and writers of one disk are started, and killed at random, by their own process ids. The lock keeps them
apart: a reader sees the pattern of one writer as a whole, or is refused. Nobody is kept out by one who is dead.

    soak.py [SECONDS [SEED]]      TESSEL_PROGRAM is the program"""

import os
import random
import subprocess
import sys
import tempfile
import time

PROGRAM = os.environ["TESSEL_PROGRAM"]
GRAIN = 65536
POSITION = 40 * GRAIN  # where the pattern stands; it reaches into the second extent of a split disk
COUNT = 32  # grains of the pattern
LOCKED = "It is locked by another user or process."


def grain_of(number, grain):
    """A grain that no other writer writes, of bytes that compress in part."""
    line = b"%016d %03d " % (number, grain)
    return (line * (GRAIN // len(line) + 1))[: GRAIN // 2] + random.Random(f"{number} {grain}").randbytes(GRAIN // 2)


def pattern_of(number):
    return b"".join(grain_of(number, grain) for grain in range(COUNT))


def start(*arguments, data=None):
    """Standard input comes from a file, so that the process waits for nobody."""
    source = tempfile.TemporaryFile()
    source.write(data or b"")
    source.seek(0)
    output = tempfile.TemporaryFile()
    errors = tempfile.TemporaryFile()
    process = subprocess.Popen([PROGRAM, *arguments], stdin=source, stdout=output, stderr=errors)
    process.files = (output, errors)
    return process


def finish(process):
    """Exit code, output, errors."""
    code = process.wait(timeout=60)
    texts = []
    for file in process.files:
        file.seek(0)
        texts.append(file.read())
        file.close()
    return code, texts[0], texts[1].decode()


def run(*arguments, data=None):
    code, output, errors = finish(start(*arguments, data=data))
    assert code == 0, f"tessel {' '.join(arguments)}: exit code {code}: {errors}"
    return output


class Soak:
    def __init__(self, disk, compressed, seed):
        self.disk = disk
        self.compressed = compressed
        self.random = random.Random(seed)
        self.next_number = 1
        # How long each takes: the time to be killed in. A first run, whose files are not in memory yet, takes longer.
        self.durations = {}
        for _ in range(2):
            for kind, arguments in self.uses().items():
                process = start(*arguments, data=pattern_of(0))
                begin = time.monotonic()
                code, _, errors = finish(process)
                assert code == 0, errors
                self.durations[kind] = time.monotonic() - begin
        # The writers whose bytes may be there: one who ended well, or several after some were killed.
        self.known = {0}
        self.figures = dict.fromkeys(
            ["rounds", "written", "writers killed", "writers locked out", "read", "readers killed",
             "readers locked out", "mixtures of killed writers", "grains cut in their rewrite"], 0)

    def uses(self):
        return {"writer": ("write", self.disk, str(POSITION)),
                "reader": ("read", self.disk, str(POSITION), str(COUNT * GRAIN))}

    def start_users(self):
        """Kind, number of the pattern (None of readers) and process of a few users, who start at once."""
        kinds = self.random.choices(["writer", "reader"], k=self.random.randint(1, 4))
        numbers = []
        for kind in kinds:
            numbers.append(self.next_number if kind == "writer" else None)
            self.next_number += kind == "writer"
        inputs = [b"" if number is None else pattern_of(number) for number in numbers]
        users = []
        deaths = []
        for kind, number, data in zip(kinds, numbers, inputs):
            process = start(*self.uses()[kind], data=data)
            users.append((kind, number, process))
            if self.random.random() < 0.4:
                deaths.append((time.monotonic() + self.random.random() * self.durations[kind], len(users)))
        for when, user in sorted(deaths):
            time.sleep(max(0, when - time.monotonic()))
            users[user - 1][2].kill()
        return users

    def check(self, data, known, killed):
        """One pattern as a whole; where writers were killed, of each sector that of one of them or their
        predecessor."""
        if any(data == pattern_of(number) for number in known):
            return
        assert killed, f"no whole pattern of {known}, though no writer was killed"
        self.figures["mixtures of killed writers"] += 1
        for grain in range(COUNT):
            found = data[grain * GRAIN : (grain + 1) * GRAIN]
            wholes = [grain_of(number, grain) for number in known]
            if found in wholes:
                continue
            assert not self.compressed, f"grain {grain} is of none of {known}"
            self.figures["grains cut in their rewrite"] += 1
            for at in range(0, GRAIN, 512):
                assert any(found[at : at + 512] == whole[at : at + 512] for whole in wholes), (
                    f"grain {grain}: the sector at {at} is of none of {known}")

    def round(self):
        """A few users at once. Some are killed; what the others say is checked."""
        users = self.start_users()
        killed, ended, outputs, refused = set(), set(), [], []
        for kind, number, process in users:
            code, output, errors = finish(process)
            if code == -9:
                self.figures[f"{kind}s killed"] += 1
                killed.add(number)
            elif code == 1 and LOCKED in errors:
                self.figures[f"{kind}s locked out"] += 1
            elif code == 1 and kind == "reader" and self.compressed:
                refused.append(errors)
            else:
                assert code == 0 and not errors, f"{kind}: exit code {code}: {errors}"
                self.figures["written" if kind == "writer" else "read"] += 1
                if kind == "writer":
                    ended.add(number)
                else:
                    outputs.append(output)
        killed.discard(None)
        # The users of a round came in any order.
        known = self.known | killed | ended
        mixed = bool(killed) or len(self.known) > 1
        for output in outputs:
            self.check(output, known, mixed)
        assert mixed or not refused, f"a grain cannot be read, though no writer was killed: {refused}"
        self.figures["grains cut in their rewrite"] += len(refused)
        self.known = known
        if not mixed and ended or self.random.random() < 0.3:
            self.settle(mixed)

    def settle(self, mixed):
        """Finds out who came last; after a kill, by writing once more."""
        if mixed:
            self.known = {self.next_number}
            self.next_number += 1
            run("write", self.disk, str(POSITION), data=pattern_of(*self.known))
        data = run("read", self.disk, str(POSITION), str(COUNT * GRAIN))
        self.known = {number for number in self.known if data == pattern_of(number)}
        assert len(self.known) == 1, "no whole pattern, though no writer was killed"


def soak(name, options, seconds, seed):
    with tempfile.TemporaryDirectory() as folder:
        disk = os.path.join(folder, "disk.vmdk")
        end = time.monotonic() + seconds
        run("create", disk, "10M", *options)
        other = random.Random(seed).randbytes(2 * GRAIN)
        run("write", disk, "9M", data=other)
        state = Soak(disk, "--compressed" in options, seed)
        while time.monotonic() < end:
            state.round()
            state.figures["rounds"] += 1
        # Whatever those who were killed have left, it keeps nobody out and hides nothing.
        state.settle(True)
        assert run("read", disk, "9M", str(2 * GRAIN)) == other, "data that nobody wrote has changed"
        assert run("read", disk, "0", str(POSITION)) == bytes(POSITION)
        run("info", disk, "--json")
        run("convert", disk, os.path.join(folder, "whole.raw"))
        names = sorted(os.listdir(folder))
        assert not any(name.endswith(".lock") for name in names), f"a lock file is left behind: {names}"
    for what, count in state.figures.items():
        print(f"figures: soak {name}: {what}: {count}", flush=True)
    return state.figures


def main():
    seconds = float(sys.argv[1]) if len(sys.argv) > 1 else 60
    seed = int(sys.argv[2]) if len(sys.argv) > 2 else random.SystemRandom().randrange(1 << 32)
    print(f"seed: {seed}", flush=True)
    kinds = {"plain": [], "compressed": ["--compressed"], "on demand": ["--split=4M", "--on-demand"]}
    figures = [soak(name, options, seconds / len(kinds), seed) for name, options in kinds.items()]
    for what in "written", "read", "writers killed", "readers killed", "writers locked out":
        assert sum(each[what] for each in figures) > 0, what


main()
