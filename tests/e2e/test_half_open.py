# SPDX-License-Identifier: Apache-2.0
"""Half-open connections: the daemon detects them by itself and blocks on none of them."""
import contextlib
import signal
import subprocess
import time
import unittest

from support.case import SUCCESS, EndToEndCase
from support.logs import ERR, INFO, number_in
from support.wait import wait_until
from support.wire import request

NEAR, FAR, MASTER = "127.0.0.1", "127.0.0.2", "127.0.0.3"
TIMED_OUT = 110


class HalfOpenTest(EndToEndCase):
    """A firewall drops every packet to and from some addresses."""

    def cut_off(self, *addresses):
        rules = "\n".join(f"ip {end} {one} drop" for one in addresses for end in ("saddr", "daddr"))
        subprocess.run(["nft", "-f", "-"], check=True, text=True, input="table ip cut {\n"
                       f"chain input {{\ntype filter hook input priority 0\n{rules}\n}}\n}}\n")
        self.addCleanup(self.reconnect)

    @staticmethod
    def reconnect():
        subprocess.run(["nft", "flush", "ruleset"], check=True)

    @contextlib.contextmanager
    def stopped(self, daemon):
        """Stops the daemon meanwhile, so that it handles all events together afterwards."""
        daemon.send_signal(signal.SIGSTOP)
        wait_until(lambda: daemon.state() == "T", "it stands still")
        try:
            yield
        finally:
            daemon.send_signal(signal.SIGCONT)

    def connect(self, source):
        """A served client, and the daemon's number of its socket."""
        mark = self.log.mark()
        client = self.client(source=source)
        self.assertEqual(client.ask("fileexists", "/").fields, SUCCESS)
        return client, number_in(self.log.wait_for("accepted connection, .*", since=mark))

    def assert_found_dead(self, number, since):
        self.log.wait_for(f"recvfrom: socket {number}, {TIMED_OUT} .*", ERR, since, timeout=150)

    def test_idle_ones_are_dropped_after_a_minute_and_replies_do_not_block(self):
        master = self.master(MASTER)
        daemon = self.daemon("-i", MASTER)
        slave = master.accept()
        self.assertEqual(slave.ask("fileexists", "/").fields, SUCCESS)
        outbound = number_in(self.log.wait_for("established connection to .*"))
        _, idle = self.connect(FAR)
        small, small_number = self.connect(FAR)
        large, large_number = self.connect(FAR)
        near, _ = self.connect(NEAR)
        big = self.path("big")
        with open(big, "wb") as file:
            file.truncate(64 << 20)
        mark, begun = self.log.mark(), time.monotonic()
        with self.stopped(daemon):
            small.send(request("write", self.path("small"), "done"))
            large.send(request("read", big))
            self.cut_off(FAR, MASTER)
        # A large reply waits up to 30 s for its peer; the kernel buffers a small one.
        self.log.wait_for(f"sendMessage: socket {large_number}, .*", ERR, mark)
        self.assertGreaterEqual(time.monotonic() - begun, 29)
        self.assertEqual(near.ask("fileexists", self.path("small")).fields, SUCCESS)
        self.assert_found_dead(idle, mark)
        self.log.wait_for(f"dropping connection: {idle}", INFO, mark)
        self.assert_found_dead(outbound, mark)
        self.assertGreaterEqual(time.monotonic() - begun, 50)
        self.assertEqual(self.log.count(f"dropping connection: {small_number}"), 0)
        # The master is reachable again: the daemon reconnects, as after any other loss.
        slave.close()
        self.reconnect()
        self.assertEqual(master.accept().ask("fileexists", "/").fields, SUCCESS)
        self.assertEqual(near.ask("fileexists", "/").fields, SUCCESS)
        self.assert_stops(daemon)


if __name__ == "__main__":
    unittest.main()
