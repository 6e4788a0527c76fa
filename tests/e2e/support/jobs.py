# SPDX-License-Identifier: Apache-2.0
"""Jobs on a real daemon, seen through runelctl and through the files of the device."""
import contextlib
import os
import select
import shutil
import signal
import subprocess
import time

from support import world
from support.ctl import CtlCase
from support.wait import TIMEOUT, wait_until

JOBS = "/var/lib/runel/jobs"
BOOT_ID = "/proc/sys/kernel/random/boot_id"


def alive(pid):
    """Whether the process exists and has not ended."""
    with contextlib.suppress(FileNotFoundError, ProcessLookupError):
        with open(f"/proc/{pid}/stat", encoding="latin-1") as about:
            return about.read().rpartition(")")[2].split()[0] not in "ZX"
    return False


class Running:
    """A running runelctl, whose output is read while it comes."""

    def __init__(self, process):
        self.process = process
        self.out = b""
        self.err = b""

    def _take(self, timeout):
        streams = [stream for stream in (self.process.stdout, self.process.stderr)
                   if stream and not stream.closed]
        for stream in select.select(streams, [], [], timeout)[0]:
            part = os.read(stream.fileno(), 65536)
            if not part:
                stream.close()
            elif stream is self.process.stdout:
                self.out += part
            else:
                self.err += part
        return streams

    def wait_for(self, condition, what):
        """Reads until @p condition of this object is true."""
        deadline = time.monotonic() + TIMEOUT
        while not condition(self):
            assert time.monotonic() < deadline, f"{what}: {self.out[-200:]!r} {self.err[-500:]!r}"
            if not self._take(1.0) and not condition(self):
                raise AssertionError(f"{what}: ended with {self.out[-200:]!r} {self.err[-500:]!r}")

    def wait_out(self, text):
        self.wait_for(lambda run: text in run.out, f"{text!r} on standard output")

    def wait_err(self, text):
        self.wait_for(lambda run: text in run.err, f"{text!r} on standard error")

    def interrupt(self, number=signal.SIGINT):
        self.process.send_signal(number)

    def finish(self):
        """Reads to the end. Returns the exit status."""
        deadline = time.monotonic() + TIMEOUT
        while self._take(1.0):
            assert time.monotonic() < deadline, f"does not end: {self.out[-200:]!r}"
        return self.process.wait(TIMEOUT)


class JobCase(CtlCase):
    """A daemon, and no jobs at first."""

    def setUp(self):
        super().setUp()
        shutil.rmtree("/var/lib/runel", ignore_errors=True)
        self.device = self.start_device()

    def start_device(self):
        return self.daemon()

    def begin(self, *words, **options) -> Running:
        """Starts runelctl."""
        return Running(self.start(*words, **options))

    def fifo(self, name):
        """A FIFO that holds a program: `cat` of it ends when the test opens it (see `open_fifo`)."""
        os.mkfifo(self.path(name))
        return self.path(name)

    def open_fifo(self, name):
        """Lets the program that reads the FIFO continue."""
        with open(self.path(name), "wb"):
            pass

    def start_job(self, *words, options=()):
        """Starts a job. Returns its ID."""
        return self.succeed("job", "start", *options, "--", *words).text.strip()

    def files_of(self, job):
        return os.path.join(JOBS, job)

    def read_job(self, job, name):
        with open(os.path.join(JOBS, job, name), encoding="latin-1") as file:
            return file.read()

    def wait_ended(self, job):
        wait_until(lambda: os.path.exists(os.path.join(JOBS, job, "status")), f"{job} ends")

    def states(self, *options):
        """The states of all jobs, by ID."""
        objects = self.succeed("--json", "job", "list", *options).objects
        return {one["job"]: one["state"] for one in objects if one.get("entry") == "job"}

    def wrapper_of(self, job):
        """The process number of the job's wrapper."""
        return int(self.read_job(job, "started").split()[1])

    @contextlib.contextmanager
    def rebooted(self):
        """Meanwhile the device has another boot id. Its processes continue, unlike in a real reboot."""
        other = self.file("boot_id", b"00000000-0000-4000-8000-000000000000\n")
        world.mount("--bind", other, BOOT_ID)
        try:
            yield
        finally:
            world.unmount(BOOT_ID)

    def as_shell(self, binary):
        """Makes @p binary the device's /bin/sh."""
        shell = os.path.realpath("/bin/sh")
        world.mount("--bind", binary, shell)
        self.addCleanup(world.unmount, shell)

    def busybox_path(self):
        """A PATH in which all utilities are those of busybox."""
        directory = self.path("busybox-bin")
        os.mkdir(directory)
        subprocess.run(["busybox", "--install", "-s", directory], check=True)
        return directory
