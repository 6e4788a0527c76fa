# SPDX-License-Identifier: Apache-2.0
"""The relay's clauses without I/O: splits a stream into clauses, checks a clause to send.

The rules are those of the daemon, which does not parse XML: a clause ends at the first ``>`` if a
``/`` precedes it, otherwise after the first ``</tag>`` of its tag.
"""
from __future__ import annotations

from typing import Optional

from runel._protocol import ProtocolError

MAX_CLAUSE = 1048576
"""Maximum length of a received clause, in bytes."""

PING = b"<ping/>"
_BLANKS = b" \t\r\n"


class ClauseCutter:
    """Splits a stream of bytes into clauses.

    >>> cutter = ClauseCutter()
    >>> cutter.feed(b"<a/>\\r\\n<b>te")
    >>> cutter.next(), cutter.next()
    (b'<a/>', None)
    >>> cutter.feed(b"xt</b>")
    >>> cutter.next()
    b'<b>text</b>'
    """

    def __init__(self, limit: int = MAX_CLAUSE) -> None:
        self._limit = limit
        self._buffer = bytearray()
        self._searched = 0  # length of the searched part of the buffer, without an end

    def feed(self, data: bytes) -> None:
        """Adds received bytes, split anywhere. Raises `ProtocolError` for the bytes of frames."""
        if b"\x01" in data or b"\x02" in data:
            raise ProtocolError("bytes of a frame among clauses")
        self._buffer += data

    @property
    def is_empty(self) -> bool:
        """True if only blanks are left."""
        return not self._buffer.strip(_BLANKS)

    def next(self) -> Optional[bytes]:
        """The next complete clause, or None while bytes are missing.

        Raises `ProtocolError` for bytes that start no clause and for a clause above the limit.
        """
        if not self._searched:
            self._skip_blanks()
        if self._buffer and self._buffer[0] != ord("<"):
            raise ProtocolError(f"byte 0x{self._buffer[0]:02x} where a clause must begin")
        end = self._end()
        if end is None:
            if len(self._buffer) > self._limit:
                raise ProtocolError(f"a clause of more than {self._limit} bytes")
            return None
        clause = bytes(self._buffer[:end])
        del self._buffer[:end]
        self._searched = 0
        return clause

    def _skip_blanks(self) -> None:
        del self._buffer[: len(self._buffer) - len(self._buffer.lstrip(_BLANKS))]

    def _end(self) -> Optional[int]:
        tag_end = self._buffer.find(b">")
        if tag_end < 0:
            return None
        if self._buffer[tag_end - 1] == ord("/"):
            return tag_end + 1
        closing = b"</" + bytes(self._buffer[1 : tag_end + 1])
        found = self._buffer.find(closing, max(0, self._searched - len(closing)))
        self._searched = len(self._buffer)
        return found + len(closing) if found >= 0 else None


def check_clause(clause: bytes) -> bytes:
    """`clause` without surrounding blanks. Raises `ProtocolError` unless it is exactly one."""
    cutter = ClauseCutter(limit=len(clause))
    cutter.feed(clause)
    found = cutter.next()
    if found is None or not cutter.is_empty:
        raise ProtocolError("not exactly one clause")
    return found
