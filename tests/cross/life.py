# SPDX-License-Identifier: Apache-2.0
"""A life of a daemon of another architecture: start, ten tasks, relay, stop.

    scripts/world --no-log python3 -B tests/cross/life.py COMMAND...

COMMAND is the daemon, with the emulator in front of it. Exit status: 0 if every step was right.
"""
import errno
import os
import signal
import socket
import subprocess
import sys
import tempfile
import threading

TIMEOUT = 120


class Peer:
    """A connection with the daemon."""

    def __init__(self, connected):
        connected.settimeout(TIMEOUT)
        self.socket = connected

    def receive(self, length):
        data = b""
        while len(data) < length:
            piece = self.socket.recv(length - len(data))
            assert piece, f"closed after {data!r}"
            data += piece
        return data

    def ask(self, name, *arguments):
        """Sends one task. Returns the text and the five numbers of the reply."""
        fields = b" ".join(b"%d:%s" % (len(text), text) for text in (name, *arguments))
        record = b"SlaveTask %d %s 30 0: 0 0 0 0 0" % (1 + len(arguments), fields)
        self.socket.sendall(b"\x01%d\x02%s" % (len(record), record))
        head = self.receive(1)
        while not head.endswith(b"\x02"):
            head += self.receive(1)
        reply = self.receive(int(head[1:-1]))
        assert reply.startswith(b"SlaveTask 0 0 "), reply
        length, _, rest = reply[len(b"SlaveTask 0 0 "):].partition(b":")
        text, numbers = rest[:int(length)], rest[int(length):]
        return text, tuple(map(int, numbers.split()))


def check(what, got, expected):
    assert got == expected, f"{what}: {got!r}, not {expected!r}"
    print(f"ok  {what}", flush=True)


def ten_tasks(peer, directory):
    done = (0, 2, 0, 0, 0)  # a program ended with 0
    fine = (0, 0, 0, 0, 0)
    file = os.path.join(directory, b"file")
    content = bytes(range(256)) * 1000
    check("write", peer.ask(b"write", file, content), (b"", fine))
    check("read", peer.ask(b"read", file), (content, fine))
    check("append", peer.ask(b"append", file, b"end"), (b"", fine))
    check("chmodx", peer.ask(b"chmodx", file), (b"", fine))
    check("its mode", os.stat(file).st_mode & 0o111, 0o111)
    check("rename", peer.ask(b"rename", file, file + b"2"), (b"", fine))
    check("fileexists", peer.ask(b"fileexists", file + b"2"), (b"", fine))
    text, status = peer.ask(b"walktree", directory)
    check("walktree", (b"file2" in text, status), (True, fine))
    text, status = peer.ask(b"stat", file + b"2")
    check("stat", (str(len(content) + 3).encode() in text, status), (True, fine))
    check("exec", peer.ask(b"exec", b"/bin/sh", b"-c", b"echo out; echo err >&2"), (b"out\nerr\n", done))
    large = os.path.join(directory, b"large")
    with open(large, "wb") as sparse:
        sparse.truncate(5 << 30)
    os.utime(large, (1 << 32, 1 << 32))
    text, status = peer.ask(b"stat", large)
    check("stat of 5 GiB from the year 2106",
          (b" size=5368709120 " in text, b" mtime=4294967296.0" in text, status), (True, True, fine))
    text, status = peer.ask(b"walktree", directory)
    check("walktree with it", (b"5368709120" in text, status), (True, fine))
    check("read of it", peer.ask(b"read", large), (b"", (1, 0, 1, errno.EFBIG, 0)))
    os.unlink(large)
    check("unlink", peer.ask(b"unlink", file + b"2"), (b"", fine))
    check("all files are gone", os.listdir(directory), [])


def relay(master):
    with socket.create_connection(("127.0.0.1", 5111), TIMEOUT) as connected:
        agent = Peer(connected)
        agent.socket.sendall(b"<question>1</question>")
        bridge = Peer(master.accept()[0])
        check("a clause of the agent", bridge.receive(24), b"<question>1</question>\r\n")
        bridge.socket.sendall(b"<answer>2</answer>")
        check("a clause of the master", agent.receive(20), b"<answer>2</answer>\r\n")
        with open("/etc/hosts", "rb") as hosts:
            check("the hosts file", hosts.read().endswith(b"\n127.0.0.1 update-master\n"), True)
        bridge.socket.close()


class Log:
    """The lines that the daemon sends to /dev/log."""

    def __init__(self):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind("/dev/log")
        self.lines = []
        self.changed = threading.Condition()
        threading.Thread(target=self.collect, daemon=True).start()

    def collect(self):
        while True:
            line = self.socket.recv(1 << 18)
            with self.changed:
                self.lines.append(line)
                self.changed.notify_all()

    def has(self, text):
        """Whether a line ends so. The last lines may be read after the daemon has ended."""
        with self.changed:
            return self.changed.wait_for(
                lambda: any(line.endswith(text) and b" runeld: (" in line for line in self.lines), TIMEOUT)


def answer_lookups(server):
    """A name server: every name has the address 127.0.0.1, and no other record."""
    server.bind(("127.0.0.1", 53))
    while True:
        query, client = server.recvfrom(512)
        end = query.index(b"\0", 12) + 5  # behind the name: type and class
        answers = query[end - 4:end] == b"\0\1\0\1"
        record = b"\xc0\x0c\0\1\0\1\0\0\0\x3c\0\4\x7f\0\0\1" if answers else b""
        server.sendto(query[:2] + b"\x81\x80\0\1\0%c\0\0\0\0" % answers + query[12:end] + record, client)


def main(command):
    assert os.environ.get("RUNELD_WORLD") == "1", "run it in scripts/world"
    log = Log()
    # Only the name server knows the master.
    with open("/etc/resolv.conf", "w", encoding="ascii") as resolver:
        resolver.write("nameserver 127.0.0.1\n")
    threading.Thread(target=answer_lookups, args=(socket.socket(type=socket.SOCK_DGRAM),), daemon=True).start()
    with tempfile.TemporaryDirectory() as directory, socket.create_server(("127.0.0.1", 5112)) as master:
        master.settimeout(TIMEOUT)
        daemon = subprocess.Popen([*command, "-n", "-i", "the-master.example"], stdin=subprocess.DEVNULL,
                                  stderr=subprocess.DEVNULL, start_new_session=True)
        try:
            slave = Peer(master.accept()[0])
            print("ok  start, and the connection to a master that is given by name", flush=True)
            ten_tasks(slave, os.fsencode(directory))
            relay(master)
            daemon.send_signal(signal.SIGTERM)
            check("stop", daemon.wait(TIMEOUT), 0)
            check("its log", [log.has(b" start runeld (%d) " % daemon.pid + b"=" * 50),
                              log.has(b"exiting on signal: 15")], [True, True])
        finally:
            if daemon.poll() is None:
                daemon.kill()
                daemon.wait()
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
