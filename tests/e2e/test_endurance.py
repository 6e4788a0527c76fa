# SPDX-License-Identifier: Apache-2.0
"""Hours of work in a short time: many requests on many short-lived connections."""
import select
import socket
import time

from support.case import EndToEndCase
from support.daemon import is_instrumented
from support.sizes import sized
from support.wait import wait_until
from support.wire import request

REQUESTS = sized(200_000, 1_000_000)
CONNECTIONS = 50
BURST = 100  # unanswered requests on one connection
BURSTS_EACH = 40  # then a new connection replaces the old one
LIMIT = 900  # seconds, against a hang
GROWTH = 2 << 20  # bytes that the allocator may retain


class Worker:
    """One connection that pipelines BURST requests and counts the bytes of the answers."""

    def __init__(self, question, answer):
        self.question = question * BURST
        self.answer = answer * BURST
        self.bursts = 0
        self.socket = socket.create_connection(("127.0.0.1", 5111))
        self.ask()

    def ask(self):
        self.received = b""
        self.socket.sendall(self.question)

    def take(self):
        """Reads received bytes. True if every request of the burst has its expected answer."""
        data = self.socket.recv(1 << 16)
        assert data, "the daemon closed a connection"
        self.received += data
        if len(self.received) < len(self.answer):
            return False
        assert self.received == self.answer, "an answer is not what it must be"
        self.bursts += 1
        return True


class Endurance(EndToEndCase):
    def setUp(self):
        super().setUp()
        path = self.file("there")
        record = b"SlaveTask 0 0 0: 0 0 0 0 0"
        self.question = request("fileexists", path)
        self.answer = b"\x01%d\x02%s" % (len(record), record)

    def run_requests(self, count):
        """Sends @p count requests, and checks that each is answered."""
        left = count // BURST
        workers = {}
        deadline = time.monotonic() + LIMIT
        poll = select.epoll()

        def start():
            worker = Worker(self.question, self.answer)
            workers[worker.socket.fileno()] = worker
            poll.register(worker.socket.fileno(), select.EPOLLIN)

        def end(number):
            poll.unregister(number)
            workers.pop(number).socket.close()

        for _ in range(min(CONNECTIONS, left)):
            start()
            left -= 1
        while workers:
            self.assertLess(time.monotonic(), deadline, "the daemon hangs")
            for number, _ in poll.poll(1.0):
                worker = workers[number]
                if not worker.take():
                    continue
                if left > 0 and worker.bursts < BURSTS_EACH:
                    left -= 1
                    worker.ask()
                    continue
                end(number)
                if left > 0:
                    left -= 1
                    start()
        poll.close()

    def test_nothing_is_lost_and_nothing_grows_over_many_requests(self):
        daemon = self.daemon()
        daemon.wait_asleep()
        descriptors = daemon.descriptors()
        self.run_requests(20 * CONNECTIONS * BURST)  # afterwards the memory for reuse is allocated
        wait_until(lambda: daemon.descriptors() == descriptors, "the connections are dropped")
        resident = daemon.resident_bytes()
        self.run_requests(REQUESTS)
        wait_until(lambda: daemon.descriptors() == descriptors, "the connections are dropped")
        if not is_instrumented():  # the sanitizer retains freed memory
            self.assertLess(daemon.resident_bytes(), resident + GROWTH)
        self.assertEqual(daemon.zombies(), [])
        self.assert_stops(daemon)
