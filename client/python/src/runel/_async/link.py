# SPDX-License-Identifier: Apache-2.0
"""One connection that carries tasks: requests and answers have the same order."""
from __future__ import annotations

import collections
import time
from typing import Callable, Deque, Optional, Protocol

from runel import _io_async as io
from runel._peer import guess_peer
from runel._protocol import FrameDecoder, ProtocolError
from runel._sockets import CHUNK
from runel.errors import Failure, LinkError, Outcome, RunelError, RunelTimeout, link_failure
from runel.results import Reply, decode_reply
from runel.tasks import Request

_CHECK_INTERVAL = 1.0  # interval at which a waiting request checks its timeout, in seconds


class Sink(Protocol):
    """Receives the bytes of a connection."""

    def feed(self, data: bytes) -> None:
        """Handles received bytes. Raises `ProtocolError` if the connection must be closed."""

    def end(self, failure: Failure) -> None:
        """Handles the end of the connection. May be called again."""


async def pump(stream: io.Stream, sink: Sink) -> None:
    """Passes the bytes of `stream` to `sink` until one of them ends; closes the stream."""
    failure = Failure(LinkError, "the connection was closed here")
    try:
        data = await stream.receive()
        while data:
            sink.feed(data)
            data = await stream.receive()
        failure = Failure(LinkError, "the device closed the connection")
    except ProtocolError as error:
        failure = Failure(LinkError, str(error))
    except OSError as error:
        failure = link_failure("the connection was lost", error)
    finally:
        sink.end(failure)
        stream.close()


class Pending:
    """An unanswered request. `timeout`: seconds without a byte while it is the oldest."""

    def __init__(self, request: Request, timeout: Optional[float]) -> None:
        self.request = request
        self.timeout = timeout
        self.sent = False
        self.done = io.Event()
        self.reply: Optional[Reply] = None
        self.error: Optional[RunelError] = None


class Link:
    """Requests of any number of callers on one connection. `device`: its name in errors."""

    def __init__(self, stream: io.Stream, device: str) -> None:
        self.device = device
        self.ended = io.Event()
        self.failure: Optional[Failure] = None
        self.on_end: Optional[Callable[[Failure], None]] = None
        self._stream = stream
        self._decoder = FrameDecoder()
        self._sending = io.Lock()
        self._guard = io.mutex()
        self._pending: Deque[Pending] = collections.deque()
        self._progress = time.monotonic()
        self._answered = False

    async def submit(self, request: Request, timeout: Optional[float]) -> Pending:
        """Sends `request`. Raises with `Outcome.NOT_SENT` unless all of it was sent."""
        frame = request.encode()
        pending = Pending(request, timeout)
        async with self._sending:
            with self._guard:
                if self.failure is not None:
                    raise self._error(self.failure, pending, Outcome.NOT_SENT)
                if not self._pending:
                    self._progress = time.monotonic()
                self._pending.append(pending)
            # Set first: the end may be detected meanwhile, and must not count as "not sent".
            pending.sent = True
            await self._send(frame, pending)
        return pending

    async def _send(self, frame: bytes, pending: Pending) -> None:
        view = memoryview(frame)
        try:
            for start in range(0, len(view), CHUNK):
                await self._stream.send(view[start : start + CHUNK], pending.timeout)
                self._progress = time.monotonic()
        except TimeoutError:
            raise self._broken(_silence(pending.timeout), pending) from None
        except OSError as error:
            raise self._broken(link_failure("sending failed", error), pending) from None
        except BaseException:
            self.end(Failure(LinkError, "a request was given up half sent"))
            raise

    def _broken(self, failure: Failure, pending: Pending) -> RunelError:
        pending.sent = False
        self.end(failure)
        return self._error(self.failure or failure, pending, Outcome.NOT_SENT)

    async def post(self, request: Request, timeout: Optional[float]) -> None:
        """Sends `request`, which has no answer."""
        pending = Pending(request, timeout)
        frame = request.encode()
        async with self._sending:
            if self.failure is not None:
                raise self._error(self.failure, pending, Outcome.NOT_SENT)
            await self._send(frame, pending)

    async def answer(self, pending: Pending) -> Reply:
        """Waits for the answer. A caller that stops waiting does not affect the connection."""
        while not await pending.done.wait(self._time_left()):
            if not pending.done.is_set():
                self._check_silence()
        if pending.error is not None:
            raise pending.error
        assert pending.reply is not None
        return pending.reply

    def _time_left(self) -> float:
        timeout = self._front_timeout()
        if timeout is None:
            return _CHECK_INTERVAL
        return max(0.001, min(_CHECK_INTERVAL, self._progress + timeout - time.monotonic()))

    def _front_timeout(self) -> Optional[float]:
        with self._guard:
            return self._pending[0].timeout if self._pending else None

    def _check_silence(self) -> None:
        timeout = self._front_timeout()
        if timeout is not None and time.monotonic() >= self._progress + timeout:
            self.end(_silence(timeout))

    def feed(self, data: bytes) -> None:
        """Takes bytes from the device. Raises `ProtocolError` unless they are expected answers."""
        self._progress = time.monotonic()
        self._decoder.feed(data)
        try:
            while self._take():
                self._answered = True
        except ProtocolError as error:
            guess = "" if self._answered else guess_peer(data)
            raise ProtocolError(guess or f"the device sent a malformed answer: {error}") from None

    def _take(self) -> bool:
        with self._guard:
            front = self._pending[0] if self._pending else None
        if front is None:
            if self._decoder.is_empty:
                return False
            raise ProtocolError("bytes without a request")
        payload = self._decoder.next(front.request.task.reply_limit)
        if payload is None:
            return False
        reply = decode_reply(payload)
        with self._guard:
            if self._pending and self._pending[0] is front:
                self._pending.popleft()
        front.reply = reply
        front.done.set()
        return True

    def end(self, failure: Failure) -> None:
        """Closes the connection; pending requests fail. Only the first call has an effect."""
        with self._guard:
            if self.failure is not None:
                return
            self.failure = failure
            waiting = list(self._pending)
            self._pending.clear()
        self._stream.close()
        for pending in waiting:
            outcome = Outcome.UNKNOWN if pending.sent else Outcome.NOT_SENT
            pending.error = self._error(failure, pending, outcome)
            pending.done.set()
        self.ended.set()
        if self.on_end is not None:
            self.on_end(failure)

    def confirms(self, since: float) -> bool:
        """Whether the device's kernel acknowledged data in the last `since` seconds."""
        return self._stream.confirms(since)

    def _error(self, failure: Failure, pending: Pending, outcome: Outcome) -> RunelError:
        return failure.error(outcome, self.device, pending.request.task.name)


def _silence(timeout: Optional[float]) -> Failure:
    return Failure(RunelTimeout, f"the device was silent for {timeout:g} s")
