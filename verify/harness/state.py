# SPDX-License-Identifier: Apache-2.0
"""The file that the harness and the preloaded libraries map. preload/state.h has the same layout."""
import ctypes
import errno
import mmap
import os
import struct

CALL_NUMBERS = 512
FORK, SPAWN, POPEN, SYSTEM = 500, 501, 502, 503
PLANS = 4
TRACE_BYTES = 16 << 20
SHORT = -1

# The system calls of x86-64 that the daemon and runelctl may make, by name.
NUMBERS = {
    "read": 0, "write": 1, "open": 2, "close": 3, "stat": 4, "fstat": 5, "lstat": 6, "poll": 7,
    "lseek": 8, "mmap": 9, "mprotect": 10, "munmap": 11, "brk": 12, "rt_sigaction": 13,
    "rt_sigprocmask": 14, "rt_sigreturn": 15, "ioctl": 16, "pread64": 17, "access": 21,
    "mremap": 25, "madvise": 28, "nanosleep": 35, "getpid": 39, "socket": 41, "connect": 42,
    "sendto": 44, "recvfrom": 45, "sendmsg": 46, "recvmsg": 47, "shutdown": 48, "bind": 49,
    "listen": 50, "getsockname": 51, "getpeername": 52, "setsockopt": 54, "getsockopt": 55,
    "futex": 202, "wait4": 61, "kill": 62, "uname": 63, "fcntl": 72, "fsync": 74, "ftruncate": 77,
    "getcwd": 79, "rename": 82, "mkdir": 83, "unlink": 87, "readlink": 89, "chmod": 90,
    "fchmod": 91, "fchown": 93, "getpgid": 121, "statfs": 137, "sync": 162, "reboot": 169,
    "getdents64": 217, "restart_syscall": 219, "clock_nanosleep": 230, "exit_group": 231,
    "waitid": 247, "openat": 257, "newfstatat": 262, "unlinkat": 263, "renameat": 264,
    "readlinkat": 267, "faccessat": 269, "pselect6": 270, "accept4": 288, "pipe2": 293,
    "sendmmsg": 307, "prlimit64": 302, "getrandom": 318, "pidfd_open": 434, "faccessat2": 439,
    "rmdir": 84, "epoll_wait": 232, "epoll_ctl": 233, "mkdirat": 258, "symlinkat": 266,
    "sync_file_range": 277, "utimensat": 280, "signalfd4": 289, "epoll_create1": 291,
    "syncfs": 306, "openat2": 437,
    "fork": FORK, "posix_spawnp": SPAWN, "popen": POPEN, "system": SYSTEM,
}
NAMES = {number: name for name, number in NUMBERS.items()}


class Plan(ctypes.Structure):
    _fields_ = [("call", ctypes.c_int32), ("first", ctypes.c_uint32), ("times", ctypes.c_uint32),
                ("error", ctypes.c_int32), ("hits", ctypes.c_uint32)]


class Process(ctypes.Structure):
    _fields_ = [("pid", ctypes.c_int32), ("passes", ctypes.c_uint32),
                ("calls", ctypes.c_uint64 * CALL_NUMBERS), ("all", ctypes.c_uint64),
                ("hits", ctypes.c_uint64), ("allocations", ctypes.c_uint64),
                ("allocation_hits", ctypes.c_uint64), ("live_blocks", ctypes.c_int64),
                ("live_bytes", ctypes.c_int64)]


class _Shared(ctypes.Structure):
    _fields_ = [("counting", ctypes.c_uint32), ("role", ctypes.c_uint32), ("plans", Plan * PLANS),
                ("first_allocation", ctypes.c_uint64), ("failing_allocations", ctypes.c_uint64),
                ("clock_moved", ctypes.c_int64), ("reboots", ctypes.c_uint32),
                ("kills_of_all", ctypes.c_uint32), ("popens", ctypes.c_uint32),
                ("systems", ctypes.c_uint32), ("syncs", ctypes.c_uint32),
                ("restart_reboots", ctypes.c_uint32), ("tracing", ctypes.c_uint32),
                ("pausing", ctypes.c_uint32), ("stopped", ctypes.c_uint32),
                ("resumed", ctypes.c_uint32), ("trace_used", ctypes.c_uint64),
                ("processes", Process * 2), ("trace", ctypes.c_ubyte * TRACE_BYTES)]


class Failure:
    """A planned failure: calls @p first to @p first + @p times - 1 of one kind, with one error."""

    def __init__(self, name, first, error, times=1):
        self.name, self.first, self.error, self.times = name, first, error, times

    def __str__(self):
        what = "short" if self.error == SHORT else errno.errorcode[self.error]
        span = f"{self.first}" if self.times == 1 else f"{self.first} to {self.first + self.times - 1}"
        return f"{self.name} {span}: {what}"


class State:
    """The shared state of one daemon. Start the daemon with `environment`."""

    def __init__(self, directory, name="state", libraries=("dispatch", "allocations")):
        self.path = os.path.join(directory, name)
        size = ctypes.sizeof(_Shared)
        with open(self.path, "wb") as file:
            file.truncate(size)
        with open(self.path, "r+b") as file:
            self.memory = mmap.mmap(file.fileno(), size)
        self.shared = _Shared.from_buffer(self.memory)
        self.role = 0
        where = os.environ["VERIFY_LIBRARIES"]
        preload = ":".join(f"{where}/verify_{library}.so" for library in libraries)
        self.environment = {"LD_PRELOAD": preload, "VERIFY_STATE": self.path}
        self.disarm()

    def close(self):
        self.shared = self.memory = None  # unmapped with the last reference
        os.unlink(self.path)

    @property
    def process(self):
        return self.shared.processes[self.role]

    def watch(self, role):
        """Applies plans and counts to the started process (0) or its child (1) from now on."""
        self.role = self.shared.role = role

    def clear_counts(self):
        for process in self.shared.processes:
            ctypes.memset(process.calls, 0, ctypes.sizeof(process.calls))
            process.hits = process.allocations = process.allocation_hits = 0

    def arm(self, failures=(), first_allocation=0, failing_allocations=0):
        """Starts to count and to inject the given failures."""
        self.disarm()
        self.clear_counts()
        for plan, failure in zip(self.shared.plans, failures):
            plan.first, plan.times, plan.error = failure.first, failure.times, failure.error
            plan.call = NUMBERS[failure.name]
        self.shared.first_allocation = first_allocation
        self.shared.failing_allocations = failing_allocations
        self.shared.counting = 1

    def disarm(self):
        self.pause()
        for plan in self.shared.plans:
            plan.call, plan.hits = -1, 0
        self.shared.first_allocation = 0

    def pause(self):
        """Stops counting and injecting. The results stay available."""
        self.shared.counting = 0

    def hit(self, failures):
        """The given failures that were injected. @p failures are those of `arm`."""
        return [failure for plan, failure in zip(self.shared.plans, failures) if plan.hits]

    def trace(self, pausing=False):
        """Starts to record the calls that change files. With @p pausing stops before each of them."""
        shared = self.shared
        shared.trace_used = shared.stopped = shared.resumed = 0
        shared.pausing, shared.tracing = int(pausing), 1

    def end_trace(self):
        """Call it when the daemon has made its calls, because a record comes after its effect."""
        assert self.shared.tracing, "the trace is full"
        self.shared.pausing = self.shared.tracing = 0

    def records(self):
        """The traced calls, as (name, arguments, result, first bytes, second bytes)."""
        data = bytes(self.shared.trace[:self.shared.trace_used])
        at = 0
        while at < len(data):
            call, _, *arguments, result, first, second = struct.unpack_from("<II4qqQQ", data, at)
            at += struct.calcsize("<II4qqQQ")
            yield (NAMES[call], arguments, result, data[at:at + first],
                   data[at + first:at + first + second])
            at += (first + second + 7) & ~7

    def counts(self):
        """The number of calls of each kind since `arm`, by name."""
        return {NAMES.get(number, f"call {number}"): count
                for number, count in enumerate(self.process.calls) if count}


# Checks the layout of the structure that is most likely to differ.
assert struct.calcsize("iIIiI") == ctypes.sizeof(Plan)
