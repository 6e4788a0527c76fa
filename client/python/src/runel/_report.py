# SPDX-License-Identifier: Apache-2.0
"""What came of one job on many devices."""
from __future__ import annotations

from dataclasses import dataclass, field
from typing import Dict, Generic, List, TypeVar

T = TypeVar("T")


class FleetError(Exception):
    """The job did not succeed on all devices. `failures` has the errors by name."""

    def __init__(self, failures: Dict[str, Exception], skipped: List[str]) -> None:
        names = ", ".join(sorted([*failures, *skipped]))
        super().__init__(f"{len(failures)} failed, {len(skipped)} skipped: {names}")
        self.failures = failures
        self.skipped = skipped


@dataclass
class FleetReport(Generic[T]):
    """What came of it, by the devices' names."""

    results: Dict[str, T] = field(default_factory=dict)
    """What the job returned."""
    failures: Dict[str, Exception] = field(default_factory=dict)
    """What it raised; a `RunelError` unless the job raised an error of its own."""
    skipped: List[str] = field(default_factory=list)
    """Devices that it was not started on, because too many had failed."""

    @property
    def ok(self) -> bool:
        """It succeeded on all."""
        return not self.failures and not self.skipped

    def check(self) -> Dict[str, T]:
        """The results. Raises `FleetError` unless it succeeded on all."""
        if not self.ok:
            raise FleetError(self.failures, self.skipped)
        return self.results
