# SPDX-License-Identifier: Apache-2.0
"""Decides which of the connections from one address carries tasks. Uses no socket.

A device does not mark its connections, and a frame on its agent bridge stops it. So a connection
counts as the slave connection only if it cannot be a bridge: a device has no bridge without a slave
connection. All others are "further" connections: a bridge or a surplus connection.
"""
from __future__ import annotations

from dataclasses import dataclass, field
from typing import Dict, List, Optional

OUTLIVE = 5.0
"""Seconds. A device closes its bridge together with its slave connection: a connection that
outlives the slave connection by this time is not a bridge."""


@dataclass
class _Member:
    slave: bool
    opened: float
    spoke: bool = False


@dataclass
class _Place:
    """All connections from one address, in the order of their acceptance."""

    members: Dict[int, _Member] = field(default_factory=dict)
    slave_lost: float = 0.0

    @property
    def has_slave(self) -> bool:
        return any(member.slave for member in self.members.values())


class ConnectionRoles:
    """`shared`: seconds, for several devices behind one address: a further connection that is
    silent for this time counts as the slave connection of another device. None: each address is
    one device.
    """

    def __init__(self, shared: Optional[float] = None) -> None:
        self._shared = shared
        self._places: Dict[str, _Place] = {}
        self._addresses: Dict[int, str] = {}

    def opened(self, number: int, address: str, now: float) -> bool:
        """Adds a new connection. True if it is a slave connection."""
        place = self._places.setdefault(address, _Place())
        slave = not place.has_slave
        place.members[number] = _Member(slave, now)
        self._addresses[number] = address
        return slave

    def spoke(self, number: int) -> None:
        """Records that it sent bytes unasked: it never becomes a slave connection."""
        self._places[self._addresses[number]].members[number].spoke = True

    def closed(self, number: int, now: float) -> None:
        address = self._addresses.pop(number)
        place = self._places[address]
        was_slave = place.members.pop(number).slave
        if not place.members:
            del self._places[address]
        elif was_slave and not place.has_slave:
            place.slave_lost = now

    def due(self, now: float) -> List[int]:
        """The connections that have become slave connections, each returned once."""
        found = []
        for place in self._places.values():
            for number, member in place.members.items():
                time = self._due_time(place, member)
                if time is not None and time <= now:
                    member.slave = True  # it keeps the others of its address from becoming one
                    found.append(number)
        return found

    def next_due(self) -> Optional[float]:
        """When to call `due` again."""
        times = [
            self._due_time(place, member)
            for place in self._places.values()
            for member in place.members.values()
        ]
        return min((time for time in times if time is not None), default=None)

    def _due_time(self, place: _Place, member: _Member) -> Optional[float]:
        if member.slave or member.spoke:
            return None
        times = [] if place.has_slave else [place.slave_lost + OUTLIVE]
        if self._shared is not None:
            times.append(member.opened + self._shared)
        return min(times, default=None)

    def slaves_at(self, address: str) -> List[int]:
        place = self._places.get(address, _Place())
        return [number for number, member in place.members.items() if member.slave]
