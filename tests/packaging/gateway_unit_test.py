# SPDX-License-Identifier: Apache-2.0
"""The systemd unit of the gateway, as systemd-analyze reads it."""
import os
import re
import shutil
import subprocess
import tempfile
import unittest

UNIT = os.environ["RUNELGW_UNIT"]
BINARY = os.environ["RUNELGW_BIN"]
MOST_EXPOSED = 2.5


class GatewayUnitTest(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, self.directory)
        with open(UNIT, encoding="utf-8") as file:
            self.text = file.read()

    def analyze(self, *words, change=lambda text: text):
        """systemd-analyze's answer about the unit with the program of the build."""
        unit = os.path.join(self.directory, "runelgw.service")
        with open(unit, "w", encoding="utf-8") as file:
            file.write(change(re.sub(r"(?m)^(Exec\w+)=\S*/runelgw", rf"\1={BINARY}", self.text)))
        return subprocess.run(["systemd-analyze", *words, unit], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              text=True, check=False, timeout=120)

    def exposure(self, change=lambda text: text):
        found = self.analyze("security", "--offline=yes", "--no-pager", change=change)
        return float(re.search(r"Overall exposure level for runelgw.service: ([0-9.]+)", found.stdout)[1])

    def verify(self, change=lambda text: text):
        done = self.analyze("verify", "--man=no", "--recursive-errors=no", change=change)
        return done.returncode, done.stdout

    def test_systemd_analyze_finds_nothing(self):
        self.assertEqual(self.verify(), (0, ""))

    def test_systemd_analyze_would_find_a_misspelt_setting(self):
        status, text = self.verify(lambda text: text.replace("ProtectHome=", "ProtctHome="))
        self.assertNotEqual((status, text), (0, ""))
        self.assertIn("ProtctHome", text)

    def test_the_exposure_is_low(self):
        self.assertLessEqual(self.exposure(), MOST_EXPOSED)

    def test_the_exposure_would_be_high_without_the_restrictions(self):
        def weaken(text):
            return re.sub(r"(?m)^(Protect|Private|Restrict|Capability|SystemCall|NoNew).*\n", "", text)
        self.assertGreater(self.exposure(weaken), MOST_EXPOSED)

    def test_the_threshold_of_systemd_analyze_agrees(self):
        for threshold, status in ((int(MOST_EXPOSED * 10), 0), (1, 1)):
            done = self.analyze("security", "--offline=yes", "--no-pager", f"--threshold={threshold}")
            self.assertEqual(done.returncode, status, done.stdout[-300:])

    def test_it_runs_as_its_own_user_and_tells_how_it_ended(self):
        for line in ("User=runelgw", "Type=notify", "StateDirectory=runelgw", "RuntimeDirectory=runelgw",
                     "RestartPreventExitStatus=2"):
            self.assertEqual(self.text.splitlines().count(line), 1, line)
        self.assertRegex(self.text, r"(?m)^ExecStopPost=/\S+/runelgw orderly-end$")
        names = [line.partition("=")[0] for line in self.text.splitlines() if "=" in line and line[0] != "#"]
        self.assertEqual(sorted({name for name in names if names.count(name) > 1}), ["SystemCallFilter"])

    def test_the_settings_that_it_names_are_those_of_the_program(self):
        printed = subprocess.run([BINARY, "check-config", "--example"], check=True, stdout=subprocess.PIPE,
                                 text=True).stdout
        state = re.search(r'#state_directory = "(.*)"', printed)[1]
        control = re.search(r'#control_socket = "(.*)"', printed)[1]
        self.assertEqual(state, "/var/lib/" + re.search(r"(?m)^StateDirectory=(.*)", self.text)[1])
        self.assertEqual(os.path.dirname(control), "/run/" + re.search(r"(?m)^RuntimeDirectory=(.*)", self.text)[1])


if __name__ == "__main__":
    unittest.main()
