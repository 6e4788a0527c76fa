# SPDX-License-Identifier: Apache-2.0
"""The task protocol without I/O: encodes and decodes frames and records.

A frame is ``0x01 COUNT 0x02 PAYLOAD``; every payload is a record. Malformed input raises
`ProtocolError`. Memory grows with the bytes received, never with a length that the peer announces.
"""
from __future__ import annotations

import re
from dataclasses import dataclass
from typing import Optional, Tuple

MAX_PAYLOAD = 268435456
"""Maximum payload of a frame, in bytes."""

SMALL_REPLY = 65536
"""Maximum size of the reply to a task without content, in bytes."""

_MAX_COUNT_DIGITS = 9
_COUNT = re.compile(rb"0|[1-9][0-9]*")
_NUMBER = re.compile(rb"0|-?[1-9][0-9]{0,9}")
_LOWEST, _HIGHEST = -(2**31), 2**31 - 1
_RECORD_START = b"SlaveTask "


class ProtocolError(ValueError):
    """Malformed input."""


def encode_frame(payload: bytes) -> bytes:
    """The frame with `payload`. Raises `ProtocolError` above `MAX_PAYLOAD` bytes."""
    if len(payload) > MAX_PAYLOAD:
        raise ProtocolError(f"a payload of {len(payload)} bytes; at most {MAX_PAYLOAD} fit")
    return b"\x01%d\x02%s" % (len(payload), payload)


class FrameDecoder:
    """Splits a stream of bytes into payloads.

    >>> decoder = FrameDecoder()
    >>> decoder.feed(b"\\x015\\x02he")
    >>> decoder.next() is None
    True
    >>> decoder.feed(b"llo")
    >>> decoder.next()
    b'hello'
    """

    def __init__(self) -> None:
        self._buffer = bytearray()
        self._length: Optional[int] = None  # of the payload at the start of the buffer

    def feed(self, data: bytes) -> None:
        """Adds received bytes, split anywhere."""
        self._buffer += data

    @property
    def is_empty(self) -> bool:
        """True between frames."""
        return self._length is None and not self._buffer

    def next(self, limit: int = MAX_PAYLOAD) -> Optional[bytes]:
        """The next complete payload, or None while bytes are missing.

        Raises `ProtocolError` for a malformed frame, and for a payload above `limit` bytes as soon
        as its count has arrived. After an error the decoder is unusable.
        """
        if self._length is None:
            self._length = self._take_count(limit)
        if self._length is None or len(self._buffer) < self._length:
            return None
        payload = bytes(memoryview(self._buffer)[: self._length])
        del self._buffer[: self._length]
        self._length = None
        return payload

    def _take_count(self, limit: int) -> Optional[int]:
        head = bytes(self._buffer[: _MAX_COUNT_DIGITS + 2])
        if not head:
            return None
        if head[0] != 1:
            raise ProtocolError(f"byte 0x{head[0]:02x} where a frame must begin")
        digits, end, _ = head[1:].partition(b"\x02")
        if not digits and not end:
            return None
        if not _COUNT.fullmatch(digits) or len(digits) > _MAX_COUNT_DIGITS:
            raise ProtocolError("malformed count of a frame")
        if int(digits) > limit:
            raise ProtocolError(f"a frame of {int(digits)} bytes where at most {limit} are due")
        if not end:
            return None
        del self._buffer[: len(digits) + 2]
        return int(digits)


@dataclass(frozen=True)
class Record:
    """The content of a frame: a request, or the reply to one."""

    args: Tuple[bytes, ...] = ()
    exec_param: int = 0
    output: bytes = b""
    status: int = 0
    state: int = 0
    result: int = 0
    errno: int = 0
    signal: int = 0


def encode_record(record: Record) -> bytes:
    """The text form of `record`. Raises `ProtocolError` for a number out of range."""
    fields = (record.status, record.state, record.result, record.errno, record.signal)
    unsigned = (record.status, record.state, record.errno, record.signal)
    for number in (record.exec_param, *fields):
        if not _LOWEST <= number <= _HIGHEST:
            raise ProtocolError(f"the number {number} does not fit into 32 bits")
    if min(unsigned) < 0:
        raise ProtocolError("a negative number in a field without a sign")
    parts = [b"%s%d " % (_RECORD_START, len(record.args))]
    parts += [b"%d:%s " % (len(arg), arg) for arg in record.args]
    parts.append(b"%d %d:" % (record.exec_param, len(record.output)))
    parts.append(record.output)
    parts.append(b" %d %d %d %d %d" % fields)
    return b"".join(parts)


def decode_record(payload: bytes) -> Record:
    """Parses `payload`. Raises `ProtocolError` if it is not a record."""
    fields = _Fields(payload)
    args = tuple(fields.string() for _ in range(fields.number(0)))
    record = Record(
        args=args,
        exec_param=fields.number(_LOWEST),
        output=fields.string(),
        status=fields.number(0),
        state=fields.number(0),
        result=fields.number(_LOWEST),
        errno=fields.number(0),
        signal=fields.number(0, end=True),
    )
    return record


class _Fields:
    """Parses the fields of a record in order."""

    def __init__(self, payload: bytes) -> None:
        if not payload.startswith(_RECORD_START):
            raise ProtocolError("a payload that is not a record")
        self._payload = payload
        self._at = len(_RECORD_START)

    def number(self, lowest: int, end: bool = False) -> int:
        value = self._digits(lowest)
        if end:
            if self._at != len(self._payload):
                raise ProtocolError("bytes behind the end of a record")
        else:
            self._separator(b" ")
        return value

    def string(self) -> bytes:
        length = self._digits(0)
        self._separator(b":")
        content = self._payload[self._at : self._at + length]
        if len(content) != length:
            raise ProtocolError("a string that is longer than its record")
        self._at += length
        self._separator(b" ")
        return content

    def _digits(self, lowest: int) -> int:
        found = _NUMBER.match(self._payload, self._at)
        if found is None or not lowest <= int(found.group()) <= _HIGHEST:
            raise ProtocolError("malformed number in a record")
        self._at = found.end()
        return int(found.group())

    def _separator(self, wanted: bytes) -> None:
        if self._payload[self._at : self._at + 1] != wanted:
            raise ProtocolError("malformed record")
        self._at += 1
