# SPDX-License-Identifier: Apache-2.0
"""push from standard input and pull to standard output."""
import os
import signal
import stat
import subprocess
import unittest

from support.ctl import CtlCase, say
from support.wait import TIMEOUT, wait_until


class PipeCase(CtlCase):
    def setUp(self):
        super().setUp()
        os.mkdir(self.path("tmp"))

    def environment(self, extra=None):
        return super().environment({"TMPDIR": self.path("tmp"), **(extra or {})})

    def refused(self, status, *words):
        """The error of a run that leaves no temporary file."""
        result = self.ctl(*words, feed=b"data")
        self.assertEqual((result.status, len(result.errors)), (status, 1), result)
        self.assert_tidy()
        return result.errors[0]

    def assert_tidy(self):
        self.assertEqual(os.listdir(self.path("tmp")), [])


class PushInput(PipeCase):
    def test_standard_input_becomes_a_file(self):
        self.daemon()
        for data in (b"", b"some\xff\x00text", os.urandom(20_000_000)):
            self.succeed("push", "-", self.path("target"), feed=data)
            self.assertEqual(self.content("target"), data)
        umask = os.umask(0)
        os.umask(umask)
        self.assertEqual(stat.S_IMODE(os.stat(self.path("target")).st_mode), 0o666 & ~umask)
        self.assert_tidy()

    def test_several_devices_get_the_same_input(self):
        self.daemon()
        result = self.ctl("-d", "127.0.0.1,127.0.0.2", "-j", "1", "push", "-", self.path("target"),
                          feed=b"data")
        self.assertEqual((result.status, self.content("target")), (0, b"data"))

    def test_it_needs_the_name_of_a_file(self):
        self.daemon()
        for target in ("", self.directory + "/", ".", ".."):
            self.assertIn("push: standard input needs the name of a file",
                          self.refused(2, "push", "-", target), target)
        self.assertIn("push: standard input must be the only source",
                      self.refused(2, "push", "-", self.file("a"), self.path("b")))
        before = os.listdir(self.directory)
        self.assertEqual(self.refused(1, "push", "-", self.directory),
                         f"runelctl: 127.0.0.1: {self.directory}: Is a directory "
                         "(standard input needs the name of a file)")
        self.assertEqual(os.listdir(self.directory), before)

    def test_a_file_with_this_name_is_still_available(self):
        self.daemon()
        self.file("-", b"file")
        self.succeed("push", "./-", self.path("target"), feed=b"input")
        self.assertEqual(self.content("target"), b"file")

    def test_a_lost_device_leaves_no_temporary_file(self):
        self.refused(255, "-d", "127.0.0.1:9", "push", "-", "/x")
        self.refused(255, "-d", self.odd_peer(say()), "push", "-", "/x")

    def test_a_signal_removes_the_temporary_file(self):
        process = self.start("push", "-", "/x", stdin=subprocess.PIPE)
        process.stdin.write(b"begin")
        process.stdin.flush()
        wait_until(lambda: os.listdir(self.path("tmp")), "the input is stored")
        process.send_signal(signal.SIGTERM)
        self.assertEqual(process.wait(TIMEOUT), -signal.SIGTERM)
        self.assert_tidy()

    def test_a_dry_run_sends_nothing(self):
        result = self.succeed("-n", "--offline", "push", "-", "/x", feed=b"data")
        self.assertIn("for 1 file (4 B)", result.text)
        self.assert_tidy()


class PullOutput(PipeCase):
    def test_a_file_is_written_to_standard_output(self):
        self.daemon()
        for data in (b"", b"some\xff\x00text", os.urandom(20_000_000)):
            path = self.file("source", data)
            self.assertEqual(self.succeed("pull", path, "-").out, data)
        self.assert_tidy()

    def test_several_devices_are_named(self):
        self.daemon()
        result = self.ctl("-d", "127.0.0.1,127.0.0.2", "pull", self.file("source", b"text\n"), "-")
        self.assertEqual((result.status, result.out),
                         (0, b"== 127.0.0.1, 127.0.0.2 (2 devices)\ntext\n"))

    def test_json_has_the_content(self):
        self.daemon()
        path = self.file("source", b"text")
        entry, last = self.succeed("--json", "pull", path, "-").objects
        self.assertEqual((entry["entry"], entry["path"], entry["content"], last["files"]),
                         ("file", path, "text", 1))

    def test_a_failure_writes_nothing(self):
        self.daemon()
        for source, why in ((self.path("none"), "No such file"), (self.directory, "Is a directory")):
            result = self.ctl("pull", source, "-")
            self.assertEqual((result.status, result.out, len(result.errors)), (1, b"", 1))
            self.assertIn(why, result.errors[0])
        self.assert_tidy()

    def test_a_reader_that_leaves_finds_no_temporary_file(self):
        self.daemon()
        run = self.start("pull", self.file("source", os.urandom(1_000_000)), "-")
        self.assertEqual(len(run.stdout.read1(1)), 1)
        run.stdout.close()
        self.assertEqual((run.wait(TIMEOUT), run.stderr.read()), (-signal.SIGPIPE, b""))
        self.assert_tidy()

    def test_a_full_output_leaves_no_temporary_file(self):
        self.daemon()
        with open("/dev/full", "wb") as full:
            run = self.start("pull", self.file("source", b"text"), "-", stdout=full)
        self.assertEqual((run.wait(TIMEOUT), run.stderr.read()),
                         (1, b"runelctl: standard output: No space left on device\n"))
        self.assert_tidy()

    def test_only_one_file_fits(self):
        for words in (("-r", "/a"), ("/a", "/b")):
            self.assertIn("pull: standard output takes one file", self.refused(2, "pull", *words, "-"))
        self.assertEqual(self.succeed("-n", "pull", "/a", "-").out.count(b"SlaveTask"), 1)
        self.assert_tidy()

    def test_a_pattern_must_match_one_file(self):
        self.daemon()
        os.mkdir(self.path("there"))
        self.file("there/one", b"text")
        self.assertEqual(self.succeed("pull", self.path("there/*"), "-").out, b"text")
        self.file("there/two", b"text")
        self.assertIn("there/*: matches 2 files, and standard output takes one",
                      self.refused(1, "pull", self.path("there/*"), "-"))

    def test_a_file_with_this_name_is_still_available(self):
        self.daemon()
        self.assertEqual(self.succeed("pull", self.file("source", b"text"), "./-").out, b"")
        self.assertEqual(self.content("-"), b"text")

    def test_on_a_terminal_there_is_no_summary_in_the_content(self):
        self.daemon()
        status, shown = self.on_terminal("-q", "pull", self.file("source", b"text"), "-")
        self.assertEqual((status, shown), (0, b"text"))


if __name__ == "__main__":
    unittest.main()
