# SPDX-License-Identifier: Apache-2.0
"""--retry, over every command: how often each task arrives at a device that closes the connection."""
import collections
import os
import re
import unittest

from check_runelctl_used import Tables
from support.ctl import BINARY, CtlCase, reply, requests
from support.wait import TIMEOUT

TABLE = os.path.join(os.path.dirname(__file__), "../../lib/protocol/task_table.h")
UNKNOWN = "(it is unknown whether the task ran: check, then run it again)"
RAW = "SlaveTask 2 6:unlink 2:/x 0 0: 0 0 0 0 0"

# The arguments of each command, several times for one that sends different tasks.
COMMANDS = [
    ("access", "/x", "4"), ("append", "/x", "data"), ("blinkleds", "on"), ("cat", "/x"),
    ("changeleds", "1", "0"), ("chmodx", "/x"), ("devicetype",), ("df",), ("exec", "true"),
    ("exec", "--background", "true"), ("exec", "--timeout", "5", "true"), ("fileexists", "/x"),
    ("freeblocks", "/x"), ("hostid",), ("info",), ("kill",), ("ls",), ("ls", "-l"), ("lstat", "/x"),
    ("mv", "/x", "/y"), ("ping", "-c", "3"), ("probe",), ("processrunning", "x"), ("ps", "x"), ("raw", RAW),
    ("read", "/x"), ("readdir", "/x"), ("realpath", "/x"), ("reboot",),
    ("reboot", "--wait", "--down-timeout", "1"), ("rename", "/x", "/y"), ("restart",),
    ("restart", "--wait", "--down-timeout", "1"), ("rm", "/x"), ("rm", "-r", "/x"),
    ("job", "remove", "x"), ("job", "stop", "x"), ("rm", "/x", "/y"), ("sh", "true"), ("stat", "/x"), ("tree", "/x"), ("unlink", "/x"),
    ("updateumstate", "a", "b"), ("wait",), ("walktree", "/x"), ("write", "/x", "data")]
# They continue where they stopped: see Transfers.
TRANSFERS = ("push", "pull", "sync")
# They change nothing, or find their own job: see Jobs.
JOBS = ("job attach", "job list", "job output", "job start", "job wait")
LOCAL = ("agent", "completion", "devices", "inventory", "master", "shell")
# The programs of a transfer, which may run twice.
HARMLESS = {"chmod", "chown", "ln", "mkdir", "rm", "sha256sum", "sync", "tar", "touch"}


def safe_tasks():
    """The tasks that the daemon's table calls safe to repeat."""
    with open(TABLE, encoding="ascii") as table:
        rows = re.findall(r'\{"(\w+)", \d+, TaskText::\w+, \w+, \w+, (true|false)\}', table.read())
    assert len(rows) >= 25, rows
    return {name for name, repeatable in rows if repeatable == "true"}


class Loser:
    """A device that closes the connection when it gets a request that @p closes_at chooses."""

    def __init__(self, case, closes_at):
        self.arrived = collections.Counter()
        self.closes_at = closes_at
        self.where = case.odd_peer(self._serve)

    def _serve(self, connected):
        for words in requests(connected):
            self.arrived[tuple(words)] += 1
            if self.closes_at(words):
                return connected.close()
            missing = words[0] in ("stat", "lstat", "walktree")
            connected.sendall(reply(b"", (1, 0, 1, 2, 0)) if missing else reply(b"x"))


class EveryCommand(CtlCase):
    def setUp(self):
        super().setUp()
        self.safe = safe_tasks()

    def run_all(self, *options):
        """Runs all commands at once on devices that close the connection at tasks that are not safe
        to repeat, or at every task. Gives the words, the result and the device of each."""
        runs = []
        for words in COMMANDS:
            for closes_at in (lambda sent: sent[0] not in self.safe, lambda sent: True):
                device = Loser(self, closes_at)
                runs.append((words, self.start("-d", device.where, *options, *words), device))
        for words, process, device in runs:
            _, err = process.communicate(timeout=TIMEOUT)
            yield words, process.returncode, err.decode(), device

    def test_every_command_is_listed_here(self):
        tables = Tables(BINARY)
        listed = {" ".join(words[:2 if words[0] in tables.parents else 1]) for words in COMMANDS}
        self.assertEqual(set(tables.commands) - tables.parents, listed.union(TRANSFERS, JOBS, LOCAL))

    def test_only_tasks_that_are_safe_to_repeat_arrive_twice(self):
        repeated = set()
        for words, status, err, device in self.run_all("--retry", "1"):
            told = (words, status, err, device.arrived)
            for task, count in device.arrived.items():
                if task[0] in self.safe:
                    repeated.add(task[0])
                    continue
                self.assertEqual(count, 1, told)
                # "restart" has no answer: it is complete when it is sent.
                self.assertEqual((status, UNKNOWN in err), (
                    0 if words == ("restart",) else 255, words[0] != "restart"), told)
        self.assertGreaterEqual(len(repeated), 15, repeated)

    def test_on_request_all_tasks_are_repeated(self):
        repeated = set()
        for words, status, err, device in self.run_all("--retry", "1", "--retry-unsafe"):
            if "--wait" in words or words[0] == "restart":
                continue  # they continue without the answer
            told = (words, status, err, device.arrived)
            unsafe = {task for task in device.arrived if task[0] not in self.safe}
            if unsafe:
                self.assertEqual({device.arrived[task] for task in unsafe}, {2}, told)
                self.assertEqual(status, 255, told)
                repeated.add(words)
        self.assertGreaterEqual(len(repeated), 14, repeated)


class Jobs(CtlCase):
    def test_a_list_is_asked_for_again(self):
        device = Loser(self, lambda sent: True)
        result = self.ctl("-d", device.where, "--retry", "1", "job", "list")
        self.assertEqual((result.status, list(device.arrived.values())), (255, [2]), result.err)
        self.assertNotIn("unknown", result.err.decode())

    def test_a_start_is_sent_again_unchanged(self):
        device = Loser(self, lambda sent: True)
        result = self.ctl("-d", device.where, "job", "start", "--reconnect", "1.5", "true")
        self.assertEqual((result.status, len(device.arrived)), (255, 1), result.err)
        self.assertGreater(max(device.arrived.values()), 1)
        self.assertRegex(result.err.decode(), "the job may have started: runelctl -d .* job attach runelctl-")


class Transfers(CtlCase):
    def test_a_repeated_transfer_runs_only_programs_that_may_run_twice(self):
        os.makedirs(self.path("tree/sub"))
        for name in ("tree/a", "tree/sub/b"):
            self.file(name, b"x")
        safe = safe_tasks()
        for program, *words in (("mkdir", "push", "-r", "tree", "/x"), ("chmod", "push", "-r", "tree", "/x"),
                                ("touch", "sync", "--delete", "tree", "/x"),
                                ("sha256sum", "push", "--checksum", "tree/a", "/x")):
            device = Loser(self, lambda sent, program=program: program in sent)
            result = self.ctl("-d", device.where, "--retry", "1", *words)
            self.assertEqual(result.status, 255)
            self.assertNotIn("unknown", result.err.decode())
            unsafe = [task for task in device.arrived if task[0] not in safe]
            self.assertEqual({task[0] for task in unsafe}, {"exec"}, device.arrived)
            programs = {task[1] for task in unsafe}
            self.assertLessEqual({program}, programs)
            self.assertLessEqual(programs, HARMLESS)
            self.assertEqual({device.arrived[task] for task in unsafe}, {2})


if __name__ == "__main__":
    unittest.main()
