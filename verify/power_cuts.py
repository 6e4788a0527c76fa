# SPDX-License-Identifier: Apache-2.0
"""Simulates a power cut at any call, and checks the content of the files that the daemon writes.

Runs two checks. The first uses a model that generates every possible disk state from the syncs, with
sectors of 512 and 4096 bytes. The second uses real ext4 file systems, with and without the protection
of renames (noauto_da_alloc): it pauses the daemon at each call and copies the image. Before one of the
calls it also syncs the journal or the whole file system, because other programs may do so at any time.

A replaced file must have its complete old or new content, and the new content once the daemon has
replied. An append changes the file in place, because other programs may have it open: the file must
begin with all of its old content, and have the new content once the daemon has replied.
"""
import contextlib
import os
import random
import shutil
import tempfile
import threading
import time

from harness import arguments, images
from harness.disk_model import Disk
from harness.session import HANG, Session, expect
from support import world
from support.logs import LogCollector
from support.wait import wait_until
from support.wire import request

SECTORS = (512, 4096)
MODEL_STATES = {False: 4_000, True: 24_000}
PLACES = {False: 1, True: 7}  # calls before which the journal is synced, per file and file system
LARGE = 20_000  # bytes: several sectors of each size
OPTIONS = ((), ("noauto_da_alloc",))
DISK = "/dev/shm/disk"


def content(letter, size):
    return bytes(ord(letter) + at // 512 % 16 for at in range(size))


class Case:
    """A file that the daemon writes: its path, its old and new content, and the trigger."""

    mount = DISK
    in_place = False
    fresh_daemon = False
    replies = False

    def __init__(self, name, old, new):
        self.name, self.old, self.new = name, old, new
        self.target = self.path()

    def path(self):
        return f"{self.mount}/file"

    def files(self):
        """The initial files, by their path below the mount point."""
        if self.old is None:
            return {}
        return {os.path.relpath(self.target, self.mount): self.old}

    def check(self, found, answered):
        """Whether the content @p found is allowed. @p answered: the daemon has replied."""
        if answered:
            return found == self.new
        if self.in_place and found is not None:
            return found.startswith(self.old or b"")
        return found in (self.old, self.new)


class TaskCase(Case):
    replies = True

    def __init__(self, name, task, old, new, data=None, place=None):
        self.place = place
        super().__init__(name, old, new)
        self.task, self.data = task, new if data is None else data
        self.in_place = task == "append"

    def path(self):
        return self.place or super().path()

    def trigger(self, session):
        expect(session.ask(request(self.task, self.argument(), self.data)) is not None, self.name)
        session.quiet()  # the reply comes before its record

    def argument(self):
        return self.target


class StateCase(TaskCase):
    mount = "/var/lib/runeld"

    def __init__(self, name, old, new):
        super().__init__(name, "updateumstate", old, new, place=f"{self.mount}/umstate/key")

    def argument(self):
        return "key"


class HostsCase(Case):
    mount = "/etc"

    def path(self):
        return "/etc/hosts"

    def trigger(self, session):
        agent = session.client()
        agent.send(b"<hello/>")
        bridge = session.master.accept(HANG)
        agent.close()
        bridge.read_to_end(HANG)  # the bridge ends with the agent
        session.forget(bridge)
        session.quiet()


class PidCase(Case):
    mount = "/run"
    fresh_daemon = True

    def path(self):
        return "/run/runeld.pid"

    def trigger(self, session):
        self.new = None
        session.start_traced()
        expect(session.daemon.process.wait(HANG) == 0, "the daemon does not start")
        number = b"%d\n" % session.state.shared.processes[1].pid
        expect(self.new in (None, number), f"wrong process id: {self.new!r}")
        self.new = number

    def check(self, found, answered):
        if found is not None and found != self.old:
            self.new = self.new or found  # the process id is unknown until it is written
            return found == self.new and found.rstrip(b"\n").isdigit() and found.endswith(b"\n")
        return found == self.old


def cases(options):
    """The files to look at: all, or those whose case has the text of --only in its name."""
    chosen = [case for case in all_cases() if (options.only or "") in case.name]
    expect(chosen, f"no case has {options.only!r} in its name")
    return chosen


def all_cases():
    old, new = content("A", 12_000), content("a", LARGE)
    many = b"".join(b"192.0.2.%d host%d\n" % (number % 250, number) for number in range(500))
    master = b"127.0.0.1 update-master\n"
    return [
        TaskCase("write over", "write", old, new),
        TaskCase("write new", "write", None, new),
        TaskCase("write less", "write", new, b"short"),
        TaskCase("append", "append", old, old + new, data=new),
        TaskCase("append new", "append", None, new),
        StateCase("updateumstate over", b"old state", b"the new state"),
        StateCase("updateumstate new", None, content("s", 3000)),
        HostsCase("hosts", many, many + master),
        HostsCase("hosts anew", b"192.0.2.1 update-master\n127.0.0.1 localhost\n",
                  b"127.0.0.1 localhost\n" + master),
        PidCase("pid file", b"99999999\n", None),
        PidCase("pid file new", None, None)]


class PowerSession(Session):
    """Creates the shared state before the daemon starts, so that the start can be traced."""

    def start_traced(self):
        self._spawn((), True)

    def prepare(self, case):
        if case.fresh_daemon:
            self.launch()
        elif self.daemon is None or self.ended() is not None:
            self.start()

    def put_down(self, case):
        if case.fresh_daemon:
            self.kill()
        else:
            self.quiet()


class Report:
    def __init__(self):
        self.states = 0
        self.findings = []

    def check(self, case, found, answered, where):
        self.states += 1
        if not case.check(found, answered):
            shown = found if found is None else f"{len(found)} bytes, {found[:30]!r}"
            self.findings.append(f"{case.name}, {where}: {shown}")


# The model.

def trace_of(session, case):
    """The calls with which the daemon writes the file."""
    shutil.rmtree(DISK, ignore_errors=True)
    os.makedirs(DISK)
    if case.mount == "/var/lib/runeld":
        shutil.rmtree(case.mount, ignore_errors=True)
    with contextlib.suppress(FileNotFoundError):
        os.unlink(case.target)
    os.makedirs(case.mount, exist_ok=True)
    images.fill(case.mount, case.files())
    session.prepare(case)
    session.state.trace()
    case.trigger(session)
    session.state.end_trace()
    records = list(session.state.records())
    expect(not case.replies or any(name == "sendmsg" for name, *_ in records),
           f"{case.name}: the trace lacks the reply")
    session.put_down(case)
    return records


def run_model(case, records, report, choice, most, with_syncs=True):
    files = {} if case.old is None else {case.target: case.old}
    for sector in SECTORS:
        disk = Disk(files)
        left = most
        for number in range(len(records) + 1):
            for found in disk.states(case.target, sector, choice, max(1, min(256, left))):
                report.check(case, found, disk.answered,
                             f"model, {sector} bytes a sector, cut before call {number}")
                left -= 1
            if number < len(records):
                disk.apply(records[number], with_syncs)


def verify_model(session, options, report):
    choice = random.Random(options.seed)
    traced = []
    for case in cases(options):
        traced.append((case, trace_of(session, case)))
    rounds = 0
    while report.states < MODEL_STATES[options.long] and rounds < 50:
        for case, records in traced:
            run_model(case, records, report, choice, 4000)
        rounds += 1
    for case, records in traced:
        # Proves that the model detects errors: without the syncs, each replacement can be lost or torn.
        broken = Report()
        run_model(case, records, broken, random.Random(1), 4000, with_syncs=False)
        expect(broken.findings, f"{case.name}: the model finds nothing wrong without fsync")


# Real file systems.

class RealCut:
    """One run of a case on a separate file system, cut at every call."""

    def __init__(self, session, directory, template, report):
        self.session, self.directory, self.report = session, directory, report
        self.template = template

    def look(self, case, image, answered, where):
        copy = image.copy(f"{self.directory}/cut.img")
        place = f"{self.directory}/cut"
        with copy.mounted(place):
            found = None
            with contextlib.suppress(FileNotFoundError):
                with open(f"{place}/{os.path.relpath(case.target, case.mount)}", "rb") as file:
                    found = file.read()
            self.report.check(case, found, answered, where)

    def run(self, case, mount_options, disturb=None, at=None):
        """Runs @p case. Calls @p disturb with the mount point before call @p at. Returns the number of
        calls."""
        image = self.template.copy(f"{self.directory}/disk.img")
        session = self.session
        session.prepare(case)
        with image.mounted(case.mount, mount_options):
            shared = session.state.shared
            session.state.trace(pausing=True)
            failures = []
            worker = threading.Thread(target=self.trigger, args=(case, failures))
            worker.start()
            number = 0
            while True:
                wait_until(lambda: shared.stopped > number or not worker.is_alive(),  # noqa: B023
                           "the next call", HANG)
                answered = any(record[0] == "sendmsg" for record in session.state.records())
                if number == at:
                    disturb(case.mount)
                self.look(case, image, answered, f"ext4 {mount_options}, cut before call {number}"
                          f", {disturb.__name__ if disturb else 'nothing'} at {at}")
                if shared.stopped <= number:
                    break
                number += 1
                shared.resumed = number
            worker.join()
            session.state.end_trace()
            session.put_down(case)
        if failures:
            raise failures[0]
        return number

    def trigger(self, case, failures):
        try:
            case.trigger(self.session)
        except Exception as error:  # pylint: disable=broad-except  # the caller raises it
            failures.append(error)


def check_method(directory):
    """Proves that the method detects lost data: a rename without a sync loses the content."""
    image = images.Image(f"{directory}/disk.img").make()
    with image.mounted(DISK, ("noauto_da_alloc",)):
        images.fill(DISK, {"file": b"old"})
        with open(f"{DISK}/new", "wb") as file:
            file.write(b"new" * 5000)
        os.rename(f"{DISK}/new", f"{DISK}/file")
        images.commit(DISK)
        with image.copy(f"{directory}/cut.img").mounted(f"{directory}/cut") as place:
            with open(f"{place}/file", "rb") as file:
                expect(file.read() == b"", "a file renamed without a sync survives the cut")


def verify_real(session, directory, options, report):
    images.make_loop_devices()
    check_method(directory)
    choice = random.Random(options.seed)
    for number, case in enumerate(cases(options)):
        template = images.Image(f"{directory}/template{number}.img").make()
        with template.mounted(f"{directory}/template"):
            images.fill(f"{directory}/template", case.files())
        cut = RealCut(session, directory, template, report)
        for mount_options in OPTIONS if options.long else (choice.choice(OPTIONS),):
            calls = cut.run(case, mount_options)
            places = [(disturb, at) for disturb in (images.commit, images.sync)
                      for at in range(calls)]
            for disturb, at in choice.sample(places, PLACES[options.long]):
                cut.run(case, mount_options, disturb, at)
        os.unlink(template.path)
        if options.verbose:
            print(f"  {case.name}: {report.states} states, {len(report.findings)} findings",
                  flush=True)


def main():
    options = arguments.parse("power-cuts", __doc__)
    world.adopt_orphans()
    world.reset()
    directory = tempfile.mkdtemp(prefix="verify-", dir="/dev/shm")
    log = LogCollector()
    session = PowerSession(directory, log, libraries=("dispatch",))
    model, real = Report(), Report()
    begun = time.monotonic()
    try:
        verify_model(session, options, model)
        between = time.monotonic()
        verify_real(session, directory, options, real)
    finally:
        session.close()
        log.close()
        shutil.rmtree(directory, ignore_errors=True)
    for finding in (model.findings + real.findings)[:options.most_findings]:
        print(finding)
    findings = len(model.findings) + len(real.findings)
    print(f"power-cuts: seed {options.seed}, {model.states} states of the model in "
          f"{between - begun:.0f} s, {real.states} of real file systems in "
          f"{time.monotonic() - between:.0f} s, {findings} findings")
    expect(real.states and model.states, "nothing was cut")
    return 1 if findings else 0


if __name__ == "__main__":
    raise SystemExit(main())
