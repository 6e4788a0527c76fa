# SPDX-License-Identifier: Apache-2.0
"""Collects the system log of the daemon and searches it."""
from __future__ import annotations

import contextlib
import dataclasses
import os
import re
import socket
import threading
import time

from support.wait import TIMEOUT

CRIT, ERR, WARNING, NOTICE, INFO, DEBUG = 2, 3, 4, 5, 6, 7
LOCAL5 = 168


@dataclasses.dataclass(frozen=True)
class Line:
    """One line: `text` excludes the prefix "(PID) ", `pid` is None without the prefix."""
    facility: int
    level: int
    ident: str
    pid: int | None
    text: str


def parse(datagram):
    match = re.fullmatch(r"<(\d+)>\w{3} [ \d]\d \d\d:\d\d:\d\d ([^:]*): (?:\((-?\d+)\) )?(.*)",
                         datagram.rstrip(b"\0").decode("latin-1"), re.DOTALL)
    assert match, f"not a syslog datagram: {datagram!r}"
    priority = int(match[1])
    return Line(priority & ~7, priority & 7, match[2], int(match[3]) if match[3] else None, match[4])


def number_in(line):
    """The last number of a log line: in most lines, the socket."""
    return int(re.findall(r"\d+", line.text)[-1])


class LogCollector:
    """Listens on /dev/log in a separate thread, so that processes never wait for the log.

    Every query includes all lines that were logged before it.
    """

    def __init__(self):
        self._lines = []
        self._flushed = 0
        self._flushes = 0
        self._changed = threading.Condition()
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._path = "/dev/log"
        self._socket.bind(self._path)
        self._thread = threading.Thread(target=self._collect, daemon=True)
        self._thread.start()

    def _collect(self):
        while True:
            datagram = self._socket.recv(1 << 20)
            with self._changed:
                if datagram == b"close":
                    return
                if datagram in (b"flush", b"forget"):
                    self._flushed += 1
                    if datagram == b"forget":
                        self._lines.clear()
                else:
                    self._lines.append(parse(datagram))
                self._changed.notify_all()

    def _send(self, datagram):
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
            sender.sendto(datagram, self._path)

    @property
    def lines(self):
        """All lines, including those not received yet: datagrams keep their order."""
        self._pass_through(b"flush")
        return self._lines

    def _pass_through(self, marker):
        """Sends a marker after all lines so far, and waits until the collector has received it."""
        self._flushes += 1
        self._send(marker)
        with self._changed:
            assert self._changed.wait_for(lambda: self._flushed >= self._flushes, TIMEOUT)

    def close(self):
        if self._thread.is_alive():
            self._send(b"close")
        self._thread.join()
        os.unlink(self._path)
        self._socket.close()

    def _move(self, path):
        os.rename(self._path, path)
        self._path = path

    @contextlib.contextmanager
    def away(self):
        """Removes /dev/log meanwhile; afterwards replaces any file in its place."""
        self._move("/dev/log.away")
        try:
            yield
        finally:
            self._move("/dev/log")

    def forget(self):
        """Drops exactly the lines logged before the call, including those not received yet."""
        self._pass_through(b"forget")

    def mark(self):
        """A position in the log, for `since` of `wait_for`."""
        return len(self.lines)

    def _first(self, pattern, level, since, pid):
        for line in self._lines[since:]:
            if (level in (None, line.level) and pid in (None, line.pid) and
                    re.fullmatch(pattern, line.text, re.DOTALL)):
                return line
        return None

    def find(self, pattern, level=None, since=0, pid=None):
        """The first line whose whole text matches @p pattern, or None."""
        return self._first(pattern, level, since, pid) if self.lines else None

    def wait_for(self, pattern, level=None, since=0, pid=None, timeout=TIMEOUT):
        """Waits for the first line whose whole text matches @p pattern, and returns it."""
        deadline = time.monotonic() + timeout
        with self._changed:
            while True:
                line = self._first(pattern, level, since, pid)
                if line:
                    return line
                if not self._changed.wait(deadline - time.monotonic()):
                    last = "\n  ".join(f"{one.level} {one.text[:120]}" for one in self._lines[-30:])
                    raise AssertionError(f"no line like {pattern!r}; the last ones:\n  {last}")

    def count(self, pattern, level=None, since=0):
        return sum(1 for line in self.lines[since:]
                   if level in (None, line.level) and re.fullmatch(pattern, line.text, re.DOTALL))

    def shown(self, since=0, without=r"(?!)"):
        """All lines as (level, text), except those whose text matches @p without."""
        return [(line.level, line.text) for line in self.lines[since:]
                if not re.fullmatch(without, line.text, re.DOTALL)]
