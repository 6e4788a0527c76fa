# SPDX-License-Identifier: Apache-2.0
"""A daemon with failpoints, its master, and the steps of scenarios, with or without failures."""
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

# Seconds. Far above the duration of any step: only a hang is longer.
HANG = 20.0

# Seconds to wait for data that a failure may have lost, and passes of the daemon's loop meanwhile: on
# a busy machine the time alone does not show that the data is lost.
SHORT_TIMEOUT = 0.3
ENOUGH_PASSES = 10
UNANSWERED = 0.05

# The error of every lookup after libc's resolver once failed to allocate memory for its modules.
NO_RESOLVER = r"resolve_master: cannot resolve name, \S+, -1 .*"


class Finding(AssertionError):
    """A violation of a rule that must always hold."""


class Lost(Exception):
    """A connection ended before its reply, which a failure may cause."""


def expect(condition, what):
    if not condition:
        raise Finding(what)


class Wait:
    """A wait for data of the daemon. While a failure may have lost the data, it is short."""

    def __init__(self, session):
        self.session = session
        self.begun = time.monotonic()
        self.passes = session.state.process.passes

    def is_over(self):
        waited = time.monotonic() - self.begun
        passes = self.session.state.process.passes - self.passes
        return waited > HANG or (not self.session.strict and waited > SHORT_TIMEOUT and
                                 passes >= ENOUGH_PASSES)


class Session:
    """Runs one daemon after the other, with the environment that the scenarios need.

    While `strict` is set, every step must succeed. Otherwise steps may fail, but each must end, send no
    wrong reply and leave each file with its old or new content. `deviations` lists the failed steps.
    """

    def __init__(self, directory, log, libraries=("dispatch", "allocations")):
        self.directory = directory
        self.log = log
        self.libraries = libraries
        self.master = Master()
        self.daemon = None
        self.state = None
        self.slave = None
        self.strict = True
        self.deviations = []
        self.failed_replies = 0
        self.deaths_of_libc = ()  # exit statuses of a crash inside libc in the first lookup
        self.starts = 0

    def path(self, name):
        return os.path.join(self.directory, name)

    def close(self):
        self.kill()
        self.master.close()

    # Start and end of a daemon.

    def launch(self, *arguments, background=False):
        """Prepares a daemon and starts to count. Returns the function that spawns it."""
        self.kill()
        self.starts += 1
        self.state = State(self.directory, f"state.{self.starts}", self.libraries)
        self.state.arm()
        return lambda: self._spawn(arguments, background)

    def _spawn(self, arguments, background):
        self.daemon = Daemon(self.log, self.directory, *arguments, background=background,
                             environment=self.state.environment, wait=False)
        os.unlink(self.daemon.stderr_path)

    def start(self, *arguments):
        """Starts a daemon and waits until it is connected to its master."""
        self.strict = True
        self.launch(*arguments)()
        self.connect_slave()

    def kill(self):
        """Kills the daemon, if any, and all remaining processes."""
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
        """Lets a coverage build exit on SIGTERM, because it writes its counts at exit."""
        if "VERIFY_COVERAGE" in os.environ and self.daemon.alive():
            os.kill(self.daemon.pid, signal.SIGTERM)
            with contextlib.suppress(AssertionError):
                wait_until(lambda: self.ended() is not None, "it ends", SHORT_TIMEOUT * 10)

    def drop_slaves(self):
        """Closes the master's ends of all connections, including those not yet accepted."""
        while not self.master.no_connection_waits():
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

    def wait_end(self, what):
        """Waits for the daemon to end. Returns its exit status."""
        try:
            return self.daemon.wait(HANG)
        except Exception as error:
            raise Finding(f"the daemon does not end: {what}: {error}") from error

    # Connections.

    def connect_slave(self):
        """Waits for the daemon's next connection to its master."""
        begun = time.monotonic()
        while time.monotonic() < begun + HANG:
            if not self.strict and time.monotonic() > begun + SHORT_TIMEOUT:
                self.state.pause()  # a permanent failure may prevent the connection
            if ready(self.master.listener, select.POLLIN, 0.005):
                peer = self.master.accept()
                self.slave = peer
                return peer
            if self.ended() is not None:
                raise Lost("the daemon ended")
            if not self.strict and time.monotonic() > begun + 2 and self.log.find(NO_RESOLVER):
                raise Lost("libc's resolver does not recover")
        raise Finding("the daemon does not connect to its master")

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
        """The data that @p take reads. Raises Lost when the connection ends, Finding for a hang."""
        try:
            return self.wait_for_reply(take)
        except (ConnectionError, BrokenPipeError) as error:
            raise Lost(str(error)) from error
        except AssertionError as error:
            if "ended early" in str(error):
                raise Lost(str(error)) from error
            raise Finding(f"no reply: {error}") from error

    def wait_for_reply(self, take):
        """Waits longer than any timeout of the daemon. Raises Lost when an exception ended the request."""
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

    def arrives(self, peer):
        """Whether data or the end of file arrives at @p peer."""
        wait = Wait(self)
        while not ready(peer.socket, select.POLLIN, 0.01):
            if wait.is_over():
                return False
        return True

    def reads_end(self, peer):
        """All data until the daemon closes the connection. With failures possible, stops at a timeout."""
        if self.strict:
            return self.receive(peer, peer.read_to_end)
        wait = Wait(self)
        while not wait.is_over():
            with contextlib.suppress(AssertionError):  # keeps the data so far
                return peer.read_to_end(UNANSWERED)
        self.deviate("the connection is not closed")
        return bytes(peer.buffer)

    def exchange(self, peer, data):
        """Sends @p data and returns the reply."""
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
        """Sends a request over @p peer or the slave connection. Returns the reply, None for a failed step.

        After a failure, the fields in @p also are as correct as those in @p wanted.
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
            self.deviate(f"{data[:60]!r} got the reply {reply.fields}")
            expect(reply.fields[0] != 0 or reply.fields in also,
                   f"wrong success: {reply}, expected {wanted}")
            return None
        return reply

    def settle(self):
        """Closes remaining connections. Returns True when the daemon is in its normal state again."""
        if self.ended() is not None:
            return False
        waiting = []
        while not self.master.no_connection_waits():
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
        """Ends the daemon with SIGTERM, which must work after any failure."""
        self.daemon.send_signal(signal.SIGTERM)
        return self.wait_end("SIGTERM")

    def quiet(self, passes=4):
        """Waits for passes of the daemon's loop. Each closes one of the connections that we closed.

        Two are enough for the consequences of the calls so far: the first may be under way. A daemon
        that is about to end has then ended.
        """
        wanted = self.state.process.passes + passes
        wait_until(lambda: self.ended() is not None or self.state.process.passes >= wanted,
                   "a pass of the loop", HANG)


def old_or_new(path, old, new, what):
    """Whether @p path has its new content. None for @p old: the file did not exist before."""
    try:
        with open(path, "rb") as file:
            content = file.read()
    except FileNotFoundError:
        content = None
    expect(content in (old, new), f"{what}: neither old nor new: "
           f"{content if content is None else content[:200]!r} ({path})")
    return content == new


__all__ = ["Finding", "Lost", "Peer", "Session", "SUCCESS", "Wait", "expect", "old_or_new"]
