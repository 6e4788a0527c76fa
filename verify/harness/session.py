# SPDX-License-Identifier: Apache-2.0
"""A daemon with failpoints, its master, and the steps of scenarios, strict or with failures."""
import contextlib
import os
import select
import signal
import time

from harness.state import State
from support import world
from support.daemon import Daemon
from support.peers import Client, Master, Peer, ready
from support.wait import wait_until

SUCCESS = (0, 0, 0, 0, 0)

# Far above what any step takes; only a hang is longer.
HANG = 20.0

# How long to wait for what a failure may have lost.
SHORT_PATIENCE = 0.3
UNANSWERED = 0.05

# What libc says from then on when the resolver could not get memory for its modules once.
NO_RESOLVER = r"resolve_master: cannot resolve name, \S+, -1 .*"


class Finding(AssertionError):
    """Something that must never be."""


class Lost(Exception):
    """A connection ended before its answer; a failure may do that."""


def expect(condition, what):
    if not condition:
        raise Finding(what)


class Session:
    """One daemon after the other, with what the scenarios need around it.

    While `strict` is set nothing may go wrong. Otherwise steps may fail, but each must end, tell
    the truth and leave files old or new; `deviations` says what went wrong so far.
    """

    def __init__(self, folder, log, libraries=("dispatch", "allocations")):
        self.folder = folder
        self.log = log
        self.libraries = libraries
        self.master = Master()
        self.daemon = None
        self.state = None
        self.slave = None
        self.strict = True
        self.deviations = []
        self.failed_replies = 0
        self.deaths_of_libc = ()  # statuses that libc may end the daemon with in its first lookup
        self.starts = 0

    def path(self, name):
        return os.path.join(self.folder, name)

    def close(self):
        self.kill()
        self.master.close()

    # Life of a daemon.

    def launch(self, *arguments, background=False):
        """Starts a daemon whose start is counted already; does not wait for it."""
        self.kill()
        self.starts += 1
        self.state = State(self.folder, f"state.{self.starts}", self.libraries)
        self.state.arm()
        return lambda: self._spawn(arguments, background)

    def _spawn(self, arguments, background):
        self.daemon = Daemon(self.log, self.folder, *arguments, background=background,
                             environment=self.state.environment, wait=False)
        os.unlink(self.daemon.stderr_path)

    def start(self, *arguments):
        """A daemon that serves, with its master connected."""
        self.strict = True
        self.launch(*arguments)()
        self.connect_slave()

    def kill(self):
        """Ends the daemon, if there is one, and all that it left."""
        if self.daemon is not None:
            self.let_end()
            self.daemon.kill()
            self.daemon = None
        world.kill_all_others()
        with contextlib.suppress(ChildProcessError):
            while os.waitpid(-1, os.WNOHANG)[0]:
                pass
        if self.state is not None:
            self.state.close()
            self.state = None
        self.drop_slaves()

    def let_end(self):
        """A build that counts executed lines writes the counts when it is asked to end."""
        if "VERIFY_COVERAGE" in os.environ and self.daemon.alive():
            os.kill(self.daemon.pid, signal.SIGTERM)
            with contextlib.suppress(AssertionError):
                wait_until(lambda: self.ended() is not None, "it ends", SHORT_PATIENCE * 10)

    def drop_slaves(self):
        """Closes the master's ends of all connections, those that wait to be accepted too."""
        while not self.master.nobody_waits():
            self.master.accept()
        for peer in self.master.peers:
            peer.close()
        self.master.peers.clear()
        self.slave = None

    def ended(self):
        """The exit status of a daemon that has ended; None while it runs."""
        if self.daemon.status is None and not self.daemon.background:
            self.daemon.status = self.daemon.process.poll()
        return self.daemon.status

    def await_crash(self):
        """Gives a daemon that is going down the moment it needs to be gone."""
        if self.log.find(r"closing listening socket \d+"):
            self.wait_end("the listening socket is closed")
        elif self.ended() is None:
            time.sleep(0.002)

    def wait_end(self, what):
        """Waits for it to end: its exit status."""
        try:
            return self.daemon.wait(HANG)
        except Exception as error:
            raise Finding(f"it does not end: {what}: {error}") from error

    # Connections.

    def connect_slave(self):
        """The daemon's next connection to its master that is alive."""
        begun = time.monotonic()
        while time.monotonic() < begun + HANG:
            if not self.strict and time.monotonic() > begun + SHORT_PATIENCE:
                self.state.pause()  # what fails for ever may keep it from connecting
            if ready(self.master.listener, select.POLLIN, 0.005):
                peer = self.master.accept()
                self.slave = peer
                return peer
            if self.ended() is not None:
                raise Lost("the daemon ended")
            if not self.strict and time.monotonic() > begun + 2 and self.log.find(NO_RESOLVER):
                raise Lost("libc's resolver does not recover")
        raise Finding("it does not connect to its master")

    def slave_or_new(self):
        if self.slave is None or not self.slave.is_open():
            if self.slave is not None:
                self.deviate("the slave connection was lost")
                self.forget(self.slave)
            self.connect_slave()
        return self.slave

    def forget(self, peer):
        peer.close()
        if peer in self.master.peers:
            self.master.peers.remove(peer)

    def client(self):
        try:
            return Client()
        except OSError as error:
            raise Lost(f"connect: {error}") from error

    # Steps.

    def deviate(self, what):
        expect(not self.strict, what)
        self.deviations.append(what)

    def receive(self, peer, take):
        """What @p take reads from @p peer; Lost when the connection ends, a Finding for a hang."""
        try:
            return self.patiently(take)
        except (ConnectionError, BrokenPipeError) as error:
            raise Lost(str(error)) from error
        except AssertionError as error:
            if "ended early" in str(error):
                raise Lost(str(error)) from error
            raise Finding(f"no answer: {error}") from error

    def patiently(self, take):
        """Waits as long as nobody could have given up; Lost for a request that an exception ended."""
        if self.strict:
            return take(HANG)
        deadline = time.monotonic() + HANG
        while True:
            try:
                return take(UNANSWERED)
            except AssertionError as error:
                if "nothing came in time" not in str(error) or time.monotonic() > deadline:
                    raise
            if self.log.find(r"handle_data_read: exception .*"):
                raise Lost("an exception ended the request")

    def reads_end(self, peer):
        """All that comes until the daemon closes; where a failure may keep it from that, all so far."""
        if self.strict:
            return self.receive(peer, peer.read_to_end)
        try:
            return peer.read_to_end(SHORT_PATIENCE)
        except AssertionError:
            self.deviate("the connection is not closed")
            return bytes(peer.buffer)

    def exchange(self, peer, data):
        """Sends @p data and gives the reply."""
        try:
            peer.send(data)
        except (ConnectionError, BrokenPipeError) as error:
            raise Lost(str(error)) from error
        except AssertionError as error:
            if "ended early" in str(error):
                raise Lost(str(error)) from error
            raise Finding(str(error)) from error
        return self.receive(peer, peer.receive)

    def ask(self, data, wanted=SUCCESS, peer=None, also=()):
        """Asks the daemon over @p peer or the slave connection: the reply, None for a failed step.

        The fields in @p also are as true as those wanted when something failed.
        """
        peer = peer or self.slave_or_new()
        try:
            reply = self.exchange(peer, data)
        except Lost as lost:
            self.deviate(f"lost: {lost}")
            if peer is self.slave:
                peer.close()
                self.forget(peer)
                self.slave = None
            raise
        if reply.fields != wanted:
            self.failed_replies += 1
            self.deviate(f"{data[:60]!r} answered {reply.fields}")
            expect(reply.fields[0] != 0 or reply.fields in also, f"success, but a wrong one: {reply}, wanted {wanted}")
            return None
        return reply

    def settle(self):
        """Closes what a scenario left; True when the daemon is in its normal state again."""
        if self.ended() is not None:
            return False
        waiting = []
        while not self.master.nobody_waits():
            waiting.append(self.master.accept())
        open_ones = [peer for peer in self.master.peers if peer.is_open()]
        for peer in list(self.master.peers):
            if peer not in open_ones:
                self.forget(peer)
        if len(open_ones) == 1:
            self.slave = open_ones[0]
        elif not open_ones:
            self.slave = None
        return len(open_ones) <= 1

    def stop(self):
        """Ends it by SIGTERM, which must work whatever happened before."""
        self.daemon.send_signal(signal.SIGTERM)
        return self.wait_end("SIGTERM")

    def quiet(self):
        """Waits until the loop has gone round: what was closed on our side is closed on its side."""
        before = self.state.process.all
        wait_until(lambda: self.ended() is not None or self.state.process.all >= before + 4,
                   "the loop goes round", HANG)


def old_or_new(path, old, new, what):
    """Whether @p path has its new content; None for @p old means that there was no such file."""
    try:
        with open(path, "rb") as file:
            content = file.read()
    except FileNotFoundError:
        content = None
    expect(content in (old, new), f"{what}: neither old nor new: "
           f"{content if content is None else content[:200]!r} ({path})")
    return content == new


__all__ = ["Finding", "Lost", "Peer", "Session", "SUCCESS", "expect", "old_or_new"]
