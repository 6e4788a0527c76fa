# SPDX-License-Identifier: Apache-2.0
"""A master: the port that devices dial, and the roles of their connections."""
from __future__ import annotations

import itertools
import re
import time
from types import TracebackType
from typing import AsyncIterator, Dict, List, Optional, Type

from runel import _io_async as io
from runel._address import MASTER_PORT
from runel._async.device import AsyncDevice
from runel._async.link import Link, Sink, pump
from runel._clauses import ClauseCutter, check_clause
from runel._roles import ConnectionRoles
from runel._protocol import ProtocolError
from runel.errors import Failure, LinkError, LocalError, Outcome, RunelError, RunelTimeout
from runel.errors import link_failure
from runel.events import AgentConnected, AgentLost, Clause, Connected, Event, Lost
from runel.tasks import request

MAX_EVENTS = 4096
"""Maximum number of unread events; the oldest are dropped."""

MAX_CONNECTIONS = 4096
"""Maximum number of connections; further ones wait in the queue of the port."""

_CONFIRM_TIME = 5.0  # Seconds. A kernel acknowledges received data within a fraction of this.
_ACCEPT_PAUSE = 1.0
_USABLE_NAME = re.compile(r"[A-Za-z0-9._-]{1,128}")


class _Further:
    """Receives the bytes of a bridge or of a surplus connection."""

    def __init__(self, peer: _Peer, master: AsyncMaster) -> None:
        self._peer = peer
        self._master = master
        self._cutter = ClauseCutter()
        self.spoke = False

    def feed(self, data: bytes) -> None:
        self._cutter.feed(data)
        if not self.spoke:
            if self._cutter.is_empty:
                return
            self.spoke = True
            self._master._spoke(self._peer)
        clause = self._cutter.next()
        while clause is not None:
            self._master._heard(self._peer, clause)
            clause = self._cutter.next()

    def end(self, failure: Failure) -> None:
        """Nothing to do: the peer tells the master."""


class _Peer:
    """One connection at the master, in any role."""

    def __init__(self, number: int, stream: io.Stream, host: str, port: int) -> None:
        self.number = number
        self.stream = stream
        self.host = host
        self.address = f"{host}:{port}"
        self.name = host
        self.device: Optional[AsyncDevice] = None
        self.link: Optional[Link] = None
        self.further: Optional[_Further] = None
        self.connected = False
        self.identified = io.Event()
        self.why = ""
        self.sending = io.Lock()

    def feed(self, data: bytes) -> None:
        sink: Optional[Sink] = self.link or self.further
        assert sink is not None
        sink.feed(data)

    def end(self, failure: Failure) -> None:
        if self.link is not None:
            self.link.end(failure)
        self.why = failure.sentence


class AsyncMaster:
    """Accepts devices. Nothing is authenticated or encrypted: use a dedicated network.

    `host`, `port`: where to listen (default: all addresses). `timeout`: as for a device, in
    seconds. `shared`: seconds, for several devices behind one address: a further connection that
    is silent for this time counts as another device. An agent must send its first clause within
    this time, because a frame on a bridge stops the daemon.

    A device dials one connection for tasks and, while it has an agent, a bridge for clauses. It
    does not mark which is which. The first connection from an address carries tasks. The master
    writes to a further one only after it has sent a clause, which makes it a bridge, or after it
    has outlived the first one by 5 s, which makes it the connection for tasks. The master keeps a
    surplus connection open and silent: closing it would stop the daemon.

    A device's name is its host identifier, or its address if the identifier is not a valid name.
    The master owns its devices: do not close them. `close`, or the end of a `with` block, closes
    all connections; daemons dial again.

    >>> async with AsyncMaster() as master:
    ...     device = (await master.wait_for(1, timeout=20))[0]
    ...     await device.fileexists("/etc/hosts")
    True
    """

    def __init__(
        self,
        host: str = "",
        port: int = MASTER_PORT,
        *,
        timeout: Optional[float] = 30.0,
        shared: Optional[float] = None,
    ) -> None:
        self._place = (host, port)
        self._timeout = timeout
        self._listener: Optional[io.Listener] = None
        self._roles = ConnectionRoles(shared)
        self._guard = io.mutex()
        self._numbers = itertools.count(1)
        self._peers: Dict[int, _Peer] = {}
        self._events: io.Mailbox[Event] = io.Mailbox(MAX_EVENTS)
        self._changed = io.Event()
        self._due = io.Event()
        self._closed = False

    async def __aenter__(self) -> AsyncMaster:
        await self.open()
        return self

    async def __aexit__(
        self,
        kind: Optional[Type[BaseException]],
        error: Optional[BaseException],
        trace: Optional[TracebackType],
    ) -> None:
        await self.close()

    async def open(self) -> None:
        """Starts to listen. Raises `LinkError` if the port is not available."""
        try:
            self._listener = io.Listener(*self._place)
        except OSError as error:
            failure = link_failure("cannot listen on port %d" % self._place[1], error)
            raise failure.error(Outcome.NOT_SENT, self._place[0]) from None
        io.spawn(self._accept, self._listener)
        io.spawn(self._promote)

    async def close(self) -> None:
        """Stops listening and closes all connections, those for tasks first.

        A daemon with a surplus connection then ends, and its supervisor restarts it.
        """
        self._closed = True
        if self._listener is not None:
            self._listener.close()
        with self._guard:
            peers = sorted(self._peers.values(), key=lambda peer: peer.link is None)
        for peer in peers:
            peer.stream.close()
        self._due.set()
        self._changed.set()
        self._events.close()

    @property
    def port(self) -> int:
        """The port on which the master listens."""
        return self._place[1] if self._listener is None else self._listener.port

    @property
    def devices(self) -> Dict[str, AsyncDevice]:
        """The connected devices, by name."""
        with self._guard:
            return {
                peer.name: peer.device
                for peer in self._peers.values()
                if peer.device is not None and peer.connected
            }

    @property
    def dropped_events(self) -> int:
        """Number of events that were dropped because they were not read."""
        return self._events.dropped

    async def wait_for(self, count: int, timeout: Optional[float] = None) -> List[AsyncDevice]:
        """Waits for `count` devices or more, and returns all connected ones.

        Raises `RunelTimeout` when that takes longer than `timeout` seconds.
        """
        end = None if timeout is None else time.monotonic() + timeout
        while True:
            self._changed.clear()
            devices = self.devices
            if len(devices) >= count:
                return list(devices.values())
            left = None if end is None else end - time.monotonic()
            if self._closed or (left is not None and left <= 0):
                raise RunelTimeout(
                    f"{len(devices)} of {count} devices connected", outcome=Outcome.NOT_SENT
                )
            await self._changed.wait(left)

    async def next_event(self, timeout: Optional[float] = None) -> Optional[Event]:
        """The next event; None after `timeout` seconds without an event, or after `close`."""
        return await self._events.take(timeout)

    async def events(self) -> AsyncIterator[Event]:
        """The events as they arrive, until the master is closed."""
        event = await self.next_event()
        while event is not None:
            yield event
            event = await self.next_event()

    async def send_clause(self, device: str, clause: bytes) -> None:
        """Sends one clause to the agent of the device with this name or address.

        Raises `LocalError` if `clause` is not exactly one clause, and `LinkError` while the bridge
        to that agent is unknown: the agent's first clause identifies it. The agent does not
        acknowledge a clause.
        """
        try:
            plain = check_clause(clause)
        except ProtocolError as error:
            raise LocalError(str(error), outcome=Outcome.NOT_SENT, device=device) from None
        bridges = self._bridges(device)
        if len(bridges) != 1:
            what = "no agent is known to be connected" if not bridges else "several agents"
            raise LinkError(what, outcome=Outcome.NOT_SENT, device=device)
        try:
            async with bridges[0].sending:
                await bridges[0].stream.send(plain + b"\r\n", self._timeout)
        except OSError as error:
            bridges[0].stream.close()  # a partial clause would corrupt the stream
            raise link_failure("sending failed", error).error(Outcome.UNKNOWN, device) from None

    def _bridges(self, name: str) -> List[_Peer]:
        with self._guard:
            return [
                peer
                for peer in self._peers.values()
                if peer.further is not None
                and peer.further.spoke
                and name in (self._owner(peer), peer.host, peer.address)
            ]

    # New connections.

    async def _accept(self, listener: io.Listener) -> None:
        while not self._closed:
            try:
                if len(self._peers) >= MAX_CONNECTIONS:
                    await io.sleep(_ACCEPT_PAUSE)
                    continue
                stream, host, port = await listener.accept()
            except OSError:
                if not self._closed:
                    await io.sleep(_ACCEPT_PAUSE)  # usually: out of descriptors
                continue
            self._admit(stream, host, port)

    def _admit(self, stream: io.Stream, host: str, port: int) -> None:
        peer = _Peer(next(self._numbers), stream, host, port)
        with self._guard:
            slave = self._roles.opened(peer.number, host, time.monotonic())
            if slave:
                self._make_slave(peer)
            else:
                peer.further = _Further(peer, self)
            self._peers[peer.number] = peer
        if self._closed:
            stream.close()
        io.spawn(self._serve, peer)
        if slave:
            io.spawn(self._identify, peer)
        else:
            io.spawn(self._check_slaves, host)
            self._due.set()

    def _make_slave(self, peer: _Peer) -> None:
        peer.link = Link(peer.stream, peer.address)
        peer.device = AsyncDevice._over(peer.link, peer.address, self._timeout)
        peer.further = None

    async def _serve(self, peer: _Peer) -> None:
        with self._guard:
            slave = self._only_slave(peer)
        if slave is not None and slave is not peer:
            await slave.identified.wait()  # so that events of its agent carry its name
        await pump(peer.stream, peer)
        with self._guard:
            owner = self._owner(peer)
            del self._peers[peer.number]
            self._roles.closed(peer.number, time.monotonic())
        self._due.set()
        self._changed.set()
        if peer.connected:
            self._events.put(Lost(peer.name, peer.address, peer.why))
        elif peer.further is not None and peer.further.spoke:
            self._events.put(AgentLost(owner, peer.address, peer.why))

    async def _identify(self, peer: _Peer) -> None:
        try:
            await self._ask_identity(peer)
        finally:
            peer.identified.set()

    async def _ask_identity(self, peer: _Peer) -> None:
        device = peer.device
        assert device is not None
        try:
            hostid = await device.hostid()
            devicetype = await device.devicetype()
        except RunelError as error:
            device.abort(f"it did not tell who it is: {error.sentence}")
            return
        with self._guard:
            peer.name = self._free_name(hostid if _USABLE_NAME.fullmatch(hostid) else "", peer)
            device.name = peer.name
            assert peer.link is not None
            peer.link.device = peer.name
            if peer.link.failure is not None:
                return
            peer.connected = True
        self._events.put(Connected(peer.name, peer.address, hostid, devicetype))
        self._changed.set()

    def _free_name(self, hostid: str, peer: _Peer) -> str:
        taken = {other.name for other in self._peers.values() if other.connected}
        names = [name for name in (hostid, peer.host) if name]
        return next((name for name in names if name not in taken), peer.address)

    # Roles of connections.

    def _only_slave(self, peer: _Peer) -> Optional[_Peer]:
        """The slave connection from the same address, if there is exactly one."""
        slaves = self._roles.slaves_at(peer.host)
        return self._peers.get(slaves[0]) if len(slaves) == 1 else None

    def _owner(self, peer: _Peer) -> str:
        """Name of the device that owns a further connection, if only one is possible."""
        slave = self._only_slave(peer)
        return peer.name if peer.connected or slave is None else slave.name

    def _spoke(self, peer: _Peer) -> None:
        with self._guard:
            self._roles.spoke(peer.number)
            owner = self._owner(peer)
        self._events.put(AgentConnected(owner, peer.address))

    def _heard(self, peer: _Peer, clause: bytes) -> None:
        with self._guard:
            owner = self._owner(peer)
        self._events.put(Clause(owner, peer.address, clause))

    async def _promote(self) -> None:
        while not self._closed:
            self._due.clear()
            with self._guard:
                peers = [self._peers[number] for number in self._roles.due(time.monotonic())]
                for peer in peers:
                    self._make_slave(peer)
                next_due = self._roles.next_due()
            for peer in peers:
                io.spawn(self._identify, peer)
            await self._due.wait(None if next_due is None else max(0, next_due - time.monotonic()))

    async def _check_slaves(self, host: str) -> None:
        """Sends a cheap task over the slave connections of `host`.

        A device dials a further connection only for an agent, or because it lost the first one and
        this side has not detected that yet.
        """
        with self._guard:
            links = [self._peers[number].link for number in self._roles.slaves_at(host)]
        for link in links:
            if link is not None:
                await _check(link)


async def _check(link: Link) -> None:
    try:
        pending = await link.submit(request("fileexists", "/"), None)
    except RunelError:
        return
    asked = time.monotonic()
    while not await pending.done.wait(_CONFIRM_TIME):
        if not link.confirms(time.monotonic() - asked):
            link.end(Failure(LinkError, "the connection was half-open"))
