# SPDX-License-Identifier: Apache-2.0
"""The measurements of scripts/compare-runelctl. Runs only in isolated namespaces."""
import argparse
import itertools
import os
import random
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

from compare_devices import Devices, silent_master, wait_for_port

sys.path.append(os.path.join(os.path.dirname(__file__), "..", "tests", "e2e"))
from support.thin_line import ThinLine

PARTS = ("memory", "disk", "commands", "devices", "thin")
MIB = 1 << 20
THIN_RATE, THIN_DELAY = 10_000_000 / 8, 0.02  # 10 Mbit/s, 20 ms in each direction
MOST = 900  # seconds for one call of a tool: a longer call hangs
URL = "rsync://127.0.0.1/all"


def run(*words, **options):
    if "input" not in options:
        options["stdin"] = subprocess.DEVNULL
    done = subprocess.run(words, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False,
                          timeout=MOST, **options)
    if done.returncode:
        text = done.stdout.decode(errors="replace")[-2000:]
        sys.exit(f"{words}: status {done.returncode}\n{text}")
    return done.stdout


def contents(path):
    """The modes, times and contents in which a copy of @p path must agree with it."""
    found = {}
    for place, directories, files in os.walk(path):
        for name in (*directories, *files):
            full = os.path.join(place, name)
            about = os.lstat(full)
            data = b"" if name in directories else open(full, "rb").read()
            found[os.path.relpath(full, path)] = (about.st_mode, about.st_mtime_ns, data)
    if not os.path.isdir(path):
        found[""] = (os.stat(path).st_mtime_ns, open(path, "rb").read())
    return found


def log_lines(size):
    """@p size bytes of text like that of a log: the same words again and again, and new numbers.

    It repeats after 8 MiB, which is further than a compressor looks.
    """
    data = random.Random(3)
    words = ["".join(data.choices("etaoinshrdlucmfwypvbgkjqxz", range(26, 0, -1),
                                  k=data.randrange(2, 11))) for _ in range(5000)]
    often = list(itertools.accumulate(1 / rank for rank in range(1, len(words) + 1)))
    lines, length, clock = [], 0, 1.7e9
    while length < 8 * MIB:
        clock += data.expovariate(2)
        when = f"{time.strftime('%F %T', time.gmtime(clock))}.{int(clock * 1000) % 1000:03}"
        said = " ".join(data.choices(words, cum_weights=often, k=data.randrange(3, 13)))
        lines.append(f"{when} host unit[{data.randrange(30000)}]: {said}\n")
        length += len(lines[-1])
    text = "".join(lines).encode()[:8 * MIB]
    return (text * (size // len(text) + 1))[:size]


def expect(right, what):
    if not right:
        sys.exit(f"{what}: wrong result")


class Table:
    """Runs the tools of each row in turn, round by round, so that all see the same machine load."""

    def __init__(self, rounds, limit):
        self.rounds, self.limit = rounds, limit
        self.loads = [os.getloadavg()[0]]
        print("| what | by | median | from, to | rounds | beside runelctl |\n"
              "|---|---|---|---|---|---|", flush=True)

    def row(self, title, rivals, prepare=lambda: None, check=lambda name, result: None):
        """Measures a row. @p rivals: names and functions, ours first. @p check checks each result."""
        times = {name: [] for name, _ in rivals}
        end = time.monotonic() + self.limit
        done = 0
        while done == 0 or (done < self.rounds and time.monotonic() < end):
            for name, work in rivals:
                prepare()
                begin = time.monotonic()
                result = work()
                times[name].append(time.monotonic() - begin)
                check(f"{title}, {name}", result)
            done += 1
        self.loads.append(os.getloadavg()[0])
        ours = times[rivals[0][0]]
        for name, values in times.items():
            # The median of the ratios per round, because other load affects both tools of a round.
            ratio = statistics.median(theirs / mine for theirs, mine in zip(values, ours))
            print(f"| {title} | {name} | {statistics.median(values):.3f} s | {min(values):.3f} to "
                  f"{max(values):.3f} | {done} | {ratio:.2f} |", flush=True)


class Bench:
    def __init__(self, options):
        self.ctl = os.path.join(options.binaries, "runelctl")
        self.daemon = os.path.join(options.binaries, "runeld")
        # Not below /run, because each device has a private /run.
        self.directory = tempfile.mkdtemp(dir="/dev/shm")
        self.options = options
        self.master = silent_master("127.0.0.1")
        self.keys()
        self.discard_log(options.binaries)
        self.table = Table(options.rounds, options.limit)

    def discard_log(self, binaries):
        """Starts a reader of the log, with the queue length of a machine that runs systemd."""
        with open("/proc/sys/net/unix/max_dgram_qlen", "w", encoding="ascii") as length:
            length.write("512")
        subprocess.Popen([os.path.join(binaries, "bench_log")], start_new_session=True)
        while not os.path.exists("/dev/log"):
            time.sleep(0.01)

    def path(self, name):
        return os.path.join(self.directory, name)

    def keys(self):
        for name in ("host", "user"):
            run("ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", self.path(name))
        shutil.copy(self.path("user.pub"), self.path("authorized"))
        with open(self.path("sshd_config"), "w", encoding="utf-8") as config:
            config.write(f"HostKey {self.path('host')}\n"
                         f"AuthorizedKeysFile {self.path('authorized')}\n"
                         "Port 22\nPidFile none\nStrictModes no\nUsePAM no\nPermitRootLogin yes\n"
                         "MaxStartups 1000\nMaxSessions 1000\nUseDNS no\n"
                         "Subsystem sftp internal-sftp\n")
        with open(self.path("ssh_config"), "w", encoding="utf-8") as config:
            config.write(f"IdentityFile {self.path('user')}\nStrictHostKeyChecking no\n"
                         "UserKnownHostsFile /dev/null\nLogLevel ERROR\nUser root\n")
        os.makedirs("/run/sshd", exist_ok=True)
        # Changes the isolated /etc/passwd: the login programs of the machine's root are not measured.
        with open("/etc/passwd", encoding="utf-8") as passwd:
            lines = [f"root:x:0:0::{self.directory}:/bin/sh\n" if line.startswith("root:") else line
                     for line in passwd]
        with open("/etc/passwd", "w", encoding="utf-8") as passwd:
            passwd.writelines(lines)

    def serve(self):
        """Starts one device in these namespaces, as its service does."""
        subprocess.Popen([self.daemon, "-n"], cwd="/", stdin=subprocess.DEVNULL,
                         stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                         start_new_session=True)
        subprocess.Popen(["/usr/sbin/sshd", "-D", "-f", self.path("sshd_config")],
                         stderr=subprocess.DEVNULL, start_new_session=True)
        with open(self.path("rsyncd.conf"), "w", encoding="utf-8") as config:
            config.write("use chroot = no\nuid = 0\ngid = 0\n[all]\npath = /\nread only = no\n")
        subprocess.Popen(["rsync", "--daemon", "--no-detach", "--port=873",
                          f"--config={self.path('rsyncd.conf')}"], start_new_session=True)
        for port in (5111, 22, 873):
            wait_for_port("127.0.0.1", port, time.monotonic() + 60)

    def memory(self):
        self.files("in memory", self.path("memory"))

    def disk(self):
        self.files("on a disk", os.path.join(self.options.disk, "disk"))

    def files(self, where, work):
        source, there = os.path.join(work, "source"), os.path.join(work, "there")
        big, tree = os.path.join(source, "big"), os.path.join(source, "tree")
        os.makedirs(tree)
        data = random.Random(1)
        with open(big, "wb") as file:
            file.write(data.randbytes(64 * MIB))
        for number in range(2000):
            directory = os.path.join(tree, f"d{number % 40}")
            os.makedirs(directory, exist_ok=True)
            with open(os.path.join(directory, f"f{number}"), "wb") as file:
                file.write(data.randbytes(data.randrange(8192)))

        def clean():
            shutil.rmtree(there, ignore_errors=True)
            os.mkdir(there)
            os.sync()

        def arrived(original):
            wanted = contents(original)
            copy = os.path.join(there, os.path.basename(original))
            return lambda name, _: expect(contents(copy) == wanted, name)

        def pair(ours, theirs):
            return [("runelctl", lambda: run(self.ctl, *ours)),
                    ("rsync", lambda: run("rsync", "-a", *theirs))]

        def pushes(ours, theirs):
            # On a disk also with --fsync, because runelctl syncs each file before its rename.
            synced = [("rsync --fsync", lambda: run("rsync", "-a", "--fsync", *theirs))]
            return pair(ours, theirs) + (synced if "disk" in where else [])

        row = self.table.row
        row(f"push 64 MiB, {where}", pushes(["push", big, there + "/"], [big, URL + there + "/"]),
            clean, arrived(big))
        row(f"pull 64 MiB, {where}", pair(["pull", big, there + "/"], [URL + big, there + "/"]),
            clean, arrived(big))
        row(f"push 2,000 files, {where}",
            pushes(["push", "-r", tree, there + "/"], [tree, URL + there + "/"]), clean,
            arrived(tree))
        row(f"pull 2,000 files, {where}",
            pair(["pull", "-r", tree, there + "/"], [URL + tree, there + "/"]), clean,
            arrived(tree))
        run(self.ctl, "sync", tree, there + "/tree")
        row(f"sync of 2,000 identical files, {where}",
            pair(["sync", tree, there + "/tree"], [tree + "/", URL + there + "/tree"]),
            check=arrived(tree))
        shutil.rmtree(work)

    def thin(self):
        """Thin lines: both tools through the same kind of relay."""
        work = self.path("thin")
        os.mkdir(work)
        lines = [ThinLine(THIN_RATE, THIN_DELAY, 7111, 5111),
                 ThinLine(THIN_RATE, THIN_DELAY, 7873, 873)]
        self.differences(work)
        self.text(work)
        for line in lines:
            line.close()
        shutil.rmtree(work)

    def differences(self, work):
        data = random.Random(2)
        old = data.randbytes(64 * MIB)
        begin, changed = 30 * MIB + 12345, len(old) // 50
        scattered = bytearray(old)
        for _ in range(50):
            at = data.randrange(len(old) - 100)
            scattered[at:at + 100] = data.randbytes(100)
        images = {
            "2 % changed in one place": old[:begin] + data.randbytes(changed) + old[begin + changed:],
            "1,000 bytes inserted at the front": data.randbytes(1000) + old,
            "50 scattered changes": bytes(scattered)}
        here, there = os.path.join(work, "image"), os.path.join(work, "target")

        def restore():
            with open(there, "wb") as file:
                file.write(old)
            os.utime(there, (1, 1))

        for what, new in images.items():
            with open(here, "wb") as file:
                file.write(new)
            self.table.row(f"push of differences, 64 MiB, {what}, 10 Mbit/s, 20 ms", [
                ("runelctl --delta", lambda: run(self.ctl, "-d", "127.0.0.1:7111", "push", "--delta",
                                                 here, there)),
                ("rsync", lambda: run("rsync", "-a", here, f"rsync://127.0.0.1:7873/all{there}"))],
                restore, lambda name, _: expect(contents(there) == contents(here), name))

    def text(self, work):
        here, there = os.path.join(work, "log"), os.path.join(work, "copy")
        with open(here, "wb") as file:
            file.write(log_lines(64 * MIB))
        url = f"rsync://127.0.0.1:7873/all{there}"
        self.table.row("push of 64 MiB of text, 10 Mbit/s, 20 ms", [
            ("runelctl -z", lambda: run(self.ctl, "-d", "127.0.0.1:7111", "push", "-z", here, there)),
            ("rsync -z", lambda: run("rsync", "-az", here, url)),
            ("rsync -z, zlib", lambda: run("rsync", "-az", "--compress-choice=zlib", here, url))],
            lambda: os.path.exists(there) and os.unlink(there),
            lambda name, _: expect(contents(there) == contents(here), name))

    def commands(self):
        control = self.path("control")
        ssh = ["ssh", "-F", self.path("ssh_config"), "-S", control]
        master = subprocess.Popen([*ssh, "-M", "-N", "127.0.0.1"], stdin=subprocess.DEVNULL,
                                  start_new_session=True)
        while not os.path.exists(control):
            time.sleep(0.01)
        command = ["/bin/echo", "ran"]

        def each(count, *words):
            return lambda: b"".join(run(*words, *command) for _ in range(count))

        def all_ran(count):
            return lambda name, result: expect(result.count(b"ran\n") == count, name)

        count = self.options.commands
        lines = ("exec -- " + " ".join(command) + "\n").encode() * count
        self.table.row(f"{count} commands on one connection", [
            ("runelctl shell", lambda: run(self.ctl, "shell", input=lines)),
            ("ssh, kept connection", each(count, *ssh, "127.0.0.1"))], check=all_ran(count))
        count //= 10
        self.table.row(f"{count} commands, one process per command", [
            ("runelctl, one connection per command", each(count, self.ctl, "exec", "--")),
            ("ssh, kept connection", each(count, *ssh, "127.0.0.1"))], check=all_ran(count))
        master.terminate()
        master.wait()

    def devices(self):
        count = self.options.devices
        begin = time.monotonic()
        with Devices(count, self.daemon, self.path("sshd_config")) as devices:
            print(f"{count} devices serve after {time.monotonic() - begin:.0f} s",
                  file=sys.stderr, flush=True)
            names = self.path("list")
            with open(names, "w", encoding="utf-8") as lines:
                lines.write("".join(address + "\n" for address in devices.addresses))
            self.run_on_all(count, names)
            self.push_to_all(count, names, devices)

    def run_on_all(self, count, names):
        ssh = f"-F {self.path('ssh_config')}"
        environment = {**os.environ, "PDSH_SSH_ARGS_APPEND": ssh}
        command = ["uname", "-r"]
        answer = os.uname().release.encode()
        self.table.row(f"one command on {count} devices, 64 in parallel", [
            ("runelctl",
             lambda: run(self.ctl, "--devices", names, "--prefix", "exec", "--", *command)),
            ("pdsh with ssh",
             lambda: run("pdsh", "-R", "ssh", "-f", "64", "-w", "^" + names, *command,
                         env=environment)),
            ("parallel with ssh",
             lambda: run("parallel", "-j", "64", "-a", names, f"ssh {ssh} {{}} uname -r"))],
            check=lambda name, result: expect(result.count(answer) == count, name))

    def push_to_all(self, count, names, devices):
        ssh = f"-F {self.path('ssh_config')}"
        file = self.path("script")
        with open(file, "wb") as script:
            script.write(b"#!/bin/sh\nuname -r\n" + b"# padding\n" * 10000)
        copies = devices.paths("/run/script")

        def clean():
            for copy in copies:
                if os.path.exists(copy):
                    os.unlink(copy)

        def arrived(name, _):
            expect(all(open(copy, "rb").read() == open(file, "rb").read() for copy in copies), name)

        self.table.row(f"one file of 100 kB to {count} devices, 64 in parallel", [
            ("runelctl", lambda: run(self.ctl, "--devices", names, "push", file, "/run/")),
            ("parallel with scp",
             lambda: run("parallel", "-j", "64", "-a", names, f"scp -q {ssh} {file} {{}}:/run/"))],
            clean, arrived)


def scan_options():
    parser = argparse.ArgumentParser(prog="scripts/compare-runelctl")
    parser.add_argument("--binaries", required=True, help=argparse.SUPPRESS)
    parser.add_argument("--disk", required=True, help=argparse.SUPPRESS)
    parser.add_argument("--only", default=",".join(PARTS), metavar="PART[,PART...]",
                        help="parts to measure, of " + ", ".join(PARTS) + " (default: all)")
    parser.add_argument("--rounds", type=int, default=5, metavar="N",
                        help="rounds per row (default: 5)")
    parser.add_argument("--limit", type=float, default=300, metavar="SECONDS",
                        help="start no further round of a row after SECONDS (default: 300)")
    parser.add_argument("--commands", type=int, default=1000, metavar="N",
                        help="commands on one connection (default: 1000)")
    parser.add_argument("--devices", type=int, default=200, metavar="N",
                        help="number of devices (default: 200)")
    options = parser.parse_args()
    options.only = options.only.split(",")
    if not set(options.only) <= set(PARTS):
        parser.error("--only accepts the parts " + ", ".join(PARTS))
    return options


def main():
    if os.environ.get("RUNELD_WORLD") != "1":
        sys.exit("compare-runelctl: runs only in isolated namespaces: use scripts/compare-runelctl")
    options = scan_options()
    bench = Bench(options)
    if set(options.only) - {"devices"}:
        bench.serve()
    for part in options.only:
        getattr(bench, part)()
    print(f"\n{os.cpu_count()} processors, load {min(bench.table.loads):.1f} to "
          f"{max(bench.table.loads):.1f}, at most {options.rounds} rounds")


main()
