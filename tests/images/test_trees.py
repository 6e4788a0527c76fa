# SPDX-License-Identifier: Apache-2.0
"""The booted trees themselves: they come up, are separate from this machine and each other, and end."""
import os
import socket
import time
import unittest

from support.wait import wait_until
from trees.case import TreeCase
from trees.recipe import Recipe


class SystemdTree(TreeCase):
    def test_it_boots_and_shuts_down(self):
        tree = self.tree()
        started = time.monotonic()
        tree.boot()
        self.figure(f"up after {time.monotonic() - started:.1f} s")
        self.assertEqual(tree.run("cat", "/proc/1/comm").stdout, "systemd\n")
        self.assertEqual(tree.run("systemctl", "--failed", "--plain", "--no-legend").stdout, "")
        self.assertTrue(any("Startup finished" in line for line in tree.journal()))
        self.assertEqual(tree.poweroff(), "poweroff")

    def test_a_reboot_ends_the_tree_alone_and_keeps_its_files(self):
        tree = self.booted()
        tree.write("/etc/kept", "kept\n")
        tree.run("reboot", check=False)
        self.assertEqual(tree.wait_ended(), "reboot")
        tree.boot()
        self.assertEqual(tree.read("/etc/kept"), b"kept\n")

    def test_its_network_is_its_own(self):
        tree = self.booted()
        addresses = tree.run("ip", "-brief", "address").stdout.splitlines()
        self.assertEqual([line.split()[0] for line in addresses], ["lo"])
        with tree.network() as network:
            listener = network.create_server(("127.0.0.1", 5112))
        self.addCleanup(listener.close)
        self.assertIn("127.0.0.1:5112", tree.run("ss", "-Hltn").stdout)
        with socket.socket() as outside:
            self.assertNotEqual(outside.connect_ex(("127.0.0.1", 5112)), 0)

    def test_two_trees_side_by_side_keep_their_services(self):
        first, second = self.booted(), self.booted()
        unit = "[Service]\nExecStart=/bin/sleep 1000\n"
        for tree in (first, second):
            tree.write("/etc/systemd/system/same.service", unit)
            tree.run("systemctl", "daemon-reload")
            tree.run("systemctl", "start", "same")
        second.run("systemctl", "stop", "same")
        self.assertEqual(first.run("systemctl", "is-active", "same").stdout, "active\n")

    def test_the_end_leaves_nothing_on_this_machine(self):
        tree = self.booted()
        leader, groups = tree.leader, tree.groups
        tree.end()
        self.assertFalse(os.path.exists(f"/proc/{leader}"))
        self.assertEqual([group for group in groups if os.path.exists(group)], [])
        self.doCleanups = lambda: True  # ended already

    def test_files_go_in_before_and_after_the_boot(self):
        tree = self.tree()
        tree.write("/opt/before", "1", 0o600)
        tree.copy_in(self.daemon_binary(), "/usr/sbin/runeld")
        self.assertEqual(tree.prepare("cat", "/opt/before").stdout, "1")
        tree.boot()
        tree.write("/run/after", "2")
        self.assertEqual(tree.shell("cat /opt/before /run/after; stat -c %a /opt/before"), "12600\n")
        self.assertIn("Usage: runeld", tree.run("runeld", "--help").stdout)


class SysvinitTree(TreeCase):
    recipe = Recipe(flavour="sysvinit")

    def test_it_boots_and_shuts_down(self):
        tree = self.booted()
        self.assertEqual(tree.run("cat", "/proc/1/comm").stdout, "init\n")
        tree.run("logger", "-t", "tree", "a line of the log")
        wait_until(lambda: b"a line of the log" in tree.read("/var/log/syslog"), "the line is there")
        self.assertEqual(tree.poweroff(), "poweroff")


if __name__ == "__main__":
    unittest.main()
