# SPDX-License-Identifier: Apache-2.0
"""What tasks answer, typed, and the reading of the texts that carry it."""
from __future__ import annotations

import enum
import re
import stat as _stat
from dataclasses import dataclass
from typing import List, Optional

from runel._protocol import ProtocolError, Record, decode_record


def to_text(name: bytes) -> str:
    """Bytes of the device as text; bytes that are not UTF-8 become surrogates."""
    return name.decode("utf-8", "surrogateescape")


class Status(enum.IntEnum):
    """The outcome of a task at a glance."""

    SUCCESS = 0
    FAILURE = 1
    RUNNING = 2
    TIMEOUT = 3
    ERROR = 4


class ProgramState(enum.IntEnum):
    """What became of the program that a task was about."""

    NONE = 0
    RUNNING = 1
    EXITED = 2
    SIGNALLED = 3
    TIMED_OUT = 4


class LedStyle(enum.Enum):
    """How the device's two LEDs blink."""

    OFF = "off"
    ON = "on"
    SLOW = "slow"
    FAST = "fast"
    ALTERNATE = "alternate"


@dataclass(frozen=True)
class Reply:
    """A device's answer as it came."""

    text: bytes
    status: Status
    state: ProgramState
    result: int
    errno: int
    signal: int

    @property
    def ok(self) -> bool:
        """The task succeeded, or its program runs in the background."""
        return self.status in (Status.SUCCESS, Status.RUNNING)


def decode_reply(payload: bytes) -> Reply:
    """The reply in the payload of a frame. Raises `ProtocolError` when it is not one."""
    record: Record = decode_record(payload)
    if record.args or record.exec_param:
        raise ProtocolError("a request where a reply is due")
    try:
        status, state = Status(record.status), ProgramState(record.state)
    except ValueError as error:
        raise ProtocolError(f"malformed reply: {error}") from None
    return Reply(record.output, status, state, record.result, record.errno, record.signal)


@dataclass(frozen=True)
class ProgramResult:
    """How a program on the device ended."""

    state: ProgramState
    exit_status: Optional[int]
    """None unless it exited by itself."""
    signal: Optional[int]
    """The number of the signal that ended it, or None."""
    output: bytes
    """What it wrote to standard output and standard error, at most 16 MiB."""

    @property
    def timed_out(self) -> bool:
        """It was stopped at its time limit."""
        return self.state is ProgramState.TIMED_OUT

    @property
    def ok(self) -> bool:
        """It exited with status 0, or runs in the background."""
        return self.state is ProgramState.RUNNING or self.exit_status == 0

    def describe(self) -> str:
        """A sentence on how it ended."""
        if self.timed_out:
            return "the program ran into its time limit and was stopped"
        if self.state is ProgramState.SIGNALLED:
            return f"the program was ended by signal {self.signal}"
        return f"the program ended with exit status {self.exit_status}"


def program_result(reply: Reply) -> ProgramResult:
    """The result that `reply`, to a task about a program, tells of."""
    exited = reply.state is ProgramState.EXITED
    return ProgramResult(
        state=reply.state,
        exit_status=reply.result if exited else None,
        signal=reply.signal or None,
        output=reply.text,
    )


@dataclass(frozen=True)
class Stat:
    """A file's metadata, as stat(2) has it. Sizes in bytes, times in nanoseconds since 1970."""

    dev: int
    ino: int
    mode: int
    nlink: int
    uid: int
    gid: int
    rdev: int
    size: int
    blksize: int
    blocks: int
    atime_ns: int
    mtime_ns: int
    ctime_ns: int

    @property
    def is_file(self) -> bool:
        return _stat.S_ISREG(self.mode)

    @property
    def is_dir(self) -> bool:
        return _stat.S_ISDIR(self.mode)

    @property
    def is_link(self) -> bool:
        return _stat.S_ISLNK(self.mode)

    @property
    def permissions(self) -> int:
        """The permission bits with set-user-ID, set-group-ID and sticky."""
        return _stat.S_IMODE(self.mode)


_COUNTS = ("dev", "ino", "mode", "nlink", "uid", "gid", "rdev", "size", "blksize", "blocks")
_TIMES = ("atime", "mtime", "ctime")
_STAT = re.compile(
    " ".join(
        ["%s=(?P<%s>[0-9]{1,20})" % (name, name) for name in _COUNTS]
        + [
            "%s=(?P<%s_s>-?[0-9]{1,19})[.](?P<%s_ns>[0-9]{9})" % (name, name, name)
            for name in _TIMES
        ]
    )
    + "\n"
)


def parse_stat(text: bytes) -> Stat:
    """The line that "stat" and "lstat" answer. Raises `ProtocolError` for another text."""
    found = _STAT.fullmatch(text.decode("ascii", "replace"))
    if found is None:
        raise ProtocolError("malformed stat line")
    values = {name: int(found[name], 8 if name == "mode" else 10) for name in _COUNTS}
    for name in _TIMES:
        seconds, nanoseconds = int(found[f"{name}_s"]), int(found[f"{name}_ns"])
        values[f"{name}_ns"] = seconds * 10**9 + nanoseconds
    return Stat(**values)


_NAMES_HEAD = re.compile(rb"StringVec (0|[1-9][0-9]{0,9})\n")
_NAME_HEAD = re.compile(rb"(0|[1-9][0-9]{0,9}):")


def parse_names(text: bytes) -> List[str]:
    """The names that "readdir" answers. Raises `ProtocolError` for another text."""
    head = _NAMES_HEAD.match(text)
    if head is None:
        raise ProtocolError("malformed list of names")
    names, at = [], head.end()
    for _ in range(int(head[1])):
        length = _NAME_HEAD.match(text, at)
        end = length.end() + int(length[1]) if length else 0
        if length is None or text[end : end + 1] != b"\n":
            raise ProtocolError("malformed list of names")
        names.append(to_text(text[length.end() : end]))
        at = end + 1
    if at != len(text):
        raise ProtocolError("bytes behind a list of names")
    return names


@dataclass(frozen=True)
class TreeEntry:
    """One entry of a directory tree."""

    kind: str
    """``-`` file, ``d`` directory, ``l`` link, ``c`` and ``b`` devices, ``p`` FIFO, ``s`` socket."""
    permissions: int
    uid: int
    gid: int
    size: int
    """In bytes; 0 unless it is a file."""
    mtime: int
    """Last change of the content, in whole seconds since 1970."""
    path: str
    """Relative to the path asked for, which is ``.`` itself."""
    target: Optional[str]
    """Where a link leads. A link with `` -> `` in its own name is split there."""


_TREE_LINE = re.compile(
    rb"([-dlcbps]) ([0-7]{4}) ([0-9]{1,10}) ([0-9]{1,10}) ([0-9]{1,20}) (-?[0-9]{1,20}) ([^\n]+)"
)
_ESCAPE = re.compile(rb"\\x([0-9a-f]{2})")


def _plain(name: bytes) -> str:
    return to_text(_ESCAPE.sub(lambda found: bytes.fromhex(found[1].decode()), name))


def parse_tree(text: bytes) -> List[TreeEntry]:
    """The lines that "walktree" answers. Raises `ProtocolError` for another text."""
    lines = text.split(b"\n")
    if lines.pop():
        raise ProtocolError("a tree line without its end")
    return [_tree_entry(line) for line in lines]


def _tree_entry(line: bytes) -> TreeEntry:
    found = _TREE_LINE.fullmatch(line)
    if found is None:
        raise ProtocolError("malformed tree line")
    kind, mode, uid, gid, size, mtime, name = found.groups()
    path, target = name, None
    if kind == b"l":
        path, _, target = name.partition(b" -> ")
    return TreeEntry(
        kind=kind.decode(),
        permissions=int(mode, 8),
        uid=int(uid),
        gid=int(gid),
        size=int(size),
        mtime=int(mtime),
        path=_plain(path),
        target=None if target is None else _plain(target),
    )


def parse_number(text: bytes) -> int:
    """An unsigned decimal number. Raises `ProtocolError` for another text."""
    if not re.fullmatch(rb"0|[1-9][0-9]{0,19}", text):
        raise ProtocolError("malformed number")
    return int(text)
