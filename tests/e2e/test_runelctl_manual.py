# SPDX-License-Identifier: Apache-2.0
"""The manual describes every command, every option and every JSON field."""
import json
import os
import re
import subprocess
import unittest

from check_runelctl_used import Tables
from support.ctl import BINARY, Between, reply
from support.fakes import FakeDevice
from support.master import MasterCase
from support.wait import TIMEOUT, wait_until

MANUAL = os.path.join(os.path.dirname(__file__), "../../man/runelctl.1")


def manual():
    with open(MANUAL, encoding="ascii") as file:
        return file.read()


def fields_of(value):
    """The names of all fields in @p value, recursively."""
    if isinstance(value, list):
        for one in value:
            yield from fields_of(one)
    elif isinstance(value, dict):
        for name, one in value.items():
            yield name.removesuffix("_base64")
            yield from fields_of(one)


class Fields(MasterCase):
    """The fields of runs with --json. Each run must have its expected fields."""

    def setUp(self):
        super().setUp()
        section = manual().split("\n.Sh JSON\n")[1].split("\n.Sh ")[0]
        self.documented = set(re.findall(r"[a-z0-9_]+", " ".join(
            line[len(".Li "):] for line in section.splitlines() if line.startswith(".Li "))))
        for line in re.findall(r"(?m)^\.It Li (.*)$", section):
            self.documented |= set(re.findall(r"[a-z_]+", line))
        self.kinds = set(re.findall(r"(?m)^\.It Cm ([a-z]+)$", section))

    def check(self, objects, *expected):
        """All fields of @p objects are documented and include @p expected."""
        found = set(fields_of(objects))
        self.assertEqual(found - self.documented, set(), "not in the manual")
        self.assertEqual(set(expected) - found, set(), objects)
        for one in objects:
            self.assertEqual(one["v"], 1)
            self.assertIn(one.get("entry") or one.get("event") or "name", self.kinds, one)

    def run_json(self, *words, **options):
        return self.ctl("--json", *words, **options).objects

    def test_plans(self):
        self.daemon()
        os.makedirs(self.path("tree"))
        self.file("tree/a", b"x")
        os.symlink("a", self.path("tree/l"))
        os.makedirs(self.path("there"))
        self.file("there/a", b"old")
        self.check(self.run_json("-n", "sync", self.path("tree"), self.path("there")), "action",
                   "type", "path", "size", "old_size", "target", "files", "bytes", "removed",
                   "dry_run")
        self.check(self.run_json("-v", "pull", self.path("tree/a"), self.path("b")), "action")

    def test_file_commands(self):
        self.daemon()
        path = self.file("a", b"x")
        os.symlink(path, self.path("link"))
        with open(os.path.join(os.fsencode(self.directory), b"\xff"), "wb"):
            pass
        self.check(self.run_json("ls", self.directory), "v", "device", "task", "entry", "name", "ok",
                   "status")
        self.check(self.run_json("ls", "-l", self.directory), "type", "mode", "mtime_ns")
        self.check(self.run_json("tree", self.directory), "path", "target", "mode")
        self.check(self.run_json("stat", path, "/none"), "ino", "error", "errno", "where", "retry")
        self.check(self.run_json("lstat", self.path("link")), "blksize", "ctime")
        self.check(self.run_json("cat", path), "content")
        self.check(self.run_json("df"), "free_blocks", "block_size")
        modes = {one["mode"] for one in self.run_json("tree", self.directory)[:-1]}
        self.assertTrue(all(re.fullmatch("[0-7]{4}", mode) for mode in modes), modes)

    def test_programs_and_tasks(self):
        self.daemon()
        self.check(self.run_json("hostid"), "output")
        self.check(self.run_json("exec", "sh", "-c", "kill -9 $$"), "signal", "error")
        self.check(self.run_json("exec", "/no/such"), "error", "errno")
        self.check(self.run_json("ps", "runeld"), "name", "running")
        self.check(self.run_json("info"), "hostid", "devicetype", "kernel", "hostname", "uptime_s",
                   "free_bytes")
        self.check(self.run_json("ping", "-c", "2", "-i", "0"), "ms", "min_ms", "median_ms", "max_ms")
        self.check(self.run_json("raw", "SlaveTask 1 6:hostid 0 0: 0 0 0 0 0"), "request", "reply")
        self.check(self.run_json("-n", "mv", "/a", "/b"), "payload", "text", "dry_run")
        self.check(self.run_json("-d", "127.0.0.1:9", "hostid"), "hint")
        self.check(self.run_json("-d", "127.0.0.1,127.0.0.2", "hostid"), "summary", "failed",
                   "timed_out", "unreachable", "skipped")

    def test_probes(self):
        self.daemon()
        version = self.file("version", b"1.0.0\n")
        self.check(self.run_json("probe", "--version-file", version), "state", "text", "round_trip_s",
                   "uptime_s", "restart_age_s", "version", "entry", "path", "free_bytes")
        self.check(self.run_json("-d", "127.0.0.1,127.0.0.1:9", "probe", "--prometheus", "/none/x"),
                   "where", "error", "hint", "summary", "warning", "critical", "unknown")
        self.check(self.run_json("probe", "extra"), "state", "error")

    def test_jobs(self):
        self.daemon()
        self.check(self.run_json("exec", "--stream", "sh", "-c", "echo a; echo b >&2; exit 3"), "stream",
                   "content", "job", "state", "error")
        self.check(self.run_json("job", "start", "--id", "a", "head", "-c", "70000", "/dev/zero",
                                 "--job-limit", "64K"), "started")
        limited = self.run_json("job", "start", "--id", "b", "--job-limit", "64K", "--", "head", "-c",
                                "70000", "/dev/zero")
        self.check(limited, "job", "started")
        self.run_json("job", "wait", "b")
        self.check(self.run_json("job", "list"), "entry", "state", "command", "started", "ended",
                   "exit_status", "time_limit", "lost_stdout", "lost_stderr")
        self.check(self.run_json("job", "output", "b"), "lost_stdout", "truncated")
        self.run_json("job", "attach", "b")
        self.check(self.run_json("job", "output", "b"), "removed_stdout")
        self.check(self.run_json("job", "stop", "b"), "signalled")
        self.check(self.run_json("job", "remove", "b"), "job")

    def test_reboots(self):
        state = {"reboots": 0}

        def serve(connected):
            while data := connected.recv(65536):
                if b"6:reboot" in data:
                    state["reboots"] += 1
                    return connected.close()
                connected.sendall(reply(b"%d\n" % state["reboots"]))

        self.check(self.run_json("-d", self.odd_peer(serve), "reboot", "--wait"), "down_s", "back_s")

    def test_transfers(self):
        self.daemon()
        os.makedirs(self.path("tree"))
        os.mkfifo(self.path("tree/fifo"))
        self.file("tree/a", b"x")
        self.check(self.run_json("push", "-r", self.path("tree"), self.path("copy")), "files", "bytes",
                   "warnings", "text")
        self.check(self.run_json("sync", "--delete", self.path("tree"), self.path("copy")), "removed")
        self.check(self.run_json("pull", self.path("copy/a"), self.path("back")), "files")
        big = self.file("big", bytes(30 << 20))
        self.ctl("-d", Between(self, 20 << 20, back=True).where, "pull", big, self.path("here"))
        self.check(self.run_json("pull", big, self.path("here")), "resumed_at")
        missing = self.run_json("push", self.path("missing"), "/x")
        self.check(missing, "where", "error", "retry")
        self.assertEqual((missing[0]["where"], missing[0]["status"]), ("local", 1))

    def test_master_and_devices(self):
        self.check(self.run_json("devices"), "where", "retry", "error", "hint")
        self.start_master("--xml", "--allow-hostid", "fake", "--xml-log", self.path("log"))
        device = FakeDevice(self)
        self.wait_told("connected")
        bridge = FakeDevice(self, greeting=b"<a>\xff</a>")
        self.wait_told("clause")
        second = self.run_json("master", "--listen", "127.0.0.1:5113")
        self.check(second, "where", "error")
        self.assertEqual((second[0]["ok"], second[0]["status"]), (False, 1))
        self.check(self.run_json("devices"), "agents", "clauses", "further", "users", "connected_s")
        device.close()
        self.wait_told("lost", role="slave")
        bridge.close()
        FakeDevice(self, "127.0.0.2", "stranger")
        self.wait_told("refused")
        self.wait_told("lost", role="agent")
        again = FakeDevice(self, "127.0.0.3")
        self.wait_told("connected", port=again.port)
        self.check(self.run_json("devices"), "connects", "losses", "last_loss", "last_loss_why",
                   "first_seen")
        self.check(self.events, "event", "time", "socket", "role", "why", "clause")

    def test_inventories(self):
        text = re.search(r"(?s)\n\.Sh INVENTORY\n.*?\n\.Bd [^\n]*\n(.*?)\.Ed\n", manual())[1]
        path = self.file("example", text.encode())
        words = ("--inventory", path, "inventory")
        self.check(self.run_json(*words, "check"), "file", "devices", "groups")
        listed = self.run_json(*words, "list")
        self.assertEqual(len(listed), 3 + 50 + 4)
        self.assertEqual(listed[-1].pop("tags"), {"floor": "2", "site": "north"})
        for one in listed[:-1]:
            one.pop("tags", None)
        self.check(listed, "address", "groups", "timeout", "connect_timeout", "io_timeout",
                   "deadline")
        self.assertIn("tags", self.documented)
        self.file("example", b"x = 1\n")
        self.check(self.run_json(*words, "check"), "line", "text", "file")

    def test_agents(self):
        peer = self.master()
        self.daemon()
        peer.accept()
        agent = self.start("--json", "agent", "--linger", "60", stdin=subprocess.PIPE)
        agent.stdin.write(b"<a/>")
        agent.stdin.flush()
        bridge = peer.accept()
        bridge.send(b"<b/>")
        line = agent.stdout.readline()
        agent.terminate()
        wait_until(lambda: agent.poll() is not None, "the agent ends")
        self.check([json.loads(line)], "clause", "entry")
        self.check(self.run_json("agent", feed=b"hello"), "where", "error", "retry", "ok", "status")


class Readme(MasterCase):
    def test_the_first_example_works_as_written(self):
        self.daemon()
        with open(os.path.join(os.path.dirname(MANUAL), "../README.md"), encoding="utf-8") as file:
            text = file.read()
        lines = re.search(r"(?m)(^    export RUNELCTL_DEVICE.*\n)(^    .*\n)+", text)[0]
        shown = re.search(r"(?m)^    == (.*) \(3 devices\)$", text)[1]
        for number in (1, 2, 3):
            lines = lines.replace(f"192.0.2.1{number}", f"127.0.0.{number}")
            shown = shown.replace(f"192.0.2.1{number}", f"127.0.0.{number}")
        self.addCleanup(os.remove, "/tmp/hello.sh")
        result = subprocess.run(
            ["bash", "-e", "-c", lines], cwd=self.directory, capture_output=True, text=True,
            env=self.environment({"PATH": os.path.dirname(BINARY) + ":" + os.environ["PATH"]}),
            timeout=TIMEOUT, check=False)
        summary = "runelctl: 3 devices: 3 ok, 0 failed, 0 timed out, 0 unreachable\n"
        self.assertEqual((result.returncode, result.stderr), (0, summary * 2))
        uname = subprocess.run(["uname", "-a"], capture_output=True, text=True, check=True).stdout
        self.assertEqual(result.stdout, f"== {shown} (3 devices)\n{uname}")
        self.assertIn(summary, text)


class Words(unittest.TestCase):
    def test_every_command_and_option_is_in_the_manual(self):
        text = manual().replace("\\-", "-")
        tables = Tables(BINARY)
        self.assertGreater(len(tables.commands), 40)
        for command in tables.commands:
            self.assertRegex(text, rf"(?m)^\.(It )?Cm {command}\b", command)
        for option in tables.options:
            # The manual may use the short or the long name.
            told = [name for name in option.names
                    if re.search(rf"Fl {re.escape(name[1:])}(?![a-z-])", text)]
            self.assertTrue(told, f"{option} is not in the manual")


if __name__ == "__main__":
    unittest.main()
