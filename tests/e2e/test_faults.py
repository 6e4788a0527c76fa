# SPDX-License-Identifier: Apache-2.0
"""Faulty peers, full disks, exhausted resources: no crash, hang, busy loop, leak or data loss."""
import contextlib
import os
import random
import resource
import select
import signal
import socket
import time
import unittest

from support import world
from support.case import SUCCESS, EndToEndCase, failure
from support.daemon import is_instrumented
from support.leds import LedCase
from support.logs import ERR, INFO, WARNING
from support.sizes import sized
from support.tenfold import PER_MIB, STALL, TENFOLD, WHOLE, take_slowly
from support.wait import TIMEOUT, wait_until
from support.wire import frame, request

EBUSY, ENOSPC = 16, 28
THERE = request("fileexists", "/")

# The number of requests of the long run, and of connections that send an unknown protocol.
REQUESTS = sized(100_000, 1_000_000)
STRAYS = sized(2000, 20_000)


class FaultCase(EndToEndCase):
    """A daemon that must have its initial resources at the end of the test."""

    def setUp(self):
        super().setUp()
        _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
        resource.setrlimit(resource.RLIMIT_NOFILE, (min(8192, most), most))

    def start(self, files=1024, **options):
        def limit():
            resource.setrlimit(resource.RLIMIT_NOFILE, (files, files))
        daemon = self.daemon(setup=limit, **options)
        # Not during an attempt to connect to the master, which has an additional descriptor.
        daemon.wait_asleep()
        self.at_start = daemon.descriptors()
        return daemon

    def assert_serves(self, peer=None):
        peer = peer or self.client()
        self.assertEqual(peer.ask("fileexists", "/").fields, SUCCESS)
        return peer

    def assert_descriptors_as_at_start(self, daemon):
        wait_until(lambda: len(daemon.descriptors()) == len(self.at_start),
                   f"descriptors as at the start, {self.at_start}")

    def assert_descriptors_as_at_start_but_one(self, daemon):
        wait_until(lambda: len(daemon.descriptors()) == len(self.at_start) + 1, "one is left")

    def assert_idle(self, daemon):
        """The daemon sleeps 0.1 s in each pass: twenty passes take at least a second."""
        def switches():
            with open(f"/proc/{daemon.pid}/status", encoding="ascii") as status:
                return int(status.read().partition("\nvoluntary_ctxt_switches:")[2].split()[0])
        begin, first, used = time.monotonic(), switches(), daemon.cpu_seconds()
        wait_until(lambda: switches() >= first + 20, "twenty passes of the loop")
        self.assertGreaterEqual(time.monotonic() - begin, 1.0)
        self.assertLess(daemon.cpu_seconds() - used, 0.5)


class ConnectionLimitTest(FaultCase):
    """More connections than the limit."""

    def assert_surplus_is_refused(self, count, files):
        daemon = self.start(files)
        clients = []
        for _ in range(count):
            clients.append(self.client())
        wait_until(lambda: self.log.count("accepted connection, .*") == count, "all are accepted")
        served = refused = 0
        for client in clients:
            with contextlib.suppress(ConnectionResetError, BrokenPipeError, AssertionError):
                client.send(THERE)
                served += client.receive().fields == SUCCESS
                continue
            refused += 1
        self.assertEqual(served, 960 - len(self.at_start))
        self.assertEqual(self.log.count(r"too many connections, closing socket 960", WARNING),
                         refused)
        self.assertEqual(served + refused, count)
        for client in clients:
            client.close()
        self.assert_descriptors_as_at_start(daemon)
        self.assert_serves()
        self.assert_stops(daemon)

    def test_950_are_served_and_of_20_more_the_surplus_is_refused(self):
        self.assert_surplus_is_refused(970, 1024)

    def test_a_higher_limit_of_descriptors_changes_nothing(self):
        self.assert_surplus_is_refused(1100, 8192)

    def test_without_descriptors_the_waiting_connection_is_closed(self):
        daemon = self.start()
        first = self.assert_serves()
        limit = max(daemon.descriptors()) + 1
        resource.prlimit(daemon.pid, resource.RLIMIT_NOFILE, (limit, 1024))
        for _ in range(20):
            self.assertEqual(self.client().read_to_end(), b"")
        self.assertEqual(
            self.log.count("unable to accept incoming connection, accept: Too many open files",
                           ERR), 20)
        self.assert_idle(daemon)
        self.assert_serves(first)
        resource.prlimit(daemon.pid, resource.RLIMIT_NOFILE, (1024, 1024))
        self.assert_serves()
        self.assert_stops(daemon)

    def test_tasks_fail_with_an_error_without_descriptors(self):
        daemon = self.start()
        client = self.assert_serves()
        kept = self.file("kept", b"kept")
        tasks = (("read", kept), ("write", kept, "kept"), ("append", kept, ""),
                 ("readdir", self.directory), ("exec", "/bin/true"), ("processrunning", "world"),
                 ("updateumstate", "key", "x"))
        # Run once with free descriptors: a sanitizer needs one when it meets a new type.
        for arguments in tasks:
            self.assertEqual(client.ask(*arguments).fields[0], 0, arguments)
        resource.prlimit(daemon.pid, resource.RLIMIT_NOFILE,
                         (max(daemon.descriptors()) + 1, 1024))
        for arguments in tasks:
            with self.subTest(arguments):
                self.assertEqual(client.ask(*arguments).fields, failure(24))
        self.assertEqual(self.content("kept"), b"kept")
        resource.prlimit(daemon.pid, resource.RLIMIT_NOFILE, (1024, 1024))
        self.assertEqual(client.ask("read", kept).output, b"kept")
        self.assert_stops(daemon)

    def test_an_idle_daemon_sleeps(self):
        daemon = self.start()
        self.assert_serves()
        self.assert_idle(daemon)
        self.assert_stops(daemon)


class LeavingPeerTest(FaultCase):
    """Peers that disconnect at critical moments."""

    def test_peers_that_close_or_reset_in_the_middle_of_a_request(self):
        daemon = self.start()
        whole = request("write", self.path("must-not-be"), "x" * 3000)
        choice = random.Random(1)
        for number in range(300):
            client = self.client()
            client.send(whole[:choice.randrange(len(whole))])
            client.close() if number % 2 else client.reset()
        self.assert_serves()
        self.assert_descriptors_as_at_start_but_one(daemon)
        self.assertFalse(os.path.exists(self.path("must-not-be")))
        self.assert_stops(daemon)

    def test_a_peer_that_closes_after_each_byte_of_three_requests(self):
        daemon = self.start()
        path = self.path("appended")
        one = request("append", path, "x")
        for count in range(1, 3 * len(one)):
            client = self.client()
            client.send((one * 3)[:count])
            client.close()
        done = sum(count // len(one) for count in range(1, 3 * len(one)))
        wait_until(lambda: os.path.getsize(path) >= done, "all whole requests run")
        self.assert_serves()
        self.assert_descriptors_as_at_start_but_one(daemon)
        self.assertEqual(os.path.getsize(path), done)
        self.assert_stops(daemon)

    def test_peers_that_reset_in_the_middle_of_a_reply(self):
        daemon = self.start()
        big = self.file("big", bytes(8 << 20))
        for _ in range(20):
            client = self.client()
            client.send(request("read", big))
            client.receive_bytes(100)
            client.reset()
        self.assert_serves()
        self.assert_descriptors_as_at_start_but_one(daemon)
        self.assertEqual(self.log.count(r"sendMessage: socket \d+, .*", ERR), 20)
        self.assert_stops(daemon)

    def test_peers_that_close_before_they_read_their_answers(self):
        daemon = self.start()
        for _ in range(50):
            client = self.client()
            client.send(THERE * 500)
            client.receive()
            client.close()
        self.assert_serves()
        self.assert_descriptors_as_at_start_but_one(daemon)
        self.assert_stops(daemon)

    def test_a_peer_that_closes_only_its_own_direction_gets_its_answers(self):
        daemon = self.start()
        client = self.client()
        client.send(THERE * 50)
        client.socket.shutdown(socket.SHUT_WR)
        answers = client.read_to_end()
        self.assertEqual(answers.count(b"SlaveTask 0 0 0: 0 0 0 0 0"), 50)
        self.assert_stops(daemon)

    def test_urgent_data_drops_a_client(self):
        daemon = self.start()
        client = self.assert_serves()
        client.socket.send(b"!", socket.MSG_OOB)
        self.log.wait_for(r"inbound connection \d+ disconnected", INFO)
        self.assertEqual(client.read_to_end(), b"")
        self.assert_serves()
        self.assert_stops(daemon)

    def test_a_reply_of_64_mib_that_the_peer_does_not_read_is_dropped(self):
        daemon = self.start()
        big = self.path("big")
        with open(big, "wb") as file:
            file.truncate(64 << 20)
        stuck = self.client(receive_buffer=4096)
        stuck.send(request("read", big) + request("write", self.path("after"), "still runs"))
        self.log.wait_for(r"sendMessage: socket \d+, .+", ERR, timeout=120)
        self.assert_serves()
        wait_until(lambda: os.path.exists(self.path("after")), "what was queued still runs")
        self.assert_descriptors_as_at_start_but_one(daemon)
        self.assert_stops(daemon)

    def test_a_reply_of_64_mib_to_a_reader_in_small_steps_arrives_whole(self):
        daemon = self.start()
        content = random.Random(2).randbytes(64 << 20)
        reader = self.client(receive_buffer=65536)
        reader.send(request("read", self.file("big", content)))
        reply = reader.receive(300)
        self.assertTrue(reply.output == content)
        self.assert_stops(daemon)


class SlowReaderTest(FaultCase):
    """Readers of a large reply that read it in small steps."""

    GIVEN_UP = r"sendMessage: socket \d+, Connection timed out"

    def reader(self, mebibytes):
        """Requests a file of this size. Returns the daemon, the reader and the time of the request."""
        daemon = self.start(**TENFOLD)
        with open(self.path("big"), "wb") as file:
            file.truncate(mebibytes << 20)
        client = self.client(receive_buffer=8192)
        begun = time.monotonic()
        client.send(request("read", self.path("big")))
        return daemon, client, begun

    def given_up(self):
        return self.log.count(self.GIVEN_UP, ERR) > 0

    def assert_given_up(self, daemon, taken, limit):
        self.assertTrue(taken.startswith(b"\x01"))
        self.assertLess(len(taken), limit)
        self.assert_serves()
        self.assert_descriptors_as_at_start_but_one(daemon)
        self.assert_stops(daemon)

    def test_a_reader_that_reads_few_bytes_has_the_whole_time(self):
        daemon, client, begun = self.reader(16)
        hang = begun + 2 * TIMEOUT
        taken = take_slowly(client.socket, lambda: self.given_up() or time.monotonic() > hang)
        self.assertTrue(self.given_up())
        self.assertGreaterEqual(time.monotonic() - begun, WHOLE + 16 * PER_MIB)
        self.assert_given_up(daemon, taken, 16 << 20)

    def test_a_reader_that_stops_is_given_up_after_the_stall(self):
        daemon, client, begun = self.reader(128)
        taken = take_slowly(client.socket, lambda: time.monotonic() > begun + 1.5 * STALL)
        self.assertFalse(self.given_up())
        stopped = time.monotonic()
        self.log.wait_for(self.GIVEN_UP, ERR, timeout=2 * TIMEOUT)
        # The last acknowledgement may precede the last read.
        self.assertGreaterEqual(time.monotonic() - stopped, 0.9 * STALL)
        self.assertLess(time.monotonic() - begun, WHOLE + 128 * PER_MIB)
        self.assert_given_up(daemon, taken, 128 << 20)


class FileSystemTest(FaultCase):
    """Full and read-only disks, mount points."""

    def small_disk(self):
        disk = self.path("disk")
        os.mkdir(disk)
        world.mount("-t", "tmpfs", "-o", "size=1m", "tmpfs", disk)
        self.addCleanup(world.unmount, disk)
        return disk

    def test_a_full_disk_loses_nothing(self):
        daemon = self.start()
        disk = self.small_disk()
        client = self.client()
        old = b"old" * 1000
        self.assertEqual(client.ask("write", f"{disk}/file", old).fields, SUCCESS)
        big = bytes(2 << 20)
        for task in ("write", "append"):
            self.assertEqual(client.ask(task, f"{disk}/file", big).fields, failure(ENOSPC))
            self.assertEqual(self.content("disk/file"), old)
        self.assertEqual(client.ask("write", f"{disk}/other", big).fields, failure(ENOSPC))
        self.assertEqual(client.ask("append", f"{disk}/file", "new").fields, SUCCESS)
        self.assertEqual(self.content("disk/file"), old + b"new")
        self.assertEqual(os.listdir(disk), ["file"])
        self.assert_stops(daemon)

    def test_a_disk_that_fills_up_during_an_append(self):
        daemon = self.start()
        disk = self.small_disk()
        client = self.client()
        length = 0
        while True:
            fields = client.ask("append", f"{disk}/file", b"y" * 30_000).fields
            self.assertEqual(os.path.getsize(f"{disk}/file"), length + 30_000 * (fields == SUCCESS))
            if fields != SUCCESS:
                break
            length += 30_000
            self.assertLess(length, 2 << 20)
        self.assertEqual(fields, failure(ENOSPC))
        self.assert_stops(daemon)

    def test_a_mount_point_refuses_a_rename_and_accepts_a_write(self):
        daemon = self.start()
        client = self.client()
        below, point = self.file("below", b"old"), self.file("point")
        world.mount("--bind", below, point)
        self.addCleanup(world.unmount, point)
        source = self.file("source", b"source")
        self.assertEqual(client.ask("rename", source, point).fields, failure(EBUSY))
        self.assertEqual(self.content("source"), b"source")
        self.assertEqual(client.ask("write", point, "new").fields, SUCCESS)
        self.assertEqual((self.content("point"), self.content("below")), (b"new", b"new"))
        self.assertEqual(sorted(name for name in os.listdir(self.directory)
                                if not name.startswith(("stderr.", "sanitizer."))),
                         ["below", "point", "source"])
        self.assert_stops(daemon)

    def test_a_read_only_disk_is_an_error(self):
        daemon = self.start()
        disk = self.small_disk()
        client = self.client()
        self.assertEqual(client.ask("write", f"{disk}/file", "old").fields, SUCCESS)
        world.mount("-o", "remount,ro", disk)
        for arguments in (("write", f"{disk}/file", "x"), ("append", f"{disk}/file", "x"),
                          ("unlink", f"{disk}/file"), ("write", f"{disk}/new", "x"),
                          ("rename", f"{disk}/file", f"{disk}/b"), ("chmodx", f"{disk}/file")):
            with self.subTest(arguments):
                self.assertEqual(client.ask(*arguments).fields, failure(30))
        self.assertEqual(self.content("disk/file"), b"old")
        self.assert_stops(daemon)


class ProgramTest(FaultCase):
    """Faulty programs."""

    def test_a_gigabyte_of_output_is_read_and_discarded(self):
        daemon = self.start()
        client = self.client()
        reply = client.ask("exec", "head", "-c", str(1 << 30), "/dev/zero", timeout=300)
        self.assertEqual((reply.fields, len(reply.output)), ((0, 2, 0, 0, 0), 16 << 20))
        self.assert_stops(daemon)

    def test_programs_of_many_closed_connections_leave_no_zombie(self):
        daemon = self.start()
        for _ in range(50):
            client = self.client()
            self.assertEqual(client.ask("exec", "/bin/true", exec_param=-1).fields,
                             (2, 1, 0, 0, 0))
            client.close()
        wait_until(lambda: not daemon.zombies(), "all are reaped")
        self.assert_descriptors_as_at_start(daemon)
        self.assert_stops(daemon)

    def test_forgotten_programs_are_polled_twice_a_second_at_any_rate_of_passes(self):
        daemon = self.daemon(detect_leaks=False, wrapper=(
            "strace", "-qq", "-o", self.path("trace"), "--trace=wait4,waitid"))
        started = self.leave_behind_sleeping(20)
        clients = [self.assert_serves() for _ in range(20)]
        begin, before = time.monotonic(), self.content("trace").count(b"wait")
        for client in clients * 5:
            self.assert_serves(client)
        elapsed, asked = time.monotonic() - begin, self.content("trace").count(b"wait") - before
        self.assertLessEqual(asked, 2 * elapsed + 2)
        for program in started:
            os.kill(program, signal.SIGKILL)
        wait_until(lambda: not any(os.path.exists(f"/proc/{program}") for program in started),
                   "all are reaped")
        os.kill(self.log.wait_for("listening on port 5111").pid, signal.SIGTERM)
        self.assertEqual(daemon.wait(), 0)

    def leave_behind_sleeping(self, count):
        """Starts programs that outlive their connections. Returns their pids."""
        client = self.client()
        script = f"echo $$ >>{self.path('started')}; exec sleep 1000"
        for _ in range(count):
            client.ask("exec", "/bin/sh", "-c", script, exec_param=-1)
        client.close()
        wait_until(lambda: os.path.exists(self.path("started")) and
                   self.content("started").count(b"\n") == count, "all run")
        return [int(number) for number in self.content("started").split()]


class LedOwnerTest(LedCase, FaultCase):
    """The connection that drives the LEDs closes while they blink."""

    def test_the_blink_continues_through_another_connection(self):
        daemon = self.start()
        stays, leaves = self.assert_serves(), self.assert_serves()
        self.assertEqual(leaves.ask("blinkleds", "fast").fields, SUCCESS)
        self.assert_blinks()
        leaves.close()
        self.log.wait_for("dropping connection: .*")
        self.assert_blinks()
        self.assertEqual(stays.ask("blinkleds", "off").fields, SUCCESS)
        self.assertEqual(self.brightness(), ("0", "0"))
        self.assert_stops(daemon)

    def test_without_a_connection_they_keep_their_state(self):
        daemon = self.start()
        leaves = self.assert_serves()
        self.assertEqual(leaves.ask("blinkleds", "fast").fields, SUCCESS)
        self.assert_blinks()
        leaves.reset()
        self.log.wait_for("dropping connection: .*")
        before = self.brightness()
        self.assert_idle(daemon)
        self.assertEqual(self.brightness(), before)
        self.assert_stops(daemon)

    def test_a_blink_is_answered_on_the_connection_of_the_request(self):
        daemon = self.start()
        older, _ = self.assert_serves(), self.assert_serves()
        os.unlink("/sys/class/leds/second/brightness")
        os.rmdir("/sys/class/leds/second")
        self.assertEqual(older.ask("blinkleds", "on").fields, failure(2))
        self.assert_stops(daemon)


class StrayConnectionTest(FaultCase):
    """Connections with an unknown protocol."""

    def test_two_hundred_do_not_disturb_other_connections(self):
        daemon = self.start()
        choice = random.Random(5)
        strays = [self.client() for _ in range(200)]
        client = self.client()
        for turn in range(10):
            for stray in strays:
                # Neither the first byte of a frame nor that of an agent: creates no handler.
                stray.send(b"t" + choice.randbytes(choice.randrange(200)))
            self.assert_serves(client)
        wait_until(lambda: self.log.count(
            r"handle_data_read: ignoring telnet connection, socket \d+", INFO) >= 200, "all seen")
        self.assertEqual(self.log.count(".*creating.*"), 1)
        for stray in strays:
            stray.close()
        client.close()
        self.assert_descriptors_as_at_start(daemon)
        self.assert_stops(daemon)

    def test_thousands_in_sequence_leave_nothing_behind(self):
        daemon = self.start()
        client = self.assert_serves()
        lasting = self.client()
        self.log.forget()
        self.send_unknown_bytes(lasting, 100)
        before = daemon.resident_bytes()
        for _ in range(STRAYS // 1000):
            self.send_unknown_bytes(lasting, 1000)
        self.assert_serves(client)
        # The address sanitizer retains up to 256 MiB of freed memory.
        self.assertLess(daemon.resident_bytes() - before, (320 if is_instrumented() else 1) << 20)
        lasting.close()
        client.close()
        self.assert_descriptors_as_at_start(daemon)
        self.assert_stops(daemon)

    def send_unknown_bytes(self, lasting, count):
        """Sends them from @p count new connections and @p count times from @p lasting."""
        for number in range(count):
            stray = self.client()
            for peer in (stray, lasting):
                peer.send(b"nonsense %d\r\n" % number)
            stray.close()
        # The daemon has read everything when each end is logged.
        wait_until(lambda: self.log.count("dropping connection: .*") >= count, "all are gone")
        self.assertEqual(self.log.count(".*creating.*"), 0)
        self.log.forget()

    def test_log_lines_of_binary_bytes_are_harmless(self):
        daemon = self.start()
        client = self.client()
        client.send(frame(bytes(range(256))) + THERE)
        self.assertEqual(client.receive().fields, SUCCESS)
        self.log.wait_for("handleMessage: unexpected task '.*'", ERR)
        self.assert_stops(daemon)


class LostLogTest(FaultCase):
    """No process reads the system log."""

    def assert_lives_without(self):
        """The daemon works and writes its log lines to standard error."""
        daemon = self.daemon(wait=False)
        wait_until(lambda: "listening on port 5111" in daemon.stderr(), "it listens")
        client = self.assert_serves()
        client.send(frame(b"no task"))
        wait_until(lambda: "unexpected task" in daemon.stderr(), "the line is shown")
        self.assertEqual(client.ask("fileexists", "/").fields, SUCCESS)
        targets = daemon.descriptors()
        self.assertEqual((targets[0], targets[1]), ("/dev/null", daemon.stderr_path))
        return daemon

    def test_without_dev_log(self):
        with self.log.away():
            daemon = self.assert_lives_without()
        # The daemon uses /dev/log again as soon as it exists.
        client = self.client()
        client.send(frame(b"no task either"))
        self.log.wait_for("handleMessage: unexpected task 'no task either'", ERR)
        self.assert_stops(daemon)

    def test_dev_log_without_a_reader(self):
        with self.log.away():
            with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as closed:
                closed.bind("/dev/log")
            daemon = self.assert_lives_without()
            self.assert_stops(daemon)
        self.assertEqual(self.log.lines, [])

    def test_dev_log_is_closed_during_the_run(self):
        with self.log.away():
            with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as leaving:
                leaving.bind("/dev/log")
                daemon = self.assert_lives_without()
                self.assertNotEqual(leaving.recv(4096), b"")
            self.assert_serves()
        self.client().send(b"<hello/>")
        self.log.wait_for("handle_data_read: creating agent socket handler, .*", INFO)
        self.assert_stops(daemon)


class LongRunTest(FaultCase):
    """Many requests on many short-lived connections."""

    CONNECTIONS = 50
    BURST = 500

    def test_memory_and_descriptors_do_not_grow_in_a_long_run(self):
        daemon = self.start(environment={"ASAN_OPTIONS": f"log_path={self.directory}/sanitizer:"
                                         "exitcode=86:quarantine_size_mb=1"})
        warm_up = self.run_requests(20_000)
        self.assert_descriptors_as_at_start(daemon)
        before = daemon.resident_bytes()
        done = self.run_requests(REQUESTS)
        self.assertEqual((warm_up, done), (20_000, REQUESTS))
        self.assert_descriptors_as_at_start(daemon)
        self.assertLess(daemon.resident_bytes() - before, 4 << 20)
        self.assert_serves()
        self.assert_stops(daemon)

    def run_requests(self, total):
        """Pipelines @p total requests over fifty connections. Returns the number of answers."""
        answer = frame(b"SlaveTask 0 0 0: 0 0 0 0 0")
        burst = THERE * self.BURST
        open_now, started, answered = {}, 0, 0
        while answered < total:
            while started < total and len(open_now) < self.CONNECTIONS:
                client = self.plain_client()
                open_now[client] = 0
                client.sendall(burst)
                started += self.BURST
            ready, _, _ = select.select(list(open_now), [], [], TIMEOUT)
            self.assertTrue(ready, "no answers any more")
            for client in ready:
                open_now[client] += len(client.recv(1 << 16))
                if open_now[client] == len(answer) * self.BURST:
                    answered += self.BURST
                    del open_now[client]
                    client.close()
        return answered

    def plain_client(self):
        client = socket.create_connection(("127.0.0.1", 5111))
        self.addCleanup(client.close)
        return client


if __name__ == "__main__":
    unittest.main()
