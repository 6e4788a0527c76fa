# SPDX-License-Identifier: Apache-2.0
"""Which of the connections from one address carries tasks. Decides only: touches no socket.

A device sends nothing to tell its connections apart, and a frame on its agent bridge stops it. So a
connection is taken for the slave connection only when it cannot be a bridge: a device has no bridge
without a slave connection. All others are "further" ones: a bridge, or one too many.
"""
from __future__ import annotations

from dataclasses import dataclass, field
from typing import Dict, List, Optional

OUTLIVE = 5.0
"""Seconds. A device ends its bridge together with its slave connection: what is still there so long
after the slave connection is lost was not a bridge."""


@dataclass
class _Member:
    slave: bool
    opened: float
    spoke: bool = False


@dataclass
class _Place:
    """All connections from one address, in the order in which they were accepted."""

    members: Dict[int, _Member] = field(default_factory=dict)
    slave_lost: float = 0.0

    @property
    def has_slave(self) -> bool:
        return any(member.slave for member in self.members.values())


class Lineup:
    """`shared`: several devices may be behind one address, and a further connection that has been
    silent for so many seconds is taken for another device's slave connection. None: every address
    is one device.
    """

    def __init__(self, shared: Optional[float] = None) -> None:
        self._shared = shared
        self._places: Dict[str, _Place] = {}
        self._addresses: Dict[int, str] = {}

    def opened(self, number: int, address: str, now: float) -> bool:
        """A new connection. True when it is a slave connection."""
        place = self._places.setdefault(address, _Place())
        slave = not place.has_slave
        place.members[number] = _Member(slave, now)
        self._addresses[number] = address
        return slave

    def spoke(self, number: int) -> None:
        """It said something of its own accord: it never becomes a slave connection."""
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
        """Those that have become slave connections, each told once."""
        found = []
        for place in self._places.values():
            for number, member in place.members.items():
                time = self._due_time(place, member)
                if time is not None and time <= now:
                    member.slave = True  # and keeps the others of its address from it
                    found.append(number)
        return found

    def next_due(self) -> Optional[float]:
        """When to ask for them again."""
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
