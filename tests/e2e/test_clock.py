# SPDX-License-Identifier: Apache-2.0
"""Clocks that jump: all times use the monotonic clock, for any value of the real-time clock."""
import os
import signal
import time
import unittest

from support.case import SUCCESS
from support.leds import LedCase

# The uptime in seconds that no longer fits into 31 bits.
FULL = 1 << 31


class ClockTest(LedCase):
    """All timed functions of the daemon: a program's limit, the LEDs, the end of a program."""

    def assert_keeps_time(self, client):
        self.assertEqual(client.ask("blinkleds", "fast").fields, SUCCESS)
        self.assert_blinks()
        begun = time.monotonic()
        self.assertEqual(client.ask("exec", "sleep", "1000", exec_param=1).fields,
                         (3, 4, -1, 110, signal.SIGTERM))
        self.assertGreaterEqual(time.monotonic() - begun, 1)
        self.assertEqual(client.ask("exec", "sleep", "0.2", exec_param=30).fields, (0, 2, 0, 0, 0))
        self.assert_blinks()

    def test_a_real_time_clock_that_jumps_by_68_years(self):
        daemon = self.daemon(environment={"LD_PRELOAD": os.environ["RUNELD_JUMPING_CLOCK"]},
                             detect_leaks=False)
        client = self.client()
        # The programs inherit the preloaded clock.
        year = int(client.ask("exec", "date", "+%Y").output)
        self.assertGreater(abs(year - time.gmtime().tm_year), 60)
        self.assert_keeps_time(client)
        self.assert_stops(daemon)

    def test_a_device_that_has_been_up_for_68_years(self):
        up = int(time.clock_gettime(time.CLOCK_MONOTONIC))
        daemon = self.daemon(wait=False, wrapper=(
            "unshare", "--time", "--monotonic", str(FULL - 4 - up), "--fork", "--kill-child"))
        line = self.log.wait_for("listening on port 5111")
        client = self.client()
        self.assert_keeps_time(client)
        while self.monotonic_there(client) < FULL:
            self.assert_keeps_time(client)
        self.assert_keeps_time(client)
        os.kill(line.pid, signal.SIGTERM)
        self.assertEqual(daemon.process.wait(60), 0)

    def monotonic_there(self, client):
        """The monotonic clock as a program of the daemon reads it."""
        code = "import time; print(int(time.clock_gettime(time.CLOCK_MONOTONIC)))"
        return int(client.ask("exec", "python3", "-c", code).output)


if __name__ == "__main__":
    unittest.main()
