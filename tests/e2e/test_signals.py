# SPDX-License-Identifier: Apache-2.0
"""A signal that ends the daemon, at each of its system calls: nothing is torn, nothing is lost.

strace sends the signal: it stops the daemon at the very call, which no sleeping and killing could.
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

# Of a kind of call that comes in numbers the first so many are tried, and the last.
MOST_OF_A_KIND = sized(4, 8) if is_instrumented() else 8

OLD, NEW = b"old" * 100, b"new" * 200

HOSTS, NEW_HOSTS = "/etc/hosts", "/etc/hosts.new"
ENTRY = "127.0.0.1 update-master\n"


class TracedLife(EndToEndCase):
    """A life of the daemon under strace: a client has a file written and a program run, and an agent
    takes the master's alias over."""

    def live(self, *injections, background=False):
        """One life, which a SIGTERM ends unless another signal does. Its exit status.

        The trace shows the calls that @p injections are about, since strace leaves alone what it does
        not show, and what signals came; without injections all calls.
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
        """Takes in a daemon that outlived its launcher: it would count as running until then."""
        try:
            os.waitpid(-1, os.WNOHANG)
        except ChildProcessError:
            return True
        return False

    def ended(self):
        return self.running.process.poll() is not None

    def listens(self):
        """Whether it came so far, once that is settled."""
        def listening():
            return self.log.find("listening on port 5111", since=self.mark)
        return wait_until(lambda: listening() or (self.ended() and "ended"), "it starts") != "ended"

    def work(self):
        with contextlib.suppress(OSError, AssertionError):  # it may end at any time
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
        """A daemon that got a signal from strace must end by that one; others get a SIGTERM."""
        line = self.log.find("listening on port 5111", since=self.mark)
        taken = re.search(rf"^(?:{line.pid} +)?--- SIG.* si_code=SI_KERNEL", self.trace(), re.MULTILINE)
        if not taken:
            with contextlib.suppress(ProcessLookupError):
                os.kill(line.pid, signal.SIGTERM)

    def trace(self):
        with open(self.path("trace"), encoding="latin-1") as lines:
            return lines.read()

    def calls(self, **options):
        """Each system call of a life that nothing disturbs, as its kind and its place among these."""
        self.assertEqual(self.live(**options), 0)
        kinds = re.findall(r"^(?:\d+ +)?(\w+)\(", self.trace(), re.MULTILINE)
        counts = collections.Counter(kinds)
        self.assertGreater(counts["select"] + counts["pselect6"], 0)
        return [(kind, place) for kind, most in counts.items()
                if kind not in ("execve", "exit_group")
                for place in range(1, most + 1) if place <= MOST_OF_A_KIND or place == most]

    def sent(self, number):
        """How many times strace itself sent the signal."""
        return self.trace().count(f"--- {number.name} {{si_signo={number.name}, si_code=SI_KERNEL}}")

    def assert_sent(self, kind, place, number):
        """The signal came at that call, in each process that got so far."""
        made = collections.Counter(re.findall(rf"^((?:\d+ +)?){kind}\(", self.trace(), re.MULTILINE))
        reached = sum(1 for most in made.values() if most >= place)
        self.assertEqual(self.sent(number), reached)

    def assert_whole(self):
        """The files are old or new, the client's new if it was told so; none was left beside one."""
        content = self.content("stored")
        self.assertIn(content, (NEW,) if self.answered else (OLD, NEW))
        strangers = [name for name in os.listdir(self.directory)
                     if name not in ("stored", "trace") and not name.startswith("stderr.")]
        self.assertEqual(strangers, [])
        self.assertIn(self.hosts(), (world.HOSTS, world.HOSTS + ENTRY))
        self.assertFalse(os.path.exists(NEW_HOSTS))

    def assert_good_order(self, status, number):
        """It ended with 0 and said by what signal, or died of it before it had said a word."""
        ends = [line.text for line in self.log.lines[self.mark:]
                if line.text.startswith("exiting on signal")]
        if status == -number:
            self.assertEqual(self.log.lines[self.mark:], [])
        else:
            self.assertEqual(status, 0)
            self.assertIn(ends, [[f"exiting on signal: {one}"] for one in {int(number), 15}])
        self.assert_whole()


class EverySystemCallTest(TracedLife):
    """One signal a life, at another call each time; the four take turns."""

    def test_of_the_foreground(self):
        numbers = itertools.cycle(SIGNALS)
        for kind, place in self.calls():
            number = next(numbers)
            with self.subTest(kind=kind, place=place, number=number):
                status = self.live(f"{kind}:signal={number.name}:when={place}")
                self.assert_sent(kind, place, number)
                self.assert_good_order(status, number)

    def test_of_the_launcher_and_of_its_daemon(self):
        numbers = itertools.cycle(SIGNALS)
        for kind, place in self.calls(background=True):
            number = next(numbers)
            with self.subTest(kind=kind, place=place, number=number):
                self.live(f"{kind}:signal={number.name}:when={place}", background=True)
                self.assert_sent(kind, place, number)
                self.assert_whole()
                # Whatever became of the launcher, the pid file does not keep the next one out.
                self.assertEqual(self.log.count("daemon is already running", ERR, self.mark), 0)
        daemon = self.daemon(background=True)
        self.assert_stops(daemon)
        self.assertFalse(os.path.exists(PID_FILE))


class ManySignalsTest(TracedLife):
    """More than one signal."""

    def closes_before_the_first_line(self):
        """Those of a life that nothing disturbs: a signal before it is ready for it would kill it."""
        self.assertEqual(self.live(), 0)
        before, first_line, _ = self.trace().partition("sendto(")
        self.assertTrue(first_line)
        return len(re.findall(r"^close\(", before, re.MULTILINE))

    def test_one_at_every_call_from_the_first_line_on(self):
        closes = self.closes_before_the_first_line()
        for number in SIGNALS:
            with self.subTest(number=number):
                status = self.live(f"sendto:signal={number.name}:when=1+",
                                   f"pselect6,select:signal={number.name}:when=1+",
                                   f"close:signal={number.name}:when={closes + 1}+")
                self.assertGreater(self.sent(number), 5)
                self.assert_good_order(status, number)


if __name__ == "__main__":
    unittest.main()
