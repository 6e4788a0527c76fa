# SPDX-License-Identifier: Apache-2.0
"""All tasks and commands on one device."""
import base64
import json
import os
import re
import signal
import stat
import subprocess
import threading
import unittest

from support.ctl import CtlCase, answer_each, reply, requests
from support.wait import TIMEOUT
from support.wire import request


class OneDevice(CtlCase):
    def setUp(self):
        super().setUp()
        self.running = self.daemon()

    def fails(self, words, status, pattern):
        result = self.ctl(*words)
        self.assertEqual(result.status, status, result.err)
        self.assertEqual(len(result.errors), 1, result.errors)
        self.assertRegex(result.errors[0], pattern)
        return result


class Tasks(OneDevice):
    def test_every_task_is_a_subcommand(self):
        shown = self.succeed("--help").text
        for task in ("access", "append", "blinkleds", "changeleds", "chmodx", "devicetype", "exec",
                     "fileexists", "freeblocks", "hostid", "kill", "lstat", "processrunning",
                     "read", "readdir", "realpath", "reboot", "rename", "restart", "stat", "unlink",
                     "updateumstate", "wait", "walktree", "write"):
            self.assertRegex(shown, rf"(?m)^  {task} ")
            self.assertIn("Usage: runelctl " + task, self.succeed(task, "--help").text)

    def test_status_tasks_have_only_an_exit_status(self):
        path = self.file("a", b"x")
        for words in (("fileexists", path), ("access", path, "4"), ("append", path, "y"),
                      ("chmodx", path), ("rename", path, self.path("b")),
                      ("write", path, "new"), ("updateumstate", "key", "state"),
                      ("processrunning", "runeld"), ("unlink", path)):
            self.assertEqual(self.succeed(*words).out, b"", words)
        self.assertEqual(self.content("b"), b"xy")
        self.assertEqual(stat.S_IMODE(os.stat(self.path("b")).st_mode), 0o755)
        with open("/var/lib/runeld/umstate/key", "rb") as file:
            self.assertEqual(file.read(), b"state")

    def test_text_tasks_print_their_text(self):
        path = self.file("a", b"\x00\xff\n")
        self.assertEqual(self.succeed("read", path).out, b"\x00\xff\n")
        self.assertRegex(self.succeed("hostid").text, r"^\w+\n$")
        self.assertRegex(self.succeed("devicetype").text, r"^\w+\n$")
        self.assertRegex(self.succeed("freeblocks", "/").text, r"^\d+\n$")
        self.assertEqual(self.succeed("realpath", self.directory + "/../").out,
                         os.path.dirname(self.directory).encode() + b"\n")
        os.mkdir(self.path("d"))
        self.file("d/one")
        self.assertEqual(self.succeed("readdir", self.path("d")).out, b"StringVec 1\n3:one\n")
        self.assertRegex(self.succeed("walktree", self.path("d")).text, r"^d .* \.\n- .* one\n$")

    def test_a_dash_reads_data_from_standard_input(self):
        data = bytes(range(256)) * 300
        self.succeed("write", self.path("a"), "-", feed=data)
        self.succeed("append", self.path("a"), "-", feed=b"end")
        self.assertEqual(self.content("a"), data + b"end")

    def test_a_dash_is_a_plain_argument_of_the_other_tasks(self):
        for words in (("access", "/x", "-"), ("rename", "/x", "-"), ("updateumstate", "key", "-")):
            self.assertIn("1:-", self.succeed("-n", *words, feed=b"from standard input").text, words)

    def test_a_text_without_a_line_end_gets_one_on_a_terminal(self):
        for content in (b"text", b"text\n"):
            self.assertEqual(self.on_terminal("-q", "read", self.file("a", content)), (0, b"text\r\n"))

    def test_only_wait_has_the_exit_status_of_a_program(self):
        where = self.odd_peer(answer_each(reply(b"", (1, 2, 42, 0, 0))))
        for words, status in ((("wait",), 42), (("kill",), 1), (("fileexists", "/x"), 1)):
            self.assertEqual(self.ctl("-d", where, *words).status, status, words)

    def test_an_empty_argument_is_preserved(self):
        path = self.file("a", b"old")
        self.succeed("write", path, "")
        self.assertEqual(self.content("a"), b"")

    def test_leds_are_switched(self):
        subprocess.run(["mount", "-t", "tmpfs", "leds", "/sys/class"], check=True)
        self.addCleanup(subprocess.run, ["umount", "-l", "/sys/class"], check=True)
        for name in ("first", "second"):
            os.makedirs(f"/sys/class/leds/{name}")
            with open(f"/sys/class/leds/{name}/brightness", "w", encoding="ascii") as file:
                file.write("0\n")
        self.succeed("changeleds", "0", "1")
        with open("/sys/class/leds/second/brightness", encoding="ascii") as file:
            self.assertEqual(file.read().strip(), "1")
        for style in ("off", "on", "slow", "fast", "alternate"):  # those that completion offers
            self.succeed("blinkleds", style)

    def test_missing_leds_are_reported(self):
        self.fails(("blinkleds", "no-such-style"), 1, "blinkleds no-such-style: Invalid argument")
        self.fails(("changeleds", "1", "0"), 1, "changeleds 1: No such file or directory")

    def test_kill_and_wait_find_nothing_on_a_new_connection(self):
        self.fails(("kill",), 1, "kill: No such process")
        self.fails(("wait",), 1, "wait: No child processes")

    def test_a_failed_task_is_one_line_with_the_system_error(self):
        missing = self.path("missing")
        result = self.fails(("unlink", missing), 1, "No such file or directory")
        self.assertEqual(result.errors, [f"runelctl: 127.0.0.1: unlink {missing}: "
                                         "No such file or directory"])
        self.assertEqual(result.out, b"")
        self.assertEqual(self.fails(("freeblocks", missing), 1, "No such file").out, b"")


class Programs(OneDevice):
    def test_exec_returns_output_and_status(self):
        self.assertEqual(self.succeed("exec", "--", "printf", r"a\n\000b").out, b"a\n\x00b")
        result = self.ctl("exec", "--", "sh", "-c", "echo out; echo err >&2; exit 42")
        self.assertEqual((result.status, result.out, result.err), (42, b"out\nerr\n", b""))

    def test_exec_passes_options_to_the_program(self):
        self.assertEqual(self.succeed("exec", "echo", "-n", "--json", "ls").out, b"--json ls")
        self.assertEqual(self.succeed("exec", "--", "echo", "--", "x").out, b"-- x\n")

    def test_exec_has_the_exit_statuses_of_env(self):
        self.fails(("exec", "no-such-program"), 127, "no-such-program: No such file or directory")
        self.fails(("exec", self.file("plain")), 126, "plain: Permission denied")
        self.fails(("exec", "sh", "-c", "kill -9 $$"), 137, "sh: terminated by signal 9")
        self.fails(("exec", "--timeout", "1", "sleep", "60"), 124, "sleep: exceeded its time limit")

    def test_exec_in_the_background_does_not_wait(self):
        self.succeed("exec", "--background", "sleep", "1000")
        self.assertEqual(self.succeed("ps", "sleep").out, b"sleep runs\n")

    def test_sh_runs_a_command_line(self):
        self.assertEqual(self.succeed("sh", "echo $((6*7)); :").out, b"42\n")
        self.assertEqual(self.ctl("sh", "exit 3").status, 3)
        self.assertEqual(self.ctl("sh", "--timeout", "1", "sleep 60").status, 124)

    def test_ps_prints_a_sentence_and_returns_a_status(self):
        self.assertEqual(self.succeed("ps", "runeld").out, b"runeld runs\n")
        result = self.ctl("ps", "no-such-process")
        self.assertEqual((result.status, result.out, result.err),
                         (1, b"no-such-process does not run\n", b""))


class Looking(OneDevice):
    def test_cat_prints_files_one_after_the_other(self):
        paths = [self.file("a", b"1\n"), self.file("b", b"\xff")]
        self.assertEqual(self.succeed("cat", *paths).out, b"1\n\xff")
        result = self.ctl("cat", paths[0], self.path("none"), paths[1])
        self.assertEqual((result.status, result.out), (1, b"1\n\xff"))
        self.assertEqual(len(result.errors), 1)

    def test_ls_is_exact_in_a_pipe(self):
        os.mkdir(self.path("d"))
        names = [b"plain", b"new\nline", b"\x1b[31mred", b"\xff"]
        for name in names:
            with open(os.path.join(self.path("d").encode(), name), "wb"):
                pass
        self.assertEqual(self.succeed("ls", self.path("d")).out,
                         b"".join(name + b"\n" for name in sorted(names)))
        objects = self.succeed("ls", "--json", self.path("d")).objects
        found = [base64.b64decode(one["name_base64"]) if "name_base64" in one
                 else one["name"].encode() for one in objects[:-1]]
        self.assertEqual(found, sorted(names))

    def test_ls_names_each_of_several_directories(self):
        one, two = self.path("one"), self.path("two")
        for directory in (one, two):
            os.mkdir(directory)
        self.file("two/b", b"")
        result = self.succeed("ls", one, two)
        self.assertEqual(result.text, f"{one}:\n{two}:\nb\n")

    def test_each_failed_path_is_reported(self):
        here = self.file("here", b"text")
        result = self.ctl("cat", "/no/1", here, "/no/2")
        self.assertEqual((result.status, result.out), (1, b"text"))
        self.assertEqual(sorted(line.split(": ", 2)[2] for line in result.errors),
                         ["/no/1: No such file or directory", "/no/2: No such file or directory"])

    def test_ls_escapes_names_on_a_terminal(self):
        os.mkdir(self.path("d"))
        with open(os.path.join(self.path("d").encode(), b"a\x1b[31m\n\xff\\"), "wb"):
            pass
        status, shown = self.on_terminal("ls", self.path("d"))
        self.assertEqual((status, shown), (0, b"a\\x1b[31m\\n\\xff\\\\\r\n"))

    def test_ls_long_format(self):
        os.mkdir(self.path("d"))
        path = self.file("d/file", b"12345")
        os.chmod(path, 0o4751)
        os.utime(path, (86400, 86400))
        self.assertRegex(self.succeed("ls", "-l", self.path("d")).text,
                         r"^-rwsr-x--x +1 +0 +0 +5 1970-01-02 00:00 file\n$")
        self.assertRegex(self.succeed("ls", "-l", path).text, r" 5 1970-01-02 00:00 /.*/d/file\n$")
        self.assertEqual(self.succeed("ls", path).text, path + "\n")
        os.mkdir(self.path("d/empty"))
        self.assertEqual(self.succeed("ls", "-l", self.path("d/empty")).out, b"")

    def test_ls_long_format_has_the_targets_of_links(self):
        os.mkdir(self.path("d"))
        os.symlink("no where -> else", self.path("d/link"))
        os.symlink(self.directory, self.path("d/to"))
        self.file("d/plain")
        lines = self.succeed("ls", "-l", self.path("d")).text.splitlines()
        self.assertEqual([line.split(":")[1][3:] for line in lines],
                         ["link -> no where -> else", "plain", f"to -> {self.directory}"])
        link = self.path("d/link")
        self.assertRegex(self.succeed("ls", "-l", link).text, rf" {link} -> no where -> else\n$")
        objects = self.succeed("--json", "ls", "-l", self.path("d")).objects
        self.assertEqual([one.get("target") for one in objects[:-1]],
                         ["no where -> else", None, self.directory])

    def test_tree_prints_a_directory_tree(self):
        os.makedirs(self.path("d/sub"))
        self.file("d/sub/file", b"x" * 2048)
        os.symlink("sub/file", self.path("d/to"))
        self.assertEqual(self.succeed("tree", self.path("d")).text,
                         f"{self.path('d')}/\n  sub/\n    file  2.0 KiB\n  to -> sub/file\n")

    def test_df_uses_freeblocks(self):
        found = self.succeed("df", "--json", "/").objects[0]
        about = os.statvfs("/")
        self.assertEqual(found["block_size"], about.f_frsize)
        self.assertAlmostEqual(found["free_blocks"], about.f_bavail, delta=about.f_bavail * 0.1 + 1000)
        self.assertRegex(self.succeed("df").text, r"^/: \d+ blocks of \d+ bytes free, .*B\n$")

    def test_stat_is_human_readable_or_raw(self):
        path = self.file("a", b"123")
        os.symlink(path, self.path("to"))
        self.assertRegex(self.succeed("stat", self.path("to")).text,
                         r"type: file\n.*\(0644\)\n.*\n +size: 3 bytes")
        self.assertIn("type: symbolic link", self.succeed("lstat", self.path("to")).text)
        self.assertRegex(self.succeed("stat", "--raw", path).text, r"^dev=\d+ .* size=3 ")
        self.assertRegex(self.succeed("lstat", "--raw", self.path("to")).text,
                         rf"^dev=\d+ .* size={len(path)} ")

    def test_stat_as_json(self):
        path = self.file("a", b"123")
        os.chmod(path, 0o4751)
        found = self.succeed("--json", "stat", path).objects[0]
        about = os.stat(path)
        self.assertEqual([found[key] for key in ("type", "mode", "nlink", "size", "ino", "blksize")],
                         ["-", "0104751", 1, 3, about.st_ino, about.st_blksize])

    def test_rm_and_mv(self):
        self.file("a")
        self.succeed("mv", self.path("a"), self.path("b"))
        os.mkdir(self.path("d"))
        self.succeed("mv", self.path("b"), self.path("d"))
        self.assertTrue(os.path.exists(self.path("d/b")))
        self.fails(("rm", self.path("d")), 1, "Is a directory")
        self.succeed("rm", "-r", self.path("d"))
        self.assertFalse(os.path.exists(self.path("d")))
        self.succeed("rm", self.file("x"), self.file("y"))


class TheDevice(OneDevice):
    def test_info(self):
        self.assertRegex(self.succeed("info").text,
                         r"hostid: +\w+\ndevicetype: +\w+\nkernel: +\S+\nhostname: +\S+\n"
                         r"uptime: +\d+ days, \d\d:\d\d\nfree on /: +[\d.]+ \w+\n$")
        found = self.succeed("info", "--json").objects
        self.assertEqual(len(found), 1)
        self.assertEqual(found[0]["kernel"], os.uname().release)

    def test_info_has_the_version_of_the_installation(self):
        for content, version in ((b"1.2.3~rc1\n", "1.2.3~rc1"), (b"1\n2\n", None), (b"", None),
                                 (b"a b\n", None), (b"\x1b[2J\n", None)):
            def serve(connected, content=content):
                for words in requests(connected):
                    known = words == ["read", "/usr/share/runeld/version"]
                    connected.sendall(reply(content) if known else reply(b"x"))

            where = self.odd_peer(serve)
            self.assertEqual(re.findall(r"\nversion: +(.*)\n", self.succeed("-d", where, "info").text),
                             [version] if version else [])
            self.assertEqual(self.succeed("-d", where, "--json", "info").objects[0].get("version"), version)

    def test_the_free_space_is_that_of_all_blocks(self):
        answers = {"stat": b"dev=1 ino=1 mode=0040755 nlink=1 uid=0 gid=0 rdev=0 size=3 blksize=4096 "
                           b"blocks=8 atime=1.000000000 mtime=1.000000000 ctime=1.000000000\n",
                   "freeblocks": b"10"}

        def serve(connected):
            for words in requests(connected):
                connected.sendall(reply(answers.get(words[0], b"x\n")))

        where = self.odd_peer(serve)
        self.assertRegex(self.succeed("-d", where, "info").text, r"\nfree on /: +40\.0 KiB\n$")
        self.assertEqual(self.succeed("-d", where, "--json", "info").objects[0]["free_bytes"], 40960)

    def test_ping_measures_round_trips(self):
        text = self.succeed("ping", "-c", "3", "-i", "0.01").text
        self.assertRegex(text, r"answer 3: [\d.]+ ms\n3 answers, round trip min/median/max "
                               r"[\d.]+/[\d.]+/[\d.]+ ms\n$")
        objects = self.succeed("ping", "-c", "3", "-i", "0", "--json").objects
        last, times = objects[-1], [one["ms"] for one in objects[1:-1]]
        self.assertAlmostEqual(last["median_ms"], sum(times) / 2, msg="the first is left out")
        self.assertLessEqual(last["min_ms"], last["median_ms"])
        self.assertLessEqual(last["median_ms"], last["max_ms"])

    def test_an_interrupted_ping_has_its_statistics(self):
        process = self.start("ping", "-c", "1000000", "-i", "0.01")
        shown = [process.stdout.readline() for _ in range(3)]
        process.send_signal(signal.SIGINT)
        rest, errors = process.communicate(timeout=TIMEOUT)
        self.assertEqual((process.returncode, errors), (130, b"runelctl: 127.0.0.1: interrupted\n"))
        self.assertRegex(b"".join(shown) + rest,
                         rb"\n[0-9]+ answers, round trip min/median/max [\d./]+ ms\n$")

    def test_raw_dumps_both_frames(self):
        record = "SlaveTask 2 10:fileexists 1:/ 0 0: 0 0 0 0 0"
        text = self.succeed("raw", record).text
        self.assertIn("request, %d bytes\n00000000  01 34 34 02 53" % len(
            request("fileexists", "/")), text)
        self.assertIn("|.26.SlaveTask 0 |", text)
        result = self.ctl("raw", r"SlaveTask 2 10:fileexists 1:\x00 0 0: 0 0 0 0 0")
        self.assertEqual(result.status, 1)
        self.fails(("raw", r"\q"), 2, "RECORD: invalid escape sequence")

    def test_restart_ends_the_daemon(self):
        self.succeed("restart")
        self.assertEqual(self.running.wait(), 0)


class ForScripts(OneDevice):
    def test_json_is_one_object_a_line_with_version_and_outcome(self):
        result = self.succeed("--json", "hostid")
        self.assertEqual(len(result.objects), 1)
        found = result.objects[0]
        self.assertEqual((found["v"], found["device"], found["task"], found["ok"], found["status"]),
                         (1, "127.0.0.1", "hostid", True, 0))
        self.assertTrue(found["output"])

    def test_json_has_the_place_of_a_failure_and_whether_it_is_transient(self):
        def found(*words):
            result = self.ctl("--json", *words)
            self.assertEqual(result.err, b"")
            return result.objects[-1]

        self.assertEqual({"where": "device", "retry": False, "errno": 2, "status": 1, "ok": False},
                         {key: found("unlink", "/none")[key]
                          for key in ("where", "retry", "errno", "status", "ok")})
        one = found("exec", "sh", "-c", "echo x; exit 9")
        self.assertEqual((one["where"], one["status"], one["output"]), ("program", 9, "x\n"))
        one = found("-d", "127.0.0.1:1", "hostid")
        self.assertEqual((one["where"], one["retry"], one["status"]), ("link", True, 255))

    def test_json_carries_any_byte(self):
        path = self.file("a", b"\xff\x00")
        last = json.loads(self.succeed("--json", "read", path).out)
        self.assertEqual(base64.b64decode(last["output_base64"]), b"\xff\x00")

    def test_surplus_arguments_and_misspelled_words_are_named(self):
        self.fails(("hostid", "one", "two", "three"), 2, "unexpected arguments: one two three ")
        self.fails(("exce", "ls"), 2, r"unknown command 'exce' \(did you mean 'exec'\?")
        self.fails(("hostid", "--jsno"), 2, r"unknown option '--jsno' \(did you mean '--json'\?")
        self.fails(("job", "strat"), 2, r"unknown command 'job strat' \(did you mean 'start'\?")
        self.fails(("job", "list", "strat"), 2, "unexpected argument: strat ")
        self.fails(("job",), 2, "subcommand is required")

    def test_a_size_out_of_range_is_told_with_units(self):
        for size in ("1", "x", "2048G"):
            self.fails(("--memory", size, "hostid"), 2, f"--memory: '{size}': expected a size from 16M to ")
        self.fails(("sh", "--stream", "--job-limit", "1K", "x"), 2, "expected a size from 4K to 1024G")

    def test_usage_errors_have_status_2(self):
        self.fails((), 2, "subcommand is required")
        self.fails(("no-such-command",), 2, "unknown command 'no-such-command'")
        self.fails(("ls", "--no-such-option"), 2, "--no-such-option")
        self.fails(("access", "/"), 2, r"MODE is required \(see runelctl access --help\)")
        self.fails(("--color", "blue", "hostid"), 2, "--color")
        self.fails(("-d", "a:b", "hostid"), 2, "invalid port 'b'")
        self.fails(("-d", "", "hostid"), 2, "-d: empty device list")
        self.fails(("--timeout", "0", "hostid"), 2, "--timeout")
        self.fails(("exec", "--timeout", "5", "--background", "true"), 2, "excludes")
        self.fails(("--wave", "1,x", "hostid"), 2, "--wave")

    def test_the_version_matches_the_project(self):
        self.assertRegex(self.succeed("--version").text, r"^runelctl \d+\.\d+\.\d+\n$")

    def test_colors_are_used_on_a_terminal_or_on_request(self):
        red = b"\x1b[31m"
        words = ("unlink", "/none")
        self.assertNotIn(red, self.ctl(*words).err)
        self.assertIn(red, self.ctl("--color", "always", *words).err)
        self.assertIn(red, self.on_terminal(*words)[1])
        self.assertNotIn(red, self.on_terminal(*words, env={"NO_COLOR": "1"})[1])
        self.assertNotIn(red, self.on_terminal("--color", "never", *words)[1])

    def test_dry_run_sends_nothing(self):
        shown = self.succeed("--dry-run", "write", self.path("a"), "data").text
        self.assertEqual(shown, "127.0.0.1 <- SlaveTask 3 5:write %d:%s 4:data 0 0: 0 0 0 0 0\n" %
                         (len(self.path("a")), self.path("a")))
        self.assertFalse(os.path.exists(self.path("a")))
        self.assertEqual(self.succeed("--json", "-n", "hostid").objects[0]["payload"],
                         "SlaveTask 1 6:hostid 0 0: 0 0 0 0 0")

    def test_the_default_device_comes_from_the_environment(self):
        result = self.succeed("--json", "hostid", env={"RUNELCTL_DEVICE": "127.0.0.9"})
        self.assertEqual(result.objects[0]["device"], "127.0.0.9")

    def test_a_closed_pipe_ends_it_by_sigpipe(self):
        path = self.file("big", b"x" * 4000000)
        process = self.start("cat", path)
        process.stdout.close()
        self.assertEqual(process.wait(60), -signal.SIGPIPE)

    def test_signals_end_it_immediately(self):
        asked = threading.Semaphore(0)

        def never_answer(connected):
            while connected.recv(65536):
                asked.release()

        where = self.odd_peer(never_answer)
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            process = self.start("-d", where, "read", "/x")
            self.assertTrue(asked.acquire(timeout=TIMEOUT))
            process.send_signal(number)
            self.assertEqual(process.wait(TIMEOUT), 128 + number)
            self.assertEqual(process.stderr.read().decode(),
                             f"runelctl: {where}: interrupted\n")


if __name__ == "__main__":
    unittest.main()
