# SPDX-License-Identifier: Apache-2.0
"""Shared parts of the tests of the Python client: a daemon, scripted peers, one API for blocking
and asyncio classes."""
import asyncio
import contextlib
import inspect
import os
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

import runel
from runel import _protocol as protocol

BINARY = os.environ.get("RUNELD_BIN", "")
LONG = 20  # seconds, against a hang only

ADDRESS = "127.0.0.1"


def require_world():
    """Ends this process outside an isolated world: the daemon reboots and rewrites system files."""
    with open("/proc/1/comm", encoding="ascii") as name:
        if os.environ.get("RUNELD_WORLD") != "1" or name.read().strip() != "world":
            sys.exit("These tests run in scripts/world only: start them with ctest.")


def wait_until(condition, what):
    """Polls `condition` and returns its first true value; fails after LONG seconds."""
    end = time.monotonic() + LONG
    while not (value := condition()):
        assert time.monotonic() < end, f"never: {what}"
        time.sleep(0.01)
    return value


class Daemon:
    """One run of the daemon."""

    def __init__(self, *wrapper):
        require_world()
        self.errors = tempfile.TemporaryFile()
        self.killed = False
        options = "halt_on_error=1:exitcode=86:verify_asan_link_order=0"
        self.process = subprocess.Popen(
            [*wrapper, BINARY, "-n"], start_new_session=True, cwd="/", stdin=subprocess.DEVNULL,
            stdout=self.errors, stderr=self.errors,
            env={**os.environ, "ASAN_OPTIONS": options, "UBSAN_OPTIONS": options})
        wait_until(self._listens, "the daemon listens")

    def _listens(self):
        with contextlib.suppress(OSError):
            socket.create_connection((ADDRESS, 5111)).close()
            return True
        return False

    def kill(self):
        """Ends the daemon like a crash."""
        self.killed = True
        self.process.kill()
        self.process.wait()

    def close(self):
        """Stops the daemon, unless it has ended."""
        if self.process.poll() is None:
            os.kill(self.process.pid, signal.SIGTERM)
        try:
            status = self.process.wait(LONG)
        finally:
            self.process.kill()
        self.errors.seek(0)
        text = self.errors.read()
        self.errors.close()
        expected = (-signal.SIGKILL,) if self.killed else (0, -signal.SIGHUP)  # SIGHUP: reboot
        assert status in expected and b"Sanitizer" not in text, (status, text)


class ThreadFace:
    """Makes the methods of a blocking object awaitable, so that one test runs with both faces."""

    _STREAMS = ("pipeline", "events", "clauses")

    def __init__(self, plain):
        self.plain = plain

    def __getattr__(self, name):
        value = getattr(self.plain, name)
        if name in self._STREAMS:
            return lambda *args: self._stream(value(*args))
        if not inspect.ismethod(value):
            return _awaitable(value)

        async def call(*args, **keywords):
            return _awaitable(await asyncio.to_thread(value, *args, **keywords))
        return call

    @staticmethod
    async def _stream(items):
        end = object()
        while (item := await asyncio.to_thread(next, items, end)) is not end:
            yield item

    async def __aenter__(self):
        await asyncio.to_thread(self.plain.__enter__)
        return self

    async def __aexit__(self, *error):
        await asyncio.to_thread(self.plain.__exit__, *error)


def _awaitable(value):
    if isinstance(value, runel.Device):
        return ThreadFace(value)
    if isinstance(value, list):
        return [_awaitable(item) for item in value]
    if isinstance(value, dict):
        return {name: _awaitable(item) for name, item in value.items()}
    return value


class FaceCase(unittest.IsolatedAsyncioTestCase):
    """A test of the blocking and the asyncio classes: `self.Device` etc. have awaitable methods."""

    def __getattr__(self, name):
        if name not in ("Device", "Master", "Fleet", "Agent"):
            raise AttributeError(name)
        if self.face == "async":
            return getattr(runel, f"Async{name}")
        return lambda *args, **keywords: ThreadFace(getattr(runel, name)(*args, **keywords))

    async def until(self, condition):
        """Waits for `condition`; fails after LONG seconds."""
        end = time.monotonic() + LONG
        while not condition():
            self.assertLess(time.monotonic(), end, "it never came")
            await asyncio.sleep(0.01)

    async def fails(self, kind, outcome, work):
        """The exception of `work`, which must have this type and outcome."""
        with self.assertRaises(kind) as caught:
            await work
        self.assertEqual(caught.exception.outcome, outcome, caught.exception)
        return caught.exception


def both_faces(case):
    """Adds the tests of `case` to its module, once for each face."""
    module = sys.modules[case.__module__]
    for face in ("async", "sync"):
        name = f"{case.__name__}_{face}"
        setattr(module, name, type(name, (case,), {"face": face, "__module__": case.__module__}))
    case.__test__ = False
    return case


class DaemonCase(FaceCase):
    """Tests against one real daemon."""

    @classmethod
    def setUpClass(cls):
        daemon = Daemon()
        cls.addClassCleanup(daemon.close)

    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.path = lambda name: os.path.join(directory.name, name)

    def file(self, name, content=b""):
        with open(self.path(name), "wb") as file:
            file.write(content)
        return self.path(name)

    def content(self, name):
        with open(self.path(name), "rb") as file:
            return file.read()


def reply(text=b"", status=0, state=0, result=0, errno=0, number=0):
    """The frame of one reply."""
    return protocol.encode_frame(protocol.encode_record(protocol.Record(
        (), 0, text, status, state, result, errno, number)))


class Wire:
    """The device's end of a connection, driven by a test."""

    def __init__(self, sock):
        sock.settimeout(LONG)
        self.sock = sock
        self._decoder = protocol.FrameDecoder()

    def take(self):
        """The arguments of the next request; None at the end."""
        while (payload := self._decoder.next()) is None:
            data = self.sock.recv(65536)
            if not data:
                return None
            self._decoder.feed(data)
        return protocol.decode_record(payload).args

    def send(self, data):
        self.sock.sendall(data)

    def reset(self):
        """Ends the connection with a reset."""
        self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\1\0\0\0\0\0\0\0")
        self.sock.close()


def _start(target, *args):
    thread = threading.Thread(target=target, args=args, daemon=True)
    thread.start()
    return thread


class FakeDevice:
    """Listens and runs `script(wire, number)` on each connection; `number` counts from 1."""

    def __init__(self, script):
        self._script = script
        self._socket = socket.create_server((ADDRESS, 0))
        self.address = "%s:%d" % self._socket.getsockname()
        self.connections = 0
        self._open = []
        self._thread = _start(self._serve)

    def _serve(self):
        with contextlib.suppress(OSError):
            while True:
                sock = self._socket.accept()[0]
                self.connections += 1
                self._open.append((sock, _start(self._play, sock, self.connections)))

    def _play(self, sock, number):
        with contextlib.suppress(OSError), sock:
            self._script(Wire(sock), number)

    def close(self):
        """Ends the threads before it closes their sockets: a thread that is just about to call
        accept or recv would otherwise use a later socket that got the same descriptor."""
        self._socket.shutdown(socket.SHUT_RDWR)
        self._thread.join(LONG)
        self._socket.close()
        for sock, thread in self._open:
            with contextlib.suppress(OSError):
                sock.shutdown(socket.SHUT_RDWR)
            thread.join(LONG)
            sock.close()


class Dialer:
    """A device that dials the master from a separate address and answers requests."""

    def __init__(self, port, source, hostid=b"", answers=True, content=b""):
        self.wire = Wire(socket.create_connection((ADDRESS, port), LONG, (source, 0)))
        self.asked = []
        self._texts = {b"hostid": hostid, b"devicetype": b"controller", b"read": content}
        if answers:
            self.answer()

    def answer(self):
        """Starts to answer requests."""
        threading.Thread(target=self._answer, daemon=True).start()

    def _answer(self):
        with contextlib.suppress(OSError, protocol.ProtocolError):
            while (args := self.wire.take()) is not None:
                self.asked.append(args[0])
                self.wire.send(reply(self._texts.get(args[0], b"")))

    def nothing_came(self):
        """Whether the connection is open and the master has sent nothing."""
        self.wire.sock.setblocking(False)
        try:
            return self.wire.sock.recv(1) is None
        except BlockingIOError:
            return True

    def close(self):
        with contextlib.suppress(OSError):
            self.wire.sock.shutdown(socket.SHUT_RDWR)
        self.wire.sock.close()
