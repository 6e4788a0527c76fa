# SPDX-License-Identifier: Apache-2.0
"""The daemon under test: starts it, inspects it from outside, and ends it."""
import contextlib
import ctypes
import os
import re
import signal
import socket
import subprocess

from support import world
from support.wait import TIMEOUT, wait_until

BINARY = os.environ.get("RUNELD_BIN", "")
REPORT = re.compile(r"AddressSanitizer|LeakSanitizer|UndefinedBehaviorSanitizer|runtime error:")


def is_instrumented():
    """Whether the binary has the address sanitizer, which retains freed memory for some time."""
    with open(BINARY, "rb") as binary:
        return b"__asan_init" in binary.read()


def sanitizer_options(directory, detect_leaks=True):
    options = f"log_path={directory}/sanitizer:halt_on_error=1:exitcode=86:print_stacktrace=1"
    return {"ASAN_OPTIONS": f"{options}:detect_leaks={int(detect_leaks)}:verify_asan_link_order=0",
            "UBSAN_OPTIONS": options}


def _other_sockets():
    """The inodes of sockets that listen, that connect to a master, or that are not TCP."""
    listening, master = "0A", ":13F8"
    for name, column in (("tcp", 9), ("tcp6", 9), ("udp", 9), ("udp6", 9), ("unix", 6)):
        with open(f"/proc/net/{name}", encoding="ascii", errors="replace") as table:
            for row in list(table)[1:]:
                row = row.split()
                if "tcp" not in name or row[3] == listening or row[2].endswith(master):
                    yield row[column]


class Daemon:
    """One run of the binary, in a new session, because it may signal its whole process group.

    `pid` is that of the process that serves: the process started, or with `background` its child.
    """

    def __init__(self, log, directory, *arguments, background=False, wrapper=(), setup=None,
                 environment=None, detect_leaks=True, wait=True, descriptors=None):
        assert os.path.isabs(BINARY), "RUNELD_BIN must name the binary"
        self.log = log
        self.background = background
        self.since = log.mark()
        self.stderr_path = os.path.join(directory, f"stderr.{self.since}")
        command = [*wrapper, BINARY, *([] if background else ["-n"]), *arguments]
        with open(self.stderr_path, "wb") as stderr:
            streams = descriptors or {"stdin": subprocess.DEVNULL, "stdout": stderr, "stderr": stderr}
            self.process = subprocess.Popen(
                command, start_new_session=True, preexec_fn=setup, cwd="/",
                env={**os.environ, **sanitizer_options(directory, detect_leaks),
                     **(environment or {})},
                **streams)
        self.pid = None if background else self.process.pid
        self.status = None
        if wait:
            self.wait_ready()

    def wait_ready(self, timeout=TIMEOUT):
        """Waits until the daemon listens."""
        if self.background:
            assert self.process.wait(timeout) == 0, "the launching process did not end with 0"
        line = self.log.wait_for(r"listening on port 5111", since=self.since, timeout=timeout)
        if self.background:
            self.pid = line.pid
        return self

    def stderr(self):
        with open(self.stderr_path, encoding="latin-1") as lines:
            return lines.read()

    def send_signal(self, number):
        os.kill(self.pid, number)

    def wait(self, timeout=TIMEOUT):
        """Waits for the serving process to end. Returns its exit status, or minus the signal."""
        if self.status is None:
            if self.background:
                self.status = wait_until(self._reaped, "the daemon ends", timeout)[0]
            else:
                self.status = self.process.wait(timeout)
        return self.status

    def _reaped(self):
        pid, status = os.waitpid(self.pid, os.WNOHANG)
        return (os.waitstatus_to_exitcode(status),) if pid else None

    def stop(self, number=signal.SIGTERM, timeout=TIMEOUT):
        """Sends the signal @p number and returns the exit status."""
        self.send_signal(number)
        return self.wait(timeout)

    def alive(self):
        return self.status is None and os.path.exists(f"/proc/{self.pid}/exe")

    def kill(self):
        """Kills the daemon if it still runs."""
        if self.process.poll() is None:
            with contextlib.suppress(ProcessLookupError):
                os.killpg(self.process.pid, signal.SIGKILL)
            self.process.wait()
        if self.background and self.pid and self.status is None:
            with contextlib.suppress(ProcessLookupError, ChildProcessError):
                os.kill(self.pid, signal.SIGKILL)
                os.waitpid(self.pid, 0)

    # State that is visible from outside.

    def descriptors(self):
        """Number and target of each open descriptor."""
        directory = f"/proc/{self.pid}/fd"
        targets = {}
        for name in os.listdir(directory):
            with contextlib.suppress(FileNotFoundError):
                targets[int(name)] = os.readlink(f"{directory}/{name}")
        return targets

    def peers(self):
        """The inodes of the sockets that connect the daemon to its clients or agents. After a reset
        the system's table of connections no longer has a socket, though data are left in it."""
        own = {target for target in self.descriptors().values() if target.startswith("socket:")}
        return own - {f"socket:[{inode}]" for inode in _other_sockets()}

    def closes_on_exec(self, descriptor):
        with open(f"/proc/{self.pid}/fdinfo/{descriptor}", encoding="ascii") as about:
            flags = int(re.search(r"^flags:\s*(\d+)", about.read(), re.MULTILINE)[1], 8)
        return bool(flags & os.O_CLOEXEC)

    def _status_field(self, name):
        with open(f"/proc/{self.pid}/status", encoding="latin-1") as about:
            return re.search(rf"^{name}:\s*(\S+)", about.read(), re.MULTILINE)[1]

    def state(self):
        """Its state in /proc: S asleep, R running, T stopped, Z zombie."""
        return self._status_field("State")

    def wait_asleep(self):
        """Waits until the daemon has finished a pass and sleeps in the next, or has ended."""
        def switches():
            return int(self._status_field("voluntary_ctxt_switches"))

        def idle():
            state = self.state()
            return state == "Z" or (state == "S" and switches() >= before + 2)
        before = switches()
        wait_until(idle, "the loop sleeps")

    def pending_signals(self):
        return int(self._status_field("SigPnd"), 16) | int(self._status_field("ShdPnd"), 16)

    def resident_bytes(self):
        return int(self._status_field("VmRSS")) * 1024

    def peak_bytes(self):
        return int(self._status_field("VmHWM")) * 1024

    def cpu_seconds(self):
        with open(f"/proc/{self.pid}/stat", encoding="latin-1") as about:
            fields = about.read().rpartition(")")[2].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def zombies(self):
        """Children that ended and were not reaped."""
        found = []
        for pid in world.processes():
            with contextlib.suppress(FileNotFoundError, ProcessLookupError):
                with open(f"/proc/{pid}/stat", encoding="latin-1") as about:
                    fields = about.read().rpartition(")")[2].split()
                if fields[0] == "Z" and int(fields[1]) == self.pid:
                    found.append(pid)
        return found

    @contextlib.contextmanager
    def socket_option_view(self, descriptor):
        """A duplicate of one of its sockets, to read the socket's options."""
        process = os.pidfd_open(self.pid)
        handle = ctypes.CDLL(None, use_errno=True).syscall(438, process, descriptor, 0)
        os.close(process)
        if handle < 0:
            raise OSError(ctypes.get_errno(), "pidfd_getfd")
        with socket.socket(fileno=handle) as view:
            yield view


def sanitizer_reports(directory):
    """Sanitizer reports of the processes that were started with `directory`."""
    found = []
    for name in sorted(os.listdir(directory)):
        if name.startswith(("sanitizer.", "stderr.")):
            with open(os.path.join(directory, name), encoding="latin-1") as lines:
                text = lines.read()
            if REPORT.search(text):
                found.append(text)
    return found
