# SPDX-License-Identifier: Apache-2.0
"""Builds with the recipes for Buildroot, OpenWrt and Yocto, with stubs of their build systems. The tests
themselves are in tests/packaging/recipe_builds_test.py and run in scripts/world.
"""
import os
import subprocess
import tempfile
import unittest

from trees.case import TreeCase
from trees.recipe import cache_directory

TIMEOUT = 3600  # a build of the daemon on a busy machine


class RecipeBuilds(TreeCase):
    def check(self, name):
        os.makedirs(cache_directory(), exist_ok=True)
        with tempfile.TemporaryDirectory(dir=cache_directory()) as builds:
            done = subprocess.run(
                [self.project("scripts/world"), "--no-log", "python3", "-B",
                 self.project("tests/packaging/recipe_builds_test.py"), name],
                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                check=False, timeout=TIMEOUT,
                env={**os.environ, "RUNELD_BIN": self.daemon_binary(), "RUNELD_BUILDS": builds})
        self.assertEqual(done.returncode, 0, done.stdout)
        count = next(line for line in done.stdout.splitlines() if line.startswith("Ran "))
        self.assertNotIn("skipped", done.stdout)
        self.figure(f"{count.split()[1]} tests")

    def test_buildroot(self):
        self.check("Buildroot")

    def test_openwrt(self):
        self.check("Openwrt")

    def test_yocto(self):
        self.check("Yocto")


if __name__ == "__main__":
    unittest.main()
