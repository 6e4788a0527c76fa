# SPDX-License-Identifier: Apache-2.0
"""Plans of push, sync and pull, what they leave out, and patterns that the device's directories
expand."""
import contextlib
import os
import select
import socket
import unittest

from support.ctl import FRAME, CtlCase, reply, requests, snapshot
from support.wire import parse_record

WHEN = 1_600_000_000_123_456_789
READS = {"stat", "lstat", "fileexists", "walktree", "readdir"}


class Overheard:
    """Relays between runelctl and a daemon, and keeps the requests, each as a list of words."""

    def __init__(self, case, address="127.0.0.1"):
        self.requests = []
        self.where = case.odd_peer(self._serve, address)

    def _serve(self, connected):
        data = b""
        with socket.create_connection(("127.0.0.1", 5111)) as daemon:
            while True:
                for source in select.select([connected, daemon], [], [])[0]:
                    part = source.recv(65536)
                    if not part:
                        return
                    if source is daemon:
                        connected.sendall(part)
                    else:
                        data = self._keep(data + part)
                        daemon.sendall(part)

    def _keep(self, data):
        while (head := FRAME.match(data)) and len(data) >= head.end() + int(head[1]):
            end = head.end() + int(head[1])
            words = parse_record(data[head.end():end]).arguments
            self.requests.append([os.fsdecode(word) for word in words])
            data = data[end:]
        return data

    def tasks(self):
        return {words[0] for words in self.requests}


class PlanCase(CtlCase):
    """A directory `there` of a real daemon, and a tree `here`."""

    def setUp(self):
        super().setUp()
        self.daemon()
        self.device = Overheard(self)
        for name in ("there", "here/sub", "there/old/deep"):
            os.makedirs(self.path(name), exist_ok=True)
        for name, content in (("here/same", b"same"), ("here/new", b"x" * 2048),
                              ("here/sub/b", b"new b"), ("here/sub/c.log", b"log"),
                              ("there/same", b"same"), ("there/old/x", b"123"),
                              ("there/old/deep/y.log", b"12"), ("there/z", b"")):
            self.put(name, content)
        os.symlink("same", self.path("here/link"))

    def put(self, name, content):
        path = self.file(name, content)
        os.chmod(path, 0o644)
        os.utime(path, ns=(WHEN, WHEN))
        return path

    def both(self):
        return snapshot(self.path("here")), snapshot(self.path("there"))

    def run_at(self, *words, status=0, errors=0):
        result = self.ctl("-d", self.device.where, *words)
        self.assertEqual((result.status, len(result.errors)), (status, errors), result.err)
        return result

    def plan(self, *words, **options):
        """The lines of a plan, which changes nothing on either side and only reads."""
        before = self.both()
        self.device.requests.clear()
        result = self.run_at("-n", *words, **options)
        self.assertEqual(self.both(), before)
        self.assertNotEqual(self.device.requests, [])
        self.assertLessEqual(self.device.tasks(), READS)
        return result.text.splitlines()

    def done(self, *words):
        """The lines of the transfer itself, without the summary of a sync."""
        lines = self.run_at("-v", *words).text.splitlines()
        return lines[:-1] if "sync" in words else lines


class Plans(PlanCase):
    def test_push(self):
        there = self.path("there")
        self.put("there/here", b"in the way")
        lines = self.plan("push", "-r", self.path("here"), there, status=1, errors=1)
        self.assertEqual(lines[0], f"create      {there}/here/link -> same")
        os.unlink(self.path("there/here"))
        lines = self.plan("push", "-r", self.path("here"), there)
        self.assertEqual(lines, [f"create      {there}/here/", f"create      {there}/here/link -> same",
                                 f"create      {there}/here/new  2.0 KiB",
                                 f"create      {there}/here/same  4 B",
                                 f"create      {there}/here/sub/",
                                 f"create      {there}/here/sub/b  5 B",
                                 f"create      {there}/here/sub/c.log  3 B",
                                 "dry run: 4 files, 2.0 KiB to transfer"])
        self.assertEqual(self.done("push", "-r", self.path("here"), there), lines[:-1])
        self.assertEqual(snapshot(self.path("here")), snapshot(self.path("there/here")))

    def test_push_of_a_file_that_is_there(self):
        words = ("push", self.path("here/new"), self.path("there/same"))
        lines = self.plan(*words)
        self.assertEqual(lines[0], f"replace     {words[2]}  2.0 KiB (old: 4 B)")
        self.assertEqual(self.done(*words), lines[:1])

    def test_sync_lists_what_it_then_changes(self):
        self.put("there/sub", b"a file where a directory is here")
        os.chmod(self.path("there/same"), 0o600)
        words = ("sync", "--delete", self.path("here"), self.path("there"))
        lines = self.plan(*words)
        there = self.path("there")
        self.assertEqual(lines, [
            f"remove      {there}/old/", f"remove      {there}/old/deep/",
            f"remove      {there}/old/deep/y.log  2 B", f"remove      {there}/old/x  3 B",
            f"remove      {there}/sub  32 B", f"remove      {there}/z  0 B",
            f"create      {there}/link -> same", f"create      {there}/new  2.0 KiB",
            f"attributes  {there}/same", f"create      {there}/sub/",
            f"create      {there}/sub/b  5 B", f"create      {there}/sub/c.log  3 B",
            "dry run: 3 files, 2.0 KiB to transfer; 3 removals"])
        self.assertEqual(self.done(*words), lines[:-1])
        self.assertEqual(*self.both())
        self.assertEqual(self.plan(*words), ["dry run: 0 files, 0 B to transfer; 0 removals"])

    def test_sync_with_checksums_runs_only_sha256sum(self):
        self.put("there/same", b"SAME")
        before = self.both()
        text = self.run_at("-n", "sync", "--checksum", self.path("here"), self.path("there")).text
        self.assertIn(f"replace     {self.path('there/same')}  4 B (old: 4 B)\n", text)
        self.assertEqual(self.both(), before)
        self.assertLessEqual(self.device.tasks(), READS | {"exec"})
        programs = {words[1] for words in self.device.requests if words[0] == "exec"}
        self.assertEqual(programs, {"sha256sum"})

    def test_pull(self):
        here = self.path("here")
        self.put("there/new", b"from there")
        os.symlink("away", self.path("there/out"))
        words = ("pull", "-r", self.path("there") + "/.", here)
        lines = self.plan(*words)
        self.assertEqual(lines, [f"replace     {here}/new  10 B (old: 2.0 KiB)",
                                 f"create      {here}/old/", f"create      {here}/old/deep/",
                                 f"create      {here}/old/deep/y.log  2 B",
                                 f"create      {here}/old/x  3 B",
                                 f"create      {here}/out -> away",
                                 f"replace     {here}/same  4 B (old: 4 B)",
                                 f"create      {here}/z  0 B",
                                 "dry run: 5 files, 19 B to transfer"])
        self.assertEqual(self.done(*words), lines[:-1])
        self.assertEqual(self.content("here/new"), b"from there")

    def test_pull_to_a_new_directory_creates_nothing(self):
        new = self.path("new")
        lines = self.plan("pull", "-r", self.path("there"), new)
        self.assertEqual(lines[0], f"create      {new}/")
        self.assertFalse(os.path.exists(new))

    def test_pull_through_a_local_link_is_refused_in_the_plan(self):
        os.makedirs(self.path("here/there"))
        os.symlink("/", self.path("here/there/old"))
        before = self.both()
        result = self.run_at("-n", "pull", "-r", self.path("there"), self.path("here"), status=1,
                             errors=4)
        self.assertIn("a symbolic link is in the path", result.err.decode())
        self.assertEqual(self.both(), before)

    def test_objects(self):
        there = self.path("there")
        objects = self.run_at("--json", "-n", "sync", "--delete", self.path("here"), there).objects
        changes = [one for one in objects if one.get("entry") == "change"]
        self.assertEqual(changes[-2], {"v": 1, "device": self.device.where, "task": "sync",
                                       "entry": "change", "action": "create", "type": "-",
                                       "path": there + "/sub/b", "size": 5})
        self.assertEqual({one["action"] for one in changes}, {"create", "remove"})
        self.assertEqual({key: objects[-1][key] for key in ("ok", "dry_run", "files", "bytes",
                                                            "removed")},
                         {"ok": True, "dry_run": True, "files": 3, "bytes": 2056, "removed": 2})
        done = self.run_at("--json", "-v", "sync", "--delete", self.path("here"), there).objects
        self.assertEqual([one for one in done if one.get("entry") == "change"], changes)
        self.assertNotIn("dry_run", done[-1])

    def test_several_devices_need_no_confirmation_and_write_no_file(self):
        other = Overheard(self, "127.0.0.2")
        before = self.both()
        listing = self.file("failed", b"")
        result = self.ctl("-d", f"{self.device.where},{other.where}", "--output-dir",
                          self.path("out"), "-n", "sync", "--delete", self.path("here"),
                          self.path("there"))
        self.assertEqual((result.status, len(result.errors)), (0, 1), result.err)
        self.assertIn("(2 devices)\n", result.text)
        self.assertEqual(result.text.count("remove      "), 5)
        self.assertEqual((self.both(), self.content("failed")), (before, b""))
        self.assertFalse(os.path.exists(self.path("out")))
        self.assertLessEqual(self.device.tasks() | other.tasks(), READS)
        self.ctl("-d", f"{self.device.where},{other.where}", "-n", "pull", self.path("there/z"),
                 self.path("both"))
        self.assertFalse(os.path.exists(self.path("both")))
        del listing

    def test_a_failed_plan_does_not_change_the_file_of_retry_failed(self):
        listing = (self.device.where + "\n").encode()
        path = self.file("failed", listing)
        self.run_at("-n", "--retry-failed", path, "pull", self.path("there/none"), self.path("new"),
                    status=1, errors=1)
        self.assertEqual(self.content("failed"), listing)

    def test_names_of_the_device_are_escaped_on_a_terminal(self):
        name = b"\x1b]0;title\x07\xff\r\n"
        with open(os.path.join(os.fsencode(self.path("there")), name), "wb"):
            pass
        for words in (("-n", "sync", "--delete", self.path("here"), self.path("there")),
                      ("-n", "pull", "-r", self.path("there"), self.path("new")),
                      ("ls", self.path("there") + "/*title*")):
            status, shown = self.on_terminal("-d", self.device.where, *words)
            self.assertEqual(status, 0, shown)
            self.assertIn(rb"\x1b]0;title\x07\xff\r\n", shown)
            self.assertNotIn(b"]0;title\x07", shown)

    def test_offline_needs_a_dry_run(self):
        self.assertEqual(self.ctl("--offline", "hostid").status, 2)


class Excludes(PlanCase):
    def test_push_and_sync(self):
        words = ("--exclude", "*.log", "--exclude", "/sub/b", self.path("here"), self.path("there/to"))
        for command in (("push", "-r"), ("sync",)):
            lines = self.plan(*command, *words)
            self.assertEqual([line.split("/to")[-1] for line in lines[:-1]],
                             ["/", "/link -> same", "/new  2.0 KiB", "/same  4 B", "/sub/"])
            self.assertEqual(self.done(*command, *words), lines[:-1])
            self.assertEqual(sorted(os.listdir(self.path("there/to"))), ["link", "new", "same", "sub"])
            self.assertEqual(os.listdir(self.path("there/to/sub")), [])
            self.run_at("rm", "-r", self.path("there/to"))

    def test_sync_does_not_remove_what_is_left_out(self):
        words = ("sync", "--delete", "--exclude", "*.log", self.path("here"), self.path("there"))
        lines = self.plan(*words)
        self.assertEqual([line.split("/there")[-1] for line in lines if line.startswith("remove")],
                         ["/old/x  3 B", "/z  0 B"])
        self.assertEqual(self.done(*words), lines[:-1])
        self.assertEqual(self.content("there/old/deep/y.log"), b"12")
        self.assertFalse(os.path.exists(self.path("there/old/x")))

    def test_pull(self):
        words = ("pull", "-r", "--exclude", "deep/", self.path("there"), self.path("new"))
        self.assertEqual(self.plan(*words), [f"create      {self.path('new')}/",
                                             f"create      {self.path('new/old')}/",
                                             f"create      {self.path('new/old/x')}  3 B",
                                             f"create      {self.path('new/same')}  4 B",
                                             f"create      {self.path('new/z')}  0 B",
                                             "dry run: 3 files, 7 B to transfer"])
        self.run_at(*words)
        self.assertEqual(set(snapshot(self.path("new"))), {b"old", b"old/x", b"same", b"z"})

    def test_files_of_rules_and_their_order(self):
        rules = self.file("rules", b"# comment\n\n- *.log\n+ never\n")
        words = ("push", "-r", "--exclude", "+ c.log", "--exclude-from", rules, self.path("here"),
                 self.path("there/to"))
        self.assertIn("c.log", self.plan(*words)[-2])
        words = ("push", "-r", "--exclude-from", rules, "--exclude", "+ c.log", self.path("here"),
                 self.path("there/to"))
        self.assertNotIn("c.log", "".join(self.plan(*words)))
        result = self.ctl("-d", self.device.where, "-n", "push", "-r", "--exclude-from", "-",
                          self.path("here"), self.path("there/to"), feed=b"*\n")
        self.assertEqual(result.text, "dry run: 0 files, 0 B to transfer\n")
        for words in (("sync", self.path("here"), self.path("there/to")),
                      ("pull", "-r", self.path("there"), self.path("new"))):
            self.assertIn(".log", "".join(self.plan(*words)))
            self.assertNotIn(".log", "".join(self.plan(words[0], "--exclude-from", rules, *words[1:])))

    def test_sources_are_left_out_by_name(self):
        result = self.plan("push", "--exclude", "*.log", self.path("here/sub/b"),
                           self.path("here/sub/c.log"), self.path("there"))
        self.assertEqual(len(result), 2)
        result = self.plan("pull", "--exclude", "y*", self.path("there/old/deep/y.log"),
                           self.path("there/z"), self.path("here"))
        self.assertEqual(len(result), 2)

    def test_unusable_rules_are_usage_errors(self):
        for options in (("--exclude", ""), ("--exclude", "/"), ("--exclude", "!"),
                        ("--exclude-from", self.path("none")), ("--exclude-from", self.path("here"))):
            for words in (("push", "-r"), ("sync",), ("pull",)):
                result = self.ctl(*words, *options, self.path("here"), "/x")
                self.assertEqual((result.status, len(result.errors)), (2, 1), options)


class Patterns(PlanCase):
    def setUp(self):
        super().setUp()
        for name in ("a.log", "b.log", ".hidden.log", "c.txt", "br[1]", "back\\*slash"):
            self.put("there/" + name, name.encode() + b"\n")
        self.there = self.path("there")

    def test_ls_cat_and_rm(self):
        self.assertEqual(self.run_at("cat", self.there + "/?.log").text, "a.log\nb.log\n")
        self.assertEqual(self.run_at("ls", self.there + "/[a-c].*").text,
                         f"{self.there}/a.log\n{self.there}/b.log\n{self.there}/c.txt\n")
        self.assertEqual(self.run_at("ls", self.there + "/.*").text, f"{self.there}/.hidden.log\n")
        self.assertEqual(self.run_at("ls", self.there + "/o*/*/*.log").text,
                         f"{self.there}/old/deep/y.log\n")
        self.assertIn(" 3 ", self.run_at("ls", "-l", self.there + "/old/[x]").text)
        self.run_at("rm", self.there + "/*.log")
        self.assertEqual(sorted(os.listdir(self.there)),
                         [".hidden.log", "back\\*slash", "br[1]", "c.txt", "old", "same", "z"])
        self.run_at("rm", "-r", self.there + "/*")
        self.assertEqual(os.listdir(self.there), [".hidden.log"])

    def test_no_shell_takes_part(self):
        self.run_at("ls", self.there + "/*.log")
        self.assertEqual(self.device.requests,
                         [["lstat", self.there + "/*.log"], ["readdir", self.there],
                          ["readdir", self.there + "/a.log"], ["lstat", self.there + "/a.log"],
                          ["readdir", self.there + "/b.log"], ["lstat", self.there + "/b.log"]])

    def test_a_name_with_wildcards_and_quoting(self):
        self.put("there/br1", b"other")
        self.assertEqual(self.run_at("cat", self.there + "/br[1]").text, "br[1]\n")
        self.assertEqual(self.run_at("cat", self.there + "/b*\\[1]").text, "br[1]\n")
        self.assertEqual(self.run_at("cat", self.there + "/back\\*slash").text, "back\\*slash\n")
        self.assertEqual(self.run_at("cat", self.there + "/back\\\\\\*s*").text, "back\\*slash\n")

    def test_no_match_is_an_error_that_names_the_pattern(self):
        for words in (("ls",), ("cat",), ("rm",), ("rm", "-r")):
            result = self.run_at(*words, self.there + "/*.none", status=1, errors=1)
            self.assertIn(f"{self.there}/*.none: no match", result.errors[0])
        result = self.run_at("cat", "*.none", self.there + "/a.*", status=1, errors=1)
        self.assertEqual(result.text, "a.log\n")

    def test_pull(self):
        words = ("pull", self.there + "/*.log", self.path("new"))
        lines = self.plan(*words)
        self.assertEqual(lines, [f"create      {self.path('new/a.log')}  6 B",
                                 f"create      {self.path('new/b.log')}  6 B",
                                 "dry run: 2 files, 12 B to transfer"])
        self.assertEqual(self.done(*words), lines[:-1])
        self.run_at("pull", self.there + "/c.*", self.path("one"))  # one match: still a directory
        self.assertEqual(os.listdir(self.path("one")), ["c.txt"])

    def test_pull_without_a_match_or_with_one_name_twice(self):
        result = self.run_at("pull", self.there + "/*.none", self.path("new"), status=1, errors=1)
        self.assertIn("no match", result.errors[0])
        result = self.run_at("pull", self.there + "/*.none", self.there + "/z", self.there + "/s*",
                             self.path("new"), status=1, errors=1)
        self.assertEqual(sorted(os.listdir(self.path("new"))), ["same", "z"])
        self.put("there/old/same", b"")
        result = self.run_at("pull", self.there + "/same", self.there + "/*/same",
                             self.path("twice"), status=1, errors=1)
        self.assertIn("have the same name", result.errors[0])
        self.assertFalse(os.path.exists(self.path("twice")))

    def test_a_dry_run_sends_nothing(self):
        for words, later in ((("rm", self.there + "/*.log"), "unlink"),
                             (("cat", self.there + "/*.log"), "read"),
                             (("ls", self.there + "/*.log"), "readdir"),
                             (("--offline", "pull", self.there + "/*.log", self.path("new")), "stat")):
            objects = self.run_at("--json", "-n", *words).objects
            self.assertEqual([one["payload"].split()[2:] for one in objects[:2]],
                             [["5:lstat", f"{len(self.there) + 6}:{self.there}/*.log", "0", "0:"] + ["0"] * 5,
                              ["7:readdir", f"{len(self.there)}:{self.there}", "0", "0:"] + ["0"] * 5])
            self.assertIn("for the files that match: " + later, objects[2]["text"])
        self.assertEqual(self.device.requests, [])

    def test_in_the_shell_patterns_start_from_its_directory(self):
        os.mkdir(self.path("there/odd*"))
        self.put("there/odd*/f1", b"1")
        os.mkdir(self.path("there/oddity"))
        self.put("there/oddity/f2", b"2")
        feed = f"cd {self.there}/odd\\*\ncat f?\ncd ..\nls [ab].log\nls '[z]'\n".encode()
        result = self.ctl("-d", self.device.where, "shell", feed=feed)
        self.assertEqual((result.status, result.err), (0, b""))
        self.assertEqual(result.text, f"1{self.there}/a.log\n{self.there}/b.log\n{self.there}/z\n")

    def test_an_argument_in_brackets_is_one_argument(self):
        self.assertEqual(self.run_at("exec", "--", "echo", "[a,b]", "[c]").text, "[a,b] [c]\n")
        self.assertEqual(self.run_at("sh", "[ -d / ]").text, "")


class HostileNames(CtlCase):
    """A device whose directories have names that lead elsewhere."""

    NAMES = (b"../up", b"..", b"/etc/passwd", b"a/b", b"nul\0", b"good")

    def serve(self, connected):
        listing = b"StringVec %d\n" % len(self.NAMES)
        listing += b"".join(b"%d:%s\n" % (len(name), name) for name in self.NAMES)
        st = (b"dev=1 ino=1 mode=0100644 nlink=1 uid=0 gid=0 rdev=0 size=3 blksize=1 blocks=0 "
              b"atime=0.000000000 mtime=7.000000000 ctime=0.000000000\n")
        for words in requests(connected):
            self.asked.append(words)
            if words[0] == "lstat":
                connected.sendall(reply(fields=(1, 0, 1, 2, 0)))
            else:
                connected.sendall(reply({"readdir": listing, "stat": st}.get(words[0], b"bad")))

    def test_they_are_left_out(self):
        self.asked = []
        where = self.odd_peer(self.serve)
        os.mkdir(self.path("here"))
        before = snapshot(self.directory)
        for pattern in ("/x/*", "/x/.*"):
            with contextlib.suppress(FileNotFoundError):
                os.unlink(self.path("here/good"))
            self.ctl("-d", where, "pull", pattern, self.path("here"))
        self.assertEqual(set(snapshot(self.directory)) - set(before), set())
        self.succeed("-d", where, "pull", "/x/*", self.path("here"))
        self.assertEqual(os.listdir(self.path("here")), ["good"])
        self.assertEqual(self.content("here/good"), b"bad")
        self.asked.clear()
        self.succeed("-d", where, "rm", "/x/*")
        self.assertEqual(self.asked, [["lstat", "/x/*"], ["readdir", "/x"], ["unlink", "/x/good"]])


if __name__ == "__main__":
    unittest.main()
