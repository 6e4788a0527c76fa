# SPDX-License-Identifier: Apache-2.0
"""The systemd unit in a booted tree: each line that changes something has a test that fails without it.

`LINES` names the test of each line; test_service_lines.py runs each of them without its line. The lines of
`TEXT` repeat a default or order the start: tests/packaging checks that they are there.
"""
import json
import re
import resource
import subprocess
import tempfile
import time
import unittest

from support.peers import AGENT_PORT, Master
from support.wait import wait_until
from support.wire import request
from trees.service import BINARY, DROP_IN, TIMEOUT, UNIT, ServiceCase, drop_in, unit_lines, unit_text

RUNNING = (2, 1, 0, 0, 0)  # the fields of a reply about a program in the background
BACKGROUND = -1
HOLDER = ("import socket; s = socket.socket(); s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1); "
          f"s.bind(('', {AGENT_PORT})); s.listen(); s.accept()")
REFUSAL = r"another runeld, process \d+, has port 5111: not started"
RETRY = r"\(\d+\) failed to listen on the only port \(5111\), retrying"
BANNER = r"\(\d+\) start runeld \(\d+\) =+"
NO_PEER = r"\(\d+\) handleMessage: no peer_ link, buffering '.*'"
NOT_DELIVERED = r"\(\d+\) write: error( write failed)? on socket \d+ \(\d+, .*\)"
UNKNOWN_TASK = r"\(\d+\) unknown cmd: no such task"

# The line, the test that fails without it, and a part of what that failure says.
LINES = (
    ("Description=Device daemon of the update manager", "Start.test_its_purpose_is_listed", "Device daemon"),
    ("StartLimitIntervalSec=0", "Restart.test_five_restart_tasks_within_ten_seconds", "the daemon runs again"),
    ("Type=exec", "Start.test_a_program_that_cannot_be_executed_fails_the_start", "0 == 0"),
    ("EnvironmentFile=-/etc/default/runeld", "Start.test_options_come_from_the_file", "127\\.0\\.0\\.9"),
    ("ExecStartPre=+/usr/lib/runeld/runeld-guard", "Second.test_another_runeld_has_the_port", "rebooted"),
    ("ExecStart=/usr/sbin/runeld -n $RUNELD_OPTIONS", "Start.test_it_serves", "bad unit file setting"),
    ("Restart=always", "Restart.test_after_each_kind_of_end", "the daemon runs again"),
    ("RestartSec=1", "Restart.test_a_second_passes_before_a_restart", "not greater than"),
    ("KillMode=process", "Restart.test_an_update_script_survives", "the script has ended well"),
    ("TimeoutStopSec=10", "Stop.test_a_task_without_an_end_delays_a_stop_by_ten_seconds", "not less than"),
    ("StandardError=null", "Log.test_each_line_is_in_the_journal_once", "2 != 1"),
    ("LogRateLimitIntervalSec=30s", "Log.test_suppressed_lines_end_after_half_a_minute", "log has lines again"),
    ("LogRateLimitBurst=2000", "Log.test_a_blocked_relay_loses_no_line", "!= 1900"),
    ("LimitNOFILE=1024:524288", "Start.test_the_soft_limit_of_descriptors_is_that_of_select", "Max open files"),
    ("WantedBy=multi-user.target", "Start.test_an_enabled_service_starts_with_the_system", "the daemon serves"),
)
# A line, another one in its place, the test that fails with it, and a part of what that failure says.
CHANGED = (
    ("EnvironmentFile=-/etc/default/runeld", "EnvironmentFile=/etc/default/runeld",
     "Start.test_a_missing_file_of_options_is_no_error", "Failed to load environment files"),
    ("ExecStart=/usr/sbin/runeld -n $RUNELD_OPTIONS", "ExecStart=/usr/sbin/runeld -n",
     "Start.test_options_come_from_the_file", "127\\.0\\.0\\.9"),
    ("ExecStart=/usr/sbin/runeld -n $RUNELD_OPTIONS", "ExecStart=/usr/sbin/runeld $RUNELD_OPTIONS",
     "Start.test_it_serves", "systemd does not know the daemon"),
    ("ExecStartPre=+/usr/lib/runeld/runeld-guard", "ExecStartPre=/usr/lib/runeld/runeld-guard",
     "Second.test_a_hardened_service_sees_another_runeld", "rebooted"),
    ("Restart=always", "Restart=on-failure", "Restart.test_after_each_kind_of_end", "the daemon runs again"),
    ("KillMode=process", "KillMode=mixed", "Restart.test_an_update_script_survives",
     "the script has ended well"),
)
TEXT = ("Documentation=man:runeld(8)", "After=network.target", "StandardInput=null")
# Needs a memory controller: test_service_memory.py.
ELSEWHERE = ("OOMPolicy=continue",)


class Complete(unittest.TestCase):
    def test_each_line_of_the_unit_has_a_test(self):
        self.assertEqual(sorted(unit_lines()), sorted([*(row[0] for row in LINES), *TEXT, *ELSEWHERE]))


class Files(ServiceCase):
    def test_systemd_analyze_finds_nothing(self):
        tree = self.installed()
        result = tree.run("systemd-analyze", "verify", "--man=no", UNIT)
        self.assertEqual((result.stdout, result.stderr), ("", ""))

    def test_an_installation_below_usr_has_these_files(self):
        """CMake fills in the same paths as these tests."""
        with tempfile.TemporaryDirectory() as build:
            subprocess.run(["cmake", "-S", self.project("."), "-B", build, "-DCMAKE_INSTALL_PREFIX=/usr",
                            "-DBUILD_TESTING=OFF", "-DRUNELD_CTL=OFF", "-DRUNELD_CLIENT=OFF"], check=True,
                           stdout=subprocess.DEVNULL)
            for name, text in (("runeld.service", unit_text()), ("hardened.conf", drop_in())):
                with open(f"{build}/{name}", encoding="utf-8") as file:
                    self.assertEqual(file.read(), text)
            with open(f"{build}/runeld-guard", encoding="utf-8") as configured, \
                    open(self.project("packaging/guard/runeld-guard"), encoding="utf-8") as source:
                self.assertEqual(configured.read(), source.read())


class Start(ServiceCase):
    def test_it_serves(self):
        tree = self.started()
        self.assertNotEqual(self.main_pid(tree), 0, "systemd does not know the daemon")
        self.assertEqual(tree.run("systemctl", "is-active", "runeld").stdout, "active\n")
        command = tree.shell(f"tr '\\0' ' ' </proc/{self.main_pid(tree)}/cmdline")
        self.assertEqual(command, "/usr/sbin/runeld -n ")
        tree.run("systemctl", "stop", "runeld")
        self.assertFalse(self.serves(tree))

    def test_an_enabled_service_starts_with_the_system(self):
        tree = self.installed()
        self.assertFalse(self.serves(tree))
        tree.run("systemctl", "enable", "runeld")
        tree.run("reboot", check=False)
        self.assertEqual(tree.wait_ended(), "reboot")
        tree.boot()
        self.wait_served(tree, timeout=20)

    def test_its_purpose_is_listed(self):
        tree = self.started()
        listed = tree.run("systemctl", "list-units", "--no-pager", "--plain", "--no-legend", "runeld.service")
        self.assertIn("Device daemon of the update manager", listed.stdout)

    def test_options_come_from_the_file(self):
        tree = self.started(options="-v -i 127.0.0.9")
        lines = "\n".join(tree.journal("--identifier=runeld"))
        self.assertRegex(lines, r"\(\d+\)  address = 127\.0\.0\.9")
        self.assertRegex(lines, r"\(\d+\)  verbose = 1")
        self.assertRegex(lines, r"\(\d+\)  daemon  = 0")

    def test_a_missing_file_of_options_is_no_error(self):
        tree = self.installed()
        self.assertFalse(tree.exists("/etc/default/runeld"))
        tree.run("systemctl", "start", "runeld")
        self.wait_served(tree)

    def test_a_program_that_cannot_be_executed_fails_the_start(self):
        tree = self.installed()
        tree.write(BINARY, "of another architecture", 0o755)
        result = tree.run("systemctl", "start", "runeld", check=False)
        self.assertNotEqual(result.returncode, 0)

    def test_the_soft_limit_of_descriptors_is_that_of_select(self):
        """Also where the image raises the default for all services. The hard limit cannot be higher than
        the one of this machine's processes."""
        tree = self.started(files=[("/etc/systemd/system.conf.d/image.conf",
                                    "[Manager]\nDefaultLimitNOFILE=4096\n")])
        hard = min(524288, resource.getrlimit(resource.RLIMIT_NOFILE)[1])
        limits = tree.read(f"/proc/{self.main_pid(tree)}/limits").decode()
        self.assertRegex(limits, rf"Max open files +1024 +{hard} ")


class Restart(ServiceCase):
    def test_five_restart_tasks_within_ten_seconds(self):
        """The default limit is five starts in ten seconds. Its interval is longer here, because this machine
        may need more than ten seconds for them."""
        tree = self.started(files=[("/etc/systemd/system.conf.d/image.conf",
                                    "[Manager]\nDefaultStartLimitIntervalSec=120s\n")])
        begun = time.monotonic()
        for _ in range(5):
            before = self.main_pid(tree)
            self.restart(tree)
            self.wait_replaced(tree, before)
        self.figure(f"5 restarts in {time.monotonic() - begun:.1f} s")
        self.assertEqual(tree.run("systemctl", "is-active", "runeld").stdout, "active\n")

    def test_after_each_kind_of_end(self):
        tree = self.started()
        for way in ("task", "TERM", "KILL", "SEGV"):
            before = self.main_pid(tree)
            if way == "task":
                self.restart(tree)
            else:
                tree.run("kill", "-s", way, str(before))
            self.wait_replaced(tree, before)

    def test_a_second_passes_before_a_restart(self):
        tree = self.started()
        for _ in range(3):
            before = self.main_pid(tree)
            self.restart(tree)
            self.wait_replaced(tree, before)
        lines = [json.loads(line) for line in
                 tree.run("journalctl", "--identifier=runeld", "--output=json").stdout.splitlines()]
        starts = [at for at, line in enumerate(lines) if re.fullmatch(BANNER, line["MESSAGE"])][1:]
        sent = [int(line["_SOURCE_REALTIME_TIMESTAMP"]) / 1e6 for line in lines]
        pause = min(sent[at] - sent[at - 1] for at in starts)
        self.figure(f"started again after {pause:.2f} s")
        self.assertGreater(pause, 0.9)

    def test_an_update_script_survives(self):
        """A script that "exec" started restarts the daemon: by systemctl, and by the task."""
        tree = self.started()
        tree.write("/opt/update", "#!/bin/sh\nsystemctl restart runeld\nsleep 1\necho >/opt/result\n", 0o755)
        before = self.main_pid(tree)
        self.assertEqual(self.client(tree).ask("exec", "/opt/update", exec_param=BACKGROUND).fields, RUNNING)
        self.wait_replaced(tree, before)
        wait_until(lambda: tree.exists("/opt/result"), "the script has ended well", 20)
        tree.write("/opt/wait", "#!/bin/sh\nuntil [ -e /opt/go ]; do sleep 0.1; done\n: >/opt/went\n", 0o755)
        before = self.main_pid(tree)
        self.assertEqual(self.client(tree).ask("exec", "/opt/wait", exec_param=BACKGROUND).fields, RUNNING)
        self.restart(tree)
        self.wait_replaced(tree, before)
        tree.write("/opt/go", "")
        wait_until(lambda: tree.exists("/opt/went"), "the script has ended well", 20)


class Stop(ServiceCase):
    def test_a_task_without_an_end_delays_a_stop_by_ten_seconds(self):
        tree = self.started()
        self.client(tree).send(request("exec", "/bin/sleep", "1000"))
        wait_until(lambda: tree.run("pgrep", "-x", "sleep", check=False).stdout, "the task runs", TIMEOUT)
        begun = time.monotonic()
        tree.run("systemctl", "stop", "runeld")
        took = time.monotonic() - begun
        self.figure(f"stopped after {took:.1f} s")
        self.assertLess(took, 60)
        self.assertGreater(took, 9)
        self.assertEqual(self.show(tree, "Result"), "timeout")
        self.assertTrue(tree.run("pgrep", "-x", "sleep").stdout, "the program was killed, too")


class Second(ServiceCase):
    """The port is taken when the service starts. The clock of the service's daemon skips its waits, so
    that ten and a half minutes pass at once."""

    def test_another_runeld_has_the_port(self):
        tree = self.installed(clock="fast_clock")
        tree.run("systemd-run", "--quiet", "--unit=first", BINARY, "-n")
        self.wait_served(tree)
        tree.run("systemctl", "start", "--no-block", "runeld", check=False)
        wait_until(lambda: tree.has_ended() or self._refusals(tree) >= 12, "twelve refusals", TIMEOUT)
        self.assertFalse(tree.has_ended(), "the device rebooted")
        self.assertEqual([line for line in tree.journal() if re.search(RETRY, line)], [])
        self.assertTrue(self.serves(tree))
        times = self._times(tree)
        pause = (times[-1] - times[0]) / (len(times) - 1)
        self.assertGreater(pause, 0.9)
        tree.run("systemctl", "stop", "first")
        begun = time.monotonic()
        wait_until(lambda: self.main_pid(tree) != 0 and self.serves(tree), "the service serves", 30)
        self.figure(f"{len(times)} refusals, every {pause:.2f} s; "
                    f"serves {time.monotonic() - begun:.1f} s after the other's end")

    def test_a_hardened_service_sees_another_runeld(self):
        """It has fewer capabilities than the other one."""
        tree = self.installed(clock="fast_clock", files=[(DROP_IN, drop_in())])
        tree.run("systemd-run", "--quiet", "--unit=first", BINARY, "-n")
        self.wait_served(tree)
        tree.run("systemctl", "start", "--no-block", "runeld", check=False)
        wait_until(lambda: tree.has_ended() or self._refusals(tree) >= 3, "three refusals", TIMEOUT)
        self.assertFalse(tree.has_ended(), "the device rebooted")
        tree.run("systemctl", "stop", "first")
        wait_until(lambda: self.main_pid(tree) != 0 and self.serves(tree), "the service serves", 30)

    @staticmethod
    def _refusals(tree):
        lines = tree.run("journalctl", "--quiet", "--output=cat", "--unit=runeld", check=False).stdout
        return sum(bool(re.fullmatch(REFUSAL, line)) for line in lines.splitlines())

    @staticmethod
    def _times(tree):
        lines = [json.loads(line) for line in
                 tree.run("journalctl", "--unit=runeld", "--output=json").stdout.splitlines()]
        return [int(line["__MONOTONIC_TIMESTAMP"]) / 1e6 for line in lines
                if re.fullmatch(REFUSAL, line["MESSAGE"])]

    def taken(self, **how):
        """A tree in which another program has the port, and the service starts."""
        tree = self.installed(**how)
        tree.run("systemd-run", "--quiet", "--unit=other", "python3", "-c", HOLDER)
        wait_until(lambda: tree.run("ss", "-Hltn", "sport", "=", ":5111").stdout, "the port is taken", TIMEOUT)
        tree.run("systemctl", "start", "--no-block", "runeld", check=False)
        return tree

    def test_another_program_has_the_port(self):
        """The daemon's own way: it retries 35 times, and reboots the device."""
        tree = self.taken(clock="fast_clock")
        self.assertEqual(tree.wait_ended(TIMEOUT), "reboot")
        lines = tree.prepare("journalctl", "--directory=/var/log/journal", "--output=cat", "--quiet").stdout
        self.assertGreater(len(re.findall(RETRY, lines)), 0)
        self.assertEqual(re.findall(REFUSAL, lines), [])
        self.figure(f"{len(re.findall(RETRY, lines))} retries are in the journal, then the reboot")

    def test_another_program_that_leaves_the_port_in_time(self):
        tree = self.taken()
        wait_until(lambda: any(re.search(RETRY, line) for line in tree.journal()), "it retries", TIMEOUT)
        tree.run("systemctl", "stop", "other")
        self.wait_served(tree)


class Log(ServiceCase):
    # journald of an image with little storage: few lines for each service.
    SPARING = (("/etc/systemd/journald.conf.d/image.conf",
                "[Journal]\nRateLimitIntervalSec=1h\nRateLimitBurst=100\n"),)

    def count(self, tree, pattern):
        tree.run("journalctl", "--sync")
        return sum(bool(re.fullmatch(pattern, line)) for line in tree.journal("--identifier=runeld"))

    def test_each_line_is_in_the_journal_once(self):
        tree = self.started()
        self.unknown_tasks(tree, 1)
        wait_until(lambda: self.count(tree, UNKNOWN_TASK), "the line is there", TIMEOUT)
        lines = tree.journal("--unit=runeld")
        self.assertEqual(sum(bool(re.search(BANNER, line)) for line in lines), 1)
        self.assertEqual(sum("unknown cmd" in line for line in lines), 1)

    def unknown_tasks(self, tree, number):
        """Each logs a line with the level LOG_ERR."""
        client = self.client(tree)
        for first in range(0, number, 1000):
            some = min(1000, number - first)
            client.send(request("no such task") * some)
            for _ in range(some):
                self.assertEqual(client.receive(TIMEOUT).fields, (4, 0, 1, 71, 0))
        client.close()

    def test_a_blocked_relay_loses_no_line(self):
        """1,900 clauses of the agent wait for a master that reads nothing, and none can be delivered."""
        clauses = 1900
        tree = self.started(clock="tenfold_clock", files=self.SPARING)
        agent = self.client(tree)
        agent.send(b"<big>" + b"x" * 12_000_000 + b"</big>" + b"<a/>" * (clauses - 1))
        # The daemon reads 4096 bytes of the agent in each pass.
        self._wait_taken(tree)
        with tree.network():
            master = Master()
        self.addCleanup(master.close)
        self.assertTrue(master.accept(TIMEOUT) and master.accept(TIMEOUT))
        self.wait_served(tree)  # when it has given up and logged each clause
        found = self.count(tree, NOT_DELIVERED)
        self.figure(f"{found} of {clauses} lines")
        self.assertEqual(found, clauses)

    @staticmethod
    def _wait_taken(tree):
        """Waits until the daemon has read all that the agent has sent."""
        def taken():
            rows = tree.shell("ss -Htn 'sport = :5111 or dport = :5111'").splitlines()
            return rows and all(row.split()[1] == row.split()[2] == "0" for row in rows
                                if row.split()[0] == "ESTAB")
        wait_until(taken, "the daemon has read all clauses", TIMEOUT)

    def test_suppressed_lines_end_after_half_a_minute(self):
        """Also where journald is set to suppress for an hour."""
        tree = self.started(files=self.SPARING)
        self.unknown_tasks(tree, 30_000)
        before = self.count(tree, UNKNOWN_TASK)
        self.assertGreater(before, 0)
        self.assertLess(before, 30_000, "this journald suppresses nothing")
        begun = time.monotonic()

        def arrives():
            self.unknown_tasks(tree, 1)
            return self.count(tree, UNKNOWN_TASK) > before
        wait_until(arrives, "the log has lines again", 75, pause=1)
        self.figure(f"{before} of 30000 lines, the next after {time.monotonic() - begun:.0f} s")


if __name__ == "__main__":
    unittest.main()
