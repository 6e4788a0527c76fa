# SPDX-License-Identifier: Apache-2.0
"""--dry-run: every command prints devices and frames and sends nothing; push, sync and pull with
--offline."""
import os
import threading
import unittest

from support.ctl import CtlCase, reply
from support.fakes import FakeDevice
from support.master import MasterCase
from support.wire import record


class DryRun(CtlCase):
    """The device would answer, but no run may connect to it."""

    def setUp(self):
        super().setUp()
        self.met = threading.Event()
        self.where = self.odd_peer(self.serve)

    def serve(self, connected):
        self.met.set()
        while connected.recv(65536):
            connected.sendall(reply())

    def shown(self, *words, **options):
        """The payloads that @p words would send, and the description of the dependent requests."""
        objects = self.succeed("-d", self.where, "--json", "-n", *words, **options).objects
        self.assertFalse(self.met.is_set(), words)
        frames = [one["payload"] for one in objects if one.get("entry") == "frame"]
        later = [one["text"] for one in objects if one.get("entry") == "later"]
        self.assertEqual((objects[-1]["ok"], objects[-1]["dry_run"]), (True, True))
        self.assertEqual(len(frames) + len(later) + 1, len(objects), objects)
        people = self.succeed("-d", self.where, "-n", *words, **options)
        lines = [line for line in people.text.splitlines() if line.startswith(self.where + " <- ")]
        self.assertEqual(len(lines), len(frames))
        self.assertEqual(people.text.count("\n   then, depending on the answers: "), len(later))
        self.assertFalse(self.met.is_set(), words)
        return frames, "".join(later)

    def expect(self, words, *requests, later="", **options):
        """The output has exactly @p requests, each a task with its arguments."""
        expected = [record(list(request)).decode() for request in requests]
        self.assertEqual(self.shown(*words, **options), (expected, later))

    def test_every_task_prints_its_frame(self):
        for words in (("access", "/a", "4"), ("append", "/a", "x"), ("blinkleds", "slow"),
                      ("changeleds", "1", "0"), ("chmodx", "/a"), ("devicetype",),
                      ("fileexists", "/a"), ("freeblocks", "/"), ("hostid",), ("kill",),
                      ("processrunning", "x"), ("read", "/a"), ("readdir", "/"), ("realpath", "/a"),
                      ("rename", "/a", "/b"), ("unlink", "/a"), ("updateumstate", "a", "b"),
                      ("wait",), ("walktree", "/"), ("write", "/a", "x"), ("stat", "/a"),
                      ("lstat", "/a"), ("reboot",), ("restart",)):
            self.expect(words, words)
        self.expect(("write", "/a", "-"), ("write", "/a", "typed"), feed=b"typed")

    def test_every_path_is_printed(self):
        for command, task in (("cat", "read"), ("tree", "walktree"), ("rm", "unlink"),
                              ("stat", "stat"), ("lstat", "lstat")):
            self.expect((command, "/a", "/b"), (task, "/a"), (task, "/b"))
        self.expect(("df", "/a", "/b"), ("stat", "/a"), ("freeblocks", "/a"), ("stat", "/b"),
                    ("freeblocks", "/b"))
        self.expect(("rm", "-r", "/a", "/b"), ("exec", "rm", "-r", "--", "/a"),
                    ("exec", "rm", "-r", "--", "/b"))

    def test_programs_are_printed_with_their_arguments(self):
        frames, later = self.shown("exec", "--timeout", "7", "--", "uname", "-r")
        self.assertEqual((frames, later),
                         (["SlaveTask 3 4:exec 5:uname 2:-r 7 0: 0 0 0 0 0"], ""))
        self.assertEqual(self.shown("exec", "--background", "true")[0],
                         ["SlaveTask 2 4:exec 4:true -1 0: 0 0 0 0 0"])
        self.expect(("sh", "echo $1"), ("exec", "/bin/sh", "-c", "echo $1"))
        self.expect(("ps", "init"), ("processrunning", "init"))

    def test_jobs_print_the_start_and_describe_the_rest(self):
        for words in (("exec", "--stream", "uname"), ("sh", "--stream", "uname"),
                      ("exec", "--stream", "--stdin", "cat"), ("job", "attach", "x"),
                      ("job", "output", "x"), ("job", "wait", "x"), ("job", "stop", "x")):
            frames, later = self.shown(*words, feed=b"")
            self.assertEqual(len(frames), 1)
            self.assertIn("4:exec 7:/bin/sh 2:-c ", frames[0])
            self.assertIn("read of the status", later)
        for words in (("job", "start", "uname"), ("job", "list"), ("job", "remove", "x"),
                      ("job", "stop", "--signal", "INT", "x")):
            frames, later = self.shown(*words)
            self.assertEqual((len(frames), later), (1, ""))
        frames, later = self.shown("job", "start", "--stdin", "cat", feed=b"x")
        self.assertIn("append of standard input", later)

    def test_device_commands(self):
        frames, later = self.shown("info")
        self.assertEqual((len(frames), later), (8, ""))
        self.expect(("ping", "-c", "1"), ("fileexists", "/"))
        self.expect(("ping", "-c", "3"), ("fileexists", "/"),
                    later="the same task after each answer, 3 times in total")
        payload = "SlaveTask 1 6:hostid 0 0: 0 0 0 0 0"
        objects = self.succeed("-d", self.where, "-n", "--json", "raw", payload).objects
        self.assertEqual((objects[0]["payload"], objects[-1]["request"]), (payload, payload))
        self.assertIn("request, %d bytes\n00000000  01 33 35 02" % (len(payload) + 4),
                      self.succeed("-d", self.where, "-n", "raw", payload).text)
        self.assertFalse(self.met.is_set())

    def test_dependent_requests_are_described(self):
        self.expect(("mv", "/a", "/b"), ("stat", "/b"),
                    later="rename /a to /b, or into it if it is a directory")
        self.expect(("ls", "/a"), ("readdir", "/a"),
                    later="lstat for a path that is not a directory")
        self.expect(("ls", "-l", "/a", "/b"), ("readdir", "/a"), ("readdir", "/b"),
                    later="lstat for each name in a directory, and "
                          "for a path that is not a directory; walktree for each symbolic link")
        for command, path, name in (("reboot", "/proc/sys/kernel/random/boot_id", "boot_id"),
                                    ("restart", "/proc/self/stat", "process")):
            self.expect((command, "--wait"), ("read", path), (command,),
                        later=f"read {path} repeatedly, until it shows a new {name}")

    def test_transfers_describe_their_content(self):
        os.makedirs(self.path("tree/sub"))
        self.file("tree/a", b"x" * 1024)
        self.file("tree/sub/b", b"y" * 1024)
        os.symlink("a", self.path("tree/link"))
        for words, parts in ((("push", "-r"), ()), (("push", "-r", "--checksum"), ("sha256sum",)),
                             (("sync",), ("walktree", "the differences among")),
                             (("sync", "--delete"), ("walktree", "rm of files that are missing"))):
            frames, later = self.shown("--offline", *words, self.path("tree"), "/x")
            self.assertEqual(frames, [record(["stat", "/x"]).decode()])
            for part in ("2 files (2.0 KiB), 2 directories and 1 link", "mkdir", "write", "rename",
                         "chmod and touch", *parts):
                self.assertIn(part, later, words)
        frames, later = self.shown("--offline", "pull", "/a", "/b", self.path("new"))
        self.assertEqual(frames, [record(["stat", "/a"]).decode()])
        self.assertIn("stat for each further path; read for each file", later)
        self.assertNotIn("walktree", later)
        self.assertIn("walktree", self.shown("--offline", "pull", "-r", "/a", self.path("new"))[1])
        self.assertFalse(os.path.exists(self.path("new")))

    def test_a_long_frame_is_truncated_only_in_text_output(self):
        data = "x" * 5000
        text = self.succeed("-d", self.where, "-n", "write", "/a", data).text
        self.assertLess(len(text), 600)
        self.assertRegex(text, r"xxx\.\.\. \(50\d\d bytes\)\n$")
        self.assertIn(data, self.shown("write", "/a", data)[0][0])

    def test_devices_are_named_and_identical_frames_grouped(self):
        port = self.where.split(":")[1]
        both = f"127.0.0.1:{port},127.0.0.2:{port}"
        result = self.ctl("-n", "-d", both, "reboot")
        self.assertEqual((result.status, result.text, result.errors), (
            0, f"== 127.0.0.1:{port}, 127.0.0.2:{port} (2 devices)\n"
               "<- SlaveTask 1 6:reboot 0 0: 0 0 0 0 0\n",
            ["runelctl: dry run: nothing was sent to 2 devices"]))
        self.assertFalse(self.met.is_set())

    def test_the_file_of_retry_failed_is_not_changed(self):
        listing = (self.where + "\n").encode()
        path = self.file("failed", listing)
        self.succeed("-n", "--retry-failed", path, "-d", self.where, "hostid")
        self.assertEqual(self.content("failed"), listing)

    def test_in_the_shell_it_applies_to_one_line(self):
        result = self.ctl("-d", self.where, "shell", feed=b"-n fileexists /a\n")
        self.assertIn("<- SlaveTask 2 10:fileexists 2:/a", result.text)
        self.assertFalse(self.met.is_set())
        result = self.ctl("-d", self.where, "shell", feed=b"-n fileexists /a\nfileexists /b\n")
        self.assertEqual((result.status, result.text.count("<-")), (0, 1))
        self.assertTrue(self.met.is_set())

    def test_it_applies_to_all_lines_of_a_shell(self):
        result = self.ctl("-d", self.where, "-n", "shell", feed=b"cd /var\npwd\nls\n")
        self.assertEqual((result.status, result.err), (0, b""))
        self.assertIn("/var\n", result.text)
        self.assertIn("<- SlaveTask 2 7:readdir 4:/var", result.text)
        self.assertFalse(self.met.is_set())

    def test_master_and_agent_do_not_support_it(self):
        for words in (("master",), ("agent",)):
            result = self.ctl("-n", *words)
            self.assertEqual((result.status, len(result.errors)), (2, 1), words)
            self.assertIn(f"{words[0]}: --dry-run is not supported", result.errors[0])


class BehindAMaster(MasterCase):
    def test_nothing_is_sent_through_the_master(self):
        self.start_master()
        device = FakeDevice(self)
        self.wait_told("connected")
        came = device.came
        self.assertIn("@fake <- SlaveTask 2 6:unlink 2:/a",
                      self.succeed("-n", "-d", "@fake", "unlink", "/a").text)
        self.assertEqual((device.came, self.devices()["fake"]["requests"]), (came, 0))


if __name__ == "__main__":
    unittest.main()
