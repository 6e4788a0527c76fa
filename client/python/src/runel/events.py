# SPDX-License-Identifier: Apache-2.0
"""What a master hears. `device` is the device's name, `address` is HOST:PORT of the connection."""
from __future__ import annotations

from dataclasses import dataclass
from typing import Union


@dataclass(frozen=True)
class Connected:
    """A device has connected and told who it is; it takes tasks."""

    device: str
    address: str
    hostid: str
    devicetype: str


@dataclass(frozen=True)
class Lost:
    """The connection of a device ended, because of `why`."""

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
    """The bridge to an agent ended, because of `why`."""

    device: str
    address: str
    why: str


Event = Union[Connected, Lost, AgentConnected, Clause, AgentLost]
