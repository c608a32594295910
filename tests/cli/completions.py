"""The completions for bash, zsh and fish are those of the program: written anew from --help they are the same files;
each shell offers just the verbs and options that --help names; and each really completes command lines."""
import os
import pty
import re
import select
import shutil
import signal
import subprocess
import tempfile
import time
from pathlib import Path

PROGRAM = os.environ["TESSEL_PROGRAM"]
SOURCES = Path(os.environ["TESSEL_SOURCE_DIR"])
FOLDER = SOURCES / "completions"
ENVIRONMENT = {"PATH": os.environ["PATH"], "TERM": "dumb", "LC_ALL": "C.UTF-8", "HISTFILE": "", "COLUMNS": "200"}


def get_help(*verb):
    return subprocess.run([PROGRAM, *verb, "--help"], capture_output=True, check=True, encoding="utf-8").stdout


def options_of(*verb):
    """By --help, the long ones."""
    part = get_help(*verb).split("\nOptions:\n", 1)[1].split("\n\n", 1)[0]
    return set(re.findall(r"^  (?:-[a-z], )?(--[a-z-]+)", part, re.M))


def run(*command, folder):
    done = subprocess.run(command, capture_output=True, encoding="utf-8", cwd=folder, env={**ENVIRONMENT, "HOME": str(folder)})
    assert done.returncode == 0 and done.stderr == "", (command, done)
    return done.stdout


class Shell:
    """An interactive shell on a terminal, in which the program only shows its arguments."""

    def __init__(self, folder, command, *setup):
        self.process, self.terminal = pty.fork()
        if self.process == 0:
            os.chdir(folder)
            os.execvpe(command[0], list(command), {**ENVIRONMENT, "HOME": str(folder)})
        self.seen = ""
        self.count = 0
        for line in setup:
            self.type(line + "\n")
        self.type("tessel() { printf '<%s>' \"$@\"; printf '\\n=\\137=%s\\n' DONE; }\n")
        self.answer("tessel ready\n")

    def type(self, text):
        os.write(self.terminal, text.encode())

    def read(self, until, seconds=60):
        deadline = time.monotonic() + seconds
        while until not in self.seen:
            ready, _, _ = select.select([self.terminal], [], [], max(0.0, deadline - time.monotonic()))
            assert ready, f"{until!r} does not come: {self.seen!r}"
            self.seen += os.read(self.terminal, 65536).decode(errors="replace")

    def answer(self, keys):
        """The arguments that the program gets when these keys are pressed; the last one ends the line."""
        self.seen = ""
        self.type(keys)
        self.read("=_=DONE")
        last = [line for line in self.seen.replace("\r", "\n").split("\n") if "<" in line and line.strip().endswith(">")][-1]
        return re.findall(r"<(.*?)>", last[last.index("<"):])

    def offers(self, line):
        """The long options that the shell shows for a line."""
        self.seen = ""
        self.type(line + "\t")
        self.read("--help")
        self.type("\x15echo SHO''WN\n")
        self.read("SHOWN")
        shown = self.seen.split("echo SHO", 1)[0]
        return set(re.findall(r"--[a-z-]+", shown.split(line, 1)[1]))

    def end(self):
        os.close(self.terminal)
        try:
            os.kill(self.process, signal.SIGKILL)
        except ProcessLookupError:
            pass
        os.waitpid(self.process, 0)


def check_lines(shell, kind):
    """Lines that every shell completes alike."""
    for keys, wanted in {
        "tessel inf\tdi\t\n": ["info", "disk.vmdk"],
        "tessel info disk.vmdk --js\t\n": ["info", "disk.vmdk", "--json"],
        "tessel conv\timage\t new.vmdk --compr\t--lev\t9\n":
            ["convert", "image.raw", "new.vmdk", "--compressed", "--level", "9"],
        "tessel convert image.raw x --to vm\t\n": ["convert", "image.raw", "x", "--to", "vmdk"],
        "tessel create new.vmdk --parent di\t\n": ["create", "new.vmdk", "--parent", "disk.vmdk"],
        "tessel check disk.vmdk --allow fol\t\n": ["check", "disk.vmdk", "--allow", "folder"],
        "tessel check --password-file sec\tdi\t\n": ["check", "--password-file", "secret.txt", "disk.vmdk"],
        "tessel rename two\t \n": ["rename", "two words.vmdk"],
    }.items():
        # zsh puts "=" behind an option that takes a value, and takes the last "/" away again.
        found = [part.rstrip("/") for word in shell.answer(keys)
                 for part in (word.split("=") if word.startswith("--") else [word])]
        assert found == wanted, f"{kind}: {keys!r} becomes {found}, not {wanted}"


def check_offers(offers, kind, verbs):
    found = offers("tessel --")
    assert found == options_of(), f"{kind}: the program's options are {found}"
    for verb in verbs:
        found = offers(f"tessel {verb} --")
        assert found == options_of(verb), f"{kind}: {verb} has {sorted(found ^ options_of(verb))} only here or there"


def check_bash(folder, verbs):
    script = f"""
        source {FOLDER}/tessel.bash
        compopt() {{ :; }}
        for verb in "" {' '.join(verbs)}; do
            COMP_WORDS=(tessel $verb --)
            COMP_CWORD=$((${{#COMP_WORDS[@]}} - 1))
            _tessel
            echo "$verb:" $(printf '%s\\n' "${{COMPREPLY[@]}}" | grep -- --)
        done
        COMP_WORDS=(tessel "") COMP_CWORD=1
        _tessel
        echo "verbs:" "${{COMPREPLY[@]}}"
    """
    offered = dict(line.split(":", 1) for line in run("bash", "--norc", "-c", script, folder=folder).splitlines())
    assert offered.pop("verbs").split() == verbs, offered
    check_offers(lambda line: set(offered[line.removeprefix("tessel").removesuffix("--").strip()].split()), "bash", verbs)
    shell = Shell(folder, ("bash", "--norc", "--noprofile", "-i"), "PS1='$ '", "bind 'set bell-style none'",
                  f"source {FOLDER}/tessel.bash")
    check_lines(shell, "bash")
    # Of files that are no disks, none is offered for one while there are disks; without, all are.
    assert shell.answer("tessel info im\t\n") == ["info", "image.raw"]
    assert shell.answer("tessel convert x y --size=1G --split=2G --fo\t\n")[-1] == "--force"
    assert shell.answer("tessel read disk.vmdk 0 di\t\n")[-1] == "di", "a length is no file"
    shell.end()


def check_zsh(folder, verbs):
    shell = Shell(folder, ("zsh", "-f", "-i"), "PS1='$ '", "unsetopt beep prompt_cr prompt_sp zle_bracketed_paste",
                  f"fpath=({FOLDER} $fpath)", "autoload -Uz compinit && compinit -u -D", "LISTMAX=0",
                  "unsetopt auto_menu", "zstyle ':completion:*' verbose no")
    check_lines(shell, "zsh")
    check_offers(shell.offers, "zsh", verbs)
    shell.end()


def check_fish(folder, verbs):
    def complete(line):
        shown = run("fish", "--no-config", "-c", f"source {FOLDER}/tessel.fish; complete -C '{line}'", folder=folder)
        return [row.split("\t")[0] for row in shown.splitlines()]
    assert sorted(complete("tessel ")) == sorted(verbs), complete("tessel ")
    check_offers(lambda line: {word for word in complete(line) if word.startswith("--")}, "fish", verbs)
    assert complete("tessel convert x y --from ") == ["raw", "vmdk"]
    assert complete("tessel info di") == ["disk.vmdk"]
    assert complete("tessel check disk.vmdk --allow f") == ["folder/"]
    assert complete("tessel check --password-file sec") == ["secret.txt"]


def check_is_up_to_date(folder):
    written = folder / "written"
    written.mkdir()
    subprocess.run([SOURCES / "scripts/completions", PROGRAM, written], check=True)
    names = sorted(path.name for path in written.iterdir())
    assert names == ["_tessel", "tessel.bash", "tessel.fish"] == sorted(path.name for path in FOLDER.iterdir()), names
    for name in names:
        assert (written / name).read_bytes() == (FOLDER / name).read_bytes(), \
            f"completions/{name} is not what scripts/completions writes"
    shutil.rmtree(written)


def main():
    verbs = re.findall(r"^  ([a-z]+) ", get_help().split("\nVerbs:\n", 1)[1].split("\n\n", 1)[0], re.M)
    assert len(verbs) >= 15, verbs
    with tempfile.TemporaryDirectory() as name:
        folder = Path(name)
        check_is_up_to_date(folder)
        for file in "disk.vmdk", "image.raw", "secret.txt", "two words.vmdk":
            (folder / file).touch()
        (folder / "folder").mkdir()
        check_bash(folder, verbs)
        check_zsh(folder, verbs)
        check_fish(folder, verbs)


main()
