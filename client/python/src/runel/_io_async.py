# SPDX-License-Identifier: Apache-2.0
"""I/O with asyncio. `_io_sync` has the same names for threads.

Timeouts are in seconds, None waits without limit. Failures raise `TimeoutError` or another
`OSError`.
"""
from __future__ import annotations

import asyncio
import collections
import contextlib
import socket
from types import TracebackType
from typing import Any, Awaitable, Callable, ContextManager, Deque, Generic, Iterable, Optional
from typing import Set, Tuple, Type, TypeVar

from runel._sockets import CHUNK, Bytes, SharedSocket, listening_socket

T = TypeVar("T")

_tasks: Set["asyncio.Task[None]"] = set()  # asyncio itself has only weak references to tasks.


def mutex() -> ContextManager[Any]:
    """A lock for short sections that do not wait. asyncio does not need one."""
    return contextlib.nullcontext()


class Lock:
    """A lock, bound to the event loop that first uses it."""

    def __init__(self) -> None:
        self._lock: Optional[asyncio.Lock] = None

    async def __aenter__(self) -> None:
        if self._lock is None:
            self._lock = asyncio.Lock()
        await self._lock.acquire()

    async def __aexit__(
        self,
        kind: Optional[Type[BaseException]],
        error: Optional[BaseException],
        trace: Optional[TracebackType],
    ) -> None:
        assert self._lock is not None
        self._lock.release()


class Event:
    """An event that happens once, or again after `clear`."""

    def __init__(self) -> None:
        self._set = False
        self._waiters: Set["asyncio.Future[None]"] = set()

    def set(self) -> None:
        self._set = True
        for waiter in self._waiters:
            if not waiter.done():
                waiter.set_result(None)

    def clear(self) -> None:
        self._set = False

    def is_set(self) -> bool:
        return self._set

    async def wait(self, timeout: Optional[float] = None) -> bool:
        """Waits for the event; False after the timeout."""
        if self._set:
            return True
        waiter = asyncio.get_running_loop().create_future()
        self._waiters.add(waiter)
        try:
            await asyncio.wait({waiter}, timeout=timeout)
        finally:
            self._waiters.discard(waiter)
        return self._set


class Mailbox(Generic[T]):
    """A queue that keeps the newest `limit` items; `dropped` counts the others."""

    def __init__(self, limit: int) -> None:
        self._items: Deque[T] = collections.deque(maxlen=limit)
        self._filled = Event()
        self._closed = False
        self.dropped = 0

    def put(self, item: T) -> None:
        self.dropped += len(self._items) == self._items.maxlen
        self._items.append(item)
        self._filled.set()

    def close(self) -> None:
        """Marks the end: no more items follow."""
        self._closed = True
        self._filled.set()

    async def take(self, timeout: Optional[float] = None) -> Optional[T]:
        """Takes the oldest item; None after the timeout or at the end."""
        await self._filled.wait(timeout)
        item = self._items.popleft() if self._items else None
        if not self._items and not self._closed:
            self._filled.clear()
        return item


async def sleep(seconds: float) -> None:
    await asyncio.sleep(seconds)


def spawn(work: Callable[..., Awaitable[None]], *args: Any) -> None:
    """Runs `work` concurrently with the caller. `work` handles its errors."""
    task = asyncio.ensure_future(work(*args))
    _tasks.add(task)
    task.add_done_callback(_tasks.discard)


def call_later(seconds: float, work: Callable[[], None]) -> Callable[[], None]:
    """Calls `work` after `seconds`. Returns a function that cancels the call."""
    return asyncio.get_running_loop().call_later(seconds, work).cancel


async def call_blocking(work: Callable[..., T], *args: Any) -> T:
    """The result of `work`, which may block on a disk."""
    return await asyncio.get_running_loop().run_in_executor(None, work, *args)


async def run_all(work: Callable[[T], Awaitable[None]], items: Iterable[T], parallel: int) -> None:
    """Calls `work` with each item, at most `parallel` in parallel."""
    left = iter(items)

    async def worker() -> None:
        for item in left:
            await work(item)

    await asyncio.gather(*(worker() for _ in range(parallel)))


class Stream(SharedSocket):
    """A TCP connection: one task may send while another receives."""

    async def send(self, data: Bytes, timeout: Optional[float] = None) -> None:
        """Passes all of `data` to the kernel."""
        with self._use() as sock:
            await _within(timeout, asyncio.get_running_loop().sock_sendall(sock, data))

    async def receive(self, timeout: Optional[float] = None) -> bytes:
        """Received bytes; empty at the end of the connection."""
        with self._use() as sock:
            return await _within(timeout, asyncio.get_running_loop().sock_recv(sock, CHUNK))


# Not asyncio.wait_for(): before Python 3.12 it ignores a cancellation at the moment when the work
# has just ended, and the caller's task continues.
async def _within(timeout: Optional[float], work: Awaitable[T]) -> T:
    if timeout is None:
        return await work
    current = asyncio.current_task()
    assert current is not None
    task: "asyncio.Task[Any]" = current
    expired = False

    def expire() -> None:
        nonlocal expired
        expired = True
        task.cancel()

    timer = asyncio.get_running_loop().call_later(timeout, expire)
    try:
        return await work
    except asyncio.CancelledError:
        # Since Python 3.11 a task counts its cancellations: all others are the caller's.
        uncancel = getattr(task, "uncancel", lambda: 0)
        if not expired or uncancel() > 0:
            raise
        raise TimeoutError("timed out") from None
    finally:
        timer.cancel()


async def connect(host: str, port: int, timeout: Optional[float]) -> Stream:
    """Connects to `host`, a name or an IPv4 address."""
    return await _within(timeout, _connect(host, port))


async def _connect(host: str, port: int) -> Stream:
    loop = asyncio.get_running_loop()
    found = await loop.getaddrinfo(host, port, family=socket.AF_INET, type=socket.SOCK_STREAM)
    sock = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    try:
        sock.setblocking(False)
        await loop.sock_connect(sock, found[0][4])
        return Stream(sock)
    except BaseException:
        sock.close()
        raise


class Listener(SharedSocket):
    """A listening port for devices."""

    def __init__(self, host: str, port: int) -> None:
        sock = listening_socket(host, port)
        self.port: int = sock.getsockname()[1]
        super().__init__(sock)

    async def accept(self) -> Tuple[Stream, str, int]:
        """The next connection with its address and port."""
        with self._use() as sock:
            accepted, (host, port) = await asyncio.get_running_loop().sock_accept(sock)
            return Stream(accepted), host, port
