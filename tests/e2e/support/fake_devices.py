# SPDX-License-Identifier: Apache-2.0
"""Devices that dial the gateway from separate loopback addresses and do what a test wants."""
import contextlib
import socket
import threading

from support.ctl import reply, requests
from support.gateway import DEVICE_PORT
from support.wait import TIMEOUT

STAT = (b"dev=1 ino=2 mode=0040755 nlink=2 uid=0 gid=0 rdev=0 size=4096 blksize=4096 blocks=8 "
        b"atime=1.000000000 mtime=1.000000000 ctime=1.000000000\n")


def address_of(number):
    return f"127.{32 + number // 62500}.{number // 250 % 250}.{number % 250 + 1}"


def dial(address, timeout=TIMEOUT):
    """A connection to the gateway from @p address that says nothing."""
    connected = socket.socket()
    connected.settimeout(timeout)
    connected.bind((address, 0))
    connected.connect(("127.0.0.1", DEVICE_PORT))
    return connected


def nothing_came(connected):
    """Whether the gateway has neither written to @p connected nor closed it."""
    connected.setblocking(False)
    try:
        connected.recv(1)
    except BlockingIOError:
        return True
    finally:
        connected.settimeout(TIMEOUT)
    return False


class FakeDevice:
    """Answers requests in a thread. `answers` has the bytes to send for a task: they need not be an answer."""

    def __init__(self, address, hostid, answers=None):
        self.address, self.hostid = address, hostid
        self.answers = answers or {}
        self.asked = []
        self.socket = dial(address)
        self.thread = threading.Thread(target=self._serve, daemon=True)
        self.thread.start()

    def _serve(self):
        usual = {"hostid": self.hostid, "devicetype": b"controller", "read": b"6.1\n", "stat": STAT,
                 "freeblocks": b"1000"}
        with contextlib.suppress(OSError, AssertionError):
            for words in requests(self.socket):
                self.asked.append(words)
                answer = self.answers.get(words[0])
                if callable(answer):
                    answer(self.socket)
                elif answer is not None:
                    self.socket.sendall(answer)
                else:
                    self.socket.sendall(reply(usual.get(words[0], b"")))

    def close(self):
        with contextlib.suppress(OSError):
            self.socket.shutdown(socket.SHUT_RDWR)
        self.thread.join(TIMEOUT)
        self.socket.close()
