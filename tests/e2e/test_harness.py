# SPDX-License-Identifier: Apache-2.0
"""Tests of the harness itself."""
import socket

from support.case import EndToEndCase


class LogCollectorTest(EndToEndCase):
    """Lines that the collector has not received yet."""

    def setUp(self):
        super().setUp()
        self.sender = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(self.sender.close)
        self.sender.connect("/dev/log")

    def say(self, *texts):
        for text in texts:
            self.sender.send(b"<174>Jan  1 00:00:00 runeld: (1) " + text.encode())

    def test_forget_drops_lines_not_received_yet(self):
        for _ in range(500):
            self.say("first", "second", "third")
            self.log.forget()
            self.assertEqual(self.log.count(".*"), 0)

    def test_forget_keeps_later_lines(self):
        for _ in range(500):
            self.say("before")
            self.log.forget()
            self.say("after")
            self.assertEqual([text for _, text in self.log.shown()], ["after"])
