# SPDX-License-Identifier: Apache-2.0
"""The relay between faulty peers: none blocks the daemon for long, and all resources are freed."""
import random
import threading
import time
import unittest

from support.case import SUCCESS
from support.daemon import is_instrumented
from support.logs import ERR, INFO, WARNING
from support.relay import NEW_AGENT, NO_PEER, NO_QUARANTINE, RelayCase, processor_seconds
from support.sizes import sized
from support.tenfold import STALL, TENFOLD, take_slowly
from support.wait import TIMEOUT, wait_until

MIB = 1 << 20

# The number of agents while the master is up, refuses, and drops packets; the size of an unfinished
# clause.
AGENTS = 2000 if is_instrumented() else sized(2000, 10_000)
REFUSED_AGENTS = sized(150, 500)
SWALLOWED_AGENTS = sized(3, 20)
CLAUSE_MIB = 64 if is_instrumented() else sized(128, 1024)

CLAUSE = b"<clause>" + b"x" * 183 + b"</clause>"
DROPPED = r"drop_socket: dropping update manager agent socket \d+"


class Background(threading.Thread):
    """Runs a function in a thread; `finish` waits for it and raises its exception."""

    def __init__(self, work, *arguments):
        super().__init__(daemon=True)
        self.work = lambda: work(*arguments)
        self.failure = None
        self.start()

    def run(self):
        try:
            self.work()
        except BaseException as failure:  # raised by `finish`
            self.failure = failure

    def finish(self, timeout=2 * TIMEOUT):
        self.join(timeout)
        assert not self.is_alive(), "still at work"
        if self.failure:
            raise self.failure


class StuckPeerTest(RelayCase):
    """One side sends, the other reads nothing: the daemon waits 30 s, once."""

    def flood(self, sender):
        """Sends clauses until the daemon drops the connection."""
        clauses = CLAUSE * 1000
        sent = 0
        sender.socket.settimeout(TIMEOUT)
        try:
            while True:
                sent += sender.socket.send(clauses[sent % len(CLAUSE):])
                self.assertLess(sent, 1 << 30, "the daemon takes everything")
        except (BrokenPipeError, ConnectionResetError):
            pass

    def assert_given_up_once(self, number):
        timed_out = (rf"write: error (on|write failed on) socket {number} "
                     r"\((?!32, Broken pipe|104, Connection reset by peer).*")
        self.assertEqual(self.log.count(timed_out, ERR), 1)

    def assert_stuck_peer_is_dropped(self, sender, stuck, number):
        begun = time.monotonic()
        flooding = Background(self.flood, sender)
        self.log.wait_for(rf"write: error .* socket {number} \(.*", ERR, timeout=2 * TIMEOUT)
        self.assertGreaterEqual(time.monotonic() - begun, 29)
        self.assertEqual(self.slave.ask("fileexists", "/").fields, SUCCESS)
        flooding.finish()
        self.assertTrue(CLAUSE + b"\r\n" + CLAUSE in stuck.read_to_end())
        self.assert_given_up_once(number)

    def test_a_silent_master(self):
        daemon, agent, bridge = self.bridged()
        self.assert_stuck_peer_is_dropped(agent, bridge, self.bridge_number)
        self.log.wait_for(f"process_read declared the outbound connection {self.bridge_number} "
                          "dead", INFO)
        self.assert_next_agent_is_served()
        self.assert_stops(daemon)

    def test_a_silent_agent(self):
        daemon, agent, bridge = self.bridged()
        self.assert_stuck_peer_is_dropped(bridge, agent, self.agent_number)
        self.log.wait_for(f"dropping connection: {self.agent_number}", INFO)
        self.assert_next_agent_is_served()
        self.assert_stops(daemon)

    def test_a_master_that_reads_one_large_clause_too_slowly(self):
        daemon, agent, bridge = self.bridged()
        enough = threading.Event()
        taken = bytearray()

        def take_slowly():
            while not enough.wait(0.1):
                taken.extend(bridge.receive_bytes(8192))

        slow = Background(take_slowly)
        clause = b"<a>" + b"x" * 64 * MIB + b"</a>"
        agent.send(clause)
        self.log.wait_for(rf"write: error write failed on socket {self.bridge_number} \(.*", ERR,
                          timeout=2 * TIMEOUT)
        enough.set()
        slow.finish()
        self.assertGreater(len(taken), 100 * 8192)
        taken.extend(bridge.read_to_end())
        self.assertTrue(clause.startswith(taken))
        self.assertLess(len(taken), len(clause))
        self.assert_given_up_once(self.bridge_number)
        self.assert_next_agent_is_served()
        self.assert_stops(daemon)

    def test_a_slow_master_that_reads_its_clauses_in_time_gets_them_all(self):
        daemon, agent, bridge = self.bridged()
        sending = Background(agent.send, CLAUSE * 20000)
        expected = (CLAUSE + b"\r\n") * 20000
        pause = threading.Event()
        for start in range(0, len(expected), 100_000):
            pause.wait(0.05)
            part = expected[start:start + 100_000]
            self.assertTrue(bridge.receive_bytes(len(part)) == part)
        sending.finish()
        self.assertEqual(self.log.count("write: .*"), 0)
        self.assert_relays(agent, bridge)
        self.assert_stops(daemon)


class SlowPeerTest(RelayCase):
    """One side sends, the other reads in small steps."""

    COUNT = 60_000  # more than the buffers hold

    def assert_gets_everything(self, daemon, sender, slow):
        sending = Background(sender.send, CLAUSE * self.COUNT)
        enough = time.monotonic() + 3 * STALL
        taken = take_slowly(slow.socket, lambda: time.monotonic() > enough)
        self.assertEqual(self.log.count("write: .*"), 0)
        self.assertTrue(sending.is_alive(), "the buffers hold everything")
        expected = (CLAUSE + b"\r\n") * self.COUNT
        self.assertTrue(taken + slow.receive_bytes(len(expected) - len(taken)) == expected)
        sending.finish()
        self.assertEqual(self.log.count("write: .*"), 0)
        self.assertEqual(self.slave.ask("fileexists", "/").fields, SUCCESS)
        self.assert_stops(daemon)

    def test_a_master_that_reads_slowly(self):
        daemon, agent, bridge = self.bridged(**TENFOLD)
        self.assert_gets_everything(daemon, agent, bridge)

    def test_an_agent_that_reads_slowly(self):
        daemon, agent, bridge = self.bridged(**TENFOLD)
        self.assert_gets_everything(daemon, bridge, agent)


class LeavingPeerTest(RelayCase):
    """Peers that reset at critical moments."""

    def test_an_agent_that_resets_in_the_middle_of_a_clause(self):
        daemon, agent, bridge = self.bridged("-v")
        agent.send(b"<a/><b>half")
        self.log.wait_for(r"nextXmlClause: closing not found, size = 7, .*", WARNING)
        agent.reset()
        self.assertEqual(bridge.read_to_end(), b"<a/>\r\n")
        self.log.wait_for(f"recvfrom: socket {self.agent_number}, 104 Connection reset by peer",
                          ERR)
        self.assert_next_agent_is_served()
        self.assert_stops(daemon)

    def test_a_master_that_resets_the_bridge_in_the_middle_of_a_clause(self):
        daemon, agent, bridge = self.bridged("-v")
        bridge.send(b"<a/><b>half")
        self.assertEqual(agent.receive_bytes(6), b"<a/>\r\n")
        bridge.reset()
        self.assertEqual(agent.read_to_end(), b"")
        self.log.wait_for(f"recvfrom: socket {self.bridge_number}, 104 Connection reset by peer",
                          ERR)
        self.assert_next_agent_is_served()
        self.assert_stops(daemon)

    def test_peers_that_reset_while_they_are_written_to(self):
        daemon = self.daemon()
        self.listener = self.master()
        self.slave = self.listener.accept()
        choice = random.Random(3)
        for turn in range(40):
            agent = self.arrive()
            bridge = self.bridge_to(agent, self.listener)
            sender, leaver = (agent, bridge) if turn % 2 else (bridge, agent)
            sending = Background(self.send_all_or_less, sender, CLAUSE * 20000)
            leaver.receive_bytes(choice.randrange(1, 100_000))
            leaver.reset()
            sending.finish()
            sender.close()
            wait_until(lambda: not self.has_agent(turn + 1), "both are dropped")
        self.assert_next_agent_is_served()
        self.assert_stops(daemon)

    def send_all_or_less(self, sender, data):
        try:
            sender.socket.sendall(data)
        except (BrokenPipeError, ConnectionResetError):
            pass

    def has_agent(self, agents):
        return self.log.count(r"dropping connection: \d+", INFO) < agents


class ManyAgentsTest(RelayCase):
    """Many short-lived agents."""

    def assert_nothing_grew(self, daemon, descriptors, resident):
        allowed = (16 if is_instrumented() else 2) * MIB  # a sanitizer allocates memory itself
        wait_until(lambda: len(daemon.descriptors()) == descriptors, "descriptors as at the start")
        self.assertLess(daemon.resident_bytes() - resident, allowed)

    def agents(self, count):
        for turn in range(count):
            agent = self.arrive(b"<agent-%d/>" % turn)
            bridge = self.bridge_to(agent, self.listener, b"<agent-%d/>\r\n" % turn)
            bridge.send(b"<welcome/>")
            self.assertEqual(agent.receive_bytes(12), b"<welcome/>\r\n")
            agent.close()
            self.assertEqual(bridge.read_to_end(), b"")
            bridge.close()

    def test_in_sequence_with_the_master_up(self):
        daemon = self.daemon(environment=NO_QUARANTINE)
        self.listener = self.master()
        self.slave = self.listener.accept()
        self.agents(200)
        self.assertEqual(self.slave.ask("hostid").fields, SUCCESS)
        descriptors, resident = len(daemon.descriptors()), daemon.resident_bytes()
        self.agents(AGENTS)
        self.assert_nothing_grew(daemon, descriptors, resident)
        self.assert_next_agent_is_served()
        self.assert_stops(daemon)

    def visit(self):
        """An agent that disconnects before it is bridged."""
        mark = self.log.mark()
        agent = self.arrive()
        self.log.wait_for(NO_PEER, since=mark, timeout=2 * TIMEOUT)
        agent.close()
        self.log.wait_for(DROPPED, since=mark, timeout=2 * TIMEOUT)

    def test_many_with_the_master_refusing(self):
        daemon = self.daemon("-v", environment=NO_QUARANTINE)
        client = self.client()
        self.assertEqual(client.ask("hostid").fields, SUCCESS)
        self.visit()
        descriptors, resident = len(daemon.descriptors()), daemon.resident_bytes()
        for _ in range(REFUSED_AGENTS):
            self.visit()
        self.assert_nothing_grew(daemon, descriptors, resident)
        self.assertEqual(client.ask("fileexists", "/").fields, SUCCESS)
        self.assert_stops(daemon)

    def test_some_with_the_master_dropping_packets(self):
        master = self.master(backlog=0)
        fillers = self.fill_queue()
        daemon = self.daemon("-v")
        client = self.client()
        for _ in range(SWALLOWED_AGENTS):
            self.visit()
            self.assertEqual(client.ask("fileexists", "/").fields, SUCCESS)
        for filler in fillers:
            filler.close()
            master.accept()
        self.assertEqual(master.accept().ask("fileexists", "/").fields, SUCCESS)
        self.assert_stops(daemon)


class MuchInputTest(RelayCase):
    """Unusually large input."""

    def relay_large(self, daemon, agent, bridge, size):
        """Relays a clause of @p size bytes in packets. Returns the processor time in seconds."""
        before = processor_seconds(daemon)
        agent.send(b"<a>")
        piece = b"x" * MIB
        for _ in range(size // MIB):
            agent.send(piece)
        agent.send(b"</a>")
        self.assertEqual(bridge.receive_bytes(3), b"<a>")
        for _ in range(size // MIB):
            self.assertTrue(bridge.receive_bytes(MIB) == piece)
        self.assertEqual(bridge.receive_bytes(6), b"</a>\r\n")
        return processor_seconds(daemon) - before

    def test_an_unfinished_clause_takes_its_size_in_memory_and_linear_time(self):
        daemon, agent, bridge = self.bridged(environment=NO_QUARANTINE)
        small = self.relay_large(daemon, agent, bridge, 8 * MIB)
        before = daemon.resident_bytes()
        size = CLAUSE_MIB * MIB
        large = self.relay_large(daemon, agent, bridge, size)
        self.assertLess(daemon.peak_bytes() - before, 2 * size + 32 * MIB)
        self.assertLess(large / size, 3 * small / (8 * MIB))
        self.assert_relays(agent, bridge)
        self.assert_stops(daemon)

    def exchange(self, peer, sent, expected):
        peer.send(sent)
        self.assertTrue(peer.receive_bytes(len(expected)) == expected)

    def clauses(self, name, count):
        return [b"<%s>%06d%s</%s>" % (name, number, b"." * 180, name) for number in range(count)]

    def assert_exchanged_at_full_speed(self, agent, bridge, count):
        """Both sides send @p count clauses concurrently, and receive them complete and in order."""
        there, back = self.clauses(b"there", count), self.clauses(b"back", count)
        sides = [Background(self.exchange, agent, b"".join(there),
                            b"".join(clause + b"\r\n" for clause in back)),
                 Background(self.exchange, bridge, b"\r\n".join(back),
                            b"".join(clause + b"\r\n" for clause in there))]
        for side in sides:
            side.finish()
        self.assertEqual(self.log.count("write: .*"), 0)

    def test_both_sides_send_at_full_speed(self):
        daemon, agent, bridge = self.bridged()
        self.assert_exchanged_at_full_speed(agent, bridge, 50_000)
        self.assert_relays(agent, bridge)
        self.assert_stops(daemon)

    def test_200_stray_connections_beside_them(self):
        daemon, agent, bridge = self.bridged()
        strays = [self.client() for _ in range(200)]
        for stray in strays:
            stray.send(b"help\r\n")
        exchange = Background(self.assert_exchanged_at_full_speed, agent, bridge, 20_000)
        for _ in range(5):
            for stray in strays:
                stray.send(b"\r\nwho is there\r\n")
        exchange.finish()
        for stray in strays:
            self.assertTrue(stray.is_open())
            self.assertEqual(bytes(stray.buffer), b"")
        self.assertGreaterEqual(
            self.log.count(r"handle_data_read: ignoring telnet connection, socket \d+", INFO), 200)
        self.assertEqual(self.log.count(NEW_AGENT), 1)
        self.assertEqual(self.slave.ask("fileexists", "/").fields, SUCCESS)
        self.assert_stops(daemon)


if __name__ == "__main__":
    unittest.main()
