# SPDX-License-Identifier: Apache-2.0
"""The 25 tasks on real files and programs, over both kinds of connection."""
import os
import re
import signal
import stat
import subprocess
import unittest

from support import world
from support.case import SUCCESS, EndToEndCase, failure
from support.logs import DEBUG, ERR, WARNING
from support.wait import wait_until
from support.wire import request

ENOENT, ESRCH, E2BIG, ENOEXEC, ECHILD, EAGAIN, EACCES, EEXIST = 2, 3, 7, 8, 10, 11, 13, 17
EXDEV, ENOTDIR, EISDIR, EINVAL, ENXIO, ENAMETOOLONG, EPROTO, ETIMEDOUT = 18, 20, 21, 22, 6, 36, 71, 110

ALL_TASKS = ("access", "append", "blinkleds", "changeleds", "chmodx", "devicetype", "exec",
             "fileexists", "freeblocks", "hostid", "kill", "lstat", "processrunning", "read",
             "readdir", "realpath", "reboot", "rename", "restart", "stat", "unlink",
             "updateumstate", "wait", "walktree", "write")

# The number of arguments that each task reads. "exec" reads all.
ARGUMENTS_READ = {"access": 2, "append": 2, "blinkleds": 1, "changeleds": 2, "chmodx": 1,
                  "fileexists": 1, "freeblocks": 1, "lstat": 1, "processrunning": 1, "read": 1,
                  "readdir": 1, "realpath": 1, "rename": 2, "stat": 1, "unlink": 1,
                  "updateumstate": 2, "walktree": 1, "write": 2}

ZERO_STAT = (b"dev=0 ino=0 mode=0000000 nlink=0 uid=0 gid=0 rdev=0 size=0 blksize=0 blocks=0 "
             b"atime=0.000000000 mtime=0.000000000 ctime=0.000000000\n")


def stat_text(about):
    """The reply of `stat` for the os.stat_result @p about."""
    def moment(nanoseconds):
        return f"{nanoseconds // 10**9}.{nanoseconds % 10**9:09d}"
    return (f"dev={about.st_dev} ino={about.st_ino} mode=0{about.st_mode:06o} "
            f"nlink={about.st_nlink} uid={about.st_uid} gid={about.st_gid} rdev={about.st_rdev} "
            f"size={about.st_size} blksize={about.st_blksize} blocks={about.st_blocks} "
            f"atime={moment(about.st_atime_ns)} mtime={moment(about.st_mtime_ns)} "
            f"ctime={moment(about.st_ctime_ns)}\n").encode()


class TaskCase(EndToEndCase):
    """One daemon and one connection for requests; `connect` decides which kind."""

    def setUp(self):
        super().setUp()
        self.running, self.peer = self.connect()
        self.addCleanup(self.assert_stops_if_running)

    def connect(self):
        daemon = self.daemon()
        return daemon, self.client()

    def assert_stops_if_running(self):
        if self.running.alive():
            self.assert_stops(self.running)

    def assert_answer(self, arguments, fields, output=b"", exec_param=0):
        reply = self.peer.ask(*arguments, exec_param=exec_param)
        self.assertEqual((reply.fields, reply.output), (fields, output), arguments)
        self.assertEqual((reply.arguments, reply.exec_param), ((), 0))


class FileTasks:
    """The fourteen tasks on files."""

    def test_fileexists_answers_for_files_directories_and_missing_paths(self):
        self.assert_answer(("fileexists", self.file("a")), SUCCESS)
        self.assert_answer(("fileexists", self.directory), SUCCESS)
        self.assert_answer(("fileexists", self.path("missing")), failure(ENOENT))
        os.symlink("nowhere", self.path("dangling"))
        self.assert_answer(("fileexists", self.path("dangling")), failure(ENOENT))
        self.assert_answer(("fileexists", self.path("a/b")), failure(ENOTDIR))

    def test_access_takes_its_mode_as_a_decimal_number(self):
        path = self.file("plain")
        os.chmod(path, 0o644)
        for mode in ("0", "4", "2", "6", " 4", "4x"):
            self.assert_answer(("access", path, mode), SUCCESS)
        self.assert_answer(("access", path, "1"), failure(EACCES))
        self.assert_answer(("access", path, "7"), failure(EACCES))
        self.assert_answer(("access", path, "8"), failure(EINVAL))
        self.assert_answer(("access", path, "x1"), SUCCESS)
        self.assert_answer(("access", self.path("missing"), "x1"), failure(ENOENT))

    def test_access_reads_a_sign_before_its_mode(self):
        path = self.file("plain")
        os.chmod(path, 0o644)
        self.assert_answer(("access", path, "+4"), SUCCESS)
        self.assert_answer(("access", path, "+1"), failure(EACCES))
        self.assert_answer(("access", path, "-0"), SUCCESS)
        self.assert_answer(("access", path, "-1"), failure(EINVAL))  # 4294967295: not a mode
        self.assert_answer(("access", path, "-4294967296"), failure(EINVAL))
        self.assert_answer(("access", path, "1x"), failure(EACCES))

    def test_stat_follows_a_link_and_lstat_does_not(self):
        path = self.file("target", b"12345")
        os.symlink(path, self.path("link"))
        os.utime(path, ns=(1_234_567_890_000_000_001, 987_654_321_098_765_432))
        self.assert_answer(("stat", self.path("link")), SUCCESS, stat_text(os.stat(path)))
        self.assert_answer(("lstat", self.path("link")), SUCCESS,
                           stat_text(os.lstat(self.path("link"))))
        self.assert_answer(("stat", "/dev/null"), SUCCESS, stat_text(os.stat("/dev/null")))
        self.assertIn(b" mode=0100644 ", self.peer.ask("stat", path).output)

    def test_a_failed_stat_prints_a_record_of_zeros(self):
        self.assert_answer(("stat", self.path("missing")), failure(ENOENT), ZERO_STAT)
        self.assert_answer(("lstat", self.path("missing")), failure(ENOENT), ZERO_STAT)

    def test_unlink_removes_a_file_but_not_a_directory(self):
        path = self.file("a")
        self.assert_answer(("unlink", path), SUCCESS)
        self.assertFalse(os.path.exists(path))
        self.assert_answer(("unlink", path), failure(ENOENT))
        self.assert_answer(("unlink", self.directory), failure(EISDIR))

    def test_chmodx_adds_execute_permission_for_all(self):
        path = self.file("a")
        os.chmod(path, 0o640)
        self.assert_answer(("chmodx", path), SUCCESS)
        self.assertEqual(stat.S_IMODE(os.stat(path).st_mode), 0o751)
        self.assert_answer(("chmodx", self.path("missing")), failure(ENOENT))

    def test_realpath_resolves_links_and_dots(self):
        path = self.file("a")
        os.symlink(path, self.path("link"))
        self.assert_answer(("realpath", self.directory + "/.././" + os.path.basename(self.directory) +
                            "//link"), SUCCESS, os.path.realpath(path).encode())
        self.assert_answer(("realpath", self.path("missing")), failure(ENOENT))

    def test_rename_replaces_an_existing_file(self):
        self.file("a", b"new")
        self.file("b", b"old")
        self.assert_answer(("rename", self.path("a"), self.path("b")), SUCCESS)
        self.assertEqual(self.content("b"), b"new")
        self.assertFalse(os.path.exists(self.path("a")))
        self.assert_answer(("rename", self.path("a"), self.path("b")), failure(ENOENT))
        self.assert_answer(("rename", self.path("b"), "/dev/shm/b"), failure(EXDEV))

    def test_readdir_lists_by_byte_value_without_the_dots(self):
        os.mkdir(self.path("directory"))
        self.assert_answer(("readdir", self.path("directory")), SUCCESS, b"StringVec 0\n")
        names = [b"Z", b"a", b"B.txt", b".hidden", b"\xff\x01", b"new\nline", b"10", b"9"]
        for name in names:
            with open(os.path.join(self.path("directory").encode(), name), "wb"):
                pass
        listing = b"".join(b"%d:%s\n" % (len(name), name) for name in sorted(names))
        self.assert_answer(("readdir", self.path("directory")), SUCCESS, b"StringVec 8\n" + listing)
        self.assert_answer(("readdir", self.path("missing")), failure(ENOENT), b"StringVec 0\n")
        self.assert_answer(("readdir", self.file("f")), failure(ENOTDIR), b"StringVec 0\n")

    def test_read_returns_the_bytes_unchanged(self):
        content = bytes(range(256)) * 5000
        self.assert_answer(("read", self.file("a", content)), SUCCESS, content)
        self.assert_answer(("read", self.file("empty")), SUCCESS)
        self.assert_answer(("read", self.path("missing")), failure(ENOENT))
        self.assert_answer(("read", self.directory), failure(EISDIR))

    def test_read_reads_to_the_end_for_any_size_in_stat(self):
        with open("/proc/cpuinfo", "rb") as file:
            head = file.read(9)
        self.assertEqual(self.peer.ask("read", "/proc/cpuinfo").output[:9], head)
        self.assert_answer(("read", "/proc/sys/kernel/ostype"), SUCCESS, b"Linux\n")

    def test_read_of_a_pipe_is_empty_and_does_not_wait(self):
        os.mkfifo(self.path("pipe"))
        self.assert_answer(("read", self.path("pipe")), SUCCESS)

    def test_write_replaces_the_content_and_keeps_mode_and_owner(self):
        path = self.file("a", b"a longer content than the new one")
        os.chmod(path, 0o4751)
        os.chown(path, 12, 34)
        os.chmod(path, 0o751)
        content = bytes(range(256)) * 3
        self.assert_answer(("write", path, content), SUCCESS)
        self.assertEqual(self.content("a"), content)
        about = os.stat(path)
        self.assertEqual((stat.S_IMODE(about.st_mode), about.st_uid, about.st_gid), (0o751, 12, 34))
        self.assertEqual(os.listdir(self.directory).count("a"), 1)

    def test_write_creates_a_new_file_and_an_empty_one(self):
        self.assert_answer(("write", self.path("new"), "text"), SUCCESS)
        self.assertEqual(self.content("new"), b"text")
        umask = os.umask(0)
        os.umask(umask)
        self.assertEqual(stat.S_IMODE(os.stat(self.path("new")).st_mode), 0o666 & ~umask)
        self.assert_answer(("write", self.path("new"), ""), SUCCESS)
        self.assertEqual(self.content("new"), b"")

    def test_write_follows_links_even_dangling_ones(self):
        os.mkdir(self.path("sub"))
        os.symlink("sub/target", self.path("link"))
        for content in (b"first", b"second"):
            self.assert_answer(("write", self.path("link"), content), SUCCESS)
            self.assertEqual(self.content("sub/target"), content)
        self.assertTrue(os.path.islink(self.path("link")))
        self.assertEqual(os.listdir(self.path("sub")), ["target"])

    def test_write_accepts_the_longest_name(self):
        path = self.path("n" * 255)
        self.assert_answer(("write", path, "x"), SUCCESS)
        self.assert_answer(("write", path + "n", "x"), failure(ENAMETOOLONG))

    def test_write_to_a_device_or_a_pipe_is_in_place_and_does_not_block(self):
        self.assert_answer(("write", "/dev/null", "gone"), SUCCESS)
        self.assertTrue(stat.S_ISCHR(os.stat("/dev/null").st_mode))
        os.mkfifo(self.path("pipe"))
        self.assert_answer(("write", self.path("pipe"), "x"), failure(ENXIO))
        reader = os.open(self.path("pipe"), os.O_RDONLY | os.O_NONBLOCK)
        self.addCleanup(os.close, reader)
        self.assert_answer(("write", self.path("pipe"), "through"), SUCCESS)
        self.assertEqual(os.read(reader, 100), b"through")

    def test_failed_writes_leave_no_file_behind(self):
        self.assert_answer(("write", self.directory, "x"), failure(EISDIR))
        self.assert_answer(("write", self.path("no/such"), "x"), failure(ENOENT))
        self.assertEqual([name for name in os.listdir(self.directory)
                          if not name.startswith(("stderr.", "sanitizer."))], [])

    def test_append_writes_at_the_end_and_creates_the_file(self):
        path = self.path("log")
        self.assert_answer(("append", path, "a"), SUCCESS)
        self.assert_answer(("append", path, b"b\0\xff"), SUCCESS)
        self.assert_answer(("append", path, ""), SUCCESS)
        self.assertEqual(self.content("log"), b"ab\0\xff")
        self.assert_answer(("append", self.path("no/such"), "x"), failure(ENOENT))
        self.assert_answer(("append", self.directory, "x"), failure(EISDIR))

    def test_walktree_prints_a_directory_before_its_sorted_entries(self):
        tree = self.path("tree")
        os.makedirs(tree + "/b/c")
        self.file("tree/a", b"123")
        self.file("tree/b.txt", b"1")
        os.symlink("a\\b\n", tree + "/z")
        os.mkfifo(tree + "/b/pipe")
        self.file("tree/bell\x07")
        os.chmod(tree + "/a", 0o4640)
        for path in ("b/c", "b/pipe", "b", "a", "b.txt", "z", "bell\x07", ""):
            os.utime(os.path.join(tree, path), (1, 1_000_000_000), follow_symlinks=False)
        umask = os.umask(0)
        os.umask(umask)
        directory, file = f"{0o777 & ~umask:04o}", f"{0o666 & ~umask:04o}"
        expected = "".join(f"{line}\n" for line in (
            f"d {directory} 0 0 0 1000000000 .",
            "- 4640 0 0 3 1000000000 a",
            f"d {directory} 0 0 0 1000000000 b",
            f"d {directory} 0 0 0 1000000000 b/c",
            f"p {file} 0 0 0 1000000000 b/pipe",
            f"- {file} 0 0 1 1000000000 b.txt",
            f"- {file} 0 0 0 1000000000 bell\\x07",
            "l 0777 0 0 0 1000000000 z -> a\\x5cb\\x0a"))
        self.assert_answer(("walktree", tree), SUCCESS, expected.encode())

    def test_walktree_of_a_missing_path_or_a_link(self):
        self.assert_answer(("walktree", self.path("missing")), failure(ENOENT))
        os.symlink("/etc", self.path("link"))
        reply = self.peer.ask("walktree", self.path("link"))
        self.assertEqual(reply.fields, SUCCESS)
        self.assertRegex(reply.output, rb"\Al 0777 0 0 0 \d+ \. -> /etc\n\Z")

    def test_freeblocks_counts_the_blocks_for_unprivileged_users(self):
        os.mkdir(self.path("disk"))
        world.mount("-t", "tmpfs", "-o", "size=1m", "tmpfs", self.path("disk"))
        self.addCleanup(world.unmount, self.path("disk"))
        free = os.statvfs(self.path("disk")).f_bavail
        self.assert_answer(("freeblocks", self.path("disk")), SUCCESS, str(free).encode())
        self.assert_answer(("freeblocks", self.path("missing")), failure(ENOENT), b"0")

    def test_a_zero_byte_in_a_path_is_refused(self):
        path = self.file("a", b"kept").encode() + b"\0x"
        one = ("chmodx", "fileexists", "read", "realpath", "unlink", "walktree")
        for task in one:
            self.assert_answer((task, path), failure(EINVAL))
        two = ("access", "append", "rename", "write")
        for task in two:
            self.assert_answer((task, path, "4"), failure(EINVAL))
        self.assert_answer(("rename", self.path("a"), path), failure(EINVAL))
        self.assert_answer(("stat", path), failure(EINVAL), ZERO_STAT)
        self.assert_answer(("lstat", path), failure(EINVAL), ZERO_STAT)
        self.assert_answer(("freeblocks", path), failure(EINVAL), b"0")
        self.assert_answer(("readdir", path), failure(EINVAL), b"StringVec 0\n")
        self.assertEqual(self.content("a"), b"kept")

    def test_very_long_and_empty_paths_are_refused_by_the_system(self):
        long = "/" + "x" * 5000
        for task in ("chmodx", "fileexists", "read", "realpath", "unlink", "walktree"):
            self.assert_answer((task, long), failure(ENAMETOOLONG))
            self.assert_answer((task, ""), failure(ENOENT))
        self.assert_answer(("write", long, "x"), failure(ENAMETOOLONG))
        self.assert_answer(("write", "", "x"), failure(ENOENT))
        self.assert_answer(("append", "", "x"), failure(ENOENT))


class ProgramTasks:
    """exec, wait, kill and processrunning."""

    def background(self, *program):
        self.assert_answer(("exec", *program), (2, 1, 0, 0, 0), exec_param=-1)

    def shell(self, line):
        return ("exec", "/bin/sh", "-c", line)

    def test_exec_answers_with_output_and_exit_status(self):
        self.assert_answer(("exec", "/bin/echo", "a", "b"), (0, 2, 0, 0, 0), b"a b\n")
        self.assert_answer(("exec", "echo", "", "x  y"), (0, 2, 0, 0, 0), b" x  y\n")
        self.assert_answer(self.shell("echo out; echo err >&2; exit 3"), (1, 2, 3, 0, 0),
                           b"out\nerr\n")
        self.assert_answer(self.shell("kill -9 $$"), (1, 3, -1, 0, 9))

    def test_exec_of_a_program_that_cannot_be_started(self):
        self.assert_answer(("exec",), failure(EINVAL))
        self.assert_answer(("exec", "/no/such"), failure(ENOENT))
        self.assert_answer(("exec", "no-such-program"), failure(ENOENT))
        self.assert_answer(("exec", ""), failure(ENOENT))
        self.assert_answer(("exec", self.directory), failure(EACCES))
        plain = self.file("plain", b"\x7fnonsense")
        self.assert_answer(("exec", plain), failure(EACCES))
        os.chmod(plain, 0o755)
        self.assert_answer(("exec", plain), failure(ENOEXEC))
        self.assert_answer(("exec", "/bin/true", "x" * (1 << 20)), failure(E2BIG))
        self.assert_answer(("exec", "/bin/tr\0ue"), failure(EINVAL))
        self.assert_answer(("exec", "/bin/true", "a\0b"), failure(EINVAL))

    def test_exec_starts_a_program_in_a_clean_environment(self):
        reply = self.peer.ask(*self.shell("readlink /proc/self/fd/0; ls /proc/self/fd | wc -l; "
                                          "grep -E 'Sig(Blk|Ign)' /proc/self/status; pwd"))
        self.assertEqual(reply.fields, (0, 2, 0, 0, 0))
        # 0, 1, 2 and the descriptor with which ls reads the directory.
        self.assertEqual(reply.output, b"/dev/null\n4\nSigBlk:\t0000000000000000\n"
                                       b"SigIgn:\t0000000000000000\n/\n")
        reply = self.peer.ask(*self.shell("cut -d' ' -f1,5 /proc/$$/stat"))
        pid, group = reply.output.split()
        self.assertEqual(pid, group)

    def test_exec_stops_a_program_at_its_limit(self):
        self.assert_answer(("exec", "sleep", "1000"), (3, 4, -1, 110, signal.SIGTERM), exec_param=1)
        self.assert_answer(self.shell("trap 'exit 5' TERM; sleep 1000 & wait"), (3, 4, -1, 110, 0),
                           exec_param=1)
        self.assert_answer(self.shell("trap '' TERM; echo deaf; while :; do sleep 0.1; done"),
                           (3, 4, -1, 110, signal.SIGKILL), b"deaf\n", exec_param=1)

    def test_exec_within_its_limit_answers_as_without_a_limit(self):
        self.assert_answer(("exec", "/bin/echo", "quick"), (0, 2, 0, 0, 0), b"quick\n",
                           exec_param=100)

    def test_exec_does_not_wait_for_other_processes_that_hold_the_output_open(self):
        self.assert_answer(self.shell("sleep 1000 & echo started"), (0, 2, 0, 0, 0), b"started\n")

    def test_exec_waits_for_a_program_that_closed_its_output(self):
        self.assert_answer(self.shell("exec >&- 2>&-; sleep 0.2; exit 4"), (1, 2, 4, 0, 0))

    def test_exec_keeps_sixteen_mebibytes_and_discards_the_rest(self):
        size = 16 << 20
        reply = self.peer.ask("exec", "head", "-c", str(40 << 20), "/dev/zero")
        self.assertEqual((reply.fields, reply.output == bytes(size)), ((0, 2, 0, 0, 0), True))
        self.assertEqual(self.log.count(f"exec: output cut at {size} bytes", WARNING), 1)

    def test_wait_reports_the_end_of_a_background_program_once(self):
        self.background("/bin/sh", "-c", "exit 9")
        self.assert_answer(("wait",), (1, 2, 9, 0, 0))
        self.assert_answer(("wait",), failure(ECHILD))
        self.assert_answer(("kill",), failure(ESRCH))

    def test_kill_stops_a_background_program_and_its_group(self):
        self.background("/bin/sh", "-c", f"sleep 1000 & echo $! >{self.path('child')}; wait")
        wait_until(lambda: os.path.exists(self.path("child")) and self.content("child"), "it runs")
        self.assert_answer(("kill",), (0, 3, -1, 0, signal.SIGTERM))
        child = int(self.content("child"))
        wait_until(lambda: not self.runs(child), "its child is gone too")
        self.assert_answer(("kill",), failure(ESRCH))
        self.assert_answer(("wait",), failure(ECHILD))

    def runs(self, pid):
        try:
            with open(f"/proc/{pid}/stat", encoding="latin-1") as about:
                return about.read().rpartition(")")[2].split()[0] != "Z"
        except (FileNotFoundError, ProcessLookupError):
            return False

    def test_kill_reports_how_a_program_ended(self):
        self.background("/bin/sh", "-c", f"trap 'exit 6' TERM; touch {self.path('up')}; "
                                         "while :; do sleep 0.01; done")
        wait_until(lambda: os.path.exists(self.path("up")), "it runs")
        self.assert_answer(("kill",), (0, 2, 6, 0, 0))
        self.background("/bin/sh", "-c", f"trap '' TERM; touch {self.path('deaf')}; "
                                         "while :; do sleep 0.1; done")
        wait_until(lambda: os.path.exists(self.path("deaf")), "it runs")
        self.assert_answer(("kill",), (0, 3, -1, 0, signal.SIGKILL))

    def test_kill_after_the_program_ended_leaves_its_end_to_wait(self):
        self.background("/bin/sh", "-c", "exit 2")
        wait_until(lambda: self.running.zombies(), "it ended")
        self.assert_answer(("kill",), failure(ESRCH))
        self.assert_answer(("wait",), (1, 2, 2, 0, 0))

    def test_kill_and_wait_without_a_program_fail(self):
        self.assert_answer(("kill",), failure(ESRCH))
        self.assert_answer(("wait",), failure(ECHILD))
        self.assert_answer(("exec", "/bin/true"), (0, 2, 0, 0, 0))
        self.assert_answer(("kill",), failure(ESRCH))
        self.assert_answer(("wait",), failure(ECHILD))

    def test_a_new_exec_forgets_the_background_program_and_leaves_no_zombie(self):
        self.background("/bin/sh", "-c", f"echo $$ >{self.path('first')}; exec sleep 1000")
        wait_until(lambda: os.path.exists(self.path("first")) and self.content("first"), "it runs")
        first = int(self.content("first"))
        self.assert_answer(("exec", "/no/such"), failure(ENOENT))
        self.assert_answer(("kill",), failure(ESRCH))
        self.assertTrue(self.runs(first))
        os.kill(first, signal.SIGKILL)
        wait_until(lambda: not os.path.exists(f"/proc/{first}"), "it is reaped")

    def test_output_of_a_background_program_is_discarded(self):
        self.background("/bin/sh", "-c", "echo lost; readlink /proc/self/fd/1 "
                                         f">{self.path('x')}; readlink /proc/self/fd/2 "
                                         f">{self.path('where')}")
        self.assert_answer(("wait",), (0, 2, 0, 0, 0))
        self.assertEqual(self.content("where"), b"/dev/null\n")

    def test_processrunning_knows_a_process_by_name_argument_and_last_component(self):
        program = self.path("a-quite-long-program-name")
        subprocess.run(["cp", "/bin/sleep", program], check=True)
        process = subprocess.Popen([program, "1000"])
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        with open(f"/proc/{process.pid}/comm", encoding="ascii") as comm:
            wait_until(lambda: comm.seek(0) == 0 and comm.read() == "a-quite-long-pr\n", "it runs")
        for name in ("a-quite-long-pr", program, "a-quite-long-program-name"):
            self.assert_answer(("processrunning", name), SUCCESS)
        for name in ("a-quite", "program-name", "1000", "", "no\0name"):
            wanted = EINVAL if "\0" in name else ESRCH
            self.assert_answer(("processrunning", name), failure(wanted))
        process.kill()
        process.wait()
        self.assert_answer(("processrunning", program), failure(ESRCH))


class DeviceTasks:
    """Identity, LEDs and the update manager's state."""

    def leds(self, *names):
        """Creates LED directories, each with trigger, max_brightness and brightness."""
        world.mount("-t", "tmpfs", "tmpfs", "/sys/class")
        self.addCleanup(world.unmount, "/sys/class")
        for name in names:
            os.makedirs(f"/sys/class/leds/{name}")
            for file, text in (("trigger", "timer"), ("max_brightness", "255\n"),
                               ("brightness", "7")):
                with open(f"/sys/class/leds/{name}/{file}", "w", encoding="ascii") as out:
                    out.write(text)

    def led(self, name, file="brightness"):
        with open(f"/sys/class/leds/{name}/{file}", encoding="ascii") as text:
            return text.read().strip()

    def test_hostid_is_that_of_the_machine(self):
        with open("/etc/machine-id", "w", encoding="ascii") as file:
            file.write("  0123456789abcdef more\n")
        self.assert_answer(("hostid",), SUCCESS, b"0123456789abcdef")
        os.unlink("/etc/machine-id")
        reply = self.peer.ask("hostid")
        self.assertEqual(reply.fields, SUCCESS)
        self.assertRegex(reply.output, rb"\A[0-9a-f]{8}\Z")

    def test_devicetype_depends_on_the_hardware_description(self):
        self.leds()
        controller = (os.path.exists("/proc/device-tree/compatible") or
                      os.path.exists("/sys/firmware/devicetree/base/compatible"))
        if not controller:
            self.assert_answer(("devicetype",), SUCCESS, b"unknown")
            os.makedirs("/sys/class/dmi/id")
            self.assert_answer(("devicetype",), SUCCESS, b"server")
            world.mount("-t", "tmpfs", "tmpfs", "/sys/firmware")
            self.addCleanup(world.unmount, "/sys/firmware")
            os.makedirs("/sys/firmware/devicetree/base")
            with open("/sys/firmware/devicetree/base/compatible", "wb"):
                pass
        self.assert_answer(("devicetype",), SUCCESS, b"controller")

    def test_changeleds_accepts_only_a_one_as_on(self):
        self.leds("first", "second")
        for words, expected in ((("1", "1"), ("255", "255")), (("on", "yes"), ("0", "0")),
                                (("1", "0"), ("255", "0")), (("01", "1"), ("0", "255")),
                                (("", "1 "), ("0", "0"))):
            self.assert_answer(("changeleds", *words), SUCCESS)
            self.assertEqual((self.led("first"), self.led("second")), expected)
        self.assertEqual(self.led("first", "trigger"), "none")

    def test_changeleds_tries_both_and_answers_with_the_first_error(self):
        self.leds("second")
        self.assert_answer(("changeleds", "1", "1"), failure(ENOENT))
        self.assertEqual(self.led("second"), "255")

    def test_blinkleds_sets_the_first_phase_immediately(self):
        self.leds("first", "second")
        for style, expected in (("on", ("255", "255")), ("off", ("0", "0"))):
            self.assert_answer(("blinkleds", style), SUCCESS)
            self.assertEqual((self.led("first"), self.led("second")), expected)

    def test_blinkleds_continues_until_the_next_request(self):
        self.leds("first", "second")
        for style, together in (("slow", True), ("fast", True), ("alternate", False)):
            self.assert_answer(("blinkleds", style), SUCCESS)
            for value in ("0", "255", "0"):
                wait_until(lambda wanted=value: self.led("first") == wanted, f"{style}: {value}")
            wait_until(lambda same=together: (self.led("first") == self.led("second")) == same,
                       style)
        self.assert_answer(("changeleds", "1", "1"), SUCCESS)
        self.assert_answer(("exec", "sleep", "0.7"), (0, 2, 0, 0, 0))
        self.peer.ask("hostid")
        self.assertEqual((self.led("first"), self.led("second")), ("255", "255"))

    def test_an_unknown_style_changes_nothing(self):
        self.leds("first", "second")
        for style in ("", "blue", "ON", "on "):
            self.assert_answer(("blinkleds", style), failure(EINVAL))
        self.assertEqual((self.led("first"), self.led("second")), ("7", "7"))

    def test_updateumstate_stores_a_file_for_each_key(self):
        key = "a.B-9_" + "k" * 249
        for content in (b"first", b"\0binary\xff", b""):
            self.assert_answer(("updateumstate", key, content), SUCCESS)
            with open(f"/var/lib/runeld/umstate/{key}", "rb") as file:
                self.assertEqual(file.read(), content)
        self.assertEqual(stat.S_IMODE(os.stat("/var/lib/runeld/umstate").st_mode), 0o755)
        self.assertEqual(os.listdir("/var/lib/runeld/umstate"), [key])

    def test_updateumstate_refuses_keys_that_are_not_file_names(self):
        for key in ("", ".hidden", "..", "a/b", "a b", "a\0", "\xe4", "k" * 256):
            self.assert_answer(("updateumstate", key, "x"), failure(EINVAL))
        self.assertFalse(os.path.exists("/var/lib/runeld/umstate/.hidden"))


class RequestTasks:
    """Rules for every request."""

    def refused(self, text):
        text = f"({self.running.pid}) {text}".encode()
        reply = self.peer.receive()
        self.assertEqual((reply.fields, reply.output), ((4, 0, 1, EPROTO, 0), text))
        self.log.wait_for(re.escape(text.decode("latin-1").partition(") ")[2]), ERR)

    def test_an_unknown_task_is_answered_and_logged(self):
        for name in ("frobnicate", "Stat", " stat", "stat ", "statx", "sta", ""):
            with self.subTest(name=name):
                self.peer.send(request(name, "/"))
                self.refused(f"unknown cmd: {name}")

    def test_a_long_task_name_is_answered_whole_and_truncated_in_the_log(self):
        name = "n" * 300000
        mark = self.log.mark()
        self.peer.send(request(name, "/"))
        reply = self.peer.receive()
        whole = f"({self.running.pid}) unknown cmd: {name}"
        self.assertEqual((reply.fields, reply.output), ((4, 0, 1, EPROTO, 0), whole.encode()))
        lines = [f"({line.pid}) {line.text}" for line in self.log.lines[mark:] if line.level == ERR]
        self.assertEqual(lines, [whole[:131069] + "..."])

    def test_too_few_arguments_run_nothing(self):
        path = self.file("kept", b"kept")
        for name, count in ARGUMENTS_READ.items():
            for given in range(count):
                with self.subTest(name=name, given=given):
                    reply = self.peer.ask(name, *[path] * given)
                    text = f"({self.running.pid}) too few arguments: {name}"
                    self.assertEqual((reply.fields, reply.output),
                                     ((4, 0, 1, EINVAL, 0), text.encode()))
                    self.log.wait_for(f"too few arguments: {name}", ERR)
        self.assertEqual(self.content("kept"), b"kept")

    def test_an_empty_list_is_too_few_arguments(self):
        reply = self.peer.ask()
        text = f"({self.running.pid}) too few arguments: "
        self.assertEqual((reply.fields, reply.output), ((4, 0, 1, EINVAL, 0), text.encode()))

    def test_more_arguments_than_a_task_reads_are_ignored(self):
        path = self.file("a", b"text")
        extra = ("more", b"\0", "x" * 1000)
        self.assert_answer(("read", path, *extra), SUCCESS, b"text")
        self.assert_answer(("write", path, "new", *extra), SUCCESS)
        self.assert_answer(("kill", *extra), failure(ESRCH))
        self.assertEqual(self.peer.ask("hostid", *extra).fields, SUCCESS)

    def test_pipelined_requests_are_answered_in_order(self):
        paths = [self.file(f"file{number}", b"%d" % number) for number in range(300)]
        self.peer.send(b"".join(request("read", path) for path in paths))
        self.assertEqual([self.peer.receive().output for _ in paths],
                         [b"%d" % number for number in range(300)])

    def test_each_task_sees_the_effect_of_the_previous_one(self):
        path = self.path("a")
        self.peer.send(request("write", path, "one") + request("append", path, "two") +
                       request("read", path) + request("unlink", path) +
                       request("fileexists", path))
        fields = [(reply.fields, reply.output) for reply in (self.peer.receive() for _ in range(5))]
        self.assertEqual(fields, [(SUCCESS, b""), (SUCCESS, b""), (SUCCESS, b"onetwo"),
                                  (SUCCESS, b""), (failure(ENOENT), b"")])

    def test_a_megabyte_passes_in_both_directions(self):
        content = os.urandom(3 << 20)
        self.assert_answer(("write", self.path("big"), content), SUCCESS)
        self.assert_answer(("read", self.path("big")), SUCCESS, content)

    def test_restart_answers_nothing_and_ends_the_daemon_with_0(self):
        self.peer.send(request("fileexists", "/") + request("restart") + request("fileexists", "/"))
        self.assertEqual([self.peer.receive().fields for _ in range(2)], [SUCCESS, SUCCESS])
        self.assertEqual(self.peer.read_to_end(), b"")
        self.assertEqual(self.running.wait(), 0)
        self.log.wait_for("handle_data_read: stopping server by request", DEBUG)
        self.assertEqual(self.log.count("exiting on signal.*"), 0)

    def test_every_task_answers_after_a_thousand_bad_ones(self):
        burst = b"".join(request(name) for name in ("nonsense", "write", "stat") * 300)
        self.peer.send(burst)
        for _ in range(900):
            self.assertEqual(self.peer.receive().fields[:2], (4, 0))
        self.assert_answer(("fileexists", "/"), SUCCESS)


class ClientConnectionTest(FileTasks, ProgramTasks, DeviceTasks, RequestTasks, TaskCase):
    """All tasks over a connection to port 5111."""

    def test_write_and_append_give_up_when_the_reader_reads_nothing(self):
        path = self.path("pipe")
        os.mkfifo(path)
        reader = os.open(path, os.O_RDONLY | os.O_NONBLOCK)
        self.addCleanup(os.close, reader)
        self.assert_answer(("write", path, b"w" * 1_000_000), failure(EAGAIN))
        written = os.read(reader, 1_000_000)
        self.assertEqual(written, b"w" * len(written))
        self.assert_answer(("append", path, b"a" * 1_000_000), failure(EAGAIN))
        self.assertEqual(os.read(reader, 1), b"a")


class SlaveConnectionTest(FileTasks, ProgramTasks, DeviceTasks, RequestTasks, TaskCase):
    """All tasks over the slave connection."""

    def connect(self):
        return self.slave_connection()


class RebootTest(EndToEndCase):
    """reboot(2) ends the PID namespace in which the daemon is process 1."""

    NAMESPACE = ("unshare", "--pid", "--fork", "--kill-child")

    def reboot(self, peer, daemon):
        peer.send(request("reboot") + request("fileexists", "/"))
        self.assertEqual(peer.receive().fields, SUCCESS)
        peer.read_to_end()
        self.assertEqual(daemon.process.wait(60), -signal.SIGHUP)

    def test_a_client_gets_its_answer_before_the_reboot(self):
        daemon = self.daemon(wrapper=self.NAMESPACE)
        self.reboot(self.client(), daemon)

    def test_a_master_gets_its_answer_before_the_reboot(self):
        daemon, master = self.slave_connection(wrapper=self.NAMESPACE)
        self.reboot(master, daemon)

    def test_the_answer_carries_the_status_of_the_last_task(self):
        daemon = self.daemon(wrapper=self.NAMESPACE)
        client = self.client()
        client.ask("unlink", "/no/such")
        self.assertEqual(client.ask("reboot").fields, failure(ENOENT))
        self.assertEqual(daemon.process.wait(60), -signal.SIGHUP)

    def test_a_reboot_that_is_not_permitted_still_ends_the_daemon(self):
        daemon = self.daemon(wrapper=(*self.NAMESPACE, "setpriv", "--bounding-set=-sys_boot",
                                      "--inh-caps=-sys_boot"))
        client = self.client()
        client.send(request("reboot") + request("kill"))
        self.assertEqual(client.receive().fields, SUCCESS)
        self.assertEqual(client.receive().fields, failure(ESRCH))
        self.assertEqual(client.read_to_end(), b"")
        self.assertEqual(daemon.process.wait(60), 0)


class TwoConnectionsTest(EndToEndCase):
    """State per connection and shared state."""

    def test_programs_belong_to_their_connection(self):
        daemon = self.daemon()
        one, other = self.client(), self.client()
        self.assertEqual(one.ask("exec", "sleep", "1000", exec_param=-1).fields, (2, 1, 0, 0, 0))
        self.assertEqual(other.ask("kill").fields, failure(ESRCH))
        self.assertEqual(other.ask("wait").fields, failure(ECHILD))
        self.assertEqual(one.ask("kill").fields, (0, 3, -1, 0, signal.SIGTERM))
        self.assert_stops(daemon)

    def test_a_program_outlives_its_connection_and_is_reaped_later(self):
        daemon = self.daemon()
        client = self.client()
        program = (f"echo $$ >{self.path('pid')}; read x <{self.path('go')}; "
                   f"echo done >{self.path('end')}")
        os.mkfifo(self.path("go"))
        client.ask("exec", "/bin/sh", "-c", program, exec_param=-1)
        wait_until(lambda: os.path.exists(self.path("pid")) and self.content("pid"), "it runs")
        client.close()
        self.log.wait_for("dropping connection: .*")
        with open(self.path("go"), "w", encoding="ascii") as pipe:
            pipe.write("\n")
        wait_until(lambda: os.path.exists(self.path("end")), "it ran to its end")
        pid = int(self.content("pid"))
        wait_until(lambda: not os.path.exists(f"/proc/{pid}"), "it is reaped")
        self.assert_stops(daemon)

    def test_a_program_outlives_the_daemon(self):
        daemon = self.daemon()
        client = self.client()
        client.ask("exec", "/bin/sh", "-c", f"echo $$ >{self.path('pid')}; exec sleep 1000",
                   exec_param=-1)
        wait_until(lambda: os.path.exists(self.path("pid")) and self.content("pid"), "it runs")
        self.assert_stops(daemon)
        self.assertTrue(os.path.exists(f"/proc/{int(self.content('pid'))}/exe"))

    def test_a_program_does_not_inherit_the_port(self):
        first = self.daemon()
        self.client().ask("exec", "sleep", "1000", exec_param=-1)
        self.assert_stops(first)
        mark = self.log.mark()
        second = self.daemon()
        self.assertEqual(self.log.count("cannot bind socket.*", since=mark), 0)
        self.assert_stops(second)

    def test_a_client_without_handler_stays_open_and_unanswered(self):
        daemon = self.daemon()
        stray = self.client()
        stray.send(b"hello\r\n")
        self.log.wait_for(r"handle_data_read: ignoring telnet connection, socket \d+")
        stray.send(b" \r\n\t")
        self.log.wait_for(r"handle_data_read: discarding first packet \(all whitespace\) socket \d+",
                          DEBUG)
        self.assertTrue(stray.is_open())
        self.assertEqual(stray.ask("fileexists", "/").fields, SUCCESS)
        self.assert_stops(daemon)


if __name__ == "__main__":
    unittest.main()
