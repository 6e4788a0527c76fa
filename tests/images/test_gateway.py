# SPDX-License-Identifier: Apache-2.0
"""The Debian package runelgw in booted trees: the hardened service, upgrade, crash, remove, purge."""
import os
import re

from support.wait import wait_until
from test_packages import UNRELATED
from trees import debs
from trees.case import TreeCase
from trees.recipe import Recipe

UNIT = "runelgw.service"
LIBRARIES = ("libprometheus-cpp-core1.0", "libsoci-core4.0", "libsoci-postgresql4.0", "libsoci-sqlite3-4.0",
             "libsqlite3-0", "libssl3", "libstdc++6")
READY = """
import urllib.request
print(urllib.request.urlopen("http://127.0.0.1:5180/readyz", timeout=60).status)
"""
DEVICES = """
import json, sys, urllib.request
request = urllib.request.Request("http://127.0.0.1:5180/v1/devices", headers={"Authorization": f"Bearer {sys.argv[1]}"})
print(json.dumps([each["state"] for each in json.load(urllib.request.urlopen(request, timeout=60))["items"]]))
"""


class GatewayPackage(TreeCase):
    recipe = Recipe(packages=(*LIBRARIES, "libbz2-1.0", "libedit2", "openssl", "zlib1g"))

    @classmethod
    def setUpClass(cls):
        cls.repacked = debs.Repacked()
        cls.addClassCleanup(cls.repacked.remove)
        cls.new = cls.repacked.make("runelgw", "99.1-1")

    def install(self, tree, deb):
        place = f"/var/tmp/{os.path.basename(deb)}"
        tree.copy_in(deb, place, 0o644)
        tree.run("dpkg", "-i", place, environment={"DEBIAN_FRONTEND": "noninteractive"})

    def show(self, tree, name):
        return tree.run("systemctl", "show", "-P", name, UNIT).stdout.strip()

    def started(self):
        """A booted tree whose gateway is ready."""
        tree = self.booted()
        self.install(tree, debs.deb("runelgw"))
        tree.run("systemctl", "enable", "--now", "runelgw")
        return tree

    def python(self, tree, script, *arguments):
        return tree.run("python3", "-c", script, *arguments).stdout.strip()

    def with_a_device(self, tree):
        """Starts a daemon in the tree. Returns a token that sees it."""
        tree.copy_in(self.daemon_binary(), "/usr/sbin/runeld")
        tree.run("systemd-run", "--unit=device", "/usr/sbin/runeld", "-n", "-i", "127.0.0.1")
        token = tree.run("runelgw", "token", "create", "--name", "t", "--role", "viewer").stdout.strip()
        self.wait_online(tree, token)
        return token

    def wait_online(self, tree, token):
        wait_until(lambda: self.python(tree, DEVICES, token) == '["online"]', "the device is online", pause=0.1)

    def journal(self, tree):
        return tree.run("journalctl", "-u", UNIT, "-o", "cat", "--no-pager").stdout

    def cautious(self, tree):
        return self.journal(tree).count("the last end was not orderly")

    def test_installation_starts_nothing_and_the_service_works(self):
        tree = self.booted()
        self.install(tree, debs.deb("runelgw"))
        self.assertEqual(self.show(tree, "ActiveState"), "inactive")
        self.assertEqual(tree.run("systemctl", "is-enabled", "runelgw", check=False).stdout, "disabled\n")
        self.assertEqual(tree.shell("stat -c '%a %U %G' /etc/runelgw/runelgw.toml").strip(), "640 root runelgw")
        tree.run("systemctl", "enable", "--now", "runelgw")
        self.assertEqual(self.show(tree, "ActiveState"), "active")  # it has told that it is ready
        self.assertEqual(self.python(tree, READY), "200")
        pid = self.show(tree, "MainPID")
        self.assertEqual(tree.shell(f"stat -c '%U %G' /proc/{pid}").strip(), "runelgw runelgw")
        self.assertEqual(tree.shell(f"sed -n 's/^CapEff:[[:space:]]*//p' /proc/{pid}/status").strip(), "0" * 16)
        self.assertEqual(tree.shell("stat -c '%a %U' /var/lib/runelgw /run/runelgw").split(),
                         ["700", "runelgw", "750", "runelgw"])
        self.assertEqual(tree.shell("stat -c '%a %U' /var/lib/runelgw/fleet.db").strip(), "600 runelgw")
        priority = tree.run("journalctl", "-u", UNIT, "-p", "info..info", "-o", "cat", "--no-pager").stdout
        self.assertIn("devices on 0.0.0.0:5112, HTTP on 127.0.0.1:5180", priority)

    def test_the_document_leads_to_the_first_command(self):
        """The blocks of docs/gateway.md from nothing to the first command, one after the other."""
        with open(self.project("docs/gateway.md"), encoding="utf-8") as file:
            section = file.read().partition("## From nothing to the first command\n")[2].partition("\n## ")[0]
        blocks = [re.sub("(?m)^    ", "", block) for block in re.findall(r"(?m)(?:^    .*\n)+", section)]
        self.assertEqual(len(blocks), 3)
        tree = self.booted()
        for package in ("runelgw", "runelctl"):
            self.install(tree, debs.deb(package))
        tree.copy_in(self.daemon_binary(), "/usr/sbin/runeld")
        settings = tree.run("sh", "-e", "-c", blocks[0]).stdout
        self.assertEqual(settings, "/etc/runelgw/runelgw.toml: no problems\n")
        dials = ("systemd-run --quiet --unit=device /usr/sbin/runeld -n -i 127.0.0.1\n"
                 "for i in $(seq 600); do runelctl --gateway http://127.0.0.1:5180 -d state:online --json devices"
                 " 2>/dev/null | grep -q online && break; sleep 0.1; done\n")
        said = tree.run("sh", "-e", "-c", f"cd /root\n{blocks[1]}\n{dials}\n{blocks[2]}").stdout
        self.assertIn(tree.read("/etc/machine-id").decode().strip(), said)

    def test_local_commands_of_root(self):
        tree = self.started()
        token = self.with_a_device(tree)
        self.assertIn("t ", tree.run("runelgw", "token", "list").stdout)
        tree.run("runelgw", "backup", "/root/copy.db")
        tree.run("runelgw", "token", "create", "--name", "later", "--role", "viewer")
        tree.run("runelgw", "restore", "/root/copy.db")
        wait_until(lambda: "later" not in tree.run("runelgw", "token", "list", check=False).stdout, "the copy is there")
        self.wait_online(tree, token)
        self.assertEqual(self.show(tree, "NRestarts"), "0")
        tree.run("systemctl", "stop", "runelgw")
        tree.run("runelgw", "token", "create", "--name", "stopped", "--role", "viewer")
        tree.run("systemctl", "start", "runelgw")
        self.assertIn("stopped", tree.run("runelgw", "token", "list").stdout)
        done = tree.run("setpriv", "--reuid=65534", "--clear-groups", "runelgw", "token", "list", check=False)
        self.assertEqual((done.returncode, done.stdout), (2, ""))  # it may not even read the settings
        done = tree.run("setpriv", "--reuid=65534", "--clear-groups", "runelgw", "-c", "/dev/null", "token", "list",
                        check=False)
        self.assertEqual((done.returncode, done.stdout), (1, ""))
        self.assertIn("ermission denied", done.stderr)

    def test_an_upgrade_restarts_it_orderly(self):
        tree = self.started()
        token = self.with_a_device(tree)
        before = self.show(tree, "MainPID")
        self.install(tree, self.new)
        self.assertNotEqual(self.show(tree, "MainPID"), before)
        self.assertEqual(self.show(tree, "ActiveState"), "active")
        self.wait_online(tree, token)
        self.assertEqual(self.cautious(tree), 0)
        tree.run("systemctl", "restart", "runelgw")
        self.wait_online(tree, token)
        self.assertEqual(self.cautious(tree), 0)
        tree.run("systemctl", "stop", "runelgw")
        self.install(tree, debs.deb("runelgw"))
        self.assertEqual(self.show(tree, "ActiveState"), "inactive")

    def test_after_a_crash_the_next_start_is_cautious(self):
        tree = self.started()
        self.with_a_device(tree)
        tree.run("systemctl", "restart", "runelgw")  # the device is in the database now
        tree.run("kill", "-9", self.show(tree, "MainPID"))
        wait_until(lambda: self.show(tree, "NRestarts") == "1" and self.show(tree, "ActiveState") == "active",
                   "systemd starts it again")
        self.assertEqual(self.cautious(tree), 1)

    def test_wrong_settings_are_no_reason_to_try_again(self):
        tree = self.booted()
        self.install(tree, debs.deb("runelgw"))
        tree.shell("echo '[quue]' >>/etc/runelgw/runelgw.toml")
        self.assertNotEqual(tree.run("systemctl", "start", "runelgw", check=False).returncode, 0)
        self.assertEqual((self.show(tree, "ActiveState"), self.show(tree, "NRestarts")), ("failed", "0"))
        self.assertIn("unknown section 'quue' (did you mean 'queue'?)", self.journal(tree))

    def test_a_reload_reads_the_certificates_again(self):
        tree = self.started()
        tree.run("systemctl", "stop", "runelgw")
        make = ("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 -subj /CN=one "
                "-keyout /etc/runelgw/key.pem -out /etc/runelgw/cert.pem && chgrp runelgw /etc/runelgw/*.pem "
                "&& chmod 640 /etc/runelgw/*.pem")
        tree.shell(make)
        tree.shell("printf '[http]\ncertificate = \"/etc/runelgw/cert.pem\"\nkey = \"/etc/runelgw/key.pem\"\n' "
                   ">/etc/runelgw/runelgw.toml")
        tree.run("systemctl", "start", "runelgw")

        def subject():
            return tree.shell("openssl s_client -connect 127.0.0.1:5180 </dev/null 2>/dev/null | grep ^subject")
        self.assertIn("one", subject())
        tree.shell(make.replace("CN=one", "CN=two"))
        tree.run("systemctl", "reload", "runelgw")
        wait_until(lambda: "two" in subject(), "the new certificate is used")
        self.assertEqual(self.show(tree, "NRestarts"), "0")

    def test_remove_stops_it_and_purge_leaves_nothing(self):
        tree = self.booted()

        def files():
            skipped = " -o ".join(f"-path {path}" for path in UNRELATED)
            return set(tree.shell(f"find / \\( {skipped} \\) -prune -o -print").splitlines())
        before, users = files(), tree.shell("cat /etc/passwd /etc/group")
        self.install(tree, debs.deb("runelgw"))
        tree.run("systemctl", "enable", "--now", "runelgw")
        tree.run("runelgw", "token", "create", "--name", "t", "--role", "viewer")
        tree.run("dpkg", "--remove", "runelgw")
        self.assertEqual(tree.run("pgrep", "-x", "runelgw", check=False).stdout, "")
        self.assertTrue(tree.exists("/var/lib/runelgw/fleet.db"))
        tree.run("dpkg", "--purge", "runelgw")
        after = files()
        self.assertEqual(sorted(after - before), [])
        self.assertEqual(sorted(before - after), [])
        self.assertEqual(tree.shell("cat /etc/passwd /etc/group"), users)
