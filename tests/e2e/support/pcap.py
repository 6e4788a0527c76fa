# SPDX-License-Identifier: Apache-2.0
"""Reads and writes captures of TCP over IPv4, and changes them as a network or a bad capture would."""
import dataclasses
import struct

MAGIC_NANOSECONDS = 0xa1b23c4d
MAGIC = 0xa1b2c3d4
ETHERNET, HEADERS = 14, 14 + 20 + 20
SYN, RST, PSH, FIN, ACK = 2, 4, 8, 1, 16


@dataclasses.dataclass
class Segment:
    """A TCP segment without options. `captured` is the number of bytes of the packet in the file."""
    time: int  # nanoseconds
    source: tuple
    target: tuple
    seq: int
    ack: int
    flags: int
    payload: bytes = b""
    captured: int | None = None

    def stream(self):
        return frozenset((self.source, self.target))

    def packet(self):
        tcp = struct.pack("!HHIIBBHHH", self.source[1], self.target[1], self.seq % 2**32, self.ack % 2**32,
                          5 << 4, self.flags, 65535, 0, 0)
        ip = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 40 + len(self.payload), 0, 0, 64, 6, 0, self.source[0],
                         self.target[0])
        return bytes(12) + b"\x08\x00" + ip + tcp + self.payload


def read(path):
    """The TCP segments of a capture file in the classic format."""
    with open(path, "rb") as file:
        data = file.read()
    magic, = struct.unpack_from("<I", data)
    assert magic in (MAGIC, MAGIC_NANOSECONDS), hex(magic)
    factor = 1 if magic == MAGIC_NANOSECONDS else 1000
    segments, at = [], 24
    while at < len(data):
        seconds, fraction, captured, length = struct.unpack_from("<IIII", data, at)
        assert captured == length
        packet = data[at + 16:at + 16 + captured]
        at += 16 + captured
        if packet[23] == 6:
            segments.append(parse(seconds * 10**9 + fraction * factor, packet))
    return segments


def parse(time, packet):
    tcp = ETHERNET + 4 * (packet[ETHERNET] & 15)
    source_port, target_port, seq, ack, offset, flags = struct.unpack_from("!HHIIBB", packet, tcp)
    length, = struct.unpack_from("!H", packet, ETHERNET + 2)
    payload = packet[tcp + 4 * (offset >> 4):ETHERNET + length]
    return Segment(time, (packet[26:30], source_port), (packet[30:34], target_port), seq, ack, flags, payload)


def write(path, segments, raw=()):
    """@p raw: a function for the packets of some segments, by index, which replace their bytes."""
    raw = dict(raw)
    with open(path, "wb") as file:
        file.write(struct.pack("<IHHiIII", MAGIC_NANOSECONDS, 2, 4, 0, 0, 262144, 1))
        for index, segment in enumerate(segments):
            packet = raw.get(index) or segment.packet()
            captured = packet if segment.captured is None else packet[:segment.captured]
            file.write(struct.pack("<IIII", segment.time // 10**9, segment.time % 10**9, len(captured),
                                   len(packet)))
            file.write(captured)
    return path


class Conversation:
    """A made-up connection: the bytes that each side sends, in their order, become segments."""

    def __init__(self, client_port=40000, server_port=5112, start=1_700_000_000 * 10**9):
        self.ends = ((b"\x7f\0\0\1", client_port), (b"\x7f\0\0\1", server_port))
        self.next = [1000, 2**32 - 50]  # the second one wraps soon
        self.segments = []
        self.time = start
        self._add(0, SYN)
        self.next[0] += 1
        self._add(1, SYN | ACK)
        self.next[1] += 1
        self._add(0, ACK)

    def _add(self, side, flags, payload=b""):
        self.time += 1000
        self.segments.append(Segment(self.time, self.ends[side], self.ends[1 - side], self.next[side],
                                     self.next[1 - side] if flags & ACK else 0, flags, payload))

    def client(self, *payloads):
        return self._send(0, payloads)

    def server(self, *payloads):
        return self._send(1, payloads)

    def _send(self, side, payloads):
        for payload in payloads:
            self._add(side, PSH | ACK, payload)
            self.next[side] = (self.next[side] + len(payload)) % 2**32
        return self

    def lose(self, side, count):
        """@p count bytes that the capture misses."""
        self.next[side] = (self.next[side] + count) % 2**32
        return self


def split(segments, random, largest=1500):
    """Each payload in segments of random sizes: many small ones if it is short."""
    for segment in segments:
        at, length = 0, len(segment.payload)
        while True:
            size = min(random.choice((1, 2, 7, 50, 500, largest)), length - at)
            if length > 3000:
                size = min(random.randrange(400, largest), length - at)
            yield dataclasses.replace(segment, seq=segment.seq + at, payload=segment.payload[at:at + size],
                                      time=segment.time + at)
            at += size
            if at >= length:
                break


def flip(packet, random, first=0):
    """The packet with one to three bits changed, behind its first @p first bytes."""
    changed = bytearray(packet)
    for _ in range(random.randrange(1, 4)):
        if len(changed) > first:
            changed[random.randrange(first, len(changed))] ^= 1 << random.randrange(8)
    return bytes(changed)


INSERTED = (b"\x01", b"\x02", b"<", b">", b"</", b"\0", b" ", b"0", b"9", b"-", b"SlaveTask ", b"\x01999999\x02",
            b"\x013\x02", b"<?", b"\x01268435457\x02")


def edited(payload, random):
    """The payload with some bytes inserted, removed or replaced."""
    changed = bytearray(payload)
    for _ in range(random.randrange(1, 4)):
        at, kind = random.randrange(len(changed) + 1), random.randrange(3)
        if kind == 0:
            changed[at:at] = random.choice(INSERTED)
        elif kind == 1:
            del changed[at:at + random.randrange(1, 20)]
        else:
            changed[at:at + 1] = random.randbytes(1)
    return bytes(changed)


def renamed(end, number, servers):
    """The end of a connection, with another port in each copy of a capture."""
    return end if end[1] in servers else (end[0], 1024 + (end[1] * 7 + number * 101) % 60000)


def damaged(segments, random, count, servers=(5111, 5112)):
    """@p count packets: damaged copies of @p segments. Returns them, and the bytes of some, by index.

    Some are missing, doubled, in another order, cut by the capture, split, edited, or have changed bits.
    """
    packets, raw, number = [], {}, 0
    while len(packets) < count:
        number += 1
        divided = random.random() < 0.5
        copy = []
        for one in segments:
            one = dataclasses.replace(one, source=renamed(one.source, number, servers), captured=None,
                                      target=renamed(one.target, number, servers),
                                      time=one.time + number * 10**10)
            copy.extend(split([one], random) if divided and random.random() < 0.5 else [one])
        for index, one in enumerate(copy):
            fate = random.random()
            if not one.payload:
                packets.extend([one] if one.flags & (SYN | FIN | RST) and fate < 0.7 else [])
                continue
            if fate < 0.04:
                continue
            if fate < 0.08:
                packets.append(one)
            elif fate < 0.12:
                packets.append(copy[(index + 1) % len(copy)])
            elif fate < 0.20:
                one = dataclasses.replace(one, captured=random.randrange(10, HEADERS + 6 + len(one.payload)))
            elif fate < 0.40:
                raw[len(packets)] = flip(one.packet(), random, 0 if random.random() < 0.05 else HEADERS)
            elif fate < 0.55:
                one = dataclasses.replace(one, payload=edited(one.payload, random))
            packets.append(one)
    return packets[:count], {index: packet for index, packet in raw.items() if index < count}
