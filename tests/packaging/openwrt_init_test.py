# SPDX-License-Identifier: Apache-2.0
"""Tests of packaging/openwrt/files with the real daemon, in a tree of busybox with stubs of OpenWrt's
rc.common, procd and uci.
"""
import os
import pathlib
import re
import signal
import subprocess
import sys
import tempfile
import unittest

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parents[1]
sys.path[:0] = [str(ROOT / "tests/e2e"), str(HERE / "openwrt")]

from support import world  # noqa: E402
from support.logs import WARNING, LogCollector  # noqa: E402
from support.wait import wait_until  # noqa: E402
from device import ask, connect, end_processes, processes, send  # noqa: E402
from tree import OpenwrtTree  # noqa: E402

DAEMON = os.environ["RUNELD_BIN"]
FILES = ROOT / "packaging/openwrt/files"
SERVICE = "/etc/init.d/runeld"
ENABLE = "uci set runeld.main.enabled=1; uci commit runeld"


def daemons():
    return processes(r"^/usr/sbin/runeld ")


class OpenwrtServiceTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        world.adopt_orphans()
        cls.log = LogCollector()
        cls.addClassCleanup(cls.log.close)

    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.tree = OpenwrtTree(directory.name)
        self.addCleanup(self.tree.unmount)
        self.addCleanup(end_processes)
        self.tree.add_program(DAEMON, "usr/sbin/runeld")
        self.tree.add(FILES / "runeld.init", "etc/init.d/runeld")
        self.tree.add(FILES / "runeld.config", "etc/config/runeld", 0o600)
        self.tree.add(FILES / "runeld-guarded", "usr/lib/runeld/runeld-guarded")
        self.tree.add(ROOT / "packaging/guard/runeld-guard", "usr/lib/runeld/runeld-guard")
        self.since = self.log.mark()

    def check(self, script, status=0, output=""):
        self.assertEqual(self.tree.run(script), (status, output))

    def start(self):
        self.check(f"{ENABLE}; {SERVICE} start")
        self.wait_served()
        return daemons()[0]

    def wait_served(self):
        self.assertEqual(ask("exec", "/bin/echo", "served"), "served\n")

    def wait_for_another(self, old):
        def another():
            found = [pid for pid in daemons() if pid != old]
            return found[0] if len(found) == 1 else None
        pid = wait_until(another, "the next daemon")
        self.wait_served()
        return pid

    def settings(self, name):
        return self.tree.read(f"/var/run/procd/runeld/{name}")

    def test_it_is_not_enabled_after_the_installation(self):
        self.check(f"{SERVICE} start", 0, "runeld: not enabled in /etc/config/runeld\n")
        self.assertEqual(daemons(), [])
        self.check(f"{SERVICE} running", 1)

    def test_the_settings_of_procd(self):
        self.start()
        self.assertEqual(self.settings("command"), "/usr/lib/runeld/runeld-guarded\n")
        self.assertEqual(self.settings("param.respawn"), "3600 5 0\n")
        self.assertEqual((self.settings("param.stdout"), self.settings("param.stderr")), ("0\n", "0\n"))
        self.assertEqual(self.settings("param.pidfile"), "/var/run/runeld.pid\n")
        self.assertEqual(self.settings("param.term_timeout"), "10\n")
        self.assertEqual(self.tree.read("/var/run/procd/runeld.triggers"), "reload runeld\n")

    def test_it_starts_late_and_stops_early(self):
        self.check(f"{SERVICE} enable; ls /etc/rc.d", 0, "K10runeld\nS95runeld\n")
        self.check(f"{SERVICE} disable; ls /etc/rc.d")

    def test_start_serves_and_stop_leaves_nothing(self):
        pid = self.start()
        self.assertEqual(self.tree.read("/var/run/runeld.pid"), f"{pid}\n")
        self.check(f"{SERVICE} status", 0, "running\n")
        self.check(f"{SERVICE} stop")
        # The stub says that it has ended just before it ends.
        wait_until(lambda: not processes("runeld|procd-stub"), "the end of all processes")
        self.check(f"{SERVICE} status", 3, "inactive\n")
        self.assertIsNone(connect())

    def test_the_options_are_words(self):
        self.check("uci set runeld.main.options='-i 127.0.0.9 -v'")
        pid = self.start()
        self.assertEqual(self.settings("command"),
                         "/usr/lib/runeld/runeld-guarded\n-i\n127.0.0.9\n-v\n")
        command = pathlib.Path(f"/proc/{pid}/cmdline").read_text("utf-8").split("\0")[:-1]
        self.assertEqual(command, ["/usr/sbin/runeld", "-n", "-i", "127.0.0.9", "-v"])

    def test_a_changed_setting_restarts_it_and_an_equal_one_does_not(self):
        pid = self.start()
        self.check(f"{SERVICE} reload")
        self.assertEqual(daemons(), [pid])
        self.check(f"uci set runeld.main.options='-v'; {SERVICE} reload")
        self.assertNotEqual(self.wait_for_another(pid), pid)
        self.check(f"uci set runeld.main.enabled=0; {SERVICE} reload", 0,
                   "runeld: not enabled in /etc/config/runeld\n")
        wait_until(lambda: not processes("runeld|procd-stub"), "the end of all processes")

    def test_the_task_restart_leads_to_another_daemon(self):
        pid = self.start()
        send(self, "restart")
        self.wait_for_another(pid)

    def test_a_program_in_the_background_survives_a_restart(self):
        pid = self.start()
        ask("exec", "/bin/sleep", "1234", exec_param=-1)
        program = wait_until(lambda: processes("sleep 1234 $"), "the program runs")
        self.check(f"{SERVICE} restart")
        self.wait_for_another(pid)
        self.assertEqual(processes("sleep 1234 $"), program)

    def test_it_waits_for_the_end_of_another_runeld(self):
        guard = self.tree.top / "usr/lib/runeld/runeld-guard"
        guard.rename(guard.with_name("guard"))
        guard.write_text("#!/bin/sh\necho >>/tmp/asked\nexec /usr/lib/runeld/guard\n", encoding="utf-8")
        guard.chmod(0o755)
        other = subprocess.Popen([DAEMON, "-n"], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                 stderr=subprocess.DEVNULL, start_new_session=True)
        self.addCleanup(other.wait)
        self.addCleanup(other.kill)
        self.wait_served()
        self.check(f"{ENABLE}; {SERVICE} start")
        line = self.log.wait_for(f"another runeld, process {other.pid}, has port 5111: not started",
                                 since=self.since)
        self.assertEqual(line.level, WARNING)
        wait_until(lambda: self.tree.read("/tmp/asked").count("\n") > 2, "the guard is asked again")
        self.assertEqual(daemons(), [])
        other.terminate()
        other.wait()
        wait_until(daemons, "the service's own daemon")
        self.wait_served()
        waits = [line for line in self.log.lines[self.since:] if "another runeld" in line.text]
        self.assertEqual(len(waits), 1, "reported once")

    def test_stop_ends_the_wait_for_another_runeld(self):
        other = subprocess.Popen([DAEMON, "-n"], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                 stderr=subprocess.DEVNULL, start_new_session=True)
        self.addCleanup(other.wait)
        self.addCleanup(other.kill)
        self.wait_served()
        self.check(f"{ENABLE}; {SERVICE} start")
        self.log.wait_for("another runeld, .*", since=self.since)
        self.check(f"{SERVICE} stop")
        wait_until(lambda: not processes("runeld-guarded|procd-stub"), "the end of all processes")
        self.assertIsNone(other.poll())

    def test_a_missing_guard_does_not_prevent_the_start(self):
        (self.tree.top / "usr/lib/runeld/runeld-guard").unlink()
        self.start()

    def test_a_killed_daemon_is_started_again(self):
        pid = self.start()
        os.kill(pid, signal.SIGKILL)
        self.wait_for_another(pid)

    def test_the_daemon_writes_nothing_to_the_log_of_procd(self):
        self.start()
        self.assertFalse((self.tree.top / "var/run/procd.output").exists())

    def test_a_runeld_in_the_background_is_refused_while_it_runs(self):
        pid = self.start()
        self.check("runeld")
        self.log.wait_for("daemon is already running", since=self.since)
        self.assertEqual(daemons(), [pid])

    def test_the_guarded_daemon_gets_words_with_blanks_as_they_are(self):
        text = (FILES / "runeld-guarded").read_text("utf-8")
        self.assertTrue(re.search(r'^exec /usr/sbin/runeld -n "\$@"$', text, re.MULTILINE))


if __name__ == "__main__":
    unittest.main(verbosity=2)
