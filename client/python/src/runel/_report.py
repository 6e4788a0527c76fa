# SPDX-License-Identifier: Apache-2.0
"""The results of one job on many devices."""
from __future__ import annotations

from dataclasses import dataclass, field
from typing import Dict, Generic, List, TypeVar

T = TypeVar("T")


class FleetError(Exception):
    """The job failed on some devices. `failures`: the errors by device name."""

    def __init__(self, failures: Dict[str, Exception], skipped: List[str]) -> None:
        names = ", ".join(sorted([*failures, *skipped]))
        super().__init__(f"{len(failures)} failed, {len(skipped)} skipped: {names}")
        self.failures = failures
        self.skipped = skipped


@dataclass
class FleetReport(Generic[T]):
    """The results by device name."""

    results: Dict[str, T] = field(default_factory=dict)
    """Return values of the job."""
    failures: Dict[str, Exception] = field(default_factory=dict)
    """Exceptions of the job; `RunelError` unless the job raised another exception."""
    skipped: List[str] = field(default_factory=list)
    """Devices on which the job was not started, because too many had failed."""

    @property
    def ok(self) -> bool:
        """The job succeeded on all devices."""
        return not self.failures and not self.skipped

    def check(self) -> Dict[str, T]:
        """The results. Raises `FleetError` unless the job succeeded on all devices."""
        if not self.ok:
            raise FleetError(self.failures, self.skipped)
        return self.results
