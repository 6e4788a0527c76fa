# SPDX-License-Identifier: Apache-2.0
"""Shared state of all workers: connections, the log, the counts of requests and answers."""
import asyncio
import collections
import os
import random
import re
import socket
import struct
import time

from support.logs import ERR, WARNING, parse
from support.wait import TIMEOUT

MOST_CONNECTIONS = 950
MOST_WAITING = 100  # waiting for accept(); the kernel's queue holds 128
IGNORED = ("handle_data_read: ignoring telnet", "handle_data_read: discarding first packet")
NUMBER = re.compile(r"\d+")

# Permitted log lines at these levels: effects of intended faults.
EXPECTED = re.compile(
    r"empty read from (in|out)bound socket \d+, (from|to) 127\.0\.0\.1, it's dead|"
    r"recvfrom: socket \d+, 104 Connection reset by peer|"
    r"sendMessage: socket \d+, (Broken pipe|Connection reset by peer)|"
    r"write: error on socket \d+ \(\d+, (Broken pipe|Connection reset by peer)\)|"
    r"acceptBytes: bad frame on socket \d+, .*|"
    r"handleMessage: (unexpected task|no peer_ link, buffering) '.*'|"
    r"handle_data_read: error orphaning agent_ \(socket \d+\), socket \d+|"
    r"nextXmlClause: (cannot find '>' at|closing not found, size =) .*", re.DOTALL)


class Log:
    """Reads /dev/log on the event loop. A line that is not permitted ends the run."""

    def __init__(self, on_accept, on_drop):
        self.kinds = collections.Counter()
        self.ignored = 0  # first packets
        self.failure = None
        self._on_accept = on_accept
        self._on_drop = on_drop
        with open("/proc/sys/net/unix/max_dgram_qlen", "w", encoding="ascii") as length:
            length.write("4096")  # otherwise the daemon would wait for this program
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM | socket.SOCK_NONBLOCK)
        self._socket.bind("/dev/log")
        self._listening = asyncio.Event()
        asyncio.get_running_loop().add_reader(self._socket, self._drain)

    def _drain(self):
        while True:
            try:
                datagram = self._socket.recv(1 << 16)
            except BlockingIOError:
                return
            self._take(parse(datagram))

    def _take(self, line):
        if line.text.startswith("dropping connection: "):
            self._on_drop()
        elif line.text.startswith("accepted connection"):
            self._on_accept()
        elif line.text.startswith(IGNORED):
            self.ignored += 1
        elif line.text == "listening on port 5111":
            self._listening.set()
        if line.level <= WARNING:
            level = "error" if line.level <= ERR else "warning"
            self.kinds[level, NUMBER.sub("N", line.text.split("'")[0])[:60]] += 1
            if not EXPECTED.fullmatch(line.text) and self.failure is None:
                self.failure = f"not to be logged: {line.level} {line.text[:200]}"

    async def listening(self):
        await asyncio.wait_for(self._listening.wait(), TIMEOUT)

    def close(self):
        asyncio.get_running_loop().remove_reader(self._socket)
        self._drain()
        self._socket.close()
        os.unlink("/dev/log")


class Link:
    """One connection. Compares received bytes with the expected ones."""

    def __init__(self, run, reader, writer):
        self._run = run
        self._reader = reader
        self.writer = writer

    def send(self, data):
        self.writer.write(data)

    async def expect(self, data, what):
        """Reads the length of @p data and compares the bytes."""
        with self._run.waiting(what):
            try:
                got = await self._reader.readexactly(len(data))
            except (asyncio.IncompleteReadError, ConnectionError) as error:
                raise AssertionError(f"{what}: {error!r} instead of {data[:80]!r}") from error
        assert got == data, f"{what}: {got[:200]!r} instead of {data[:200]!r}"

    async def expect_slowly(self, data, part, pause, what):
        """As `expect`, but reads at most @p part bytes between pauses."""
        for at in range(0, len(data), part):
            await self.expect(data[at:at + part], what)
            await asyncio.sleep(pause)

    async def ask(self, question, answer, count=1):
        """Sends one request @p count times, and checks the answers."""
        self._run.asked += count
        self.send(question * count)
        await self.expect(answer * count, question[:80])
        self._run.answered += count

    async def expect_end(self, what):
        """Expects that the daemon closes the connection without sending anything."""
        with self._run.waiting(what):
            try:
                rest = await self._reader.read(1 << 16)
            except ConnectionError:
                return
        assert rest == b"", f"{what}: {rest[:200]!r} before the end"

    def close(self):
        self.writer.close()

    def reset(self):
        """Closes with a reset instead of an end of file."""
        connected = self.writer.get_extra_info("socket")
        connected.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.writer.transport.abort()


class Waiting:
    """Records what a worker waits for, and since when."""

    def __init__(self, run, what):
        self._run, self._what = run, what

    def __enter__(self):
        self._run.waits[self] = (time.monotonic(), self._what)

    def __exit__(self, *_):
        del self._run.waits[self]


class Run:
    """The state of a run. Workers continue while `working` is set."""

    def __init__(self, seed, directory):
        self.random = random.Random(seed)
        self.directory = directory
        self.working = True
        self.asked = self.answered = self.given_up = 0
        self.counts = collections.Counter()  # counts of actions, by name
        self.waits = {}
        self.accepted = self.dropped = self._connects = 0
        self.one_stranger = asyncio.Lock()
        self._room = asyncio.Event()
        self.log = Log(self._accepted, self._dropped)

    def _accepted(self):
        self.accepted += 1
        self._room.set()

    def _dropped(self):
        self.dropped += 1
        self._room.set()

    @property
    def open(self):
        """Number of accepted and pending connections."""
        return self._connects - self.dropped

    def waiting(self, what):
        return Waiting(self, what)

    def check(self):
        """Raises AssertionError after a wait that is too long, or for a log line."""
        now = time.monotonic()
        for since, what in self.waits.values():
            assert now - since < TIMEOUT, f"waited {now - since:.0f} s for: {what}"
        assert self.log.failure is None, self.log.failure

    async def connect(self, receive_buffer=None):
        """A new connection to the daemon; waits while the daemon has the maximum number."""
        while (self.open >= MOST_CONNECTIONS or
               self._connects - self.accepted >= MOST_WAITING):
            self._room.clear()
            with self.waiting("room for another connection"):
                await self._room.wait()
        self._connects += 1
        connecting = socket.socket()
        if receive_buffer:
            connecting.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        connecting.setblocking(False)
        with self.waiting("a connection"):
            await asyncio.get_running_loop().sock_connect(connecting, ("127.0.0.1", 5111))
        return await self.link(connecting)

    async def link(self, connected):
        connected.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        return Link(self, *await asyncio.open_connection(sock=connected))

    async def pause(self, mean):
        """Sleeps for a random time, in seconds, or until the work ends."""
        end = time.monotonic() + self.random.expovariate(1 / mean)
        while self.working and time.monotonic() < end:
            await asyncio.sleep(min(1.0, max(end - time.monotonic(), 0)))
