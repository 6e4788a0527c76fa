# SPDX-License-Identifier: Apache-2.0
"""Tests of packaging/monitoring and of the file with the version: what is installed, the units, the alert
rules and their unit tests.

Environment: BUILD is the build directory, VERSION the project's version, RUNELCTL_BIN the program.
"""
import os
import pathlib
import re
import shlex
import shutil
import subprocess
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
MONITORING = ROOT / "packaging/monitoring"
RULES = (MONITORING / "runel.rules.yml").read_text("utf-8")
RULE_TESTS = ROOT / "tests/packaging/monitoring/runel.rules.test.yml"
BUILD = pathlib.Path(os.environ["BUILD"])
PROGRAM = os.environ["RUNELCTL_BIN"]
SERVICE = (BUILD / "monitoring/runelctl-probe.service").read_text("utf-8")
# The exposure of a service without any restriction is 9.6.
MOST_EXPOSURE = 1.5


def run(*command, **options):
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False,
                          timeout=120, **options)


class TestCase(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.top = pathlib.Path(directory.name)

    def succeed(self, *command, **options):
        done = run(*command, **options)
        self.assertEqual(done.returncode, 0, done.stdout)
        return done.stdout


class Rules(TestCase):
    def judge(self, rules):
        """What the unit tests say about the text @p rules."""
        (self.top / "runel.rules.yml").write_text(rules, "utf-8")
        shutil.copy(RULE_TESTS, self.top)
        return run("promtool", "test", "rules", RULE_TESTS.name, cwd=self.top)

    def test_the_rules_are_valid(self):
        count = RULES.count("- alert: ")
        self.assertIn(f"SUCCESS: {count} rules found",
                      self.succeed("promtool", "check", "rules", MONITORING / "runel.rules.yml"))

    def test_each_alert_fires_when_it_must_and_only_then(self):
        done = self.judge(RULES)
        self.assertEqual(done.returncode, 0, done.stdout)
        told = re.findall(r"alertname: (\w+)(, exp_alerts|\n *exp_alerts)?",
                          RULE_TESTS.read_text("utf-8"))
        for alert in re.findall(r"- alert: (\w+)", RULES):
            self.assertEqual({bool(fires) for name, fires in told if name == alert}, {True, False}, alert)

    def test_the_unit_tests_detect_each_change_of_a_rule(self):
        changes = [("runel_up == 0", "runel_up == 1"), ("runel_up == 0", "runel_up <= 1"),
                   ("[1h]) > 2", "[1h]) > 1"), ("[1h]) > 2", "[1h]) > 3"), ("[1h]", "[2h]"), ("[1h]", "[30m]"),
                   ("resets", "changes"), ("< 16", "<= 16"), ("< 16", "< 17"), ("< 16", "< 8"),
                   ("< 16", "> 16"), ("_seconds > 1\n", "_seconds >= 1\n"), ("_seconds > 1\n", "_seconds > 2\n"),
                   ("> 300", ">= 300"), ("> 300", "> 360"), ("time() - ", "time() + "),
                   ("absent(runel_up)", "absent(up)"), ("absent(runel_up)", "runel_up")]
        # Each duration, a minute shorter and a minute longer.
        for place in re.finditer(r"for: (\d+)m", RULES):
            for minutes in (int(place[1]) - 1, int(place[1]) + 1):
                changed = RULES[:place.start()] + f"for: {minutes}m" + RULES[place.end():]
                with self.subTest(line=RULES.count("\n", 0, place.start()) + 1, minutes=minutes):
                    self.assertEqual(self.judge(changed).returncode, 1)
        for old, new in changes:
            with self.subTest(old=old, new=new):
                self.assertEqual(RULES.count(old), 1)
                self.assertEqual(self.judge(RULES.replace(old, new)).returncode, 1)


class Units(TestCase):
    def setUp(self):
        super().setUp()
        installed = re.search(r"(?m)^ExecStart=-(\S+)", SERVICE)[1]
        self.assertTrue(installed.endswith("/bin/runelctl"), installed)
        self.service = self.top / "runelctl-probe.service"
        self.service.write_text(SERVICE.replace(installed, PROGRAM), "utf-8")
        shutil.copy(MONITORING / "runelctl-probe.timer", self.top)

    def test_systemd_accepts_them(self):
        said = self.succeed("systemd-analyze", "verify", "--man=no", self.service,
                            self.top / "runelctl-probe.timer")
        self.assertEqual(said, "")

    def test_systemd_finds_a_mistake(self):
        """The check above is able to fail."""
        self.service.write_text(SERVICE.replace("ProtectHome=yes", "ProtectHom=yes"), "utf-8")
        self.assertIn("ProtectHom", run("systemd-analyze", "verify", "--man=no", self.service).stdout)

    def test_the_service_can_do_little(self):
        said = self.succeed("systemd-analyze", "security", "--offline=true", self.service)
        exposure = float(re.search(r"exposure level for \S+: ([0-9.]+)", said)[1])
        self.assertLessEqual(exposure, MOST_EXPOSURE)

    def test_the_command_of_the_service(self):
        """The shell runs the three commands of the service, with the inventory and the directories of the
        test. The first one is that of a device that is down."""
        inventory, runtime, collector = (self.top / name for name in ("devices.toml", "run", "collector"))
        runtime.mkdir()
        collector.mkdir()
        inventory.write_text('[devices]\ngw-1 = "127.0.0.1:9"\n', "utf-8")
        text = self.service.read_text("utf-8")
        for old, new in (("/etc/runelctl/devices.toml", inventory), ("${RUNTIME_DIRECTORY}", runtime),
                         ("/var/lib/prometheus/node-exporter", collector),
                         ("$RUNELCTL_PROBE_OPTIONS", "--path /data")):
            self.assertIn(old, text)
            text = text.replace(old, str(new))
        start, *after = re.findall(r"(?m)^ExecStart(?:Post)?=[-+](.*)$", text)
        done = run(*shlex.split(start))
        self.assertEqual((done.returncode, done.stdout.count("\n")), (2, 1), done.stdout)
        for command in after:
            self.succeed(*shlex.split(command))
        self.assertEqual(os.listdir(collector), ["runel.prom"])
        self.assertIn('runel_up{device="gw-1"} 0\n', (collector / "runel.prom").read_text("utf-8"))

    def test_root_follows_no_link(self):
        """Root reads and writes no other file for the unprivileged program."""
        other, source, target = (self.top / name for name in ("other", "runel.prom", "copy"))
        other.write_text("other\n", "utf-8")
        command = re.search(r"(?m)^ExecStartPost=\+(\S*cp .*)$", SERVICE)[1]
        words = [*shlex.split(command.replace("${RUNTIME_DIRECTORY}", str(self.top)))[:-1], target]
        source.symlink_to(other)
        self.succeed(*words)
        self.assertTrue(target.is_symlink())
        source.unlink()
        source.write_text("metrics\n", "utf-8")
        self.succeed(*words)
        self.assertEqual((other.read_text("utf-8"), target.read_text("utf-8")), ("other\n", "metrics\n"))
        self.assertFalse(target.is_symlink())


class Installation(TestCase):
    def install(self, component):
        self.succeed("cmake", "--install", BUILD, "--component", component, "--prefix", self.top)
        return self.top

    def test_the_monitoring_files(self):
        directory = self.install("monitoring") / "share/runelctl/monitoring"
        self.assertEqual(sorted(os.listdir(directory)),
                         ["runel.rules.yml", "runelctl-probe.service", "runelctl-probe.timer"])
        self.assertNotRegex((directory / "runelctl-probe.service").read_text("utf-8"), "@[A-Z_]+@")

    def test_the_version(self):
        """The daemon's package tells its version where runelctl looks for it."""
        directory = self.install("Unspecified") / "share/runeld"
        self.assertEqual((directory / "version").read_text("utf-8"), os.environ["VERSION"] + "\n")
        said = self.succeed(PROGRAM, "probe", "--help")
        self.assertRegex(said, r"default:\s+/usr/share/runeld/version")

    def test_the_document_names_each_metric_and_alert(self):
        document = (ROOT / "docs/monitoring.md").read_text("utf-8")
        for name in [*re.findall(r"- alert: (\w+)", RULES), *re.findall(r"\brunel_[a-z_]+", RULES),
                     *os.listdir(MONITORING)]:
            self.assertIn(name.removesuffix(".in"), document)


if __name__ == "__main__":
    unittest.main()
