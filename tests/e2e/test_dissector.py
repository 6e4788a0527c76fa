# SPDX-License-Identifier: Apache-2.0
"""The Wireshark dissector: captures of the real daemon, read by tshark."""
import errno
import os
import re
import signal
import subprocess
import sys
import unittest
from decimal import Decimal

from support import capture, document, pcap
from support.relay import GREETING, PING, RelayCase
from support.wait import TIMEOUT
from support.wire import frame, parse_record, request


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


# What the dissector says of the records that the document calls malformed.
MALFORMED = {
    "a field is missing": "SIGNAL is missing at byte 52",
    "something follows": "bytes after the last field at byte 54",
    "two blanks": "no number for ARG at byte 26",
    "ARGC is wrong": "no blank before OUTPUT at byte 28",
    "a length is wrong": "no blank before EXECPARAM at byte 40",
    "a leading zero": "ARG with a leading zero at byte 12",
    "a plus sign": "no number for EXECPARAM at byte 21",
    "minus zero": "EXECPARAM with a leading zero at byte 21",
    "more than 32 bits": "EXECPARAM with more than 32 bits at byte 21",
    "STATUS cannot be negative": "STATUS is negative at byte 26",
}

# A daemon whose /tmp is empty and private.
EMPTY_TMP = ("unshare", "-m", "sh", "-c",
             'exec 9<"$1"; shift; mount -t tmpfs tmpfs /tmp; exec /proc/self/fd/9 "$@"', "sh")


def bytes_of(value):
    """The bytes of a field that has bytes."""
    return bytes.fromhex(value.replace(":", ""))


def text_of(value):
    """What the dissector shows of a string."""
    return value.decode(errors="replace").replace("\0", "\u2400")


class DocumentTest(DissectorCase):
    """Each example of the document is a packet."""

    def payloads(self, path):
        """The frame numbers of each payload of TCP."""
        found = {}
        lines = capture.tshark(path, "-Y", "tcp.len > 0", "-T", "fields", "-e", "frame.number", "-e",
                               "tcp.payload").decode()
        for number, payload in map(str.split, lines.splitlines()):
            found.setdefault(bytes.fromhex(payload), []).append(int(number))
        return found

    def read_capture(self, path):
        self.messages = capture.messages(path)
        self.by_payload = self.payloads(path)

    def shown(self, packet):
        """What is shown for the packets with these bytes."""
        self.assertIn(packet, self.by_payload)
        return [message for message in self.messages if message["frame"] in self.by_payload[packet]]

    def assert_record(self, message, payload):
        """The dissector shows each field of a well-formed record."""
        record = parse_record(payload)
        self.assert_fields(message, {"count": str(len(payload)), "argc": str(len(record.arguments)),
                                     "execparam": str(record.exec_param)})
        prefix = "ignored." if "request" in message else ""
        numbers = dict(zip(("status", "state", "result", "errno", "signal"), map(str, record.fields)))
        self.assert_fields(message, {f"{prefix}{name}": value for name, value in numbers.items()})
        self.assertEqual(message[f"{prefix}output"], text_of(record.output))
        if record.arguments:
            self.assert_arguments(message, record.arguments[0].decode(), record.arguments[1:])

    def assert_arguments(self, message, task, arguments):
        self.assertEqual(message["task"], task)
        names = [f"arg.{name.lower()}" for name in document.tasks()[task]]
        shown = {}
        for index, argument in enumerate(arguments):
            shown.setdefault(names[min(index, len(names) - 1)], []).append(argument)
        for name, values in shown.items():
            found = capture.as_list(message[name])
            if name == "arg.data":
                self.assertEqual(([*map(bytes_of, found)], message["arg.data.length"]),
                                 (values, str(len(values[0]))))
            else:
                self.assertEqual(found, [*map(text_of, values)])
        self.assertEqual({name for name in message if re.fullmatch(r"arg\.[a-z]+", name)}, set(shown))

    def test_frames_and_records(self):
        running = self.capture()
        self.file("sleep", b"#!/bin/sh\n")
        os.chmod(self.path("sleep"), 0o755)
        daemon = self.daemon(wrapper=EMPTY_TMP, environment={"PATH": f"{self.directory}:/bin:/usr/bin"})
        client = self.client()
        records = [payload for payload, _ in document.lines("record", document.quoted)]
        examples = [*document.frames(), *map(frame, records)]
        for example in examples:
            client.send(example)
            if b"SlaveTask" in example:
                client.receive()
        client.ask("exec", "printf", "hi there\\n")
        os.unlink("/etc/hosts")
        client.ask("fileexists", "/etc/hosts")
        self.assert_stops(daemon)
        self.read_capture(running.stop())
        for example in examples:
            payload = example[example.index(b"\2") + 1:]
            with self.subTest(payload):
                shown = self.shown(example)
                asked = next(message for message in shown if "request" in message)
                if not payload.startswith(b"SlaveTask "):
                    self.assertEqual((asked["payload"], asked["count"]), (payload.hex(":"), str(len(payload))))
                    self.assertEqual(asked["notes"], {"not_a_record": "Not a record: no reply"})
                    self.assertNotIn("reply_in", asked)
                    continue
                self.assert_record(asked, payload)
                self.assertIn("reply_in", asked)
                if payload.startswith(b"SlaveTask 0"):
                    self.assertEqual(asked["notes"], {"few_arguments": "A request without a task"})
                    answer = next(message for message in shown if "reply" in message)
                    self.assert_record(answer, payload)
                    self.assertIn("request_in", answer)
                    self.assertEqual(answer["notes"], {})
                else:
                    self.assertEqual(asked["notes"], {})

    def test_malformed_records(self):
        running = self.capture()
        daemon = self.daemon()
        client = self.client()
        rows = document.lines("not-a-record", document.quoted)
        for payload, _ in rows:
            client.send(frame(payload))
            self.assertEqual(client.receive().fields, (4, 0, 1, 22, 0))
        self.assert_stops(daemon)
        self.read_capture(running.stop())
        for payload, what in rows:
            with self.subTest(payload):
                message, = self.shown(frame(payload))
                self.assertEqual(message["notes"], {"malformed_record": f"Malformed record: {MALFORMED[what]}"})
                reply, = self.named(self.messages, frame=int(message["reply_in"]))
                self.assert_fields(reply, {"status": "4", "errno": "22", "request_in": str(message["frame"])})

    def test_bad_frames(self):
        running = self.capture()
        daemon = self.daemon()
        rows = document.lines("not-a-frame", document.hex_line)
        for packet, _ in rows:
            client = self.client()
            client.ask("fileexists", "/")
            client.send(packet)
            client.read_to_end()
        self.assert_stops(daemon)
        self.read_capture(running.stop())
        for packet, what in rows:
            with self.subTest(what):
                message, = self.shown(packet)
                self.assertEqual(message["notes"], {"bad_frame": f"Bad frame: {what}"})
                self.assertEqual(bytes_of(message["discarded"]), packet)

    def test_clauses(self):
        running = self.capture()
        daemon = self.daemon()
        self.listener = self.master()
        self.listener.accept()
        rows = document.relays()
        for steps in rows:
            agent = self.arrive()
            bridge = self.bridge_to(agent, self.listener)
            for word, data in steps:
                if word == "in":
                    agent.send(data)
                elif word == "out":
                    self.assertEqual(bridge.receive_bytes(len(data)), data)
            agent.close()
            bridge.read_to_end()
        self.assert_stops(daemon)
        self.read_capture(running.stop())
        for steps in rows:
            with self.subTest(steps):
                self.assert_relayed(steps)
        clauses = self.named(self.messages, connection="agent bridge")
        self.assertEqual("".join(message["clause"] + bytes_of(message["blanks"]).decode() for message in clauses),
                         "".join((GREETING + b"".join(data for word, data in steps if word == "out")).decode()
                                 for steps in rows))

    def assert_relayed(self, steps):
        packets = [data for word, data in steps if word == "in"]
        frames = [number for packet in packets for number in self.by_payload[packet]]
        shown = [message for message in self.named(self.messages, connection="agent")
                 if message["frame"] in frames]
        clauses = [message["clause"] for message in shown if "clause" in message]
        sent = b"".join(data for word, data in steps if word == "out")
        self.assertEqual("".join(f"{clause}\r\n" for clause in clauses), sent.decode())
        kept = b"".join(data for word, data in steps if word == "kept")
        blocked = b"".join(bytes_of(message["unknown"]) for message in shown if "unknown" in message)
        self.assertEqual(blocked, kept)
        notes = [name for message in shown for name in message["notes"]]
        self.assertEqual(notes, ["blocked"] if kept else [])


class UserDocumentTest(DissectorCase):
    """The commands and the output in docs/wireshark.md."""

    def test_the_installed_dissector_shows_the_documented_output(self):
        install, read = document.blocks("sh", "wireshark.md")
        expected, = document.blocks("text", "wireshark.md")
        running = self.capture()
        code = "\n".join(document.blocks("python")).replace("/tmp/", self.directory + "/")
        daemon = self.daemon()
        subprocess.run([sys.executable, "-B", self.file("master.py", code.encode())], check=True,
                       stdout=subprocess.DEVNULL, timeout=TIMEOUT)
        self.assert_stops(daemon)
        running.stop()
        home = {"HOME": self.directory, "PATH": os.environ["PATH"], "LC_ALL": "C.UTF-8"}
        subprocess.run(["sh", "-ec", install], check=True, env=home, cwd=os.path.dirname(document.DOCS))
        shown = subprocess.run(["sh", "-ec", read], check=True, env=home, cwd=self.directory, timeout=TIMEOUT,
                               stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True).stdout
        self.assertEqual(shown.replace(self.directory + "/", "/tmp/"), expected)

    def test_every_field_of_the_document_exists(self):
        names = set(re.findall(r"runel\.[a-z_.]*[a-z]", document.text_of("wireshark.md"))) - {"runel.lua"}
        self.assertGreater(len(names), 30)
        empty = pcap.write(self.path("empty.pcap"), [])
        capture.tshark(empty, "-2", "-Y", " or ".join(names))
        filters = re.search(r"\| filter \|.*?\n\n", document.text_of("wireshark.md"), re.DOTALL)[0]
        examples = re.findall(r"`(runel.*?)`|`(!runel.*?)`", filters)
        self.assertGreater(len(examples), 15)
        capture.tshark(empty, "-2", "-Y", " or ".join(f"({one or other})" for one, other in examples
                                                     if " " in one or other))
        with self.assertRaises(AssertionError):
            capture.tshark(empty, "-2", "-Y", "runel.missing")


class TaskTest(DissectorCase):
    """Each task of the document, with its arguments, and each way to ask wrongly."""

    def arguments(self, task):
        """Arguments that succeed, in the order of the document's names."""
        values = {"PATH": self.path("file"), "FROM": self.path("file"), "TO": self.path("renamed"),
                  "MODE": "4", "DATA": b"\0\1\2\xffdata", "STYLE": "slow", "FIRST": "1", "SECOND": "0",
                  "PROGRAM": "/bin/echo", "ARG": "h\u00e9 llo", "NAME": "runeld", "KEY": "key",
                  "STATE": "a\nstate"}
        names = document.tasks()[task]
        if task in ("readdir", "walktree"):
            values["PATH"] = self.directory
        return [values[name] for name in names]

    def ask_all(self, client):
        """Every task but those that end the daemon, and those that have an order."""
        for task in sorted(set(document.tasks()) - {"reboot", "restart", "rename", "unlink", "write"}):
            client.ask("write", *self.arguments("write"))
            client.ask(task, *self.arguments(task))
        client.ask("rename", *self.arguments("rename"))
        client.ask("unlink", self.path("renamed"))

    def test_every_task(self):
        running = self.capture()
        daemon = self.daemon(wrapper=("setpriv", "--bounding-set", "-sys_boot"))
        client = self.client()
        self.ask_all(client)
        client.send(request("reboot"))
        client.receive()
        daemon.wait()
        daemon = self.daemon()
        client = self.client()
        client.send(request("restart"))
        client.read_to_end()
        daemon.wait()
        messages = capture.messages(running.stop())
        asked = {message["task"]: message for message in messages if "request" in message}
        self.assertEqual(set(asked), set(document.tasks()))
        for task, message in asked.items():
            with self.subTest(task):
                self.assertEqual(message["notes"], {})
                names = [f"arg.{name.lower()}" for name in document.tasks()[task]]
                shown = [message.get(name) for name in names]
                if "arg.data" in names:
                    shown[names.index("arg.data")] = bytes_of(message["arg.data"])
                arguments = self.arguments(task) if task != "unlink" else [self.path("renamed")]
                self.assertEqual(shown, arguments)
                if task == "restart":
                    self.assertNotIn("reply_in", message)
                    continue
                reply, = self.named(messages, frame=int(message["reply_in"]))
                self.assert_fields(reply, {"task": task, "request_in": str(message["frame"]), "notes": {}})

    def test_surplus_and_missing_arguments_and_unknown_tasks(self):
        running = self.capture()
        daemon = self.daemon()
        client = self.client()
        table = document.tasks()
        for task, names in table.items():
            if names and task != "exec":
                client.ask(task, *self.arguments(task)[:-1])
        client.ask("hostid", "surplus")
        client.ask("stat", "/", "second", "third")
        client.ask("Stat", "/", "x y")
        client.ask("")
        client.ask()
        self.assert_stops(daemon)
        messages = capture.messages(running.stop())
        notes = []
        for message in messages:
            if "request" not in message:
                continue
            reply, = self.named(messages, frame=int(message["reply_in"]))
            refused = re.match(r"\(\d+\) (too few arguments|unknown cmd): ", reply["output"])
            self.assertEqual((reply["status"] == "4", refused is not None), (refused is not None,) * 2)
            expected = {"too few arguments": "few_arguments", "unknown cmd": "unknown_task"}
            if refused:
                self.assertEqual([*message["notes"]], [expected[refused[1]]])
            notes.append((message.get("task"), message["notes"]))
        few = {task: {"few_arguments": f"Too few arguments: {task} reads {len(names)}"}
               for task, names in table.items() if names and task != "exec"}
        self.assertEqual(dict(notes[:-5]), few)
        surplus = {"surplus_arguments": "Surplus arguments are ignored"}
        self.assertEqual(notes[-5:], [
            ("hostid", surplus), ("stat", surplus), ("Stat", {"unknown_task": "Unknown task: Stat"}),
            ("", {"unknown_task": 'Unknown task: ""'}), (None, {"few_arguments": "A request without a task"})])
        stat, = [message for message in messages if "request" in message and message["notes"] == surplus and
                 message["task"] == "stat"]
        self.assert_fields(stat, {"arg.path": "/", "arg.surplus": ["second", "third"]})
        unknown, = self.named(messages, task="Stat", request="")
        self.assertEqual(unknown["arg.unnamed"], ["/", "x y"])

    def test_the_outcomes_of_programs(self):
        table = document.events()
        running = self.capture()
        daemon = self.daemon()
        client = self.client()
        steps = [
            ("exec: ended with exit status 0", ("exec", "/bin/true"), 0, "success"),
            ("exec: ended with exit status N", ("exec", "/bin/sh", "-c", "exit 7"), 0, "exit status 7"),
            ("exec: ended by signal S", ("exec", "/bin/sh", "-c", "kill -9 $$"), 0, "ended by SIGKILL"),
            ("exec: reached the limit", ("exec", "/bin/sleep", "60"), 1, "timeout"),
            ("exec: could not be started", ("exec", "/missing"), 0, "failure, ENOENT"),
            ("exec: no PROGRAM given", ("exec",), 0, "failure, EINVAL"),
            ("kill: no program is running", ("kill",), 0, "failure, ESRCH"),
            ("exec: started in the background", ("exec", "/bin/sleep", "60"), -1, "running"),
            ("kill: stopped it with signal S", ("kill",), 0, "success"),
            ("wait: there is no program to wait for", ("wait",), 0, "failure, ECHILD"),
        ]
        letters = {"N": "7", "ERRNO": "2"}
        expected = []
        for event, arguments, parameter, outcome in steps:
            client.ask(*arguments, exec_param=parameter)
            row, = [fields for name, fields in table.items() if name.startswith(event)]
            letters["S"] = "9" if "ended by signal S" == event[6:] else "15"
            expected.append([letters.get(field, field) for field in row.strip("`").split()])
        self.assert_stops(daemon)
        messages = capture.messages(running.stop())
        replies = [message for message in messages if "reply" in message]
        self.assertEqual([[reply[name] for name in ("status", "state", "result", "errno", "signal")]
                          for reply in replies], expected)
        lines = capture.tshark(running.path, "-Y", "runel", "-T", "fields", "-e", "_ws.col.Info").decode()
        self.assertEqual(lines.splitlines()[1::2], [f"Reply to {arguments[0]}: {outcome}"
                                                    for _, arguments, _, outcome in steps])
        self.assertEqual([lines.splitlines()[index] for index in (6, 14)],
                         ["exec /bin/sleep 60 (limit 1 s)", "exec /bin/sleep 60 (background)"])

    def test_the_names_of_error_and_signal_numbers(self):
        """Wireshark's names are those of this system."""
        with open(capture.DISSECTOR, encoding="utf-8") as script:
            text = script.read()
        for name, known in (("ERRNO", errno.errorcode),
                            ("SIGNAL", {number.value: number.name for number in signal.Signals})):
            table = re.search(rf"local {name} = {{(.*?)\n}}", text, re.DOTALL)[1]
            number = 0
            for given, word in re.findall(r'(?:\[(\d+)\] = )?"(\w+)"', table):
                number = int(given) if given else number + 1
                if number:
                    same = {"EDEADLK": "EDEADLOCK", "EOPNOTSUPP": "ENOTSUP", "SIGIO": "SIGPOLL",
                            "SIGSTKFLT": None}
                    self.assertIn(known.get(number), (word, same.get(word, word)))
            self.assertGreater(number, 30)
        frequent = re.search(r"Frequent ones are (.*?)\.", document.text_of("protocol.md"), re.DOTALL)[1]
        for number, word in re.findall(r"(\d+)\s(E[A-Z0-9]+)", frequent):
            self.assertIn(word, text)
            self.assertEqual(getattr(errno, word), int(number))


if __name__ == "__main__":
    unittest.main()
