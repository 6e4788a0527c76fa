# SPDX-License-Identifier: Apache-2.0
"""Limits of programs and of waits, and what runelctl says when a task may still run."""
import os
import re
import select
import signal
import socket
import subprocess
import threading
import unittest

from support.ctl import CtlCase, answer_each, hang, reply, requests
from support.wait import TIMEOUT, wait_until

UNKNOWN = "it is unknown whether the task ran: check, then run it again"
MEANWHILE = "; the device serves no other request meanwhile"
WITHOUT_LIMIT = "continues on the device until it ends, without a limit" + MEANWHILE
NO_LIMIT = "sleep " + WITHOUT_LIMIT
HUNDREDFOLD = os.environ.get("RUNELD_HUNDREDFOLD_CLOCK", "")


class ProgramLimit(CtlCase):
    """--timeout is the limit of a program, --io-timeout the limit of a silence."""

    def test_the_device_ends_a_program_after_its_limit(self):
        self.daemon()
        for words in (("--timeout", "1", "exec", "sleep", "60"), ("--timeout", "1", "sh", "sleep 60"),
                      ("exec", "--timeout", "1", "sleep", "60"), ("sh", "--timeout", "1", "sleep 60"),
                      ("--timeout", "60", "exec", "--timeout", "1", "sleep", "60")):
            result = self.ctl(*words)
            self.assertEqual(result.status, 124, (words, result))
            self.assertIn("exceeded its time limit", result.errors[0])

    def test_the_io_timeout_does_not_end_a_program(self):
        self.daemon()
        line = "sleep 1; echo done"
        self.assertEqual(self.succeed("--io-timeout", "0.2", "sh", line).out, b"done\n")
        self.assertEqual(self.succeed("--io-timeout", "0.2", "sh", "--timeout", "100", line).out, b"done\n")

    def test_commands_without_a_program_refuse_it(self):
        for words in (("hostid",), ("push", "a", "/b"), ("rm", "-r", "/x"), ("wait",), ("master",)):
            result = self.ctl("--timeout", "5", *words)
            self.assertEqual((result.status, len(result.errors)), (2, 1), words)
            self.assertIn("see --io-timeout and --deadline", result.errors[0])
        result = self.ctl("--timeout", "5", "exec", "--background", "true")
        self.assertEqual((result.status, result.errors),
                         (2, ["runelctl: exec: --background excludes --timeout"]))

    def test_it_applies_to_the_lines_of_a_shell(self):
        self.daemon()
        result = self.ctl("--timeout", "1", "shell",
                          feed=b"fileexists /\nexec sleep 60\nexec --background true\nexit\n")
        self.assertEqual((result.status, len(result.errors)), (0, 1), result)
        self.assertIn("sleep: exceeded its time limit", result.errors[0])


class Busy(CtlCase):
    """A device that runs a program answers no client: it is shown, and the wait continues."""

    def setUp(self):
        super().setUp()
        self.may_answer = threading.Event()

    def serve(self, connected):
        for _ in requests(connected):
            self.may_answer.wait(TIMEOUT)
            connected.sendall(reply(b"done\n", (0, 2, 0, 0, 0)))

    def test_a_silent_device_is_shown_as_busy_and_not_ended(self):
        where = self.odd_peer(self.serve)
        status, shown = self.on_terminal("-d", where, "--io-timeout", "0.5", "exec", "long",
                                         typed=[(b"busy for ", self.may_answer.set)])
        self.assertEqual(status, 0, shown)
        self.assertRegex(shown, rb"\r\x1b\[K" + where.encode() + rb": busy for \d+ s")
        self.assertTrue(shown.endswith(b"\r\x1b[Kdone\r\n"), shown)

    def test_the_status_line_names_the_devices_that_are_awaited(self):
        port = self.odd_peer(self.serve, "0.0.0.0").split(":")[1]
        quick = self.odd_peer(answer_each(reply(b"quick\n")), "127.0.0.3")
        status, shown = self.on_terminal(
            "-d", f"127.0.0.2:{port},{quick}", "exec", "long", columns=120,
            typed=[(f"1 running, 0 waiting; awaiting 127.0.0.2:{port}".encode(), lambda: None),
                   (f"awaiting 127.0.0.2:{port} (busy for ".encode(), self.may_answer.set)])
        self.assertEqual(status, 0, shown)
        self.assertIn(b"(busy for ", shown)


class Waiting(CtlCase):
    """Devices that hang, beside devices that answer."""

    def setUp(self):
        super().setUp()
        self.may_answer = threading.Event()

    def serve(self, connected):
        for words in requests(connected):
            if connected.getsockname()[0] == "127.0.9.9":
                self.may_answer.wait(TIMEOUT)
            connected.sendall(reply(b"same\n"))

    def read_line(self, process):
        """The next line of output; empty after a minute without one."""
        ready, _, _ = select.select([process.stdout], [], [], 60)
        return process.stdout.readline() if ready else b""

    def test_a_device_that_hangs_does_not_hold_back_the_outputs_of_the_others(self):
        port = self.odd_peer(self.serve, "0.0.0.0").split(":")[1]
        names = [f"127.0.9.{number}:{port}" for number in (1, 2, 9)]
        process = self.start("-d", ",".join(names), "read", "/x", bufsize=0)
        self.assertEqual(self.read_line(process), f"== {names[0]}, {names[1]} (2 devices)\n".encode())
        self.assertEqual(self.read_line(process), b"same\n")
        self.assertIsNone(process.poll())
        self.may_answer.set()
        self.assertEqual(process.stdout.read(), f"== {names[2]}\nsame\n".encode())
        self.assertEqual(process.wait(TIMEOUT), 0)

    def test_several_devices_have_a_deadline_by_default(self):
        where = self.odd_peer(hang, "0.0.0.0").split(":")[1]
        both = f"127.0.0.2:{where},127.0.0.3:{where}"
        env = {"LD_PRELOAD": HUNDREDFOLD}  # the deadline of 600 s takes 6 s
        words = ("--connect-timeout", "1000000", "exec", "sleep", "700")
        one = self.start("-d", f"127.0.0.2:{where}", *words, env=env)
        endless = self.start("-d", both, "--deadline", "0", *words, env=env)
        result = self.ctl("-d", both, *words, env=env)
        self.assertEqual((result.status, len(result.errors)), (255, 4), result)
        for error in result.errors[:2]:
            self.assertIn("deadline exceeded (the default with several devices is 600 s: see --deadline; "
                          + NO_LIMIT, error)
        self.assertEqual(result.errors[2], f"runelctl: {both}: deadline exceeded")
        self.assertIn("0 ok, 0 failed, 2 timed out", result.errors[3])
        self.assertEqual((one.poll(), endless.poll()), (None, None))
        self.assertIn("--deadline SECONDS limit for each attempt on a device; 0: none (default: 600 with "
                      "several devices, none with one)", " ".join(self.succeed("--help").text.split()))

    def test_the_default_deadline_of_a_transfer_is_about_its_silence(self):
        def serve(connected):
            for words in requests(connected):
                if words[0] == "exec":
                    return hang(connected)
                connected.sendall(reply(b"", (1, 0, 1, 2, 0) if "stat" in words[0] else (0, 0, 0, 0, 0)))

        where = self.odd_peer(serve, "0.0.0.0").split(":")[1]
        result = self.ctl("-d", f"127.0.0.2:{where},127.0.0.3:{where}", "--connect-timeout", "1000000",
                          "--io-timeout", "1000000", "push", self.file("a", b"x"), "/a",
                          env={"LD_PRELOAD": HUNDREDFOLD})
        self.assertEqual((result.status, len(result.errors)), (255, 4), result)
        self.assertIn("deadline exceeded (the default with several devices is 600 s: see --deadline; "
                      "chmod continues on the device", result.errors[0])


class Continues(CtlCase):
    """runelctl leaves, and the device continues a program."""

    def interrupt(self, *words):
        """The outputs of a run of sleep that is interrupted while the program runs."""
        self.daemon()
        process = self.start(*words, "sh", "-c", f"touch {self.path('runs')}; exec sleep 6000")
        wait_until(lambda: os.path.exists(self.path("runs")), "the program runs")
        process.send_signal(signal.SIGINT)
        out, err = process.communicate(timeout=TIMEOUT)
        self.assertEqual(process.returncode, 130)
        return out.decode(), err.decode()

    def test_an_interrupt_says_that_the_program_continues_and_until_when(self):
        _, err = self.interrupt("exec", "--timeout", "5000")
        match = re.fullmatch(r"runelctl: 127\.0\.0\.1: interrupted \(sh continues on the device for up "
                             rf"to (\d+) s \(its limit is 5000 s\){MEANWHILE}\)\n", err)
        self.assertTrue(match, err)
        self.assertTrue(5000 - TIMEOUT < int(match[1]) <= 5000, err)

    def test_a_program_without_a_limit_continues_until_it_ends(self):
        _, err = self.interrupt("exec")
        self.assertEqual(err, f"runelctl: 127.0.0.1: interrupted (sh {WITHOUT_LIMIT})\n")

    def test_in_json_it_has_fields(self):
        out, _ = self.interrupt("--json", "--timeout", "5000", "exec")
        self.assertRegex(out, r'"ok":false,"status":130,.*"outcome":"unknown".*"continues":"sh",'
                              r'"continues_s":\d+\}\n$')

    def test_a_deadline_says_the_same(self):
        where = self.odd_peer(hang)
        result = self.ctl("-d", where, "--deadline", "1", "exec", "sleep", "60")
        self.assertEqual((result.status, result.errors),
                         (255, [f"runelctl: {where}: deadline exceeded ({NO_LIMIT})"]))

    def test_a_wait_for_a_background_program_continues(self):
        where = self.odd_peer(hang)
        result = self.ctl("-d", where, "--deadline", "1", "wait")
        self.assertEqual(result.errors, [
            f"runelctl: {where}: deadline exceeded (the background program continues on the device until "
            f"it ends, without a limit{MEANWHILE})"])

    def test_a_task_with_a_bounded_time_does_not(self):
        where = self.odd_peer(hang)
        result = self.ctl("-d", where, "--deadline", "1", "read", "/x")
        self.assertEqual(result.errors, [f"runelctl: {where}: deadline exceeded"])


class Unknown(CtlCase):
    """The request was sent and not answered."""

    @staticmethod
    def close_at(*tasks):
        def serve(connected):
            for words in requests(connected):
                if words[0] in tasks:
                    return connected.close()
                connected.sendall(reply(b"one\n"))
        return serve

    def test_a_reboot_without_an_answer_is_unknown_and_not_failed(self):
        where = self.odd_peer(self.close_at("reboot"), "0.0.0.0").split(":")[1]
        answers = self.odd_peer(answer_each(reply()))
        words = ("-y", "-d", f"127.0.0.2:{where},{answers}", "reboot")
        result = self.ctl(*words)
        self.assertEqual(result.status, 255)
        self.assertIn(f"runelctl: 127.0.0.2:{where}: the device closed the connection ({UNKNOWN})",
                      result.errors)
        self.assertIn("1 ok, 0 failed, 0 timed out, 0 unreachable, 1 unknown", result.errors[-1])
        lost, summary = [one for one in self.ctl("--json", *words).objects if not one.get("ok")]
        self.assertEqual((lost["outcome"], lost["status"], lost["where"]), ("unknown", 255, "link"))
        self.assertEqual((summary["summary"]["unknown"], summary["summary"]["failed"]), (1, 0))

    def test_a_reboot_of_a_silent_device_is_unknown(self):
        where = self.odd_peer(hang, "0.0.0.0").split(":")[1]
        result = self.ctl("-y", "--io-timeout", "0.5", "-d", f"127.0.0.2:{where},127.0.0.3:{where}",
                          "reboot")
        self.assertEqual(result.status, 255)
        self.assertIn("0 ok, 0 failed, 0 timed out, 0 unreachable, 2 unknown", result.errors[-1])

    def test_a_task_that_is_not_safe_to_repeat_is_unknown_also_without_retries(self):
        for task, *words in (("exec", "exec", "x"), ("append", "append", "/x", "y"),
                             ("rename", "mv", "/x", "/y"), ("unlink", "rm", "/x")):
            where = self.odd_peer(self.close_at(task))
            self.assertEqual(self.ctl("-d", where, *words).errors,
                             [f"runelctl: {where}: the device closed the connection ({UNKNOWN})"])
            self.assertEqual(self.ctl("--json", "-d", where, *words).objects[-1]["outcome"], "unknown")

    def test_a_task_that_is_safe_to_repeat_is_only_lost(self):
        where = self.odd_peer(self.close_at("write"))
        self.assertEqual(self.ctl("-d", where, "write", "/x", "y").errors,
                         [f"runelctl: {where}: the device closed the connection"])
        self.assertNotIn("outcome", self.ctl("--json", "-d", where, "write", "/x", "y").objects[-1])

    def test_a_lost_transfer_reports_the_earlier_failure_of_a_file_too(self):
        self.daemon()
        os.makedirs(self.path("here"))
        os.makedirs(self.path("there/here/a"))
        for name in ("a", "b"):
            self.file("here/" + name, b"x")
        def serve(connected):
            with socket.create_connection(("127.0.0.1", 5111)) as daemon:
                ways = {connected: daemon, daemon: connected}
                while True:
                    for source in select.select(list(ways), [], [])[0]:
                        data = source.recv(65536)
                        if not data or b":chmod" in data:
                            return connected.close()
                        ways[source].sendall(data)

        where = self.odd_peer(serve)
        result = self.ctl("-d", where, "push", "-r", self.path("here"), self.path("there"))
        self.assertEqual((result.status, result.errors), (255, [
            f"runelctl: {where}: {self.path('there/here/a')}: Is a directory",
            f"runelctl: {where}: the device closed the connection"]))


class CutOff(CtlCase):
    """A firewall drops every packet: the connection ends after a minute, with or without a limit."""

    def test_a_device_that_acknowledges_nothing_is_lost(self):
        self.daemon()
        far = "127.0.0.2"
        idle = self.start("-d", far, "exec", "sleep", "1000")
        self.log.wait_for("accepted connection.*")
        other = self.odd_peer(answer_each(reply(b"here\n")), far)
        shell = self.start("-d", other, "shell", stdin=subprocess.PIPE)
        shell.stdin.write(b"read /x\n")
        shell.stdin.flush()
        self.assertEqual(shell.stdout.readline(), b"here\n")
        subprocess.run(["nft", "-f", "-"], check=True, text=True, input=(
            "table ip cut {\nchain input {\ntype filter hook input priority 0\n"
            f"ip saddr {far} drop\nip daddr {far} drop\n}}\n}}\n"))
        self.addCleanup(subprocess.run, ["nft", "flush", "ruleset"], check=True)
        shell.stdin.write(b"exec sleep 1000\n")
        shell.stdin.close()
        for process in (shell, idle):
            self.assertEqual(process.wait(TIMEOUT), 255)
            self.assertIn(b"connection lost: the device acknowledges no data (check that the device is "
                          b"on, and its network; it is unknown whether the task ran",
                          process.stderr.read())


if __name__ == "__main__":
    unittest.main()
