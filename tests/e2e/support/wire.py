# SPDX-License-Identifier: Apache-2.0
"""The task protocol from the master's side: frames, records and replies."""
import dataclasses

MAX_PAYLOAD = 256 * 1024 * 1024


def as_bytes(value):
    return value if isinstance(value, bytes) else str(value).encode()


def frame(payload):
    return b"\x01%d\x02" % len(payload) + payload


def counted(text):
    text = as_bytes(text)
    return b"%d:" % len(text) + text


def record(arguments, exec_param=0, tail=b"0: 0 0 0 0 0"):
    fields = [b"SlaveTask", b"%d" % len(arguments), *map(counted, arguments)]
    return b" ".join([*fields, b"%d" % exec_param, tail])


def request(*arguments, exec_param=0):
    """The frame of a request: the task's name, then its arguments."""
    return frame(record(arguments, exec_param))


@dataclasses.dataclass(frozen=True)
class Reply:
    """A reply's fields. `fields` are STATUS STATE RESULT ERRNO SIGNAL."""
    output: bytes
    fields: tuple
    arguments: tuple
    exec_param: int


class Cursor:
    """Parses a record strictly: any malformed byte is a failure."""

    def __init__(self, payload):
        self.payload = payload
        self.at = 0

    def expect(self, literal):
        found = self.payload[self.at:self.at + len(literal)]
        assert found == literal, f"expected {literal!r} at {self.at}, got {self.payload[:200]!r}"
        self.at += len(literal)

    def number(self, stops):
        end = self.at
        while end < len(self.payload) and self.payload[end:end + 1] not in stops:
            end += 1
        digits = self.payload[self.at:end]
        value = int(digits)
        assert digits == b"%d" % value, f"number not in its one form: {digits!r}"
        self.at = end
        return value

    def string(self):
        length = self.number((b":",))
        self.expect(b":")
        text = self.payload[self.at:self.at + length]
        assert len(text) == length, "string cut short"
        self.at += length
        return text


def parse_record(payload):
    cursor = Cursor(payload)
    cursor.expect(b"SlaveTask ")
    count = cursor.number((b" ",))
    cursor.expect(b" ")
    arguments = []
    for _ in range(count):
        arguments.append(cursor.string())
        cursor.expect(b" ")
    exec_param = cursor.number((b" ",))
    cursor.expect(b" ")
    output = cursor.string()
    fields = []
    for _ in range(5):
        cursor.expect(b" ")
        fields.append(cursor.number((b" ",)))
    assert cursor.at == len(payload), f"bytes after the record: {payload[cursor.at:][:80]!r}"
    return Reply(output, tuple(fields), tuple(arguments), exec_param)
