# SPDX-License-Identifier: Apache-2.0
"""Frames and records: any split into packets, every error, and the requests before an error."""
import random
import unittest

from support.case import SUCCESS, EndToEndCase
from support.daemon import is_instrumented
from support.logs import DEBUG, ERR
from support.wait import wait_until
from support.wire import frame, record, request

THERE = request("fileexists", "/")
INCOMPLETE = "handleMessage: got packet, but it is not a complete message '.*'"

# Malformed input by name, with the length at which it is detected.
ERRORS = {
    "a letter in place of the start byte": b"x",
    "the middle byte in place of the start byte": b"\x02",
    "a digit in place of the start byte": b"5",
    "a zero byte in place of the start byte": b"\0",
    "an empty count": b"\x01\x02",
    "a letter for a count": b"\x01x",
    "a blank before the count": b"\x01 ",
    "a sign": b"\x01+",
    "a minus": b"\x01-",
    "a letter after a digit": b"\x015x",
    "a second start byte": b"\x015\x01",
    "a leading zero": b"\x0105",
    "two zeros": b"\x0100",
    "a count over the limit by one": b"\x01268435457",
    "nine nines": b"\x01999999999",
    "a tenth digit": b"\x011000000000",
}


class CuttingTest(EndToEndCase):
    """Packet boundaries have no meaning."""

    def setUp(self):
        super().setUp()
        self.running = self.daemon()
        self.peer = self.client()
        self.addCleanup(lambda: self.assert_stops(self.running))

    def packets_seen(self):
        return self.log.count(INCOMPLETE, DEBUG)

    def test_a_frame_cut_in_two_at_every_byte(self):
        self.assertEqual(self.peer.ask("fileexists", "/").fields, SUCCESS)
        for cut in range(1, len(THERE)):
            with self.subTest(cut=cut):
                seen = self.packets_seen()
                self.peer.send(THERE[:cut])
                wait_until(lambda before=seen: self.packets_seen() > before, "the first part is in")
                self.peer.send(THERE[cut:])
                self.assertEqual(self.peer.receive().fields, SUCCESS)

    def test_a_frame_in_packets_of_one_byte(self):
        for number in range(len(THERE)):
            self.peer.send(THERE[number:number + 1])
            if number + 1 < len(THERE):
                wait_until(lambda wanted=number + 1: self.packets_seen() >= wanted, "it is in")
        self.assertEqual(self.peer.receive().fields, SUCCESS)
        self.assertEqual(self.packets_seen(), len(THERE) - 1)

    def test_an_incomplete_packet_is_logged_once_and_cut_short(self):
        packet = frame(b"x" * 500)[:200]
        self.peer.send(packet)
        line = self.log.wait_for(INCOMPLETE, DEBUG)
        shown = packet.replace(b"\x01", b".").replace(b"\x02", b".")[:57].decode() + "..."
        self.assertEqual(line.text, "handleMessage: got packet, but it is not a complete message "
                                    f"'{shown}'")
        self.peer.send(b"x" * 400)
        self.log.wait_for("handleMessage: unexpected task 'xxx.*'", ERR)

    def test_several_frames_in_one_packet_and_the_start_of_the_next(self):
        self.peer.send(THERE * 3 + THERE[:10])
        self.assertEqual([self.peer.receive().fields for _ in range(3)], [SUCCESS] * 3)
        self.peer.send(THERE[10:])
        self.assertEqual(self.peer.receive().fields, SUCCESS)

    def test_a_frame_over_thousands_of_packets(self):
        content = random.Random(3).randbytes(8 << 20)
        path = self.path("big")
        frame_bytes = request("write", path, content)
        for start in range(0, len(frame_bytes), 1000):
            self.peer.send(frame_bytes[start:start + 1000])
        self.assertEqual(self.peer.receive().fields, SUCCESS)
        self.assertEqual(self.content("big"), content)

    def test_random_cuts_of_a_long_stream(self):
        seed = random.randrange(1 << 32)
        choice = random.Random(seed)
        paths = [self.file(f"f{number}", b"%d" % number) for number in range(200)]
        blanks = [b"", b"\r\n", b" ", b"\t\n "]
        stream = b"".join(choice.choice(blanks) + request("read", path) for path in paths)
        start = 0
        while start < len(stream):
            end = start + choice.choice((1, 2, 3, 7, 40, 300, 5000))
            self.peer.send(stream[start:end])
            start = end
        self.assertEqual([self.peer.receive().output for _ in paths],
                         [b"%d" % number for number in range(200)], f"seed {seed}")

    def test_blanks_before_a_frame_are_skipped(self):
        self.peer.send(b" \t\r\n" + THERE + b"\r\n \r\n" + THERE + b" ")
        self.assertEqual([self.peer.receive().fields for _ in range(2)], [SUCCESS, SUCCESS])
        self.peer.send(THERE)
        self.assertEqual(self.peer.receive().fields, SUCCESS)

    def test_an_empty_message_is_no_task(self):
        self.peer.send(frame(b"") + THERE)
        self.assertEqual(self.peer.receive().fields, SUCCESS)
        self.log.wait_for("handleMessage: unexpected task ''", ERR)

    def test_messages_that_are_no_tasks_are_logged_and_dropped(self):
        for message, shown in ((b"SlaveTask", "SlaveTask"), (b"slavetask 0", "slavetask 0"),
                               (b"\0\x01\x02\n", ""), (b"y" * 100, "y" * 57 + "...")):
            self.peer.send(frame(message) + THERE)
            self.assertEqual(self.peer.receive().fields, SUCCESS)
            if shown:
                self.log.wait_for(f"handleMessage: unexpected task '{shown}'", ERR)
        self.assertEqual(self.log.count("handleMessage: unexpected task '.*'", ERR), 4)


class FramingErrorTest(EndToEndCase):
    """A malformed stream: requests before the error are answered, none after it run."""

    def assert_broken(self, peer, bad, mark, after=b""):
        path = self.path("must-not-be")
        peer.send(THERE + THERE + bad + after + request("write", path, "x"))
        self.assertEqual([peer.receive().fields for _ in range(2)], [SUCCESS, SUCCESS])
        self.assertEqual(peer.read_to_end(), b"")
        self.log.wait_for(r"acceptBytes: bad frame on socket \d+, .+", ERR, mark)
        self.assertEqual(self.log.count("acceptBytes: .*", since=mark), 1)
        self.assertFalse(self.exists(path))

    def exists(self, path):
        try:
            with open(path, "rb"):
                return True
        except FileNotFoundError:
            return False

    def test_each_error_in_the_packet_of_good_requests(self):
        daemon = self.daemon()
        for name, bad in ERRORS.items():
            with self.subTest(name):
                client = self.client()
                self.assert_broken(client, bad, self.log.mark())
                client.close()
        self.assert_stops(daemon)

    def test_each_error_on_the_masters_connection(self):
        master = self.master()
        daemon = self.daemon()
        for name, bad in ERRORS.items():
            with self.subTest(name):
                self.assert_broken(master.accept(), bad, self.log.mark())
        self.assertEqual(master.accept().ask("fileexists", "/").fields, SUCCESS)
        self.assert_stops(daemon)

    def test_each_error_alone_in_a_later_packet(self):
        daemon = self.daemon()
        for name, bad in ERRORS.items():
            with self.subTest(name):
                mark = self.log.mark()
                client = self.client()
                self.assertEqual(client.ask("fileexists", "/").fields, SUCCESS)
                client.send(bad)
                self.assertEqual(client.read_to_end(), b"")
                self.log.wait_for(r"acceptBytes: bad frame on socket \d+, .+", ERR, mark)
                client.close()
        self.assert_stops(daemon)

    def test_an_error_is_detected_at_the_first_wrong_byte(self):
        daemon = self.daemon()
        for name, bad in ERRORS.items():
            with self.subTest(name):
                client = self.client()
                client.ask("fileexists", "/")
                mark = self.log.mark()
                if bad[:-1]:
                    client.send(bad[:-1])
                    self.log.wait_for(INCOMPLETE, DEBUG, mark)
                    self.assertEqual(self.log.count("acceptBytes: .*", since=mark), 0)
                client.send(bad[-1:])
                self.log.wait_for(r"acceptBytes: bad frame on socket \d+, .+", ERR, mark)
                client.close()
        self.assert_stops(daemon)

    def test_a_peer_that_keeps_sending_is_dropped_when_it_stops(self):
        daemon = self.daemon()
        client = self.client()
        client.ask("fileexists", "/")
        client.send(b"x")
        self.log.wait_for(r"acceptBytes: bad frame on socket \d+, .+", ERR)
        try:
            for _ in range(200):
                client.socket.sendall(THERE * 100)
        except (BrokenPipeError, ConnectionResetError):
            pass
        self.assertEqual(client.read_to_end(), b"")
        self.log.wait_for(r"dropping connection: \d+")
        self.assertEqual(self.client().ask("fileexists", "/").fields, SUCCESS)
        self.assert_stops(daemon)

    def test_the_memory_of_large_messages_is_freed(self):
        daemon = self.daemon()
        client = self.client()
        client.ask("fileexists", "/")
        before = daemon.resident_bytes()
        # Otherwise the allocator raises its threshold to the first size and retains the next.
        for size in (24 << 20, 20 << 20):
            self.assertEqual(client.ask("write", self.file("large"), "x" * size).fields, SUCCESS)
        client.ask("fileexists", "/")  # its answer follows the end of the previous request
        # The address sanitizer retains up to 256 MiB of freed memory.
        self.assertLess(daemon.resident_bytes() - before, (320 if is_instrumented() else 8) << 20)
        self.assert_stops(daemon)

    def test_the_highest_count_is_accepted_without_allocating(self):
        daemon = self.daemon()
        client = self.client()
        client.ask("fileexists", "/")
        before = daemon.resident_bytes()
        mark = self.log.mark()
        client.send(b"\x01268435456\x02")
        self.log.wait_for(INCOMPLETE, DEBUG, mark)
        self.assertLess(daemon.resident_bytes() - before, 8 << 20)
        self.assertTrue(client.is_open())
        self.assert_stops(daemon)


class RecordErrorTest(EndToEndCase):
    """A malformed record runs nothing and is answered."""

    MALFORMED = (
        b"SlaveTask ", b"SlaveTask x", b"SlaveTask -1 0 0: 0 0 0 0 0", b"SlaveTask 2",
        b"SlaveTask 99999999999999999999 1:a 0 0: 0 0 0 0 0",
        b"SlaveTask 02 6:unlink 10:/must-stay 0 0: 0 0 0 0 0",
        b"SlaveTask +2 6:unlink 10:/must-stay 0 0: 0 0 0 0 0",
        b"SlaveTask  2 6:unlink 10:/must-stay 0 0: 0 0 0 0 0",
        b"SlaveTask 2  6:unlink 10:/must-stay 0 0: 0 0 0 0 0",
        b"SlaveTask 2 06:unlink 10:/must-stay 0 0: 0 0 0 0 0",
        b"SlaveTask 2 -6:unlink 10:/must-stay 0 0: 0 0 0 0 0",
        b"SlaveTask 2 :unlink 10:/must-stay 0 0: 0 0 0 0 0",
        b"SlaveTask 2 6unlink 10:/must-stay 0 0: 0 0 0 0 0",
        b"SlaveTask 2 6:unlink 99999:/must-stay 0 0: 0 0 0 0 0",
        b"SlaveTask 2 6:unlink 99999999999999999999:/must-stay 0 0: 0 0 0 0 0",
        b"SlaveTask 2 6:unlink 4294967306:/must-stay 0 0: 0 0 0 0 0",
        b"SlaveTask 2 6:unlink 9:/must-stay 0 0: 0 0 0 0 0",
        b"SlaveTask 2 6:unlink 11:/must-stay 0 0: 0 0 0 0 0",
        b"SlaveTask 1 6:unlink 10:/must-stay 0 0: 0 0 0 0 0",
        b"SlaveTask 3 6:unlink 10:/must-stay 0 0: 0 0 0 0 0",
        b"SlaveTask 2 6:unlink 10:/must-stay 0: 0 0 0 0 0",
        b"SlaveTask 2 6:unlink 10:/must-stay 0 0: 0 0 0 0",
        b"SlaveTask 2 6:unlink 10:/must-stay 0 0: 0 0 0 0 ",
        b"SlaveTask 2 6:unlink 10:/must-stay 0 0: 0 0 0 0 0 ",
        b"SlaveTask 2 6:unlink 10:/must-stay 0 0: 0 0 0 0 0 0",
        b"SlaveTask 2 6:unlink 10:/must-stay 0 0: 0 0 0 0 0\n",
        b"SlaveTask 2 6:unlink 10:/must-stay 0 0: 0 0 0 0 00",
        b"SlaveTask 2 6:unlink 10:/must-stay 0 0: 0 0 0 0 -0",
        b"SlaveTask 2 6:unlink 10:/must-stay 0 0: 0 0 0 0 x",
        b"SlaveTask 2 6:unlink 10:/must-stay -0 0: 0 0 0 0 0",
        b"SlaveTask 2 6:unlink 10:/must-stay +1 0: 0 0 0 0 0",
        b"SlaveTask 2 6:unlink 10:/must-stay 00 0: 0 0 0 0 0",
        b"SlaveTask 2 6:unlink 10:/must-stay 2147483648 0: 0 0 0 0 0",
        b"SlaveTask 2 6:unlink 10:/must-stay -2147483649 0: 0 0 0 0 0",
        b"SlaveTask 2 6:unlink 10:/must-stay 0 1: 0 0 0 0 0",
        b"SlaveTask 2 6:unlink 10:/must-stay 0 0: -1 0 0 0 0",
        b"SlaveTask 2\t6:unlink 10:/must-stay 0 0: 0 0 0 0 0",
    )

    def test_each_malformed_record_is_answered_like_an_empty_list(self):
        daemon = self.daemon()
        client = self.client()
        text = f"({daemon.pid}) too few arguments: ".encode()
        for message in self.MALFORMED:
            with self.subTest(message=message):
                client.send(frame(message) + THERE)
                reply = client.receive()
                self.assertEqual((reply.fields, reply.output), ((4, 0, 1, 22, 0), text))
                self.assertEqual(client.receive().fields, SUCCESS)
        self.assert_stops(daemon)

    def test_a_record_cut_anywhere_is_answered_and_runs_nothing(self):
        daemon = self.daemon()
        client = self.client()
        path = self.file("kept")
        whole = record(["unlink", path])
        for end in range(len(b"SlaveTask "), len(whole)):
            client.send(frame(whole[:end]))
            self.assertEqual(client.receive().fields, (4, 0, 1, 22, 0), whole[:end])
        self.assertEqual(client.ask("fileexists", path).fields, SUCCESS)
        self.assert_stops(daemon)

    def test_well_formed_fields_after_the_arguments_are_ignored(self):
        daemon = self.daemon()
        client = self.client()
        for tail in (b"5:\x01\x02abc 0 0 0 0 0", b"0: 4 4 -2147483648 2147483647 64",
                     b"0: 0 0 -1 5 0"):
            client.send(frame(record(["fileexists", "/"], tail=tail)))
            self.assertEqual(client.receive().fields, SUCCESS, tail)
        for limit in (-2147483648, 2147483647, -1, 1):
            self.assertEqual(client.ask("fileexists", "/", exec_param=limit).fields, SUCCESS)
        self.assert_stops(daemon)

    def test_random_damage_never_stops_the_daemon(self):
        seed = random.randrange(1 << 32)
        choice = random.Random(seed)
        daemon = self.daemon()
        client = self.client()
        for _ in range(2000):
            damaged = bytearray(record(["fileexists", "/", "x" * choice.randrange(20)]))
            for _ in range(choice.randrange(1, 4)):
                damaged[choice.randrange(10, len(damaged))] = choice.randrange(256)
            client.send(frame(bytes(damaged)))
            self.assertIn(client.receive().fields[0], (0, 1, 4), f"seed {seed}: {damaged}")
        self.assert_stops(daemon)


if __name__ == "__main__":
    unittest.main()
