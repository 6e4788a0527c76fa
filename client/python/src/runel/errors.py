# SPDX-License-Identifier: Apache-2.0
"""The exceptions, and whether the task ran."""
from __future__ import annotations

import enum
import os
from dataclasses import dataclass
from typing import Optional, Type

from runel.results import ProgramResult


class Outcome(enum.Enum):
    """The outcome of a request."""

    NOT_SENT = "not sent"
    """The device did not receive the whole request: the task did not run."""
    ANSWERED = "answered"
    """The device answered."""
    UNKNOWN = "sent, outcome unknown"
    """The request was sent and no answer arrived: the task may have run."""


class RunelError(Exception):
    """Base of all exceptions. `kind` is "link", "device", "program", "local" or "timeout"."""

    kind = "runel"

    def __init__(
        self,
        sentence: str,
        *,
        outcome: Outcome,
        errno: Optional[int] = None,
        device: str = "",
        task: str = "",
    ) -> None:
        super().__init__(sentence)
        self.sentence = sentence
        """What failed and why, without the device's name."""
        self.outcome = outcome
        self.errno = errno
        """A Linux error number: the device's own in a `DeviceError`, else this host's."""
        self.device = device
        self.task = task

    def __str__(self) -> str:
        where = ": ".join(part for part in (self.device, self.task, self.sentence) if part)
        return where if self.outcome is Outcome.ANSWERED else f"{where} ({self.outcome.value})"


class LinkError(RunelError):
    """The connection failed, was lost, or carried malformed data."""

    kind = "link"


class DeviceError(RunelError):
    """The task failed on the device; `errno` is the device's error number."""

    kind = "device"


class ProgramError(RunelError):
    """A program on the device failed by exit status, signal or time limit: see `result`."""

    kind = "program"

    def __init__(self, sentence: str, result: ProgramResult, *, device: str, task: str) -> None:
        super().__init__(sentence, outcome=Outcome.ANSWERED, device=device, task=task)
        self.result = result


class LocalError(RunelError):
    """A file of this host failed, or an argument cannot be sent."""

    kind = "local"


class RunelTimeout(RunelError):
    """The connection or the next byte from the device exceeded the timeout."""

    kind = "timeout"


@dataclass(frozen=True)
class Failure:
    """Why a connection ended. Creates the error of each request on it."""

    kind: Type[RunelError]
    sentence: str
    errno: Optional[int] = None

    def error(self, outcome: Outcome, device: str, task: str = "") -> RunelError:
        return self.kind(
            self.sentence, outcome=outcome, errno=self.errno, device=device, task=task
        )


def link_failure(what: str, error: OSError) -> Failure:
    """The failure for the system error `error` of this host."""
    text = os.strerror(error.errno) if isinstance(error.errno, int) and error.errno > 0 else error
    return Failure(LinkError, f"{what}: {text}", error.errno)


def local_error(name: str, error: OSError, device: str = "", task: str = "") -> LocalError:
    """The error for a file of this host."""
    return LocalError(
        f"{name}: {error.strerror or error}",
        outcome=Outcome.NOT_SENT,
        errno=error.errno,
        device=device,
        task=task,
    )
