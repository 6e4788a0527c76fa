# SPDX-License-Identifier: Apache-2.0
"""Fake devices: they dial a master as runeld does, and behave correctly or not."""
import contextlib
import re
import select
import socket
import threading

from support.ctl import FRAME, reply
from support.peers import MASTER_PORT
from support.threads import serve_in_thread
from support.wait import TIMEOUT, wait_until

TCP_REPAIR = 19


class FakeDevice:
    """One connection to the master. Answers each request in a separate thread and keeps all
    received bytes, so that a test can check that a connection received nothing."""

    def __init__(self, case, source="127.0.0.1", hostid="fake", answers=True, greeting=b"",
                 port=MASTER_PORT):
        self.hostid = hostid if isinstance(hostid, bytes) else hostid.encode()
        self.answers = answers
        self.held = []
        self.came = b""
        self.ended = threading.Event()
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self.socket.bind((source, 0))
        self.socket.connect(("127.0.0.1", port))
        self.port = self.socket.getsockname()[1]
        if greeting:
            self.send(greeting)
        self.thread = serve_in_thread(self._serve)
        case.addCleanup(self.close)

    def _serve(self):
        rest = b""
        with contextlib.suppress(OSError):
            while data := self.socket.recv(65536):
                self.came += data
                rest = self._answer(rest + data)
        self.ended.set()

    def _answer(self, data):
        while (head := FRAME.match(data)) and len(data) >= head.end() + int(head[1]):
            end = head.end() + int(head[1])
            request, data = data[head.end():end], data[end:]
            answer = self.answer(request)
            if self.answers:
                self.socket.sendall(answer)
            else:
                self.held.append(answer)
        return data

    def answer(self, request):
        if b" 6:hostid" in request:
            return reply(self.hostid)
        if b" 10:devicetype" in request:
            return reply(b"fake")
        return reply()

    def answer_held(self):
        """Sends the pending answers, and later ones without delay."""
        self.answers = True
        held, self.held = self.held, []
        for answer in held:
            self.socket.sendall(answer)

    def send(self, data):
        self.socket.sendall(data)

    def blurt(self, data):
        """Sends @p data until the master closes the connection."""
        with contextlib.suppress(ConnectionResetError, BrokenPipeError):
            self.send(data)

    def wait_asked(self, task):
        wait_until(lambda: task in self.came, f"asked for {task}, got {self.came[-200:]!r}")

    def wait_ended(self, timeout=TIMEOUT):
        assert self.ended.wait(timeout), "the master keeps the connection"

    def vanish(self):
        """Drops the connection without sending anything, like a device that was switched off: its
        kernel then does not know the connection."""
        self.socket.setsockopt(socket.IPPROTO_TCP, TCP_REPAIR, 1)
        self.close()

    def close(self):
        with contextlib.suppress(OSError):
            self.socket.shutdown(socket.SHUT_RD)
        self.thread.join(TIMEOUT)  # it could read from a later socket with the same descriptor
        self.socket.close()


class FakeDevices:
    """Many fake devices with separate addresses, served by one thread."""

    def __init__(self, case, count):
        self.poll = select.epoll()
        self.sockets = {}
        self.names = []
        self.content = b"fake"
        self.stop = False
        self.thread = threading.Thread(target=self._serve, daemon=True)
        self.thread.start()
        case.addCleanup(self.close)
        self.grow(count)

    def grow(self, count):
        """Connects more devices, up to @p count."""
        for number in range(len(self.names), count):
            self._connect(f"127.1.{number // 250}.{number % 250 + 1}", f"unit-{number:04d}")

    def _connect(self, address, hostid):
        connected = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        connected.bind((address, 0))
        connected.connect(("127.0.0.1", MASTER_PORT))
        self.sockets[connected.fileno()] = (connected, hostid.encode())
        self.names.append(hostid)
        self.poll.register(connected, select.EPOLLIN)

    def _serve(self):
        while not self.stop:
            for fd, _ in self.poll.poll(0.2):
                connected, hostid = self.sockets[fd]
                data = connected.recv(65536)
                if not data:
                    self.poll.unregister(fd)
                # Requests are short: each arrives in one piece.
                for request in re.split(rb"\x01\d+\x02", data)[1:]:
                    connected.sendall(reply(hostid if b" 6:hostid" in request else self.content))

    def close(self):
        self.stop = True
        self.thread.join()
        for connected, _ in self.sockets.values():
            connected.close()
