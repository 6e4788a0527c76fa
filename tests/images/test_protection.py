# SPDX-License-Identifier: Apache-2.0
"""The ready-made protection where an operator puts it, after a boot, and what runeld-protect says of it."""
import os
import unittest

from trees.recipe import PROJECT, Recipe
from trees.service import DROP_IN, ServiceCase, drop_in

FILES = os.path.join(PROJECT, "packaging", "protection")
REQUIRED = ("--require", "ports", "--require", "filter", "--require", "drop-in")
DIAL = "import socket; socket.create_connection(('127.0.0.1', 5111))"
BIND = "import socket; socket.socket().bind(('127.0.0.1', 5112))"


def content(name):
    with open(os.path.join(FILES, name), encoding="utf-8") as file:
        return file.read()


class Protected(ServiceCase):
    recipe = Recipe(packages=("nftables",))

    def check(self, tree):
        """The exit status and the screen of runeld-protect."""
        result = tree.run("runeld-protect", "check", *REQUIRED, check=False)
        self.assertEqual(result.stderr, "")
        return result.returncode, result.stdout

    @staticmethod
    def succeeds_for_a_user(tree, program):
        return tree.run("setpriv", "--reuid=65534", "--clear-groups", "python3", "-c", program,
                        check=False).returncode == 0

    def test_the_files_protect_from_the_boot_on(self):
        tree = self.installed(files=[("/etc/sysctl.d/60-runeld.conf", content("60-runeld.conf")),
                                     ("/etc/runeld.nft", content("runeld.nft"))])
        tree.copy_in(os.path.join(FILES, "runeld-protect"), "/usr/sbin/runeld-protect")
        tree.run("sysctl", "-q", "-w", "net.ipv4.ip_unprivileged_port_start=1024")
        tree.run("systemctl", "start", "runeld")
        self.wait_served(tree)
        status, screen = self.check(tree)
        self.assertEqual(status, 1, screen)
        self.assertTrue(self.succeeds_for_a_user(tree, DIAL) and self.succeeds_for_a_user(tree, BIND))

        tree.write(DROP_IN, drop_in())
        tree.shell("echo 'include \"/etc/runeld.nft\"' >>/etc/nftables.conf")
        tree.run("systemctl", "enable", "nftables", "runeld")
        tree.run("reboot", check=False)
        self.assertEqual(tree.wait_ended(), "reboot")
        tree.boot()
        self.wait_served(tree)
        status, screen = self.check(tree)
        self.assertEqual(status, 0, screen)
        self.figure(screen.splitlines()[-1])
        self.assertFalse(self.succeeds_for_a_user(tree, DIAL) or self.succeeds_for_a_user(tree, BIND))


if __name__ == "__main__":
    unittest.main()
