# SPDX-License-Identifier: Apache-2.0
"""A signal ends the daemon at each of its system calls: no file is partial, nothing is lost.

strace sends the signal, because only it can hit an exact system call.
"""
import collections
import contextlib
import itertools
import os
import re
import signal
import unittest

from support import world
from support.case import SUCCESS, EndToEndCase
from support.daemon import is_instrumented
from support.logs import ERR
from support.sizes import sized
from support.wait import wait_until
from support.world import PID_FILE

SIGNALS = (signal.SIGTERM, signal.SIGQUIT, signal.SIGINT, signal.SIGABRT)

# Of a frequent kind of call, only the first ones are tested, and the last one.
MOST_OF_A_KIND = sized(4, 8) if is_instrumented() else 8

OLD, NEW = b"old" * 100, b"new" * 200

HOSTS, NEW_HOSTS = "/etc/hosts", "/etc/hosts.new"
ENTRY = "127.0.0.1 update-master\n"


class TracedLife(EndToEndCase):
    """A run of the daemon under strace: a client writes a file and runs a program, and an agent
    takes over the master's alias."""

    def live(self, *injections, background=False):
        """One run, ended by SIGTERM unless another signal ends it. Returns its exit status.

        The trace shows signals and the calls of @p injections, because strace injects only into
        traced calls. Without injections it shows all calls.
        """
        self.file("stored", OLD)
        with open(HOSTS, "w", encoding="ascii") as hosts:
            hosts.write(world.HOSTS)
        self.mark, self.answered = self.log.mark(), False
        shown = ",".join(injection.partition(":")[0] for injection in injections) or "all"
        options = [f"--inject={injection}" for injection in injections]
        follow = ("-f",) if background else ()
        self.running = self.daemon(
            background=background, wait=False, detect_leaks=False,
            wrapper=("strace", "-qq", *follow, "-o", self.path("trace"), f"--trace={shown}", *options))
        if self.listens():
            self.work()
            self.stop_unless_ended()
        status = self.running.process.wait(60)
        wait_until(self.no_child_is_left, "all have ended")
        return status

    @staticmethod
    def no_child_is_left():
        """Reaps a daemon that outlived its launcher, so that it does not count as running."""
        try:
            os.waitpid(-1, os.WNOHANG)
        except ChildProcessError:
            return True
        return False

    def ended(self):
        return self.running.process.poll() is not None

    def listens(self):
        """Whether the daemon listens; waits until it listens or has ended."""
        def listening():
            return self.log.find("listening on port 5111", since=self.mark)
        return wait_until(lambda: listening() or (self.ended() and "ended"), "it starts") != "ended"

    def work(self):
        with contextlib.suppress(OSError, AssertionError):  # the daemon may end at any time
            client = self.client()
            self.answered = client.ask("write", self.path("stored"), NEW).fields == SUCCESS
            client.ask("exec", "/bin/true")
            client.close()
        with contextlib.suppress(OSError):
            agent = self.client()
            agent.socket.sendall(b"<a/>")
            wait_until(lambda: ENTRY in self.hosts() or self.ended(), "the alias is taken over")
            agent.close()

    @staticmethod
    def hosts():
        with open(HOSTS, encoding="ascii") as hosts:
            return hosts.read()

    def stop_unless_ended(self):
        """Sends SIGTERM, unless strace has sent a signal, which must end the daemon."""
        line = self.log.find("listening on port 5111", since=self.mark)
        taken = re.search(rf"^(?:{line.pid} +)?--- SIG.* si_code=SI_KERNEL", self.trace(), re.MULTILINE)
        if not taken:
            with contextlib.suppress(ProcessLookupError):
                os.kill(line.pid, signal.SIGTERM)

    def trace(self):
        with open(self.path("trace"), encoding="latin-1") as lines:
            return lines.read()

    def calls(self, **options):
        """Each system call of an undisturbed run: its kind and its index among this kind."""
        self.assertEqual(self.live(**options), 0)
        kinds = re.findall(r"^(?:\d+ +)?(\w+)\(", self.trace(), re.MULTILINE)
        counts = collections.Counter(kinds)
        self.assertGreater(counts["select"] + counts["pselect6"], 0)
        return [(kind, place) for kind, most in counts.items()
                if kind not in ("execve", "exit_group")
                for place in range(1, most + 1) if place <= MOST_OF_A_KIND or place == most]

    def sent(self, number):
        """The number of signals that strace sent."""
        return self.trace().count(f"--- {number.name} {{si_signo={number.name}, si_code=SI_KERNEL}}")

    def assert_sent(self, kind, place, number):
        """Expects the signal at that call, in each process that reached it."""
        made = collections.Counter(re.findall(rf"^((?:\d+ +)?){kind}\(", self.trace(), re.MULTILINE))
        reached = sum(1 for most in made.values() if most >= place)
        self.assertEqual(self.sent(number), reached)

    def assert_whole(self):
        """Each file is old or new, the client's new if its task was answered. No temporary file."""
        content = self.content("stored")
        self.assertIn(content, (NEW,) if self.answered else (OLD, NEW))
        strangers = [name for name in os.listdir(self.directory)
                     if name not in ("stored", "trace") and not name.startswith("stderr.")]
        self.assertEqual(strangers, [])
        self.assertIn(self.hosts(), (world.HOSTS, world.HOSTS + ENTRY))
        self.assertFalse(os.path.exists(NEW_HOSTS))

    def assert_regular_end(self, status, number):
        """The daemon ended with 0 and logged the signal, or the signal killed it before its first
        log line."""
        ends = [line.text for line in self.log.lines[self.mark:]
                if line.text.startswith("exiting on signal")]
        if status == -number:
            self.assertEqual(self.log.lines[self.mark:], [])
        else:
            self.assertEqual(status, 0)
            self.assertIn(ends, [[f"exiting on signal: {one}"] for one in {int(number), 15}])
        self.assert_whole()


class EverySystemCallTest(TracedLife):
    """One signal per run, at a different call each time; alternates the four signals."""

    def test_of_the_foreground(self):
        numbers = itertools.cycle(SIGNALS)
        for kind, place in self.calls():
            number = next(numbers)
            with self.subTest(kind=kind, place=place, number=number):
                status = self.live(f"{kind}:signal={number.name}:when={place}")
                self.assert_sent(kind, place, number)
                self.assert_regular_end(status, number)

    def test_of_the_launcher_and_of_its_daemon(self):
        numbers = itertools.cycle(SIGNALS)
        for kind, place in self.calls(background=True):
            number = next(numbers)
            with self.subTest(kind=kind, place=place, number=number):
                self.live(f"{kind}:signal={number.name}:when={place}", background=True)
                self.assert_sent(kind, place, number)
                self.assert_whole()
                # The pid file does not prevent the next start, even if the launcher was killed.
                self.assertEqual(self.log.count("daemon is already running", ERR, self.mark), 0)
        daemon = self.daemon(background=True)
        self.assert_stops(daemon)
        self.assertFalse(os.path.exists(PID_FILE))


class ManySignalsTest(TracedLife):
    """More than one signal."""

    def closes_before_the_first_line(self):
        """The number of early close calls of an undisturbed run: a signal there would kill it."""
        self.assertEqual(self.live(), 0)
        before, first_line, _ = self.trace().partition(f"{self.log_call()}(")
        self.assertTrue(first_line)
        return len(re.findall(r"^close\(", before, re.MULTILINE))

    def log_call(self):
        """The system call that sends a log line: that of syslog(3), or the daemon's own."""
        return "sendto" if "sendto(" in self.trace() else "sendmsg"

    def test_one_at_every_call_from_the_first_line_on(self):
        closes = self.closes_before_the_first_line()
        log_call = self.log_call()
        for number in SIGNALS:
            with self.subTest(number=number):
                status = self.live(f"{log_call}:signal={number.name}:when=1+",
                                   f"pselect6,select:signal={number.name}:when=1+",
                                   f"close:signal={number.name}:when={closes + 1}+")
                self.assertGreater(self.sent(number), 5)
                self.assert_regular_end(status, number)


if __name__ == "__main__":
    unittest.main()
