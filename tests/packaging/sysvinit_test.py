# SPDX-License-Identifier: Apache-2.0
"""Tests of packaging/sysvinit/runeld with the real daemon: once for each shell that may run it.

The script runs as it is, except for the paths of the daemon, of the guard and of the settings.
"""
import os
import pathlib
import re
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tests/e2e"))

from support import world  # noqa: E402
from support.logs import WARNING, LogCollector  # noqa: E402
from support.peers import AGENT_PORT  # noqa: E402
from support.wait import wait_until  # noqa: E402
from support.wire import request  # noqa: E402
from device import ask, connect, end_processes, processes, send  # noqa: E402

SCRIPT = ROOT / "packaging/sysvinit/runeld"
GUARD = ROOT / "packaging/guard/runeld-guard"
DAEMON = os.environ["RUNELD_BIN"]
LOOP_PID, DAEMON_PID = "/var/run/runeld-loop.pid", "/var/run/runeld.pid"


def pid_in(path):
    """The number in a pid file, 0 while it is missing or empty."""
    try:
        return int(pathlib.Path(path).read_text("ascii") or 0)
    except FileNotFoundError:
        return 0


def daemons():
    return processes(rf"^{re.escape(DAEMON)} ")


def loops():
    return processes(r"runeld supervise $")


def is_alive(pid):
    return os.path.exists(f"/proc/{pid}")


class ScriptCase:
    """All tests, without a shell."""
    shell = None

    @classmethod
    def setUpClass(cls):
        world.adopt_orphans()
        cls.log = LogCollector()
        cls.addClassCleanup(cls.log.close)

    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.addCleanup(self.end_all)
        self.top = pathlib.Path(directory.name)
        self.defaults = self.top / "defaults"
        self.script = self.install()
        self.since = self.log.mark()

    def end_all(self):
        end_processes()
        for path in [*pathlib.Path("/run").glob("runeld-loop.pid*"), pathlib.Path(DAEMON_PID)]:
            path.unlink(missing_ok=True)

    def install(self, **settings):
        """A copy of the script for this test, with other values of its variables."""
        settings = {"DAEMON": DAEMON, "GUARD": GUARD, "DEFAULTS": self.defaults, **settings}
        text = SCRIPT.read_text("utf-8").replace("#!/bin/sh\n", f"#!{self.shell}\n", 1)
        for name, value in settings.items():
            text, count = re.subn(rf"^{name}=\S+", f"{name}={value}", text, flags=re.MULTILINE)
            self.assertEqual(count, 1, name)
        path = self.top / "runeld"
        path.write_text(text, encoding="utf-8")
        path.chmod(0o755)
        return path

    def run_script(self, action, **environment):
        """Exit status and output of the script."""
        done = subprocess.run([self.script, action], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, check=False,
                              env={**os.environ, **environment}, timeout=120)
        return done.returncode, done.stdout

    def check_script(self, action, status, output, **environment):
        self.assertEqual(self.run_script(action, **environment), (status, output))

    def start(self, **environment):
        self.check_script("start", 0, "runeld: started\n", **environment)
        self.wait_served()
        return wait_until(lambda: pid_in(DAEMON_PID), "the daemon's pid file")

    def wait_served(self):
        self.assertEqual(ask("exec", "/bin/echo", "served"), "served\n")

    def wait_for_another(self, old):
        """Waits until the loop has started another daemon than @p old, which serves."""
        def another():
            pid = pid_in(DAEMON_PID)
            return pid if pid not in (0, old) and pid in daemons() else None
        pid = wait_until(another, "the next daemon")
        self.wait_served()
        return pid

    def check_stopped(self):
        self.assertEqual(loops(), [])
        self.assertEqual(daemons(), [])
        self.assertFalse(os.path.exists(LOOP_PID))
        self.assertFalse(os.path.exists(DAEMON_PID))
        self.check_script("status", 3, "runeld: stopped\n")

    def start_program(self):
        """Starts a program that stays in the background, as a task. Returns its pid."""
        ask("exec", "/bin/sleep", "1234", exec_param=-1)
        return wait_until(lambda: processes(r"^/bin/sleep 1234 $"), "the program runs")[0]

    # Start, stop, status

    def test_start_serves_and_stop_leaves_nothing(self):
        self.check_script("status", 3, "runeld: stopped\n")
        pid = self.start()
        self.assertEqual(daemons(), [pid])
        self.assertEqual(loops(), [pid_in(LOOP_PID)])
        self.check_script("status", 0, f"runeld: running, pid {pid}\n")
        self.check_script("stop", 0, "runeld: stopped\n")
        self.check_stopped()
        self.assertIsNone(connect())
        self.log.wait_for("exiting on signal: 15", since=self.since, pid=pid)
        self.assertIsNone(self.log.find("not ended within .*", since=self.since))

    def test_a_second_start_changes_nothing(self):
        pid = self.start()
        loop = loops()
        self.check_script("start", 0, "runeld: already started\n")
        self.assertEqual((daemons(), loops()), ([pid], loop))

    def test_several_starts_at_the_same_time_start_one_loop(self):
        starts = [subprocess.Popen([self.script, "start"], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                   text=True) for _ in range(8)]
        for process in starts:
            output = process.communicate(timeout=120)[0]
            self.assertEqual(process.returncode, 0)
            self.assertIn(output, ("runeld: started\n", "runeld: already started\n"))
        self.wait_served()
        wait_until(lambda: processes(r"runeld (start|supervise) $|^setsid ") == [pid_in(LOOP_PID)],
                   "one loop runs")
        self.assertEqual(daemons(), [pid_in(DAEMON_PID)])
        self.assertEqual(sorted(name for name in os.listdir("/run") if name.startswith("runeld")),
                         ["runeld-loop.pid", "runeld.pid"])

    def test_stop_without_a_daemon_succeeds(self):
        self.check_script("stop", 0, "runeld: not running\n")
        self.check_stopped()

    def test_restart_and_force_reload_start_another_daemon(self):
        pid = self.start()
        for action in ("restart", "force-reload"):
            loop = loops()
            self.check_script(action, 0, "runeld: stopped\nruneld: started\n")
            pid = self.wait_for_another(pid)
            self.assertEqual(daemons(), [pid])
            self.assertEqual(len(loops()), 1)
            self.assertNotEqual(loops(), loop)

    def test_restart_of_a_stopped_service_starts_it(self):
        self.check_script("restart", 0, "runeld: not running\nruneld: started\n")
        self.wait_served()

    def test_an_unknown_action_is_refused(self):
        self.check_script("reload", 2,
                          f"usage: {self.script} start|stop|restart|force-reload|status\n")

    def test_without_the_daemon_start_does_nothing(self):
        self.script = self.install(DAEMON="/nonexistent/runeld")
        self.check_script("start", 0, "")
        self.check_stopped()

    # The loop

    def test_the_task_restart_leads_to_another_daemon(self):
        pid = self.start()
        send(self, "restart")
        self.wait_for_another(pid)
        self.check_script("status", 0, f"runeld: running, pid {pid_in(DAEMON_PID)}\n")

    def test_it_serves_after_five_restarts_in_ten_seconds(self):
        pid = self.start()
        began = time.monotonic()
        for _ in range(5):
            peer = wait_until(connect, "a daemon listens")
            peer.send(request("restart"))
            peer.close()
            pid = self.wait_for_another(pid)
        self.assertGreater(time.monotonic() - began, 5, "a start comes 1 s after each end")
        self.assertEqual(len(loops()), 1)

    def test_a_killed_daemon_is_started_again(self):
        pid = self.start()
        os.kill(pid, signal.SIGKILL)
        self.wait_for_another(pid)

    def test_a_killed_loop_leaves_a_daemon_that_stop_ends(self):
        pid = self.start()
        os.kill(loops()[0], signal.SIGKILL)
        wait_until(lambda: not loops(), "the loop's end")
        self.check_script("status", 1, "runeld: the loop was killed\n")
        self.assertEqual(daemons(), [pid])
        self.check_script("stop", 0, "runeld: stopped\n")
        self.check_stopped()

    def test_restart_after_a_killed_loop_serves(self):
        pid = self.start()
        os.kill(loops()[0], signal.SIGKILL)
        wait_until(lambda: not loops(), "the loop's end")
        self.check_script("restart", 0, "runeld: stopped\nruneld: started\n")
        self.wait_for_another(pid)

    def test_a_signal_to_the_loop_ends_both(self):
        self.start()
        os.kill(loops()[0], signal.SIGTERM)
        wait_until(lambda: not loops() and not daemons(), "the end of both")
        self.check_stopped()

    def test_a_hangup_does_not_end_the_loop(self):
        pid = self.start()
        for number in (signal.SIGHUP, signal.SIGINT, signal.SIGQUIT):
            os.kill(loops()[0], number)
        os.kill(pid, signal.SIGKILL)
        self.wait_for_another(pid)

    # One copy only

    def other(self):
        """A daemon that somebody has started without the script."""
        process = subprocess.Popen([DAEMON, "-n"], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                   stderr=subprocess.DEVNULL, start_new_session=True)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        self.wait_served()
        return process

    def test_it_waits_for_the_end_of_another_runeld(self):
        asked = self.top / "asked"
        guard = self.top / "guard"
        guard.write_text(f"#!/bin/sh\necho >>{asked}\nexec {GUARD}\n", encoding="utf-8")
        guard.chmod(0o755)
        self.script = self.install(GUARD=guard)
        other = self.other()
        reason = f"another runeld, process {other.pid}, has port 5111: not started"
        self.check_script("start", 1,
                          f"runeld: {reason}\nruneld: the loop starts it when that one ends\n")
        self.log.wait_for(reason, since=self.since)
        wait_until(lambda: asked.read_text("ascii").count("\n") > 3, "the guard is asked again")
        self.assertEqual(daemons(), [other.pid])
        self.check_script("status", 0, "runeld: waiting for the next start\n")
        other.terminate()
        other.wait()
        pid = self.wait_for_another(other.pid)
        self.check_script("status", 0, f"runeld: running, pid {pid}\n")
        waits = [line for line in self.log.lines[self.since:] if "another runeld" in line.text]
        self.assertEqual([line.level for line in waits], [WARNING], waits)

    def test_stop_leaves_another_runeld(self):
        other = self.other()
        self.assertEqual(self.run_script("start")[0], 1)
        self.check_script("stop", 0, "runeld: stopped\n")
        self.assertEqual((loops(), daemons()), ([], [other.pid]))

    def test_it_waits_for_the_end_of_a_runeld_in_the_background_and_stop_leaves_it(self):
        subprocess.run([DAEMON], stdin=subprocess.DEVNULL, check=True, timeout=60)
        self.wait_served()
        other = pid_in(DAEMON_PID)
        self.assertEqual(self.run_script("start")[0], 1)
        self.check_script("stop", 0, "runeld: stopped\n")
        self.assertEqual((loops(), daemons(), pid_in(DAEMON_PID)), ([], [other], other))
        self.check_script("stop", 0, "runeld: not running\n")
        self.assertEqual(self.run_script("start")[0], 1)
        os.kill(other, signal.SIGTERM)
        self.wait_for_another(other)

    def test_another_program_on_the_port_is_left_to_the_daemon(self):
        holder = socket.create_server(("", AGENT_PORT))
        self.addCleanup(holder.close)
        self.check_script("start", 0, "runeld: started\n")
        self.log.wait_for(r"failed to listen on the only port \(5111\), retrying", since=self.since)
        self.assertEqual(len(daemons()), 1)

    def test_a_missing_guard_does_not_prevent_the_start(self):
        self.script = self.install(GUARD="/nonexistent/guard")
        status, output = self.run_script("start")
        self.assertEqual((status, output.splitlines()[-1]), (0, "runeld: started"))
        self.assertIn("/nonexistent/guard: not found", output.replace("No such file or directory", "not found"))
        self.wait_served()

    def test_a_runeld_in_the_background_is_refused_while_it_runs(self):
        pid = self.start()
        done = subprocess.run([DAEMON], stdin=subprocess.DEVNULL, check=False, timeout=60)
        self.assertEqual(done.returncode, 0)
        self.log.wait_for("daemon is already running", since=self.since)
        self.assertEqual(daemons(), [pid])

    def test_pid_files_of_an_earlier_boot_do_no_harm(self):
        foreign = subprocess.Popen(["/bin/sleep", "1000"])
        self.addCleanup(foreign.wait)
        self.addCleanup(foreign.kill)
        for path in (LOOP_PID, DAEMON_PID):
            pathlib.Path(path).write_text(f"{foreign.pid}\n", encoding="ascii")
        self.check_script("status", 1, "runeld: the loop was killed\n")
        self.check_script("stop", 0, "runeld: not running\n")
        self.assertIsNone(foreign.poll())
        for path in (LOOP_PID, DAEMON_PID):
            pathlib.Path(path).write_text(f"{foreign.pid}\n", encoding="ascii")
        self.start()
        self.check_script("stop", 0, "runeld: stopped\n")
        self.assertIsNone(foreign.poll())

    # Programs of the daemon

    def test_a_program_in_the_background_survives_stop_and_restart(self):
        pid = self.start()
        program = self.start_program()
        self.check_script("restart", 0, "runeld: stopped\nruneld: started\n")
        self.wait_for_another(pid)
        self.assertTrue(is_alive(program))
        self.check_script("stop", 0, "runeld: stopped\n")
        self.assertTrue(is_alive(program))

    def test_stop_kills_a_daemon_that_runs_a_long_task_but_not_its_program(self):
        self.script = self.install(STOP_SECONDS=1)
        self.start()
        send(self, "exec", "/bin/sleep", "4321")
        program = wait_until(lambda: processes(r"^/bin/sleep 4321 $"), "the program runs")[0]
        self.check_script("stop", 0, "runeld: stopped\n")
        self.log.wait_for("not ended within 1 s, killed", since=self.since)
        self.check_stopped()
        self.assertTrue(is_alive(program))

    def test_a_program_of_the_daemon_may_restart_it(self):
        self.script = self.install(STOP_SECONDS=1)
        pid = self.start()
        send(self, "exec", self.script, "restart")
        self.wait_for_another(pid)
        wait_until(lambda: not processes("runeld restart $"), "the script's end")
        self.assertEqual(len(loops()), 1)

    # How the daemon is started

    def test_options_are_read_at_each_start(self):
        self.defaults.write_text('RUNELD_OPTIONS="-i 127.0.0.9 -v"\n', encoding="ascii")
        pid = self.start()
        command = pathlib.Path(f"/proc/{pid}/cmdline").read_text("utf-8").split("\0")[1:-1]
        self.assertEqual(command, ["-n", "-i", "127.0.0.9", "-v"])
        self.defaults.write_text("RUNELD_OPTIONS='-i 127.0.0.8'\n", encoding="ascii")
        os.kill(pid, signal.SIGKILL)
        pid = self.wait_for_another(pid)
        command = pathlib.Path(f"/proc/{pid}/cmdline").read_text("utf-8").split("\0")[1:-1]
        self.assertEqual(command, ["-n", "-i", "127.0.0.8"])

    def test_settings_with_an_error_do_not_prevent_the_start(self):
        self.defaults.write_text('RUNELD_OPTIONS="-i 127.0.0.9\n', encoding="ascii")
        pid = self.start()
        command = pathlib.Path(f"/proc/{pid}/cmdline").read_text("utf-8").split("\0")[1:-1]
        self.assertEqual(command, ["-n"])

    def test_the_environment_and_the_directory_of_the_user_are_not_passed_on(self):
        self.start(SECRET_OF_THE_USER="1", PATH=f"/nonexistent:{os.environ['PATH']}")
        path = "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"
        self.assertEqual(ask("exec", "/usr/bin/env"), f"{path}\n")
        self.assertEqual(ask("exec", "/bin/pwd"), "/\n")
        self.assertEqual(ask("exec", "/bin/sh", "-c", "umask"), "0022\n")

    def test_the_daemon_has_no_stream_of_the_user(self):
        pid = self.start()
        for number in (0, 1, 2):
            self.assertEqual(os.readlink(f"/proc/{pid}/fd/{number}"), "/dev/null")
        self.assertNotEqual(os.getsid(pid), os.getsid(0))

    def test_the_daemon_has_the_usual_limit_of_descriptors(self):
        pid = self.start()
        limits = pathlib.Path(f"/proc/{pid}/limits").read_text("ascii")
        self.assertRegex(limits, r"Max open files +1024 ")


class WithDash(ScriptCase, unittest.TestCase):
    shell = "/bin/dash"


class WithBusybox(ScriptCase, unittest.TestCase):
    shell = "/bin/busybox ash"


class WithBash(ScriptCase, unittest.TestCase):
    shell = "/bin/bash"


if __name__ == "__main__":
    unittest.main(verbosity=2)
