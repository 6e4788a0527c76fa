# SPDX-License-Identifier: Apache-2.0
"""One job on many devices."""
from __future__ import annotations

import functools
from typing import Callable, Iterable, List, Mapping, Optional, Sequence, TypeVar, Union
from typing import Awaitable

from runel import _io_async as io
from runel._async.device import AsyncDevice
from runel._report import FleetReport
from runel._waves import Wave, wave_sizes

T = TypeVar("T")


class AsyncFleet:
    """Runs the same job on many devices.

    `devices`: addresses, to which the fleet connects with the device settings `timeout`,
    `connect_timeout`, `retries` and `retry_delay` for each job; or devices by name, such as a
    master's, which the fleet does not close.

    >>> fleet = AsyncFleet(["127.0.0.1", "127.0.0.2"], parallel=2)
    >>> report = await fleet.run(lambda device: device.fileexists("/etc/hosts"))
    >>> sorted(report.check().items())
    [('127.0.0.1', True), ('127.0.0.2', True)]
    """

    def __init__(
        self,
        devices: Union[Iterable[str], Mapping[str, AsyncDevice]],
        *,
        parallel: int = 32,
        timeout: Optional[float] = 30.0,
        connect_timeout: Optional[float] = 10.0,
        retries: int = 1,
        retry_delay: float = 0.2,
    ) -> None:
        self._lent = dict(devices) if isinstance(devices, Mapping) else {}
        self.names: List[str] = list(dict.fromkeys(devices))
        """The devices' names, in order, each once."""
        self._parallel = max(1, parallel)
        self._timeout = timeout
        self._connect_timeout = connect_timeout
        self._retries = retries
        self._retry_delay = retry_delay

    async def run(
        self,
        job: Callable[[AsyncDevice], Awaitable[T]],
        *,
        waves: Sequence[Wave] = (),
        max_failures: Optional[int] = None,
        limit: Optional[float] = None,
    ) -> FleetReport[T]:
        """Calls `job` with each device, at most `parallel` in parallel. The report has failures.

        `waves`: such as ``(1, "10%", "rest")``; each starts when the previous one has ended.
        `max_failures`: when more devices fail, the job is not started on further devices (default:
        0 with waves, otherwise no limit). `limit`: seconds for each device, after which its
        connection is closed and the job fails with `RunelTimeout`.
        """
        usual = 0 if waves else len(self.names)
        most = usual if max_failures is None else max_failures
        report: FleetReport[T] = FleetReport()

        async def one(name: str) -> None:
            if len(report.failures) > most:
                report.skipped.append(name)
                return
            try:
                report.results[name] = await self._run_one(name, job, limit)
            except Exception as error:
                report.failures[name] = error

        left = list(self.names)
        for size in wave_sizes(waves, len(left)):
            wave, left = left[:size], left[size:]
            await io.run_all(one, wave, min(self._parallel, size))
        return report

    async def _run_one(
        self, name: str, job: Callable[[AsyncDevice], Awaitable[T]], limit: Optional[float]
    ) -> T:
        lent = self._lent.get(name)
        device = self._dial(name) if lent is None else lent
        call_off = None
        if limit is not None:
            reason = f"not done within {limit:g} s"
            call_off = io.call_later(limit, functools.partial(device.abort, reason))
        try:
            return await job(device)
        finally:
            if call_off is not None:
                call_off()
            if lent is None:
                await device.close()

    def _dial(self, name: str) -> AsyncDevice:
        return AsyncDevice(
            name,
            timeout=self._timeout,
            connect_timeout=self._connect_timeout,
            retries=self._retries,
            retry_delay=self._retry_delay,
        )
