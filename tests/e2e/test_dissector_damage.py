# SPDX-License-Identifier: Apache-2.0
"""The Wireshark dissector and captures that are incomplete, damaged or made to confuse it."""
import dataclasses
import os
import random
import re
import unittest

from support import capture, pcap
from support.pcap import Conversation
from support.relay import PING, RelayCase
from support.sizes import sized
from support.wire import frame, request

SEED = 20261123
FUZZED_PACKETS = 10_000
# Preferences of Wireshark that change in which portions, and in which order, the dissector gets the bytes.
PREFERENCES = {
    "default": (),
    "in two passes": ("-2", "-Y", "frame"),
    "in two passes, the first without fields": ("-2",),
    "out of order": ("-o", "tcp.reassemble_out_of_order:TRUE"),
    "errors too": ("-o", "tcp.no_subdissector_on_error:FALSE"),
    "not reassembled": ("-o", "tcp.desegment_tcp_streams:FALSE"),
    "not analyzed": ("-o", "tcp.analyze_sequence_numbers:FALSE"),
    "absolute numbers": ("-o", "tcp.relative_sequence_numbers:FALSE"),
}


def reply(text=b"", fields=b"0 2 0 0 0"):
    return frame(b"SlaveTask 0 0 %d:%s %s" % (len(text), text, fields))


def pieces(data, size):
    return [data[at:at + size] for at in range(0, len(data), size)]


class DamageCase(RelayCase):
    def read(self, conversation, *options):
        segments = getattr(conversation, "segments", conversation)
        return capture.messages(pcap.write(self.path("made.pcap"), segments), *options)

    def assert_shown(self, messages, *expected):
        """Each message has the fields of its dictionary, a missing field being None."""
        self.assertEqual([{name: message.get(name) for name in fields}
                          for message, fields in zip(messages, expected)], [*expected])
        self.assertEqual(len(messages), len(expected))

    def real_capture(self):
        """The segments of a conversation with the real daemon, of every kind."""
        running = capture.Capture(self.path("real.pcapng"))
        self.addCleanup(running.kill)
        daemon, agent, bridge = self.bridged()
        slave, path = self.slave, self.path("file")
        slave.ask("exec", "/bin/sh", "-c", "echo a b; exit 3", exec_param=60)
        slave.ask("write", path, b"x" * 30_000)
        for task in ("read", "stat", "nosuch"):
            slave.ask(task, path)
        slave.ask("walktree", self.directory)
        slave.ask()
        slave.send(request("hostid") + request("fileexists", "/missing") + request("read", "/etc/hosts"))
        for _ in range(3):
            slave.receive()
        slave.send(frame(b"not a record"))
        client = self.client()
        client.ask("devicetype")
        client.send(b"\x01x")
        client.read_to_end()
        client = self.client()
        client.send(b"GET / HTTP/1.1\r\n")
        self.assert_relays(agent, bridge)
        agent.send(PING)
        bridge.receive_bytes(len(PING))
        agent.send(b"<a>" + b"z" * 3000 + b"</a>\n<state>down")
        agent.send(b"loading</state>")
        bridge.receive_bytes(3009 + 28)
        agent.send(b"hello<a/>")
        self.log.wait_for(r"nextXmlClause: expecting '<' at 0.*")
        self.assert_stops(daemon)
        return pcap.read(capture.classic(running.stop()))


class GapTest(DamageCase):
    def test_a_lost_reply_does_not_shift_the_others(self):
        talk = Conversation()
        talk.server(request("hostid")).client(reply(b"one")).server(request("stat", "/a")).lose(0, 40)
        talk.server(request("stat", "/b")).client(reply(b"two")).server(request("stat", "/c"))
        talk.client(reply(b"three"))
        guess = {"gap": "40 bytes before this segment are missing in the capture"}
        messages = [message for message in self.read(talk) if "request" in message or "reply" in message]
        self.assert_shown(
            messages, {"task": "hostid", "reply_in": "5"}, {"request_in": "4", "output": "one"},
            {"arg.path": "/a", "reply_in": None}, {"arg.path": "/b", "reply_in": "8"},
            {"request_in": "7", "notes": {"guess": "Matched after a gap: a guess"}},
            {"arg.path": "/c", "reply_in": "10"}, {"request_in": "9", "notes": {}})
        self.assertIn(guess, [message["notes"] for message in self.read(talk)])

    def test_a_lost_request_does_not_shift_the_others(self):
        talk = Conversation()
        talk.server(request("hostid")).client(reply(b"one")).lose(1, 30).client(reply(b"lost"))
        talk.server(request("stat", "/b")).client(reply(b"two"))
        messages = [message for message in self.read(talk) if "request" in message or "reply" in message]
        self.assert_shown(
            messages, {"reply_in": "5"}, {"request_in": "4"},
            {"request_in": None, "notes": {"no_request": "No request for this reply"}},
            {"arg.path": "/b", "reply_in": "8"}, {"request_in": "7"})

    def test_a_lost_segment_of_a_large_request_loses_this_request_only(self):
        large = pieces(request("write", "/f", b"x" * 5000), 1000)
        talk = Conversation()
        talk.server(*large).client(reply()).server(request("hostid")).client(reply(b"id"))
        del talk.segments[5]
        messages = [message for message in self.read(talk) if "request" in message or "reply" in message]
        self.assert_shown(messages, {"task": "write", "request_in": "4"},
                          {"task": "hostid", "reply_in": "11"}, {"task": "hostid", "request_in": "10"})

    def test_a_capture_that_begins_in_a_message(self):
        talk = Conversation()
        talk.server(*pieces(request("write", "/f", b"<x>" * 2000), 1000)).client(reply())
        talk.server(request("hostid")).client(reply(b"id"))
        messages = self.read(talk.segments[5:])
        self.assertEqual([message["notes"] for message in messages if "notes" in message and message["notes"]],
                         [{"no_request": "No request for this reply"}, {"guess": "Matched after a gap: a guess"}])
        self.assert_shown(messages[-2:], {"task": "hostid", "connection": "slave connection"},
                          {"task": "hostid", "output": "id"})

    def test_any_loss_matches_no_reply_with_a_wrong_request(self):
        """Unless the reply has a note that says so; and without pipelining, no reply at all."""
        for depth, loss in ((1, 0.03), (1, 0.1), (5, 0.03), (5, 0.1)):
            for options in ((), PREFERENCES["not reassembled"]):
                with self.subTest(depth=depth, loss=loss, options=options):
                    self.check_losses(depth, loss, options)

    def check_losses(self, depth, loss, options):
        random_ = random.Random(SEED + depth)
        segments = []
        for number in range(sized(12, 600)):
            segments += [one for one in self.numbered(random_, 20_000 + number, depth)
                         if not one.payload or random_.random() > loss]
        checked = guesses = wrong = 0
        for message in self.read(segments, *options):
            self.assertNotIn("bad_frame", message["notes"])
            if "reply" not in message or "request_in" not in message or not message.get("output"):
                continue
            is_right = int(message["output"].split()[0]) in segments[int(message["request_in"]) - 1].requests
            guesses += "guess" in message["notes"]
            wrong += not is_right
            checked += 1
            self.assertTrue(is_right or (depth > 1 and "guess" in message["notes"]), message)
        self.assertGreater(checked, len(segments) // 40)
        self.assertGreater(guesses, 0)
        self.assertLess(wrong, guesses)

    def numbered(self, random_, port, depth):
        """A conversation whose requests and replies have numbers, with those of each segment."""
        talk, number = Conversation(client_port=port), 0
        while number < 20:
            numbers = range(number, number + random_.randrange(1, depth + 1))
            padding = [b"x" * random_.choice((0, 10, 3000)) for _ in numbers]
            asked = [request("exec", "echo", b"%d" % each, pad) for each, pad in zip(numbers, padding)]
            told = [reply(b"%d " % each + pad) for each, pad in zip(numbers, padding)]
            for send, parts in ((talk.server, asked), (talk.client, told)):
                owners = [each for each, part in zip(numbers, parts) for _ in part]
                size = random_.choice((30, 500, 1448, 9000))
                for at, piece in zip(range(0, len(owners), size), pieces(b"".join(parts), size)):
                    send(piece)
                    talk.segments[-1].requests = set(owners[at:at + size])
            number = numbers[-1] + 1
        return talk.segments


class SegmentTest(DamageCase):
    IGNORED = ("frame", "stream", "request_in", "reply_in", "time", "continuation", "continuation.of", "clause",
               "clause.begins_in", "blanks", "unknown", "arg.data", "ping")

    def comparable(self, messages):
        """What each connection shows, independent of the segments."""
        streams = {}
        for message in messages:
            if not {"request", "reply", "clause.name"} & set(message):
                continue
            shown = {name: value for name, value in message.items() if name not in self.IGNORED}
            streams.setdefault(message["stream"], []).append(
                {**shown, "is_matched": "request_in" in message or "reply_in" in message})
        return streams

    def test_any_segments_show_the_same_messages(self):
        segments = self.real_capture()
        whole = self.comparable(self.read(segments))
        self.assertGreater(sum(map(len, whole.values())), 30)
        random_ = random.Random(SEED)
        for _ in range(sized(2, 20)):
            split = list(pcap.split(segments, random_))
            self.assertGreater(len(split), 2 * len(segments))
            self.assertEqual(self.comparable(self.read(split)), whole)

    def test_doubled_and_reordered_segments_show_the_same_messages(self):
        segments = self.real_capture()
        whole = self.comparable(self.read(segments))
        random_ = random.Random(SEED)
        split = list(pcap.split(segments, random_))
        doubled = [one for each in split for one in [each] * random_.choice((1, 1, 1, 2))]
        for name in ("default", "errors too", "not analyzed"):
            with self.subTest(name):
                self.assertEqual(self.comparable(self.read(doubled, *PREFERENCES[name])), whole)
        moved = list(split)
        for at in range(len(moved) - 1):
            same = moved[at].source == moved[at + 1].source and moved[at].target == moved[at + 1].target
            if same and moved[at].payload and moved[at + 1].payload and random_.random() < 0.1:
                moved[at], moved[at + 1] = moved[at + 1], moved[at]
        self.assertNotEqual(moved, split)
        self.assertEqual(self.comparable(self.read(moved, *PREFERENCES["out of order"])), whole)

    def test_a_capture_of_the_first_bytes_of_each_packet(self):
        segments = [dataclasses.replace(one, captured=pcap.HEADERS + 40) for one in self.real_capture()]
        messages = self.read(segments)
        asked = [message for message in messages if "request" in message]
        self.assertEqual([message.get("task") for message in asked[:4]], ["exec", "write", "read", "stat"])
        for message in asked[:4]:
            self.assertIn("reply_in", message)
        self.assertEqual(asked[0]["notes"], {"cut": "The capture holds a part of this message only"})

    def test_long_frames_show_their_first_and_last_bytes(self):
        data = bytes(range(256)) * 8192  # 2 MiB
        for options in (("-o", "runel.longest_frame:1"), PREFERENCES["not reassembled"]):
            with self.subTest(options):
                talk = Conversation()
                talk.server(*pieces(request("write", "/f", data, exec_param=7), 60_000)).client(reply())
                talk.server(request("read", "/f")).client(*pieces(reply(data, b"1 0 1 27 0"), 50_001))
                talk.server(request("hostid"))
                messages = [message for message in self.read(talk, *options) if "continuation.of" not in message]
                self.assert_shown(
                    messages,
                    {"task": "write", "arg.path": "/f", "arg.data.length": str(len(data)), "execparam": None,
                     "reply_in": None, "notes": {}},
                    {"task": "write", "arg.path": "/f", "arg.data.length": str(len(data)), "execparam": "7",
                     "ignored.signal": "0", "reply_in": "39", "notes": {}},
                    {"task": "write", "request_in": "38"}, {"task": "read", "reply_in": "82"},
                    {"task": "read", "status": None, "output.length": str(len(data))},
                    {"task": "read", "status": "1", "result": "1", "errno": "27", "signal": "0",
                     "output.length": str(len(data)), "request_in": "40", "notes": {}},
                    {"task": "hostid"})

    def test_long_clauses_are_found_without_reassembly(self):
        for size, step in ((400, 1), (300_000, 1448), (4_000_000, 60_000)):
            with self.subTest(size):
                clause = b"<long>" + b"x<b/>" * (size // 5) + b"</long>"
                talk = Conversation(server_port=5111)
                talk.client(*pieces(clause + b"\r\n<next/>\r\n", step))
                messages = [message for message in self.read(talk) if "clause.name" in message]
                self.assert_shown(messages, {"clause.name": "long", "clause.length": str(len(clause)),
                                             "clause.begins_in": "4", "notes": {}},
                                  {"clause.name": "next", "clause.length": "7", "clause.begins_in": None})


class HostileTest(DamageCase):
    def test_bytes_of_a_frame_among_clauses(self):
        talk = Conversation().client(b"<a/>\r\n").server(b"<b/>" + request("hostid")).client(b"<c/>")
        self.assert_shown(
            self.read(talk), {"clause": "<a/>", "connection": "agent bridge"}, {"clause": "<b/>"},
            {"notes": {"sentinel": "Byte of a frame among clauses: stops the daemon"}}, {"clause": "<c/>"})

    def test_input_that_blocks_the_relay(self):
        for text, problem in ((b"</a><b/>", "a closing tag without its opening tag"),
                              (b"<!-- x --><b/>", "a declaration or a comment"),
                              (b"<a x='1'>v</a>", "a tag with attributes that does not close itself"),
                              (b"x<b/>", "a clause must begin with '<'")):
            with self.subTest(text):
                talk = Conversation(server_port=5111).client(b"<ok/>").client(text).client(b"<next/>")
                self.assert_shown(
                    self.read(talk), {"clause": "<ok/>", "notes": {}},
                    {"notes": {"blocked": f"Blocks the relay: {problem}"}, "unknown": text.hex(":")},
                    {"clause": None, "unknown": b"<next/>".hex(":")})

    def test_other_protocols(self):
        for first, name in ((b"GET / HTTP/1.1\r\n\r\n", ", looks like HTTP"), (b"SSH-2.0-x\r\n", ", looks like SSH"),
                            (b"\x16\x03\x01\0\5hello", ", looks like TLS"), (b"hello\n", "")):
            with self.subTest(first):
                talk = Conversation(server_port=5111).client(first, b" \r\n", request("hostid"))
                self.assert_shown(
                    self.read(talk),
                    {"notes": {"unknown_protocol": f"Neither a frame nor a clause{name}"}, "connection": "task client"},
                    {"blanks": b" \r\n".hex(":")}, {"task": "hostid", "connection": "task client"})

    def test_bytes_behind_a_bad_frame_are_discarded(self):
        talk = Conversation(server_port=5111)
        talk.client(request("hostid") + b"\x0105" + request("stat", "/")).client(request("stat", "/"))
        self.assert_shown(
            self.read(talk), {"task": "hostid"},
            {"notes": {"bad_frame": "Bad frame: a count with a leading zero"}, "task": None},
            {"notes": {"discarded_bytes": "Discarded: the daemon reads no further"}, "task": None})

    def test_other_ports(self):
        talk = Conversation(server_port=6111).client(request("hostid")).server(reply(b"id"))
        for options in (("-o", "runel.device_ports:6000-6200"), ("-d", "tcp.port==6111,runel")):
            with self.subTest(options):
                self.assert_shown(self.read(talk, *options), {"task": "hostid", "request": "", "reply_in": "5"},
                                  {"output": "id", "reply": "", "request_in": "4"})
        self.assertEqual(self.read(talk), [])

    def test_very_many_arguments_and_messages(self):
        talk = Conversation().server(*pieces(request(*["exec"] + [b""] * 100_000), 60_000))
        talk.client(reply()).server(*pieces(frame(b"") * 40_000, 60_000))
        messages = self.read(talk)
        self.assert_shown(messages[:2], {"argc": "100001", "reply_in": str(messages[1]["frame"]), "notes": {
            "many_arguments": "More arguments than are read here"}}, {"task": "exec"})
        self.assertEqual(len(messages), 40_002)

    def test_bytes_that_are_not_text(self):
        name = b"a\0b\xff\xe2\x82\xac\xc3\n"
        talk = Conversation().server(request("stat", name)).client(reply(name))
        shown = "a\u2400b\ufffd\u20ac\ufffd\n"
        self.assert_shown(self.read(talk), {"arg.path": shown}, {"output": shown})


class FuzzTest(DamageCase):
    """Damaged captures: no error in the dissector, with any input."""

    def shown(self, path, options, script=capture.DISSECTOR):
        return capture.tshark(path, "-V", *options, script=script)

    def damaged(self, seed):
        random_ = random.Random(seed)
        packets, raw = pcap.damaged(self.segments, random_, FUZZED_PACKETS)
        return pcap.write(self.path("damaged.pcap"), packets, raw)

    def test_ten_thousand_damaged_packets(self):
        self.segments = self.real_capture()
        seen = set()
        names = sized(["default", "in two passes, the first without fields", "not reassembled"],
                      [*PREFERENCES] * 10)
        for seed, name in enumerate(names, SEED):
            with self.subTest(seed=seed, preferences=name):
                text = self.shown(self.damaged(seed), PREFERENCES[name])
                self.assertEqual(text.count(b"\nFrame ") + 1, FUZZED_PACKETS)
                self.assertEqual(capture.lua_errors(text), [])
                seen.update(re.findall(rb"Expert Info \(\w+/\w+\): (\D{8})", text))
        with open(capture.DISSECTOR, "rb") as script:
            titles = re.findall(rb'^expert_info\("\w+", "([^"]{8})', script.read(), re.MULTILINE)
        rare = {b"More arg", b"Too few ", b"Surplus ", b"Bytes ar", b"Byte of "}  # other tests have them
        self.assertEqual({title for title in titles if title not in rare and title not in seen}, set())

    def test_an_error_in_the_dissector_is_seen(self):
        self.segments = self.real_capture()
        with open(capture.DISSECTOR, encoding="utf-8") as script:
            text = script.read()
        for place in ("function Show:bad(item)\n", "function Scan:classify(begin)\n"):
            with self.subTest(place):
                self.assertIn(place, text)
                script = self.file("planted.lua", text.replace(place, f'{place}  error("planted")\n').encode())
                path = pcap.write(self.path("real.pcap"), self.segments)
                self.assertNotEqual(capture.lua_errors(self.shown(path, (), script)), [])
                with self.assertRaises(AssertionError):
                    capture.messages(path, script=script)
        with self.assertRaises(AssertionError):
            self.shown(path, (), self.file("broken.lua", b"local x = = 1\n"))
        self.assertTrue(os.path.exists(path))


if __name__ == "__main__":
    unittest.main()
