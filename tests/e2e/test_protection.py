# SPDX-License-Identifier: Apache-2.0
"""Tries the files of packaging/protection between hosts and between users."""
import contextlib
import errno
import os
import select
import socket
import ssl
import subprocess
import time

from support import networks
from support.case import SUCCESS
from support.networks import inside, reaches
from support.peers import AGENT_PORT, MASTER_PORT, Peer, ready
from support.protection import (DEVICE, DROPPED, ELSEWHERE, FILES, MASTER, NEIGHBOUR, PRIVILEGED, STRANGER,
                                ProtectionCase, Stunnel, WireGuard, dial, filter_rules, load, nft)
from support.users import UNPRIVILEGED, as_user, socket_of
from support.wait import TIMEOUT, wait_until
from support.wire import request


def bind():
    """The ports on which the caller can listen."""
    taken = []
    for port in (5111, 5112, 5113):
        with socket.socket() as listening:
            listening.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            try:
                listening.bind(("127.0.0.1", port))
                listening.listen()
            except PermissionError:
                continue
            taken.append(str(port))
    return " ".join(taken)


class PortsTest(ProtectionCase):
    def test_only_root_can_bind_the_ports(self):
        self.assertEqual(as_user(UNPRIVILEGED, bind), "5111 5112 5113")
        subprocess.run(["sysctl", "-q", "-p", os.path.join(FILES, "60-runeld.conf")], check=True)
        self.assertEqual(as_user(UNPRIVILEGED, bind), "5113")
        self.assertEqual(as_user(0, bind), "5111 5112 5113")
        self.assertEqual(self.text(PRIVILEGED), "5113\n")


class ClientsTest(ProtectionCase):
    """Who reaches port 5111."""

    def who_reaches(self, timeout=DROPPED):
        places = {"master": ("master", DEVICE, MASTER), "neighbour": ("master", DEVICE, NEIGHBOUR),
                  "stranger": ("stranger", ELSEWHERE, None), "root": (None, "127.0.0.1", None),
                  "root, over mgmt0's address": (None, DEVICE, None)}
        return [who for who, place in places.items() if reaches(*place, timeout)]

    def test_other_hosts_reach_the_port_only_from_their_interface_and_address(self):
        daemon = self.daemon()
        local = ["root", "root, over mgmt0's address"]
        self.assertEqual(self.who_reaches(TIMEOUT), ["master", "neighbour", "stranger", *local])
        load(filter_rules())
        self.assertEqual(self.who_reaches(), local)
        load(filter_rules("clients"))
        self.assertEqual(self.who_reaches(), ["master", *local])
        nft("delete", "element", "inet", "runeld", "clients", '{ "mgmt0" . 192.0.2.1 }')
        nft("add", "element", "inet", "runeld", "clients", '{ "wan0" . 192.0.2.0/24 }')
        self.assertEqual(self.who_reaches(), local)
        nft("add", "element", "inet", "runeld", "clients",
            '{ "wan0" . 0.0.0.0-192.0.1.255, "wan0" . 192.0.3.0-255.255.255.255 }')
        self.assertEqual(self.who_reaches(), ["stranger", *local])
        self.assert_stops(daemon)

    def test_a_host_that_is_removed_loses_its_connections(self):
        daemon = self.daemon()
        load(filter_rules("clients"))
        with inside("master"):
            connecting = socket.socket()
        with connecting:
            connecting.bind((MASTER, 0))
            self.assertEqual(dial(connecting, DEVICE, AGENT_PORT), "connected")
            client = Peer(connecting)
            self.assertEqual(client.ask("fileexists", "/").fields, SUCCESS)
            nft("delete", "element", "inet", "runeld", "clients", '{ "mgmt0" . 192.0.2.1 }')
            client.send(request("write", self.path("sent"), "content"))
            self.assertFalse(ready(connecting, select.POLLIN, DROPPED))
            self.assertFalse(os.path.exists(self.path("sent")))
            nft("add", "element", "inet", "runeld", "clients", '{ "mgmt0" . 192.0.2.1 }')
            self.assertEqual(client.receive().fields, SUCCESS)  # the kernel sends it again
        self.assert_stops(daemon)

    def test_of_the_local_users_only_those_of_the_set_reach_the_port(self):
        daemon = self.daemon()

        def outcomes():
            return [self.dial_as(user, address, AGENT_PORT) for user in (0, self.agent, UNPRIVILEGED)
                    for address in ("127.0.0.1", DEVICE)]

        self.assertEqual(outcomes(), ["connected"] * 6)
        load(filter_rules())
        self.assertEqual(outcomes(), ["connected"] * 2 + ["refused"] * 4)
        load(filter_rules("client_users"))
        self.assertEqual(outcomes(), ["connected"] * 4 + ["refused"] * 2)
        self.assert_stops(daemon)

    def flood(self, count, new_socket, address):
        """Starts @p count connections at once. Returns their sockets."""
        sockets = []
        for _ in range(count):
            flooding = new_socket()
            self.addCleanup(flooding.close)
            flooding.setblocking(False)
            self.assertIn(flooding.connect_ex((address, AGENT_PORT)), (0, errno.EINPROGRESS))
            sockets.append(flooding)
        return sockets

    @staticmethod
    def made(sockets):
        """How many of the connections have been made."""
        return len(select.select([], sockets, [], 0)[1])

    def assert_limited(self, new_socket, address):
        start = time.monotonic()
        sockets = self.flood(100, new_socket, address)
        wait_until(lambda: self.made(sockets) >= 19, "the first connections are made")
        made = self.made(sockets)
        self.assertLess(made, 21 + 10 * (time.monotonic() - start))
        self.assertLess(made, 100)

    def test_a_flood_of_connections_leaves_the_other_clients_alone(self):
        daemon = self.daemon()
        load(filter_rules("clients"))
        nft("add", "element", "inet", "runeld", "clients", '{ "mgmt0" . 192.0.2.9 }')
        with inside("master"):
            before = socket.socket()
        with before:
            self.assertEqual(dial(before, DEVICE, AGENT_PORT), "connected")
            established = Peer(before)

            def new_socket():
                with inside("master"):
                    flooding = socket.socket()
                flooding.bind((MASTER, 0))
                return flooding

            self.assert_limited(new_socket, DEVICE)
            content = os.urandom(1 << 20)
            self.assertEqual(established.ask("write", self.path("sent"), content).fields, SUCCESS)
            self.assertEqual(established.ask("read", self.path("sent")).output, content)
        self.assertTrue(reaches("master", DEVICE, NEIGHBOUR))
        self.assertTrue(reaches(None, "127.0.0.1"))
        self.assert_stops(daemon)

    def test_a_flood_of_a_local_user_leaves_root_alone(self):
        daemon = self.daemon()
        load(filter_rules("client_users"))
        self.assert_limited(lambda: socket_of(self.agent), "127.0.0.1")
        self.assertTrue(reaches(None, "127.0.0.1"))
        self.assert_stops(daemon)

    def test_a_host_has_a_limited_number_of_connections(self):
        daemon = self.daemon()
        load(filter_rules("clients").replace("10/second burst 20", "1000/second burst 1000"))

        def another():
            with inside("master"):
                connecting = socket.socket()
            self.addCleanup(connecting.close)
            return dial(connecting, DEVICE, AGENT_PORT), connecting

        made = [another() for _ in range(33)]
        self.assertEqual([outcome for outcome, _ in made], ["connected"] * 32 + ["refused"])
        made[0][1].close()
        wait_until(lambda: another()[0] == "connected", "a place becomes free")
        self.assert_stops(daemon)


class MasterTest(ProtectionCase):
    """Who answers on port 5112, and who dials it."""

    def test_the_daemon_dials_its_master_at_the_set_place_only(self):
        with inside("master"):
            far = self.master(MASTER)
        with inside("stranger"):
            other = self.master(STRANGER)

        def outcomes():
            return [self.dial_as(0, address, MASTER_PORT) for address in (MASTER, STRANGER)]

        self.assertEqual(outcomes(), ["connected"] * 2)
        load(filter_rules())
        self.assertEqual(outcomes(), ["refused"] * 2)
        load(filter_rules("masters"))
        self.assertEqual(outcomes(), ["connected", "refused"])
        far.accept(), far.accept(), other.accept()
        daemon = self.daemon("-i", MASTER)
        self.assertEqual(far.accept().ask("fileexists", "/").fields, SUCCESS)
        self.assert_stops(daemon)

    def test_other_users_cannot_pretend_to_be_a_device(self):
        with inside("master"):
            self.master(MASTER)
        self.master()
        places = (MASTER, "127.0.0.1")
        self.assertEqual([self.dial_as(self.agent, place, MASTER_PORT) for place in places],
                         ["connected"] * 2)
        load(filter_rules("masters"))
        nft("add", "element", "inet", "runeld", "masters", '{ "lo" . 127.0.0.1 }')
        self.assertEqual([self.dial_as(self.agent, place, MASTER_PORT) for place in places],
                         ["refused"] * 2)
        self.assertEqual([self.dial_as(0, place, MASTER_PORT) for place in places],
                         ["connected"] * 2)

    def test_other_hosts_do_not_reach_a_master_on_this_device(self):
        self.master("0.0.0.0")

        def check(*expected):
            # A connection may be slow, so the short wait is only for one that must not be made.
            found = []
            for host, address, outcome in zip(("master", "stranger"), (DEVICE, ELSEWHERE), expected):
                with inside(host):
                    connecting = socket.socket()
                with connecting:
                    limit = DROPPED if outcome == "dropped" else TIMEOUT
                    found.append(dial(connecting, address, MASTER_PORT, limit))
            self.assertEqual(found, [*expected])

        check("connected", "connected")
        load(filter_rules())
        check("dropped", "dropped")
        load(filter_rules("devices_outside"))
        check("connected", "dropped")

    def listen_as(self, user):
        listening = socket_of(user)
        self.addCleanup(listening.close)
        listening.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        listening.bind(("127.0.0.1", MASTER_PORT))
        listening.listen()
        listening.settimeout(TIMEOUT)
        return listening

    def test_a_user_cannot_answer_as_the_master(self):
        with self.listen_as(UNPRIVILEGED) as impostor:
            self.assertEqual(self.dial_as(0, "127.0.0.1", MASTER_PORT), "connected")
            impostor.accept()[0].close()
            load(filter_rules())
            self.assertEqual(self.dial_as(0, "127.0.0.1", MASTER_PORT, DROPPED), "dropped")
            # No dial waits for an answer from now on: the daemon would serve nothing meanwhile.
            for _ in range(20):
                self.assertEqual(self.dial_as(0, "127.0.0.1", MASTER_PORT, 10), "refused")
            daemon = self.daemon()
            self.assertTrue(reaches(None, "127.0.0.1"))
            self.assertEqual(select.select([impostor], [], [], 0)[0], [])
        nft("flush", "set", "inet", "runeld", "impostors")  # what a minute does
        master = self.master()
        self.assertEqual(master.accept().ask("fileexists", "/").fields, SUCCESS)
        self.assert_stops(daemon)

    def test_a_user_who_answers_as_the_master_already_is_cut_off(self):
        with self.listen_as(UNPRIVILEGED) as impostor:
            daemon = self.daemon()
            connected = socket_of(UNPRIVILEGED, lambda: impostor.accept()[0])
        with connected:
            slave = Peer(connected)
            self.assertEqual(slave.ask("fileexists", "/").fields, SUCCESS)
            load(filter_rules())
            slave.send(request("fileexists", "/"))
            self.assertFalse(ready(connected, select.POLLIN, DROPPED))
        self.assert_stops(daemon)

    def test_the_users_of_the_set_can_answer_as_the_master(self):
        load(filter_rules("master_users"))
        tunnel = self.listen_as(self.tunnel)
        daemon = self.daemon()
        connected = socket_of(self.tunnel, lambda: tunnel.accept()[0])
        with connected:
            self.assertEqual(Peer(connected).ask("fileexists", "/").fields, SUCCESS)
        self.assert_stops(daemon)


class WireGuardTest(WireGuard):
    @contextlib.contextmanager
    def capture(self):
        """The packets on the master's cable, in a list that is complete when the context ends."""
        with inside("master"):
            wire = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(0x0003))
        packets = []
        with wire:
            wire.bind(("eth0", 0))
            wire.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 22)
            yield packets
            while select.select([wire], [], [], 0)[0]:
                packets.append(wire.recv(65536))

    @staticmethod
    def tcp_ports(packets):
        """The ports of TCP segments in @p packets, which have Ethernet headers."""
        return {port for packet in packets if packet[12:14] == b"\x08\x00" and packet[23] == 6
                for port in (int.from_bytes(packet[34:36], "big"), int.from_bytes(packet[36:38], "big"))}

    def test_tasks_go_through_the_tunnel_only(self):
        load(self.rules())
        with inside("master"):
            far = self.master(self.FAR)
        secret = b"a secret in clear text " * 1000
        with self.capture() as packets:
            daemon = self.daemon("-i", self.FAR)
            slave = far.accept()
            self.assertEqual(slave.socket.getpeername()[0], self.NEAR)
            self.assertEqual(slave.ask("write", self.path("sent"), secret).fields, SUCCESS)
            self.assertTrue(reaches("master", self.NEAR))
            self.assertFalse(reaches("master", DEVICE, MASTER, timeout=DROPPED))
            self.assertFalse(reaches("stranger", ELSEWHERE, timeout=DROPPED))
        self.assertEqual(self.content("sent"), secret)
        self.assertGreater(len(b"".join(packets)), len(secret))
        self.assertNotIn(secret[:23], b"".join(packets))
        self.assertNotIn(MASTER_PORT, self.tcp_ports(packets))
        self.assert_stops(daemon)

    def test_the_daemon_does_not_dial_past_a_tunnel_that_is_down(self):
        networks.ip("route", "add", "default", "via", MASTER)
        with inside("master"):
            self.master(self.FAR)
        self.run_tool("wg-quick", "down", "wg-master")
        self.assertEqual(self.dial_as(0, self.FAR, MASTER_PORT), "connected")
        load(self.rules())
        self.assertEqual(self.dial_as(0, self.FAR, MASTER_PORT), "refused")
        self.run_tool("wg-quick", "up", "wg-master")
        self.assertEqual(self.dial_as(0, self.FAR, MASTER_PORT), "connected")


class StunnelTest(Stunnel):
    def test_the_tunnels_carry_tasks_in_both_directions(self):
        far = self.start_master()
        self.start_device()
        self.assertEqual([self.user_of(process) for process in self.tunnels], [self.tunnel] * 2)
        daemon = self.daemon()
        content = os.urandom(1 << 20)
        slave = far.accept()
        self.assertEqual(slave.ask("write", self.path("sent"), content).fields, SUCCESS)
        self.assertEqual(slave.ask("read", self.path("sent")).output, content)
        self.assertTrue(reaches("master", "127.0.1.1"))
        self.assertFalse(reaches("master", DEVICE, timeout=DROPPED))
        self.assertFalse(reaches("stranger", ELSEWHERE, timeout=DROPPED))
        self.assert_stops(daemon)

    def reaches_tunnel(self, host, address, name, certificate):
        """Whether a client with this certificate, or without, gets an answer through the tunnel."""
        context = ssl.create_default_context(cafile=self.path("ca/ca.pem"))
        if certificate:
            context.load_cert_chain(self.path(certificate))
        with inside(host):
            connecting = socket.socket()
        with connecting:
            connecting.settimeout(TIMEOUT)
            connecting.connect(address)
            try:
                with context.wrap_socket(connecting, server_hostname=name) as encrypted:
                    encrypted.sendall(request("fileexists", "/"))
                    return encrypted.recv(1) == b"\x01"
            except (ssl.SSLError, ConnectionError):
                return False

    def test_only_the_master_s_certificate_reaches_the_device(self):
        daemon = self.daemon()
        self.start_device()
        place = "stranger", (ELSEWHERE, self.TUNNEL_PORT), "device-1"
        self.assertEqual({certificate: self.reaches_tunnel(*place, certificate) for certificate in
                          ("ca/master.pem", "ca/device-2.pem", "other/master.pem", None)},
                         {"ca/master.pem": True, "ca/device-2.pem": False,
                          "other/master.pem": False, None: False})
        self.assert_stops(daemon)

    def test_only_a_device_s_certificate_reaches_the_master(self):
        far = self.start_master()
        place = "master", (MASTER, 5113), "master"
        for certificate in ("other/master.pem", None):
            self.assertFalse(self.reaches_tunnel(*place, certificate))
        self.assertTrue(far.no_connection_waits())

    def assert_refused(self, host, address, port, arrived):
        """A local connection to the tunnel's end ends, because the other end is the wrong one."""
        with inside(host):
            connecting = socket.socket()
        with connecting:
            self.assertEqual(dial(connecting, address, port), "connected")
            near = Peer(connecting)
            near.send(request("fileexists", "/"))
            wait_until(lambda: ready(connecting, select.POLLIN, 0) or arrived(), "an end or an answer")
            self.assertFalse(near.is_open() or arrived())

    def test_another_device_cannot_act_as_the_master(self):
        far = self.start_master("ca/device-2.pem")
        self.start_device()
        self.assert_refused(None, "127.0.0.1", MASTER_PORT, lambda: not far.no_connection_waits())

    def test_another_device_cannot_act_as_this_one(self):
        self.start_master()
        self.start_device("ca/device-2.pem")
        daemon = self.daemon()
        self.assert_refused("master", "127.0.1.1", AGENT_PORT, lambda: False)
        self.assert_stops(daemon)
