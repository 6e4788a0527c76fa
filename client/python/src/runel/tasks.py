# SPDX-License-Identifier: Apache-2.0
"""The table of the 25 tasks, and the requests."""
from __future__ import annotations

import enum
import os
from dataclasses import dataclass
from typing import Dict, Optional, Tuple, Union

from runel._protocol import MAX_PAYLOAD, SMALL_REPLY, ProtocolError, Record
from runel._protocol import encode_frame, encode_record
from runel.errors import DeviceError, LocalError, Outcome
from runel.results import Reply, Status, to_text

Name = Union[str, bytes, "os.PathLike[str]"]
"""A path or another argument. Text is sent as UTF-8, surrogates as the original bytes."""


class Answer(enum.Enum):
    """Format of the text in a task's reply."""

    NOTHING = "nothing"
    FLAG = "yes or no, by the status"
    TEXT = "text"
    BYTES = "bytes"
    NUMBER = "number"
    STAT = "stat line"
    NAMES = "list of names"
    TREE = "tree lines"
    PROGRAM = "a program's end"
    NO_REPLY = "no reply"


@dataclass(frozen=True)
class Task:
    """One row of the table."""

    name: str
    least_args: int
    most_args: Optional[int]
    """Maximum number of arguments; None: any number."""
    answer: Answer
    unbounded: bool = False
    """The duration is unbounded: "exec" with limit 0, and "wait"."""
    changes: bool = False
    """Changes something on the device."""
    repeatable: bool = False
    """Safe to repeat when it is unknown whether it ran."""
    of_connection: bool = False
    """Acts on the program of its connection, so another connection cannot run it."""

    def may_retry(self, outcome: Outcome) -> bool:
        """Whether a request with this outcome may be retried automatically."""
        if outcome is Outcome.NOT_SENT:
            return not self.of_connection
        return outcome is Outcome.UNKNOWN and self.repeatable

    @property
    def reply_limit(self) -> int:
        """Maximum payload of its reply, in bytes."""
        small = self.answer in (Answer.NOTHING, Answer.FLAG, Answer.TEXT, Answer.NUMBER)
        return SMALL_REPLY if small or self.answer is Answer.STAT else MAX_PAYLOAD


_ROWS = (
    Task("access", 2, 2, Answer.FLAG, repeatable=True),
    Task("append", 2, 2, Answer.NOTHING, changes=True),
    Task("blinkleds", 1, 1, Answer.NOTHING, changes=True, repeatable=True),
    Task("changeleds", 2, 2, Answer.NOTHING, changes=True, repeatable=True),
    Task("chmodx", 1, 1, Answer.NOTHING, changes=True, repeatable=True),
    Task("devicetype", 0, 0, Answer.TEXT, repeatable=True),
    Task("exec", 1, None, Answer.PROGRAM, unbounded=True, changes=True),
    Task("fileexists", 1, 1, Answer.FLAG, repeatable=True),
    Task("freeblocks", 1, 1, Answer.NUMBER, repeatable=True),
    Task("hostid", 0, 0, Answer.TEXT, repeatable=True),
    Task("kill", 0, 0, Answer.PROGRAM, changes=True, of_connection=True),
    Task("lstat", 1, 1, Answer.STAT, repeatable=True),
    Task("processrunning", 1, 1, Answer.FLAG, repeatable=True),
    Task("read", 1, 1, Answer.BYTES, repeatable=True),
    Task("readdir", 1, 1, Answer.NAMES, repeatable=True),
    Task("realpath", 1, 1, Answer.TEXT, repeatable=True),
    Task("reboot", 0, 0, Answer.NOTHING, changes=True),
    Task("rename", 2, 2, Answer.NOTHING, changes=True),
    Task("restart", 0, 0, Answer.NO_REPLY, changes=True),
    Task("stat", 1, 1, Answer.STAT, repeatable=True),
    Task("unlink", 1, 1, Answer.NOTHING, changes=True),
    Task("updateumstate", 2, 2, Answer.NOTHING, changes=True, repeatable=True),
    Task("wait", 0, 0, Answer.PROGRAM, unbounded=True, changes=True, of_connection=True),
    Task("walktree", 1, 1, Answer.TREE, repeatable=True),
    Task("write", 2, 2, Answer.NOTHING, changes=True, repeatable=True),
)

TASKS: Dict[str, Task] = {row.name: row for row in _ROWS}
"""All tasks by name."""


def to_bytes(word: Name) -> bytes:
    """The bytes of `word` in a request."""
    plain = os.fspath(word)
    return plain if isinstance(plain, bytes) else plain.encode("utf-8", "surrogateescape")


@dataclass(frozen=True)
class Request:
    """One task with its arguments. Created by `request`."""

    task: Task
    args: Tuple[bytes, ...] = ()
    limit: int = 0
    """ "exec" only, in seconds: above 0 a time limit, 0 no limit, below 0 in the background."""

    @property
    def about(self) -> str:
        """The argument that errors name: the first one, usually a path."""
        return self.args[0].decode("utf-8", "backslashreplace") if self.args else ""

    def encode(self) -> bytes:
        """The frame of this request. Raises `LocalError` if it does not fit into one."""
        record = Record((self.task.name.encode(), *self.args), self.limit)
        size = sum(len(arg) for arg in self.args)
        try:
            if size > MAX_PAYLOAD:  # check before copying
                raise ProtocolError(f"{size} bytes of arguments; at most {MAX_PAYLOAD} fit")
            return encode_frame(encode_record(record))
        except ProtocolError as error:
            raise _local_error(self.task.name, str(error)) from None


def request(name: str, *args: Name, limit: int = 0) -> Request:
    """A request of the task `name`, for `pipeline`. Raises `LocalError` for wrong arguments.

    >>> request("write", "/tmp/f", b"content").args
    (b'/tmp/f', b'content')
    >>> request("write", "/tmp/f")
    Traceback (most recent call last):
    ...
    runel.errors.LocalError: write: takes 2 arguments, got 1 (not sent)
    """
    task = TASKS.get(name)
    if task is None:
        raise _local_error(name, "there is no task of this name")
    if len(args) < task.least_args or (task.most_args is not None and len(args) > task.most_args):
        raise _local_error(name, f"takes {task.least_args} arguments, got {len(args)}")
    return Request(task, tuple(to_bytes(arg) for arg in args), limit)


def _local_error(task: str, sentence: str) -> LocalError:
    return LocalError(sentence, outcome=Outcome.NOT_SENT, task=task)


def device_error(device: str, asked: Request, reply: Reply) -> DeviceError:
    """The error in `reply`, the answer of a failed task."""
    reason = os.strerror(reply.errno) if reply.errno else "the task failed"
    if reply.status is Status.ERROR:
        reason = f"refused: {to_text(reply.text)}"
    elif asked.about:
        reason = f"{asked.about}: {reason}"
    return DeviceError(
        reason, outcome=Outcome.ANSWERED, errno=reply.errno, device=device, task=asked.task.name
    )
