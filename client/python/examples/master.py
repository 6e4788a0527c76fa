#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""A master: waits for devices, asks each for its kernel version, then prints the agents' clauses.

master.py [DEVICES [PORT]]    DEVICES: how many to wait for (default: 10)
"""
import asyncio
import sys

import runel


async def kernel(device: runel.AsyncDevice) -> str:
    return (await device.read("/proc/sys/kernel/osrelease")).decode().strip()


async def main(count: int = 10, port: int = runel.MASTER_PORT) -> None:
    async with runel.AsyncMaster(port=port) as master:
        await master.wait_for(count)
        report = await runel.AsyncFleet(master.devices).run(kernel)
        for name, release in sorted(report.results.items()):
            print(f"{name}: {release}", flush=True)
        for name, error in sorted(report.failures.items()):
            print(f"{name}: {error}", file=sys.stderr)
        async for event in master.events():
            if isinstance(event, runel.Clause):
                print(f"{event.device} says {event.clause.decode()}", flush=True)
                await master.send_clause(event.device, b"<heard/>")


if __name__ == "__main__":
    try:
        asyncio.run(main(*(int(argument) for argument in sys.argv[1:])))
    except KeyboardInterrupt:
        pass
