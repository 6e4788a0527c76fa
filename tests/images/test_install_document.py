# SPDX-License-Identifier: Apache-2.0
"""Runs the blocks of docs/install.md in fresh trees, in the order of the document: a laptop and a device with
a cable between them, and the image of Debian that one block makes. The blocks about other systems run in
scripts/world with stubs of their build systems.
"""
import os
import subprocess
import sys
import tempfile
import unittest

from support.wait import wait_until
from trees.case import TreeCase
from trees.debs import deb
from trees.recipe import PROJECT, Recipe, cache_directory

sys.path.append(os.path.join(PROJECT, "tests/packaging"))
from install_document import blocks  # noqa: E402

TIMEOUT = 3600  # builds of the daemon on a busy machine
LAPTOP = ("libbz2-1.0", "libedit2", "libssl3", "zlib1g")
DEVICE = ("nftables",)
QUIET = {"DEBIAN_FRONTEND": "noninteractive"}


class Directory:
    """A tree that is there already, in place of a recipe."""
    flavour = "systemd"

    def __init__(self, directory):
        self.directory = directory

    def tree(self):
        return self.directory


class InstallDocument(TreeCase):
    def connect(self, laptop, device):
        """A cable between two booted trees, with the addresses of the document."""
        subprocess.run(laptop.outside("ip", "link", "add", "lan0", "type", "veth", "peer", "name", "mgmt0",
                                      "netns", str(device.leader)), check=True)
        for tree, name, address in ((laptop, "lan0", "192.0.2.1/24"), (device, "mgmt0", "192.0.2.11/24")):
            tree.run("ip", "address", "add", address, "dev", name)
            tree.run("ip", "link", "set", name, "up")

    def put(self, tree, package):
        tree.copy_in(deb(package), f"/root/{os.path.basename(deb(package))}", 0o644)

    def run_block(self, tree, text):
        done = tree.run("sh", "-e", "-c", f"cd /root\n{text}", environment=QUIET, check=False)
        self.assertEqual(done.returncode, 0, f"{text}\n{done.stdout}{done.stderr}")
        return done.stdout

    def first_task(self, laptop):
        """The document's first task, as soon as the daemon listens."""
        text = [text for place, text in blocks("laptop") if " exec " in text][-1]
        wait_until(lambda: laptop.run("sh", "-c", text, check=False).returncode == 0, "the first task")
        return laptop.run("sh", "-c", text).stdout

    def test_a_laptop_and_a_device(self):
        laptop = self.tree(Recipe(packages=LAPTOP))
        device = self.tree(Recipe(packages=DEVICE))
        self.put(laptop, "runelctl")
        self.put(device, "runeld")
        laptop.boot()
        device.boot()
        self.connect(laptop, device)
        outputs = []
        for place, text in blocks("laptop", "device"):
            tree = laptop if place == "laptop" else device
            outputs.append(self.run_block(tree, text))
            if "apt-get install" in text and place == "device":  # installed, but nothing is open
                self.assertEqual(device.run("systemctl", "is-enabled", "runeld", check=False).stdout,
                                 "disabled\n")
                self.assertNotIn(":5111", device.run("ss", "-Hltn").stdout)
        self.assertEqual(outputs[-1], f"{os.uname().release}\n")
        self.assertEqual(device.run("systemctl", "is-enabled", "runeld").stdout, "enabled\n")
        self.assertIn("address = 192.0.2.1", "\n".join(device.journal("-t", "runeld")))
        # The table admits the laptop's address only.
        laptop.run("ip", "address", "add", "192.0.2.2/24", "dev", "lan0")
        refused = "import socket; s = socket.socket(); s.settimeout(3); s.bind(('192.0.2.2', 0)); " \
                  "print(s.connect_ex(('192.0.2.11', 5111)))"
        self.assertNotEqual(laptop.run("python3", "-c", refused).stdout, "0\n")
        device.run("reboot", check=False)
        self.assertEqual(device.wait_ended(), "reboot")
        device.boot()
        self.assertEqual(device.run("systemctl", "is-active", "runeld", "nftables").stdout, "active\nactive\n")

    def test_an_image_of_debian(self):
        os.makedirs(cache_directory(), exist_ok=True)
        with tempfile.TemporaryDirectory(dir=cache_directory()) as work:
            os.chmod(work, 0o755)
            os.symlink(deb("runeld"), os.path.join(work, os.path.basename(deb("runeld"))))
            for _, text in blocks("image"):
                done = subprocess.run(["sh", "-e", "-c", text], cwd=work, stdin=subprocess.DEVNULL,
                                      stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                                      check=False, timeout=TIMEOUT)
                self.assertEqual(done.returncode, 0, done.stdout[-4000:])
            laptop = self.tree(Recipe(packages=LAPTOP))
            self.put(laptop, "runelctl")
            laptop.boot()
            self.run_block(laptop, blocks("laptop")[0][1])
            device = self.booted(Directory(os.path.join(work, "device")))
            self.connect(laptop, device)
            self.assertEqual(self.first_task(laptop), f"{os.uname().release}\n")
            self.assertEqual(device.run("systemctl", "is-active", "runeld", "nftables").stdout,
                             "active\nactive\n")
            self.doCleanups()  # before the directory is removed

    def test_other_systems_with_stubs(self):
        with tempfile.TemporaryDirectory(dir=cache_directory()) as builds:
            done = subprocess.run(
                [self.project("scripts/world"), "--no-log", "python3", "-B",
                 self.project("tests/packaging/install_document_test.py")],
                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                check=False, timeout=TIMEOUT, env={**os.environ, "RUNELD_BUILDS": builds})
        self.assertEqual(done.returncode, 0, done.stdout)
        self.assertIn("Ran 3 tests", done.stdout)


if __name__ == "__main__":
    unittest.main()
