# SPDX-License-Identifier: Apache-2.0
"""Builds the smallest daemon with changed options and looks at it while it runs.

    scripts/world --no-log python3 -B tests/build/changed_daemon_test.py
"""
import contextlib
import os
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
TIMEOUT = 60
OPTIONS = {
    "RUNELD_MINIMAL": "ON", "RUNELD_DEVICE_PORT": "6111", "RUNELD_MASTER_PORT": "6112",
    "RUNELD_MASTER": "127.0.0.9", "RUNELD_PID_FILE": "/run/other.pid",
    "RUNELD_HOSTS_FILE": "/run/other.hosts", "RUNELD_STATE_DIR": "/run/other-state",
    "RUNELD_LED_FIRST": "/run/led-one", "RUNELD_LED_SECOND": "/run/led-two",
}


def wait_until(condition, what):
    deadline = time.monotonic() + TIMEOUT
    while not condition():
        if time.monotonic() > deadline:
            raise AssertionError(f"not within {TIMEOUT} s: {what}")
        time.sleep(0.02)


def content(path):
    with open(path, encoding="ascii") as file:
        return file.read()


def ask(peer, name, *arguments):
    """Sends one task and returns the record of the reply."""
    fields = " ".join(f"{len(text)}:{text}" for text in (name, *arguments))
    record = f"SlaveTask {1 + len(arguments)} {fields} 0 0: 0 0 0 0 0"
    peer.sendall(f"\x01{len(record)}\x02{record}".encode())
    head = b""
    while not head.endswith(b"\x02"):
        head += peer.recv(1)
    wanted, reply = int(head[1:-1]), b""
    while len(reply) < wanted:
        reply += peer.recv(wanted - len(reply))
    return reply.decode()


class ChangedDaemon(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.master = socket.create_server(("127.0.0.9", 6112))
        cls.master.settimeout(TIMEOUT)
        with open("/run/other.hosts", "w", encoding="ascii") as hosts:
            hosts.write("127.0.0.1 localhost\n")
        for name in ("led-one", "led-two"):
            os.mkdir(f"/run/{name}")
            for file in ("trigger", "brightness"):
                with open(f"/run/{name}/{file}", "w", encoding="ascii"):
                    pass
        cls.hosts_before = content("/etc/hosts")
        subprocess.run([BINARY], stdin=subprocess.DEVNULL, check=True, timeout=TIMEOUT)
        cls.slave, _ = cls.master.accept()
        cls.slave.settimeout(TIMEOUT)
        cls.pid = int(content("/run/other.pid"))

    @classmethod
    def tearDownClass(cls):
        cls.slave.close()
        cls.master.close()
        with contextlib.suppress(ProcessLookupError):
            os.kill(cls.pid, signal.SIGKILL)

    def test_1_the_master_is_asked_at_its_address_and_port(self):
        self.assertIn(f"{self.pid}\n", ask(self.slave, "exec", "/bin/sh", "-c", "echo $PPID"))

    def test_2_it_listens_on_the_port_and_on_no_other(self):
        with socket.create_connection(("127.0.0.1", 6111), TIMEOUT) as peer:
            self.assertTrue(ask(peer, "fileexists", "/etc/hosts").startswith("SlaveTask"))
        with self.assertRaises(ConnectionRefusedError):
            socket.create_connection(("127.0.0.1", 5111), TIMEOUT)

    def test_3_the_pid_file(self):
        self.assertEqual(os.path.realpath(f"/proc/{self.pid}/exe"), BINARY)
        self.assertFalse(os.path.exists("/run/runeld.pid"))

    def test_4_the_state(self):
        ask(self.slave, "updateumstate", "key", "text")
        self.assertEqual(content("/run/other-state/umstate/key"), "text")
        self.assertFalse(os.path.exists("/var/lib/runeld"))

    def test_5_the_leds(self):
        ask(self.slave, "blinkleds", "on")
        wait_until(lambda: content("/run/led-one/brightness").startswith(("0", "1")), "a LED is set")
        self.assertTrue(content("/run/led-two/brightness").startswith(("0", "1")))

    def test_6_an_agent_changes_the_hosts_file(self):
        with socket.create_connection(("127.0.0.1", 6111), TIMEOUT) as agent:
            agent.sendall(b"<a>1</a>")
            bridge, _ = self.master.accept()
            bridge.settimeout(TIMEOUT)
            self.assertEqual(bridge.recv(100), b"<a>1</a>\r\n")
            self.assertEqual(content("/run/other.hosts"),
                             "127.0.0.1 localhost\n127.0.0.1 update-master\n")
            self.assertEqual(content("/etc/hosts"), self.hosts_before)
            bridge.close()

    def test_7_the_end_removes_the_pid_file(self):
        os.kill(self.pid, signal.SIGTERM)
        wait_until(lambda: not os.path.exists(f"/proc/{self.pid}/exe"), "the daemon ends")
        self.assertFalse(os.path.exists("/run/other.pid"))


if __name__ == "__main__":
    if os.environ.get("RUNELD_WORLD") != "1":
        sys.exit("run it in scripts/world")
    with tempfile.TemporaryDirectory(prefix="runeld-changed.") as build:
        settings = [f"-D{name}={value}" for name, value in OPTIONS.items()]
        for command in (["cmake", "-S", ROOT, "-B", build, "-G", "Ninja", *settings],
                        ["cmake", "--build", build, "--", "-j", "2", "runeld"]):
            subprocess.run(command, check=True, stdout=subprocess.DEVNULL)
        BINARY = os.path.join(build, "bin/runeld")
        subprocess.run(["strip", BINARY], check=True)
        print(f"smallest daemon: {os.path.getsize(BINARY)} bytes stripped", flush=True)
        unittest.main(verbosity=2)
