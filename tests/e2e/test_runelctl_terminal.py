# SPDX-License-Identifier: Apache-2.0
"""No byte of a device reaches a terminal as a control character, in any command."""
import json
import os
import pty
import re
import select
import signal
import socket
import subprocess
import termios
import time
import unittest

from check_runelctl_used import Tables
from support.ctl import BINARY, CtlCase, reply
from support.fakes import FRAME, FakeDevice
from support.wait import TIMEOUT
from support.wire import parse_record

SOURCES = os.path.join(os.path.dirname(__file__), "../../runelctl")

# A title, a color, an overwritten line, a bell, a CSI as one byte and as UTF-8, a text direction,
# an incomplete character.
HOSTILE = (b"\x1b]0;evil\x07\x1b[31mred\rover\x08\x7f\x9b2J\xc2\x9b2J\xe2\x80\xae\xff\x01end\xe2\x82")
CLAUSE = b"<a>%s</a>" % HOSTILE.replace(b"\x01", b"")  # a clause has no frame bytes
SHOWN = b"\\x1b]0;evil\\x07\\x1b[31mred\\rover\\x08\\x7f"
STAT = (b"dev=1 ino=1 mode=%s nlink=1 uid=0 gid=0 rdev=0 size=3 blksize=4096 blocks=8 "
        b"atime=1.000000000 mtime=1.000000000 ctime=1.000000000\n")
ANSWERS = {
    b"readdir": b"StringVec 1\n%d:%s\n" % (len(HOSTILE), HOSTILE),
    b"walktree": b"d 0755 0 0 0 1 .\n- 0644 0 0 3 1 %s\nl 0777 0 0 3 1 a -> %s\n" % (HOSTILE, HOSTILE),
    b"stat": STAT % b"0040755",
    b"lstat": STAT % b"0100644",
}
# The arguments of each command. A new command fails the test until it has a row here.
ON_DEVICES = {
    "access": ("/x", "4"), "append": ("/x", "y"), "blinkleds": ("on",), "cat": ("/x",),
    "changeleds": ("1", "0"), "chmodx": ("/x",), "devicetype": (), "df": ("/x",),
    "exec": ("program",), "fileexists": ("/x",), "freeblocks": ("/x",), "hostid": (), "info": (),
    "job attach": ("a",), "job list": (), "job output": ("a",), "job remove": ("a",),
    "job start": ("x",), "job stop": ("a",), "job wait": ("a",), "kill": (), "ls": ("-l", "/x"), "lstat": ("/x",), "mv": ("/x", "/y"), "ping": ("-c", "1"), "probe": (),
    "processrunning": ("x",), "ps": ("x",), "pull": ("-r", "/x", "back"), "push": ("local", "/x"),
    "raw": ("SlaveTask 1 6:hostid 0 0: 0 0 0 0 0",), "read": ("/x",), "readdir": ("/x",),
    "realpath": ("/x",), "reboot": (), "rename": ("/x", "/y"), "restart": (), "rm": ("-r", "/x"),
    "sh": ("line",), "stat": ("--raw", "/x"), "sync": ("tree", "/x"), "tree": ("/x",),
    "unlink": ("/x",), "updateumstate": ("key", "text"), "wait": (), "walktree": ("/x",),
    "write": ("/x", "y"),
}
# Commands with dedicated tests below.
LOCAL = {"agent", "completion", "devices", "inventory", "master", "shell"}
# Commands that print bytes of the device, so that this test can fail.
PRINTING = ("cat", "devicetype", "exec", "freeblocks", "hostid", "info", "ls", "read", "readdir",
            "realpath", "sh", "tree", "walktree")
# Commands that do not print the text of a refusal: they ignore it, or read it as a list.
NOT_PRINTING = ("info", "ping", "probe", "push", "reboot", "restart", "sync", "tree")


def acting(shown):
    """The characters of @p shown that a terminal does not just print."""
    text = shown.replace(b"\r\n", b"\n").decode(errors="surrogateescape")
    return [character for character in text
            if (character < " " and character not in "\n\t") or "\x7f" <= character <= "\x9f"
            or "\ud800" <= character <= "\udfff" or character in "\u061c\u200e\u200f\u2028\u2029\ufeff"
            or "\u202a" <= character <= "\u202e" or "\u2066" <= character <= "\u2069"]


class OnTerminal(CtlCase):
    """Runs with standard output and standard error on a terminal that changes no byte."""

    def setUp(self):
        super().setUp()
        self.refusing = False
        self.file("local", b"x")
        os.mkdir(self.path("tree"))
        self.file("tree/file", b"x")
        self.port = self.odd_peer(self.serve, "0.0.0.0").split(":")[1]

    def serve(self, connected):
        data = b""
        while more := connected.recv(65536):
            data += more
            while (head := FRAME.match(data)) and len(data) >= head.end() + int(head[1]):
                end = head.end() + int(head[1])
                request, data = data[head.end():end], data[end:]
                connected.sendall(self.answer(parse_record(request).arguments[0]))

    def answer(self, task):
        if self.refusing:
            return reply(HOSTILE, (4, 0, 1, 71, 0))
        return reply(ANSWERS.get(task, HOSTILE))

    def open(self, *words, feed=b"", **options):
        """Starts a run. Returns the process and the other end of its terminal."""
        master, slave = pty.openpty()
        attributes = termios.tcgetattr(slave)
        attributes[1] &= ~termios.OPOST
        termios.tcsetattr(slave, termios.TCSANOW, attributes)
        process = self.start("--color", "never", "-y", *words, stdin=subprocess.PIPE, stdout=slave,
                             stderr=slave, **options)
        os.close(slave)
        self.addCleanup(os.close, master)
        process.stdin.write(feed)
        process.stdin.close()
        return process, master

    def read(self, master, done=lambda shown: False):
        """The output until the process closes the terminal or @p done."""
        shown = b""
        deadline = time.monotonic() + TIMEOUT
        while not done(shown):
            self.assertLess(time.monotonic(), deadline, shown)
            if select.select([master], [], [], 1)[0]:
                try:
                    shown += os.read(master, 65536)
                except OSError:
                    break
        return shown

    def shown(self, *words, feed=b""):
        process, master = self.open("-q", *words, feed=feed)  # without a status line
        shown = self.read(master)
        process.wait(TIMEOUT)
        self.assertEqual(acting(shown), [], (words, shown))
        return shown

    def device(self, number=1):
        return f"127.0.0.{number}:{self.port}"


class EveryCommand(OnTerminal):
    def test_every_command_has_its_arguments_here(self):
        tables = Tables(BINARY)
        self.assertEqual(sorted(set(tables.commands) - tables.parents), sorted([*ON_DEVICES, *LOCAL]),
                         "add the command to ON_DEVICES, or to LOCAL with a test")

    def test_answers_are_escaped(self):
        for command, words in ON_DEVICES.items():
            shown = self.shown("-d", self.device(), *command.split(), *words)
            if command in PRINTING:
                self.assertIn(SHOWN, shown, command)

    def test_refusals_are_escaped(self):
        self.refusing = True
        for command, words in ON_DEVICES.items():
            shown = self.shown("-d", self.device(), *command.split(), *words)
            if command not in NOT_PRINTING:
                self.assertIn(b"evil", shown, command)

    def test_answers_of_several_devices_are_escaped(self):
        both = f"{self.device(1)},{self.device(2)}"
        for command, words in ON_DEVICES.items():
            shown = self.shown("--prefix", "-d", both, *command.split(), *words)
            if command in PRINTING:
                self.assertGreaterEqual(shown.count(SHOWN), 2, command)
        for command in ("cat", "exec", "info", "ls"):
            for arrange in ((), ("--group",)):
                self.assertIn(SHOWN, self.shown(*arrange, "-d", both, command, *ON_DEVICES[command]))

    def test_plans_are_escaped(self):
        for words in (("pull", "-r", "/x", "back"), ("sync", "--delete", "tree", "/x")):
            self.assertIn(SHOWN, self.shown("-n", "-d", self.device(), *words))
            self.assertIn(SHOWN, self.shown("-v", "-d", self.device(), *words))

    def test_json_is_escaped_and_valid(self):
        for command, words in ON_DEVICES.items():
            for line in self.shown("--json", "-d", self.device(), *command.split(), *words).splitlines():
                self.assertEqual(json.loads(line)["v"], 1)
        ANSWERS[b"read"] = "\x9b2J\u202e\x7f".encode()
        self.addCleanup(ANSWERS.pop, b"read")
        lines = self.shown("--json", "-d", self.device(), "read", "/x").splitlines()
        self.assertEqual(json.loads(lines[0])["output"], "\x9b2J\u202e\x7f")


class LocalCommands(OnTerminal):
    def test_the_lines_of_a_shell_are_escaped(self):
        shown = self.shown("-d", self.device(), "shell",
                           feed=b"hostid\ncat /x\ncd /x\npwd\nhelp\nls\nexec a\n")
        self.assertGreaterEqual(shown.count(SHOWN), 4)

    def test_a_completion_script_is_unchanged(self):
        for shell in ("bash", "zsh", "fish"):
            self.assertEqual(self.shown("completion", shell), self.succeed("completion", shell).out)

    def test_the_clauses_of_an_agent_are_escaped(self):
        def serve(connected):
            connected.recv(65536)
            connected.sendall(CLAUSE + b"\r\n")
            while connected.recv(65536):
                pass

        shown = self.shown("-d", self.odd_peer(serve), "agent", "--linger", "1", feed=b"<b/>")
        self.assertIn(SHOWN, shown)

    def test_the_events_and_the_devices_of_a_master_are_escaped(self):
        class Stranger(FakeDevice):
            def answer(self, request):
                return reply(HOSTILE)

        environment = {"RUNELCTL_SOCKET": self.path("socket")}
        for json_option in ((), ("--json",)):
            process, master = self.open(*json_option, "master", "--xml", env=environment)
            shown = self.read(master, lambda text: b"listening" in text)
            device = Stranger(self)
            shown += self.read(master, lambda text: b"connected" in text or b"refused" in text)
            agent = FakeDevice(self, greeting=CLAUSE)
            shown += self.read(master, lambda text: b"end" in text or b"clause_base64" in text)
            listed, other = self.open(*json_option, "devices", env=environment)
            shown += self.read(other)
            listed.wait(TIMEOUT)
            device.close()
            agent.close()
            process.send_signal(signal.SIGTERM)
            shown += self.read(master)
            process.wait(TIMEOUT)
            self.assertEqual(acting(shown), [], shown)


    def test_the_json_of_another_master_stays_valid(self):
        with socket.socket(socket.AF_UNIX) as listener:
            listener.bind(self.path("socket"))
            listener.listen()
            listed, master = self.open("--json", "devices", env={"RUNELCTL_SOCKET": self.path("socket")})
            connected, _ = listener.accept()
            with connected:
                connected.recv(65536)
                connected.sendall('{"v":1,"hostid":"\x9b2J\u202e"}\n'.encode())
            shown = self.read(master)
        self.assertEqual((listed.wait(TIMEOUT), acting(shown)), (0, []))
        self.assertEqual(json.loads(shown)["hostid"], "\x9b2J\u202e")


class Streams(OnTerminal):
    """Output of a running program, on standard output and on standard error."""

    def setUp(self):
        super().setUp()
        self.daemon()
        self.line = f"cat {self.file('hostile', HOSTILE)}; cat {self.file('hostile', HOSTILE)} >&2"

    def test_streamed_output_is_escaped(self):
        for words in ((), ("--json",)):
            shown = self.shown(*words, "sh", "--stream", self.line)
            self.assertEqual(shown.count(SHOWN), 0 if words else 2, shown)

    def test_streamed_output_of_several_devices_is_escaped(self):
        # Two names of one device: only one start succeeds.
        for words in ((), ("--prefix",), ("--group",)):
            shown = self.shown(*words, "-d", "127.0.0.1,127.0.0.2", "sh", "--stream", self.line)
            self.assertEqual(shown.count(SHOWN), 2, shown)

    def test_the_command_of_a_job_is_escaped(self):
        self.succeed("job", "start", "--id", "a", "--", "true", HOSTILE)
        self.assertIn(b"\\x1b]0;evil", self.shown("job", "list"))


class Exact(OnTerminal):
    def test_output_to_a_pipe_or_a_file_is_unchanged(self):
        for command in ("hostid", "read", "exec", "readdir"):
            words = ("-d", self.device(), command, *ON_DEVICES[command])
            self.assertIn(HOSTILE, self.succeed(*words).out, command)
            with open(self.path("out"), "wb") as file:
                self.assertEqual(self.start(*words, stdout=file).wait(TIMEOUT), 0)
            self.assertIn(HOSTILE, self.content("out"), command)

    def test_text_stays_readable_on_a_terminal(self):
        text = "one\ttab \\n é €\r\ntwo\n".encode()
        ANSWERS[b"read"] = text
        self.addCleanup(ANSWERS.pop, b"read")
        self.assertEqual(self.shown("-d", self.device(), "cat", "/x"), text)

    def test_a_character_that_arrives_in_two_files_is_not_assembled(self):
        ANSWERS[b"read"] = b"\xe2\x82"
        self.addCleanup(ANSWERS.pop, b"read")
        self.assertEqual(self.shown("--group", "-d", f"{self.device(1)},{self.device(2)}", "cat", "/x")
                         .count(b"\\xe2\\x82\n"), 2)


class Sources(unittest.TestCase):
    def test_one_file_writes_to_standard_output(self):
        direct = re.compile(r"STDOUT_FILENO|std::cout|\b(?:printf|puts|putchar|fputs|fwrite)\(")
        found = set()
        for directory, _, files in os.walk(SOURCES):
            for name in files:
                with open(os.path.join(directory, name), encoding="utf-8") as source:
                    if direct.search(source.read()):
                        found.add(name)
        # style.cc only asks whether it is a terminal.
        self.assertEqual(found, {"standard_output.cc", "style.cc"})


if __name__ == "__main__":
    unittest.main()
