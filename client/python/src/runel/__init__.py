# SPDX-License-Identifier: Apache-2.0
"""Client of the runeld daemon: devices, masters, agents and fleets, blocking or with asyncio.

Each class exists twice with the same methods: `Device` blocks and may be shared by threads,
`AsyncDevice` is for asyncio. The daemon has no authentication and no encryption.
"""
from runel._address import MASTER_PORT, TASK_PORT
from runel._async.agent import AsyncAgent
from runel._async.device import AsyncDevice
from runel._async.fleet import AsyncFleet
from runel._async.master import AsyncMaster
from runel._report import FleetError, FleetReport
from runel._sync.agent import Agent
from runel._sync.device import Device
from runel._sync.fleet import Fleet
from runel._sync.master import Master
from runel.errors import DeviceError, LinkError, LocalError, Outcome, ProgramError, RunelError
from runel.errors import RunelTimeout
from runel.events import AgentConnected, AgentLost, Clause, Connected, Event, Lost
from runel.results import LedStyle, ProgramResult, ProgramState, Reply, Stat, Status, TreeEntry
from runel.tasks import TASKS, Answer, Request, Task, request

__all__ = [
    "Agent",
    "AgentConnected",
    "AgentLost",
    "Answer",
    "AsyncAgent",
    "AsyncDevice",
    "AsyncFleet",
    "AsyncMaster",
    "Clause",
    "Connected",
    "Device",
    "DeviceError",
    "Event",
    "Fleet",
    "FleetError",
    "FleetReport",
    "LedStyle",
    "LinkError",
    "LocalError",
    "Lost",
    "MASTER_PORT",
    "Master",
    "Outcome",
    "ProgramError",
    "ProgramResult",
    "ProgramState",
    "Reply",
    "Request",
    "RunelError",
    "RunelTimeout",
    "Stat",
    "Status",
    "TASKS",
    "TASK_PORT",
    "Task",
    "TreeEntry",
    "request",
]
__version__ = "1.0.0"
