# SPDX-License-Identifier: Apache-2.0
"""The systemd unit as text, and as systemd-analyze reads it. What its lines do: tests/images."""
import os
import re
import shutil
import subprocess
import tempfile
import unittest

PROJECT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
UNIT = os.environ["RUNELD_UNIT"]
BINARY = os.environ["RUNELD_BIN"]
HARDENED = os.path.join(os.path.dirname(UNIT), "hardened.conf")
# These belong to the line before them.
CONTINUED = ("CapabilityBoundingSet=CAP_KILL", "SystemCallFilter=reboot", "SystemCallErrorNumber=",
             "DevicePolicy=", "ReadWritePaths=")
GUARD = os.path.join(PROJECT, "packaging", "guard", "runeld-guard")


def lines(path):
    with open(path, encoding="utf-8") as text:
        return [line.rstrip("\n") for line in text if line.strip() and not line.startswith("#")]


class UnitTest(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, self.directory)

    def verify(self, change=lambda text: text):
        """systemd-analyze's answer about the unit with the programs of the build."""
        with open(UNIT, encoding="utf-8") as file:
            text = file.read()
        text = re.sub(r"(?m)^ExecStartPre=\+\S+", f"ExecStartPre=+{GUARD}", text)
        text = re.sub(r"(?m)^ExecStart=\S+", f"ExecStart={BINARY}", text)
        unit = os.path.join(self.directory, "runeld.service")
        with open(unit, "w", encoding="utf-8") as file:
            file.write(change(text))
        result = subprocess.run(["systemd-analyze", "verify", "--man=no", "--recursive-errors=no", unit],
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False,
                                timeout=120)
        return result.returncode, result.stdout

    def test_systemd_analyze_finds_nothing(self):
        self.assertEqual(self.verify(), (0, ""))

    def test_systemd_analyze_would_find_a_misspelt_setting(self):
        status, text = self.verify(lambda text: text.replace("KillMode=", "KilMode="))
        self.assertNotEqual((status, text), (0, ""))
        self.assertIn("KilMode", text)

    def test_lines_that_repeat_a_default_or_order_the_start(self):
        """The other lines have a test each in tests/images that fails without the line."""
        for line in ("Documentation=man:runeld(8)", "After=network.target", "StandardInput=null",
                     "LimitNOFILE=1024:524288"):
            self.assertEqual(lines(UNIT).count(line), 1, line)

    def test_what_must_not_be_there(self):
        forbidden = re.compile(r"(Condition|Assert|WatchdogSec|Sockets|Requires|BindsTo|PartOf|User)\w*=")
        self.assertEqual([line for line in lines(UNIT) if forbidden.match(line)], [])
        units = os.listdir(os.path.join(PROJECT, "packaging", "systemd"))
        self.assertEqual([name for name in units if ".socket" in name], [])

    def test_the_comments_say_why_they_are_not_there(self):
        with open(UNIT, encoding="utf-8") as file:
            comments = " ".join(line[1:].strip() for line in file if line.startswith("#"))
        for text in ("no Condition or Assert lines", "no socket unit", "no watchdog"):
            self.assertIn(text, comments)

    def test_no_line_twice(self):
        names = [line.partition("=")[0] for line in lines(UNIT)]
        self.assertEqual(len(names), len(set(names)), names)


class HardenedTest(unittest.TestCase):
    """The example of a hardened service. What it takes and what it leaves: tests/images."""

    def setUp(self):
        self.directory = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, self.directory)
        os.mkdir(os.path.join(self.directory, "runeld.service.d"))
        shutil.copy(UNIT, self.directory)

    def answer(self, *command):
        result = subprocess.run(["systemd-analyze", *command, os.path.join(self.directory, "runeld.service")],
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False,
                                timeout=120)
        return result.stdout

    def exposure(self):
        answer = self.answer("security", "--offline=true", "--no-pager")
        return float(re.search(r"Overall exposure level for runeld.service: ([0-9.]+)", answer)[1])

    def add(self):
        shutil.copy(HARDENED, os.path.join(self.directory, "runeld.service.d"))

    def test_exposure(self):
        plain = self.exposure()
        self.add()
        hardened = self.exposure()
        self.assertEqual(plain, 9.6)
        self.assertLessEqual(hardened, 4.0)
        with open(HARDENED, encoding="utf-8") as file:
            stated = re.search(r"rates the service\n# ([0-9.]+) without this file and ([0-9.]+) with it",
                               file.read())
        self.assertEqual([float(text) for text in stated.groups()], [plain, hardened])

    def test_systemd_knows_its_settings(self):
        self.add()
        self.assertNotIn("hardened.conf", self.answer("verify", "--man=no", "--recursive-errors=no"))
        copy = os.path.join(self.directory, "runeld.service.d", "hardened.conf")
        with open(copy, "a", encoding="utf-8") as file:
            file.write("NoSuchSetting=yes\n")
        self.assertIn("NoSuchSetting", self.answer("verify", "--man=no", "--recursive-errors=no"))

    def test_each_setting_has_a_comment_and_the_port_is_kept(self):
        with open(HARDENED, encoding="utf-8") as file:
            text = file.read()
        self.assertIn("CAP_NET_BIND_SERVICE", text)
        body = text.partition("[Service]\n")[2].splitlines()
        for before, line in zip(body, body[1:]):
            if not line.startswith(("#", *CONTINUED)):
                self.assertTrue(before.startswith("#"), line)


class DefaultFileTest(unittest.TestCase):
    def test_the_example_sets_nothing(self):
        self.assertEqual(lines(os.path.join(PROJECT, "packaging", "default", "runeld")), [])


if __name__ == "__main__":
    unittest.main(verbosity=2)
