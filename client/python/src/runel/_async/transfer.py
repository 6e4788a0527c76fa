# SPDX-License-Identifier: Apache-2.0
"""Copies files between this host and a device in pieces, with the device's tasks."""
from __future__ import annotations

import contextlib
import os
import posixpath
import secrets
from typing import TYPE_CHECKING, BinaryIO, Callable, List, Optional

from runel import _io_async as io
from runel.errors import DeviceError, LinkError, LocalError, Outcome, RunelError
from runel.errors import local_error
from runel.results import Stat
from runel.tasks import Name, to_bytes

if TYPE_CHECKING:
    from runel._async.device import AsyncDevice

PIECE = 8388608
"""Maximum number of content bytes in one request or answer of a transfer."""

Progress = Callable[[int, int], None]
"""Called with the bytes transferred and the total."""

_BLOCK = 65536
_ENOENT = 2
_CUT = 'exec dd if="$0" bs=65536 skip=$1 count=$2 2>/dev/null'  # dd's report is not content.
_COMMAND_LIMIT = 60  # time limit of chmod, chown, and dd with one piece, in seconds


async def push_file(
    device: AsyncDevice,
    source: Name,
    target: Name,
    mode: Optional[int],
    progress: Optional[Progress],
) -> int:
    try:
        with open(source, "rb") as file:
            about = os.fstat(file.fileno())
            place = await _behind_link(device, to_bytes(target))
            part = _part_name(place)
            try:
                await _send_pieces(device, file, about.st_size, part, progress)
                await _set_owner_and_mode(device, place, part, mode, about.st_mode & 0o7777)
                await device.rename(part, place)
            except BaseException:
                await _discard(device, part)
                raise
            return about.st_size
    except OSError as error:
        raise local_error(os.fsdecode(source), error, device.name, "push") from error


async def _behind_link(device: AsyncDevice, target: bytes) -> bytes:
    try:
        return to_bytes(await device.realpath(target))
    except DeviceError as error:
        if error.errno != _ENOENT:
            raise
        return target


def _part_name(place: bytes) -> bytes:
    directory, name = posixpath.split(place)
    return posixpath.join(directory, b".%s-%s" % (name[:200], secrets.token_hex(8).encode()))


async def _send_pieces(
    device: AsyncDevice, file: BinaryIO, size: int, part: bytes, progress: Optional[Progress]
) -> None:
    # Create it empty, and make it private before it has content.
    await device.write(part, b"")
    await device.exec(["chmod", "0600", "--", part], limit=_COMMAND_LIMIT)
    sent = 0
    while sent < size:
        piece = await io.call_blocking(file.read, min(PIECE, size - sent))
        if not piece:
            raise _changed(device, "push", os.fsdecode(file.name))
        await _append_once(device, part, sent, piece)
        sent += len(piece)
        if progress is not None:
            progress(sent, size)


async def _append_once(device: AsyncDevice, part: bytes, offset: int, piece: bytes) -> None:
    """Appends `piece`; if the outcome is unknown, the size of the file decides."""
    try:
        await device.append(part, piece)
    except LinkError as error:
        if error.outcome is not Outcome.UNKNOWN:
            raise
        size = (await device.stat(part)).size
        if size == offset:
            await device.append(part, piece)
        elif size != offset + len(piece):
            raise


async def _set_owner_and_mode(
    device: AsyncDevice, place: bytes, part: bytes, mode: Optional[int], new_mode: int
) -> None:
    old = await _existing(device, place)
    mine = await device.stat(part)
    if old is not None and (old.uid, old.gid) != (mine.uid, mine.gid):
        await _command(device, "chown", f"{old.uid}:{old.gid}", part)
    if mode is None:
        mode = new_mode if old is None else old.permissions
    await _command(device, "chmod", f"{mode:04o}", part)


async def _existing(device: AsyncDevice, place: bytes) -> Optional[Stat]:
    try:
        return await device.stat(place)
    except DeviceError as error:
        if error.errno != _ENOENT:
            raise
        return None


async def _command(device: AsyncDevice, program: str, how: str, part: bytes) -> None:
    await device.exec([program, how, "--", part], limit=_COMMAND_LIMIT)


async def _discard(device: AsyncDevice, part: bytes) -> None:
    with contextlib.suppress(RunelError):
        await device.unlink(part)


async def pull_file(
    device: AsyncDevice, source: Name, target: Name, progress: Optional[Progress]
) -> int:
    about = await device.stat(source)
    place = os.fsencode(target)
    part = _part_name(place)
    try:
        with open(part, "xb") as file:
            try:
                size = await _receive(device, to_bytes(source), about, file, progress)
                os.fchmod(file.fileno(), about.permissions & 0o777)
                await io.call_blocking(_sync_file, file)
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


async def _receive(
    device: AsyncDevice,
    source: bytes,
    about: Stat,
    file: BinaryIO,
    progress: Optional[Progress],
) -> int:
    if about.size <= PIECE:
        return await _receive_whole(device, source, file, progress)
    received = 0
    while received < about.size:
        piece = await _cut(device, source, received, min(PIECE, about.size - received))
        await io.call_blocking(file.write, piece)
        received += len(piece)
        if progress is not None:
            progress(received, about.size)
    now = await device.stat(source)
    if (now.ino, now.size, now.mtime_ns) != (about.ino, about.size, about.mtime_ns):
        raise _changed(device, "pull", os.fsdecode(source))
    return received


async def _receive_whole(
    device: AsyncDevice, source: bytes, file: BinaryIO, progress: Optional[Progress]
) -> int:
    content = await device.read(source)
    await io.call_blocking(file.write, content)
    if progress is not None:
        progress(len(content), len(content))
    return len(content)


async def _cut(device: AsyncDevice, source: bytes, offset: int, size: int) -> bytes:
    blocks = (size + _BLOCK - 1) // _BLOCK
    program: List[Name] = ["/bin/sh", "-c", _CUT, source, str(offset // _BLOCK), str(blocks)]
    piece = (await device.exec(program, limit=_COMMAND_LIMIT)).output[:size]
    if len(piece) != size:
        raise _changed(device, "pull", os.fsdecode(source))
    return piece


def _changed(device: AsyncDevice, task: str, name: str) -> RunelError:
    sentence = f"{name}: changed while it was copied"
    if task == "push":
        return LocalError(sentence, outcome=Outcome.NOT_SENT, device=device.name, task=task)
    return DeviceError(sentence, outcome=Outcome.ANSWERED, device=device.name, task=task)
