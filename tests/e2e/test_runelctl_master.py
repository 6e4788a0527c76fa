# SPDX-License-Identifier: Apache-2.0
"""The commands master, devices and agent."""
import json
import os
import random
import resource
import select
import signal
import socket
import stat
import subprocess
import sys
import time
import unittest

from support.ctl import reply
from support.fakes import FRAME, FakeDevice, FakeDevices
from support.master import MasterCase
from support.peers import MASTER_PORT
from support.wait import TIMEOUT, wait_until
from support.wire import frame, record, request

CHECK = b"10:fileexists 1:/"


class RealDevice(MasterCase):
    """A daemon that is connected to the master."""

    def setUp(self):
        super().setUp()
        self.start_master("--xml", "--xml-log", self.path("clauses"))
        self.device = self.daemon()
        self.label = self.wait_told("connected")
        self.hostid = self.label["hostid"]

    def agent(self):
        agent = socket.create_connection(("127.0.0.1", 5111))
        self.addCleanup(agent.close)
        return agent

    def test_a_device_is_selected_by_hostid_address_or_port(self):
        for name in (self.hostid, "127.0.0.1", f"127.0.0.1:{self.label['port']}"):
            self.assertEqual(self.succeed("-d", "@" + name, "hostid").text, self.hostid + "\n")
        result = self.ctl("-d", "@somebody", "hostid")
        self.assertEqual((result.status, result.errors),
                         (255, ["runelctl: @somebody: no device somebody is connected to the master "
                                "(runelctl devices lists the connected devices)"]))

    def test_output_and_exit_status_are_forwarded(self):
        result = self.ctl("-d", "@" + self.hostid, "exec", "sh", "-c", "echo a; exit 7")
        self.assertEqual((result.status, result.out, result.err), (7, b"a\n", b""))

    def test_large_content_is_forwarded_both_ways(self):
        data = random.Random(1).randbytes(20_000_000)
        name = "@" + self.hostid
        self.succeed("-d", name, "write", self.path("large"), "-", feed=data)
        self.assertEqual(self.content("large"), data)
        self.assertEqual(self.succeed("-d", name, "cat", self.path("large")).out, data)

    def test_parallel_calls_get_their_answers(self):
        calls = [self.start("-d", "@" + self.hostid, "exec", "echo", str(number))
                 for number in range(20)]
        for number, call in enumerate(calls):
            out, err = call.communicate(timeout=TIMEOUT)
            self.assertEqual((call.returncode, out, err), (0, b"%d\n" % number, b""))

    def test_a_restarting_device_is_lost_and_reconnects(self):
        self.succeed("-d", "@" + self.hostid, "restart")
        self.wait_told("lost", role="slave")
        self.assertEqual(self.device.wait(), 0)
        self.assertEqual(self.devices(), {})
        self.daemon()
        again = self.wait_told("connected", count=2)
        self.succeed("-d", "@" + self.hostid, "fileexists", "/")
        about = self.devices()[self.hostid]
        self.assertEqual((about["connects"], about["losses"], about["requests"]), (2, 1, 2),
                         "the restart and one since")
        self.assertEqual(about["last_loss_why"], self.told("lost")[0]["why"])
        times = [self.label["time"], self.told("lost")[0]["time"], again["time"]]
        self.assertEqual(sorted(times), times)
        self.assertLessEqual(about["first_seen"], about["last_loss"])
        self.assertLessEqual(about["last_loss"], about["since"])
        line = self.succeed("devices").text.splitlines()[1]
        self.assertRegex(line, r" 00:\d\d:\d\d  2 +1 +2 ")

    def test_the_device_reconnects_to_a_restarted_master(self):
        self.assertEqual(self.stop_master(), "")
        self.start_master()
        self.wait_told("connected", hostid=self.hostid)
        self.assertIn(self.hostid, self.devices())

    def test_clauses_of_agents_are_printed_and_stored_exactly(self):
        agent = self.agent()
        agent.sendall(b"<a>\xff\n\x1b[2J</a>\r\n<b/>\r\n")
        self.wait_told("agent", hostid=self.hostid)
        self.assertEqual(self.wait_told("clause", hostid=self.hostid)["clause_base64"],
                         "PGE+/wobWzJKPC9hPg==")
        self.assertEqual(self.wait_told("clause", count=2)["clause"], "<b/>")
        kept = [json.loads(line) for line in self.content("clauses").splitlines()]
        self.assertEqual(kept, self.told("clause"))
        self.assertEqual(stat.S_IMODE(os.stat(self.path("clauses")).st_mode), 0o600)
        agent.close()
        self.wait_told("lost", role="agent")
        self.assertEqual(self.told("lost", role="slave"), [])

    def test_nothing_is_written_to_a_silent_bridge(self):
        self.agent().sendall(b"<not-complete>")
        self.wait_told("further", hostid=self.hostid)
        wait_until(lambda: self.devices()[self.hostid]["connected_s"] >= 7, "more than 5 s pass")
        self.assertTrue(self.device.alive())
        about = self.devices()[self.hostid]
        self.assertEqual((about["further"], about["agents"]), (1, 0))
        self.assertEqual(self.told("lost"), [])
        self.assertEqual(self.log.count(".*sentinels.*"), 0)
        self.assert_stops(self.device)

    def test_devices_prints_statistics(self):
        for _ in range(3):
            self.succeed("-d", "@" + self.hostid, "fileexists", "/")
        about = self.devices()[self.hostid]
        self.assertEqual((about["v"], about["device"], about["address"], about["requests"],
                          about["users"]), (1, self.hostid, "127.0.0.1", 3, 0))
        self.assertEqual((about["connects"], about["losses"]), (1, 0))
        self.assertNotIn("last_loss", about)
        self.assertEqual(about["since"], about["first_seen"])
        self.assertGreater(about["bytes_to_device"], 3 * len(record(["fileexists", "/"])))
        self.assertRegex(about["since"], r"^20\d\d-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z$")
        head, line = self.succeed("devices").text.splitlines()
        self.assertRegex(head, r"^HOSTID +ADDRESS +TYPE +UP +CONNECTS +LOSSES +REQUESTS "
                               r"+SENT +RECEIVED +AGENTS +CLAUSES$")
        self.assertRegex(line, rf"^{self.hostid}  127\.0\.0\.1:\d+ +\w+ +00:\d\d:\d\d  1 +0 +3 ")
        self.assertEqual(self.succeed("devices", "--names").text, self.hostid + "\n")

    def test_an_incomplete_frame_never_reaches_the_device(self):
        call = self.call(b"attach 127.0.0.1\n")
        self.assertEqual(call.recv(3), b"ok\n")
        call.sendall(request("write", self.path("a"), "x")[:-4])
        wait_until(lambda: self.devices()[self.hostid]["users"] == 1, "the call is there")
        call.close()
        wait_until(lambda: self.devices()[self.hostid]["users"] == 0, "the call is gone")
        self.succeed("-d", "@" + self.hostid, "write", self.path("b"), "y")
        self.assertFalse(os.path.exists(self.path("a")))

    def test_malformed_frames_end_only_their_call(self):
        other = self.call(b"attach 127.0.0.1\n")
        self.assertEqual(other.recv(3), b"ok\n")
        for garbage in (b"hello\n", b"\x01999999999999\x02", b"<a/>", b"\x01\x02"):
            call = self.call(b"attach 127.0.0.1\n" + garbage)
            self.assertEqual(call.recv(3), b"ok\n")
            self.assertEqual(call.recv(1), b"", garbage)
        other.sendall(request("fileexists", "/"))
        self.assertIn(b"SlaveTask", other.recv(100))
        self.assertEqual(self.told("lost"), [])

    def test_payloads_that_are_not_task_records_have_no_answer(self):
        call = self.call(b"attach 127.0.0.1\n" + frame(b"nonsense") + request("fileexists", "/"))
        self.assertEqual(call.recv(3), b"ok\n")
        self.assertEqual(call.recv(100), reply())

    def test_a_call_that_does_not_read_its_answers_does_not_block_the_master(self):
        path = self.file("large", bytes(30_000_000))
        call = self.call(b"attach 127.0.0.1\n" + request("read", path) * 20)
        fake = FakeDevice(self, "127.0.0.9", "other")
        self.wait_told("connected", hostid="other")
        self.assertEqual(call.recv(3), b"ok\n")
        wait_until(lambda: self.devices()[self.hostid]["bytes_from_device"] > 30_000_000,
                   "the device answers")
        self.assertEqual(self.succeed("-d", "@other", "hostid").text, "other\n")
        self.assert_small(250_000_000)
        call.close()
        self.succeed("-d", "@" + self.hostid, "fileexists", "/")
        fake.close()


class Roles(MasterCase):
    """Which connections carry tasks, and which are only read."""

    def device(self, *arguments, **options):
        return FakeDevice(self, *arguments, **options)

    def first(self, **options):
        device = self.device(**options)
        self.wait_told("connected", address="127.0.0.1")
        return device

    def test_nothing_is_written_to_an_additional_connection_and_the_first_is_checked(self):
        self.start_master()
        first = self.first()
        second = self.device()
        self.wait_told("further", port=second.port)
        first.wait_asked(CHECK)
        third = self.device()
        self.wait_told("further", port=third.port)
        wait_until(lambda: self.devices()["fake"]["connected_s"] >= 6, "more than 5 s pass")
        self.assertEqual((second.came, third.came), (b"", b""))
        self.assertFalse(second.ended.is_set() or third.ended.is_set())

    def test_a_half_open_connection_is_detected_and_replaced(self):
        self.start_master()
        self.first().vanish()
        again = self.device(hostid="again")
        lost = self.wait_told("lost", role="slave")
        self.assertEqual(again.came, b"")
        self.wait_told("connected", hostid="again", port=again.port)
        self.assertGreaterEqual(self.after(lost, self.told("connected", hostid="again")[0]), 4.9)
        self.succeed("-d", "@again", "fileexists", "/")

    @staticmethod
    def after(one, other):
        """The seconds between two events."""
        def moment(event):
            whole, _, fraction = event["time"].rstrip("Z").partition(".")
            return time.mktime(time.strptime(whole, "%Y-%m-%dT%H:%M:%S")) + float("0." + fraction)
        return moment(other) - moment(one)

    def test_a_first_connection_that_does_not_answer_a_check_is_closed(self):
        self.start_master("--io-timeout", "1")
        first = self.first()
        first.answers = False
        second = self.device(hostid="second")
        self.assertEqual(self.wait_told("lost", port=first.port)["why"],
                         "no answer to the liveness check")
        self.wait_told("connected", hostid="second")

    def test_a_busy_first_connection_is_not_closed(self):
        self.start_master("--io-timeout", "1")
        first = self.first()
        first.answers = False
        call = self.start("-d", "@fake", "exec", "long-running")
        first.wait_asked(b"long-running")
        self.device()
        first.wait_asked(CHECK)
        wait_until(lambda: self.devices()["fake"]["connected_s"] >= 7, "more than 5 s pass")
        self.assertEqual(self.told("lost"), [])
        first.answer_held()
        self.assertEqual(call.wait(TIMEOUT), 0)

    def test_a_timeout_of_a_call_checks_the_device(self):
        self.start_master()
        first = self.first()
        first.vanish()
        result = self.ctl("-d", "@fake", "--io-timeout", "1", "fileexists", "/")
        self.assertEqual(result.status, 255)
        self.wait_told("lost", role="slave")

    def test_a_silent_connection_that_outlives_the_slave_connection_replaces_it(self):
        self.start_master("--xml")
        first = self.first()
        bridge = self.device()
        silent = self.device()
        self.wait_told("further", port=silent.port)
        bridge.send(b"<hello/>\r\n")
        self.wait_told("clause", port=bridge.port)
        first.close()
        lost = self.wait_told("lost", port=first.port)
        connected = self.wait_told("connected", port=silent.port)
        self.assertGreaterEqual(self.after(lost, connected), 4.9)
        self.assertEqual(bridge.came, b"")

    def test_a_new_connection_after_a_loss_is_the_slave_connection_immediately(self):
        self.start_master()
        first = self.first()
        surplus = self.device()
        self.wait_told("further", port=surplus.port)
        first.close()
        self.wait_told("lost", port=first.port)
        second = self.device(hostid="second")
        self.wait_told("connected", port=second.port)
        wait_until(lambda: self.devices()["second"]["connected_s"] >= 6, "more than 5 s pass")
        self.assertEqual(surplus.came, b"")
        self.assertFalse(surplus.ended.is_set())

    def test_devices_at_a_shared_address_are_detected_by_their_silence(self):
        self.start_master("--shared-address", "0.5", "--xml")
        self.device(hostid="one")
        self.wait_told("connected", hostid="one")
        bridge = self.device(greeting=b"<quick/>")
        self.wait_told("clause", clause="<quick/>")
        for name in ("two", "three"):
            self.device(hostid=name)
            self.wait_told("connected", hostid=name)
        self.assertEqual(bridge.came, b"")
        self.assertEqual(set(self.devices()), {"one", "two", "three"})
        self.assertEqual(self.succeed("-d", "@two", "hostid").text, "two\n")
        result = self.ctl("-d", "@127.0.0.1", "hostid")
        self.assertEqual(result.status, 255)
        self.assertIn("3 devices are named 127.0.0.1: select one by ADDRESS:PORT", result.errors[0])

    def test_devices_with_the_same_hostid_are_selected_by_address(self):
        self.start_master()
        for address in ("127.0.0.2", "127.0.0.3"):
            self.device(address, "same")
            self.wait_told("connected", address=address)
        self.assertIn(b"2 devices are named same", self.ctl("-d", "@same", "hostid").err)
        self.assertEqual(self.succeed("-d", "@127.0.0.3", "hostid").text, "same\n")


class Clauses(MasterCase):
    """Clauses whose device is not known yet, and agents that are gone."""

    def test_clauses_before_the_identity_are_stored_with_the_name(self):
        self.start_master("--xml", "--xml-log", self.path("clauses"))
        device = FakeDevice(self, hostid="late", answers=False)
        device.wait_asked(b"devicetype")
        bridge = FakeDevice(self, greeting=b"<a/><b/>")
        self.wait_told("further", port=bridge.port)
        device.answer_held()
        self.wait_told("clause", count=2)
        self.assertEqual([event["event"] for event in self.events],
                         ["listening", "further", "connected", "agent", "clause", "clause"])
        kept = [json.loads(line) for line in self.content("clauses").splitlines()]
        self.assertEqual([(clause["hostid"], clause["device"], clause["clause"])
                          for clause in kept], [("late", "late", "<a/>"), ("late", "late", "<b/>")])
        self.assertEqual(bridge.came, b"")

    def test_an_agent_waits_until_the_identity_of_its_device_is_known(self):
        self.start_master("--xml-log", self.path("clauses"))
        device = FakeDevice(self, answers=False)
        device.wait_asked(b"devicetype")
        bridge = FakeDevice(self, greeting=b"<a/>")
        self.wait_told("further", port=bridge.port)
        part = b"<n>%s</n>" % (b"x" * 993)
        data = memoryview(part * 100_000)
        sent = 0
        while sent < len(data) and select.select([], [bridge.socket], [], 1)[1]:
            sent += bridge.socket.send(data[sent:], socket.MSG_DONTWAIT)
        self.assertLess(sent, 50_000_000, "the master must not keep them all")
        device.answer_held()
        bridge.send(part[sent % len(part):])
        whole = 2 + sent // len(part)
        wait_until(lambda: self.devices()["fake"]["clauses"] == whole, "all clauses are taken")
        hostids = {json.loads(line)["hostid"] for line in self.content("clauses").splitlines()}
        self.assertEqual(hostids, {"fake"})

    def test_the_agent_of_a_device_that_was_switched_off_is_not_counted(self):
        self.start_master()
        first = FakeDevice(self)
        self.wait_told("connected")
        bridge = FakeDevice(self, greeting=b"<a/>")
        self.wait_told("agent", port=bridge.port)
        self.assertEqual(self.devices()["fake"]["agents"], 1)
        first.vanish()
        bridge.vanish()
        FakeDevice(self, hostid="again")
        self.wait_told("connected", hostid="again")
        self.wait_told("lost", role="agent", port=bridge.port)  # the probes of both end independently
        about = self.devices()["again"]
        self.assertEqual((about["further"], about["agents"]), (0, 0))


class Strangers(MasterCase):
    """Refused devices, and devices that violate the protocol."""

    def test_only_listed_addresses_are_accepted(self):
        self.start_master("--allow", "127.0.0.8/31,127.0.1.1")
        for address in ("127.0.0.8", "127.0.0.9", "127.0.1.1"):
            FakeDevice(self, address)
            self.wait_told("connected", address=address)
        stranger = FakeDevice(self, "127.0.0.10")
        told = self.wait_told("refused", address="127.0.0.10")
        self.assertEqual(told["why"], "address not allowed by --allow")
        self.assertFalse(stranger.ended.is_set(), "it would dial again at once")
        stranger.wait_ended()
        self.assertEqual(stranger.came, b"")

    def test_only_listed_hostids_are_accepted(self):
        self.start_master("--allow-hostid", "one", "--allow-hostid", "two,three")
        for number, name in enumerate(("one", "two", "three")):
            FakeDevice(self, f"127.0.0.{number + 2}", name)
            self.wait_told("connected", hostid=name)
        stranger = FakeDevice(self, "127.0.0.7", "four")
        told = self.wait_told("refused", address="127.0.0.7")
        self.assertEqual(told["why"], "host identifier not allowed by --allow-hostid")
        self.assertEqual(set(self.devices()), {"one", "two", "three"})
        self.assertEqual(self.ctl("-d", "@127.0.0.7", "hostid").status, 255)
        self.assertFalse(stranger.ended.is_set(), "it would dial again at once")

    def test_the_number_of_connections_from_an_address_is_limited(self):
        self.start_master()
        devices = [FakeDevice(self) for _ in range(16)]
        self.wait_told("further", count=15)
        one_more = FakeDevice(self)
        self.assertEqual(self.wait_told("refused")["why"], "too many connections from this address")
        self.assertFalse(any(device.ended.is_set() for device in (*devices, one_more)))

    def test_a_peer_that_never_answers_is_not_listed(self):
        self.start_master("--io-timeout", "1")
        FakeDevice(self, answers=False).wait_ended()
        self.assertEqual(self.wait_told("lost")["why"], "no answer to the liveness check")
        self.assertEqual(self.devices(), {})

    def test_an_invalid_name_is_not_shown(self):
        self.start_master()
        names = (b"\x1b[2J", b"a\nb", b"", b"x" * 65, b"a b", "ä".encode(), b"\xff", b"../x")
        for number, name in enumerate(names):
            FakeDevice(self, f"127.0.0.{number + 10}", name)
            told = self.wait_told("connected", address=f"127.0.0.{number + 10}")
            self.assertEqual((told["hostid"], told["device"]), ("", told["address"]))
        self.assertEqual(self.succeed("-d", "@127.0.0.11", "hostid").out, b"a\nb\n")

    def bad_answers(self):
        """Invalid answers of a device, and the expected error."""
        noise = random.Random(7)
        yield b"<a/>\r\n", "the peer is not runeld: it sends XML, like an agent"
        yield b"SSH-2.0-OpenSSH_9.2\r\n", "the peer is not runeld: it looks like an SSH server"
        yield b"\x02", "the peer is not runeld: it uses an unknown protocol"
        yield b"\x01x", "bad frame: byte 0x78 in a count"
        yield b"\x01\x02", "bad frame: an empty count"
        yield b"\x01268435457\x02", "bad frame: "
        yield b"\x01" + b"9" * 100, "bad frame: "
        yield frame(b""), "malformed answer: not a task record"
        yield frame(b"SlaveTask 1 1:x 0 0: 0 0 0 0"), "malformed answer: not a task record"
        yield frame(b"x" * 70000), "answer exceeds the size limit"
        yield b"\x0199999999\x02" + bytes(3_000_000), "answer exceeds the size limit"
        yield reply(b"a") * 3, "answer without a request"
        for _ in range(40):
            yield b"\x01" + noise.randbytes(noise.randrange(1, 300)), ""
            yield frame(b"SlaveTask " + noise.randbytes(noise.randrange(1, 100))), ""

    def test_invalid_data_on_a_slave_connection_ends_only_that_connection(self):
        self.start_master()
        FakeDevice(self, "127.0.0.2", "good")
        self.wait_told("connected", hostid="good")
        for number, (bad, why) in enumerate(self.bad_answers(), 1):
            device = FakeDevice(self, answers=False)
            device.wait_asked(b"devicetype")
            device.blurt(bad)
            self.close_unless_thrown_out(device)
            told = self.wait_told("lost", count=number, address="127.0.0.1")
            self.assertIn(why, told["why"], bad[:60])
        self.assertEqual(self.succeed("-d", "@good", "hostid").text, "good\n")
        self.assertEqual(self.told("lost", hostid="good"), [])
        self.assert_small(150_000_000)

    @staticmethod
    def close_unless_thrown_out(device):
        """Random bytes may start an endless frame, which only the device can end."""
        if not device.ended.wait(0.3):
            device.socket.shutdown(socket.SHUT_WR)
        device.wait_ended()
        device.close()

    def test_an_idle_device_that_sends_data_is_lost(self):
        self.start_master()
        for number, (bad, why) in enumerate(
                ((reply(), "answer without a request"), (b"<a/>", "bad frame: byte 0x3c"),
                 (b"\x01200000000\x02" + bytes(2_500_000), "exceeds the size limit"))):
            device = FakeDevice(self, f"127.0.0.{number + 2}")
            self.wait_told("connected", port=device.port)
            device.blurt(bad)
            self.assertIn(why, self.wait_told("lost", port=device.port)["why"])

    def test_invalid_data_on_a_bridge_ends_only_that_connection(self):
        self.start_master("--xml")
        good = FakeDevice(self)
        self.wait_told("connected")
        noise = random.Random(9)
        bad = [b"x", b"\x01", b"<a>\x02</a>", b"</a>\x01", b"<a/>text", b"\x00",
               b"<" + b"a" * 1_200_000]
        bad += [b"\x01" + noise.randbytes(200) for _ in range(20)]
        for number, data in enumerate(bad, 1):
            bridge = FakeDevice(self)
            self.wait_told("further", count=number)
            bridge.blurt(data)
            bridge.wait_ended()
            self.wait_told("lost", count=number, role="agent")
            bridge.close()
        self.assertFalse(good.ended.is_set())
        self.assertEqual(self.succeed("-d", "@fake", "hostid").text, "fake\n")


class Size(MasterCase):
    """Many devices, few descriptors, and output that is not read."""

    COUNT = 900

    def test_nine_hundred_devices(self):
        self.allow_descriptors()
        self.start_master()
        devices = FakeDevices(self, self.COUNT)
        self.wait_told("connected", count=self.COUNT)
        self.assertEqual(set(self.devices()), set(devices.names))
        names = "".join(f"@{name}\n" for name in devices.names)
        long_timeouts = ("--connect-timeout", "60", "--io-timeout", "60")
        result = self.succeed("--json", "-j", "900", "--devices", "-", *long_timeouts, "hostid",
                              feed=names.encode(), timeout=3 * TIMEOUT)
        *answers, summary = result.objects
        self.assertEqual({"@" + answer["output"] for answer in answers},
                         {answer["device"] for answer in answers})
        self.assertEqual(summary["summary"]["ok"], self.COUNT)
        self.assertEqual(self.told("lost"), [])

    @staticmethod
    def allow_descriptors():
        hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
        resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))

    def use(self, name):
        """One request to the device @p name, as a call of runelctl sends it."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as call:
            call.settimeout(TIMEOUT)
            call.connect(self.control)
            call.sendall(b"attach %s\n" % name.encode())
            self.assertEqual(call.recv(3), b"ok\n")
            call.sendall(request("fileexists", "/"))
            answer = call.recv(1 << 20)
            head = FRAME.match(answer)
            while len(answer) < head.end() + int(head[1]):
                answer += call.recv(1 << 20)

    def time_of_use(self, names, count):
        """The processor time that the master needs for a call, in nanoseconds. The least of three
        parts, which other programs have disturbed least."""
        times = []
        for _ in range(3):
            before = self.processor_time()
            for number in range(count):
                self.use(names[number * len(names) // count])
            times.append((self.processor_time() - before) / count)
        return min(times)

    def test_a_call_costs_as_much_with_ten_thousand_devices_as_with_a_hundred(self):
        self.allow_descriptors()
        self.start_master()
        devices = FakeDevices(self, 100)
        self.wait_told("connected", count=100)
        few = self.time_of_use(devices.names, 500)
        devices.grow(1000)
        self.wait_told("connected", count=1000)
        small = self.resident_bytes()
        devices.grow(10_000)
        self.wait_told("connected", count=10_000)
        each = (self.resident_bytes() - small) / 9000
        many = self.time_of_use(devices.names, 500)
        for _ in range(10):  # a busy machine lengthens the times; a search of all devices does in each
            if many < 2 * few:
                break
            many = self.time_of_use(devices.names, 500)
        self.assertLess(many, 2 * few, "processor time of a call")
        self.assertLess(each, 64_000 if self.sanitized() else 8000, "memory of a device")
        self.assertEqual(self.told("lost"), [])

    def test_memory_of_large_answers_is_released(self):
        self.allow_descriptors()
        self.start_master()
        devices = FakeDevices(self, 400)
        self.wait_told("connected", count=400)
        devices.content = bytes(200_000)
        for name in devices.names[:20]:
            self.use(name)
        before = self.resident_bytes()
        for name in devices.names:
            self.use(name)
        # With the sanitizer, freed memory stays for a while.
        self.assertLess(self.resident_bytes() - before, 400_000_000 if self.sanitized() else
                        20_000_000)

    def test_devices_wait_while_descriptors_are_used_up(self):
        limit = 40
        self.start_master("--allow", "127.0.0.0/8", preexec_fn=lambda: resource.setrlimit(
            resource.RLIMIT_NOFILE, (limit, limit)))
        # One connection first: the sanitizers need descriptors at the first use of a type.
        early = FakeDevice(self, "127.0.3.1", "early")
        self.wait_told("connected", hostid="early")
        early.close()
        self.wait_told("lost", hostid="early")
        devices = [FakeDevice(self, f"127.0.2.{number + 1}", f"d{number}") for number in range(60)]
        wait_until(lambda: len(self.told("connected")) > 20, "some are accepted")
        for device in devices[:40]:
            device.close()
        for device in devices[40:]:
            self.wait_told("connected", port=device.port)
        self.assertIn("runelctl: cannot accept connections: Too many open files",
                      self.stop_master())

    def test_output_that_is_not_read_does_not_block_the_master(self):
        reading, writing = os.pipe()
        self.addCleanup(os.close, reading)
        self.running = self.start("master", "--xml", stdout=writing)
        os.close(writing)
        wait_until(lambda: self.ctl("devices").status == 0, "the master listens")
        FakeDevice(self)
        wait_until(self.devices, "the device is there")
        bridge = FakeDevice(self)
        wait_until(lambda: self.devices()["fake"]["further"] == 1, "the bridge is there")
        bridge.send(b"<a>%s</a>" % (b"x" * 1000) * 6000)
        wait_until(lambda: self.devices()["fake"]["clauses"] == 6000, "all clauses are taken")
        self.assert_small(100_000_000)


class ControlSocket(MasterCase):
    """The control socket: access rights, requests, and a missing master."""

    def test_it_is_private_to_the_user(self):
        self.start_master()
        about = os.stat(self.control)
        self.assertTrue(stat.S_ISSOCK(about.st_mode))
        self.assertEqual(stat.S_IMODE(about.st_mode), 0o600)
        self.assertEqual(self.stop_master(), "")
        self.assertFalse(os.path.exists(self.control))

    def test_it_is_removed_on_an_interrupt_too(self):
        self.start_master()
        self.stop_master(signal.SIGINT)
        self.assertFalse(os.path.exists(self.control))

    def test_a_signal_during_the_start_ends_it_cleanly(self):
        for _ in range(20):
            master = self.start("master")
            wait_until(lambda: os.path.exists(self.control), "the socket is there", pause=0)
            master.terminate()
            self.assertEqual(master.wait(TIMEOUT), 0)
            self.assertFalse(os.path.exists(self.control))

    def as_other_user(self, code):
        """Runs @p code as another user with access to the socket's directory. The result."""
        os.chmod(self.directory, 0o755)
        script = "import os, socket, sys\n" + code
        return subprocess.run(["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                               sys.executable, "-c", script, self.control],
                              capture_output=True, timeout=TIMEOUT, check=False)

    CALL = """s = socket.socket(socket.AF_UNIX)
s.connect(sys.argv[1])
print(s.makefile().read())"""

    def test_other_users_are_refused_by_its_mode_and_by_the_master(self):
        self.start_master()
        FakeDevice(self)
        self.wait_told("connected")
        self.assertIn(b"PermissionError", self.as_other_user(self.CALL).stderr)
        os.chmod(self.control, 0o666)
        answer = self.as_other_user(self.CALL)
        self.assertEqual(answer.stdout.strip(), b"the master belongs to another user", answer.stderr)

    def test_a_master_of_another_user_is_not_used(self):
        os.chmod(self.directory, 0o777)
        listener = subprocess.Popen(
            ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", sys.executable, "-c",
             "import socket, sys, time\ns = socket.socket(socket.AF_UNIX)\ns.bind(sys.argv[1])\n"
             "s.listen()\nprint(1, flush=True)\ntime.sleep(1000)", self.control],
            stdout=subprocess.PIPE)
        self.addCleanup(self._end, listener)
        listener.stdout.readline()
        for words in (("devices",), ("-d", "@any", "hostid")):
            result = self.ctl(*words)
            self.assertEqual((result.status, len(result.errors)), (255, 1), words)
        self.assertIn("another user", result.errors[0])

    def test_a_directory_that_is_writable_by_others_is_refused(self):
        os.chmod(self.directory, 0o777)
        result = self.ctl("master")
        self.assertEqual(result.status, 1)
        self.assertIn("not a private directory for the control socket", result.errors[0])

    def free_default_directory(self):
        directory = f"/tmp/runelctl-{os.geteuid()}"
        if os.path.isdir(directory):
            os.rmdir(directory)
        return directory

    def test_a_directory_behind_a_link_is_refused(self):
        directory = self.free_default_directory()
        os.mkdir(self.path("private"))
        os.symlink(self.path("private"), directory)
        self.addCleanup(os.remove, directory)
        for env in ({"XDG_RUNTIME_DIR": ""}, {"XDG_RUNTIME_DIR": directory}):
            result = self.ctl("master", env=env)
            self.assertEqual((result.status, result.errors), (1, [
                f"runelctl: {directory}: not a private directory for the control socket: "
                "Not a directory"]))
        self.assertEqual(os.listdir(self.path("private")), [])

    def test_a_directory_of_another_user_is_refused(self):
        os.mkdir(self.path("other"), 0o755)
        os.chown(self.path("other"), 65534, 65534)
        result = self.ctl("master", env={"XDG_RUNTIME_DIR": self.path("other")})
        self.assertEqual((result.status, len(result.errors)), (1, 1))
        self.assertIn("not a private directory for the control socket", result.errors[0])

    def test_a_missing_runtime_directory_is_created(self):
        directory = self.free_default_directory()
        env = {"XDG_RUNTIME_DIR": ""}
        self.start_master(env=env)
        self.addCleanup(os.rmdir, directory)
        self.assertEqual(stat.S_IMODE(os.stat(directory).st_mode), 0o700)
        self.assertEqual(self.succeed("devices", "--names", env=env).out, b"")
        self.stop_master()

    def test_its_path_is_configurable(self):
        self.control = self.path("elsewhere")
        self.start_master("--master-socket", self.control)
        FakeDevice(self)
        self.wait_told("connected")
        self.assertEqual(self.succeed("--master-socket", self.control, "-d", "@fake", "hostid").text,
                         "fake\n")
        self.assertEqual(self.succeed("devices", "--names",
                                      env={"RUNELCTL_SOCKET": self.control}).text, "fake\n")
        self.assertEqual(self.ctl("devices").status, 255)

    def test_a_second_master_is_refused_and_a_stale_socket_is_replaced(self):
        self.start_master()
        result = self.ctl("master", "--listen", "127.0.0.1:5113")
        self.assertEqual((result.status, result.errors),
                         (1, [f"runelctl: {self.control}: another master is already running"]))
        self.running.kill()
        self.running.wait()
        self.assertTrue(os.path.exists(self.control))
        self.start_master()
        self.succeed("devices")

    def test_a_missing_master_is_one_line_and_status_255(self):
        line = (f"runelctl: no master at {self.control}: No such file or directory "
                "(start one: runelctl master)")
        result = self.ctl("devices")
        self.assertEqual((result.status, result.errors), (255, [line]))
        result = self.ctl("--json", "devices")
        self.assertEqual((result.status, result.objects[0]["where"], result.objects[0]["retry"]),
                         (255, "link", True))
        result = self.ctl("-d", "@any", "hostid")
        self.assertEqual((result.status, len(result.errors)), (255, 1))

    def test_invalid_requests_are_answered_or_dropped(self):
        self.start_master()
        for line, answer in ((b"hello\n", b"unknown request\n"),
                             (b"\xff\x00\n", b"unknown request\n"),
                             (b"attach \n", b"no device  is connected to the master\n"),
                             (b"x" * 5000, b"")):
            call = self.call(line)
            try:
                self.assertEqual(call.makefile("rb").read(), answer)
            except ConnectionResetError:
                self.assertEqual(answer, b"", line)
        self.call(b"dev").close()
        slow = self.call(b"dev")
        slow.sendall(b"ices\n")
        self.assertEqual(slow.recv(1), b"")

    def test_invalid_options_are_usage_errors(self):
        for words, why in ((("--listen", "1.2.3.4:x"), "--listen"), (("--allow", "1.2.3"), "--allow"),
                           (("--allow", "1.2.3.4/33"), "--allow"),
                           (("--allow-hostid", "a b"), "--allow-hostid"),
                           (("--shared-address", "0"), "--shared-address")):
            result = self.ctl("master", *words)
            self.assertEqual((result.status, len(result.errors)), (2, 1), words)
            self.assertIn(why, result.errors[0])

    def test_open_errors_are_reported(self):
        with socket.create_server(("127.0.0.1", MASTER_PORT)):
            result = self.ctl("master")
        self.assertEqual((result.status, result.errors),
                         (1, ["runelctl: 127.0.0.1:5112: Address already in use"]))
        result = self.ctl("master", "--xml-log", "/no/such/file")
        self.assertEqual((result.status, result.errors),
                         (1, ["runelctl: /no/such/file: No such file or directory"]))

    def test_it_listens_on_the_loopback_by_default(self):
        self.start_master()
        self.assertEqual(self.listening_on(), {"0100007F:13F8"})
        self.stop_master()
        self.start_master("--listen", "0.0.0.0:5114")
        self.assertEqual(self.listening_on(), {"00000000:13FA"})

    @staticmethod
    def listening_on():
        with open("/proc/net/tcp", encoding="ascii") as table:
            return {line.split()[1] for line in table if line.split()[3] == "0A"}

    def test_text_output(self):
        process = self.start("master", "--xml")
        self.assertRegex(process.stdout.readline().decode(),
                         r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d listening for devices on "
                         r"127\.0\.0\.1:5112")
        first = FakeDevice(self)
        self.assertRegex(process.stdout.readline().decode(),
                         rf" fake \(127\.0\.0\.1:{first.port}\): connected, type fake\n$")
        bridge = FakeDevice(self, greeting=b"<a>\xff</a>")
        lines = [process.stdout.readline() for _ in range(3)]
        self.assertRegex(lines[0], b": additional connection\n$")
        self.assertRegex(lines[1], b": additional connection carries an agent's data\n$")
        self.assertRegex(lines[2], b": <a>\xff</a>\n$")
        bridge.close()
        self.assertRegex(process.stdout.readline(),
                         b": agent disconnected: the device closed the connection\n$")
        first.close()
        self.assertRegex(process.stdout.readline(),
                         b": lost: the device closed the connection\n$")
        process.terminate()
        self.assertEqual(process.wait(TIMEOUT), 0)


class Agent(MasterCase):
    """runelctl agent, against the real daemon."""

    def setUp(self):
        super().setUp()
        self.peer = self.master()
        self.device = self.daemon()
        self.slave = self.peer.accept()

    def play(self, *words):
        return self.start("agent", *words, stdin=subprocess.PIPE)

    def test_clauses_are_sent_to_the_master_and_its_answers_are_printed(self):
        agent = self.play()
        agent.stdin.write(b" <hello>\n")
        agent.stdin.flush()
        agent.stdin.write(b"</hello><b/>\n")
        agent.stdin.flush()
        bridge = self.peer.accept()
        self.assertEqual(bridge.receive_bytes(24), b"<hello>\n</hello>\r\n<b/>\r\n")
        bridge.send(b"<answer>\xff</answer>")
        self.assertEqual(agent.stdout.readline(), b"<answer>\xff</answer>\r\n")
        agent.stdin.close()
        self.assertEqual(agent.wait(TIMEOUT), 0)
        self.assertEqual(agent.stderr.read(), b"")

    def test_it_lingers_after_the_end_of_its_input(self):
        clauses = b"".join(b"<n>%d</n>\n" % number for number in range(20000))
        agent = self.start("--json", "agent", "--linger", "3",
                           stdin=open(self.file("clauses", clauses), "rb"))
        bridge = self.peer.accept()
        self.assertEqual(bridge.receive_bytes(len(clauses) + 20000),
                         clauses.replace(b"\n", b"\r\n"))
        bridge.send(b"<late/>")
        out, err = agent.communicate(timeout=TIMEOUT)
        self.assertEqual((agent.returncode, err), (0, b""))
        self.assertEqual(json.loads(out)["clause"], "<late/>")

    def test_input_that_would_stop_the_daemon_is_refused(self):
        for text, why in ((b"<a>\x01</a>", "0x01 or 0x02"), (b"hello", "does not begin with '<'"),
                          (b'<a id="1">x</a>', "incomplete"), (b"<a>", "incomplete")):
            result = self.ctl("agent", feed=text)
            self.assertEqual((result.status, len(result.errors)), (1, 1), text)
            self.assertIn(why, result.errors[0])
        self.assertTrue(self.device.alive())

    def test_raw_sends_any_input(self):
        agent = self.play("--raw")
        agent.stdin.write(b"<a/>")
        agent.stdin.flush()
        self.peer.accept().receive_bytes(6)
        agent.stdin.write(b"\x01")
        agent.stdin.flush()
        self.assertEqual(self.device.wait(), 0)
        self.assertEqual(agent.wait(TIMEOUT), 255)
        self.assertIn(b"the device closed the connection", agent.stderr.read())

    def test_a_signal_ends_it(self):
        agent = self.play()
        agent.stdin.write(b"<a/>")
        agent.stdin.flush()
        self.peer.accept()
        agent.terminate()
        self.assertEqual(agent.wait(TIMEOUT), 143)

    def test_it_requires_one_device_by_address(self):
        for words in (("-d", "@name"), ("-d", "127.0.0.1,127.0.0.2")):
            result = self.ctl(*words, "agent")
            self.assertEqual((result.status, len(result.errors)), (2, 1))

    def test_a_missing_daemon_is_one_line_and_status_255(self):
        result = self.ctl("-d", "127.0.0.1:9", "agent")
        self.assertEqual((result.status, result.errors),
                         (255, ["runelctl: 127.0.0.1:9: Connection refused "
                                "(check that runeld is running on the device)"]))
        result = self.ctl("--json", "-d", "127.0.0.1:9", "agent")
        self.assertEqual((result.status, result.objects[0]["where"]), (255, "link"))


if __name__ == "__main__":
    unittest.main()
