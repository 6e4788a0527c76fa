# SPDX-License-Identifier: Apache-2.0
"""One command on many devices: concurrency, order and output."""
import os
import re
import select
import signal
import socket
import threading
import time
import unittest

from support.ctl import CtlCase, hang, reply
from support.wait import TIMEOUT

REFUSED = "127.0.0.1:9"


class Fakes:
    """Devices at one port of all loopback addresses; counts the devices that work in parallel."""

    def __init__(self, case, answer=reply(b"same\n"), delay=0.0, failing=()):
        self.lock = threading.Lock()
        self.answer, self.delay, self.failing = answer, delay, set(failing)
        self.busy = self.most = 0  # devices with a pending request
        self.order = []
        self.port = int(case.odd_peer(self._serve, "0.0.0.0").split(":")[1])

    def name(self, number):
        return f"127.1.{number // 250}.{number % 250 + 1}:{self.port}"

    def names(self, count):
        return [self.name(number) for number in range(count)]

    def _serve(self, connected):
        address = connected.getsockname()[0]
        with self.lock:
            self.order.append(f"{address}:{self.port}")
        while connected.recv(65536):
            with self.lock:
                self.busy += 1
                self.most = max(self.most, self.busy)
            time.sleep(self.delay)  # the duration of the task
            bad = f"{address}:{self.port}" in self.failing
            with self.lock:
                self.busy -= 1
            connected.sendall(reply(b"", (1, 0, 1, 13, 0)) if bad else self.answer)


class Where(CtlCase):
    def test_device_lists_are_combined_without_duplicates(self):
        fakes = Fakes(self)
        a, b, c = fakes.names(3)
        objects = self.succeed("--json", "-d", f"{a}, {b}", "-d", c, "-d", a, "hostid").objects
        self.assertEqual(sorted(one["device"] for one in objects[:-1]), sorted([a, b, c]))
        self.assertEqual(objects[-1]["summary"]["ok"], 3)

    def test_devices_are_read_from_a_file(self):
        fakes = Fakes(self)
        a, b = fakes.names(2)
        listing = f"# all of them\n\nfirst {a}  # the first\n{b}\n".encode()
        for words in (("--devices", self.file("list", listing)), ("--devices", "-")):
            objects = self.succeed("--json", *words, "hostid", feed=listing).objects
            self.assertEqual(sorted(one["device"] for one in objects[:-1]), sorted(["first", b]))

    def test_an_error_in_the_file_names_its_line(self):
        for content, pattern in ((b"a b c\n", "line 1: too many fields"),
                                 (b"\nx:y\n", "line 2: invalid port"),
                                 (b"#\n", "list: no devices listed")):
            result = self.ctl("--devices", self.file("list", content), "hostid")
            self.assertEqual(result.status, 2)
            self.assertRegex(result.errors[0], pattern)
        self.assertRegex(self.ctl("--devices", "/none", "hostid").errors[0], "No such file")

    def test_an_unknown_host_name_is_reported_in_one_line(self):
        result = self.ctl("-d", "no-such-host.invalid", "hostid")
        self.assertEqual(result.status, 255)
        self.assertRegex(result.errors[0], r"no-such-host\.invalid: .*\(check the host name\)")
        self.assertEqual(len(result.errors), 1)

    def test_a_host_name_is_resolved(self):
        self.daemon()
        self.assertEqual(self.succeed("-d", "localhost", "fileexists", "/").out, b"")


class Together(CtlCase):
    def test_the_number_of_parallel_devices_is_limited(self):
        fakes = Fakes(self, delay=0.02)
        self.succeed("-q", "-j", "3", "-d", ",".join(fakes.names(30)), "hostid")
        self.assertEqual(len(fakes.order), 30)
        self.assertLessEqual(fakes.most, 3)
        self.assertGreater(fakes.most, 1)

    def test_identical_outputs_are_printed_once(self):
        fakes = Fakes(self)
        names = fakes.names(3)
        result = self.ctl("-d", ",".join(names), "-j", "1", "read", "/x")
        self.assertEqual(result.text, f"== {', '.join(names)} (3 devices)\nsame\n")
        self.assertEqual(result.errors, ["runelctl: 3 devices: 3 ok, 0 failed, 0 timed out, "
                                         "0 unreachable"])

    def test_prefix_and_group_print_the_name(self):
        fakes = Fakes(self, reply(b"one\ntwo"))
        a, b = fakes.names(2)
        words = ("-q", "-j", "1", "-d", f"{a},{b}", "read", "/x")
        self.assertEqual(self.succeed("--prefix", *words).text,
                         "".join(f"{name}: {line}\n" for name in (a, b) for line in ("one", "two")))
        self.assertEqual(self.succeed("--group", *words).text,
                         f"== {a}\none\ntwo\n== {b}\none\ntwo\n")
        self.assertEqual(self.ctl("--group", "--prefix", *words).status, 2)

    def test_the_exit_status_is_the_highest_one(self):
        fakes = Fakes(self)
        fakes.failing = {fakes.name(1)}
        both = ",".join(fakes.names(2))
        self.assertEqual(self.ctl("-d", both, "unlink", "/x", "-y").status, 1)
        result = self.ctl("-d", f"{both},{REFUSED}", "fileexists", "/x")
        self.assertEqual(result.status, 255)
        self.assertIn("3 devices: 1 ok, 1 failed, 0 timed out, 1 unreachable", result.errors[-1])
        self.assertIn(f"runelctl: {REFUSED}: Connection refused "
                      "(check that runeld is running on the device)", result.errors)

    def test_json_ends_with_a_summary(self):
        fakes = Fakes(self)
        result = self.ctl("--json", "-d", f"{fakes.name(0)},{REFUSED}", "hostid")
        self.assertEqual(result.objects[-1], {"v": 1, "task": "hostid", "summary": {
            "ok": 1, "failed": 0, "timed_out": 0, "unreachable": 1, "skipped": 0}})
        self.assertEqual(result.err, b"")

    def test_fail_fast_starts_no_device_after_a_failure(self):
        fakes = Fakes(self)
        names = fakes.names(5)
        fakes.failing = {names[1]}
        result = self.ctl("--fail-fast", "-j", "1", "-d", ",".join(names), "fileexists", "/x")
        self.assertEqual((result.status, fakes.order), (1, names[:2]))
        self.assertIn("1 ok, 1 failed, 0 timed out, 0 unreachable, 3 skipped", result.errors[-1])

    def test_transient_failures_are_retried(self):
        tries = []

        def second_time(connected):
            tries.append(1)
            if len(tries) > 1 and connected.recv(65536):
                connected.sendall(reply(b"ok\n"))

        def serve(connected):
            second_time(connected)
            connected.close()

        where = self.odd_peer(serve)
        self.assertEqual(self.ctl("-d", where, "read", "/x").status, 255)
        self.assertEqual(self.succeed("-d", where, "--retry", "2", "read", "/x").out, b"ok\n")
        tries.clear()
        self.assertEqual(self.succeed("-d", where, "--retry", "1", "read", "/x").out, b"ok\n")
        self.assertEqual(len(tries), 2)

    def test_permanent_failures_are_not_retried(self):
        fakes = Fakes(self)
        fakes.failing = {fakes.name(0)}
        self.assertEqual(self.ctl("--retry", "5", "-d", fakes.name(0), "fileexists", "/x").status, 1)
        self.assertEqual(len(fakes.order), 1)

    def test_a_deadline_limits_the_time_for_a_device(self):
        where = self.odd_peer(hang)
        result = self.ctl("--deadline", "0.3", "-d", where, "hostid")
        self.assertEqual((result.status, result.errors),
                         (255, [f"runelctl: {where}: deadline exceeded"]))
        self.assertTrue(self.ctl("--json", "--deadline", "0.3", "-d", where, "hostid")
                        .objects[0]["retry"])


class Retries(CtlCase):
    """Connections that are lost when a request has arrived: the task may have run."""

    LOST = "the device closed the connection"
    HINT = " (it is unknown whether the task ran: check, then run it again)"

    def lose(self, task, *words):
        """Runs @p words on a device that closes the connection at each request for @p task.
        Returns the error, without the device's name, and the number of these requests."""
        arrived = []

        def serve(connected):
            while True:
                data = connected.recv(65536)
                if not data or b":" + task in data:
                    arrived.extend([task] if data else [])
                    return connected.close()
                connected.sendall(reply(b"", (1, 0, 1, 2, 0)))

        where = self.odd_peer(serve)
        result = self.ctl("-d", where, "--retry", "1", *words)
        self.assertEqual((result.status, len(result.errors)), (255, 1), result)
        return result.errors[0].partition(f"{where}: ")[2], len(arrived)

    def test_a_task_that_may_have_run_is_not_repeated(self):
        for task, *words in ((b"append", "append", "/x", "data"), (b"exec", "exec", "reboot"),
                             (b"exec", "sh", "reboot"), (b"exec", "rm", "-r", "/x"),
                             (b"kill", "kill"), (b"reboot", "reboot"), (b"wait", "wait"),
                             (b"rename", "rename", "/x", "/y"), (b"rename", "mv", "/x", "/y"),
                             (b"unlink", "unlink", "/x"), (b"unlink", "rm", "/x"),
                             (b"unlink", "raw", "SlaveTask 2 6:unlink 2:/x 0 0: 0 0 0 0 0")):
            self.assertEqual(self.lose(task, *words), (self.LOST + self.HINT, 1), words)

    def test_a_task_that_is_safe_to_repeat_is_repeated(self):
        for task, *words in ((b"write", "write", "/x", "data"), (b"chmodx", "chmodx", "/x"),
                             (b"read", "read", "/x")):
            self.assertEqual(self.lose(task, *words), (self.LOST, 2), words)

    def test_a_later_request_that_is_safe_to_repeat_does_not_repeat_the_earlier_ones(self):
        served = []

        def serve(connected):
            for answer in (reply(b"boot 1"), reply()):  # to read and reboot
                served.append(connected.recv(65536))
                connected.sendall(answer)
            hang(connected)

        result = self.ctl("-d", self.odd_peer(serve), "--retry", "1", "--deadline", "2", "reboot",
                          "--wait")
        self.assertEqual(result.status, 255)
        self.assertRegex(result.errors[0], re.escape(
            "deadline exceeded (not repeated, because a task of the command has run)") + "$")
        self.assertEqual(sum(b":reboot" in data for data in served), 1)

    def test_a_deadline_does_not_repeat_a_program(self):
        arrived = []

        def serve(connected):
            arrived.append(connected.recv(65536))
            hang(connected)

        where = self.odd_peer(serve)
        result = self.ctl("-d", where, "--retry", "2", "--deadline", "2", "exec", "sleep")
        self.assertEqual((result.status, result.errors, len(arrived)), (
            255, [f"runelctl: {where}: deadline exceeded (sleep continues on the device until it ends, "
                  "without a limit; the device serves no other request meanwhile)"], 1))

    def test_a_transfer_is_repeated(self):
        self.daemon()
        os.mkdir(self.path("here"))
        for number in range(5):
            self.file(f"here/{number}", b"content")
        cut = []

        def serve(connected):
            with socket.create_connection(("127.0.0.1", 5111)) as daemon:
                ways = {connected: daemon, daemon: connected}
                while True:
                    for source in select.select(list(ways), [], [])[0]:
                        data = source.recv(65536)
                        ways[source].sendall(data)
                        if not data or (not cut and b":exec" in data):
                            cut.append(data)
                            return connected.close()

        where = self.odd_peer(serve)
        self.succeed("-q", "-d", where, "--retry", "1", "sync", self.path("here"), self.path("there"))
        self.assertIn(b":exec", cut[0])
        self.assertEqual(self.content("there/4"), b"content")


class Waves(CtlCase):
    def waves(self, wave, failing=(), *words):
        fakes = Fakes(self, delay=0.01)
        names = fakes.names(20)
        fakes.failing = {names[number] for number in failing}
        result = self.ctl("--wave", wave, *words, "-d", ",".join(names), "fileexists", "/x")
        return result, [names.index(name) for name in fakes.order]

    def test_a_wave_starts_when_the_previous_one_has_finished(self):
        result, order = self.waves("1,10%,rest")
        self.assertEqual(result.status, 0)
        self.assertEqual((order[0], sorted(order[1:3]), sorted(order)), (0, [1, 2], list(range(20))))

    def test_a_failure_stops_the_next_wave(self):
        result, order = self.waves("1,10%,rest", [2])
        self.assertEqual((result.status, sorted(order)), (1, [0, 1, 2]))
        self.assertIn("runelctl: stopped after wave 2: 1 device failed", result.errors)
        self.assertIn("17 skipped", result.errors[-1])

    def test_max_fail_tolerates_failures(self):
        result, order = self.waves("1,10%,rest", [2, 5], "--max-fail", "1")
        self.assertEqual((result.status, len(order)), (1, 20))
        result, order = self.waves("2,rest", [0, 1], "--max-fail", "1")
        self.assertEqual((result.status, len(order)), (1, 2))

    def test_failed_devices_are_stored_and_retried_by_the_next_run(self):
        fakes = Fakes(self)
        names = fakes.names(4)
        fakes.failing = set(names[1:3])
        words = ("--retry-failed", "failed", "-j", "1", "-d", ",".join(names), "fileexists", "/x")
        self.assertEqual(self.ctl(*words).status, 1)
        self.assertEqual(self.content("failed").decode().split(), names[1:3])
        fakes.failing = {names[2]}
        self.assertEqual(self.ctl(*words).status, 1)
        self.assertEqual(self.content("failed").decode().split(), [names[2]])
        fakes.failing, fakes.order = set(), []
        self.assertEqual(self.ctl(*words).status, 0)
        self.assertEqual((fakes.order, self.content("failed")), ([names[2]], b""))
        result = self.ctl(*words)
        self.assertEqual((result.status, result.errors),
                         (0, ["runelctl: nothing to do: none of the devices is listed in failed"]))


class Danger(CtlCase):
    def test_destructive_commands_on_several_devices_need_a_confirmation(self):
        fakes = Fakes(self)
        both = ",".join(fakes.names(2))
        for words in (("rm", "/x"), ("unlink", "/x"), ("rename", "/x", "/y"), ("mv", "/x", "/y"),
                      ("reboot",), ("restart",), ("sync", "--delete", self.directory, "/x"), ("kill",)):
            result = self.ctl("-d", both, *words)
            self.assertEqual((result.status, result.errors), (2, [
                f"runelctl: {words[0]} on 2 devices is destructive: confirm with --yes"]), words)
        self.assertEqual(fakes.order, [])
        self.assertEqual(self.ctl("-d", both, "--yes", "rm", "/x").status, 0)
        self.assertEqual(self.ctl("-d", fakes.name(0), "rm", "/x").status, 0)

    def test_a_terminal_asks_for_confirmation(self):
        fakes = Fakes(self)
        both = ",".join(fakes.names(2))
        for answer, status, asked in ((b"n\n", 2, 0), (b"\n", 2, 0), (b"y\n", 0, 2)):
            done, shown = self.on_terminal("-d", both, "rm", "/x", typed=[(b"[y/N] ", answer)])
            self.assertIn(b"rm on 2 devices? [y/N] ", shown)
            self.assertEqual((done, len(fakes.order)), (status, asked))

    def test_reboots_are_sequential_by_default(self):
        fakes = Fakes(self, reply(), delay=0.02)
        eight = ",".join(fakes.names(8))
        self.assertEqual(self.ctl("-q", "-y", "-d", eight, "reboot").status, 0)
        self.assertEqual(fakes.most, 1)
        self.assertEqual(self.ctl("-q", "-y", "-j", "8", "-d", eight, "reboot").status, 0)
        self.assertGreater(fakes.most, 1)

    def test_a_dry_run_prints_devices_and_frames_and_sends_nothing(self):
        fakes = Fakes(self)
        a, b = fakes.names(2)
        result = self.ctl("-n", "--prefix", "-d", f"{a},{b}", "rm", "/x")
        self.assertEqual(result.status, 0)
        self.assertEqual(sorted(result.text.splitlines()), sorted(
            f"{name}: <- SlaveTask 2 6:unlink 2:/x 0 0: 0 0 0 0 0" for name in (a, b)))
        self.assertEqual(fakes.order, [])


class Shown(CtlCase):
    def test_a_status_line_is_shown_only_on_a_terminal(self):
        fakes = Fakes(self, delay=0.05)
        status, shown = self.on_terminal("-j", "2", "-d", ",".join(fakes.names(12)), "hostid")
        self.assertEqual(status, 0)
        self.assertRegex(shown, rb"\r\x1b\[K\d+ done, 0 failed, \d running, \d+ waiting")
        self.assertTrue(shown.endswith(b"12 ok, 0 failed, 0 timed out, 0 unreachable\r\n"), shown[-99:])
        status, shown = self.on_terminal("-q", "-j", "2", "-d", ",".join(fakes.names(4)), "fileexists",
                                         "/")
        self.assertEqual((status, shown), (0, b""))

    def test_the_status_line_fits_a_narrow_terminal(self):
        fakes = Fakes(self, delay=0.05)
        _, shown = self.on_terminal("-j", "2", "-d", ",".join(fakes.names(8)), "fileexists", "/",
                                    columns=20)
        live = re.findall(rb"\r\x1b\[K([^\r\n]+)", shown)
        self.assertTrue(live)
        self.assertLess(max(len(line) for line in live[:-1]), 20)

    def test_an_interrupt_reports_skipped_devices(self):
        asked = threading.Semaphore(0)

        def never_answer(connected):
            while connected.recv(65536):
                asked.release()

        where = self.odd_peer(never_answer, "0.0.0.0").split(":")[1]
        names = ",".join(f"127.2.0.{number}:{where}" for number in range(1, 7))
        process = self.start("-j", "2", "-d", names, "hostid")
        for _ in range(2):
            self.assertTrue(asked.acquire(timeout=TIMEOUT))
        process.send_signal(signal.SIGINT)
        self.assertEqual(process.wait(TIMEOUT), 130)
        self.assertIn(b"6 devices: 0 ok, 2 failed, 0 timed out, 0 unreachable, 4 skipped",
                      process.stderr.read())


class AThousand(CtlCase):
    def test_a_hundred_hanging_and_a_hundred_refusing_devices_do_not_block_the_others(self):
        fakes = Fakes(self)
        hanging = self.odd_peer(hang, "0.0.0.0").split(":")[1]
        with socket.socket() as closed:  # bound but not listening, so the port refuses connections
            closed.bind(("0.0.0.0", 0))
            refusing = closed.getsockname()[1]
            names = [fakes.name(number) for number in range(1000)]
            for number in range(0, 1000, 5):
                address = names[number].split(":")[0]
                names[number] = f"{address}:{refusing if number % 10 else hanging}"
            listing = "".join(f"d{number} {name}\n" for number, name in enumerate(names))
            result = self.ctl("--devices", "-", "--io-timeout", "15", "-j", "200", "fileexists", "/",
                              feed=listing.encode())
        self.assertEqual(result.status, 255)
        self.assertEqual(result.errors[-1], "runelctl: 1000 devices: 800 ok, 0 failed, "
                                            "100 timed out, 100 unreachable")
        self.assertEqual(len(result.errors), 201)
        self.assertLessEqual(fakes.most, 200)


if __name__ == "__main__":
    unittest.main()
