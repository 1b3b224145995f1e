"""The manual page and the completion know every command and option that zxctl --help knows, and nothing else.

usage: check_words.py ZXCTL MAN_PAGE COMPLETION
"""
import re
import subprocess
import sys

OPTION = re.compile(r"^\s+(?:-\w,)?(--[a-z-]+)", re.M)
COMMAND = re.compile(r"^  ([a-z]+)  +\S", re.M)


def help_of(zxctl, *command):
    return subprocess.run([zxctl, *command, "--help"], check=True, capture_output=True, text=True).stdout


def complete(completion, *words):
    script = 'source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($#-1)); _zxctl; printf "%s\\n" "${COMPREPLY[@]}"'
    done = subprocess.run(["bash", "-c", script, "bash", completion, *words], check=True, capture_output=True, text=True)
    return set(done.stdout.split())


def main():
    zxctl, manual, completion = sys.argv[1:]
    with open(manual, encoding="utf-8") as text:
        page = text.read().replace("\\-", "-").replace('"', " ")
    top = help_of(zxctl)
    commands, general = set(COMMAND.findall(top)), set(OPTION.findall(top))
    problems = []
    if len(commands) < 17 or "doctor" not in commands:
        problems.append(f"the help is not understood: {sorted(commands)}")
    offered = complete(completion, "zxctl", "")
    if offered != commands | general:
        problems.append(f"completion of commands: {sorted(offered ^ (commands | general))}")
    for command in sorted(commands):
        options = set(OPTION.findall(help_of(zxctl, command)))
        offered = complete(completion, "zxctl", command, "--")
        if offered != options | general:
            problems.append(f"completion of {command}: {sorted(offered ^ (options | general))}")
        if not re.search(rf"\b{command}\b", page):
            problems.append(f"the manual page does not know {command}")
        problems += [f"the manual page does not know {option} of {command}" for option in sorted(options)
                     if not re.search(rf"{option}(?![a-z-])", page)]
    known = set(re.findall(r"--[a-z][a-z-]*", page))
    every = general.union(*(OPTION.findall(help_of(zxctl, command)) for command in commands))
    problems += [f"the manual page invents {option}" for option in sorted(known - every)]
    warnings = subprocess.run(["man", "--warnings", "-l", "-Tutf8", manual], capture_output=True, text=True).stderr \
        if subprocess.run(["which", "man"], capture_output=True).returncode == 0 else ""
    problems += [f"manual page: {line}" for line in warnings.splitlines()]
    print("\n".join(problems) if problems else f"{len(commands)} commands in step")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
