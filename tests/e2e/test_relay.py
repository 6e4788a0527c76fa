# SPDX-License-Identifier: Apache-2.0
"""The relay between an agent and the master: relayed and held input, and the log."""
import os
import signal
import socket
import unittest

from support.case import SUCCESS
from support.logs import DEBUG, ERR, INFO, WARNING, number_in
from support.relay import (ESTABLISHED, GREETING, NO_PEER, PING, RelayCase,
                           processor_seconds)
from support.wait import wait_until
from support.world import PID_FILE

MIB = 1 << 20
OPEN = r"nextXmlClause: closing not found, .*"


class PassingTest(RelayCase):
    """Complete clauses."""

    def test_clauses_pass_both_ways_with_cr_lf(self):
        daemon, agent, bridge = self.bridged()
        self.assert_relays(agent, bridge)
        self.assert_stops(daemon)

    def test_blanks_between_clauses_do_not_pass(self):
        daemon, agent, bridge = self.bridged()
        agent.send(b" \r\n<a/>\t<b>y</b>\n\n<c>\r\n</c>\r\n")
        expected = b"<a/>\r\n<b>y</b>\r\n<c>\r\n</c>\r\n"
        self.assertEqual(bridge.receive_bytes(len(expected)), expected)
        self.assert_stops(daemon)

    def test_a_clause_ends_at_the_first_closing_tag_of_its_name(self):
        daemon, agent, bridge = self.bridged()
        agent.send(b"<a><a>x</a>")
        self.assertEqual(bridge.receive_bytes(13), b"<a><a>x</a>\r\n")
        agent.send(b"</a>")
        self.log.wait_for(r"nextXmlClause: closing not found, size = 4, buffer ='</a>\.\.\.'",
                          WARNING)
        self.assert_stops(daemon)

    def test_a_clause_may_come_byte_by_byte(self):
        daemon, agent, bridge = self.bridged()
        clause = b"<status>" + os.urandom(100).hex().encode() + b"</status>"
        for byte in clause:
            agent.send(bytes([byte]))
        self.assertEqual(bridge.receive_bytes(len(clause) + 2), clause + b"\r\n")
        self.assert_stops(daemon)

    def test_any_byte_but_two_passes_in_a_clause(self):
        daemon, agent, bridge = self.bridged()
        clause = b"<a>" + bytes(range(3, 256)) + bytes([0]) + b"</a>"
        agent.send(clause)
        self.assertEqual(bridge.receive_bytes(len(clause) + 2), clause + b"\r\n")
        self.assert_stops(daemon)

    def test_large_clauses_pass_whole_both_ways(self):
        daemon, agent, bridge = self.bridged()
        clause = b"<a>" + os.urandom(8 * MIB).hex().encode() + b"</a>"
        for sender, receiver in ((agent, bridge), (bridge, agent)):
            sender.send(clause)
            self.assertTrue(receiver.receive_bytes(len(clause) + 2) == clause + b"\r\n")
        self.assert_stops(daemon)

    def test_tasks_are_answered_while_the_relay_runs(self):
        daemon, agent, bridge = self.bridged()
        for _ in range(50):
            self.assert_relays(agent, bridge)
            self.assertEqual(self.slave.ask("fileexists", "/").fields, SUCCESS)
        self.assert_stops(daemon)

    def test_both_sockets_send_without_delay_and_for_thirty_seconds_at_most(self):
        daemon, _, _ = self.bridged()
        for number in (self.agent_number, self.bridge_number):
            with daemon.socket_option_view(number) as view:
                self.assertNotEqual(view.getsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY), 0)
                limit = view.getsockopt(socket.SOL_SOCKET, socket.SO_SNDTIMEO, 16)
                self.assertEqual(limit, (30).to_bytes(8, "little") + bytes(8))
        self.assert_stops(daemon)


class WaitingTest(RelayCase):
    """Incomplete clauses, and bytes that are not a clause."""

    def test_an_open_clause_waits_and_is_logged_on_each_pass(self):
        daemon, agent, bridge = self.bridged()
        agent.send(b"<a>1234567")
        line = r"nextXmlClause: closing not found, size = 10, buffer ='<a>1234567\.\.\.'"
        self.wait_count(line, 5, WARNING)
        agent.send(b"</a>\r\n")
        self.assertEqual(bridge.receive_bytes(16), b"<a>1234567</a>\r\n")
        self.assert_stops(daemon)

    def test_a_longer_open_clause_is_logged_with_both_ends(self):
        daemon, agent, _ = self.bridged()
        agent.send(b"<a>" + b"x" * 37 + b"\t" + b"y" * 60)
        self.log.wait_for("nextXmlClause: closing not found, size = 101, buffer ='<a>" + "x" * 37 +
                          "..." + "y" * 40 + "'", WARNING)
        self.assert_stops(daemon)

    def test_an_open_tag_waits_and_is_logged_on_each_pass(self):
        daemon, agent, bridge = self.bridged()
        agent.send(b" \t<long" + b"x" * 100)
        line = r"nextXmlClause: cannot find '>' at 2, got ' \.<long" + "x" * 50 + r"\.\.\.'"
        self.wait_count(line, 5, WARNING)
        agent.send(b"/>")
        self.assertEqual(bridge.receive_bytes(109), b"<long" + b"x" * 100 + b"/>\r\n")
        self.assert_stops(daemon)

    def test_bytes_that_are_not_a_tag_block_until_the_agent_disconnects(self):
        daemon, agent, bridge = self.bridged()
        agent.send(b"<a/>hello<b/>")
        self.assertEqual(bridge.receive_bytes(6), b"<a/>\r\n")
        self.wait_count("nextXmlClause: expecting '<' at 0, got 'hello<b/>'", 5, WARNING)
        bridge.send(b"<back/>")
        self.assertEqual(agent.receive_bytes(9), b"<back/>\r\n")
        agent.close()
        self.assertEqual(bridge.read_to_end(), b"")
        self.assert_next_agent_is_served()
        self.assert_stops(daemon)

    def test_a_tag_with_attributes_blocks_unless_it_closes_itself(self):
        daemon, agent, bridge = self.bridged()
        agent.send(b"<a id='1'/><a id='2'>v</a>")
        self.assertEqual(bridge.receive_bytes(13), b"<a id='1'/>\r\n")
        self.wait_count(r"nextXmlClause: closing not found, size = 15, "
                        r"buffer ='<a id='2'>v</a>\.\.\.'", 5, WARNING)
        self.assertTrue(bridge.is_open())
        self.assert_stops(daemon)

    def test_the_trace_reports_pending_input(self):
        daemon, agent, _ = self.bridged("-v", "-v")
        agent.send(b"<a>")
        self.wait_count(OPEN, 3)
        self.wait_count("handle_loop: data pending, calling handleMessage", 2, DEBUG)
        self.assert_stops(daemon)

    def test_a_blocked_bridge_does_not_block_the_agent(self):
        daemon, agent, bridge = self.bridged()
        bridge.send(b"junk")
        self.wait_count("nextXmlClause: expecting '<' at 0, got 'junk'", 2, WARNING)
        agent.send(b"<a/>")
        self.assertEqual(bridge.receive_bytes(6), b"<a/>\r\n")
        self.assert_stops(daemon)


class UnlinkedTest(RelayCase):
    """An agent that connects before the bridge, and a bridge without an agent."""

    def test_early_input_of_an_agent_is_kept_for_the_bridge(self):
        daemon = self.daemon()
        agent = self.arrive(b"\r\n <a/>\r\n")
        self.log.wait_for(r"handleMessage: no peer_ link, buffering '\.\. <a/>\.\.'", WARNING)
        mark = self.log.mark()
        agent.send(b"<b>" + b"x" * 60)
        self.log.wait_for("handleMessage: no peer_ link, buffering '<b>" + "x" * 54 + r"\.\.\.'",
                          WARNING, since=mark)
        agent.send(b"</b>")
        self.wait_count(NO_PEER, 3)
        self.assertEqual(self.log.count("nextXmlClause: .*"), 0)
        self.listener = self.master()
        self.slave = self.listener.accept()
        self.bridge_to(agent, self.listener, b"<a/>\r\n<b>" + b"x" * 60 + b"</b>\r\n")
        self.assert_stops(daemon)

    def test_waiting_pings_collapse_into_one(self):
        daemon = self.daemon()
        agent = self.arrive(b"<a/>")
        for count in range(1, 6):
            self.wait_count(NO_PEER, count)
            agent.send(PING)
        self.wait_count(NO_PEER, 6)
        self.assertEqual(self.log.count("appendPacket: discarding <ping/>", DEBUG), 4)
        self.listener = self.master()
        self.slave = self.listener.accept()
        bridge = self.bridge_to(agent, self.listener, b"<a/>\r\n" + PING)
        agent.send(b"<end/>")
        self.assertEqual(bridge.receive_bytes(8), b"<end/>\r\n")
        self.assert_stops(daemon)

    def test_a_ping_is_dropped_when_exactly_eight_bytes_wait(self):
        daemon, agent, bridge = self.bridged()
        for text, kept in ((b"<a>4567", True), (b"<a>45678", False), (b"<a>456789", True)):
            with self.subTest(text):
                mark = self.log.mark()
                agent.send(text)
                self.log.wait_for(OPEN, since=mark)
                agent.send(PING)
                if kept:
                    self.log.wait_for("nextXmlClause: closing not found, "
                                      rf"size = {len(text) + 9}, .*", since=mark)
                else:
                    self.log.wait_for("appendPacket: discarding <ping/>", DEBUG, since=mark)
                agent.send(b"</a>")
                expected = text + PING * kept + b"</a>\r\n"
                self.assertEqual(bridge.receive_bytes(len(expected)), expected)
        self.assert_stops(daemon)

    def test_pings_pass_while_nothing_waits(self):
        daemon, agent, bridge = self.bridged()
        for _ in range(5):
            agent.send(PING)
            self.assertEqual(bridge.receive_bytes(9), PING)
        self.assertEqual(self.log.count("appendPacket: .*"), 0)
        self.assert_stops(daemon)

    def test_a_bridge_without_its_agent_serves_the_next_one(self):
        daemon = self.daemon("-v")
        early = self.arrive(b"<early/>")
        self.log.wait_for(NO_PEER)
        early.close()
        self.log.wait_for(r"drop_socket: dropping update manager agent socket \d+", DEBUG)
        self.listener = self.master()
        self.slave = self.listener.accept()
        bridge = self.listener.accept()
        self.log.wait_for("handle_outgoing_connection: null agent_", ERR)
        bridge.send(b"<for-whom/>")
        self.log.wait_for("handleMessage: no peer_ link, buffering '<for-whom/>'", WARNING)
        agent = self.arrive()
        self.assertEqual(agent.receive_bytes(13), b"<for-whom/>\r\n")
        self.assertEqual(bridge.receive_bytes(10), GREETING)
        self.assert_relays(agent, bridge)
        self.assert_stops(daemon)


class FirstPacketTest(RelayCase):
    """The first packet of an agent."""

    def first_packets(self, *packets):
        """An agent that has sent these packets, each read separately, and the daemon."""
        daemon = self.daemon("-v")
        agent = self.client()
        for packet in packets:
            mark = self.log.mark()
            agent.send(packet)
            self.log.wait_for(r"(handle_data_read|handleMessage): .*", since=mark)
        self.listener = self.master()
        self.slave = self.listener.accept()
        return daemon, agent

    def assert_passed_on(self, daemon, agent, expected):
        self.assert_relays(agent, self.bridge_to(agent, self.listener, expected))
        self.assert_stops(daemon)

    def test_blanks_before_the_first_tag_are_delivered_with_it(self):
        daemon, agent = self.first_packets(b"\r\n <a/>")
        self.log.wait_for(r"handleMessage: no peer_ link, buffering '\.\. <a/>'", WARNING)
        self.assert_passed_on(daemon, agent, b"<a/>\r\n")

    def test_a_blank_packet_is_discarded_and_the_next_one_decides(self):
        daemon, agent = self.first_packets(b" \t\r\n", b"    ", b"<a/>")
        self.assertEqual(self.log.count(r"handle_data_read: discarding first packet "
                                        r"\(all whitespace\) socket \d+", DEBUG), 2)
        self.log.wait_for("handleMessage: no peer_ link, buffering '<a/>'", WARNING)
        self.assert_passed_on(daemon, agent, b"<a/>\r\n")

    def test_a_stray_line_is_ignored_and_the_next_one_decides(self):
        daemon, agent = self.first_packets(b"help\r\n", b"<a/>")
        self.assertEqual(self.log.count(r"handle_data_read: ignoring telnet connection, "
                                        r"socket \d+", INFO), 1)
        self.assert_passed_on(daemon, agent, b"<a/>\r\n")

    def test_one_byte_identifies_an_agent(self):
        daemon, agent = self.first_packets(b"<", b"a", b"/", b">")
        self.assert_passed_on(daemon, agent, b"<a/>\r\n")

    def test_4096_opening_brackets_block_only_that_agent(self):
        daemon, agent = self.first_packets(b"<" * 4096)
        bridge = self.listener.accept()
        self.wait_count(r"nextXmlClause: cannot find '>' at 0, got '<{57}\.\.\.'", 3, WARNING)
        agent.send(b"/>")
        self.assertEqual(bridge.receive_bytes(4100), b"<" * 4096 + b"/>\r\n")
        agent.send(b"<" * 4096)
        self.wait_count(r"nextXmlClause: cannot find '>' at 0, got '<{57}\.\.\.'", 6, WARNING)
        agent.close()
        self.assertEqual(bridge.read_to_end(), b"")
        self.assert_next_agent_is_served()
        self.assert_stops(daemon)


class FrameByteTest(RelayCase):
    """A byte of the task protocol on the relay stops the daemon."""

    def assert_stopped(self, daemon, *others, status=0):
        self.log.wait_for("handle_data_read: stopping server by request", DEBUG)
        self.assertEqual(daemon.wait(), status)
        for other in others:
            self.assertEqual(other.read_to_end(), b"")

    def test_from_the_agent(self):
        for byte in (b"\x01", b"\x02"):
            with self.subTest(byte):
                daemon, agent, bridge = self.bridged()
                agent.send(b"<a/><b>" + byte + b"</b>")
                self.log.wait_for(r"\*\*\* error: nextXmlClause found byte count sentinels in "
                                  r"input '<a/><b>\.</b>'", ERR)
                self.assert_stopped(daemon, agent, bridge, self.slave)
                self.listener.close()

    def test_from_the_master(self):
        daemon, agent, bridge = self.bridged()
        bridge.send(b"<a>")
        self.log.wait_for(OPEN)
        bridge.send(b"</a>\x02")
        self.log.wait_for(r"\*\*\* error: nextXmlClause found byte count sentinels in "
                          r"input '<a></a>\.'", ERR)
        self.assert_stopped(daemon, agent, bridge, self.slave)

    def test_the_pid_file_is_removed(self):
        daemon, agent, bridge = self.bridged(background=True)
        with open(PID_FILE, encoding="ascii") as file:
            self.assertEqual(file.read(), f"{daemon.pid}\n")
        agent.send(b"\x01")
        self.assert_stopped(daemon, agent, bridge, self.slave)
        self.assertFalse(os.path.exists(PID_FILE))

    def test_before_the_bridge_it_waits_with_other_input(self):
        daemon = self.daemon()
        agent = self.arrive(b"<a/>\x01")
        self.log.wait_for(r"handleMessage: no peer_ link, buffering '<a/>\.'", WARNING)
        self.listener = self.master()
        self.slave = self.listener.accept()
        bridge = self.listener.accept()
        # Linking finds the byte, and so does each pass, but only input requests the stop.
        error = r"\*\*\* error: nextXmlClause found byte count sentinels in input '<a/>\.'"
        self.wait_count(error, 3, ERR)
        self.assertEqual(self.slave.ask("fileexists", "/").fields, SUCCESS)
        agent.send(b"<b/>")
        self.assert_stopped(daemon, agent, bridge)


class TearingDownTest(RelayCase):
    """The order of the log lines when one side disconnects."""

    def test_the_agent_disconnects(self):
        daemon, agent, bridge = self.bridged("-v")
        mark = self.log.mark()
        agent.close()
        self.assertEqual(bridge.read_to_end(), b"")
        self.log.wait_for("closing connection .*", since=mark)
        a, b = self.agent_number, self.bridge_number
        self.assertEqual(self.log.shown(since=mark), [
            (WARNING, f"empty read from inbound socket {a}, from 127.0.0.1, it's dead"),
            (INFO, f"dropping connection: {a}"),
            (DEBUG, f"drop_socket: dropping update manager agent socket {a}"),
            (DEBUG, f"drop_host_connection: dropping agent bridge, socket {b}"),
            (INFO, f"closing connection 127.0.0.1, socket {b}")])
        self.assert_next_agent_is_served()
        self.assert_stops(daemon)

    def test_the_master_closes_the_bridge(self):
        daemon, agent, bridge = self.bridged("-v")
        mark = self.log.mark()
        bridge.close()
        self.assertEqual(agent.read_to_end(), b"")
        a, b = self.agent_number, self.bridge_number
        self.log.wait_for("drop_socket: .*", since=mark)
        self.assertEqual(self.log.shown(since=mark), [
            (WARNING, f"empty read from outbound socket {b}, to 127.0.0.1, it's dead"),
            (INFO, f"process_read declared the outbound connection {b} dead"),
            (DEBUG, f"drop_host_connection: dropping agent bridge, socket {b}"),
            (INFO, f"closing connection 127.0.0.1, socket {b}"),
            (INFO, f"dropping connection: {a}"),
            (DEBUG, f"drop_socket: dropping update manager agent socket {a}")])
        self.assertTrue(self.listener.no_connection_waits())
        self.assert_next_agent_is_served()
        self.assert_stops(daemon)

    def test_a_lost_slave_connection_closes_both(self):
        daemon, agent, bridge = self.bridged("-v")
        self.slave.close()
        self.assertEqual(agent.read_to_end(), b"")
        self.assertEqual(bridge.read_to_end(), b"")
        self.slave = self.listener.accept()
        self.assert_next_agent_is_served()
        self.assert_stops(daemon)

    def test_the_master_closes_both_in_one_pass(self):
        daemon, agent, bridge = self.bridged("-v")
        mark = self.log.mark()
        daemon.send_signal(signal.SIGSTOP)
        wait_until(lambda: daemon.state() == "T", "it stands still")
        self.slave.close()
        bridge.close()
        daemon.send_signal(signal.SIGCONT)
        self.assertEqual(agent.read_to_end(), b"")
        self.slave = self.listener.accept()
        a, b = self.agent_number, self.bridge_number
        shown = self.log.shown(since=mark)
        self.assertEqual([line for line in shown if "socket %d" % b in line[1]], [
            (DEBUG, f"drop_host_connection: dropping agent bridge, socket {b}"),
            (INFO, f"closing connection 127.0.0.1, socket {b}")])
        self.assertEqual([line for line in shown if line[1].endswith(str(a))], [
            (INFO, f"dropping connection: {a}"),
            (DEBUG, f"drop_socket: dropping update manager agent socket {a}")])
        self.assert_next_agent_is_served()
        self.assert_stops(daemon)

    def test_a_new_agent_arrives_in_this_order(self):
        master = self.master()
        daemon = self.daemon("-v")
        master.accept()
        self.log.wait_for(r"handle_outgoing_connection: creating slave connection, .*")
        mark = self.log.mark()
        agent = self.arrive()
        self.bridge_to(agent, master)
        a, b = self.agent_socket(mark), number_in(self.log.wait_for(ESTABLISHED, since=mark))
        shown = self.log.shown(since=mark)
        self.assertRegex(shown[0][1], rf"^accepted connection, .* from 127.0.0.1, new socket {a}$")
        self.assertEqual(shown[1:], [
            (DEBUG, f"handle_incoming_connection: waiting for first input, socket {a}"),
            (INFO, f"handle_data_read: creating agent socket handler, socket {a}"),
            (WARNING, "handleMessage: no peer_ link, buffering '<hello/>..'"),
            (INFO, f"established connection to 127.0.0.1, port 5112, socket {b}"),
            (DEBUG, f"handle_outgoing_connection: creating agent bridge, socket {b}")])
        self.assert_stops(daemon)


class CostTest(RelayCase):
    """The processor time is linear in the number of bytes."""

    def time_for(self, agent, bridge, daemon, count, size):
        """Processor time, in seconds, for @p count clauses of @p size bytes."""
        clause = b"<a>" + bytes([120]) * (size - 7) + b"</a>"
        before = processor_seconds(daemon)
        for _ in range(count):
            agent.send(clause)
            self.assertTrue(bridge.receive_bytes(size + 2) == clause + b"\r\n")
        return processor_seconds(daemon) - before

    def test_a_clause_of_16_mib_costs_at_most_20_times_one_of_1_mib(self):
        daemon, agent, bridge = self.bridged()
        small, large = [], []
        # Other load on the machine only adds time, so the minimum approaches the daemon's own time.
        # A cost that grows faster than the size stays above the limit however often it is measured.
        while len(small) < 5 or (len(small) < 40 and min(large) > 20 * min(small)):
            small.append(self.time_for(agent, bridge, daemon, 16, MIB) / 16)
            large.append(self.time_for(agent, bridge, daemon, 1, 16 * MIB))
        self.assertLessEqual(min(large), 20 * min(small))
        self.assert_stops(daemon)

    def test_a_backlog_of_small_clauses_costs_no_more_for_each_when_it_is_larger(self):
        costs = []
        for size in (MIB // 16, MIB):
            daemon = self.daemon()
            agent = self.arrive(b"<a/>")
            agent.send(b"<a/>" * (size // 4 - 1))
            packets = r"handleMessage: no peer_ link, buffering '.*'"
            wait_until(lambda: self.log.count(packets) >= size // 4096, "it is all buffered")
            before = processor_seconds(daemon)
            master = self.master()
            master.accept()
            bridge = master.accept()
            self.assertTrue(bridge.receive_bytes(size // 4 * 6) == b"<a/>\r\n" * (size // 4))
            costs.append((processor_seconds(daemon) - before) / size)
            self.assert_stops(daemon)
            master.close()
        self.assertLessEqual(costs[1], 8 * costs[0])  # 16 times: a search from the start


if __name__ == "__main__":
    unittest.main()
