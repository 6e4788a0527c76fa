# SPDX-License-Identifier: Apache-2.0
"""Runs runelctl as users do, against scripted and faulty peers."""
import contextlib
import dataclasses
import hashlib
import json
import os
import pty
import re
import select
import shutil
import socket
import stat
import subprocess
import time

from support.case import EndToEndCase
from support.daemon import sanitizer_options
from support.threads import close_served, serve_in_thread
from support.wait import TIMEOUT
from support.wire import parse_record

BINARY = os.environ.get("RUNELCTL_BIN", "")
RECORD = os.environ.get("RUNELCTL_RECORD")
COVERAGE = "RUNELCTL_COVERAGE" in os.environ


@dataclasses.dataclass(frozen=True)
class Result:
    status: int
    out: bytes
    err: bytes

    @property
    def text(self):
        return self.out.decode()

    @property
    def errors(self):
        return self.err.decode().splitlines()

    @property
    def objects(self):
        """The lines of a run with --json."""
        return [json.loads(line) for line in self.out.decode().splitlines()]


class CtlCase(EndToEndCase):
    """Runs the binary. Each run ends within its timeout and without a sanitizer report."""

    def environment(self, extra=None):
        clean = {name: value for name, value in os.environ.items()
                 if name not in ("NO_COLOR", "XDG_CONFIG_HOME", "XDG_RUNTIME_DIR")
                 and not name.startswith("RUNELCTL")}
        return {**clean, "HOME": self.directory, "TZ": "UTC", "XDG_RUNTIME_DIR": self.directory,
                **sanitizer_options(self.directory), **(extra or {})}

    def start(self, *words, stdin=subprocess.DEVNULL, env=None, **options):
        """Starts runelctl with pipes as standard output and standard error."""
        assert os.path.isabs(BINARY), "RUNELCTL_BIN must name the binary"
        streams = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **options}
        process = subprocess.Popen([BINARY, *words], stdin=stdin, env=self.environment(env),
                                   cwd=self.directory, **streams)
        self.addCleanup(self._end, process)
        return process

    _record_mode = "w"  # ignore the record of an earlier test run

    @classmethod
    def _record(cls, process):
        """Records arguments and exit status for check_runelctl_used (null: still running)."""
        words = [os.fsdecode(word) for word in process.args[1:]]
        with open(RECORD, CtlCase._record_mode, encoding="ascii") as record:
            record.write(json.dumps([words, process.poll()]) + "\n")
        CtlCase._record_mode = "a"

    @classmethod
    def _end(cls, process):
        if RECORD and process.args[0] == BINARY:
            cls._record(process)
        if process.poll() is None:
            if COVERAGE:
                cls._let_end(process)
            process.kill()
        process.wait()
        for stream in (process.stdin, process.stdout, process.stderr):
            if stream:
                stream.close()

    @staticmethod
    def _let_end(process):
        """Lets a coverage build exit on SIGTERM, because it writes its counts at exit."""
        process.terminate()
        with contextlib.suppress(subprocess.TimeoutExpired):
            process.wait(5)

    def ctl(self, *words, feed=None, env=None, timeout=TIMEOUT):
        """One run from start to end."""
        stdin = subprocess.PIPE if feed is not None else subprocess.DEVNULL
        process = self.start(*words, stdin=stdin, env=env)
        out, err = process.communicate(feed, timeout=timeout)
        return Result(process.returncode, out, err)

    def succeed(self, *words, **options):
        """A run that must succeed with an empty standard error."""
        result = self.ctl(*words, **options)
        self.assertEqual((result.status, result.err), (0, b""), (words, result.out[-500:]))
        return result

    def on_terminal(self, *words, typed=b"", columns=80, env=None, until=None, timeout=TIMEOUT):
        """A run on a terminal. Returns its status and the terminal output.

        @p typed is typed at once. A list has pairs of an output and what happens when it was shown:
        bytes are typed, a function is called.
        """
        master, slave = pty.openpty()
        with contextlib.suppress(OSError):
            import fcntl
            import struct
            import termios
            fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", 25, columns, 0, 0))
        process = subprocess.Popen([BINARY, *words], stdin=slave, stdout=slave, stderr=slave,
                                   env=self.environment({"TERM": "xterm", **(env or {})}),
                                   cwd=self.directory, start_new_session=True)
        os.close(slave)
        self.addCleanup(self._end, process)
        shown = bytearray()
        deadline = time.monotonic() + timeout
        typed = list(typed) if isinstance(typed, (list, tuple)) else [(b"", typed)]
        while time.monotonic() < deadline:
            while typed and typed[0][0] in shown:
                happens = typed.pop(0)[1]
                happens() if callable(happens) else os.write(master, happens)
            ready, _, _ = select.select([master], [], [], 0.05)
            if ready:
                try:
                    part = os.read(master, 65536)
                except OSError:
                    break
                if not part:
                    break
                shown += part
            elif process.poll() is not None:
                break
        os.close(master)
        return process.wait(TIMEOUT), bytes(shown)

    def odd_peer(self, serve, address="127.0.0.1", port=0):
        """Starts a listener that calls @p serve with each connection. Returns HOST:PORT."""
        return OddPeer(self, serve, address, port).where


class OddPeer:
    """Accepts connections in a thread and serves each one in a separate thread."""

    def __init__(self, case, serve, address, port):
        self.serve = serve
        self.served = []
        self.listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self.listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.listener.bind((address, port))
        self.listener.listen(512)
        self.where = f"{address}:{self.listener.getsockname()[1]}"
        case.addCleanup(self.close)
        self.thread = serve_in_thread(self._accept)

    def _accept(self):
        with contextlib.suppress(OSError):
            while True:
                connected, _ = self.listener.accept()
                self.served.append((connected, serve_in_thread(self._serve, connected)))

    def _serve(self, connected):
        with contextlib.suppress(OSError):
            self.serve(connected)

    def close(self):
        close_served([(self.listener, self.thread)])
        close_served(self.served)


def hang(connected):
    """Reads and never answers."""
    while connected.recv(65536):
        pass


def reply(output=b"", fields=(0, 0, 0, 0, 0)):
    """The frame of one reply."""
    record = b"SlaveTask 0 0 %d:%s %d %d %d %d %d" % (len(output), output, *fields)
    return b"\x01%d\x02%s" % (len(record), record)


FRAME = re.compile(rb"\x01(\d+)\x02")


def requests(connected):
    """The requests of a connection, each as a list of words, until its end."""
    data = b""
    while part := connected.recv(65536):
        data += part
        while (head := FRAME.match(data)) and len(data) >= head.end() + int(head[1]):
            end = head.end() + int(head[1])
            yield [os.fsdecode(word) for word in parse_record(data[head.end():end]).arguments]
            data = data[end:]


def answer_each(*answers):
    """Sends the next of @p answers for each received packet, and repeats the last one."""
    def serve(connected):
        left = list(answers)
        while connected.recv(65536):
            connected.sendall(left.pop(0) if len(left) > 1 else left[0])
    return serve


def say(*parts):
    """Sends @p parts after the first packet and closes."""
    def serve(connected):
        connected.recv(65536)
        for part in parts:
            connected.sendall(part)
        connected.close()
    return serve


class Between:
    """Relays between runelctl and a daemon. Calls `meet` once after @p limit bytes in one
    direction, and cuts the connection if it returns False."""

    def __init__(self, case, limit, meet=lambda: False, back=False, port=5111):
        self.limit = limit
        self.meet = meet
        self.back = back
        self.port = port
        self.passed = 0
        self.where = case.odd_peer(self._serve)

    def _serve(self, connected):
        with socket.create_connection(("127.0.0.1", self.port)) as daemon:
            ways = {connected: daemon, daemon: connected}
            while True:
                for source in select.select(list(ways), [], [])[0]:
                    data = source.recv(65536)
                    if not data:
                        return connected.close()
                    if (source is daemon) == self.back and self.limit is not None:
                        self.passed += len(data)
                        if self.passed > self.limit:
                            self.limit = None
                            if not self.meet():
                                return connected.close()
                    ways[source].sendall(data)


def small_disk(case, name, size):
    """A file system with room for @p size bytes."""
    directory = case.path(name)
    os.mkdir(directory)
    subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={size}", "tmpfs", directory], check=True)
    case.addCleanup(subprocess.run, ["umount", "-l", directory], check=True)
    return directory


def only_programs(case, *names):
    """A PATH with only the given programs."""
    directory = case.path("bin-" + "-".join(names))
    os.mkdir(directory)
    for name in names:
        os.symlink(shutil.which(name), os.path.join(directory, name))
    return directory


def snapshot(directory):
    """Type, mode, time and content of everything below @p directory, by relative path."""
    found = {}
    directory = os.fsencode(directory)
    for top, directories, files in os.walk(directory):
        for name in [*directories, *files]:
            path = os.path.join(top, name)
            st = os.lstat(path)
            if stat.S_ISLNK(st.st_mode):
                found[os.path.relpath(path, directory)] = ("link", os.readlink(path))
            elif stat.S_ISDIR(st.st_mode):
                found[os.path.relpath(path, directory)] = ("directory", stat.S_IMODE(st.st_mode),
                                                        st.st_mtime_ns)
            else:
                with open(path, "rb") as file:
                    found[os.path.relpath(path, directory)] = (
                        "file", stat.S_IMODE(st.st_mode), st.st_mtime_ns,
                        hashlib.sha256(file.read()).hexdigest())
    return found
