# SPDX-License-Identifier: Apache-2.0
"""I/O with sockets and threads. `_io_async` has the same names for asyncio.

Timeouts are in seconds, None waits without limit. Failures raise `TimeoutError` or another
`OSError`.
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
    """A lock for short sections that do not wait."""
    return threading.Lock()


class Lock:
    """A lock for one thread."""

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
    """An event that happens once, or again after `clear`."""


class Mailbox(Generic[T]):
    """A queue that keeps the newest `limit` items; `dropped` counts the others."""

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
        """Marks the end: no more items follow."""
        with self._filled:
            self._closed = True
            self._filled.notify_all()

    def take(self, timeout: Optional[float] = None) -> Optional[T]:
        """Takes the oldest item; None after the timeout or at the end."""
        with self._filled:
            self._filled.wait_for(lambda: self._items or self._closed, timeout)
            return self._items.popleft() if self._items else None


def sleep(seconds: float) -> None:
    time.sleep(seconds)


def spawn(work: Callable[..., None], *args: Any) -> None:
    """Runs `work` concurrently with the caller. `work` handles its errors."""
    threading.Thread(target=work, args=args, daemon=True).start()


def call_later(seconds: float, work: Callable[[], None]) -> Callable[[], None]:
    """Calls `work` after `seconds`. Returns a function that cancels the call."""
    timer = threading.Timer(seconds, work)
    timer.daemon = True
    timer.start()
    return timer.cancel


def call_blocking(work: Callable[..., T], *args: Any) -> T:
    """The result of `work`, which may block on a disk."""
    return work(*args)


def run_all(work: Callable[[T], None], items: Iterable[T], parallel: int) -> None:
    """Calls `work` with each item, at most `parallel` in parallel. Raises the first error."""
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
    """A TCP connection: one thread may send while another receives."""

    def send(self, data: Bytes, timeout: Optional[float] = None) -> None:
        """Passes all of `data` to the kernel."""
        view = memoryview(data)
        with self._use() as sock:
            while view:
                try:
                    view = view[sock.send(view) :]
                except BlockingIOError:
                    _wait(sock, select.POLLOUT, timeout)

    def receive(self, timeout: Optional[float] = None) -> bytes:
        """Received bytes; empty at the end of the connection."""
        with self._use() as sock:
            while True:
                try:
                    return sock.recv(CHUNK)
                except BlockingIOError:
                    _wait(sock, select.POLLIN, timeout)


def connect(host: str, port: int, timeout: Optional[float]) -> Stream:
    """Connects to `host`, a name or an IPv4 address."""
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
    """A listening port for devices."""

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
