# SPDX-License-Identifier: Apache-2.0
"""Fails if no end-to-end test covers a command, an option or an exit status of runelctl.

    check_runelctl_used.py BINARY RECORD...

The commands and options come from the tables of the binary, in the form of a completion script.
The tests record their runs: one run a line with its words and its exit status, which is null if
the test stopped it. Runs with a usage error (status 2) and requests for help do not count.
"""
import dataclasses
import json
import os
import re
import shlex
import subprocess
import sys

STATUSES = {0, 1, 2, 3, 124, 126, 127, 255}
# The words after the first argument belong to the program.
TAKE_THE_REST = ("exec", "sh", "job start")


@dataclasses.dataclass(frozen=True)
class Option:
    command: str  # empty for a general option
    names: tuple
    has_value: bool

    def __str__(self):
        return (self.command + " " + "/".join(self.names)).strip()


class Tables:
    """The commands and options, read from the script for fish, which has one on each line."""

    def __init__(self, binary):
        script = subprocess.run([binary, "completion", "fish"], check=True, text=True,
                                capture_output=True).stdout
        self.commands = []
        self.options = []
        self.parents = set()  # commands with subcommands
        for line in script.splitlines():
            # Inside quotes, fish escapes a quote as \'.
            words = shlex.split(line.replace("\\'", "'\\''"), comments=True)
            if words[:3] == ["set", "-g", "__runelctl_commands"]:
                self.commands = words[3:]
            elif words[:1] == ["complete"]:
                self._read(words)

    def _read(self, words):
        names = [("-" if kind == "-s" else "--") + name
                 for kind, name in zip(words, words[1:]) if kind in ("-s", "-l")]
        condition = words[words.index("-n") + 1] if "-n" in words else ""
        command = " ".join(re.findall(r"__fish_seen_subcommand_from ([a-z0-9]+)", condition))
        if names:
            self.options.append(Option(command, tuple(names), "-x" in words or "-r" in words))
        elif "-a" in words and "; and not " in condition:
            self._read_subcommand(condition, words[words.index("-a") + 1])

    def _read_subcommand(self, condition, name):
        parent = re.match(r"__fish_seen_subcommand_from ([a-z0-9]+); and not ", condition)[1]
        self.commands.append(f"{parent} {name}")
        self.parents.add(parent)

    def find(self, command, name):
        """The option @p name of @p command, or the general option @p name."""
        known = {(option.command, one): option for option in self.options for one in option.names}
        return known.get((command, name)) or known.get(("", name))


def tried(tables, words):
    """The command and the options of a run."""
    command, options = "", []
    left = list(words)
    while left:
        word = left.pop(0)
        name = word.split("=")[0]
        if word == "--":
            break
        if word.startswith("-") and word != "-":
            option = tables.find(command, name)
            if option:
                options.append(option)
                if option.has_value and "=" not in word:
                    left = left[1:]  # runs without the value are tests of the usage error
        elif not command or command in tables.parents:
            command = f"{command} {word}".strip()
        elif command in TAKE_THE_REST:
            break
    # An option before the command may be a general option or one of the command.
    return command, options


def main(binary, records):
    tables = Tables(binary)
    missing = [path for path in records if not os.path.exists(path)]
    commands, options, statuses = set(), set(), set()
    for path in set(records) - set(missing):
        with open(path, encoding="ascii") as record:
            for words, status in map(json.loads, record):
                statuses.add(status)
                command, given = tried(tables, words)
                if status == 2:
                    continue
                options.update(given)
                if not any("--help" in option.names for option in given):
                    commands.add(command)
    wrong = [f"{path} is missing: run that test first" for path in missing]
    wrong += [f"no test runs {name}" for name in tables.commands
              if name not in commands and name not in tables.parents]
    wrong += [f"no test uses {option}" for option in tables.options if option not in options]
    wrong += [f"no test covers exit status {status}" for status in sorted(STATUSES - statuses)]
    if not any(status and 128 < status < 255 for status in statuses):
        wrong.append("no test covers the exit status of a signal")
    print("\n".join(wrong))
    print(f"{len(tables.commands)} commands, {len(tables.options)} options, "
          f"{len(wrong)} missing")
    return 1 if wrong or len(tables.commands) < 40 or len(tables.options) < 40 else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1], sys.argv[2:]))
