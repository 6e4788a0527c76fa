# SPDX-License-Identifier: Apache-2.0
"""The Debian package runeld in booted trees: install, upgrade through the daemon itself, remove, purge."""
import os
import subprocess
import time
import unittest

from support.wait import wait_until
from trees import debs
from trees.case import CLIENT_BINARY, TreeCase
from trees.recipe import Recipe

INSTALLATION = 30  # seconds that the installation of the slow version takes
FOREVER = 600
# What dpkg, init and the log write on their own. /etc/rc?.d/ lists of sysv-rc are compared.
UNRELATED = ("/proc", "/sys", "/dev", "/run/systemd", "/run/udev", "/run/log", "/run/user", "/run/utmp",
             "/run/dmeventd", "/var/lib/dpkg", "/var/log", "/var/cache", "/var/lib/systemd", "/tmp",
             "/var/tmp", "/run/lock", "/run/initctl")


def with_new_daemon(tree):
    """Another file for the daemon: the loader ignores what follows the last section."""
    with open(os.path.join(tree, "usr/sbin/runeld"), "ab") as file:
        file.write(b"\0another version\0")


def slow(tree):
    """An installation that takes 30 s, half of it after the request to restart the daemon."""
    with_new_daemon(tree)
    script = os.path.join(tree, "DEBIAN/postinst")
    half = f"\nsleep {INSTALLATION // 2}\n"
    first, rest = debs.read(script).split("\n", 1)
    debs.write(script, first + "\n" + half + rest + half)


def failing(tree):
    with_new_daemon(tree)
    script = os.path.join(tree, "DEBIAN/postinst")
    first, rest = debs.read(script).split("\n", 1)
    debs.write(script, f"{first}\necho the postinst fails\nexit 3\n{rest}")


class PackageCase(TreeCase):
    """What is the same under each init. The subclass has `begin`, `pid`, `active`, `enabled`."""

    @classmethod
    def setUpClass(cls):
        cls.repacked = debs.Repacked()
        cls.addClassCleanup(cls.repacked.remove)
        cls.old = cls.repacked.make("runeld", "0.9-1")
        cls.new = cls.repacked.make("runeld", "99.1-1", with_new_daemon)
        cls.slow = cls.repacked.make("runeld", "99.2-1", slow)
        cls.failing = cls.repacked.make("runeld", "99.3-1", failing)

    def put(self, tree, deb):
        """The path in the tree to which @p deb of this machine is copied."""
        place = f"/var/tmp/{os.path.basename(deb)}"
        tree.copy_in(deb, place, 0o644)
        return place

    def install(self, tree, deb):
        return tree.run("dpkg", "-i", self.put(tree, deb), environment={"DEBIAN_FRONTEND": "noninteractive"})

    def ctl(self, tree, *arguments, check=True, timeout=180):
        """runelctl of this machine in the tree's network."""
        done = subprocess.run(tree.outside(CLIENT_BINARY, "-d", "127.0.0.1", *arguments), text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, check=False,
                              stdin=subprocess.DEVNULL, timeout=timeout)
        if check:
            self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        return done

    def serving(self, tree):
        """A booted tree with the old version, whose daemon answers. Returns the daemon's pid."""
        self.install(tree, self.old)
        self.begin(tree)
        self.wait_answers(tree)
        return self.pid(tree)

    def wait_answers(self, tree):
        wait_until(lambda: self.ctl(tree, "exec", "--", "true", check=False).returncode == 0,
                   "the daemon answers", pause=0.1)

    def listens(self, tree):
        return tree.run("ss", "-Hltn", "sport = :5111").stdout != ""

    def version(self, tree):
        return tree.run("dpkg-query", "-W", "-f", "${Version} ${db:Status-Status}", "runeld").stdout

    def wait_replaced(self, tree, before):
        """Waits for another daemon than @p before, which runs the installed file and answers."""
        wait_until(lambda: self.pid(tree) not in (0, before), "another daemon runs", pause=0.05)
        self.wait_answers(tree)
        pid = self.pid(tree)
        self.assertEqual(tree.run("readlink", f"/proc/{pid}/exe").stdout, "/usr/sbin/runeld\n")
        tree.run("cmp", f"/proc/{pid}/exe", "/usr/sbin/runeld")
        answer = self.ctl(tree, "exec", "--", "sh", "-c", "readlink /proc/$PPID/exe").stdout
        self.assertEqual(answer, "/usr/sbin/runeld\n")
        self.assertFalse(tree.exists(f"/proc/{before}"))

    def dpkg_has_ended(self, tree, version):
        return self.version(tree) == f"{version} installed" and not self.dpkg_runs(tree)

    def dpkg_runs(self, tree):
        return tree.run("pgrep", "-x", "dpkg", check=False).returncode == 0

    def files(self, tree):
        """All names in the tree, but for those that an idle system changes."""
        skipped = " -o ".join(f"-path {path}" for path in UNRELATED)
        return set(tree.shell(f"find / \\( {skipped} \\) -prune -o -print").splitlines())

    # Tests.

    def check_installation(self):
        tree = self.booted()
        self.install(tree, debs.deb("runeld"))
        self.assertFalse(self.listens(tree))
        self.assertEqual(self.pid(tree), 0)
        self.assertFalse(self.enabled(tree))
        self.begin(tree)
        self.wait_answers(tree)
        self.assertTrue(self.enabled(tree))
        self.assertEqual(tree.poweroff(), "poweroff")
        tree.boot()
        self.wait_answers(tree)

    def check_upgrade_in_the_foreground(self):
        tree = self.booted()
        before = self.serving(tree)
        self.ctl(tree, "push", self.slow, "/var/tmp/")
        started = time.monotonic()
        done = self.ctl(tree, "exec", "--", "dpkg", "-i", f"/var/tmp/{os.path.basename(self.slow)}")
        answered = time.monotonic() - started
        self.assertIn("Unpacking runeld (99.2-1) over (0.9-1)", done.stdout)
        self.assertIn("Setting up runeld (99.2-1)", done.stdout)
        self.assertGreaterEqual(answered, INSTALLATION)
        self.wait_replaced(tree, before)
        self.figure(f"answer after {answered:.1f} s, new daemon {time.monotonic() - started - answered:.1f} s "
                    "later")
        self.assertEqual(self.version(tree), "99.2-1 installed")

    def check_upgrade_in_the_background(self):
        tree = self.booted()
        before = self.serving(tree)
        self.ctl(tree, "push", self.slow, "/var/tmp/")
        started = time.monotonic()
        self.ctl(tree, "exec", "--background", "--", "dpkg", "-i",
                 f"/var/tmp/{os.path.basename(self.slow)}")
        served = 0
        while not self.dpkg_has_ended(tree, "99.2-1"):
            self.assertLess(time.monotonic() - started, FOREVER)
            # The old daemon serves until dpkg has ended.
            if self.ctl(tree, "exec", "--", "true", check=False).returncode == 0 and \
                    self.pid(tree) == before:
                served += 1
            else:
                self.assertFalse(self.dpkg_runs(tree))
            time.sleep(0.2)
        took = time.monotonic() - started
        self.assertGreaterEqual(took, INSTALLATION)
        self.assertGreater(served, 10)
        self.wait_replaced(tree, before)
        self.figure(f"dpkg took {took:.1f} s, {served} tasks answered meanwhile")

    def check_upgrade_in_a_job(self):
        """runelctl exec --stream survives the restart of the daemon that it goes through."""
        tree = self.booted()
        before = self.serving(tree)
        self.ctl(tree, "push", self.new, "/var/tmp/")
        done = self.ctl(tree, "exec", "--stream", "--", "sh", "-c",
                        f"dpkg -i /var/tmp/{os.path.basename(self.new)}; status=$?; echo dpkg: $status; "
                        f"while [ -e /proc/{before} ]; do sleep 0.1; done; exit $status")
        self.assertIn("Setting up runeld (99.1-1)", done.stdout)
        self.assertIn("dpkg: 0", done.stdout)
        self.wait_replaced(tree, before)

    def check_longer_task(self):
        """The daemon is not restarted under a task that continues when dpkg has ended."""
        tree = self.booted()
        before = self.serving(tree)
        self.stop_soon(tree)
        place = self.put(tree, self.new)
        done = self.ctl(tree, "exec", "--", "sh", "-c", f"dpkg -i {place} && sleep 10 && echo the end")
        self.assertTrue(done.stdout.endswith("the end\n"), done.stdout)
        self.wait_replaced(tree, before)

    def check_failed_upgrade(self):
        tree = self.booted()
        before = self.serving(tree)
        place = self.put(tree, self.failing)
        done = self.ctl(tree, "exec", "--", "dpkg", "-i", place, check=False)
        self.assertEqual(done.returncode, 1)
        self.assertIn("the postinst fails", done.stdout)
        self.assertIn("half-configured", self.version(tree))
        self.assertEqual(self.pid(tree), before)
        self.ctl(tree, "exec", "--", "dpkg", "-i", self.put(tree, self.new))
        self.wait_replaced(tree, before)

    def check_upgrade_of_a_stopped_service(self):
        tree = self.booted()
        self.install(tree, self.old)
        self.install(tree, self.new)
        self.assertEqual(self.version(tree), "99.1-1 installed")
        wait_until(lambda: self.after_dpkg_has_ended(tree), "nothing waits for dpkg")
        self.assertEqual(self.pid(tree), 0)
        self.assertFalse(self.listens(tree))
        self.assertFalse(self.enabled(tree))

    def check_removal_through_the_daemon(self):
        tree = self.booted()
        files = self.files(tree)
        before = self.serving(tree)
        self.ctl(tree, "exec", "--background", "--", "sleep", "9999")
        done = self.ctl(tree, "exec", "--", "dpkg", "--purge", "runeld")
        self.assertIn("Removing runeld (0.9-1)", done.stdout)
        self.assertIn("Purging configuration files for runeld (0.9-1)", done.stdout)
        wait_until(lambda: not tree.exists(f"/proc/{before}"), "the daemon has ended")
        wait_until(lambda: self.after_dpkg_has_ended(tree), "nothing waits for dpkg")
        self.assertFalse(self.listens(tree))
        self.assertEqual(sorted(self.files(tree) - files), [])
        tree.run("pgrep", "-x", "sleep")

    def check_removal(self):
        tree = self.booted()
        before = self.serving(tree)
        done = tree.run("dpkg", "-r", "runeld")
        self.assertFalse(tree.exists(f"/proc/{before}"), done.stdout + done.stderr)
        self.assertFalse(self.listens(tree))

    def check_purge_leaves_nothing(self):
        tree = self.booted()
        files = self.files(tree)
        self.serving(tree)
        self.ctl(tree, "updateumstate", "key", "state")
        self.assertTrue(tree.exists("/var/lib/runeld/umstate/key"))
        self.install(tree, self.new)
        self.wait_answers(tree)
        wait_until(lambda: self.after_dpkg_has_ended(tree), "nothing waits for dpkg")
        tree.run("dpkg", "--purge", "runeld")
        after = self.files(tree)
        self.assertEqual(sorted(after - files), [])
        self.assertEqual(sorted(files - after), [])
        self.assertEqual(tree.run("dpkg-query", "-W", "runeld", check=False).returncode, 1)


class SystemdPackage(PackageCase):
    def begin(self, tree):
        tree.run("systemctl", "enable", "--now", "runeld")

    def pid(self, tree):
        shown = tree.run("systemctl", "show", "-P", "MainPID", "runeld", check=False).stdout
        return int(shown or 0)

    def enabled(self, tree):
        return tree.run("systemctl", "is-enabled", "runeld", check=False).stdout == "enabled\n"

    @staticmethod
    def stop_soon(tree):
        """A restart kills the daemon if it does not end within 2 s."""
        tree.write("/etc/systemd/system/runeld.service.d/soon.conf", "[Service]\nTimeoutStopSec=2\n")
        tree.run("systemctl", "daemon-reload")

    def after_dpkg_has_ended(self, tree):
        return tree.run("systemctl", "list-units", "--all", "--plain", "--no-legend",
                        "runeld-after-dpkg-*").stdout == ""

    def test_installation_starts_nothing(self):
        self.check_installation()

    def test_upgrade_in_the_foreground(self):
        self.check_upgrade_in_the_foreground()

    def test_upgrade_in_the_background(self):
        self.check_upgrade_in_the_background()

    def test_upgrade_in_a_job(self):
        self.check_upgrade_in_a_job()

    def test_upgrade_in_a_longer_task(self):
        self.check_longer_task()

    def test_failed_upgrade(self):
        self.check_failed_upgrade()

    def test_upgrade_of_a_stopped_service(self):
        self.check_upgrade_of_a_stopped_service()

    def test_removal_through_the_daemon(self):
        self.check_removal_through_the_daemon()

    def test_removal(self):
        self.check_removal()

    def test_purge_leaves_nothing(self):
        self.check_purge_leaves_nothing()


class SysvinitPackage(PackageCase):
    recipe = Recipe(flavour="sysvinit")

    def begin(self, tree):
        tree.run("update-rc.d", "runeld", "enable")
        tree.run("invoke-rc.d", "runeld", "start")

    def pid(self, tree):
        shown = tree.run("cat", "/var/run/runeld.pid", check=False).stdout
        return int(shown or 0)

    def enabled(self, tree):
        return tree.shell("ls /etc/rc2.d/S*runeld 2>/dev/null || true") != ""

    def after_dpkg_has_ended(self, tree):
        return tree.run("pgrep", "-f", "[a]fter-dpkg --wait", check=False).stdout == ""

    def test_installation_starts_nothing(self):
        self.check_installation()

    def test_upgrade_in_the_foreground(self):
        self.check_upgrade_in_the_foreground()

    def test_upgrade_in_the_background(self):
        self.check_upgrade_in_the_background()

    def test_failed_upgrade(self):
        self.check_failed_upgrade()

    def test_upgrade_of_a_stopped_service(self):
        self.check_upgrade_of_a_stopped_service()

    def test_removal_through_the_daemon(self):
        self.check_removal_through_the_daemon()

    def test_removal(self):
        self.check_removal()

    def test_purge_leaves_nothing(self):
        self.check_purge_leaves_nothing()


if __name__ == "__main__":
    unittest.main()
