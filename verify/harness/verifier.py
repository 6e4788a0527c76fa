# SPDX-License-Identifier: Apache-2.0
"""Runs scenarios with injected failures, and checks the rules that hold after every failure.

A job defines the failure by `scenario`, `role` and `arm(state)`. After the run it returns `hits(state)`
by kind, `may_be_silent`, `log_is_lost`, `may_leak` and `deaths_of_libc`.
"""
import collections
import contextlib
import os
import shutil
import tempfile
import time

from harness import scenarios
from harness.session import HANG, Finding, Lost, Session, expect
from support import world
from support.logs import WARNING, LogCollector

# The memory growth allowed when a scenario runs again: buffers that are kept.
KEPT_BLOCKS, KEPT_BYTES = 24, 128 << 10

# A busy loop makes more calls than this factor and this allowance over a run without failures.
SPIN_FACTOR, SPIN_ALLOWANCE = 10, 3000

LOG_CALLS = {"socket", "connect", "sendto"}  # the calls for a log line, which is lost if one fails

CPU_SECONDS = 5.0  # detects a busy loop without system calls


class Verifier:
    def __init__(self, directory, log):
        self.session = Session(directory, log)
        self.log = log
        self.findings = []
        self.injected = 0
        self.ends = 0
        self.by_kind = collections.Counter()
        self.quiet = collections.Counter()
        self.lives = {life.name: life for life in scenarios.LIVES}
        self.usual_calls = {}
        self.usual_memory = None

    # Runs without a failure.

    def fresh(self):
        """Starts a daemon and runs all work once, so that permanent buffers are allocated."""
        session = self.session
        session.start()
        for work in scenarios.WORK.values():
            self.clean(work)
        self.remember()

    def remember(self):
        session = self.session
        session.quiet()
        self.usual_memory = (session.state.process.live_blocks, session.state.process.live_bytes)
        self.usual_descriptors = sorted(session.daemon.descriptors().values())

    def clean(self, work):
        session = self.session
        session.strict = True
        session.slave_or_new()
        work(session)

    def live(self, life, job=None):
        session = self.session
        background = life.run is scenarios.background
        spawn = scenarios.prepare(session, *scenarios.ARGUMENTS.get(life.name, ()),
                                  background=background)
        session.state.watch(life.role)
        job.arm(session.state) if job else session.state.arm()
        try:
            life.run(session, spawn)
        finally:
            session.state.pause()

    def calibrate(self, jobs_of):
        """Runs each scenario without a failure. Returns the jobs that @p jobs_of derives from the counts."""
        jobs = []
        self.fresh()
        for name, work in scenarios.WORK.items():
            self.session.state.arm()
            self.clean(work)
            self.usual_calls[name] = sum(self.session.state.counts().values())
            jobs += jobs_of(name, 0, self.session.state)
        for life in scenarios.LIVES:
            self.session.strict = True
            self.live(life)
            jobs += jobs_of(life.name, life.role, self.session.state)
        self.session.kill()
        return jobs

    # Runs with failures.

    def run(self, job):
        session = self.session
        session.deviations, session.failed_replies = [], 0
        try:
            if job.scenario in self.lives:
                self.run_life(job)
            else:
                self.run_work(job)
        except (Finding, AssertionError, Lost) as finding:
            self.report(job, finding)
            session.kill()

    def report(self, job, finding):
        lines = "\n    ".join(f"{line.level} {line.text[:140]}" for line in self.log.lines[-12:])
        text = f"{job}\n  {type(finding).__name__}: {finding}\n    {lines}"
        self.findings.append(text)
        print(text, flush=True)

    def run_life(self, job):
        session = self.session
        session.strict = False
        session.deaths_of_libc = job.deaths_of_libc()
        self.log.forget()
        self.live(self.lives[job.scenario], job)
        self.count(job)
        self.check_harmless(job)
        self.check_reported(job)

    def run_work(self, job):
        session = self.session
        if session.daemon is None or session.ended() is not None:
            self.fresh()
        work = scenarios.WORK[job.scenario]
        self.log.forget()
        session.strict = False
        before, cpu = session.state.process.all, session.daemon.cpu_seconds()
        job.arm(session.state)
        with contextlib.suppress(Lost):
            work(session)
        session.state.pause()
        session.quiet(2)  # the log lines and the end come after the failure
        self.count(job)
        self.check_harmless(job)
        alive = self.check_alive(job)
        self.check_reported(job)
        if not alive:
            return
        made = session.state.process.all - before
        expect(made <= SPIN_FACTOR * self.usual_calls[job.scenario] + SPIN_ALLOWANCE,
               f"busy loop: {made} calls")
        expect(session.daemon.cpu_seconds() - cpu < CPU_SECONDS, "busy loop: processor time")
        try:
            self.check_works_again(work, job.may_leak(session.state))
        except Lost:
            session.quiet(2)
            if self.check_alive(job):
                raise

    def count(self, job):
        hits = job.hits(self.session.state)
        self.injected += sum(hits.values())
        self.by_kind.update(hits)

    def check_harmless(self, job):
        shared = self.session.state.shared
        expect(shared.kills_of_all == 0, "the daemon signals every process")
        failures = self.log.count(r"failed to listen on the only port \(5111\), retrying")
        lines_may_lack = not LOG_CALLS.isdisjoint(job.hits(self.session.state))
        expect(shared.reboots == 0 or failures == 35 or job.scenario == "rebooted" or
               (lines_may_lack and failures < 35), f"reboot of the device after {failures} failures")
        expect(shared.popens <= 1 and shared.systems <= 1, "the process list is shown again")

    def check_reported(self, job):
        """Checks that a failure with a consequence is reported in the log or in a reply."""
        session = self.session
        hits = job.hits(session.state)
        reported = session.failed_replies or any(line.level <= WARNING for line in self.log.lines)
        if not hits or reported or job.log_is_lost(session.state):
            return
        if not session.deviations and job.may_be_silent(session.state):
            self.quiet.update(hits.keys())
            return
        raise Finding(f"no log line and no reply reports the failure; deviations: {session.deviations}")

    def check_alive(self, job):
        """False when the daemon has ended, which must be a regular exit. Stops it if it is stuck."""
        session = self.session
        if not session.settle() and session.ended() is None:
            session.stop()
        if session.ended() is None:
            return True
        self.ends += 1
        expect(session.ended() in (0, 1), f"exit status {session.ended()}")
        expect(session.ended() == 0 or self.log.find("unhandled exception caught, .*"),
               "exit status 1 without an exception")
        expect(any(line.level <= WARNING for line in self.log.lines), "exit without a log line")
        return False

    def check_works_again(self, work, may_leak):
        session = self.session
        work_failed = session.deviations
        session.deviations = []
        self.clean(work)
        session.quiet()
        if may_leak:
            self.remember()
        temporary = [name for directory in (session.directory, "/etc", "/run", scenarios.STATE_DIRECTORY)
                     if os.path.isdir(directory) for name in os.listdir(directory)
                     if name.startswith(".runeld-") or name.endswith(".new")]
        expect(not temporary, f"left behind: {temporary} after {work_failed}")
        self.check_nothing_grew()

    def check_nothing_grew(self):
        session = self.session
        deadline = time.monotonic() + HANG
        while True:
            blocks = session.state.process.live_blocks - self.usual_memory[0]
            size = session.state.process.live_bytes - self.usual_memory[1]
            descriptors = sorted(session.daemon.descriptors().values())
            zombies = session.daemon.zombies()
            if (len(descriptors) == len(self.usual_descriptors) and blocks <= KEPT_BLOCKS and
                    size <= KEPT_BYTES and not zombies):
                return
            expect(time.monotonic() < deadline, f"leak: {blocks} blocks, {size} bytes; "
                   f"descriptors {self.usual_descriptors}, now {descriptors}; zombies {zombies}")
            time.sleep(0.002)

    def show_kinds(self):
        for kind, count in sorted(self.by_kind.items()):
            print(f"  {kind:16} {count:6}, correctly unreported in {self.quiet[kind]:6} runs")


def make_leds():
    world.mount("-t", "tmpfs", "tmpfs", "/sys/class")
    for name in ("first", "second"):
        os.makedirs(f"/sys/class/leds/{name}")
        scenarios.put(f"/sys/class/leds/{name}/brightness", b"")


def run(options, name, jobs_of, choose):
    """Runs the jobs that @p choose selects, and prints the figures. Returns the exit status."""
    world.adopt_orphans()
    world.reset()
    make_leds()
    directory = tempfile.mkdtemp(prefix="verify-")
    log = LogCollector()
    verifier = Verifier(directory, log)
    begun = time.monotonic()
    try:
        jobs = verifier.calibrate(jobs_of)
        singles = len(jobs)
        jobs = [job for job in jobs if options.only in str(job)] if options.only else choose(jobs)
        print(f"{singles} single failures in {len(scenarios.WORK) + len(scenarios.LIVES)} "
              f"scenarios; {len(jobs)} runs, seed {options.seed}", flush=True)
        for number, job in enumerate(jobs, 1):
            verifier.run(job)
            if options.verbose and number % 500 == 0:
                print(f"  {number} runs, {verifier.injected} failures, "
                      f"{time.monotonic() - begun:.0f} s", flush=True)
            if len(verifier.findings) >= options.most_findings:
                break
    finally:
        verifier.session.close()
        log.close()
        shutil.rmtree(directory)
    verifier.show_kinds()
    print(f"{name}: seed {options.seed}, {len(jobs)} runs, {verifier.injected} failures injected, "
          f"{verifier.ends} regular exits, {verifier.session.starts} starts, "
          f"{len(verifier.findings)} findings, {time.monotonic() - begun:.0f} s")
    expect(verifier.injected > 0, "nothing was injected")
    return 1 if verifier.findings else 0
