# SPDX-License-Identifier: Apache-2.0
"""The Wireshark dissector: captures of the real daemon, read by tshark."""
import unittest
from decimal import Decimal

from support import capture
from support.relay import GREETING, PING, RelayCase
from support.wire import request


class DissectorCase(RelayCase):
    def capture(self, **options):
        running = capture.Capture(self.path("packets.pcapng"), **options)
        self.addCleanup(running.kill)
        return running

    def named(self, messages, **fields):
        """The messages whose fields have these values."""
        return [message for message in messages
                if all(message.get(name) == value for name, value in fields.items())]

    def times(self, path):
        """The time of each frame, exactly."""
        lines = capture.tshark(path, "-T", "fields", "-e", "frame.number", "-e", "frame.time_epoch").decode()
        return {int(number): Decimal(time) for number, time in map(str.split, lines.splitlines())}

    def assert_fields(self, message, expected):
        self.assertEqual({name: message.get(name) for name in expected}, expected)


class ExchangeTest(DissectorCase):
    def test_a_request_and_its_reply(self):
        running = self.capture()
        daemon = self.daemon()
        client = self.client()
        client.ask("exec", "/bin/sh", "-c", "echo a b; exit 3", exec_param=60)
        self.assert_stops(daemon)
        asked, answered = capture.messages(running.stop())
        self.assertEqual(asked, {
            "connection": "task client", "request": "", "count": "69", "argc": "4", "task": "exec",
            "arg.program": "/bin/sh", "arg.arg": ["-c", "echo a b; exit 3"], "execparam": "60",
            "ignored.output": "", "ignored.status": "0", "ignored.state": "0", "ignored.result": "0",
            "ignored.errno": "0", "ignored.signal": "0", "reply_in": str(answered["frame"]),
            "notes": {}, "frame": asked["frame"], "stream": asked["stream"]})
        self.assertEqual(answered, {
            "connection": "task client", "reply": "", "count": "30", "argc": "0", "task": "exec",
            "execparam": "0", "output": "a b\n", "output.length": "4", "status": "1", "state": "2",
            "result": "3", "errno": "0", "signal": "0", "request_in": str(asked["frame"]),
            "time": answered["time"], "notes": {}, "frame": answered["frame"],
            "stream": asked["stream"]})
        times = self.times(running.path)
        self.assertEqual(Decimal(answered["time"]), times[answered["frame"]] - times[asked["frame"]])

    def test_pipelined_requests_are_matched_in_their_order(self):
        running = self.capture()
        daemon = self.daemon()
        client = self.client()
        client.send(request("hostid") + request("fileexists", "/missing") + request("devicetype"))
        outputs = [client.receive() for _ in range(3)]
        client.ask("fileexists", "/")
        self.assert_stops(daemon)
        messages = capture.messages(running.stop())
        asked = [message for message in messages if "request" in message]
        answered = [message for message in messages if "reply" in message]
        self.assertEqual(len({message["frame"] for message in asked[:3]}), 1)
        tasks = ["hostid", "fileexists", "devicetype", "fileexists"]
        self.assertEqual([message["task"] for message in asked], tasks)
        self.assertEqual([message["task"] for message in answered], tasks)
        self.assertEqual([message["request_in"] for message in answered],
                         [str(message["frame"]) for message in asked])
        self.assertEqual([message["reply_in"] for message in asked],
                         [str(message["frame"]) for message in answered])
        self.assertEqual([message["output"].encode() for message in answered[:3]],
                         [reply.output for reply in outputs])
        self.assertEqual([message["errno"] for message in answered], ["0", "2", "0", "0"])

    def test_a_filter_selects_a_task(self):
        running = self.capture()
        daemon = self.daemon()
        client = self.client()
        for name in ("hostid", "exec", "hostid"):
            client.ask(name, "/bin/true")
        self.assert_stops(daemon)
        running.stop()
        lines = capture.tshark(running.path, "-Y", 'runel.task == "exec" && runel.request', "-T", "fields",
                               "-e", "runel.arg.program", "-e", "_ws.col.Protocol", "-e", "_ws.col.Info")
        self.assertEqual(lines, b"/bin/true\tRUNEL\texec /bin/true\n")


class ClauseTest(DissectorCase):
    def test_clauses_of_the_agent_and_of_the_bridge(self):
        running = self.capture()
        daemon, agent, bridge = self.bridged()
        self.assert_relays(agent, bridge)
        agent.send(PING)
        self.assertEqual(bridge.receive_bytes(len(PING)), PING)
        self.assert_stops(daemon)
        messages = capture.messages(running.stop())
        for kind, clauses in (("agent", ["<hello/>", "<there/>", "<back>again</back>", "<ping/>"]),
                              ("agent bridge", ["<hello/>", "<there/>", "<back>again</back>", "<ping/>"])):
            found = self.named(messages, connection=kind)
            self.assertEqual([message["clause"] for message in found], clauses)
            self.assertEqual([message["clause.name"] for message in found],
                             ["hello", "there", "back", "ping"])
            self.assertEqual(["ping" in message for message in found], [False, False, False, True])
        self.assertEqual(self.named(messages, connection="agent")[0]["blanks"], GREETING[-2:].hex(":"))


if __name__ == "__main__":
    unittest.main()
