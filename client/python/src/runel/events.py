# SPDX-License-Identifier: Apache-2.0
"""Events of a master. `device`: name of the device, `address`: HOST:PORT of the connection."""
from __future__ import annotations

from dataclasses import dataclass
from typing import Union


@dataclass(frozen=True)
class Connected:
    """A device has connected and sent its identifier; it accepts tasks."""

    device: str
    address: str
    hostid: str
    devicetype: str


@dataclass(frozen=True)
class Lost:
    """The connection of a device ended. `why`: the reason."""

    device: str
    address: str
    why: str


@dataclass(frozen=True)
class AgentConnected:
    """The agent of a device has sent its first byte."""

    device: str
    address: str


@dataclass(frozen=True)
class Clause:
    """The agent of a device sent a clause."""

    device: str
    address: str
    clause: bytes


@dataclass(frozen=True)
class AgentLost:
    """The bridge to an agent ended. `why`: the reason."""

    device: str
    address: str
    why: str


Event = Union[Connected, Lost, AgentConnected, Clause, AgentLost]
