# SPDX-License-Identifier: Apache-2.0
"""Fails every system call and many allocations of complete runs of runelctl against a real daemon.

A first run of each scenario (push, pull, sync, exec, a stream...) counts the system calls by kind and
the allocations. Then the scenario runs repeatedly, each time with a different failure: one call with one
of its errors, a partial read or write, or one allocation. After each run these rules hold:

  - runelctl ends by itself, not by a signal, and says why it failed. If the reader of its output has
    left, it ends by SIGPIPE. Only if every later allocation fails too, the JSON library may end it, and
    then nothing removes a hidden file.
  - It reports success only if all files, or the output of the program, are the new ones.
  - Each file has its old or its new content. Nothing unfinished is left, except the part of a large
    file, which the same command without a failure completes and removes.
"""
import collections
import errno
import random
import shutil
import signal
import tempfile
import time

from harness import arguments
from harness.errors import ERRORS, WITHOUT_ERRORS
from harness.runs import SCENARIOS, Runner
from harness.session import Finding, expect
from harness.state import SHORT, Failure, State
from support import world
from support.daemon import Daemon
from support.logs import LogCollector

SAMPLE = 150
ALLOCATIONS_OF_SAMPLE = 30

# Frequent calls of one kind are similar: only the first ones and the last one fail.
MOST_OF_A_KIND = 60

# The first allocations build the command line, in the same way for every scenario.
STEP_OF_START = 97
# All that follow fail for some allocations only: most of these runs fail at the same place.
STEP_OF_ALL = 5

# libc takes this error for the end of a directory that was removed, as which the kernel means it.
NOT_INJECTED = {("getdents64", errno.ENOENT)}

# The calls that remove files. If one fails, a file stays.
REMOVING = frozenset(("unlink", "unlinkat", "rmdir"))
# Those that find what is in a temporary directory.
FINDING_TEMPORARY = frozenset(("fcntl", "getdents64", "newfstatat", "openat"))

# The errors that runelctl must tell apart. Every call also fails with one other error of its page.
TELLING = frozenset((SHORT, errno.EAGAIN, errno.EINTR, errno.EIO, errno.ENOMEM, errno.ENOSPC))

# Failures that are no errors: the call is repeated, so the run must succeed.
REPEATED = {*((name, SHORT) for name in ("read", "write", "sendmsg", "recvfrom", "pread64")),
            *((name, errno.EINTR) for name in ("read", "write", "sendmsg", "recvfrom", "epoll_wait"))}

BUSY_FACTOR, BUSY_ALLOWANCE = 10, 3000
ALL = 1 << 40


class Job(collections.namedtuple("Job", "scenario failure allocation times")):
    """A failure in a run of a scenario: a system call, or an allocation and perhaps all later ones."""

    def __str__(self):
        what = self.failure or (f"allocation {self.allocation} " +
                                ("once" if self.times == 1 else "and all that follow"))
        return f"{self.scenario.name}: {what}"

    def arm(self, state):
        state.arm([self.failure] if self.failure else (), self.allocation, self.times)

    def hits(self, state):
        return state.shared.plans[0].hits if self.failure else state.process.allocation_hits

    def must_succeed(self):
        return self.failure and (self.failure.name, self.failure.error) in REPEATED

    def may_abort(self):
        """The JSON library's destructor allocates."""
        return self.times > 1

    def may_end_by(self, number):
        """A reader that leaves ends a pipeline silently."""
        left = self.failure and (self.failure.name, self.failure.error) == ("write", errno.EPIPE)
        return (number == signal.SIGABRT and self.may_abort()) or (number == signal.SIGPIPE and left)

    def may_leave_files(self):
        return self.may_abort() or (self.failure and self.failure.name in REMOVING)

    def may_leave_temporary(self):
        return self.may_leave_files() or (self.failure and self.failure.name in FINDING_TEMPORARY)

    def hides_the_message(self):
        """Standard error may be what fails. Without memory nothing can be written."""
        return self.failure.name == "write" if self.failure else self.times > 1


def errors_for(kind, choice):
    errors = [error for error in ERRORS[kind] if (kind, error) not in NOT_INJECTED]
    telling = [error for error in errors if error in TELLING]
    others = [error for error in errors if error not in TELLING]
    return telling + ([choice.choice(others)] if others else [])


def jobs_of(scenario, state, start, choice):
    """The jobs of a scenario, from the counts of a run without failures.

    The first @p start allocations are made before the work.
    """
    counts = state.counts()
    unknown = [kind for kind in counts if kind not in ERRORS and kind not in WITHOUT_ERRORS]
    expect(not unknown, f"calls that the table of errors lacks: {unknown}")
    jobs = [Job(scenario, Failure(kind, number, error), 0, 0)
            for kind, count in counts.items() if kind in ERRORS
            for number in range(1, count + 1) if number <= MOST_OF_A_KIND or number == count
            for error in errors_for(kind, choice)]
    for number in range(2, state.process.allocations + 1):
        if number > start or number % STEP_OF_START == 0:
            jobs += [Job(scenario, None, number, times) for times in (1, ALL)
                     if times == 1 or number % STEP_OF_ALL == 0]
    return jobs


def one_error_each(jobs, choice):
    """One of the jobs for each failing call, and a tenth of the allocations."""
    by_call = collections.defaultdict(list)
    for number, job in enumerate(jobs):
        if job.failure:
            by_call[job.scenario.name, job.failure.name, job.failure.first].append(job)
        elif choice.random() < 0.1:
            by_call[number].append(job)
    return [choice.choice(alike) for alike in by_call.values()]


def sample(jobs, choice):
    """Some jobs of each kind of call and scenario, and some allocations."""
    by_kind = collections.defaultdict(list)
    for job in jobs:
        by_kind[job.failure.name if job.failure else None].append(job)
    chosen = choice.sample(by_kind.pop(None), ALLOCATIONS_OF_SAMPLE)
    for alike in by_kind.values():
        choice.shuffle(alike)
    while len(chosen) < SAMPLE:
        chosen += [alike.pop() for alike in by_kind.values() if alike]
    return chosen


class Verifier:
    def __init__(self, directory):
        self.state = State(directory)
        self.runner = Runner(directory, self.state)
        self.directory = directory
        self.usual_calls = {}
        self.findings = []
        self.hits = self.failed = 0
        self.left = collections.Counter()
        self.statuses = collections.Counter()

    def calibrate(self, choice):
        """Runs each scenario without a failure. Returns all jobs."""
        jobs = []
        start = self.count_start()
        for scenario in SCENARIOS:
            scenario.prepare(self.directory)
            self.state.arm()
            run = self.runner.run(scenario)
            self.state.pause()
            expect(run.status == scenario.success, f"{scenario.name}: {run.status} {run.err!r}")
            scenario.check(self.directory, run)
            scenario.clean_up(self.directory)
            self.usual_calls[scenario.name] = self.state.process.all
            jobs += jobs_of(scenario, self.state, start, choice)
        return jobs

    def count_start(self):
        """The allocations of a run that reads its command line and sends nothing."""
        self.state.arm()
        self.runner.start("-n", "--offline", "sh", "true").communicate()
        self.state.pause()
        return self.state.process.allocations

    def run(self, job):
        run = None
        try:
            job.scenario.prepare(self.directory)
            job.arm(self.state)
            before = self.state.process.all
            run = self.runner.run(job.scenario)
            self.state.pause()
            self.check(job, run, self.state.process.all - before)
        except Finding as finding:
            said = f"status {run.status}, {run.err[-300:]!r}" if run else ""
            self.findings.append(f"{job}\n  {finding}\n  {said}")
            print(self.findings[-1], flush=True)
        finally:
            self.state.pause()
            job.scenario.clean_up(self.directory)

    def check(self, job, run, calls):
        scenario = job.scenario
        self.hits += job.hits(self.state)
        self.statuses[run.status] += 1
        ended = run.status >= 0 or job.may_end_by(-run.status)
        expect(ended, f"ended by signal {-run.status}")
        usual = self.usual_calls[scenario.name]
        expect(calls <= BUSY_FACTOR * usual + BUSY_ALLOWANCE, f"busy loop: {calls} calls")
        temporary = self.runner.temporary_files()
        expect(not temporary or job.may_leave_temporary(), f"temporary files: {temporary}")
        scenario.check(self.directory, run, unfinished=job.may_leave_files())
        if run.status == scenario.success:
            return
        self.failed += 1
        expect(not job.must_succeed(), "a call that must be repeated failed the run")
        expect(run.err or run.status == -signal.SIGPIPE or job.hides_the_message(), "failed without a message")
        left = scenario.left_over(self.directory)
        if left:
            self.left[scenario.name] += 1
            self.complete(scenario)

    def complete(self, scenario):
        """The same command without a failure removes what an interrupted one has left."""
        run = self.runner.run(scenario, injecting=False)
        expect(run.status == scenario.success, f"the next run fails: {run.status} {run.err!r}")
        scenario.check(self.directory, run)


def main():
    options = arguments.parse("transfers", __doc__, each_once=True)
    choice = random.Random(options.seed)
    world.adopt_orphans()
    world.reset()
    directory = tempfile.mkdtemp(prefix="verify-")
    log = LogCollector()
    daemon = Daemon(log, directory)
    begun = time.monotonic()
    try:
        verifier = Verifier(directory)
        jobs = verifier.calibrate(choice)
        print(f"{len(jobs)} failures in {len(SCENARIOS)} scenarios, seed {options.seed}", flush=True)
        if options.only:
            jobs = [job for job in jobs if options.only in str(job)]
        elif options.each_once:
            jobs = one_error_each(jobs, choice)
        elif not options.long:
            jobs = sample(jobs, choice)
        for number, job in enumerate(jobs, 1):
            verifier.run(job)
            if options.verbose and number % 100 == 0:
                print(f"  {number} runs, {time.monotonic() - begun:.0f} s", flush=True)
            if len(verifier.findings) >= options.most_findings:
                break
    finally:
        daemon.kill()
        log.close()
        shutil.rmtree(directory)
    print(f"transfers: seed {options.seed}, {number} runs, {verifier.hits} failures injected, "
          f"{verifier.failed} runs failed, {sum(verifier.left.values())} left a part that the next run "
          f"completed, {len(verifier.findings)} findings, {time.monotonic() - begun:.0f} s")
    expect(verifier.hits > 0, "nothing was injected")
    return 1 if verifier.findings else 0


if __name__ == "__main__":
    raise SystemExit(main())
