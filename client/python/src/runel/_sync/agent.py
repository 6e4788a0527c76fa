# SPDX-License-Identifier: Apache-2.0
# Made by make_sync.py from _sync/agent.py.
"""A local agent: speaks clauses to a daemon and hears what comes back from its master."""
from __future__ import annotations

from types import TracebackType
from typing import Iterator, Optional, Type

from runel import _io_sync as io
from runel._address import TASK_PORT, split_address
from runel._clauses import PING, ClauseCutter, check_clause
from runel._protocol import ProtocolError
from runel.errors import LinkError, LocalError, Outcome, RunelTimeout, link_failure


class Agent:
    """A connection to a daemon as its agent. The daemon has one agent: a second one replaces it.

    `host` as for a device; `timeout`, in seconds, for connecting and for sending. The daemon makes
    its bridge to the master when the first clause comes, and keeps clauses until then.

    >>> with Agent("127.0.0.1") as agent:
    ...     agent.send(b"<status>ready</status>")
    """

    def __init__(self, host: str = "127.0.0.1", *, timeout: Optional[float] = 30.0) -> None:
        self.name = host
        self._address = split_address(host, TASK_PORT)
        self._timeout = timeout
        self._stream: Optional[io.Stream] = None
        self._cutter = ClauseCutter()
        self._sending = io.Lock()

    def __enter__(self) -> Agent:
        self.connect()
        return self

    def __exit__(
        self,
        kind: Optional[Type[BaseException]],
        error: Optional[BaseException],
        trace: Optional[TracebackType],
    ) -> None:
        self.close()

    def connect(self) -> None:
        """Connects. Raises `LinkError` or `RunelTimeout`."""
        try:
            self._stream = io.connect(*self._address, self._timeout)
        except TimeoutError:
            raise RunelTimeout(
                f"no connection within {self._timeout:g} s",
                outcome=Outcome.NOT_SENT,
                device=self.name,
            ) from None
        except OSError as error:
            raise link_failure("cannot connect", error).error(Outcome.NOT_SENT, self.name) from None

    def close(self) -> None:
        """Ends the connection; the daemon then closes the bridge."""
        if self._stream is not None:
            self._stream.close()

    def send(self, clause: bytes) -> None:
        """Sends one clause. Raises `LocalError` when it is not exactly one."""
        try:
            plain = check_clause(clause)
        except ProtocolError as error:
            raise LocalError(str(error), outcome=Outcome.NOT_SENT, device=self.name) from None
        stream = self._connected()
        try:
            with self._sending:
                stream.send(plain + b"\r\n", self._timeout)
        except OSError as error:
            stream.close()  # half a clause would spoil what follows
            raise link_failure("sending failed", error).error(Outcome.UNKNOWN, self.name) from None

    def ping(self) -> None:
        """Sends a ping, which the daemon may drop: never wait for one to come back."""
        self.send(PING)

    def receive(self, timeout: Optional[float] = None) -> Optional[bytes]:
        """The next clause from the master; None at the end of the connection.

        Raises `RunelTimeout` after `timeout` seconds without a byte. One caller at a time.
        """
        stream = self._connected()
        try:
            clause = self._cutter.next()
            while clause is None:
                data = stream.receive(timeout)
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

    def clauses(self) -> Iterator[bytes]:
        """The master's clauses as they come, until the connection ends."""
        clause = self.receive()
        while clause is not None:
            yield clause
            clause = self.receive()

    def _connected(self) -> io.Stream:
        if self._stream is None:
            raise LinkError("not connected", outcome=Outcome.NOT_SENT, device=self.name)
        return self._stream
