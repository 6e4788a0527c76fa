# SPDX-License-Identifier: Apache-2.0
"""Tests of the parts without I/O."""
import os
import random
import re
import unittest

from runel import LocalError, Outcome, TASKS, request
from runel._clauses import ClauseCutter, check_clause
from runel._roles import OUTLIVE, ConnectionRoles
from runel._protocol import FrameDecoder, ProtocolError, Record
from runel._protocol import decode_record, encode_frame, encode_record
from runel._waves import wave_sizes
from runel.results import decode_reply, parse_names, parse_number, parse_stat, parse_tree

DOCUMENT = os.path.join(os.path.dirname(__file__), "../../docs/protocol.md")
SEED = 20240607


def cut(data, random_):
    """`data` in pieces of random sizes."""
    at = 0
    while at < len(data):
        size = random_.choice((1, 2, 3, 50, 1000))
        yield data[at:at + size]
        at += size


class FrameTest(unittest.TestCase):
    def test_any_split_gives_the_same_payloads(self):
        random_ = random.Random(SEED)
        for _ in range(50):
            payloads = [random_.randbytes(random_.choice((0, 1, 9, 10, 300)))
                        for _ in range(random_.randrange(8))]
            decoder, found = FrameDecoder(), []
            for piece in cut(b"".join(map(encode_frame, payloads)), random_):
                decoder.feed(piece)
                while (payload := decoder.next()) is not None:
                    found.append(payload)
            self.assertEqual(found, payloads)
            self.assertTrue(decoder.is_empty)

    def test_malformed(self):
        for data in (b"S", b" \x01", b"\x01\x02", b"\x01-", b"\x0105", b"\x01268435457\x02",
                     b"\x011000000000", b"\x01+1\x02", b"\x01\xd9\xa1\x02", b"\n"):
            decoder = FrameDecoder()
            decoder.feed(data)
            with self.subTest(data), self.assertRaises(ProtocolError):
                decoder.next()

    def test_a_count_above_the_limit_is_refused_before_its_payload_arrives(self):
        decoder = FrameDecoder()
        decoder.feed(b"\x01101\x02")
        with self.assertRaisesRegex(ProtocolError, "101 bytes where at most 100"):
            decoder.next(limit=100)

    def test_the_start_of_a_frame_is_not_an_error(self):
        frame = encode_frame(b"0123456789")
        for length in range(len(frame)):
            decoder = FrameDecoder()
            decoder.feed(frame[:length])
            self.assertIsNone(decoder.next())


class RecordTest(unittest.TestCase):
    def test_round_trips(self):
        random_ = random.Random(SEED)
        def number(low):
            return random_.choice((low, 0, 1, 7, 2**31 - 1))
        for _ in range(300):
            record = Record(
                tuple(random_.randbytes(random_.randrange(12)) for _ in range(random_.randrange(4))),
                number(-2**31), random_.randbytes(random_.randrange(40)), number(0), number(0),
                number(-2**31), number(0), number(0))
            self.assertEqual(decode_record(encode_record(record)), record)

    def test_a_changed_record_is_refused_or_written_as_it_was_read(self):
        random_ = random.Random(SEED)
        good = encode_record(Record((b"exec", b"a b"), -1, b"out", 1, 2, 3, 4, 5))
        for _ in range(3000):
            changed = bytearray(good)
            changed[random_.randrange(len(good))] = random_.randrange(256)
            try:
                record = decode_record(bytes(changed))
            except ProtocolError:
                continue
            self.assertEqual(encode_record(record), changed)

    def test_random_bytes_raise_only_protocol_errors(self):
        random_ = random.Random(SEED)
        for _ in range(3000):
            data = bytes(random_.choices(b"SlaveTask 0123456789:-+", k=random_.randrange(30)))
            for start in (b"", b"SlaveTask "):
                try:
                    decode_record(start + data)
                except ProtocolError:
                    pass

    def test_numbers_out_of_range(self):
        for record in (Record(exec_param=2**31), Record(status=-1), Record(errno=2**31)):
            with self.assertRaises(ProtocolError):
                encode_record(record)

    def test_replies(self):
        self.assertEqual(decode_reply(b"SlaveTask 0 0 2:hi 0 2 0 0 0").text, b"hi")
        for payload in (b"SlaveTask 1 6:hostid 0 0: 0 0 0 0 0", b"SlaveTask 0 5 0: 0 0 0 0 0",
                        b"SlaveTask 0 0 0: 9 0 0 0 0", b"SlaveTask 0 0 0: 0 9 0 0 0"):
            with self.subTest(payload), self.assertRaises(ProtocolError):
                decode_reply(payload)


class DocumentTest(unittest.TestCase):
    """Checks the package against docs/protocol.md."""

    def blocks(self, kind):
        with open(DOCUMENT, encoding="utf-8") as document:
            return re.findall(f"```{kind}\n(.*?)```", document.read(), re.DOTALL)

    def records(self, kind):
        return [eval("b" + line[:line.rindex('"') + 1])
                for block in self.blocks(kind) for line in block.splitlines()]

    def hex_lines(self, kind):
        return [bytes.fromhex(re.match(r"([0-9a-f]{2} ?)+", line)[0])
                for block in self.blocks(kind) for line in block.splitlines()]

    def test_records(self):
        for payload in self.records("record"):
            self.assertEqual(encode_record(decode_record(payload)), payload)
        for payload in self.records("not-a-record"):
            with self.subTest(payload), self.assertRaises(ProtocolError):
                decode_record(payload)

    def test_bad_frames(self):
        for data in self.hex_lines("not-a-frame"):
            decoder = FrameDecoder()
            decoder.feed(data)
            with self.subTest(data), self.assertRaises(ProtocolError):
                decoder.next()

    def test_the_task_table(self):
        with open(DOCUMENT, encoding="utf-8") as document:
            table = document.read().split("## The tasks")[1].split("## Programs")[0]
        rows = dict(re.findall(r"^\| ([a-z]+) \| ([^|]*) \|", table, re.MULTILINE))
        del rows["task"]
        self.assertEqual(sorted(rows), sorted(TASKS))
        for name, arguments in rows.items():
            if name != "exec":
                self.assertEqual(TASKS[name].least_args, arguments.count("`") // 2, name)

    def test_clauses(self):
        for block in self.blocks("relay"):
            cutter = ClauseCutter()
            for line in block.splitlines():
                word, text = line.split(" ", 1)
                data = eval("b" + text.strip())
                if word == "in":
                    cutter.feed(data)
                elif word == "out":
                    with self.subTest(block):
                        self.assertEqual(self.relayed(cutter), data)

    def relayed(self, cutter):
        out = b""
        try:
            while (clause := cutter.next()) is not None:
                out += clause + b"\r\n"
        except ProtocolError:  # the daemon keeps input that does not start a clause
            pass
        return out


class TaskTest(unittest.TestCase):
    SAFE = {"access", "devicetype", "fileexists", "freeblocks", "hostid", "lstat", "processrunning",
            "read", "readdir", "realpath", "stat", "walktree", "write", "chmodx", "blinkleds",
            "changeleds", "updateumstate"}
    READING = {"access", "devicetype", "fileexists", "freeblocks", "hostid", "lstat",
               "processrunning", "read", "readdir", "realpath", "stat", "walktree"}

    def test_what_may_be_retried(self):
        self.assertTrue(TASKS)
        for name, task in TASKS.items():
            self.assertEqual(task.may_retry(Outcome.UNKNOWN), name in self.SAFE, name)
            self.assertEqual(task.may_retry(Outcome.NOT_SENT), name not in ("kill", "wait"), name)
            self.assertFalse(task.may_retry(Outcome.ANSWERED))
            self.assertEqual(task.changes, name not in self.READING, name)
            self.assertEqual(task.unbounded, name in ("exec", "wait"), name)

    def test_arguments(self):
        self.assertEqual(request("read", "/caf\u00e9").args, (b"/caf\xc3\xa9",))
        self.assertEqual(request("read", "/\udcff").args, (b"/\xff",))
        for args in (("none",), ("read",), ("read", "a", "b"), ("exec",)):
            with self.subTest(args), self.assertRaises(LocalError) as caught:
                request(*args)
            self.assertEqual(caught.exception.outcome, Outcome.NOT_SENT)

    def test_a_request_too_large_for_a_frame(self):
        for size in (268435455, 268435457):
            with self.assertRaisesRegex(LocalError, "at most 268435456"):
                request("write", "/f", bytes(size)).encode()


class TextTest(unittest.TestCase):
    STAT = (b"dev=2049 ino=131073 mode=0100644 nlink=1 uid=1000 gid=100 rdev=0 size=158 "
            b"blksize=4096 blocks=8 atime=1700000000.000000005 mtime=-1.123456789 "
            b"ctime=0.999999999\n")

    def test_stat(self):
        found = parse_stat(self.STAT)
        self.assertEqual((found.mode, found.size, found.permissions), (0o100644, 158, 0o644))
        self.assertEqual(found.atime_ns, 1700000000000000005)
        self.assertEqual(found.mtime_ns, -876543211)
        self.assertTrue(found.is_file)

    def test_names(self):
        self.assertEqual(parse_names(b"StringVec 2\n3:a\nb\n1:\xff\n"), ["a\nb", "\udcff"])
        self.assertEqual(parse_names(b"StringVec 0\n"), [])

    def test_tree(self):
        entries = parse_tree(b"d 0755 0 0 0 -5 .\nl 0777 1 2 0 7 a\\x0ab -> c d\n")
        self.assertEqual([entry.path for entry in entries], [".", "a\nb"])
        self.assertEqual((entries[1].target, entries[0].mtime), ("c d", -5))

    def test_malformed(self):
        for parse, good in ((parse_stat, self.STAT), (parse_names, b"StringVec 1\n3:abc\n"),
                            (parse_tree, b"- 0755 0 0 0 5 f\n"), (parse_number, b"120")):
            for length in range(len(good)):
                if parse is parse_number and length:
                    continue
                if parse is parse_tree and not length:
                    continue
                with self.subTest(good[:length]), self.assertRaises(ProtocolError):
                    parse(good[:length])
            with self.assertRaises(ProtocolError):
                parse(good + b"x")


class ClauseTest(unittest.TestCase):
    def test_any_split_gives_the_same_clauses(self):
        random_ = random.Random(SEED)
        clauses = [b"<a/>", b"<b>text</b>", b"<c>\r\n <a/>\n</c>", b"<ping/>", b"<d x='1'/>"]
        for _ in range(50):
            chosen = random_.choices(clauses, k=9)
            cutter, found = ClauseCutter(), []
            for piece in cut(b"".join(clause + b"\r\n" for clause in chosen), random_):
                cutter.feed(piece)
                while (clause := cutter.next()) is not None:
                    found.append(clause)
            self.assertEqual(found, chosen)

    def test_refused(self):
        for data in (b"text<a/>", b"\x01", b"<a>\x02"):
            cutter = ClauseCutter()
            with self.subTest(data), self.assertRaises(ProtocolError):
                cutter.feed(data)
                cutter.next()

    def test_an_endless_clause_is_not_kept(self):
        for start in (b"<a>", b"<a"):
            cutter = ClauseCutter(limit=100)
            cutter.feed(start + b"x" * 100)
            with self.assertRaises(ProtocolError):
                cutter.next()

    def test_valid_clauses_to_send(self):
        self.assertEqual(check_clause(b" <a>b</a>\r\n"), b"<a>b</a>")
        for data in (b"", b"a", b"<a>", b"<a/><b/>", b"<a>\x01</a>", b'<a id="1">v</a>'):
            with self.subTest(data), self.assertRaises(ProtocolError):
                check_clause(data)


class LineupTest(unittest.TestCase):
    def test_the_first_connection_of_an_address_carries_tasks(self):
        lineup = ConnectionRoles()
        self.assertTrue(lineup.opened(1, "a", 0))
        self.assertFalse(lineup.opened(2, "a", 0))
        self.assertTrue(lineup.opened(3, "b", 0))
        self.assertEqual(lineup.slaves_at("a"), [1])
        self.assertEqual((lineup.due(1e9), lineup.next_due()), ([], None))

    def test_a_connection_that_outlives_the_first_one_carries_tasks(self):
        lineup = ConnectionRoles()
        for number in (1, 2, 3):
            lineup.opened(number, "a", 0)
        lineup.closed(1, 10)
        self.assertEqual(lineup.next_due(), 10 + OUTLIVE)
        self.assertEqual(lineup.due(10 + OUTLIVE - 0.1), [])
        self.assertEqual(lineup.due(10 + OUTLIVE), [2])
        self.assertEqual(lineup.due(1e9), [])

    def test_a_connection_that_sent_bytes_never_carries_tasks(self):
        lineup = ConnectionRoles(shared=1)
        lineup.opened(1, "a", 0)
        lineup.opened(2, "a", 0)
        lineup.spoke(2)
        lineup.closed(1, 10)
        self.assertEqual((lineup.due(1e9), lineup.next_due()), ([], None))

    def test_several_devices_behind_one_address(self):
        lineup = ConnectionRoles(shared=3)
        lineup.opened(1, "a", 0)
        lineup.opened(2, "a", 1)
        self.assertEqual((lineup.due(3.9), lineup.due(4)), ([], [2]))
        self.assertEqual(lineup.slaves_at("a"), [1, 2])

    def test_a_new_connection_replaces_a_lost_one(self):
        lineup = ConnectionRoles()
        lineup.opened(1, "a", 0)
        lineup.opened(2, "a", 0)
        lineup.closed(1, 5)
        self.assertTrue(lineup.opened(3, "a", 5))
        self.assertEqual(lineup.due(1e9), [])


class WaveTest(unittest.TestCase):
    def test_sizes(self):
        for waves, devices, sizes in (((), 5, [5]), ((1, "rest"), 5, [1, 4]), ((2, 2), 5, [2, 2, 1]),
                                      (("10%",), 5, [1, 4]), ((9,), 5, [5]), (("100%", 1), 5, [5]),
                                      ((), 0, [])):
            self.assertEqual(wave_sizes(waves, devices), sizes)

    def test_malformed(self):
        for wave in ("0%", "101%", "x", 0, -1, "1"):
            with self.subTest(wave), self.assertRaises(LocalError):
                wave_sizes((wave,), 5)
