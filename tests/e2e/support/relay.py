# SPDX-License-Identifier: Apache-2.0
"""An agent, the daemon, and the master's end of the bridge."""
from support.case import SUCCESS, EndToEndCase
from support.logs import number_in
from support.wait import wait_until

GREETING = b"<hello/>\r\n"
PING = b"<ping/>\r\n"
NO_PEER = r"handleMessage: no peer_ link, buffering '.*'"
NEW_AGENT = r"handle_data_read: creating agent socket handler, socket \d+"
ESTABLISHED = r"established connection to 127\.0\.0\.1, port 5112, socket \d+"


# No quarantine for freed memory in a sanitizer, because tests measure the memory.
NO_QUARANTINE = {"ASAN_OPTIONS": "quarantine_size_mb=1:thread_local_quarantine_size_kb=64:"
                                 "exitcode=86"}


class RelayCase(EndToEndCase):
    """Connects agents and bridges."""

    def agent_socket(self, since=0):
        """The daemon's socket number of the agent that connected after @p since."""
        return number_in(self.log.wait_for(NEW_AGENT, since=since))

    def arrive(self, first=GREETING):
        """A new agent that has sent @p first."""
        agent = self.client()
        agent.send(first)
        return agent

    def bridge_to(self, agent, master, greeting=GREETING):
        """The master's end of the bridge for @p agent, which has sent @p greeting."""
        bridge = master.accept()
        self.assertEqual(bridge.receive_bytes(len(greeting)), greeting)
        return bridge

    def bridged(self, *arguments, **options):
        """A daemon with a bridged agent. Sets `master` and the socket numbers."""
        daemon = self.daemon(*arguments, **options)
        self.listener = self.master()
        self.slave = self.listener.accept()
        self.log.wait_for(ESTABLISHED)
        mark = self.log.mark()
        agent = self.arrive()
        bridge = self.bridge_to(agent, self.listener)
        self.agent_number = self.agent_socket(mark)
        self.bridge_number = number_in(self.log.wait_for(ESTABLISHED, since=mark))
        return daemon, agent, bridge

    def assert_relays(self, agent, bridge):
        """Clauses pass in both directions."""
        agent.send(b"<there/>")
        self.assertEqual(bridge.receive_bytes(10), b"<there/>\r\n")
        bridge.send(b"<back>again</back>")
        self.assertEqual(agent.receive_bytes(20), b"<back>again</back>\r\n")

    def assert_next_agent_is_served(self):
        """The daemon is ready for the next agent, and the slave connection works."""
        self.assertEqual(self.slave.ask("fileexists", "/").fields, SUCCESS)
        agent = self.arrive()
        self.assert_relays(agent, self.bridge_to(agent, self.listener))

    def wait_count(self, pattern, least, level=None, since=0):
        wait_until(lambda: self.log.count(pattern, level, since) >= least,
                   f"{least} lines like {pattern}")


def processor_seconds(daemon):
    """The daemon's processor time, with a resolution of nanoseconds."""
    with open(f"/proc/{daemon.pid}/schedstat", encoding="ascii") as fields:
        return int(fields.read().split()[0]) / 1e9
