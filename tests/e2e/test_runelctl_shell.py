# SPDX-License-Identifier: Apache-2.0
"""runelctl shell, on a terminal and in a pipe."""
import os
import pty
import re
import select
import stat
import subprocess
import unittest

from support.ctl import BINARY, CtlCase, reply
from support.wait import TIMEOUT, wait_until

# Control sequences such as colors, cursor movements and bells.
CONTROL = re.compile(rb"\x07|\r\x1b\[\d+G|\x1b\[[0-9;?]*[A-Za-z]|\x1b[=>]")


class InPipe(CtlCase):
    """Lines from a pipe: no prompt, no echo."""

    def setUp(self):
        super().setUp()
        self.device = self.daemon()

    def feed(self, *lines, options=()):
        return self.ctl(*options, "shell", feed="\n".join(lines).encode() + b"\n")

    def test_commands_run_one_after_the_other(self):
        self.file("a", b"content\n")
        result = self.feed(f"cat {self.path('a')}", "", "# nothing", "exec -- echo 'b  c'")
        self.assertEqual((result.status, result.out, result.err), (0, b"content\nb  c\n", b""))

    def test_all_commands_use_one_connection(self):
        self.feed("exec --background sleep 1000", "kill", "wait")
        self.assertEqual(self.log.count(r"accepted connection.*"), 1)

    def test_the_directory_applies_to_remote_paths(self):
        os.makedirs(self.path("one/two"))
        self.file("one/two/f", b"x")
        result = self.feed("pwd", f"cd {self.directory}/one", "pwd", "cd two/../two", "ls", "cat f", "cd -",
                           "pwd", "cd", "pwd")
        self.assertEqual(result.text.splitlines(),
                         ["/", f"{self.directory}/one", "f", f"x{self.directory}/one", "/"])

    def test_programs_run_in_the_directory(self):
        os.makedirs(self.path("some where"))
        where = self.path("some where")
        result = self.feed(f"cd '{where}'", "exec pwd", "sh pwd", "exec -- sh -c 'echo \"$0 $1\"' a 'b  c'",
                           "exec --timeout 1 sleep 60", "cd /", "exec pwd", "exec no-such-program")
        self.assertEqual((result.status, result.text.splitlines()[:4]),
                         (127, [where, where, "a b  c", "/"]))
        self.assertEqual(result.errors, ["runelctl: 127.0.0.1: sleep: exceeded its time limit"])

    def test_nothing_runs_elsewhere_when_the_directory_is_gone(self):
        where = self.path("where")
        os.mkdir(where)
        result = self.feed(f"cd {where}", f"rm -r {where}", "sh 'true; echo ran'", "exec echo ran")
        self.assertNotIn("ran\n", result.text)
        self.assertNotEqual(result.status, 0)

    def test_the_inventory_applies_to_its_lines(self):
        os.makedirs(self.path(".config/runelctl"))
        self.file(".config/runelctl/devices.toml",
                  b'[devices]\nhall = { address = "127.0.0.1", timeout = 1 }\nroof = "127.0.0.2"\n'
                  b'[groups]\nboth = ["hall", "roof"]\n')
        result = self.feed("fileexists /", "-x roof exec sleep 60", "-d roof exec echo up",
                           options=("-q", "-g", "both"))
        self.assertEqual((result.status, result.out), (0, b"up\n"), result)
        self.assertEqual(result.errors, ["runelctl: hall: sleep: exceeded its time limit"])

    def test_programs_need_no_shell_before_the_first_cd(self):
        result = self.feed("exec no-such-program")
        self.assertEqual((result.status, result.errors),
                         (127, ["runelctl: 127.0.0.1: no-such-program: No such file or directory"]))

    def test_the_device_has_the_same_name_as_outside(self):
        result = self.feed("hostid", "-d 127.0.0.1:5111 hostid", options=("--json",))
        self.assertEqual([one["device"] for one in result.objects], ["127.0.0.1"] * 2)
        listing = self.file("list", b"hall 127.0.0.1\n")
        result = self.feed("hostid", options=("--json", "--devices", listing))
        self.assertEqual([one["device"] for one in result.objects], ["hall"])

    def test_an_option_of_a_program_does_not_select_a_device(self):
        result = self.feed("exec echo -d x", options=("--json", "-d", "127.0.0.2"))
        self.assertEqual([(one["device"], one["output"]) for one in result.objects],
                         [("127.0.0.2", "-d x\n")])

    def test_cd_requires_an_existing_directory(self):
        path = self.file("plain")
        result = self.feed(f"cd {path}", "pwd", "cd /no/such", "pwd")
        self.assertEqual(result.text, "/\n/\n")
        self.assertEqual(result.errors, [f"runelctl: {path}: Not a directory",
                                         "runelctl: /no/such: No such file or directory"])

    def test_cd_takes_one_directory(self):
        result = self.feed("cd /etc /run", "pwd")
        self.assertEqual((result.text, result.errors), ("/\n", ["runelctl: cd: too many arguments"]))

    def test_the_directory_of_several_devices_is_not_checked(self):
        result = self.feed("cd /no/such", "pwd", options=("-d", "127.0.0.1,127.0.0.2"))
        self.assertEqual((result.status, result.text, result.err), (0, "/no/such\n", b""))

    def test_a_failure_does_not_end_it_and_its_exit_status_is_the_last_one(self):
        result = self.feed("sh 'exit 3'", "no-such-command", "cat 'unfinished", "shell", "exec echo on",
                           "sh 'exit 7'")
        self.assertEqual((result.status, result.out, len(result.errors)), (7, b"on\n", 3))

    def test_exit_ends_it_with_a_status(self):
        self.assertEqual(self.feed("exit 5", "exec echo no").status, 5)
        self.assertEqual(self.feed("sh 'exit 4'", "quit", "exec echo no").status, 4)

    def test_quotes_and_backslashes_form_words(self):
        name = self.path("a 'b' \"c\" #d")
        self.file("a 'b' \"c\" #d", b"found")
        for typed in (f"cat {self.directory}/a\\ \\'b\\'\\ \\\"c\\\"\\ \\#d",
                      f"""cat {self.directory}/"a 'b' \\"c\\" #d\"""",
                      f"cat {self.directory}/'a '\\''b'\\'' \"c\" #d' # comment"):
            self.assertEqual(self.feed(typed).out, b"found", (typed, name))

    def test_the_local_directory_can_be_changed(self):
        os.mkdir(self.path("local"))
        self.file("local/data", b"sent")
        self.assertEqual(self.feed(f"lcd {self.path('local')}",
                                   f"push data {self.path('copy')}").err, b"")
        self.assertEqual(self.content("copy"), b"sent")
        self.assertEqual(self.feed("lcd /no/such").status, 1)

    def test_the_local_directory_is_the_home_directory_by_default(self):
        os.mkdir(self.path("local"))
        self.file("local/data", b"elsewhere")
        self.file("data", b"at home")
        result = self.feed(f"lcd {self.path('local')}", "lcd", f"push data {self.path('copy')}")
        self.assertEqual((result.status, result.err), (0, b""))
        self.assertEqual(self.content("copy"), b"at home")

    def test_options_apply_to_every_line(self):
        result = self.feed("fileexists /", "fileexists /none", options=("--json",))
        self.assertEqual([object["ok"] for object in result.objects], [True, False])

    def test_a_line_may_select_another_device(self):
        result = self.feed("-d 127.0.0.1:9 hostid", "hostid")
        self.assertEqual((result.status, len(result.errors), result.out.count(b"\n")), (0, 1, 1))

    def test_several_devices_run_in_parallel(self):
        result = self.feed("exec echo hi", options=("-d", "127.0.0.1,127.0.0.2"))
        self.assertEqual(result.status, 0)
        self.assertIn(b"(2 devices)\nhi\n", result.out)

    def test_a_lost_connection_is_opened_again(self):
        process = self.start("shell", stdin=subprocess.PIPE)
        process.stdin.write(b"exec echo 1\n")
        process.stdin.flush()
        self.assertEqual(process.stdout.readline(), b"1\n")
        self.assertEqual(self.device.stop(), 0)
        self.daemon()
        process.stdin.write(b"exec echo 2\n")
        process.stdin.close()
        self.assertEqual(process.stdout.readline(), b"2\n")
        self.assertEqual((process.wait(TIMEOUT), process.stderr.read()), (0, b""))

    def test_an_interrupted_raw_command_does_not_dump_later_replies(self):
        connections = []

        def serve(connected):
            connections.append(connected)
            while connected.recv(65536):
                if len(connections) > 1:
                    connected.sendall(reply(b"host"))

        raw = "--deadline 1 raw 'SlaveTask 1 6:hostid 0 0: 0 0 0 0 0'"
        result = self.feed(raw, "hostid", options=("-d", self.odd_peer(serve)))
        self.assertEqual(result.status, 0, result)
        self.assertEqual(len(connections), 2)
        self.assertTrue(result.text.endswith("\nhost\n"), result.text)
        self.assertNotIn("reply,", result.text)


class Terminal(CtlCase):
    def setUp(self):
        super().setUp()
        self.device = self.daemon()

    def open(self, *options):
        self.end, slave = pty.openpty()
        self.addCleanup(os.close, self.end)
        self.process = subprocess.Popen([BINARY, *options, "shell"], stdin=slave, stdout=slave,
                                        stderr=slave, cwd=self.directory, start_new_session=True,
                                        preexec_fn=self.take_terminal,
                                        env=self.environment({"TERM": "xterm"}))
        os.close(slave)
        self.addCleanup(self._end, self.process)
        self.shown = b""
        self.wait_shown("> ")

    @staticmethod
    def take_terminal():
        import fcntl
        import termios
        fcntl.ioctl(0, termios.TIOCSCTTY, 0)

    def read(self):
        ready, _, _ = select.select([self.end], [], [], 0)
        if ready:
            try:
                self.shown += os.read(self.end, 65536)
            except OSError:
                pass  # the process has ended
        return CONTROL.sub(b"", self.shown).decode(errors="replace")

    def wait_shown(self, text):
        try:
            wait_until(lambda: text in self.read(), f"{text!r} is shown")
        except AssertionError as error:
            raise AssertionError(f"{error}, but {self.shown!r}") from None

    def type(self, text, shown):
        self.shown = b""
        os.write(self.end, text.encode())
        self.wait_shown(shown)

    def leave(self):
        wait_until(lambda: self.read().endswith("> "), "the prompt is there")
        os.write(self.end, b"\x04")
        self.assertEqual(self.process.wait(TIMEOUT), 0)

    def test_the_prompt_names_device_and_directory(self):
        self.open()
        self.assertIn("127.0.0.1:/> ", self.read())
        self.type(f"cd {self.directory}\r", f"127.0.0.1:{self.directory}> ")
        self.leave()

    def test_commands_and_options_are_completed(self):
        self.open()
        self.type("pin\t", "ping")
        self.type("--cou\t", "--count")
        self.type("1\r", "round trip min/median/max")
        self.wait_shown("> ")
        self.type("--color alw\t", "always")
        self.type("\x15fre\t/et\t\r", "freeblocks /etc/")
        self.leave()

    def test_remote_paths_are_completed(self):
        os.makedirs(self.path("some-directory"))
        self.file("some-directory/a b'c", b"odd name\n")
        self.file("some-directory/\x1b[2J", b"")
        self.open()
        self.type(f"cd {self.directory}\r", f"{self.directory}> ")
        self.type("cat som\t", "some-directory/")
        self.type("\t\r", "odd name")
        self.wait_shown("> ")
        self.type("cd so\t\r", "some-directory> ")
        self.leave()

    def test_local_paths_are_completed(self):
        os.makedirs(self.path("some-directory"))
        self.file("some-directory/here", b"sent")
        self.open()
        self.type("push som\t", "some-directory/")
        self.type(f"he\t{self.path('copy')}\r", "> ")
        self.leave()
        self.assertEqual(self.content("copy"), b"sent")

    def test_the_prompt_counts_several_devices(self):
        self.open("-d", "127.0.0.1,127.0.0.2")
        self.assertIn("2 devices:/> ", self.read())
        self.leave()

    def test_several_candidates_are_listed(self):
        self.open()
        self.type("re\t", "re")
        self.type("\t", "readdir")
        for name in ("realpath", "reboot", "rename", "restart"):
            self.wait_shown(name)
        self.type("\x15\r", "> ")
        self.leave()

    def test_the_history_is_private_and_persistent(self):
        self.open()
        self.type("exec echo one\r", "\none")
        self.wait_shown("> ")
        self.leave()
        path = self.path(".local/state/runelctl/history")
        self.assertEqual(stat.S_IMODE(os.stat(path).st_mode), 0o600)
        self.open()
        self.type("\x1b[A", "exec echo one")
        self.type("\r", "\none")
        self.leave()

    def test_an_interrupt_discards_the_line_or_stops_a_command(self):
        self.open()
        self.type("exec echo never", "never")
        self.type("\x03", "> ")
        self.type("exec sleep 1000\r", "1000")
        wait_until(self.sleeping, "the program runs")
        self.type("\x03", "interrupted")
        self.wait_shown("> ")
        self.type("pwd\r", "\n/")
        self.leave()

    @staticmethod
    def sleeping():
        for name in os.listdir("/proc"):
            try:
                with open(f"/proc/{name}/comm", encoding="ascii") as comm:
                    if comm.read() == "sleep\n":
                        return True
            except (OSError, UnicodeDecodeError):
                continue
        return False

    def test_a_device_that_does_not_answer_does_not_block_the_line_editor(self):
        came = []

        def listen(connected):
            while data := connected.recv(65536):
                came.append(data)

        where = self.odd_peer(listen)
        self.open("-d", where)
        self.type("cat /et\tx\r", "/etx")
        wait_until(lambda: any(b"4:/etx" in data for data in came), "the command runs")
        self.type("\x03", "interrupted")
        self.type("pwd\r", "\n/")
        self.leave()


if __name__ == "__main__":
    unittest.main()
