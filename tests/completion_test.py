#!/usr/bin/env python3
"""Presses Tab in bash and in zsh behind each command of netwardenctl and each of its options, and holds what they offer
against what netwardenctl's help names.

usage: tests/completion_test.py NETWARDENCTL
"""

import os
import pathlib
import pty
import re
import select
import shutil
import subprocess
import sys
import tempfile
import time

FOLDER = pathlib.Path(__file__).resolve().parent.parent / "tools/netwardenctl/completions"
LIMIT_S = 60
END = "<END>"

# Runs the completion as bash does: its own parting of the line is at blanks, colons and equal signs.
BASH = r"""
source "$1"
complete -p netwardenctl >/dev/null || exit 1
while IFS= read -r COMP_LINE; do
    COMP_POINT=${#COMP_LINE}
    mapfile -t COMP_WORDS < <(grep -oE '[:=]+|[^[:blank:]:=]+' <<<"$COMP_LINE")
    [[ $COMP_LINE != *[[:blank:]:=] ]] || COMP_WORDS+=('')
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    COMPREPLY=()
    _netwardenctl
    printf '%s\n' "${COMPREPLY[@]}" '<END>'
done
"""

# A shell at a terminal, which says what it would offer instead of showing it.
ZSH = r"""
PROMPT= RPROMPT= LISTMAX=0
unsetopt zle_bracketed_paste prompt_cr prompt_sp beep 2>/dev/null
fpath=(FOLDER $fpath)
autoload -Uz compinit && compinit -u -D
zstyle ':completion:*' menu no
say_all() { print -r -- ; print -rl -- "<"${^offered}">"; print -r -- "<EN""D>"; offered=(); }
typeset -a offered
compadd() {
    local -a hits
    if [[ ${@[1,(i)(-|--)]} == *-(O|A|D)\ * ]]; then builtin compadd "$@"; return; fi
    builtin compadd -A hits "$@"
    offered+=("${hits[@]}")
    builtin compadd "$@"
}
finish() { compstate[insert]= compstate[list]=; say_all; }
comppostfuncs=(finish)
ask() { comppostfuncs=(finish); zle complete-word; BUFFER=; }
zle -N ask
bindkey '^I' ask
print -r -- "<EN""D>"
"""


class Bash:
    def __init__(self):
        self.process = subprocess.Popen(
            ["bash", "--norc", "-c", BASH, "bash", FOLDER / "netwardenctl.bash"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)

    def offers(self, line):
        self.process.stdin.write(line + "\n")
        self.process.stdin.flush()
        words = set()
        for word in self.process.stdout:
            if word.rstrip("\n") == END:
                return words - {""}
            words.add(word.rstrip("\n"))
        raise SystemExit("completion_test: bash has ended")

    def end(self):
        self.process.stdin.close()
        self.process.wait()


class Zsh:
    def __init__(self):
        self.child, self.terminal = pty.fork()
        if self.child == 0:
            os.environ.update(TERM="dumb", COLUMNS="500", LINES="500")
            os.execvp("zsh", ["zsh", "-f", "-i"])
        self.seen = ""
        with tempfile.NamedTemporaryFile("w", suffix=".zsh") as setup:
            setup.write(ZSH.replace("FOLDER", str(FOLDER)))
            setup.flush()
            self.send(f"source {setup.name}\n")
            self.until_end()

    def send(self, text):
        os.write(self.terminal, text.encode())

    def until_end(self):
        deadline = time.monotonic() + LIMIT_S
        while END not in self.seen:
            if not select.select([self.terminal], [], [], max(0, deadline - time.monotonic()))[0]:
                raise SystemExit(f"completion_test: zsh says only {self.seen!r}")
            self.seen += os.read(self.terminal, 65536).decode(errors="replace")
        said, self.seen = self.seen.split(END, 1)
        return said

    def offers(self, line):
        self.send(line + "\t")
        return set(re.findall(r"^<([^<>\r\n]+)>\r?$", self.until_end(), re.M))

    def end(self):
        os.close(self.terminal)
        os.waitpid(self.child, 0)


class Help:
    """What a help names: options, those of them with a value, and the words that a value may be."""

    def __init__(self, text):
        self.options, self.with_value, self.choices, self.words = set(), set(), {}, None
        section = ""
        self.commands = []
        for line in text.splitlines():
            if re.match(r"\S.*:$", line):
                section = line.lower()
            item = re.match(r"  (\S.*)", line)
            if not item:
                continue
            if "subcommands" in section:
                self.commands.append(item[1].split()[0])
            elif "positionals" in section:
                self.words = self.set_in(item[1])
            elif "options" in section:
                self.take_option(item[1])

    @staticmethod
    def set_in(text):
        found = re.search(r":\{([^}]*)\}", text)
        return set(found[1].split(",")) if found else None

    def take_option(self, text):
        name = re.search(r"--[a-z0-9-]+", text)[0]
        self.options.add(name)
        if re.search(re.escape(name) + r" (TEXT|NAME|FILE|ADDRESS|SECONDS|N)\b", text):
            self.with_value.add(name)
        if self.set_in(text):
            self.choices[name] = self.set_in(text)


def read_help(program, *words):
    return Help(subprocess.run([program, *words], check=True, capture_output=True, text=True).stdout)


FILES = {"--broker-pass-file", "--cafile", "--cert", "--key", "--pass-file", "--robot-pass-file"}


def questions(program):
    """Lines with what they are to offer."""
    everything = read_help(program, "--help")
    commands = set(everything.commands)
    assert {"status", "help"} <= commands and {"--broker", "--json"} <= everything.options, "the help cannot be read"
    yield "", commands
    yield "--json --broker a:1883 --timeout=3 ", commands
    yield "--", everything.options
    yield "prov", {"provision"}
    yield "help ", commands
    for command in everything.commands:
        told = read_help(program, "help", command)
        here = told.options | everything.options - {"--version"}
        yield f"{command} --", here
        yield f"--user me {command} --", here
        for option in told.choices:
            yield f"{command} {option} ", told.choices[option]
            yield f"{command} {option}=", told.choices[option]
        if told.words:
            yield f"{command} ", told.words
        for option in told.with_value | everything.with_value if command == "provision" else told.with_value:
            if option in FILES:
                yield f"{command} {option} a-f", {"a-file"}
            elif option == "--interface":
                yield f"{command} {option} l", {"lo"}
            elif option not in told.choices:
                yield f"{command} {option} ", set()
    yield "report a-f", {"a-file"}
    yield "wait --state con", {"connected", "connecting"}


def main():
    if len(sys.argv) != 2 or not shutil.which("zsh"):
        raise SystemExit(__doc__ if len(sys.argv) != 2 else "completion_test: no zsh (scripts/setup installs it)")
    program = pathlib.Path(sys.argv[1]).resolve()
    faults = count = 0
    with tempfile.TemporaryDirectory() as folder:
        os.chdir(folder)
        pathlib.Path("a-file").touch()
        asked = list(questions(program))
        for shell in (Bash(), Zsh()):
            for line, expected in asked:
                # zsh offers an option with the sign that its value may follow, and the short ones, too.
                offered = {word.rstrip("=") for word in shell.offers("netwardenctl " + line)} - {"-h"}
                count += 1
                if offered != expected:
                    faults += 1
                    print(f"{type(shell).__name__}: netwardenctl {line}<Tab>: missing {sorted(expected - offered)}, "
                          f"too much {sorted(offered - expected)}")
            shell.end()
    print(f"{count} lines completed, {faults} wrong")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
