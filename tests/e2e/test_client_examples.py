# SPDX-License-Identifier: Apache-2.0
"""The programs in client/examples, against real daemons."""
import os
import re
import subprocess

from support.case import EndToEndCase
from support.daemon import sanitizer_options
from support.fakes import FakeDevices
from support.wait import TIMEOUT

EXAMPLES = os.environ.get("RUNEL_EXAMPLES", "")


class ExampleCase(EndToEndCase):
    def start(self, name, *words):
        process = subprocess.Popen(
            [os.path.join(EXAMPLES, name), *words], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
            stderr=subprocess.PIPE, text=True, cwd=self.directory,
            env={**os.environ, **sanitizer_options(self.directory)})
        self.addCleanup(process.communicate)
        self.addCleanup(process.kill)
        return process

    def ran(self, name, *words, feed=""):
        """The exit status, standard output and standard error of one run."""
        process = self.start(name, *words)
        output, errors = process.communicate(feed, timeout=TIMEOUT)
        return process.returncode, output, errors


class ProgramTest(ExampleCase):
    def setUp(self):
        super().setUp()
        self.daemon()

    def test_run_task_prints_the_output(self):
        self.assertEqual(self.ran("run_task", "127.0.0.1", "echo", "hi"), (0, "hi\n", ""))

    def test_run_task_ends_with_the_exit_status(self):
        self.assertEqual(self.ran("run_task", "127.0.0.1", "sh", "-c", "exit 7")[0], 7)

    def test_run_task_tells_what_failed_and_the_outcome(self):
        self.assertEqual(self.ran("run_task", "127.0.0.1:1", "true"), (
            125, "", "link: 127.0.0.1:1: Connection refused (not sent)\n"))

    def test_push_file_prints_the_progress(self):
        source, target = self.file("source", bytes(40_000_000)), self.path("target")
        status, output, errors = self.ran("push_file", "127.0.0.1", source, target)
        self.assertEqual((status, errors), (0, ""))
        lines = output.splitlines()
        self.assertEqual(lines[-2:], ["40.0 of 40.0 MB", f"{target}: 40000000 bytes"])
        self.assertGreater(len(lines), 2)
        self.assertEqual(self.content("target"), bytes(40_000_000))

    def test_push_file_tells_why_it_failed(self):
        status, output, errors = self.ran("push_file", "127.0.0.1", "missing", self.path("target"))
        self.assertEqual((status, output), (1, ""))
        self.assertIn("local: missing: No such file or directory", errors)

    def test_poll_loop_prints_the_files(self):
        one, other = self.file("one", b"1\n"), self.file("other", b"2\n")
        self.assertEqual(
            self.ran("poll_loop", "127.0.0.1", feed=f"{one}\n/missing\n{other}\n"),
            (0, f"{one}: 1\n/missing: No such file or directory\n{other}: 2\n", ""))

    def test_uv_loop_runs_its_timer_while_it_waits(self):
        status, output, errors = self.ran("uv_loop", "sleep 0.5; echo $((1 + 1))", "127.0.0.1")
        self.assertEqual((status, output), (0, "127.0.0.1: 2\n"))
        self.assertRegex(errors, r"^\.+$")

    def test_uv_loop_asks_all_hosts(self):
        status, output, _ = self.ran("uv_loop", "echo up", "127.0.0.1", "127.0.0.2", "127.0.0.3")
        self.assertEqual(status, 0)
        self.assertEqual(sorted(output.splitlines()), [f"127.0.0.{n}: up" for n in (1, 2, 3)])


class MasterTest(ExampleCase):
    def test_ten_devices_and_an_agent(self):
        master = self.start("ten_devices", "10")
        self.assertEqual(master.stdout.readline(), "listening\n")
        self.daemon()
        FakeDevices(self, 9)
        lines = [master.stdout.readline().rstrip() for _ in range(11)]
        self.assertEqual(lines[10], "10 devices have answered")
        answers = dict(line.split(": ") for line in lines[:10])
        self.assertEqual(sorted(answers.values()), sorted(["fake"] * 9 + [os.uname().release]))
        self.assertEqual(self.ran("agent", "<status>up</status>"), (0, "<heard/>\n", ""))
        self.assertTrue(re.fullmatch(r"\S+ says <status>up</status>\n", master.stdout.readline()))

    def test_an_agent_without_a_daemon(self):
        status, output, errors = self.ran("agent", "<status/>")
        self.assertEqual((status, output), (1, ""))
        self.assertIn("Connection refused", errors)

    def test_an_agent_refuses_what_is_not_a_clause(self):
        self.daemon()
        self.assertEqual(self.ran("agent", "status")[0], 1)
