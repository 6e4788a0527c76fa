# SPDX-License-Identifier: Apache-2.0
"""Sockets for both I/O layers: options, an owner that closes once, TCP acknowledgements."""
from __future__ import annotations

import contextlib
import fcntl
import socket
import struct
import threading
from typing import Iterator, Union

Bytes = Union[bytes, memoryview]

CHUNK = 262144
"""Maximum number of bytes in one send or receive call."""

_SIOCOUTQ = 0x5411
_LAST_ACK_RECV = 56  # offset in struct tcp_info; the value is in milliseconds
_TICK = 0.02


def set_options(sock: socket.socket) -> None:
    """Sets non-blocking mode, TCP_NODELAY, and the keepalive times that the daemon uses."""
    sock.setblocking(False)
    sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_KEEPALIVE, 1)
    for name, value in (("TCP_KEEPIDLE", 10), ("TCP_KEEPINTVL", 10), ("TCP_KEEPCNT", 5)):
        if hasattr(socket, name):
            sock.setsockopt(socket.IPPROTO_TCP, getattr(socket, name), value)


class SharedSocket:
    """Owns a socket that concurrent calls use: closed when the last of them has returned."""

    def __init__(self, sock: socket.socket) -> None:
        set_options(sock)
        self._sock = sock
        self._guard = threading.Lock()
        self._users = 0
        self._closing = False

    def close(self) -> None:
        """Shuts the connection down and wakes the calls that wait for it. May be called again."""
        with self._guard:
            if self._closing:
                return
            self._closing = True
            with contextlib.suppress(OSError):
                self._sock.shutdown(socket.SHUT_RDWR)
            if self._users == 0:
                self._sock.close()

    @contextlib.contextmanager
    def _use(self) -> Iterator[socket.socket]:
        with self._guard:
            if self._closing:
                raise ConnectionAbortedError("the connection was closed here")
            self._users += 1
        try:
            yield self._sock
        finally:
            with self._guard:
                self._users -= 1
                if self._closing and self._users == 0:
                    self._sock.close()

    def confirms(self, since: float) -> bool:
        """Whether the peer's kernel acknowledged data in the last `since` seconds.

        True as well without data in flight, and on a system that does not report it.
        """
        try:
            with self._use() as sock:
                if not struct.unpack("i", fcntl.ioctl(sock.fileno(), _SIOCOUTQ, bytes(4)))[0]:
                    return True
                info = sock.getsockopt(socket.IPPROTO_TCP, socket.TCP_INFO, _LAST_ACK_RECV + 4)
                last = struct.unpack_from("I", info, _LAST_ACK_RECV)[0] / 1000
                return bool(last + _TICK < since)
        except (OSError, AttributeError, struct.error):
            return True


def listening_socket(host: str, port: int) -> socket.socket:
    """A non-blocking socket that listens on `host` (empty: all addresses) and `port`."""
    sock = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    try:
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        sock.bind((host, port))
        sock.listen(4096)  # all devices dial at the same time when their master returns
        sock.setblocking(False)
    except BaseException:
        sock.close()
        raise
    return sock
