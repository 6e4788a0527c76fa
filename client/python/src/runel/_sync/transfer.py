# SPDX-License-Identifier: Apache-2.0
# Made by make_sync.py from _sync/transfer.py.
"""Whole files between this host and a device, by the device's tasks, in pieces."""
from __future__ import annotations

import contextlib
import os
import posixpath
import secrets
from typing import TYPE_CHECKING, BinaryIO, Callable, List, Optional

from runel import _io_sync as io
from runel.errors import DeviceError, LinkError, LocalError, Outcome, RunelError
from runel.errors import local_error
from runel.results import Stat
from runel.tasks import Name, to_bytes

if TYPE_CHECKING:
    from runel._sync.device import Device

PIECE = 8388608
"""Bytes that one request or answer of a transfer carries at most."""

Progress = Callable[[int, int], None]
"""Called with the bytes that have been transferred and the bytes in all."""

_BLOCK = 65536
_ENOENT = 2
_CUT = 'exec dd if="$0" bs=65536 skip=$1 count=$2 2>/dev/null'  # dd's report is not content
_COMMAND_LIMIT = 60  # seconds for chmod, chown, and dd with one piece


def push_file(
    device: Device,
    source: Name,
    target: Name,
    mode: Optional[int],
    progress: Optional[Progress],
) -> int:
    try:
        with open(source, "rb") as file:
            about = os.fstat(file.fileno())
            place = _behind_link(device, to_bytes(target))
            part = _part_name(place)
            try:
                _send_pieces(device, file, about.st_size, part, progress)
                _set_owner_and_mode(device, place, part, mode, about.st_mode & 0o7777)
                device.rename(part, place)
            except BaseException:
                _discard(device, part)
                raise
            return about.st_size
    except OSError as error:
        raise local_error(os.fsdecode(source), error, device.name, "push") from error


def _behind_link(device: Device, target: bytes) -> bytes:
    try:
        return to_bytes(device.realpath(target))
    except DeviceError as error:
        if error.errno != _ENOENT:
            raise
        return target


def _part_name(place: bytes) -> bytes:
    directory, name = posixpath.split(place)
    return posixpath.join(directory, b".%s-%s" % (name[:200], secrets.token_hex(8).encode()))


def _send_pieces(
    device: Device, file: BinaryIO, size: int, part: bytes, progress: Optional[Progress]
) -> None:
    # Empty at first, and private before it has content.
    device.write(part, b"")
    device.exec(["chmod", "0600", "--", part], limit=_COMMAND_LIMIT)
    sent = 0
    while sent < size:
        piece = io.call_blocking(file.read, min(PIECE, size - sent))
        if not piece:
            raise _changed(device, "push", os.fsdecode(file.name))
        _append_once(device, part, sent, piece)
        sent += len(piece)
        if progress is not None:
            progress(sent, size)


def _append_once(device: Device, part: bytes, offset: int, piece: bytes) -> None:
    """Appends `piece`; when nobody knows whether that happened, the size of the file tells."""
    try:
        device.append(part, piece)
    except LinkError as error:
        if error.outcome is not Outcome.UNKNOWN:
            raise
        size = (device.stat(part)).size
        if size == offset:
            device.append(part, piece)
        elif size != offset + len(piece):
            raise


def _set_owner_and_mode(
    device: Device, place: bytes, part: bytes, mode: Optional[int], new_mode: int
) -> None:
    old = _existing(device, place)
    mine = device.stat(part)
    if old is not None and (old.uid, old.gid) != (mine.uid, mine.gid):
        _command(device, "chown", f"{old.uid}:{old.gid}", part)
    if mode is None:
        mode = new_mode if old is None else old.permissions
    _command(device, "chmod", f"{mode:04o}", part)


def _existing(device: Device, place: bytes) -> Optional[Stat]:
    try:
        return device.stat(place)
    except DeviceError as error:
        if error.errno != _ENOENT:
            raise
        return None


def _command(device: Device, program: str, how: str, part: bytes) -> None:
    device.exec([program, how, "--", part], limit=_COMMAND_LIMIT)


def _discard(device: Device, part: bytes) -> None:
    with contextlib.suppress(RunelError):
        device.unlink(part)


def pull_file(
    device: Device, source: Name, target: Name, progress: Optional[Progress]
) -> int:
    about = device.stat(source)
    place = os.fsencode(target)
    part = _part_name(place)
    try:
        with open(part, "xb") as file:
            try:
                size = _receive(device, to_bytes(source), about, file, progress)
                os.fchmod(file.fileno(), about.permissions & 0o777)
                io.call_blocking(_sync_file, file)
                os.replace(part, place)
            except BaseException:
                os.unlink(part)
                raise
        return size
    except OSError as error:
        raise local_error(os.fsdecode(target), error, device.name, "pull") from error


def _sync_file(file: BinaryIO) -> None:
    file.flush()
    os.fsync(file.fileno())


def _receive(
    device: Device,
    source: bytes,
    about: Stat,
    file: BinaryIO,
    progress: Optional[Progress],
) -> int:
    if about.size <= PIECE:
        return _receive_whole(device, source, file, progress)
    received = 0
    while received < about.size:
        piece = _cut(device, source, received, min(PIECE, about.size - received))
        io.call_blocking(file.write, piece)
        received += len(piece)
        if progress is not None:
            progress(received, about.size)
    now = device.stat(source)
    if (now.ino, now.size, now.mtime_ns) != (about.ino, about.size, about.mtime_ns):
        raise _changed(device, "pull", os.fsdecode(source))
    return received


def _receive_whole(
    device: Device, source: bytes, file: BinaryIO, progress: Optional[Progress]
) -> int:
    content = device.read(source)
    io.call_blocking(file.write, content)
    if progress is not None:
        progress(len(content), len(content))
    return len(content)


def _cut(device: Device, source: bytes, offset: int, size: int) -> bytes:
    blocks = (size + _BLOCK - 1) // _BLOCK
    program: List[Name] = ["/bin/sh", "-c", _CUT, source, str(offset // _BLOCK), str(blocks)]
    piece = (device.exec(program, limit=_COMMAND_LIMIT)).output[:size]
    if len(piece) != size:
        raise _changed(device, "pull", os.fsdecode(source))
    return piece


def _changed(device: Device, task: str, name: str) -> RunelError:
    sentence = f"{name}: changed while it was copied"
    if task == "push":
        return LocalError(sentence, outcome=Outcome.NOT_SENT, device=device.name, task=task)
    return DeviceError(sentence, outcome=Outcome.ANSWERED, device=device.name, task=task)
