# SPDX-License-Identifier: Apache-2.0
"""A local agent: exchanges clauses with the daemon's master."""
from __future__ import annotations

from types import TracebackType
from typing import AsyncIterator, Optional, Type

from runel import _io_async as io
from runel._address import TASK_PORT, split_address
from runel._clauses import PING, ClauseCutter, check_clause
from runel._protocol import ProtocolError
from runel.errors import LinkError, LocalError, Outcome, RunelTimeout, link_failure


class AsyncAgent:
    """A connection to a daemon as its agent. The daemon has one agent: a second one replaces it.

    `host`: as for a device. `timeout`: seconds for connecting and for sending. The daemon connects
    the bridge to its master when the first clause arrives, and keeps clauses until then.

    >>> async with AsyncAgent("127.0.0.1") as agent:
    ...     await agent.send(b"<status>ready</status>")
    """

    def __init__(self, host: str = "127.0.0.1", *, timeout: Optional[float] = 30.0) -> None:
        self.name = host
        self._address = split_address(host, TASK_PORT)
        self._timeout = timeout
        self._stream: Optional[io.Stream] = None
        self._cutter = ClauseCutter()
        self._sending = io.Lock()

    async def __aenter__(self) -> AsyncAgent:
        await self.connect()
        return self

    async def __aexit__(
        self,
        kind: Optional[Type[BaseException]],
        error: Optional[BaseException],
        trace: Optional[TracebackType],
    ) -> None:
        await self.close()

    async def connect(self) -> None:
        """Connects. Raises `LinkError` or `RunelTimeout`."""
        try:
            self._stream = await io.connect(*self._address, self._timeout)
        except TimeoutError:
            raise RunelTimeout(
                f"no connection within {self._timeout:g} s",
                outcome=Outcome.NOT_SENT,
                device=self.name,
            ) from None
        except OSError as error:
            raise link_failure("cannot connect", error).error(Outcome.NOT_SENT, self.name) from None

    async def close(self) -> None:
        """Closes the connection; the daemon then closes the bridge."""
        if self._stream is not None:
            self._stream.close()

    async def send(self, clause: bytes) -> None:
        """Sends one clause. Raises `LocalError` if `clause` is not exactly one."""
        try:
            plain = check_clause(clause)
        except ProtocolError as error:
            raise LocalError(str(error), outcome=Outcome.NOT_SENT, device=self.name) from None
        stream = self._connected()
        try:
            async with self._sending:
                await stream.send(plain + b"\r\n", self._timeout)
        except OSError as error:
            stream.close()  # a partial clause would corrupt the stream
            raise link_failure("sending failed", error).error(Outcome.UNKNOWN, self.name) from None

    async def ping(self) -> None:
        """Sends a ping. The daemon may drop pings, so do not wait for a reply."""
        await self.send(PING)

    async def receive(self, timeout: Optional[float] = None) -> Optional[bytes]:
        """The next clause from the master; None at the end of the connection.

        Raises `RunelTimeout` after `timeout` seconds without a byte. Not for concurrent callers.
        """
        stream = self._connected()
        try:
            clause = self._cutter.next()
            while clause is None:
                data = await stream.receive(timeout)
                if not data:
                    return None
                self._cutter.feed(data)
                clause = self._cutter.next()
            return clause
        except TimeoutError:
            raise RunelTimeout(
                f"no clause within {timeout:g} s", outcome=Outcome.ANSWERED, device=self.name
            ) from None
        except ProtocolError as error:
            raise LinkError(str(error), outcome=Outcome.ANSWERED, device=self.name) from None
        except OSError as error:
            failure = link_failure("the connection was lost", error)
            raise failure.error(Outcome.UNKNOWN, self.name) from None

    async def clauses(self) -> AsyncIterator[bytes]:
        """The master's clauses as they arrive, until the connection ends."""
        clause = await self.receive()
        while clause is not None:
            yield clause
            clause = await self.receive()

    def _connected(self) -> io.Stream:
        if self._stream is None:
            raise LinkError("not connected", outcome=Outcome.NOT_SENT, device=self.name)
        return self._stream
