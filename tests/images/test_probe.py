# SPDX-License-Identifier: Apache-2.0
"""The timer of packaging/monitoring, beside Debian's node_exporter: the metrics of devices get from the
devices to the page that Prometheus reads."""
import re
import time
import urllib.request

from support.wait import wait_until
from trees.case import CLIENT_BINARY, TreeCase
from trees.recipe import Recipe

# The daemon's own unit is not what is tried here.
DAEMON = "[Service]\nExecStart=/usr/sbin/runeld -n\nStandardError=null\nRestart=always\nRestartSec=1\n"
INVENTORY = '[devices]\nhere = "127.0.0.1"\ngone = "127.0.0.1:9"\n'
COLLECTOR = "/var/lib/prometheus/node-exporter"
FILE = f"{COLLECTOR}/runel.prom"
PROBE = "runelctl-probe.service"


class Timer(TreeCase):
    # The libraries are those of runelctl.
    recipe = Recipe(packages=("prometheus-node-exporter", "libedit2", "libbz2-1.0", "libssl3", "zlib1g"))

    def setUp(self):
        super().setUp()
        self.probing = self.tree()
        tree = self.probing
        tree.copy_in(self.daemon_binary(), "/usr/sbin/runeld")
        tree.copy_in(CLIENT_BINARY, "/usr/bin/runelctl")
        tree.write("/usr/share/runeld/version", "3.2.1\n")
        tree.write("/etc/systemd/system/daemon.service", DAEMON)
        with open(self.project(f"packaging/monitoring/{PROBE}.in"), encoding="utf-8") as file:
            tree.write(f"/usr/share/runelctl/monitoring/{PROBE}",
                       file.read().replace("@CMAKE_INSTALL_FULL_BINDIR@", "/usr/bin"))
        tree.copy_in(self.project("packaging/monitoring/runelctl-probe.timer"),
                     "/usr/share/runelctl/monitoring/runelctl-probe.timer", 0o644)
        tree.write("/etc/runelctl/devices.toml", INVENTORY)
        tree.boot()
        tree.run("systemctl", "start", "daemon")
        wait_until(lambda: tree.run("runelctl", "hostid", check=False).returncode == 0, "the daemon serves")
        tree.run("systemctl", "link", f"/usr/share/runelctl/monitoring/{PROBE}")

    def metrics(self):
        """The page of node_exporter, its lines of this program."""
        with self.probing.network(), urllib.request.urlopen("http://127.0.0.1:9100/metrics") as page:
            return {line.rsplit(" ", 1)[0]: float(line.rsplit(" ", 1)[1])
                    for line in page.read().decode().splitlines() if line.startswith("runel_")}

    def lines(self):
        """All lines of the service in the journal."""
        self.probing.run("journalctl", "--sync")
        return self.probing.journal("--unit", PROBE)

    def probe(self, check=True):
        """Runs the service once. Its result, and its lines in the journal of this run."""
        before = len(self.lines())
        self.probing.run("systemctl", "start", PROBE, check=check)
        result = self.probing.run("systemctl", "show", PROBE, "--property=Result", "--value").stdout
        return result.strip(), self.lines()[before:]

    def test_the_timer_fills_the_page(self):
        tree = self.probing
        self.assertFalse(tree.exists(FILE))
        started = time.monotonic()
        tree.run("systemctl", "enable", "--now", "/usr/share/runelctl/monitoring/runelctl-probe.timer")
        wait_until(lambda: tree.exists(FILE), "the timer runs the probe", 120)
        self.figure(f"metrics after {time.monotonic() - started:.0f} s")
        found = self.metrics()
        self.assertEqual((found['runel_up{device="here"}'], found['runel_up{device="gone"}']), (1, 0))
        self.assertEqual(found['runel_version_info{device="here",version="3.2.1"}'], 1)
        self.assertGreater(found['runel_free_bytes{device="here",path="/"}'], 0)
        self.assertEqual(tree.shell(f"stat -c '%a %U' {FILE}"), "644 root\n")
        self.assertEqual(tree.shell(f"ls -A {COLLECTOR}"), "runel.prom\n")
        tree.run("systemctl", "is-enabled", "runelctl-probe.timer")

    def test_a_restart_of_the_daemon_shows_in_the_next_probe(self):
        self.probe()
        before = self.metrics()
        self.probing.run("runelctl", "restart", "--wait")
        self.probe()
        after = self.metrics()
        uptime, age = 'runel_uptime_seconds{device="here"}', 'runel_restart_age_seconds{device="here"}'
        self.assertLess(before[uptime] - before[age], before[uptime])
        self.assertGreater(after[uptime] - after[age], before[uptime], "started before the first probe")

    def test_it_succeeds_with_devices_that_are_down_and_tells_them(self):
        result, lines = self.probe()
        self.assertEqual(result, "success")
        self.assertTrue(any(re.match(r"RUNEL CRITICAL - 2 devices: 1 CRITICAL \(gone\), 1 OK", line)
                            for line in lines), lines)
        self.assertFalse(any(line.startswith("here") for line in lines), lines)

    def test_options_come_from_a_file(self):
        self.probing.write("/etc/default/runelctl-probe", 'RUNELCTL_PROBE_OPTIONS="--path /run"\n')
        self.assertEqual(self.probe()[0], "success")
        self.assertIn('runel_free_bytes{device="here",path="/run"}', self.metrics())

    def test_a_probe_without_a_result_fails_and_keeps_the_file(self):
        self.probe()
        before = self.probing.read(FILE)
        self.probing.write("/etc/runelctl/devices.toml", "nonsense\n")
        result, lines = self.probe(check=False)
        self.assertEqual(result, "exit-code")
        self.assertTrue(any("RUNEL UNKNOWN - /etc/runelctl/devices.toml:" in line for line in lines), lines)
        self.assertEqual(self.probing.read(FILE), before)

    def test_the_probe_is_not_root_and_writes_nothing_else(self):
        """In place of the program, a script with the same restrictions tells what it may do."""
        tree = self.probing
        tree.write("/usr/bin/runelctl", "#!/bin/sh\n"
                   'id -u; cat /etc/shadow; for d in / /etc /var/lib /tmp "$RUNTIME_DIRECTORY"; do\n'
                   '  touch "$d/written-by-the-probe" && echo "may write $d"; done\n'
                   'echo "# nothing" >"$RUNTIME_DIRECTORY/runel.prom"\n', 0o755)
        result, lines = self.probe()
        self.assertEqual(result, "success", lines)
        user = next(int(line) for line in lines if line.isdigit())
        self.assertIn(user, range(61184, 65520))  # systemd's range for dynamic users
        self.assertEqual([line for line in lines if line.startswith("may write")],
                         ["may write /tmp", "may write /run/runelctl-probe"])
        self.assertFalse(tree.exists("/tmp/written-by-the-probe"))  # its own /tmp
        self.assertFalse(tree.exists("/run/runelctl-probe"))  # gone with the run
        self.assertTrue(any("Permission denied" in line for line in lines), lines)

    def test_root_copies_no_file_that_a_link_names(self):
        tree = self.probing
        tree.write("/usr/bin/runelctl",
                   '#!/bin/sh\nln -s /etc/shadow "$RUNTIME_DIRECTORY/runel.prom"\n', 0o755)
        self.probe()
        self.assertEqual(tree.shell(f"readlink {FILE}"), "/etc/shadow\n")
        self.assertEqual(self.metrics(), {})
