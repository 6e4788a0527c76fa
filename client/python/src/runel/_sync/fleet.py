# SPDX-License-Identifier: Apache-2.0
# Made by make_sync.py from _sync/fleet.py.
"""One job on many devices."""
from __future__ import annotations

import functools
from typing import Callable, Iterable, List, Mapping, Optional, Sequence, TypeVar, Union

from runel import _io_sync as io
from runel._sync.device import Device
from runel._report import FleetReport
from runel._waves import Wave, wave_sizes

T = TypeVar("T")


class Fleet:
    """Devices to run the same job on.

    `devices`: addresses, for which the fleet makes connections of its own with the device settings
    `timeout`, `connect_timeout`, `retries` and `retry_delay`, and closes them after each job; or
    devices by name, such as a master's, which stay the caller's.

    >>> fleet = Fleet(["127.0.0.1", "127.0.0.2"], parallel=2)
    >>> report = fleet.run(lambda device: device.fileexists("/etc/hosts"))
    >>> sorted(report.check().items())
    [('127.0.0.1', True), ('127.0.0.2', True)]
    """

    def __init__(
        self,
        devices: Union[Iterable[str], Mapping[str, Device]],
        *,
        parallel: int = 32,
        timeout: Optional[float] = 30.0,
        connect_timeout: Optional[float] = 10.0,
        retries: int = 1,
        retry_delay: float = 0.2,
    ) -> None:
        self._lent = dict(devices) if isinstance(devices, Mapping) else {}
        self.names: List[str] = list(dict.fromkeys(devices))
        """The devices' names, in their order, each once."""
        self._parallel = max(1, parallel)
        self._timeout = timeout
        self._connect_timeout = connect_timeout
        self._retries = retries
        self._retry_delay = retry_delay

    def run(
        self,
        job: Callable[[Device], T],
        *,
        waves: Sequence[Wave] = (),
        max_failures: Optional[int] = None,
        limit: Optional[float] = None,
    ) -> FleetReport[T]:
        """Calls `job` with each device, `parallel` at a time. Failures are in the report.

        `waves`: such as ``(1, "10%", "rest")``; each begins when the one before has ended.
        `max_failures`: when more devices than that failed, it is not started on any other; by
        default 0 with waves, else there is no such limit. `limit`: seconds for each device, after
        which its connection is ended and the job fails with a `RunelTimeout`.
        """
        usual = 0 if waves else len(self.names)
        most = usual if max_failures is None else max_failures
        report: FleetReport[T] = FleetReport()

        def one(name: str) -> None:
            if len(report.failures) > most:
                report.skipped.append(name)
                return
            try:
                report.results[name] = self._run_one(name, job, limit)
            except Exception as error:
                report.failures[name] = error

        left = list(self.names)
        for size in wave_sizes(waves, len(left)):
            wave, left = left[:size], left[size:]
            io.run_all(one, wave, min(self._parallel, size))
        return report

    def _run_one(
        self, name: str, job: Callable[[Device], T], limit: Optional[float]
    ) -> T:
        lent = self._lent.get(name)
        device = self._dial(name) if lent is None else lent
        call_off = None
        if limit is not None:
            reason = f"not done within {limit:g} s"
            call_off = io.call_later(limit, functools.partial(device.abort, reason))
        try:
            return job(device)
        finally:
            if call_off is not None:
                call_off()
            if lent is None:
                device.close()

    def _dial(self, name: str) -> Device:
        return Device(
            name,
            timeout=self._timeout,
            connect_timeout=self._connect_timeout,
            retries=self._retries,
            retry_delay=self._retry_delay,
        )
