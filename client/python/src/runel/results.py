# SPDX-License-Identifier: Apache-2.0
"""Typed results of tasks, and the parsers of their texts."""
from __future__ import annotations

import enum
import re
import stat as _stat
from dataclasses import dataclass
from typing import List, Optional

from runel._protocol import ProtocolError, Record, decode_record


def to_text(name: bytes) -> str:
    """Decodes bytes of the device; bytes that are not UTF-8 become surrogates."""
    return name.decode("utf-8", "surrogateescape")


class Status(enum.IntEnum):
    """The status of a task."""

    SUCCESS = 0
    FAILURE = 1
    RUNNING = 2
    TIMEOUT = 3
    ERROR = 4


class ProgramState(enum.IntEnum):
    """The state of a program."""

    NONE = 0
    RUNNING = 1
    EXITED = 2
    SIGNALLED = 3
    TIMED_OUT = 4


class LedStyle(enum.Enum):
    """Blink styles of the device's two LEDs."""

    OFF = "off"
    ON = "on"
    SLOW = "slow"
    FAST = "fast"
    ALTERNATE = "alternate"


@dataclass(frozen=True)
class Reply:
    """A device's answer, unchecked."""

    text: bytes
    status: Status
    state: ProgramState
    result: int
    errno: int
    signal: int

    @property
    def ok(self) -> bool:
        """Whether the task succeeded, or its program runs in the background."""
        return self.status in (Status.SUCCESS, Status.RUNNING)


def decode_reply(payload: bytes) -> Reply:
    """Parses the payload of a frame. Raises `ProtocolError` if it is not a reply."""
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
    """Exit status; None unless the program exited."""
    signal: Optional[int]
    """Number of the signal that ended the program, or None."""
    output: bytes
    """Standard output and standard error, at most 16 MiB."""

    @property
    def timed_out(self) -> bool:
        """Whether the program was stopped at its time limit."""
        return self.state is ProgramState.TIMED_OUT

    @property
    def ok(self) -> bool:
        """Whether the program exited with status 0, or runs in the background."""
        return self.state is ProgramState.RUNNING or self.exit_status == 0

    def describe(self) -> str:
        """A sentence about how the program ended."""
        if self.timed_out:
            return "the program ran into its time limit and was stopped"
        if self.state is ProgramState.SIGNALLED:
            return f"the program was ended by signal {self.signal}"
        return f"the program ended with exit status {self.exit_status}"


def program_result(reply: Reply) -> ProgramResult:
    """The result in `reply`, the answer of a program task."""
    exited = reply.state is ProgramState.EXITED
    return ProgramResult(
        state=reply.state,
        exit_status=reply.result if exited else None,
        signal=reply.signal or None,
        output=reply.text,
    )


@dataclass(frozen=True)
class Stat:
    """A file's metadata as in stat(2). Sizes in bytes, times in nanoseconds since 1970."""

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
        """The permission bits, including set-user-ID, set-group-ID and sticky."""
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
    """Parses the reply of "stat" and "lstat". Raises `ProtocolError` if malformed."""
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
    """Parses the reply of "readdir". Raises `ProtocolError` if malformed."""
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
    """Size in bytes; 0 unless it is a file."""
    mtime: int
    """Last modification, in whole seconds since 1970."""
    path: str
    """Path relative to the requested path, which is ``.`` itself."""
    target: Optional[str]
    """Target of a link. A link with `` -> `` in its name is split there."""


_TREE_LINE = re.compile(
    rb"([-dlcbps]) ([0-7]{4}) ([0-9]{1,10}) ([0-9]{1,10}) ([0-9]{1,20}) (-?[0-9]{1,20}) ([^\n]+)"
)
_ESCAPE = re.compile(rb"\\x([0-9a-f]{2})")


def _plain(name: bytes) -> str:
    return to_text(_ESCAPE.sub(lambda found: bytes.fromhex(found[1].decode()), name))


def parse_tree(text: bytes) -> List[TreeEntry]:
    """Parses the reply of "walktree". Raises `ProtocolError` if malformed."""
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
    """Parses an unsigned decimal number. Raises `ProtocolError` if malformed."""
    if not re.fullmatch(rb"0|[1-9][0-9]{0,19}", text):
        raise ProtocolError("malformed number")
    return int(text)
