# SPDX-License-Identifier: Apache-2.0
"""What the tests of the Python client share: a daemon, peers with a script, both faces as one."""
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
LONG = 20  # seconds: only a hang takes so long

ADDRESS = "127.0.0.1"


def require_world():
    """Ends this process unless it runs in a private world: the daemon reboots and rewrites."""
    with open("/proc/1/comm", encoding="ascii") as name:
        if os.environ.get("RUNELD_WORLD") != "1" or name.read().strip() != "world":
            sys.exit("These tests run in scripts/world only: start them with ctest.")


def wait_until(condition, what):
    """The first true value of `condition`; fails after LONG seconds."""
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
        """Ends it as a crash would."""
        self.killed = True
        self.process.kill()
        self.process.wait()

    def close(self):
        """Ends it in good order, unless it has ended."""
        if self.process.poll() is None:
            os.kill(self.process.pid, signal.SIGTERM)
        try:
            status = self.process.wait(LONG)
        finally:
            self.process.kill()
        self.errors.seek(0)
        text = self.errors.read()
        self.errors.close()
        expected = (-signal.SIGKILL,) if self.killed else (0, -signal.SIGHUP)  # the latter: reboot
        assert status in expected and b"Sanitizer" not in text, (status, text)


class ThreadFace:
    """A blocking object with awaitable methods, so that one test serves both faces."""

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
    """A test of both faces: `self.Device` and the others have awaitable methods."""

    def __getattr__(self, name):
        if name not in ("Device", "Master", "Fleet", "Agent"):
            raise AttributeError(name)
        if self.face == "async":
            return getattr(runel, f"Async{name}")
        return lambda *args, **keywords: ThreadFace(getattr(runel, name)(*args, **keywords))

    async def until(self, condition):
        """Waits for it; fails after LONG seconds."""
        end = time.monotonic() + LONG
        while not condition():
            self.assertLess(time.monotonic(), end, "it never came")
            await asyncio.sleep(0.01)

    async def fails(self, kind, outcome, work):
        """The error of `work`, which must be of this kind and have this outcome."""
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
    """The frame of a reply."""
    return protocol.encode_frame(protocol.encode_record(protocol.Record(
        (), 0, text, status, state, result, errno, number)))


class Wire:
    """A device's end of a connection, played by a test."""

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


class FakeDevice:
    """Listens, and plays `script(wire, number)` on each connection; `number` counts from 1."""

    def __init__(self, script):
        self._script = script
        self._socket = socket.create_server((ADDRESS, 0))
        self.address = "%s:%d" % self._socket.getsockname()
        self.connections = 0
        self._open = []
        threading.Thread(target=self._serve, daemon=True).start()

    def _serve(self):
        with contextlib.suppress(OSError):
            while True:
                sock = self._socket.accept()[0]
                self.connections += 1
                self._open.append(sock)
                threading.Thread(target=self._play, args=(sock, self.connections), daemon=True).start()

    def _play(self, sock, number):
        with contextlib.suppress(OSError), sock:
            self._script(Wire(sock), number)

    def close(self):
        self._socket.shutdown(socket.SHUT_RDWR)
        self._socket.close()
        for sock in self._open:
            sock.close()


class Dialer:
    """A device that dials the master from an address of its own and answers what it is asked."""

    def __init__(self, port, source, hostid=b"", answers=True, content=b""):
        self.wire = Wire(socket.create_connection((ADDRESS, port), LONG, (source, 0)))
        self.asked = []
        self._texts = {b"hostid": hostid, b"devicetype": b"controller", b"read": content}
        if answers:
            self.answer()

    def answer(self):
        """Answers from now on."""
        threading.Thread(target=self._answer, daemon=True).start()

    def _answer(self):
        with contextlib.suppress(OSError, protocol.ProtocolError):
            while (args := self.wire.take()) is not None:
                self.asked.append(args[0])
                self.wire.send(reply(self._texts.get(args[0], b"")))

    def nothing_came(self):
        """Whether the connection is open and the master has written nothing to it."""
        self.wire.sock.setblocking(False)
        try:
            return self.wire.sock.recv(1) is None
        except BlockingIOError:
            return True

    def close(self):
        with contextlib.suppress(OSError):
            self.wire.sock.shutdown(socket.SHUT_RDWR)
        self.wire.sock.close()
