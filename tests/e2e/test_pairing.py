# SPDX-License-Identifier: Apache-2.0
"""Every event in every state of the daemon's connections: the log, the peers, the connects.

The table is pairing.txt, one block for each pair of state and event. RUNELD_PAIRING=FILE appends
the results of a run to FILE in the same format, for an intended change of the table.
"""
import os
import re
import socket
import unittest

from support.case import SUCCESS, EndToEndCase
from support.peers import Master
from support.wire import request

TABLE = os.path.join(os.path.dirname(__file__), "pairing.txt")
DIALLED = ("slave", "bridge", "surplus")  # in the order in which the daemon creates them
LEVELS = {3: "ERR", 4: "WARNING", 5: "NOTICE", 6: "INFO", 7: "DEBUG"}
ESTABLISHED = "01"  # the state in /proc/net/tcp
MASTER_PORT = ":13F8"  # port 5112 in /proc/net/tcp

# The events that lead to each state.
STATES = {
    "none": [],
    "none, agent waiting": ["agent connects"],
    "slave": ["master comes"],
    "slave, agent waiting": ["master comes", "master stops listening", "agent connects"],
    "slave, bridge alone": ["agent connects", "agent ends", "master comes"],
    "bridged": ["master comes", "agent connects"],
    "bridged, agent replaced": ["master comes", "agent connects", "agent connects"],
    "bridged, surplus": ["agent connects", "agent connects", "master comes"],
}
EVENTS = ["master comes", "agent connects", "agent speaks", "agent ends", "stale speaks",
          "stale ends", "slave speaks", "slave ends", "bridge speaks", "bridge ends",
          "surplus ends", "stray speaks", "client asks"]


def happens_in(event, peers, listening):
    """Whether @p event can happen while these peers are connected."""
    if event == "master comes":
        return not listening
    who, what = event.split()
    return what == "connects" or who in ("stray", "client") or who in peers


class Pairing(EndToEndCase):
    """One daemon and its peers, by role."""

    def start(self):
        self.listener = None
        self.peers = {}  # the test's end of each connection, by role
        self.names = {}  # role by the daemon's socket number
        self.connected = set()  # roles whose sockets the daemon has not logged as closed
        self.told = []
        self.seen = self.log.mark()
        self.running = self.daemon("-v")
        self.settle()

    def settle(self):
        """Waits until the daemon is idle, and updates the peers."""
        for _ in range(2):
            if not self.ended():
                self.running.wait_asleep()
        self.forget_gone()
        while self.listener and not self.listener.no_connection_waits():
            role = next(role for role in DIALLED if role not in self.peers)
            self.peers[role] = self.listener.accept()
        self.forget_gone()
        self.read_log()

    def forget_gone(self):
        self.peers = {role: peer for role, peer in self.peers.items() if self.stays(peer)}

    def stays(self, peer):
        """Whether the daemon keeps the connection. Discards the bytes that it sent."""
        try:
            while peer.socket.recv(1 << 16, socket.MSG_DONTWAIT):
                pass
            return False
        except BlockingIOError:
            return True
        except ConnectionResetError:
            return False

    def ended(self):
        return self.running.process.poll() is not None

    # The events.

    def happen(self, event):
        who, what = event.split(maxsplit=1)
        if who == "master":
            self.listen() if what == "comes" else self.stop_listening()
        elif what == "connects" or who in ("stray", "client"):
            self.arrive(who)
        elif what == "ends":
            self.peers.pop(who).close()
        else:
            clause = b"<from-%s/>" % who.encode()
            self.peers[who].send(request("fileexists", "/") if who == "slave" else clause)
        self.settle()

    def listen(self):
        self.listener = self.master()

    def stop_listening(self):
        self.listener.listener.close()
        self.listener = None

    def arrive(self, who):
        words = {"agent": b"<hello/>", "stray": b"help\r\n", "client": request("fileexists", "/")}
        if who == "agent" and "agent" in self.peers:
            self.peers["stale"] = self.peers.pop("agent")
            self.names = {number: "stale" if role == "agent" else role
                          for number, role in self.names.items()}
        self.arriving = who
        self.peers[who] = self.client()
        self.peers[who].send(words[who])

    # The results.

    def read_log(self):
        """Appends the log lines to `told`, with roles in place of socket numbers."""
        lines = self.log.lines
        for line in lines[self.seen:]:
            self.note_new(line.text)
            self.told.append(f"{LEVELS[line.level]} {self.with_roles(line.text)}")
            self.note_closed(line.text)
        self.seen = len(lines)

    def note_new(self, text):
        dialled = re.fullmatch(r"established connection to .*, socket (\d+)", text)
        accepted = re.fullmatch(r"accepted connection, .*, new socket (\d+)", text)
        if dialled:
            role = next(role for role in DIALLED if role not in self.connected)
        elif accepted:
            role = self.arriving
        else:
            return
        self.names[int((dialled or accepted)[1])] = role
        self.connected.add(role)

    def note_closed(self, text):
        closed = re.fullmatch(r"(dropping connection:|closing connection .*, socket) (\d+)", text)
        if closed:
            self.connected.discard(self.names[int(closed[2])])

    def with_roles(self, text):
        def role(match):
            return f"{match[1]} {self.names.get(int(match[2]), 'listener')}"
        return re.sub(r"(socket|connection|connection:) (\d+)(?![\d.])", role, text)

    def hosts(self):
        """The number of connections to its master that the daemon wants."""
        if self.listener is None:
            self.happen("master comes")
        with open("/proc/net/tcp", encoding="ascii") as table:
            rows = [row.split() for row in table.readlines()[1:]]
        return sum(1 for row in rows if row[2].endswith(MASTER_PORT) and row[3] == ESTABLISHED)

    def outcome(self):
        """The log lines of one event, and the connected peers afterwards."""
        told = list(self.told)
        if self.ended():
            return [*told, f"the daemon ends with status {self.running.wait()}"]
        there = " ".join(["there:", *sorted(self.peers)])
        return [*told, there, f"hosts: {self.hosts()}"]

    def assert_still_works(self):
        if self.ended():
            return
        self.assertEqual(self.client().ask("fileexists", "/").fields, SUCCESS)
        self.assert_stops(self.running)

    def bring_about(self, state):
        self.start()
        for event in STATES[state]:
            self.happen(event)
        self.told.clear()

    def end(self):
        """Cleans up for the next pair."""
        self.running.kill()
        for peer in self.peers.values():
            peer.close()
        if self.listener:
            self.listener.close()


def read_table():
    """The table: the lines of each pair of state and event."""
    table = {}
    with open(TABLE, encoding="ascii") as lines:
        for line in lines.read().splitlines():
            heading = re.fullmatch(r"\[(.*)\] (.*)", line)
            if heading:
                block = table.setdefault((heading[1], heading[2]), [])
            elif line and not line.startswith("#"):
                block.append(line.strip())
    return table


class Walk(Pairing):
    """Compares the events with the table."""

    def assert_each_event_is_as_in_the_table(self, kind):
        """Covers the states whose names begin with @p kind."""
        table, found = read_table(), {}
        for state in (state for state in STATES if state.split(",")[0] == kind):
            for event in EVENTS:
                with self.subTest(state=state, event=event):
                    try:
                        self.walk(state, event, found)
                    finally:
                        self.end()
                    self.assertEqual(found.get((state, event)), table.get((state, event)))
        self.write_down(found)

    def walk(self, state, event, found):
        """Runs one pair, unless the event is impossible in the state."""
        self.bring_about(state)
        if happens_in(event, self.peers, self.listener):
            self.happen(event)
            found[state, event] = self.outcome()
            self.assert_still_works()

    def write_down(self, found):
        if "RUNELD_PAIRING" in os.environ:
            with open(os.environ["RUNELD_PAIRING"], "a", encoding="ascii") as out:
                for (state, event), lines in found.items():
                    out.write(f"\n[{state}] {event}\n" + "".join(f"  {line}\n" for line in lines))


class NoMasterTest(Walk):
    def test_every_event_without_a_master(self):
        self.assert_each_event_is_as_in_the_table("none")


class SlaveTest(Walk):
    def test_every_event_with_a_slave_connection(self):
        self.assert_each_event_is_as_in_the_table("slave")


class BridgedTest(Walk):
    def test_every_event_with_a_bridge(self):
        self.assert_each_event_is_as_in_the_table("bridged")


if __name__ == "__main__":
    unittest.main()
