# SPDX-License-Identifier: Apache-2.0
"""runelctl through a real gateway to real daemons."""
import os
import random
import shutil
import tempfile
import time

from support.ctl import CtlCase
from support.gateway import HTTP_PORT, GatewayCase
from support.wait import TIMEOUT, wait_until

LARGE = 64 << 20


class Through(GatewayCase, CtlCase):
    def setUp(self):
        super().setUp()
        self.gateway = self.start_gateway()
        self.hosts = self.controllers(3).start()
        self.gateway.wait_devices(3)
        self.token = self.gateway.token("operator")

    def environment(self, extra=None):
        return super().environment({"RUNELCTL_GATEWAY": f"http://127.0.0.1:{HTTP_PORT}",
                                    "RUNELCTL_TOKEN": self.token, "RUNELCTL_DEVICE": "gw-01", **(extra or {})})

    def test_commands_queries_and_refusals(self):
        self.assertEqual(self.succeed("hostid").text, "gw-01\n")
        result = self.ctl("exec", "--timeout", "9", "sh", "-c", "echo a; exit 7")
        self.assertEqual((result.status, result.out, result.err), (7, b"a\n", b""))
        result = self.succeed("-q", "--prefix", "-d", "gw-[01-03]", "exec", "--timeout", "9", "hostname")
        self.assertEqual(sorted(result.text.split("\n")), ["", *(f"{name}: {name}" for name in self.hosts.names)])
        self.assertEqual(self.succeed("devices", "--names").text.split(), self.hosts.names)
        self.assertEqual(self.succeed("exec", "--stream", "sh", "-c", "echo a; echo b").out, b"a\nb\n")
        result = self.ctl("-d", "seen<", "hostid")
        self.assertEqual((result.status, len(result.errors)), (2, 1), result.err)
        self.assertEqual(self.ctl("kill").status, 1)
        self.assertEqual(self.ctl("exec", "true").status, 1)
        self.token = self.gateway.token("viewer")
        self.succeed("fileexists", "/")
        result = self.ctl("cat", "/etc/hostname")
        self.assertEqual(result.status, 1, result.err)
        self.assertIn(b"may not run", result.err)
        self.token = "rgw_wrong"
        self.assertIn(b"does not accept the token", self.ctl("hostid").err)

    def test_a_restart_is_followed_and_a_lost_device_is_told(self):
        told = self.start("restart", "--wait")
        self.hosts.running["gw-01"].wait(TIMEOUT)
        self.hosts.start("gw-01")
        _, err = told.communicate(timeout=TIMEOUT)
        self.assertEqual((told.returncode, err), (0, b""))
        self.hosts.stop("gw-02")
        wait_until(lambda: "gw-02" in self.gateway.devices("state:offline"), "the loss is seen")
        result = self.ctl("-d", "gw-02", "hostid")
        self.assertEqual(result.status, 255)
        self.assertIn(b"not connected", result.err)

    def test_transfers_and_the_loss_of_the_gateway(self):
        # The daemons have another /run.
        there = tempfile.mkdtemp(dir="/var/tmp")
        self.addCleanup(shutil.rmtree, there)
        copy = os.path.join(there, "copy")
        large = self.file("large", random.Random(9).randbytes(LARGE))
        began = time.monotonic()
        self.succeed("-q", "push", large, copy)
        print(f"push of {LARGE >> 20} MiB through the gateway: {LARGE / 1e6 / (time.monotonic() - began):.0f} MB/s",
              flush=True)
        self.assertEqual(self.content(copy), self.content("large"))
        self.succeed("-q", "pull", copy, self.path("back"))
        self.assertEqual(self.content("back"), self.content("large"))
        running = self.start("exec", "--timeout", "60", "sleep", "30")
        wait_until(lambda: self.gateway.get("/v1/devices/gw-01?fields=queue")["queue"]["busy_with"], "it runs")
        self.gateway.kill()
        _, err = running.communicate(timeout=TIMEOUT)
        self.assertEqual(running.returncode, 255)
        self.assertIn(b"connection to the gateway lost", err)
        self.assertIn(b"unknown whether the task ran", err)
        self.assertTrue(os.path.exists(large))
