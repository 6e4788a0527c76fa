# SPDX-License-Identifier: Apache-2.0
# Made by make_sync.py from _sync/master.py.
"""A master: the port that devices dial, and what their connections are for."""
from __future__ import annotations

import itertools
import re
import time
from types import TracebackType
from typing import Iterator, Dict, List, Optional, Type

from runel import _io_sync as io
from runel._address import MASTER_PORT
from runel._sync.device import Device
from runel._sync.link import Link, Sink, pump
from runel._clauses import ClauseCutter, check_clause
from runel._lineup import Lineup
from runel._protocol import ProtocolError
from runel.errors import Failure, LinkError, LocalError, Outcome, RunelError, RunelTimeout
from runel.errors import link_failure
from runel.events import AgentConnected, AgentLost, Clause, Connected, Event, Lost
from runel.tasks import request

MAX_EVENTS = 4096
"""Events that are kept for a reader; the oldest ones go first."""

MAX_CONNECTIONS = 4096
"""Connections at a time; further ones wait in the queue of the port."""

_CONFIRM_TIME = 5.0  # a kernel confirms what it gets within a fraction of that
_REST = 1.0
_USABLE_NAME = re.compile(r"[A-Za-z0-9._-]{1,128}")


class _Further:
    """Takes the bytes of a connection that is a bridge or one too many."""

    def __init__(self, peer: _Peer, master: Master) -> None:
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
        """The peer tells the master."""


class _Peer:
    """One connection at the master, in whichever role it is."""

    def __init__(self, number: int, stream: io.Stream, host: str, port: int) -> None:
        self.number = number
        self.stream = stream
        self.host = host
        self.address = f"{host}:{port}"
        self.name = host
        self.device: Optional[Device] = None
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


class Master:
    """Accepts devices. None of it is authenticated or encrypted: use a network of its own.

    `host`, `port`: where to listen; all addresses by default. `timeout`: as for a device, in
    seconds. `shared`: set it when several devices come from one address; a further connection that
    has been silent for so many seconds is then taken for another device. An agent must send its
    first clause within this time: a frame on a bridge stops the daemon.

    A device dials one connection for tasks and, while it has an agent, a bridge for clauses. It
    tells neither apart. The first connection from an address carries tasks. The master writes to a
    further one only after it has sent a clause, which makes it a bridge, or after it has outlived
    the first one by 5 s, which makes it the connection for tasks. A connection that is one too many
    is kept open and silent: closing it would stop the daemon.

    Devices are named by their host identifier, or by their address when it is not fit for a name.
    They belong to the master: do not close them. `close`, or the end of a `with` block, ends all
    connections; daemons dial again.

    >>> with Master() as master:
    ...     device = (master.wait_for(1, timeout=20))[0]
    ...     device.fileexists("/etc/hosts")
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
        self._lineup = Lineup(shared)
        self._guard = io.mutex()
        self._numbers = itertools.count(1)
        self._peers: Dict[int, _Peer] = {}
        self._events: io.Mailbox[Event] = io.Mailbox(MAX_EVENTS)
        self._changed = io.Event()
        self._due = io.Event()
        self._closed = False

    def __enter__(self) -> Master:
        self.open()
        return self

    def __exit__(
        self,
        kind: Optional[Type[BaseException]],
        error: Optional[BaseException],
        trace: Optional[TracebackType],
    ) -> None:
        self.close()

    def open(self) -> None:
        """Starts to listen. Raises `LinkError` when the port cannot be had."""
        try:
            self._listener = io.Listener(*self._place)
        except OSError as error:
            failure = link_failure("cannot listen on port %d" % self._place[1], error)
            raise failure.error(Outcome.NOT_SENT, self._place[0]) from None
        io.spawn(self._accept, self._listener)
        io.spawn(self._promote)

    def close(self) -> None:
        """Stops listening and ends all connections, those for tasks first.

        A daemon with a connection that is one too many ends then, and its supervisor restarts it.
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
        """The port that it listens on."""
        return self._place[1] if self._listener is None else self._listener.port

    @property
    def devices(self) -> Dict[str, Device]:
        """The devices that are connected, by name."""
        with self._guard:
            return {
                peer.name: peer.device
                for peer in self._peers.values()
                if peer.device is not None and peer.connected
            }

    @property
    def dropped_events(self) -> int:
        """How many events were thrown away because they were not read."""
        return self._events.dropped

    def wait_for(self, count: int, timeout: Optional[float] = None) -> List[Device]:
        """The devices, as soon as at least `count` are connected.

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
            self._changed.wait(left)

    def next_event(self, timeout: Optional[float] = None) -> Optional[Event]:
        """The next event; None when there is none within `timeout` seconds or after `close`."""
        return self._events.take(timeout)

    def events(self) -> Iterator[Event]:
        """The events as they come, until the master is closed."""
        event = self.next_event()
        while event is not None:
            yield event
            event = self.next_event()

    def send_clause(self, device: str, clause: bytes) -> None:
        """Sends one clause to the agent of the device with this name or address.

        Raises `LocalError` when `clause` is not exactly one clause, and `LinkError` when it is not
        known which connection is the bridge to that agent: it is certain from the agent's first
        clause on. There is no answer to tell that the agent got it.
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
            with bridges[0].sending:
                bridges[0].stream.send(plain + b"\r\n", self._timeout)
        except OSError as error:
            bridges[0].stream.close()  # half a clause would spoil what follows
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

    # Connections come.

    def _accept(self, listener: io.Listener) -> None:
        while not self._closed:
            try:
                if len(self._peers) >= MAX_CONNECTIONS:
                    io.sleep(_REST)
                    continue
                stream, host, port = listener.accept()
            except OSError:
                if not self._closed:
                    io.sleep(_REST)  # no descriptors are left, as a rule
                continue
            self._admit(stream, host, port)

    def _admit(self, stream: io.Stream, host: str, port: int) -> None:
        peer = _Peer(next(self._numbers), stream, host, port)
        with self._guard:
            slave = self._lineup.opened(peer.number, host, time.monotonic())
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
        peer.device = Device._over(peer.link, peer.address, self._timeout)
        peer.further = None

    def _serve(self, peer: _Peer) -> None:
        with self._guard:
            slave = self._only_slave(peer)
        if slave is not None and slave is not peer:
            slave.identified.wait()  # so that its name stands in what is told of its agent
        pump(peer.stream, peer)
        with self._guard:
            owner = self._owner(peer)
            del self._peers[peer.number]
            self._lineup.closed(peer.number, time.monotonic())
        self._due.set()
        self._changed.set()
        if peer.connected:
            self._events.put(Lost(peer.name, peer.address, peer.why))
        elif peer.further is not None and peer.further.spoke:
            self._events.put(AgentLost(owner, peer.address, peer.why))

    def _identify(self, peer: _Peer) -> None:
        try:
            self._ask_identity(peer)
        finally:
            peer.identified.set()

    def _ask_identity(self, peer: _Peer) -> None:
        device = peer.device
        assert device is not None
        try:
            hostid = device.hostid()
            devicetype = device.devicetype()
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

    # Connections turn out to be something.

    def _only_slave(self, peer: _Peer) -> Optional[_Peer]:
        """The slave connection from the same address, where there is exactly one."""
        slaves = self._lineup.slaves_at(peer.host)
        return self._peers.get(slaves[0]) if len(slaves) == 1 else None

    def _owner(self, peer: _Peer) -> str:
        """The name of the device that a further connection belongs to, where only one can be."""
        slave = self._only_slave(peer)
        return peer.name if peer.connected or slave is None else slave.name

    def _spoke(self, peer: _Peer) -> None:
        with self._guard:
            self._lineup.spoke(peer.number)
            owner = self._owner(peer)
        self._events.put(AgentConnected(owner, peer.address))

    def _heard(self, peer: _Peer, clause: bytes) -> None:
        with self._guard:
            owner = self._owner(peer)
        self._events.put(Clause(owner, peer.address, clause))

    def _promote(self) -> None:
        while not self._closed:
            self._due.clear()
            with self._guard:
                peers = [self._peers[number] for number in self._lineup.due(time.monotonic())]
                for peer in peers:
                    self._make_slave(peer)
                next_due = self._lineup.next_due()
            for peer in peers:
                io.spawn(self._identify, peer)
            self._due.wait(None if next_due is None else max(0, next_due - time.monotonic()))

    def _check_slaves(self, host: str) -> None:
        """Asks the slave connections of `host` something cheap.

        A device has no reason for a further connection but an agent, or the loss of the first one
        that this side does not know of yet.
        """
        with self._guard:
            links = [self._peers[number].link for number in self._lineup.slaves_at(host)]
        for link in links:
            if link is not None:
                _check(link)


def _check(link: Link) -> None:
    try:
        pending = link.submit(request("fileexists", "/"), None)
    except RunelError:
        return
    asked = time.monotonic()
    while not pending.done.wait(_CONFIRM_TIME):
        if not link.confirms(time.monotonic() - asked):
            link.end(Failure(LinkError, "the connection was half-open"))
