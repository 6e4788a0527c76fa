# SPDX-License-Identifier: Apache-2.0
"""The steps of scripts/trial. Runs only in isolated namespaces."""
import argparse
import contextlib
import dataclasses
import hashlib
import os
import pty
import re
import resource
import select
import signal
import subprocess
import sys
import tempfile
import time

from compare_devices import Devices

MOST = 300  # seconds for one command: a longer one hangs
SHOWN = 14  # lines of an output that are printed
MEMORY = 300 * 1000 * 1000  # bytes that runelctl may use
HANGING, OFF = 7, 11  # devices
PROGRAM = "i=1; while [ $i -le 10 ]; do echo line $i; sleep 1; i=$((i+1)); done"
HOSTILE = [b"\x1b[31mred", b"over\rwritten", b"two\nlines", b" blank ", b"-rf", b"$(reboot)", b"\xff\xfe",
           b"'quoted'", b"back\\slash", b"\xe2\x80\xaeright to left"]


@dataclasses.dataclass
class Run:
    """A finished command."""
    status: int
    out: bytes
    err: bytes
    seconds: float
    arrivals: list  # (seconds since the start, standard output so far in bytes)

    @property
    def text(self):
        return self.out.decode(errors="backslashreplace")

    @property
    def messages(self):
        return self.err.decode(errors="backslashreplace").splitlines()


def fail(what, run=None):
    if run is not None:
        what += f"\nstatus {run.status}\n{run.text[-3000:]}\n" + "\n".join(run.messages[-40:])
    sys.exit(f"trial: {what}")


def expect(right, what, run=None):
    if not right:
        fail(f"expected: {what}", run)
    print(f"    [right] {what}", flush=True)


def show(data):
    lines = data.decode(errors="backslashreplace").splitlines()
    for line in lines[:SHOWN]:
        print(f"    {line[:150]}")
    if len(lines) > SHOWN:
        print(f"    ... {len(lines) - SHOWN} more lines")
    sys.stdout.flush()


class Started:
    """A command that runs. Collects its output."""

    def __init__(self, words, environment, stdout=None, stderr=None):
        self.begin = time.monotonic()
        self.process = subprocess.Popen(words, env=environment, stdin=subprocess.DEVNULL,
                                        stdout=stdout or subprocess.PIPE,
                                        stderr=stderr or subprocess.PIPE,
                                        start_new_session=True)
        self.parts = {pipe: bytearray() for pipe in (self.process.stdout, self.process.stderr) if pipe}
        self.arrivals = []

    def read(self, done=lambda out, err: False):
        """Reads until @p done of both outputs, or their end. True if @p done."""
        while True:
            out, err = (bytes(self.parts.get(pipe, b""))
                        for pipe in (self.process.stdout, self.process.stderr))
            if done(out, err):
                return True
            ways = [pipe for pipe in self.parts if not pipe.closed]
            if not ways:
                return False
            if time.monotonic() - self.begin > MOST:
                self.process.kill()
                fail(f"{self.process.args} takes more than {MOST} s")
            for pipe in select.select(ways, [], [], 1)[0]:
                part = os.read(pipe.fileno(), 1 << 20)
                self.parts[pipe] += part
                if pipe is self.process.stdout:
                    self.arrivals.append((time.monotonic() - self.begin, len(self.parts[pipe])))
                if not part:
                    pipe.close()

    def signal(self, number):
        self.process.send_signal(number)

    def end(self):
        self.read()
        status = self.process.wait(MOST)
        out, err = (bytes(self.parts.get(pipe, b""))
                    for pipe in (self.process.stdout, self.process.stderr))
        return Run(status, out, err, time.monotonic() - self.begin, self.arrivals)


class Trial:
    def __init__(self, options):
        self.ctl = os.path.join(options.binaries, "runelctl")
        self.daemon = os.path.join(options.binaries, "runeld")
        self.count = options.devices
        self.directory = tempfile.mkdtemp()
        self.names = [f"gw-{number + 1:02}" for number in range(self.count)]
        self.list = os.path.join(self.directory, "devices")
        self.devices = None
        clean = {name: value for name, value in os.environ.items() if not name.startswith("RUNELCTL")}
        self.environment = {**clean, "HOME": self.directory, "XDG_RUNTIME_DIR": self.directory,
                            "LC_ALL": "C.UTF-8", "TERM": "xterm"}

    def path(self, name):
        return os.path.join(self.directory, name)

    def title(self, text):
        print(f"\n== {text}", flush=True)

    def start(self, *words, **streams):
        print("\n  $ runelctl " + " ".join(repr(word) if re.search(r"[^\w./:=,@+-]", word) else word
                                           for word in words).replace(self.directory + "/", ""), flush=True)
        return Started([self.ctl, *words], self.environment, **streams)

    def run(self, *words, stdout=None):
        run = self.start(*words, stdout=stdout).end()
        show(run.out)
        show(run.err)
        print(f"    (status {run.status}, {run.seconds:.1f} s)", flush=True)
        return run

    def on_terminal(self, *words):
        """A run on a terminal, which gets both outputs."""
        master, slave = pty.openpty()
        started = self.start(*words, stdout=slave, stderr=slave)
        os.close(slave)
        shown = b""
        with contextlib.suppress(OSError):
            while part := os.read(master, 65536):
                shown += part
        os.close(master)
        run = started.end()
        run.out = shown
        # Each state of the status line is a line here.
        show(re.sub(rb"(\r\n|\r\x1b\[K)+", b"\n", shown).lstrip(b"\n"))
        return run

    def steps(self):
        self.waves()
        self.sees_output()
        self.interrupt()
        self.broken_pipe()
        self.hostile_names()
        self.memory()
        self.hangs()
        self.is_off()

    def waves(self):
        self.title(f"a push to {self.count} devices in waves")
        with open(self.path("image"), "wb") as file:
            file.write(os.urandom(1 << 20))
        with open(self.path("image"), "rb") as file:
            wanted = hashlib.sha256(file.read()).digest()
        waves = ("--devices", self.list, "--wave", "1,10%,rest", "push", self.path("image"))
        run = self.run(*waves, "/run/image")
        expect(run.status == 0, "status 0", run)
        for copy in self.devices.paths("/run/image"):
            with open(copy, "rb") as file:
                if hashlib.sha256(file.read()).digest() != wanted:
                    fail(f"{copy} differs")
        print(f"    [right] {self.count} identical copies")
        run = self.run(*waves, "/none/image")
        expect(run.status == 1, "status 1", run)
        expect("runelctl: gw-01: /none/image: No such file or directory" in run.messages,
               "the failed device is named", run)
        expect(f"{self.count - 1} skipped" in run.messages[-1], "the others are not started", run)

    def sees_output(self):
        self.title("the output of a program that writes for 10 s")
        run = self.run("--devices", self.list, "--prefix", "sh", "--stream", PROGRAM)
        expect(run.status == 0, "status 0", run)
        lines = run.text.splitlines()
        for name in self.names:
            mine = [line.split(": ", 1)[1] for line in lines if line.startswith(name + ": ")]
            if mine != [f"line {number}" for number in range(1, 11)]:
                fail(f"the lines of {name}: {mine}", run)
        print(f"    [right] 10 lines in order from each of {self.count} devices")
        early = [size for at, size in run.arrivals if at < run.seconds - 5]
        expect(early and early[-1] > 0, "the first lines are printed 5 s before the end", run)

    def interrupt(self):
        self.title("Ctrl-C while programs run")
        started = self.start("--devices", self.list, "sh", "--stream", "echo begun; exec sleep 1000")
        time.sleep(3)
        started.signal(signal.SIGINT)
        run = started.end()
        show(run.err)
        expect(run.status == 130, "status 130", run)
        run = self.run("--devices", self.list, "sh", "ps x | grep -c '[s]leep 1000' || true")
        expect(run.status == 0 and re.findall(r"^\d+$", run.text, re.M) == ["0"],
               "--stream: the programs have ended on all devices", run)
        started = self.start("--devices", self.list, "--timeout", "20", "sh", "exec sleep 1000")
        time.sleep(3)
        started.signal(signal.SIGINT)
        run = started.end()
        show(run.err)
        expect(run.status == 130 and "continues on the device" in " ".join(run.messages),
               "without --stream: a message tells that the programs continue, and how long", run)
        run = self.run("--devices", self.list, "fileexists", "/run/image")
        expect(run.status == 0, "the devices serve again after the limit of 20 s", run)

    def broken_pipe(self):
        self.title("a reader that leaves")
        reading, writing = os.pipe()
        started = self.start("--devices", self.list, "--prefix", "sh", "--stream",
                             "while :; do echo more; sleep 0.1; done", stdout=writing)
        os.close(writing)
        head = os.read(reading, 65536)
        os.close(reading)
        run = started.end()
        show(head[:200])
        print(f"    (status {run.status}, {run.seconds:.1f} s)", flush=True)
        expect(run.status in (-signal.SIGPIPE, 128 + signal.SIGPIPE, 1), "it ends", run)
        run = self.run("--devices", self.list, "fileexists", "/run/image")
        expect(run.status == 0, "all devices serve", run)

    def hostile_names(self):
        self.title("hostile file names")
        place = self.devices.paths("/run/names")[0].encode()
        os.mkdir(place)
        for name in HOSTILE:
            with open(os.path.join(place, name), "wb") as file:
                file.write(name)
        one = self.devices.addresses[0]
        run = self.on_terminal("-q", "-d", one, "ls", "-l", "/run/names")
        expect(not re.search(rb"[\x00-\x09\x0b\x0c\x0e-\x1f\x7f]|\r[^\n]", run.out),
               "no byte of a name acts on the terminal", run)
        run = self.run("-d", one, "pull", "-r", "/run/names", self.path("back/"))
        expect(run.status == 0, "status 0", run)
        back = self.path("back/names").encode()
        expect(sorted(os.listdir(back)) == sorted(HOSTILE), "all names arrive unchanged", run)
        for name in HOSTILE:
            with open(os.path.join(back, name), "rb") as file:
                if file.read() != name:
                    fail(f"the content of {name!r}")
        run = self.run("--devices", self.list, "push", "-r", self.path("back/names"), "/run/copy")
        expect(run.status == 0, "status 0", run)
        for copy in self.devices.paths("/run/copy"):
            if sorted(os.listdir(copy.encode())) != sorted(HOSTILE):
                fail(f"the names below {copy}")
        print(f"    [right] {self.count} devices have the {len(HOSTILE)} files")

    def memory(self):
        self.title(f"{self.count} outputs of 16 MB")
        program = "head -c 16000000 /dev/zero | tr '\\0' x; ip -4 address show eth0"
        words = ["--devices", self.list, "-j", str(self.count), "sh", program]
        with open(self.path("outputs"), "wb") as file:
            print("\n  $ runelctl " + " ".join(words[2:]) + " > outputs", flush=True)
            pid = os.posix_spawn(self.ctl, [self.ctl, *words], self.environment,
                                 file_actions=[(os.POSIX_SPAWN_DUP2, file.fileno(), 1)])
            _, status, used = os.wait4(pid, 0)
        size = os.path.getsize(self.path("outputs"))
        print(f"    (status {os.waitstatus_to_exitcode(status)}, {size} bytes, "
              f"{used.ru_maxrss / 1000:.0f} MB of memory)")
        expect(status == 0, "status 0")
        expect(size > self.count * 16000000, "all outputs are complete")
        expect(used.ru_maxrss * 1024 <= MEMORY, f"at most {MEMORY // 1000000} MB of memory")
        os.unlink(self.path("outputs"))

    def hangs(self):
        self.title("one device hangs")
        os.kill(self.devices.daemon(HANGING), signal.SIGSTOP)
        name = self.names[HANGING]
        started = self.start("--devices", self.list, "--deadline", "30", "sh", "uname -s")
        seen = started.read(lambda out, err: b"Linux" in out)
        at = time.monotonic() - started.begin
        run = started.end()
        show(run.out)
        show(run.err)
        print(f"    (status {run.status}, {run.seconds:.1f} s)", flush=True)
        expect(seen and at < run.seconds / 2,
               f"the others' output is printed meanwhile (after {at:.1f} s of {run.seconds:.1f} s)", run)
        expect(run.status != 0 and any(line.startswith(f"runelctl: {name}: ") for line in run.messages),
               "the device that hangs is named", run)
        run = self.on_terminal("--devices", self.list, "--deadline", "15", "hostid")
        expect(re.search(rf"awaiting {name} \(busy for \d+ s\)".encode(), run.out) is not None,
               "the status line names the device that is awaited", run)
        os.kill(self.devices.daemon(HANGING), signal.SIGCONT)

    def is_off(self):
        self.title("one device is off")
        self.devices.disconnect(OFF)
        name = self.names[OFF]
        run = self.run("--devices", self.list, "--connect-timeout", "5", "sh", "uname -s")
        expect(run.status == 255, "status 255", run)
        expect(f"{self.count - 1} ok" in run.messages[-1] and "1 unreachable" in run.messages[-1],
               "the summary counts it", run)
        expect(any(line.startswith(f"runelctl: {name}: ") for line in run.messages), "it is named", run)
        left = self.path("again")
        run = self.run("--devices", self.list, "--connect-timeout", "5", "--retry-failed", left,
                       "fileexists", "/")
        with open(left, encoding="utf-8") as file:
            expect(re.findall(r"gw-\d+", file.read()) == [name], "--retry-failed stores it", run)

    def go(self):
        with Devices(self.count, self.daemon) as devices:
            self.devices = devices
            with open(self.list, "w", encoding="utf-8") as file:
                file.writelines(f"{name} {address}\n"
                                for name, address in zip(self.names, devices.addresses))
            begin = time.monotonic()
            self.steps()
            print(f"\ntrial: all steps as expected, {self.count} devices, {time.monotonic() - begin:.0f} s")


def main():
    parser = argparse.ArgumentParser(prog="scripts/trial")
    parser.add_argument("--binaries", required=True)
    parser.add_argument("--devices", type=int, default=50)
    options = parser.parse_args()
    if options.devices < 12:
        parser.error("--devices: 12 or more")
    resource.setrlimit(resource.RLIMIT_NOFILE, (4096, 4096))
    Trial(options).go()


if __name__ == "__main__":
    main()
