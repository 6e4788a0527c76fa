# SPDX-License-Identifier: Apache-2.0
"""The other ends of the daemon's connections: a master that listens, a client that connects."""
import re
import select
import socket
import struct
import time

from support.wait import TIMEOUT
from support.wire import parse_record, request

AGENT_PORT = 5111
MASTER_PORT = 5112


def ready(connected, events, timeout):
    """The events of @p events that the socket is ready for, within @p timeout seconds, or 0."""
    poll = select.poll()
    poll.register(connected, events)
    answers = poll.poll(max(timeout, 0) * 1000)
    return answers[0][1] if answers else 0


class Peer:
    """A connected socket that returns complete replies. Closed by `close` or the destructor."""

    def __init__(self, connected):
        self.socket = connected
        self.buffer = bytearray()

    def close(self):
        self.socket.close()

    def reset(self):
        """Closes with a reset instead of an end of file."""
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.socket.close()

    def send(self, data):
        """Sends all bytes and reads replies meanwhile, so that neither side waits for the other."""
        view = memoryview(data)
        while view:
            can = ready(self.socket, select.POLLIN | select.POLLOUT, TIMEOUT)
            assert can, "the daemon takes no bytes"
            if can & select.POLLIN:
                self._fill()
            if can & select.POLLOUT:
                view = view[self.socket.send(view, socket.MSG_DONTWAIT):]

    def _fill(self):
        data = self.socket.recv(1 << 20)
        self.buffer += data
        assert data, f"connection ended early, with {bytes(self.buffer[:80])!r} buffered"

    def _wait_readable(self, deadline):
        can = ready(self.socket, select.POLLIN, deadline - time.monotonic())
        assert can, f"nothing came in time, {bytes(self.buffer[:80])!r} buffered"

    def receive_frame(self, timeout=TIMEOUT):
        """The payload of the next frame."""
        deadline = time.monotonic() + timeout
        while True:
            head = re.match(rb"\x01(0|[1-9][0-9]{0,8})\x02", self.buffer)
            if head and len(self.buffer) >= head.end() + int(head[1]):
                end = head.end() + int(head[1])
                payload = bytes(self.buffer[head.end():end])
                del self.buffer[:end]
                return payload
            assert head or re.fullmatch(rb"(\x01[0-9]{0,9})?", self.buffer), bytes(self.buffer[:80])
            self._wait_readable(deadline)
            self._fill()

    def receive(self, timeout=TIMEOUT):
        """The next reply."""
        return parse_record(self.receive_frame(timeout))

    def ask(self, *arguments, exec_param=0, timeout=TIMEOUT):
        """Sends one request and returns its reply."""
        self.send(request(*arguments, exec_param=exec_param))
        return self.receive(timeout)

    def receive_bytes(self, count, timeout=TIMEOUT):
        deadline = time.monotonic() + timeout
        while len(self.buffer) < count:
            self._wait_readable(deadline)
            self._fill()
        data = bytes(self.buffer[:count])
        del self.buffer[:count]
        return data

    def read_to_end(self, timeout=TIMEOUT):
        """All bytes until the daemon closes the connection; a reset counts as the end of file."""
        deadline = time.monotonic() + timeout
        try:
            while True:
                self._wait_readable(deadline)
                data = self.socket.recv(1 << 20)
                if not data:
                    break
                self.buffer += data
        except ConnectionResetError:
            pass
        data = bytes(self.buffer)
        self.buffer.clear()
        return data

    def is_open(self):
        """False when the daemon has closed its end and all its bytes have been read."""
        if not ready(self.socket, select.POLLIN, 0):
            return True
        try:
            return self.socket.recv(1, socket.MSG_PEEK) != b""
        except ConnectionResetError:
            return False


class Client(Peer):
    """A connection to port 5111 of the daemon."""

    def __init__(self, source=None, receive_buffer=None):
        connected = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        if receive_buffer is not None:
            connected.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        connected.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        if source:
            connected.bind((source, 0))
        connected.connect(("127.0.0.1", AGENT_PORT))
        super().__init__(connected)

    @property
    def port(self):
        return self.socket.getsockname()[1]


class Master:
    """Listens on port 5112 for the daemon."""

    def __init__(self, address="127.0.0.1", backlog=128):
        self.listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self.listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.listener.bind((address, MASTER_PORT))
        self.listener.listen(backlog)
        self.peers = []

    def accept(self, timeout=TIMEOUT):
        """The next connection of the daemon."""
        self.listener.settimeout(timeout)
        connected, _ = self.listener.accept()
        connected.settimeout(None)
        connected.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.peers.append(Peer(connected))
        return self.peers[-1]

    def no_connection_waits(self):
        """True if no connection of the daemon waits for accept()."""
        return not ready(self.listener, select.POLLIN, 0)

    def close(self):
        self.listener.close()
        for peer in self.peers:
            peer.close()
