# SPDX-License-Identifier: Apache-2.0
"""One command on many devices: concurrency, order and output."""
import json
import os
import re
import select
import signal
import socket
import subprocess
import threading
import time
import unittest

from support.ctl import CtlCase, hang, reply, small_disk
from support.daemon import is_instrumented
from support.wait import TIMEOUT

REFUSED = "127.0.0.1:9"


class Fakes:
    """Devices at one port of all loopback addresses; counts the devices that work in parallel."""

    def __init__(self, case, answer=reply(b"same\n"), delay=0.0, failing=()):
        self.lock = threading.Lock()
        self.answer, self.delay, self.failing = answer, delay, set(failing)
        self.special = {}  # answers by name
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
            name = f"{address}:{self.port}"
            answer = reply(b"", (1, 0, 1, 13, 0)) if name in self.failing else self.answer
            with self.lock:
                self.busy -= 1
            connected.sendall(self.special.get(name, answer))


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

    def test_the_environment_does_not_add_to_a_list_of_devices(self):
        fakes = Fakes(self)
        a, b = fakes.names(2)
        listing = f"{a}\n".encode()
        for words in (("--devices", self.file("list", listing)), ("--devices", "-"), ("-d", a)):
            fakes.order.clear()
            self.succeed(*words, "hostid", feed=listing, env={"RUNELCTL_DEVICE": b})
            self.assertEqual(fakes.order, [a], words)

    def test_a_device_that_is_named_twice_is_served_once(self):
        fakes = Fakes(self)
        a = fakes.name(0)
        localhost = f"localhost:{fakes.port},LOCALHOST:{fakes.port}"
        self.succeed("-d", f"{a},{a}", "-d", a, "--devices", "-", "hostid", feed=f"x {a}\n".encode())
        self.succeed("-d", localhost, "hostid")
        self.assertEqual(fakes.order, [a, f"127.0.0.1:{fakes.port}"])

    def test_names_have_no_port_if_it_is_the_usual_one(self):
        objects = self.ctl("--json", "-d", "127.0.0.9:5111,127.0.0.9,127.0.0.9:5113", "hostid").objects
        self.assertEqual(sorted(one["device"] for one in objects[:-1]),
                         ["127.0.0.9", "127.0.0.9:5113"])

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
        failed = result.errors[-3].removeprefix("runelctl: ").removesuffix(": fileexists /x: "
                                                                            "Permission denied")
        self.assertIn(f"runelctl: stopped after wave 2: 1 device failed: {failed}", result.errors)
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

    def test_the_status_line_counts_failed_devices_once(self):
        fakes = Fakes(self)
        fakes.failing = {fakes.name(0)}
        names = ",".join([*fakes.names(2), REFUSED])
        _, shown = self.on_terminal("--retry", "1", "-d", names, "fileexists", "/x")
        self.assertRegex(shown, rb"\r\x1b\[K1 done, 2 failed, 0 running, 0 waiting")

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
        self.assertEqual(process.stderr.read().decode().splitlines(), [
            f"runelctl: 127.2.0.1:{where},127.2.0.2:{where}: interrupted",
            f"runelctl: 127.2.0.[3-6]:{where}: skipped",
            "runelctl: 6 devices: 0 ok, 2 failed, 0 timed out, 0 unreachable, 4 skipped"])


def exited(status, output=b""):
    """The answer about a program with this exit status."""
    return reply(output, (1 if status else 0, 2, status, 0, 0))


class Failures(CtlCase):
    """Names of devices that failed, and their outputs."""

    def setUp(self):
        super().setUp()
        self.fakes = Fakes(self, exited(0))
        self.listing = "".join(f"gw-{number + 1:02d} {name}\n"
                               for number, name in enumerate(self.fakes.names(14))).encode()

    def end(self, status, *numbers, output=b""):
        """The devices with these @p numbers end with @p status."""
        for number in numbers:
            self.fakes.special[self.fakes.name(number - 1)] = exited(status, output)

    def run_all(self, *words):
        return self.ctl(*words, "--devices", "-", "sh", "line", feed=self.listing)

    def test_devices_with_an_exit_status_are_named_at_the_end(self):
        self.end(3, *range(3, 10), 12)
        self.end(4, 1)
        result = self.run_all()
        self.assertEqual((result.status, result.text, result.errors), (4, "", [
            "runelctl: gw-01: exit status 4", "runelctl: gw-[03-09],gw-12: exit status 3",
            "runelctl: 14 devices: 5 ok, 9 failed, 0 timed out, 0 unreachable"]))

    def test_devices_that_no_message_has_named_are_named_with_quiet_too(self):
        self.end(3, 2, 4)
        self.assertEqual(self.run_all("-q").errors, ["runelctl: gw-02,gw-04: exit status 3"])
        self.listing += f"away {REFUSED}\n".encode()
        errors = self.run_all("-q").errors
        self.assertEqual(sorted(errors), [
            "runelctl: away: Connection refused (check that runeld is running on the device)",
            "runelctl: gw-02,gw-04: exit status 3"])

    def test_json_names_each_device_in_its_object(self):
        self.end(3, 2)
        result = self.run_all("--json")
        self.assertEqual(result.err, b"")
        self.assertEqual([one["device"] for one in result.objects[:-1] if not one["ok"]], ["gw-02"])

    def test_skipped_devices_are_named(self):
        self.end(3, 2)
        self.assertEqual(self.run_all("--fail-fast", "-j", "1").errors[-3:-1],
                         ["runelctl: gw-02: exit status 3", "runelctl: gw-[03-14]: skipped"])

    def test_a_stopped_wave_names_the_failed_devices(self):
        self.end(3, *range(2, 6))
        self.assertEqual(self.run_all("--wave", "6,rest").errors[0],
                         "runelctl: stopped after wave 1: 4 devices failed: gw-[02-05]")

    def test_outputs_with_different_exit_statuses_are_different_groups(self):
        self.end(0, *range(1, 15), output=b"same\n")
        self.end(3, 2, 14, output=b"same\n")
        self.end(4, 7, output=b"other")
        self.assertEqual(self.run_all().text,
                         "== gw-01,gw-[03-06],gw-[08-13] (11 devices)\nsame\n"
                         "== gw-02, gw-14 (2 devices): exit status 3\nsame\n"
                         "== gw-07: exit status 4\nother\n")
        self.assertIn("== gw-02: exit status 3\nsame\n", self.run_all("--group").text)

    def test_a_time_limit_of_the_program_counts_as_timed_out(self):
        late = reply(b"", (3, 4, -1, 110, 15))
        self.fakes.special = {self.fakes.name(0): late, self.fakes.name(1): exited(124)}
        result = self.run_all()
        self.assertEqual((result.status, result.errors[-1]), (
            124, "runelctl: 14 devices: 12 ok, 1 failed, 1 timed out, 0 unreachable"))
        self.assertIn("runelctl: gw-01: sh: exceeded its time limit", result.errors)
        self.assertEqual(self.run_all("--json").objects[-1]["summary"]["timed_out"], 1)


class Truncated(CtlCase):
    """The device keeps 16 MiB of the output of a program."""

    WHOLE = 16 << 20

    def run_with(self, size, status, *words):
        frame = exited(status, b"x" * size)

        def serve(connected):
            while connected.recv(65536):
                connected.sendall(frame)

        return self.ctl("-d", self.odd_peer(serve), *words, "sh", "line")

    def test_an_output_of_the_most_bytes_is_reported(self):
        result = self.run_with(self.WHOLE, 0)
        self.assertEqual((result.status, len(result.out), len(result.errors)), (1, self.WHOLE, 1))
        self.assertRegex(result.errors[0], r"sh: output truncated: the device keeps at most 16\.0 MiB "
                                           r"\(use --stream for the complete output\)$")

    def test_json_has_a_field_for_it(self):
        last = self.run_with(self.WHOLE, 0, "--json").objects[-1]
        self.assertEqual((last["ok"], last["status"], last["truncated"], len(last["output"])),
                         (False, 1, True, self.WHOLE))
        self.assertIn("output truncated", last["warnings"][0]["text"])
        self.assertNotIn("truncated", self.run_with(self.WHOLE - 1, 0, "--json").objects[-1])

    def test_the_exit_status_of_the_program_has_precedence(self):
        result = self.run_with(self.WHOLE, 3)
        self.assertEqual((result.status, len(result.errors)), (3, 1))

    def test_a_shorter_output_is_complete(self):
        result = self.run_with(self.WHOLE - 1, 0)
        self.assertEqual((result.status, len(result.out), result.err), (0, self.WHOLE - 1, b""))

    def test_the_real_device_truncates_there(self):
        self.daemon()
        result = self.ctl("sh", "head -c 20000000 /dev/zero")
        self.assertEqual((result.status, len(result.out)), (1, self.WHOLE))


class Memory(CtlCase):
    """Many devices with much output. The sanitizer, with which no memory is compared, gets less."""

    SIZE, LIMIT = (5_000_000, "16M") if is_instrumented() else (16_000_000, "64M")

    def start_big(self, count, *words):
        """Runs on @p count devices with a different output each. Returns exit status, number of
        bytes on standard output and peak memory in bytes."""
        common = memoryview(b"x" * (self.SIZE - 100))

        def serve(connected):
            while connected.recv(65536):
                head = connected.getsockname()[0].encode().rjust(99) + b"\n"
                record = b"SlaveTask 0 0 %d:" % self.SIZE
                tail = b" 0 2 0 0 0"
                connected.sendall(b"\x01%d\x02" % (len(record) + self.SIZE + len(tail)) + record + head)
                connected.sendall(common)
                connected.sendall(tail)

        port = self.odd_peer(serve, "0.0.0.0").split(":")[1]
        names = ",".join(f"127.3.0.{number}:{port}" for number in range(1, count + 1))
        process = self.start("-q", "-d", names, *words, "sh", "line", stderr=subprocess.DEVNULL)
        size = 0
        while part := process.stdout.read(1 << 20):
            size += len(part)
        _, status, usage = os.wait4(process.pid, 0)
        process.returncode = os.waitstatus_to_exitcode(status)
        return process.returncode, size, usage.ru_maxrss * 1024

    def check(self, count, most, *words):
        status, size, peak = self.start_big(count, *words)
        self.assertEqual(status, 0)
        self.assertGreaterEqual(size, count * self.SIZE)
        self.assertLess(size, count * (self.SIZE + 2000))
        print(f"peak {peak >> 20} MiB with {count} devices {' '.join(words)}")
        if not is_instrumented():  # the sanitizer retains freed memory
            self.assertLess(peak, most << 20)

    def test_fifty_outputs_fit_into_the_default_limit(self):
        self.check(50, 400)

    def test_a_smaller_limit_is_respected(self):
        self.check(20, 200, "--memory", self.LIMIT)

    def test_json_and_prefixed_outputs_fit_too(self):
        for option in ("--json", "--prefix", "--group"):
            self.check(20, 230, "--memory", self.LIMIT, option)

    def test_without_a_temporary_directory_no_output_is_lost(self):
        os.environ["TMPDIR"], before = "/no/such", os.environ["TMPDIR"]
        self.addCleanup(os.environ.__setitem__, "TMPDIR", before)
        status, size, _ = self.start_big(4, "--memory", "16M")
        self.assertEqual((status, size >= 4 * self.SIZE), (0, True))

    def test_an_answer_that_is_too_long_for_its_task_is_refused_when_it_is_announced(self):
        for task, size in ((("hostid",), 70_000), (("exec", "x"), 17_000_000),
                           (("stat", "/"), 70_000), (("read", "/x"), 268435457)):
            def serve(connected, size=size):
                connected.recv(65536)
                connected.sendall(b"\x01%d\x02SlaveTask" % size)
                hang(connected)

            result = self.ctl("-d", self.odd_peer(serve), "--deadline", "20", *task)
            self.assertEqual(result.status, 255)
            self.assertRegex(result.errors[0], "answer exceeds the size limit|a count above")


class Kept(CtlCase):
    """Outputs that are kept in files."""

    def setUp(self):
        super().setUp()
        self.fakes = Fakes(self, exited(0, b"same"))

    def kept(self):
        return {name: self.content(f"out/{name}") for name in os.listdir(self.path("out"))}

    def test_each_device_has_its_files_beside_the_output(self):
        a, b = self.fakes.names(2)
        self.fakes.special[b] = exited(3, b"\xff\n")
        words = ("-j", "1", "--output-dir", "out", "-d", f"{a},{b},{REFUSED}", "sh", "line")
        result = self.ctl(*words)
        self.assertEqual(result.out, f"== {a}\nsame\n== {b}: exit status 3\n".encode() + b"\xff\n")
        refused = (f"runelctl: {REFUSED}: Connection refused "
                   "(check that runeld is running on the device)\n").encode()
        self.assertEqual(self.kept(), {
            f"{a}.out": b"same", f"{a}.err": b"", f"{b}.out": b"\xff\n", f"{b}.err": b"",
            f"{REFUSED}.out": b"", f"{REFUSED}.err": refused})
        for arrange in ("--prefix", "--group"):
            self.ctl(arrange, *words)
            self.assertEqual(self.kept()[f"{a}.out"], b"same")

    def test_one_device_has_its_files_too(self):
        name = self.fakes.name(0)
        self.assertEqual(self.succeed("--output-dir", "out", "-d", name, "exec", "x").out, b"same")
        self.assertEqual(self.kept(), {f"{name}.out": b"same", f"{name}.err": b""})

    def test_json_is_kept_as_json(self):
        a, b = self.fakes.names(2)
        result = self.ctl("--json", "--output-dir", "out", "-d", f"{a},{b}", "cat", "/x", "/y")
        kept = [json.loads(line) for line in self.kept()[f"{a}.out"].splitlines()]
        self.assertEqual([one for one in result.objects if one.get("device") == a], kept)
        self.assertEqual(len(kept), 3)

    def test_the_name_of_a_device_does_not_lead_out_of_the_directory(self):
        names = self.fakes.names(4)
        listing = "".join(f"{evil} {name}\n" for evil, name in zip(
            ("../../up", "/etc/x", "..", "a/../../b"), names)).encode()
        before = set(os.listdir(self.directory))
        self.succeed("-q", "--output-dir", "out", "--devices", "-", "sh", "line", feed=listing)
        self.assertEqual(set(os.listdir(self.directory)) - before, {"out"})
        self.assertEqual({name for name in self.kept() if name.endswith(".out")},
                         {"%2e.%2f..%2fup.out", "%2fetc%2fx.out", "%2e..out",
                          "a%2f..%2f..%2fb.out"})

    def test_a_link_in_the_directory_is_replaced(self):
        name = self.fakes.name(0)
        victim = self.file("victim", b"untouched")
        os.mkdir(self.path("out"))
        os.symlink(victim, self.path(f"out/{name}.out"))
        self.succeed("--output-dir", "out", "-d", name, "sh", "line")
        self.assertEqual((self.content("victim"), self.kept()[f"{name}.out"]),
                         (b"untouched", b"same"))

    def test_an_unusable_directory_is_an_error_before_anything_runs(self):
        self.file("out", b"")
        result = self.ctl("--output-dir", "out", "-d", self.fakes.name(0), "sh", "line")
        self.assertEqual((result.status, result.errors), (1, ["runelctl: out: Not a directory"]))
        self.assertEqual(self.fakes.order, [])

    def test_a_full_disk_is_an_error(self):
        small_disk(self, "out", 65536)
        both = self.fakes.names(2)
        self.fakes.answer = exited(0, b"x" * 200_000)
        result = self.ctl("--output-dir", "out", "-d", ",".join(both), "sh", "line")
        self.assertEqual((result.status, len(result.out) > 200_000), (1, True))
        self.assertIn(f"runelctl: out/{both[0]}.out: No space left on device", result.errors)

    def test_a_dry_run_writes_no_file(self):
        self.ctl("-n", "--output-dir", "out", "-d", self.fakes.name(0), "sh", "line")
        self.assertFalse(os.path.exists(self.path("out")))


class InfoTable(CtlCase):
    def test_info_on_several_devices_is_a_table(self):
        self.daemon()
        names = ["127.0.0.1", "127.0.0.2", "127.0.0.3"]
        lines = self.ctl("-d", ",".join(names), "info").text.splitlines()
        self.assertRegex(lines[0], r"^DEVICE +HOSTID +TYPE +KERNEL +HOSTNAME +UPTIME +FREE +VERSION$")
        self.assertEqual([line.split()[0] for line in lines[1:]], names)
        self.assertRegex(lines[1], rf" {re.escape(os.uname().release)} .* \d+ days, .* [KMG]iB +-$")
        rows = self.ctl("-q", "-d", ",".join(names), "info").text.splitlines()
        self.assertEqual([row.split()[0] for row in rows], names)
        self.assertIn("127.0.0.2: hostid:",
                      self.ctl("--prefix", "-d", ",".join(names), "info").text)

    def test_a_device_without_answers_is_left_out(self):
        self.daemon()
        result = self.ctl("-d", f"127.0.0.1,{REFUSED}", "info")
        self.assertEqual((result.status, len(result.text.splitlines())), (255, 2))


class Bytes(CtlCase):
    def test_the_status_line_has_the_bytes_of_all_devices(self):
        self.daemon()
        big = self.file("big", bytes(48 << 20))
        both = "127.0.0.1,127.0.0.2"
        status, shown = self.on_terminal("-d", both, "pull", big, self.path("back"), columns=120)
        self.assertEqual(status, 0, shown)
        self.assertRegex(shown, rb"running, \d+ waiting; [\d.]+ .?i?B of [\d.]+ MiB")
        self.assertRegex(shown, rb" of [\d.]+ MiB [\d.]+ [KMG]iB/s \d+:\d\d")


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
        # One line for each device when it fails, and one for each reason at the end.
        self.assertEqual(len(result.errors), 203)
        self.assertEqual([line.split(": ")[-1] for line in result.errors[-3:-1]],
                         ["no answer for 15 s", "Connection refused"])
        self.assertLessEqual(fakes.most, 200)


if __name__ == "__main__":
    unittest.main()
