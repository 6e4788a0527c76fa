# SPDX-License-Identifier: Apache-2.0
"""Complete runs of runelctl against a real daemon, and the states that each may leave."""
import contextlib
import os
import random
import shutil
import stat
import subprocess

from harness.session import expect
from support.wait import wait_until

JOBS = "/var/lib/runel"
TIME = 1_700_000_000  # of every file, in seconds

KIB = 1024
LARGE = 4200 * KIB  # more than a piece of PIECES
PIECES = ("--memory", "16M")

# The timeout of a lost answer, far above the time of every answer. A longer run hangs.
QUICK = ("--io-timeout", "10")
LONGEST = 45


def content(seed, size):
    """Bytes that cannot be compressed."""
    return random.Random(seed).randbytes(size)


OLD = {"a.conf": b"old\n", "same": b"same\n", "sub/b": b"old b\n", "sub/gone": b"gone\n",
       "twin": b"old twin\n"}
# The same time and size, so that only a checksum tells "twin" from the old file.
NEW = {"a.conf": b"brand new\n", "same": b"same\n", "sub/b": b"new b\n", "twin": b"new twin\n",
       "sub/deep/c": b"", **{f"n{number}": content(number, 1000 * number) for number in range(10)}}


def write_tree(root, files):
    """Creates @p files, by relative path, each with the same time."""
    os.makedirs(root, exist_ok=True)
    for name, data in files.items():
        path = os.path.join(root, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as file:
            file.write(data)
        os.utime(path, (TIME, TIME))


def read_tree(root):
    """The contents of all files below @p root, by relative path."""
    found = {}
    for top, _, names in os.walk(root):
        for name in names:
            path = os.path.join(top, name)
            with open(path, "rb") as file:
                found[os.path.relpath(path, root)] = file.read()
    return found


def directories(root):
    return {os.path.relpath(os.path.join(top, name), root)
            for top, names, _ in os.walk(root) for name in names}


class Run:
    """The result of one run of runelctl."""

    def __init__(self, status, out, err):
        self.status, self.out, self.err = status, out, err


class Transfer:
    """Copies @p new from the directory "from" over @p old in "to". One of them is the device's."""

    success = 0

    def __init__(self, name, words, old, new, removes=(), keeps_part=False):
        self.name, self.words, self.old, self.new = name, words, old, new
        self.removes, self.keeps_part = removes, keeps_part

    def command(self, directory):
        return [word.format(source=f"{directory}/from", target=f"{directory}/to")
                for word in self.words]

    def prepare(self, directory):
        for name, files in (("from", self.new), ("to", self.old)):
            shutil.rmtree(os.path.join(directory, name), ignore_errors=True)
            write_tree(os.path.join(directory, name), files)

    def left_over(self, directory):
        """The unfinished files and directories below "to"."""
        root = os.path.join(directory, "to")
        return sorted(path for path in (*read_tree(root), *directories(root))
                      if os.path.basename(path).startswith(".runelctl-"))

    def check(self, directory, run, unfinished=False):
        """Checks every file of both directories. With @p unfinished, hidden files may remain."""
        expect(read_tree(f"{directory}/from") == self.new, "the source has changed")
        found = read_tree(f"{directory}/to")
        wanted = {**self.old, **self.new}
        for name, data in found.items():
            if ".runelctl-" not in name:
                expect(data in (self.old.get(name), self.new.get(name)),
                       f"{name} is neither old nor new: {data[:100]!r}, {len(data)} bytes")
        for name in wanted:
            expect(name in found or name not in self.old or name in self.removes, f"{name} is gone")
        left = self.left_over(directory)
        if run.status == self.success:
            wanted = {name: data for name, data in wanted.items() if name not in self.removes}
            differing = sorted(name for name in {*wanted, *found}
                               if wanted.get(name) != found.get(name))
            expect(not differing and not left, f"success with wrong files: {differing} {left}")
            self.check_attributes(directory)
        parts = [path for path in left if path.endswith(".part") and self.keeps_part]
        expect(parts == left or unfinished, f"left behind: {left}")

    def check_attributes(self, directory):
        for name in self.new:
            about = os.stat(f"{directory}/to/{name}")
            expect(stat.S_IMODE(about.st_mode) == 0o644 and int(about.st_mtime) == TIME,
                   f"success, but {name} has mode {about.st_mode:o} and time {about.st_mtime}")

    def clean_up(self, directory):
        pass


class ToPipe(Transfer):
    """Pulls a file to standard output."""

    def check(self, directory, run, unfinished=False):
        (data,) = self.new.values()
        expect(data.startswith(run.out) if run.status else run.out == data,
               f"{len(run.out)} of {len(data)} bytes on standard output, status {run.status}")


class Program:
    """Runs a program that writes to both streams and ends with 3."""

    success = 3
    SCRIPT = "echo to out; echo to err >&2; echo more; exit 3"
    out = b"to out\nto err\nmore\n"  # the device joins the streams

    def __init__(self, name, words):
        self.name, self.words = name, words

    def command(self, _directory):
        return [*self.words, self.SCRIPT]

    def prepare(self, _directory):
        pass

    def left_over(self, _directory):
        return []

    def check(self, _directory, run, unfinished=False):
        expect(self.out.startswith(run.out), f"wrong output: {run.out!r}")
        if run.status == self.success:
            expect(run.out == self.out, f"the program's status, but its output is {run.out!r}")
        expect(run.status != 0, "success of a program that failed")

    def clean_up(self, _directory):
        shutil.rmtree(JOBS, ignore_errors=True)


class StreamedProgram(Program):
    out = b"to out\nmore\n"

    def check(self, directory, run, unfinished=False):
        super().check(directory, run, unfinished)
        for path in directories(JOBS):
            if os.path.dirname(path) == "jobs" and not self.ends(path):
                expect(unfinished or os.path.basename(path).encode() in run.err,
                       f"{path} was left behind and not named")

    @staticmethod
    def ends(path):
        """Whether a job ends. A later start removes it if this one could not."""
        with contextlib.suppress(AssertionError):
            wait_until(lambda: os.path.exists(f"{JOBS}/{path}/status"), "the job ends", 2)
            return True
        return not os.path.exists(f"{JOBS}/{path}")


BIG_OLD = content(1, LARGE)
# Blocks of the old file in another place, and some new bytes.
BIG_CHANGED = BIG_OLD[:600 * KIB] + b"inserted" + BIG_OLD[600 * KIB:]
TEXT = b"".join(b"line %d of a file that is easy to compress\n" % number for number in range(30000))

SCENARIOS = (
    Transfer("push", ("push", "{source}/f", "{target}/f"), {"f": b"old"}, {"f": b"the new one"}),
    Transfer("push_large", (*PIECES, "push", "{source}/f", "{target}/f"), {"f": b"old"},
             {"f": content(2, LARGE)}, keeps_part=True),
    Transfer("push_without_part", (*PIECES, "push", "--no-resume", "{source}/f", "{target}/f"),
             {"f": b"old"}, {"f": content(2, LARGE)}),
    Transfer("push_compressed", (*PIECES, "push", "-z", "{source}/f", "{target}/f"), {"f": b"old"},
             {"f": TEXT}, keeps_part=True),
    Transfer("push_delta", (*PIECES, "push", "--delta", "{source}/f", "{target}/f"),
             {"f": BIG_OLD}, {"f": BIG_CHANGED}, keeps_part=True),
    Transfer("push_tree", ("push", "-r", "{source}/.", "{target}"), OLD, NEW),
    Transfer("pull", ("pull", "{source}/f", "{target}/f"), {"f": b"old"}, {"f": b"the new one"}),
    Transfer("pull_large", (*PIECES, "pull", "--checksum", "{source}/f", "{target}/f"),
             {"f": b"old"}, {"f": content(2, LARGE)}, keeps_part=True),
    Transfer("pull_tree", ("pull", "-r", "{source}/.", "{target}"), OLD, NEW),
    ToPipe("pull_to_pipe", ("pull", "{source}/f", "-"), {}, {"f": content(3, 100 * KIB)}),
    Transfer("sync", ("sync", "--checksum", "--delete", "{source}", "{target}"), OLD, NEW,
             removes=set(OLD) - set(NEW)),
    Program("sh", ("sh",)),
    StreamedProgram("stream", ("sh", "--stream")),
)


class Runner:
    """Runs runelctl with the failures of a state, against one daemon."""

    def __init__(self, directory, state):
        self.directory, self.state = directory, state
        self.binary = os.environ["RUNELCTL_BIN"]
        self.environment = {
            **{name: value for name, value in os.environ.items() if not name.startswith("RUNELCTL")},
            "HOME": directory, "XDG_RUNTIME_DIR": directory, "TZ": "UTC",
            "TMPDIR": os.path.join(directory, "tmp")}
        os.mkdir(self.environment["TMPDIR"])

    def start(self, *words, injecting=True):
        extra = self.state.environment if injecting else {}
        return subprocess.Popen(
            [self.binary, *QUICK, *words], cwd=self.directory, stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, env={**self.environment, **extra},
            start_new_session=True)

    def temporary_files(self):
        return os.listdir(self.environment["TMPDIR"])

    def run(self, scenario, injecting=True):
        shutil.rmtree(self.environment["TMPDIR"])
        os.mkdir(self.environment["TMPDIR"])
        process = self.start(*scenario.command(self.directory), injecting=injecting)
        try:
            out, err = process.communicate(timeout=LONGEST)
        except subprocess.TimeoutExpired:
            process.kill()
            out, err = process.communicate()
            expect(False, f"does not end: {out[-200:]!r} {err[-300:]!r}")
        return Run(process.returncode, out, err)
