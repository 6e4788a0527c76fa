# SPDX-License-Identifier: Apache-2.0
"""A relay that makes a fast connection a thin one, with a rate and a delay in each direction.

    python3 thin_line.py BYTES_PER_SECOND DELAY_SECONDS PORT TARGET_PORT

Prints "ready" when it listens. ThinLine runs it as a separate process, because its accuracy needs an
interpreter that does nothing else.
"""
import collections
import contextlib
import select
import socket
import subprocess
import sys
import time

PACKET = 4096  # bytes; small, so that the pace is even
QUEUE = 0.1    # seconds of the rate that the line holds besides what is delayed


class Way:
    """One direction of one connection."""

    def __init__(self, source, sink):
        self.source, self.sink = source, sink
        self.packets = collections.deque()  # due time and bytes; b"" is the end
        self.free = 0.0                     # when the line has sent all of them
        self.open = True

    def read(self, now, rate, delay):
        try:
            data = self.source.recv(PACKET)
        except OSError:
            data = b""
        self.open = bool(data)
        self.free = max(now, self.free) + len(data) / rate
        self.packets.append((self.free + delay, data))

    def write(self, now):
        """Passes on what is due. Returns False after the end."""
        while self.packets and self.packets[0][0] <= now:
            data = self.packets.popleft()[1]
            with contextlib.suppress(OSError):
                if data:
                    self.sink.sendall(data)
                else:
                    self.sink.shutdown(socket.SHUT_WR)
            if not data:
                return False
        return True

    def wait(self, now):
        """The time until something is due, and whether it can take more."""
        due = [self.packets[0][0] - now] if self.packets else []
        full = self.free - now - QUEUE
        if self.open and full > 0:
            due.append(full)
        return min(due, default=1.0), self.open and full <= 0


def relay(rate, delay, port, target):
    listener = socket.create_server(("127.0.0.1", port), backlog=64)
    print("ready", flush=True)
    ways = []
    while True:
        now = time.monotonic()
        ways = [way for way in ways if way.write(now)]
        waits = [(way, *way.wait(now)) for way in ways]
        readable = {way.source: way for way, _, more in waits if more}
        timeout = max(min((due for _, due, _ in waits), default=1.0), 0)
        ready, _, _ = select.select([listener, *readable], [], [], timeout)
        for source in ready:
            if source is listener:
                near, _ = listener.accept()
                far = socket.create_connection(("127.0.0.1", target))
                for end in (near, far):
                    end.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
                ways += [Way(near, far), Way(far, near)]
            else:
                readable[source].read(time.monotonic(), rate, delay)


class ThinLine:
    """A running relay to @p target, a port of this host."""

    def __init__(self, rate, delay, port, target):
        self.where = f"127.0.0.1:{port}"
        self.process = subprocess.Popen(
            [sys.executable, "-B", __file__, str(rate), str(delay), str(port), str(target)],
            stdout=subprocess.PIPE)
        assert self.process.stdout.readline() == b"ready\n"

    def close(self):
        self.process.kill()
        self.process.wait()
        self.process.stdout.close()


if __name__ == "__main__":
    relay(float(sys.argv[1]), float(sys.argv[2]), int(sys.argv[3]), int(sys.argv[4]))
