# SPDX-License-Identifier: Apache-2.0
"""The I/O of the sync face: sockets and threads. `_io_async` has the same names for asyncio.

Timeouts are in seconds, None waits without limit; `TimeoutError` and other `OSError` tell of
failures.
"""
from __future__ import annotations

import collections
import select
import socket
import threading
import time
from types import TracebackType
from typing import Any, Callable, ContextManager, Deque, Generic, Iterable, List, Optional, Tuple
from typing import Type, TypeVar

from runel._sockets import CHUNK, Bytes, SharedSocket, listening_socket

T = TypeVar("T")


def mutex() -> ContextManager[Any]:
    """A lock for short sections without a wait in them."""
    return threading.Lock()


class Lock:
    """Held by one thread at a time."""

    def __init__(self) -> None:
        self._lock = threading.Lock()

    def __enter__(self) -> None:
        self._lock.acquire()

    def __exit__(
        self,
        kind: Optional[Type[BaseException]],
        error: Optional[BaseException],
        trace: Optional[TracebackType],
    ) -> None:
        self._lock.release()


class Event(threading.Event):
    """Something that happens once, or again after `clear`."""


class Mailbox(Generic[T]):
    """Items from one side to the other. Keeps the newest `limit`; `dropped` counts the rest."""

    def __init__(self, limit: int) -> None:
        self._items: Deque[T] = collections.deque(maxlen=limit)
        self._filled = threading.Condition()
        self._closed = False
        self.dropped = 0

    def put(self, item: T) -> None:
        with self._filled:
            self.dropped += len(self._items) == self._items.maxlen
            self._items.append(item)
            self._filled.notify()

    def close(self) -> None:
        """No more items come."""
        with self._filled:
            self._closed = True
            self._filled.notify_all()

    def take(self, timeout: Optional[float] = None) -> Optional[T]:
        """The oldest item; None when the timeout came first, or no more items come."""
        with self._filled:
            self._filled.wait_for(lambda: self._items or self._closed, timeout)
            return self._items.popleft() if self._items else None


def sleep(seconds: float) -> None:
    time.sleep(seconds)


def spawn(work: Callable[..., None], *args: Any) -> None:
    """Runs `work`, which handles its own errors, beside the caller."""
    threading.Thread(target=work, args=args, daemon=True).start()


def call_later(seconds: float, work: Callable[[], None]) -> Callable[[], None]:
    """Has `work` called after `seconds`. The result calls it off."""
    timer = threading.Timer(seconds, work)
    timer.daemon = True
    timer.start()
    return timer.cancel


def call_blocking(work: Callable[..., T], *args: Any) -> T:
    """The result of `work`, which may wait for a disk."""
    return work(*args)


def run_all(work: Callable[[T], None], items: Iterable[T], parallel: int) -> None:
    """Calls `work` with each item, at most `parallel` at a time. The first error is raised."""
    left = iter(items)
    guard = threading.Lock()
    errors: List[BaseException] = []

    def worker() -> None:
        while not errors:
            with guard:
                try:
                    item = next(left)
                except StopIteration:
                    return
            try:
                work(item)
            except BaseException as error:
                errors.append(error)

    threads = [threading.Thread(target=worker, daemon=True) for _ in range(parallel)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    if errors:
        raise errors[0]


def _wait(sock: socket.socket, event: int, timeout: Optional[float]) -> None:
    poll = select.poll()
    poll.register(sock, event)
    if not poll.poll(None if timeout is None else max(0.0, timeout) * 1000):
        raise TimeoutError("timed out")


class Stream(SharedSocket):
    """A TCP connection: one thread may send while another one receives."""

    def send(self, data: Bytes, timeout: Optional[float] = None) -> None:
        """Hands all of `data` to the kernel."""
        view = memoryview(data)
        with self._use() as sock:
            while view:
                try:
                    view = view[sock.send(view) :]
                except BlockingIOError:
                    _wait(sock, select.POLLOUT, timeout)

    def receive(self, timeout: Optional[float] = None) -> bytes:
        """Bytes that came; none at the end of the connection."""
        with self._use() as sock:
            while True:
                try:
                    return sock.recv(CHUNK)
                except BlockingIOError:
                    _wait(sock, select.POLLIN, timeout)


def connect(host: str, port: int, timeout: Optional[float]) -> Stream:
    """A connection to `host`, a name or an IPv4 address."""
    found = socket.getaddrinfo(host, port, family=socket.AF_INET, type=socket.SOCK_STREAM)
    sock = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    try:
        sock.settimeout(timeout)
        sock.connect(found[0][4])
        return Stream(sock)
    except socket.timeout:
        sock.close()
        raise TimeoutError("timed out") from None
    except BaseException:
        sock.close()
        raise


class Listener(SharedSocket):
    """A port that devices dial."""

    def __init__(self, host: str, port: int) -> None:
        sock = listening_socket(host, port)
        self.port: int = sock.getsockname()[1]
        super().__init__(sock)

    def accept(self) -> Tuple[Stream, str, int]:
        """The next connection with its address and port."""
        with self._use() as sock:
            while True:
                try:
                    accepted, (host, port) = sock.accept()
                    return Stream(accepted), host, port
                except BlockingIOError:
                    _wait(sock, select.POLLIN, None)
