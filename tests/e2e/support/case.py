# SPDX-License-Identifier: Apache-2.0
"""The base of all end-to-end tests: a clean world before each, no sanitizer report after it."""
import os
import shutil
import socket
import tempfile
import unittest

from support import world
from support.daemon import Daemon, sanitizer_reports
from support.logs import LogCollector
from support.peers import MASTER_PORT, Client, Master, Peer

# STATUS STATE RESULT ERRNO SIGNAL of a task that succeeded.
SUCCESS = (0, 0, 0, 0, 0)


def failure(number):
    """The status fields of a task that failed with error @p number."""
    return (1, 0, 1, number, 0)


class EndToEndCase(unittest.TestCase):
    """Starts daemons and peers, ends them with the test, and checks for sanitizer reports."""

    maxDiff = None

    def setUp(self):
        world.adopt_orphans()
        world.reset()
        self.directory = tempfile.mkdtemp(prefix="runeld-e2e-")
        self.addCleanup(shutil.rmtree, self.directory)
        self.log = LogCollector()
        self.addCleanup(self.log.close)
        self.addCleanup(self._no_reports)
        self.addCleanup(world.kill_all_others)

    def _no_reports(self):
        self.assertEqual(sanitizer_reports(self.directory), [])

    def path(self, name):
        return os.path.join(self.directory, name)

    def file(self, name, content=b""):
        """Creates a file in the test's directory. Returns its path."""
        with open(self.path(name), "wb") as file:
            file.write(content)
        return self.path(name)

    def content(self, name):
        with open(os.path.join(self.directory, name), "rb") as file:
            return file.read()

    def daemon(self, *arguments, **options):
        daemon = Daemon(self.log, self.directory, *arguments, **options)
        self.addCleanup(daemon.kill)
        return daemon

    def master(self, *arguments, **options) -> Master:
        master = Master(*arguments, **options)
        self.addCleanup(master.close)
        return master

    def fill_queue(self):
        """Fills a master's queue: the kernel drops further handshakes. Returns the clients."""
        fillers = []
        while True:
            filler = socket.socket()
            self.addCleanup(filler.close)
            filler.settimeout(1.0)
            try:
                filler.connect(("127.0.0.1", MASTER_PORT))
            except TimeoutError:
                filler.close()
                return fillers
            fillers.append(filler)
            self.assertLess(len(fillers), 10)

    def client(self, **options) -> Client:
        client = Client(**options)
        self.addCleanup(client.close)
        return client

    def slave_connection(self, *arguments, **options) -> tuple[Daemon, Peer]:
        """A daemon and the master's end of its slave connection."""
        master = self.master()
        daemon = self.daemon(*arguments, **options)
        return daemon, master.accept()

    def assert_stops(self, daemon):
        """Expects a regular end after SIGTERM, which runs the leak check as well."""
        self.assertEqual(daemon.stop(), 0)
