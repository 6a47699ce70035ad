"""Completion as the real shells do it."""

from __future__ import annotations

import os
import re
import shlex
import signal
import subprocess
import time
from pathlib import Path

import pexpect  # type: ignore[import]

ROOT = Path(__file__).resolve().parents[2]
COMPLETION = ROOT / "completion"
_LIMIT_SECONDS = 30

# Tells the matches of the last word, split as the shell splits a line.
_BASH = r"""
source "$1"
complete -p "$2" >/dev/null
COMP_WORDS=() COMPREPLY=()
for word in $3; do COMP_WORDS+=("$word"); done
[[ $3 == *' ' ]] && COMP_WORDS+=("")
COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
function compopt { :; }
"_${2//-/_}"
printf '%s\n' "${COMPREPLY[@]}"
"""

# Writes down what is offered, then offers it.
_ZSH = r"""
function compadd {
  if [[ ${@[1,(i)(-|--)]} != *-(O|A|D)\ * ]]; then
    local -a hits
    builtin compadd -A hits "$@"
    print -rl -- $hits >>"$MATCHES"
  fi
  builtin compadd "$@"
}
PS1='ready> '
fpath=("$COMPLETION" $fpath)
autoload -Uz compinit
compinit -u -D
LISTMAX=1000
bindkey '^I' complete-word
bindkey '^U' kill-whole-line
"""


def bash(line: str) -> set[str]:
    """What bash offers for the end of this line; = stands for itself as a word."""
    program = line.split()[0]
    command = ["bash", "--norc", "--noprofile", "-c", _BASH, "bash", str(COMPLETION / f"{program}.bash"), program]
    done = subprocess.run([*command, line.replace("=", " = ")], capture_output=True, text=True, check=True)
    assert done.stderr == ""
    return set(done.stdout.split())


def _script(program: str, shell: str) -> str:
    """The completion's path, quoted for a shell."""
    return shlex.quote(str(COMPLETION / f"{program}.{shell}"))


def fish(line: str) -> set[str]:
    """What fish offers for the end of this line."""
    script = f"source {_script(line.split()[0], 'fish')}; complete -C '{line}'"
    command = ["fish", "--no-config", "-c", script]
    done = subprocess.run(
        command, capture_output=True, text=True, check=True, env={**os.environ, "HOME": "/nonexistent"}
    )
    return {match.split("\t")[0] for match in done.stdout.splitlines()}


def fish_values(program: str) -> set[str]:
    """The options that take a value, by fish's own table."""
    script = f"source {_script(program, 'fish')}; complete -c {program}"
    done = subprocess.run(["fish", "--no-config", "-c", script], capture_output=True, text=True, check=True)
    lines = [
        line
        for line in done.stdout.splitlines()
        if re.search(r"--require-parameter|--exclusive|--force-files| -r | -x ", line)
    ]
    return {f"--{found[1]}" for found in (re.search(r"(?:--long-option|-l) (\S+)", line) for line in lines) if found}


def _end(shell: pexpect.spawn) -> None:
    """Ends a shell, also one that is too busy to heed anything else."""
    shell.kill(signal.SIGKILL)
    shell.wait()


def zsh(line: str, directory: Path) -> set[str]:
    """What zsh offers for the end of this line, typed and completed with the tab key."""
    matches = directory / "matches"
    matches.write_text("")
    (directory / ".zshrc").write_text(_ZSH)
    environment = {**os.environ, "TERM": "dumb", "ZDOTDIR": str(directory)}
    environment |= {"MATCHES": str(matches), "COMPLETION": str(COMPLETION)}
    shell = pexpect.spawn("zsh", ["-i", "-o", "noglobalrcs"], env=environment, encoding="utf-8", timeout=_LIMIT_SECONDS)
    shell.setwinsize(100, 200)
    shell.expect_exact("ready> ")
    shell.send(f"{line}\t")
    # A second command shows that the first key is done with.
    shell.send("\x15echo do''ne\r")
    shell.expect_exact("done")
    _end(shell)
    return set(matches.read_text().split())


def typed_in_bash(line: str, directory: Path) -> str:
    """The line as bash shows it after the tab key, in an interactive shell."""
    program = line.split()[0]
    (directory / "bashrc").write_text(f"PS1='ready> '\nsource {_script(program, 'bash')}\n")
    arguments = ["--noprofile", "--rcfile", str(directory / "bashrc"), "-i"]
    environment = {**os.environ, "TERM": "dumb", "INPUTRC": "/dev/null"}
    shell = pexpect.spawn("bash", arguments, env=environment, encoding="utf-8", timeout=_LIMIT_SECONDS)
    shell.expect_exact("ready> ")
    shell.send(f"{line}\t")
    time.sleep(0.5)
    shell.send("\x01echo \r")
    shell.expect("\n(.*?)\r?\nready> ")
    shown: str = shell.match.group(1)
    _end(shell)
    return shown.strip()
