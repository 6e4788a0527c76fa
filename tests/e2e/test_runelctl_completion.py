# SPDX-License-Identifier: Apache-2.0
"""The completion scripts, each tested in its shell."""
import os
import pty
import re
import select
import subprocess
import termios
import unittest

from check_runelctl_used import Tables
from support.ctl import BINARY, CtlCase, hang
from support.fakes import FakeDevice
from support.master import MasterCase
from support.wait import TIMEOUT, wait_until


class CompletionCase(MasterCase):
    SHELL = ""

    def setUp(self):
        super().setUp()
        self.script = self.path("completion")
        with open(self.script, "wb") as script:
            script.write(self.succeed("completion", self.SHELL).out)
        os.makedirs(self.path("files"))
        self.file("files/some-file")

    def shell_environment(self):
        directory = os.path.dirname(BINARY)
        return self.environment({"PATH": directory + ":" + os.environ["PATH"], "TERM": "dumb",
                                 "PS1": "> "})

    def run_shell(self, *words):
        result = subprocess.run(words, capture_output=True, env=self.shell_environment(),
                                cwd=self.path("files"), timeout=TIMEOUT, check=False)
        self.assertEqual((result.returncode, result.stderr), (0, b""), words)
        return result.stdout.decode().splitlines()

    def commands(self):
        """The names of all commands, from the help."""
        text = self.succeed("--help").text
        text = text[text.index("\nCommands:"):]
        return set(re.findall(r"(?m)^  ([a-z0-9]+) ", text))

    INVENTORY = b"""[devices]
hall = "192.0.2.1"
"gw-[1-2]" = "192.0.2.[11-12]"
[groups]
first = ["hall"]
fine = ["gw-1"]
"""

    def write_inventory(self):
        os.makedirs(self.path(".config/runelctl"))
        self.file(".config/runelctl/devices.toml", self.INVENTORY)

    def remote_files(self):
        """A daemon and some files on it. Returns their directory."""
        self.daemon()
        os.makedirs(self.path("remote/some-directory"))
        self.file("remote/some-name")
        self.file("remote/other name")
        return self.path("remote")

    def silent_peers(self):
        """Arguments that select devices which do not answer."""
        return ("-d", self.odd_peer(hang)), ("-d", "127.0.0.1:9")

    def assert_transfer_options(self, offered):
        """@p offered: the options of push, sync and pull."""
        content = {"-z", "--compress", "--no-compress", "--delta", "--no-delta"}
        names = {"--exclude", "--exclude-from", "--resume", "--no-resume", "--checksum"}
        push, sync, pull = offered
        self.assertEqual((content | names) - (push & sync), set())
        self.assertEqual((names - pull, content & pull), (set(), set()))

    def serve_two(self):
        self.start_master()
        for number, name in enumerate(("north", "south")):
            FakeDevice(self, f"127.0.0.{number + 2}", name)
            self.wait_told("connected", hostid=name)


class Bash(CompletionCase):
    SHELL = "bash"
    TRY = """source "$1"; shift
COMP_LINE="$*"; COMP_LINE=${COMP_LINE// : /:}; COMP_LINE=${COMP_LINE// = /=}; COMP_LINE=${COMP_LINE//@ /@}
COMP_POINT=${#COMP_LINE}
COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _runelctl; printf '%s\\n' "${COMPREPLY[@]}" """

    def complete(self, *words):
        """The candidates for the last of @p words, split like a line in bash."""
        return set(self.run_shell("bash", "-c", self.TRY, "bash", self.script, "runelctl", *words))

    def test_each_command_offers_its_options(self):
        tables = Tables(BINARY)
        for command in tables.commands:
            expected = {name for option in tables.options if option.command in ("", command)
                        for name in option.names if name.startswith("--")}
            self.assertEqual(self.complete(command, "--"), expected, command)

    def test_remote_paths_are_offered(self):
        there = self.remote_files()
        self.assertEqual(self.complete("cat", there + "/some"),
                         {there + "/some-directory/", there + "/some-name"})
        self.assertEqual(self.complete("-q", "ls", "-l", there + "/oth"), {there + "/other name"})
        self.assertEqual(self.complete("mv", "/x", there + "/some-n"), {there + "/some-name"})
        self.assertEqual(self.complete("-d", "127.0.0.2", "exec", there + "/some-n"),
                         {there + "/some-name"})
        self.assertEqual(self.complete("-d", "127.0.0.1", ":", "9", "cat", there + "/"), {""})

    def test_local_and_remote_paths_are_offered_to_transfers(self):
        there = self.remote_files()
        self.assertEqual(self.complete("push", "some"), {"some-file"})
        self.assertEqual(self.complete("push", "-r", "x", "some"), {"some-file"})
        self.assertEqual(self.complete("push", "x", there + "/some-n"), {there + "/some-name"})
        self.assertEqual(self.complete("pull", there + "/some-n"), {there + "/some-name"})
        self.assertEqual(self.complete("pull", "/x", "some"), {"some-file"})
        self.assertEqual(self.complete("sync", "some"), {"some-file"})
        self.assertEqual(self.complete("sync", "x", there + "/some-n"), {there + "/some-name"})

    def test_a_device_that_does_not_answer_offers_nothing(self):
        for selected in self.silent_peers():
            host, port = selected[1].split(":")
            self.assertEqual(self.complete("-d", host, ":", port, "cat", "/"), {""})

    def test_names_of_the_inventory_are_offered(self):
        self.write_inventory()
        self.assertEqual(self.complete("-d", ""), {"hall", "gw-1", "gw-2"})
        self.assertEqual(self.complete("ls", "-x", "g"), {"gw-1", "gw-2"})
        self.assertEqual(self.complete("-g", "f"), {"first", "fine"})
        self.assertEqual(self.complete("--inventory", "/none", "-g", ""), {""})
        self.assertEqual(self.complete("inventory", ""), {"check", "list"})

    def test_commands_match_the_help(self):
        self.assertEqual(self.complete(""), self.commands())
        self.assertEqual(self.complete("-q", "pin"), {"ping"})

    def test_general_and_command_options_are_offered(self):
        self.assertEqual(self.complete("--dev"), {"--device", "--device-group", "--devices"})
        self.assertEqual(self.complete("ls", "--dev"), {"--device", "--device-group", "--devices"})
        self.assertIn("-l", self.complete("ls", "-"))
        self.assertNotIn("-l", self.complete("cat", "-"))
        self.assertEqual(self.complete("reboot", "--down"), {"--down-timeout"})

    def test_transfer_options_are_offered(self):
        self.assert_transfer_options([self.complete(name, "-") for name in ("push", "sync", "pull")])
        self.assertEqual(self.complete("push", "-z", "--del"), {"--delta"})
        self.assertEqual(self.complete("push", "-rz", "--delta", "--exclude", "*.o", "some"), {"some-file"})
        self.assertEqual(self.complete("sync", "--exclude", ""), {""})

    def test_subcommands_are_offered(self):
        verbs = {"start", "list", "attach", "output", "wait", "stop", "remove"}
        self.assertEqual(self.complete("job", ""), verbs)
        self.assertEqual(self.complete("-q", "job", "--json", "sta"), {"start"})
        self.assertEqual(self.complete("job", "stop", "--gra"), {"--grace"})
        self.assertEqual(self.complete("job", "wait", "--gra"), {""})
        self.assertEqual(self.complete("job", "stop", "--signal", "T"), {"TERM"})

    def test_option_values_are_offered(self):
        self.assertEqual(self.complete("--color", ""), {"auto", "always", "never"})
        self.assertEqual(self.complete("ls", "--color", "n"), {"never"})
        self.assertEqual(self.complete("--devices", "some"), {"some-file"})
        self.assertEqual(self.complete("master", "--xml-log", ""), {"some-file"})
        self.assertEqual(self.complete("sync", "--exclude-from", ""), {"some-file"})
        self.assertEqual(self.complete("--jobs", ""), {""})

    def test_arguments_are_offered(self):
        self.assertEqual(self.complete("completion", ""), {"bash", "zsh", "fish"})
        self.assertEqual(self.complete("blinkleds", ""), {"off", "on", "slow", "fast", "alternate"})
        self.assertEqual(self.complete("cat", ""), {""})

    def test_an_option_value_is_not_the_command(self):
        self.assertEqual(self.complete("-d", "ls", "pin"), {"ping"})
        self.assertEqual(self.complete("-d", "@", "ls", "pin"), {"ping"})
        self.assertEqual(self.complete("-d", "192.0.2.1", ":", "99", "pin"), {"ping"})
        self.assertEqual(self.complete("--color", "=", "never", "pin"), {"ping"})

    def test_devices_of_the_master_are_offered(self):
        self.assertEqual(self.complete("-d", ""), {""})
        self.serve_two()
        self.assertEqual(self.complete("-d", ""), {"@north", "@south"})
        self.assertEqual(self.complete("-d", "@"), {"north", "south"})
        self.assertEqual(self.complete("ls", "--device", "@", "no"), {"north"})


class Fish(CompletionCase):
    SHELL = "fish"

    def complete(self, line):
        lines = self.run_shell("fish", "--no-config", "-c",
                               f'source {self.script}; complete -C "runelctl {line}"')
        return {offered.split("\t")[0] for offered in lines}

    def test_commands_match_the_help(self):
        self.assertEqual(self.complete(""), self.commands())
        self.assertEqual(self.complete("-q pin"), {"ping"})

    def test_general_and_command_options_are_offered(self):
        self.assertEqual(self.complete("ls --dev"), {"--device", "--device-group", "--devices"})
        self.assertIn("-l", self.complete("ls -"))
        self.assertNotIn("-l", self.complete("cat -"))
        self.assertEqual(self.complete("reboot --down"), {"--down-timeout"})

    def test_transfer_options_are_offered(self):
        self.assert_transfer_options([self.complete(name + " -") for name in ("push", "sync", "pull")])
        self.assertEqual(self.complete("push -z --del"), {"--delta"})
        self.assertEqual(self.complete("push -rz --delta --exclude x some"), {"some-file"})

    def test_subcommands_are_offered(self):
        verbs = {"start", "list", "attach", "output", "wait", "stop", "remove"}
        self.assertEqual(self.complete("job "), verbs)
        self.assertEqual(self.complete("job stop --gra"), {"--grace"})
        self.assertEqual(self.complete("job wait --gra"), set())
        self.assertEqual(self.complete("job stop --signal "), {"INT", "TERM", "HUP", "KILL"})

    def test_values_and_arguments(self):
        self.assertEqual(self.complete("--color "), {"auto", "always", "never"})
        self.assertIn("some-file", self.complete("--devices "))
        self.assertIn("some-file", self.complete("sync --exclude-from "))
        self.assertEqual(self.complete("completion "), {"bash", "zsh", "fish"})
        self.assertEqual(self.complete("blinkleds "), {"off", "on", "slow", "fast", "alternate"})
        self.assertEqual(self.complete("cat "), set())

    def test_each_command_offers_its_options(self):
        tables = Tables(BINARY)
        for command in tables.commands:
            expected = {name for option in tables.options if option.command in ("", command)
                        for name in option.names if name.startswith("--")}
            self.assertEqual(self.complete(command + " --"), expected, command)

    def test_remote_paths_are_offered(self):
        there = self.remote_files()
        self.assertEqual(self.complete(f"cat {there}/some"),
                         {there + "/some-directory/", there + "/some-name"})
        self.assertEqual(self.complete(f"-d 127.0.0.2 ls -l {there}/some-n"), {there + "/some-name"})
        self.assertEqual(self.complete(f"push x {there}/some-n"), {there + "/some-name"})

    def test_local_files_are_offered_to_transfers(self):
        for line in ("push so", "push x so", "pull /x so", "sync so"):
            self.assertEqual(self.complete(line), {"some-file"}, line)

    def test_a_device_that_does_not_answer_offers_nothing(self):
        for selected in self.silent_peers():
            self.assertEqual(self.complete(" ".join(selected) + " cat /"), set())

    def test_names_of_the_inventory_are_offered(self):
        self.write_inventory()
        self.assertEqual(self.complete("-d "), {"hall", "gw-1", "gw-2"})
        self.assertEqual(self.complete("ls -g fi"), {"first", "fine"})
        self.assertEqual(self.complete("inventory "), {"check", "list"})

    def test_devices_of_the_master_are_offered(self):
        self.serve_two()
        self.assertEqual(self.complete("-d "), {"@north", "@south"})
        self.assertEqual(self.complete("ls --device @no"), {"@north"})


class Zsh(CompletionCase):
    """zsh completes only in its line editor, so it needs a terminal."""
    SHELL = "zsh"

    def setUp(self):
        super().setUp()
        self.terminal, slave = pty.openpty()
        self.addCleanup(os.close, self.terminal)
        termios.tcsetwinsize(slave, (24, 300))  # a long line stays in one piece
        process = subprocess.Popen(["zsh", "-f", "-i"], stdin=slave, stdout=slave, stderr=slave,
                                   env=self.shell_environment(), cwd=self.path("files"),
                                   start_new_session=True)
        os.close(slave)
        self.addCleanup(self._end, process)
        self.shown = b""
        self.type("autoload -U compinit && compinit -u -D; source " + self.script +
                  "; unsetopt zle_bracketed_paste; PS1=; print -r ready${:-}-now\n")
        self.wait_shown(b"ready-now")

    def type(self, text):
        os.write(self.terminal, text.encode())

    def read(self):
        ready, _, _ = select.select([self.terminal], [], [], 0)
        if ready:
            self.shown += os.read(self.terminal, 65536)

    def wait_shown(self, text):
        def seen():
            self.read()
            return text in self.shown
        wait_until(seen, f"{text} is shown, not only {self.shown[-300:]!r}")

    def completes(self, typed, to):
        """A tab completes @p typed to @p to. The line is then discarded."""
        self.shown = b""
        self.type(typed + "\t")
        self.wait_shown(to.encode())
        self.type("\x15")

    def test_commands_options_values_and_arguments(self):
        self.completes("runelctl pin", "runelctl ping ")
        self.completes("runelctl -q pin", "runelctl -q ping ")
        self.completes("runelctl ls --dry", "runelctl ls --dry-run ")
        self.completes("runelctl reboot --dow", "runelctl reboot --down-timeout ")
        self.completes("runelctl --color alw", "runelctl --color always ")
        self.completes("runelctl ls --color nev", "runelctl ls --color never ")
        self.completes("runelctl --devices so", "runelctl --devices some-file ")
        self.completes("runelctl job sto", "runelctl job stop ")
        self.completes("runelctl job stop --gra", "runelctl job stop --grace ")
        self.completes("runelctl completion fi", "runelctl completion fish ")
        self.completes("runelctl blinkleds al", "runelctl blinkleds alternate ")
        self.completes("runelctl inventory ch", "runelctl inventory check ")

    def test_options_of_commands_are_completed(self):
        for typed, to in (("push -z --del", "--delta "), ("sync --no-d", "--no-delta "),
                          ("push --comp", "--compress "), ("sync --no-c", "--no-compress "),
                          ("pull --exclude-f", "--exclude-from "), ("push -z --exclude x so", "some-file "),
                          ("sync --exclude-from so", "some-file "), ("exec --str", "--stream "),
                          ("sh --stream --job-li", "--job-limit "), ("job start --i", "--id "),
                          ("job output --job-d", "--job-directory "), ("inventory --nam", "--names ")):
            self.completes(f"runelctl {typed}", to)

    def test_general_options_are_completed(self):
        for typed in ("device-group", "except", "inventory", "io-timeout", "memory", "offline",
                      "output-dir", "retry-unsafe", "tag", "timeout", "verbose"):
            self.completes(f"runelctl -q ls --{typed[:-1]}", f"--{typed} ")

    def test_local_files_are_offered_to_transfers(self):
        self.completes("runelctl push so", "runelctl push some-file ")
        self.completes("runelctl pull /x so", "runelctl pull /x some-file ")
        self.completes("runelctl sync so", "runelctl sync some-file ")

    def test_remote_paths_are_offered(self):
        there = self.remote_files()
        self.completes(f"runelctl cat {there}/some-n", f"{there}/some-name ")
        self.completes(f"runelctl -d 127.0.0.2 ls -l {there}/some-d", f"{there}/some-directory/")
        self.completes(f"runelctl push x {there}/oth", "other\\ name ")

    def test_a_device_that_does_not_answer_shows_nothing(self):
        for selected in self.silent_peers():
            self.shown = b""
            self.type("runelctl " + " ".join(selected) + " cat /etc/hos\t\x15print -r do''ne\n")
            self.wait_shown(b"done\r")
            self.assertNotIn(b"runelctl:", self.shown)

    def test_names_of_the_inventory_are_offered(self):
        self.write_inventory()
        self.completes("runelctl -d ha", "runelctl -d hall ")
        self.completes("runelctl ls -g fir", "runelctl ls -g first ")

    def test_devices_of_the_master_are_offered(self):
        self.serve_two()
        self.completes("runelctl -d @no", "runelctl -d @north ")


class Names(CtlCase):
    """What the scripts ask runelctl for."""

    def setUp(self):
        super().setUp()
        self.daemon()
        self.file("some-name")

    def names(self, kind, line, word=""):
        return self.succeed("complete", kind, f"runelctl {line}{word}", word).text.split()

    def test_options_of_a_program_select_no_device(self):
        there = self.path("some")
        self.assertEqual(self.names("remote", "exec cat -d 127.0.0.1:9 ", there), [self.path("some-name")])
        self.assertEqual(self.names("remote", "cat -d 127.0.0.1:9 ", there), [])

    def test_a_value_that_looks_like_an_option_selects_no_device(self):
        there = self.path("some")
        self.assertEqual(self.names("remote", "push --exclude -d 127.0.0.1:9 ", there),
                         [self.path("some-name")])

    def test_an_option_that_contains_its_value_takes_no_further_word(self):
        inventory = self.file("devices.toml", b"[devices]\nhall = \"192.0.2.1\"\n")
        for option in ("--color=never", "--color never"):
            self.assertEqual(self.names("devices", f"{option} --inventory={inventory} ls -d "), ["hall"])

    def test_a_program_with_the_name_of_a_command_is_not_one(self):
        inventory = self.file("devices.toml", b"[devices]\nhall = \"192.0.2.1\"\n")
        line = f"exec ls --inventory={inventory} -d "
        self.assertEqual(self.succeed("complete", "devices", line, "").text, "hall\n")

    def test_a_file_that_blocks_ends_it_after_two_seconds(self):
        os.mkfifo(self.path("devices.toml"))
        self.assertEqual(self.names("devices", f"--inventory {self.path('devices.toml')} -d "), [])


class Installed(MasterCase):
    """The files that `cmake --install` places in the search directories of the shells."""

    PLACES = {"bash": "bash-completion/completions/runelctl", "zsh": "zsh/site-functions/_runelctl",
              "fish": "fish/vendor_completions.d/runelctl.fish"}

    def setUp(self):
        super().setUp()
        build = os.path.dirname(os.path.dirname(BINARY))
        prefix = self.path("prefix")
        # DESTDIR keeps absolute paths inside the test's directory.
        subprocess.run(["cmake", "--install", build, "--prefix", prefix], check=True,
                       stdout=subprocess.DEVNULL, env={**os.environ, "DESTDIR": self.path("root")})
        self.root = self.path("root") + prefix
        self.share = self.root + "/share"

    def run_shell(self, *words, **env):
        result = subprocess.run(words, capture_output=True, timeout=TIMEOUT, check=False,
                                cwd=self.directory, env=self.environment({
                                    "PATH": self.root + "/bin:" + os.environ["PATH"],
                                    "TERM": "dumb", **env}))
        self.assertEqual((result.returncode, result.stderr), (0, b""), words)
        return result.stdout.decode()

    def test_installed_scripts_match_the_program(self):
        for shell, place in self.PLACES.items():
            with open(os.path.join(self.share, place), "rb") as file:
                self.assertEqual(file.read(), self.succeed("completion", shell).out, shell)
        for path in ("bin/runelctl", "sbin/runeld", "share/man/man1/runelctl.1"):
            self.assertTrue(os.path.exists(os.path.join(self.root, path)), path)

    def test_fish_finds_its_script(self):
        shown = self.run_shell("fish", "--no-config", "-c",
                               f"set fish_complete_path {self.share}/fish/vendor_completions.d; "
                               "complete -C 'runelctl pin'")
        self.assertEqual(shown.split("\t")[0], "ping")

    def test_zsh_finds_its_script(self):
        shown = self.run_shell("zsh", "-f", "-c",
                               f"fpath=({self.share}/zsh/site-functions $fpath); "
                               "autoload -U compinit; compinit -u -D; print -r $_comps[runelctl]; "
                               "whence -w _runelctl")
        self.assertEqual(shown, "_runelctl\n_runelctl: function\n")

    def test_bash_finds_its_script(self):
        shown = self.run_shell("bash", "-c", f"source {self.share}/{self.PLACES['bash']}; "
                                             "complete -p runelctl")
        self.assertEqual(shown, "complete -F _runelctl runelctl\n")


class Script(MasterCase):
    def test_another_shell_is_a_usage_error(self):
        for words in (("completion",), ("completion", "csh")):
            result = self.ctl(*words)
            self.assertEqual((result.status, result.out, len(result.errors)), (2, b"", 1), words)


if __name__ == "__main__":
    unittest.main()
