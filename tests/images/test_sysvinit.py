# SPDX-License-Identifier: Apache-2.0
"""The sysvinit script on a booted tree of Debian with sysvinit: boot, restarts, a second copy, shutdown."""
import time

from support.peers import AGENT_PORT, Peer
from support.wait import wait_until
from support.wire import request
from trees.case import TreeCase
from trees.recipe import Recipe

SUCCESS, RUNNING = 0, 2  # the first field of a reply
PGREP = ("pgrep", "--full", "--exact")


class SysvinitService(TreeCase):
    recipe = Recipe(flavour="sysvinit")

    def installed(self):
        """A tree with the daemon and its script, as packages install them: neither enabled nor started."""
        tree = self.tree()
        tree.copy_in(self.daemon_binary(), "/usr/sbin/runeld")
        tree.copy_in(self.project("packaging/sysvinit/runeld"), "/etc/init.d/runeld")
        tree.copy_in(self.project("packaging/guard/runeld-guard"), "/usr/lib/runeld/runeld-guard")
        tree.copy_in(self.project("packaging/default/runeld"), "/etc/default/runeld", 0o644)
        return tree

    def enabled(self):
        """The booted tree, with the service enabled."""
        tree = self.installed()
        tree.prepare("update-rc.d", "runeld", "defaults")
        return tree.boot()

    @staticmethod
    def connect(tree):
        with tree.network() as network:
            try:
                return Peer(network.create_connection(("127.0.0.1", AGENT_PORT), timeout=60))
            except ConnectionRefusedError:
                return None

    def ask(self, tree, *arguments, **options):
        """The output of a task, as soon as a daemon serves it."""
        peer = wait_until(lambda: self.connect(tree), "a daemon listens")
        try:
            reply = peer.ask(*arguments, **options)
        finally:
            peer.close()
        self.assertIn(reply.fields[0], (SUCCESS, RUNNING), reply)
        return reply.output.decode()

    def send(self, tree, *arguments):
        """Sends a task and waits for no reply."""
        peer = wait_until(lambda: self.connect(tree), "a daemon listens")
        self.addCleanup(peer.close)
        peer.send(request(*arguments))

    @staticmethod
    def daemons(tree):
        return tree.run(*PGREP, "/usr/sbin/runeld -n.*", check=False).stdout.split()

    @staticmethod
    def loops(tree):
        return tree.run(*PGREP, "/bin/sh .*runeld supervise", check=False).stdout.split()

    def check_served(self, tree):
        self.assertEqual(self.ask(tree, "exec", "/bin/echo", "served"), "served\n")

    def wait_for_another(self, tree, old):
        def another():
            found = self.daemons(tree)
            return found if len(found) == 1 and found != old else None
        found = wait_until(another, "the next daemon")
        self.check_served(tree)
        return found

    def service(self, tree, action, status=0):
        done = tree.run("service", "runeld", action, check=False)
        self.assertEqual(done.returncode, status, done.stdout + done.stderr)
        return done.stdout

    def test_it_is_served_after_the_boot_and_stopped_at_the_shutdown(self):
        tree = self.enabled()
        started = time.monotonic()
        self.check_served(tree)
        self.figure(f"served {time.monotonic() - started:.1f} s after runlevel 2")
        self.assertIn("running, pid", self.service(tree, "status"))
        self.assertEqual(len(self.loops(tree)), 1)
        started = time.monotonic()
        self.assertEqual(tree.poweroff(), "poweroff")
        self.figure(f"shutdown in {time.monotonic() - started:.1f} s")
        # Stopped by the script, before the system log: not killed with all that is left.
        self.assertIn(b"exiting on signal: 15", tree.read("/var/log/syslog"))

    def test_it_is_not_started_before_it_is_enabled(self):
        tree = self.installed().boot()
        self.assertEqual((self.daemons(tree), self.loops(tree)), ([], []))
        self.assertEqual(self.service(tree, "status", 3), "runeld: stopped\n")
        self.service(tree, "start")
        self.check_served(tree)

    def test_restarts_and_kills_lead_to_another_daemon(self):
        tree = self.enabled()
        self.check_served(tree)
        daemon = self.daemons(tree)
        started = time.monotonic()
        for _ in range(5):
            self.send(tree, "restart")
            daemon = self.wait_for_another(tree, daemon)
        self.figure(f"five restarts in {time.monotonic() - started:.1f} s")
        tree.run("kill", "-KILL", *daemon)
        started = time.monotonic()
        self.wait_for_another(tree, daemon)
        self.figure(f"served {time.monotonic() - started:.1f} s after a kill")
        self.assertEqual(len(self.loops(tree)), 1)

    def test_stop_leaves_no_loop_and_no_daemon_but_programs(self):
        tree = self.enabled()
        self.ask(tree, "exec", "/bin/sleep", "1234", exec_param=-1)
        program = tree.run(*PGREP, "/bin/sleep 1234").stdout
        self.service(tree, "stop")
        self.assertEqual((self.daemons(tree), self.loops(tree)), ([], []))
        self.assertEqual(self.service(tree, "status", 3), "runeld: stopped\n")
        self.assertEqual(tree.run(*PGREP, "/bin/sleep 1234").stdout, program)
        self.service(tree, "start")
        self.check_served(tree)
        self.service(tree, "restart")
        self.check_served(tree)
        self.assertEqual(tree.run(*PGREP, "/bin/sleep 1234").stdout, program)

    def test_a_second_copy_is_refused_until_the_first_has_ended(self):
        tree = self.installed().boot()
        tree.shell("/usr/sbin/runeld </dev/null >/dev/null 2>&1")  # in the background
        self.check_served(tree)
        other = tree.run(*PGREP, "/usr/sbin/runeld").stdout.split()
        self.assertIn(f"another runeld, process {other[0]}, has port 5111", self.service(tree, "start", 1))
        line = b"has port 5111: not started"
        wait_until(lambda: line in tree.read("/var/log/syslog"), "the refusal is in the log")
        self.assertEqual(self.daemons(tree), [])
        tree.run("kill", *other)
        self.wait_for_another(tree, [])
        self.assertEqual(tree.read("/var/log/syslog").count(line), 1)

    def test_options_reach_the_daemon_and_its_log_the_system_log_once(self):
        tree = self.installed()
        tree.write("/etc/default/runeld", 'RUNELD_OPTIONS="-i 127.0.0.9"\n')
        tree.prepare("update-rc.d", "runeld", "defaults")
        tree.boot()
        self.check_served(tree)
        wait_until(lambda: b"address = 127.0.0.9" in tree.read("/var/log/syslog"), "the line is there")
        self.assertEqual(tree.read("/var/log/syslog").count(b"address = 127.0.0.9"), 1)
        self.assertNotIn("address = ", tree.console_text())

    def test_a_reboot_by_the_master_ends_in_a_served_device(self):
        tree = self.enabled()
        self.send(tree, "reboot")
        self.assertEqual(tree.wait_ended(), "reboot")
        tree.boot()
        self.check_served(tree)
