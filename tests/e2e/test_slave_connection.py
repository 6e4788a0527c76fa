# SPDX-License-Identifier: Apache-2.0
"""The slave connection, which the daemon maintains for any behaviour of its master."""
import socket
import unittest

from support.case import SUCCESS, EndToEndCase
from support.logs import DEBUG, ERR, INFO, WARNING, number_in
from support.wait import wait_until
from support.wire import request

ESTABLISHED = r"established connection to 127\.0\.0\.1, port 5112, socket \d+"


class ConnectionTest(EndToEndCase):
    """Connecting, losing the connection, reconnecting."""

    def test_the_first_connection_serves_tasks(self):
        daemon, master = self.slave_connection("-v")
        socket_made = number_in(self.log.wait_for(ESTABLISHED, INFO))
        line = self.log.wait_for(r"handle_outgoing_connection: creating slave connection, "
                                 r"socket \d+", DEBUG)
        self.assertEqual(number_in(line), socket_made)
        self.assertEqual(master.ask("fileexists", "/etc/hosts").fields, SUCCESS)
        self.assert_stops(daemon)

    def test_without_verbose_the_handler_is_created_silently(self):
        daemon, master = self.slave_connection()
        master.ask("hostid")
        self.assertEqual(self.log.count("handle_outgoing_connection.*"), 0)
        self.assert_stops(daemon)

    def test_only_one_connection_is_made(self):
        master = self.master()
        daemon = self.daemon()
        master.accept().ask("hostid")
        self.client().ask("hostid")
        self.assertTrue(master.no_connection_waits())
        self.assert_stops(daemon)

    def test_a_refusing_master_is_not_logged_and_does_not_block(self):
        daemon = self.daemon()
        client = self.client()
        for _ in range(20):
            self.assertEqual(client.ask("fileexists", "/etc/hosts").fields, SUCCESS)
        self.assertEqual(self.log.count(r".*(5112|127\.0\.0\.1, port).*"), 0)
        self.assert_stops(daemon)

    def test_a_master_that_starts_later_gets_a_connection(self):
        daemon = self.daemon()
        self.client().ask("hostid")
        master = self.master().accept()
        self.assertEqual(master.ask("fileexists", "/etc/hosts").fields, SUCCESS)
        self.assert_stops(daemon)

    def test_a_lost_connection_is_reestablished(self):
        master = self.master()
        daemon = self.daemon("-v")
        first = master.accept()
        first.ask("hostid")
        made = number_in(self.log.wait_for(ESTABLISHED))
        mark = self.log.mark()
        first.close()
        second = master.accept()
        self.assertEqual(second.ask("fileexists", "/etc/hosts").fields, SUCCESS)
        self.log.wait_for("handle_outgoing_connection: .*", since=mark)
        shown = [(line.level, line.text) for line in self.log.lines[mark:]][:6]
        self.assertEqual(shown, [
            (WARNING, f"empty read from outbound socket {made}, to 127.0.0.1, it's dead"),
            (INFO, f"process_read declared the outbound connection {made} dead"),
            (DEBUG, f"drop_host_connection: dropping slave connection, socket {made}"),
            (INFO, f"closing connection 127.0.0.1, socket {made}"),
            (INFO, f"established connection to 127.0.0.1, port 5112, socket {made}"),
            (DEBUG, f"handle_outgoing_connection: creating slave connection, socket {made}")])
        self.assert_stops(daemon)

    def test_a_partial_request_does_not_survive_its_connection(self):
        master = self.master()
        daemon = self.daemon()
        whole = request("fileexists", "/etc/hosts")
        first = master.accept()
        first.send(whole[:20])
        self.log.wait_for("handleMessage: got packet, but it is not a complete message '.*'", DEBUG)
        first.close()
        second = master.accept()
        second.send(whole)
        self.assertEqual(second.receive().fields, SUCCESS)
        self.assert_stops(daemon)

    def test_a_hundred_restarts_of_the_master_leave_nothing_behind(self):
        daemon = self.daemon()
        before = len(daemon.descriptors())
        for _ in range(100):
            master = self.master()
            self.assertEqual(master.accept().ask("fileexists", "/etc/hosts").fields, SUCCESS)
            master.close()
        wait_until(lambda: len(daemon.descriptors()) == before, "descriptors as at the start")
        self.assert_stops(daemon)

    def test_a_reset_is_logged_and_the_connection_reestablished(self):
        master = self.master()
        daemon = self.daemon()
        first = master.accept()
        first.ask("hostid")
        made = number_in(self.log.wait_for(ESTABLISHED))
        first.reset()
        self.assertEqual(master.accept().ask("fileexists", "/etc/hosts").fields, SUCCESS)
        self.log.wait_for(f"recvfrom: socket {made}, 104 Connection reset by peer", ERR)
        self.assert_stops(daemon)

    def test_urgent_data_ends_the_connection(self):
        master = self.master()
        daemon = self.daemon()
        first = master.accept()
        made = number_in(self.log.wait_for(ESTABLISHED))
        first.socket.send(b"!", socket.MSG_OOB)
        self.log.wait_for(f"outbound connection {made} disconnected", INFO)
        self.assertEqual(master.accept().ask("fileexists", "/etc/hosts").fields, SUCCESS)
        self.assert_stops(daemon)


class DifficultMasterTest(EndToEndCase):
    """A master must never block other work of the daemon."""

    def test_one_that_closes_immediately_is_redialled_while_clients_are_served(self):
        master = self.master()
        daemon = self.daemon()
        client = self.client()
        for turn in range(200):
            master.accept().close()
            if turn % 20 == 0:
                self.assertEqual(client.ask("fileexists", "/etc/hosts").fields, SUCCESS)
        wait_until(lambda: self.log.count(ESTABLISHED) >= 200, "each connection is logged")
        self.assert_stops(daemon)

    def test_one_that_drops_packets_delays_a_pass_by_three_seconds_at_most(self):
        master = self.master(backlog=0)
        fillers = self.fill_queue()
        daemon = self.daemon()
        client = self.client()
        for _ in range(2):
            self.assertEqual(client.ask("fileexists", "/etc/hosts", timeout=10).fields, SUCCESS)
        for filler in fillers:
            filler.close()
            master.accept()
        answer = master.accept().ask("fileexists", "/etc/hosts")
        self.assertEqual(answer.fields, SUCCESS)
        self.assert_stops(daemon)

    def test_a_stop_request_works_while_a_master_drops_packets(self):
        self.master(backlog=0)
        self.fill_queue()
        daemon = self.daemon(wait=False)
        self.log.wait_for("listening on port 5111")
        self.assertEqual(daemon.stop(), 0)


class MastersNameTest(EndToEndCase):
    """The address may be a name, which each attempt resolves."""

    def setUp(self):
        super().setUp()
        with open("/etc/nsswitch.conf", encoding="utf-8") as file:
            before = file.read()
        self.addCleanup(self.write, "/etc/nsswitch.conf", before)
        self.write("/etc/nsswitch.conf", "hosts: files\n")

    def write(self, path, text):
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)

    def test_a_name_is_resolved_through_the_hosts_file(self):
        self.write("/etc/hosts", "127.0.0.3 the-master\n")
        master = self.master("127.0.0.3")
        daemon = self.daemon("-i", "the-master")
        self.assertEqual(master.accept().ask("fileexists", "/etc/hosts").fields, SUCCESS)
        self.log.wait_for(r"established connection to the-master, port 5112, socket \d+", INFO)
        self.assert_stops(daemon)

    def test_an_unknown_name_is_retried_until_it_resolves(self):
        master = self.master("127.0.0.4")
        daemon = self.daemon("-i", "no-such-master")
        # For an unknown name this C library reports success without a record.
        first = self.log.wait_for("resolve_master: .*", ERR)
        self.assertEqual(first.text,
                         "resolve_master: gethostbyname returned success, but hep is null?")
        self.log.wait_for("cannot resolve host 'no-such-master'", ERR)
        wait_until(lambda: self.log.count("cannot resolve host 'no-such-master'") >= 3,
                   "further attempts")
        self.assertEqual(self.client().ask("fileexists", "/etc/hosts").fields, SUCCESS)
        self.write("/etc/hosts", "127.0.0.1 localhost\n127.0.0.4 no-such-master\n")
        self.assertEqual(master.accept().ask("fileexists", "/etc/hosts").fields, SUCCESS)
        self.assert_stops(daemon)

    def test_a_record_that_does_not_fit_the_lookup_buffer_fails_on_every_pass(self):
        master = self.master("127.0.0.3")
        aliases = " ".join(f"alias-{number}" for number in range(200))
        self.write("/etc/hosts", f"127.0.0.3 the-master {aliases}\n")
        daemon = self.daemon("-i", "the-master")
        after_start = self.log.lines.index(self.log.find("listening on port 5111")) + 1
        wait_until(lambda: self.log.count("cannot resolve host 'the-master'") >= 4, "four attempts")
        failed = [(ERR, "resolve_master: cannot resolve name, the-master, -1 Resolver internal error"),
                  (ERR, "cannot resolve host 'the-master'")]
        self.assertEqual(self.log.shown(after_start)[:8], failed * 4)
        self.assertTrue(master.no_connection_waits())
        self.write("/etc/hosts", "127.0.0.3 the-master alias-0\n")
        self.assertEqual(master.accept().ask("fileexists", "/etc/hosts").fields, SUCCESS)
        self.assert_stops(daemon)

    def test_a_name_service_that_does_not_answer_is_logged_with_its_error(self):
        with open("/etc/resolv.conf", encoding="utf-8") as file:
            self.addCleanup(self.write, "/etc/resolv.conf", file.read())
        self.write("/etc/resolv.conf", "nameserver 127.0.0.1\noptions timeout:1 attempts:1\n")
        self.write("/etc/nsswitch.conf", "hosts: dns\n")
        daemon = self.daemon("-i", "some-master")
        line = self.log.wait_for("resolve_master: .*", ERR)
        self.assertEqual(line.text, "resolve_master: cannot resolve name, some-master, 2 "
                                    "Host name lookup failure")
        self.log.wait_for("cannot resolve host 'some-master'", ERR)
        self.assertEqual(self.client().ask("fileexists", "/etc/hosts").fields, SUCCESS)
        self.assert_stops(daemon)

    def test_a_dotted_address_needs_no_name_service(self):
        self.write("/etc/nsswitch.conf", "hosts: none\n")
        master = self.master("127.0.0.2")
        daemon = self.daemon("-i", "127.0.0.2")
        self.assertEqual(master.accept().ask("fileexists", "/etc/passwd").fields, SUCCESS)
        self.assert_stops(daemon)


class SocketOptionsTest(EndToEndCase):
    """A dead peer is detected after a minute, and small packets are sent without delay."""

    def assert_options(self, daemon, descriptor):
        tcp = socket.IPPROTO_TCP
        with daemon.socket_option_view(descriptor) as view:
            self.assertEqual(view.getsockopt(socket.SOL_SOCKET, socket.SO_KEEPALIVE), 1)
            self.assertEqual(view.getsockopt(tcp, socket.TCP_KEEPIDLE), 10)
            self.assertEqual(view.getsockopt(tcp, socket.TCP_KEEPINTVL), 10)
            self.assertEqual(view.getsockopt(tcp, socket.TCP_KEEPCNT), 5)
            self.assertNotEqual(view.getsockopt(tcp, socket.TCP_NODELAY), 0)

    def test_the_masters_connection_has_keepalive_and_no_delay(self):
        daemon, master = self.slave_connection()
        master.ask("hostid")
        self.assert_options(daemon, number_in(self.log.wait_for(ESTABLISHED)))
        self.assert_stops(daemon)

    def test_a_clients_connection_has_keepalive_and_no_delay(self):
        daemon = self.daemon()
        self.client().ask("hostid")
        self.assert_options(daemon, number_in(self.log.wait_for("accepted connection, .*")))
        self.assert_stops(daemon)

    def test_the_timeout_of_the_connect_is_not_left_on_the_socket(self):
        daemon, master = self.slave_connection()
        master.ask("hostid")
        with daemon.socket_option_view(number_in(self.log.wait_for(ESTABLISHED))) as view:
            limit = view.getsockopt(socket.SOL_SOCKET, socket.SO_SNDTIMEO, 16)
        self.assertEqual(limit, bytes(16))
        self.assert_stops(daemon)


class SurplusConnectionTest(EndToEndCase):
    """Agents that disconnect before their bridge is connected leave host entries behind."""

    def with_surplus(self):
        """The daemon, its agent, and the master's ends of the three connections."""
        daemon = self.daemon("-v")
        early = self.client()
        early.send(b"<early/>\r\n")
        self.log.wait_for("handle_data_read: creating agent socket handler, .*")
        early.close()
        self.log.wait_for("drop_socket: dropping update manager agent .*")
        agent = self.client()
        mark = self.log.mark()
        agent.send(b"<hello/>\r\n")
        self.log.wait_for("handle_data_read: creating agent socket handler, .*", since=mark)
        master = self.master()
        peers = [master.accept() for _ in range(3)]
        error = self.log.wait_for(r"handle_outgoing_connection: error, connections already set, "
                                  r"socket \d+", ERR)
        return daemon, agent, peers, number_in(error)

    def assert_its_end_ends_the_daemon(self, daemon, surplus, number):
        surplus.close()
        self.assertEqual(daemon.wait(), 0)
        self.log.wait_for("[*]{3} error: drop_host_connection cannot find the outbound connection "
                          f"{number}, exiting", ERR)

    def test_a_third_connection_is_ignored_and_its_end_stops_the_daemon(self):
        daemon, agent, (slave, bridge, surplus), number = self.with_surplus()
        self.assertEqual(slave.ask("fileexists", "/etc/hosts").fields, SUCCESS)
        self.assertEqual(bridge.receive_bytes(10), b"<hello/>\r\n")
        self.assert_its_end_ends_the_daemon(daemon, surplus, number)
        self.assertEqual(agent.read_to_end(), b"")

    def test_a_third_connection_that_sends_a_request_is_answered(self):
        daemon, _, (slave, _, surplus), number = self.with_surplus()
        self.assertEqual(surplus.ask("fileexists", "/").fields, SUCCESS)
        self.log.wait_for("handle_data_read: creating byte count client connection, "
                          f"socket {number}", INFO)
        self.assertEqual(slave.ask("fileexists", "/").fields, SUCCESS)
        self.assert_its_end_ends_the_daemon(daemon, surplus, number)

    def test_a_third_connection_with_a_clause_replaces_the_agent(self):
        daemon, agent, (slave, bridge, surplus), number = self.with_surplus()
        self.assertEqual(bridge.receive_bytes(10), b"<hello/>\r\n")
        surplus.send(b"<me/>")
        self.assertEqual(bridge.receive_bytes(7), b"<me/>\r\n")
        bridge.send(b"<you/>")
        self.assertEqual(surplus.receive_bytes(8), b"<you/>\r\n")
        with open("/etc/hosts", encoding="ascii") as hosts:
            self.assertIn("127.0.0.1 update-master\n", hosts.read())
        agent.send(b"<still/>")
        self.assertEqual(agent.read_to_end(), b"")
        self.assertEqual(slave.ask("fileexists", "/").fields, SUCCESS)
        self.assert_its_end_ends_the_daemon(daemon, surplus, number)


if __name__ == "__main__":
    unittest.main()
