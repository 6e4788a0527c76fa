# SPDX-License-Identifier: Apache-2.0
"""Runs `runelctl master` as users do, and reads its events."""
import contextlib
import json
import os
import signal
import socket
import threading

from support.ctl import BINARY, CtlCase
from support.wait import TIMEOUT, wait_until


class MasterCase(CtlCase):
    """Starts the master and waits for its events, one JSON object per line."""

    def setUp(self):
        super().setUp()
        self.control = self.path("runelctl-master.sock")

    def start_master(self, *options, **how):
        """A running master, ready for devices."""
        self.events = []
        self.running = self.start(*([] if "--quiet" in options else ["--json"]), "master", *options,
                                  **how)
        threading.Thread(target=self._collect, args=(self.running.stdout, self.events),
                         daemon=True).start()
        wait_until(lambda: self.told("listening") or self.running.poll() is not None,
                   "the master listens")
        self.assertIsNone(self.running.poll(), "the master ended")
        return self.running

    @staticmethod
    def _collect(stream, events):
        with contextlib.suppress(ValueError):  # closed at the end of the test
            for line in stream:
                events.append(json.loads(line))

    def told(self, event, **fields):
        """The events @p event so far whose fields equal @p fields."""
        return [object for object in self.events
                if object["event"] == event and all(object.get(key) == value
                                                    for key, value in fields.items())]

    def wait_told(self, event, count=1, **fields):
        """Waits for @p count such events. Returns the last one."""
        wait_until(lambda: len(self.told(event, **fields)) >= count,
                   f"{count} times {event} {fields}; told were {self.events[-5:]}")
        return self.told(event, **fields)[count - 1]

    def stop_master(self, number=signal.SIGTERM):
        """Ends the master and returns its standard error."""
        self.running.send_signal(number)
        self.assertEqual(self.running.wait(TIMEOUT), 0)
        return self.running.stderr.read().decode()

    def devices(self):
        return {object["hostid"]: object for object in self.succeed("--json", "devices").objects}

    def call(self, line):
        """A connection to the control socket that has sent @p line."""
        connected = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        connected.settimeout(TIMEOUT)
        connected.connect(self.control)
        self.addCleanup(connected.close)
        connected.sendall(line)
        return connected

    def assert_small(self, most):
        """Allows more with the address sanitizer, which retains up to 256 MiB of freed memory."""
        self.assertLess(self.resident_bytes(), most + (400_000_000 if self.sanitized() else 0))

    @staticmethod
    def sanitized():
        with open(BINARY, "rb") as binary:
            return b"__asan_init" in binary.read()

    def processor_time(self):
        """The nanoseconds that the master has run."""
        with open(f"/proc/{self.running.pid}/schedstat", encoding="ascii") as about:
            return int(about.read().split()[0])

    def resident_bytes(self):
        with open(f"/proc/{self.running.pid}/statm", encoding="ascii") as about:
            return int(about.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")
