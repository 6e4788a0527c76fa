# SPDX-License-Identifier: Apache-2.0
"""Malformed, late and missing answers, peers that are not runeld, and devices that restart."""
import os
import re
import select
import socket
import threading
import time
import unittest

from support.ctl import CtlCase, answer_each, hang, reply, say
from support.daemon import is_instrumented
from support.sizes import sized
from support.wait import TIMEOUT

STAT = (b"dev=1 ino=1 mode=%s nlink=1 uid=0 gid=0 rdev=0 size=3 blksize=4096 blocks=8 "
        b"atime=1.000000000 mtime=1.000000000 ctime=1.000000000\n")


class Faults(CtlCase):
    def fails(self, serve, pattern, *words, status=255):
        """A run against this peer ends with one line of error."""
        where = self.odd_peer(serve)
        result = self.ctl("-d", where, *(words or ("hostid",)))
        self.assertEqual((result.status, len(result.errors)), (status, 1), result)
        self.assertRegex(result.errors[0], f"^runelctl: {re.escape(where)}: ({pattern})$")
        return result


class BadDevices(Faults):
    def test_a_device_that_closes_before_or_inside_an_answer(self):
        whole = reply(b"x" * 100)
        for part in (b"", whole[:1], whole[:3], whole[:40], whole[:-1]):
            self.fails(say(part), "the device closed the connection")

    def test_a_device_that_closes_between_answers(self):
        names = b"StringVec 2\n1:a\n1:b\n"
        self.fails(say(reply(names), reply(STAT % b"0100644")[:30]),
                   "the device closed the connection|Connection reset by peer", "ls", "-l", "/")

    def test_a_device_that_closes_while_a_pattern_is_expanded(self):
        for words in (("cat", "/x*"), ("pull", "/x*", self.directory)):
            self.fails(say(b""), "the device closed the connection", *words)

    def test_a_malformed_record(self):
        for payload in (b"", b"hello", b"SlaveTask", b"SlaveTask 0 0 0: 0 0 0 0",
                        b"SlaveTask 0 0 5:abc 0 0 0 0 0"):
            self.fails(answer_each(b"\x01%d\x02%s" % (len(payload), payload)),
                       "malformed answer: not a task record")

    def test_a_malformed_frame(self):
        for stream in (b"\x01x", b"\x01\x02", b"\x01999999999\x02", b"\x0101\x02"):
            self.fails(answer_each(stream), "bad frame: .*count.*")
        self.fails(answer_each(reply() + b"\xff"), "bad frame: byte 0xff where a frame must begin",
                   "ping", "-c", "2", "-i", "0.2")

    def test_an_answer_that_exceeds_the_size_limit(self):
        def flood(connected):
            connected.recv(65536)
            connected.sendall(b"\x01200000000\x02SlaveTask 0 0 199999000:")
            while True:
                connected.sendall(b"x" * 65536)

        self.fails(flood, "answer exceeds the size limit")
        self.fails(answer_each(reply(b"x" * 70000)), "answer exceeds the size limit")

    def test_an_answer_without_a_request(self):
        for pause in ("0", "0.2"):
            self.fails(answer_each(reply() + reply()), "answer without a request",
                       "ping", "-c", "2", "-i", pause)
        self.fails(answer_each(reply(STAT % b"0040755") * 2), "answer without a request",
                   "mv", "/a", "/b")

    def test_an_answer_in_another_format(self):
        text = r"malformed answer \(check that the versions of runeld and runelctl match\)"
        for words in (("stat", "/"), ("ls", "/"), ("tree", "/")):
            self.fails(answer_each(reply(b"something else")), text, *words)

    def test_a_device_that_never_answers(self):
        self.fails(hang, r"no answer for 0\.4 s \(the device may be busy.*",
                   "--io-timeout", "0.4", "hostid")

    def test_a_slow_answer_does_not_time_out(self):
        whole = reply(b"x" * 40)

        def trickle(connected):
            connected.recv(65536)
            for place in range(len(whole)):
                connected.sendall(whole[place:place + 1])
                time.sleep(0.02)  # each far below the timeout, in total far above it

        result = self.succeed("-d", self.odd_peer(trickle), "--io-timeout", "0.6", "read", "/x")
        self.assertEqual(result.out, b"x" * 40)

    def test_a_connect_timeout(self):
        # The connection is not accepted: the backlog of this listener is full.
        with socket.socket() as listener:
            listener.bind(("127.0.0.1", 0))
            listener.listen(0)
            where = "127.0.0.1:%d" % listener.getsockname()[1]
            fill = [self.start("-d", where, "hostid") for _ in range(3)]
            result = self.ctl("-d", where, "--connect-timeout", "0.5", "hostid", "--io-timeout", "0.5")
            self.assertEqual(result.status, 255)
            self.assertRegex(result.errors[0], "connect timeout|no answer for")
            self.assertEqual(len(fill), 3)

    def test_raw_dumps_any_answer_safely(self):
        where = self.odd_peer(answer_each(reply(b"\x1b[31m\xff")))
        status, shown = self.on_terminal("-d", where, "raw", "SlaveTask 1 6:hostid 0 0: 0 0 0 0 0")
        self.assertEqual(status, 0)
        self.assertNotIn(b"\x1b[31m", shown)
        self.assertIn(b"1b 5b 33 31  6d ff", shown)


class CutAnywhere(Faults):
    """The connection is lost after a number of bytes of the answers."""

    PLACES = (0, 1, 3, 30, 45, 100, 300, 1000, 3000)
    if is_instrumented():
        PLACES = sized(PLACES[::2], PLACES)

    def cut_behind(self, count):
        def serve(connected):
            left = count
            with socket.create_connection(("127.0.0.1", 5111)) as daemon:
                while True:
                    for source in select.select([connected, daemon], [], [])[0]:
                        data = source.recv(65536)
                        if source is connected and data:
                            daemon.sendall(data)
                            continue
                        connected.sendall(data[:left])
                        left -= len(data)
                        if not data or left <= 0:
                            return connected.close()

        return self.odd_peer(serve)

    def commands(self):
        """Each command, with its files in their initial state."""
        for name in ("there", "here"):
            os.makedirs(self.path(name + "/sub"), exist_ok=True)
            for number in range(12):
                self.file(f"{name}/f{number}", name.encode())
            self.file(f"{name}/sub/f", name.encode())
        there, here = self.path("there"), self.path("here")
        yield from ((task, there + "/f1") for task in (
            "read", "cat", "ls", "stat", "lstat", "fileexists", "chmodx", "freeblocks"))
        yield from ((*words, there) for words in (("ls",), ("ls", "-l"), ("tree",), ("df",),
                                                  ("readdir",), ("walktree",)))
        yield from (("info",), ("ping", "-c", "3", "-i", "0"), ("exec", "echo", "x" * 200),
                    ("sh", "echo " + "x" * 200), ("ps", "runeld"), ("hostid",),
                    ("raw", "SlaveTask 1 10:devicetype 0 0: 0 0 0 0 0"))
        yield from (("push", here + "/f1", there + "/f1"), ("push", "-r", here, there),
                    ("sync", "--delete", here, there), ("pull", there + "/f1", here + "/f1"),
                    ("pull", "-r", there + "/.", here), ("write", there + "/f1", "here"),
                    ("mv", there + "/f2", there + "/f3"), ("rm", "-r", there + "/sub"))

    def names(self):
        """The paths of all files, each of which must have its complete old or new content."""
        found = set()
        for top in ("there", "here"):
            for directory, _, files in os.walk(self.path(top)):
                found |= {os.path.join(directory, name) for name in files}
        for path in found:
            if ".runelctl-" not in path:
                with open(path, "rb") as file:
                    self.assertIn(file.read(), (b"there", b"here"), path)
        return found

    def test_every_command_ends_with_one_line_and_complete_files(self):
        self.daemon()
        met, whole = {0: 0, 255: 0}, set()
        for place in self.PLACES:
            for number, words in enumerate(self.commands()):
                if number in whole:  # its answers are shorter than this place
                    continue
                result = self.ctl("-d", self.cut_behind(place), *words)
                told = (words, place, result)
                self.assertIn(result.status, met, told)
                self.assertEqual(len(result.errors), 1 if result.status else 0, told)
                met[result.status] += 1
                if result.status == 0:
                    whole.add(number)
                if place == 0:
                    self.assertEqual(result.status, 255, told)
                left = [path for path in self.names() if path.startswith(self.path("here/"))
                        and ".runelctl-" in path]
                self.assertEqual(left, [], told)
        self.assertGreater(met[0], 20)
        self.assertGreater(met[255], 10 * len(self.PLACES))


class NoDevices(Faults):
    def test_other_servers_are_recognized_by_their_first_bytes(self):
        hint = r" \(check the port: devices listen on 5111\)"
        for greeting, guess in ((b"SSH-2.0-x\r\n", "an SSH server"),
                                (b"HTTP/1.1 400 Bad Request\r\n\r\n", "a web server"),
                                (b"@RSYNCD: 31.0\n", "an rsync daemon"),
                                (b"220 mail ready\r\n", "a mail or FTP server"),
                                (b"\xff\xfd\x18", "a telnet server")):
            def serve(connected, greeting=greeting):
                connected.sendall(greeting)
                while connected.recv(65536):
                    pass

            self.fails(serve, "the peer is not runeld: it looks like " + guess + hint)
        self.fails(answer_each(b"\x15\x03\x01\x00\x02\x02\x46"),
                   "the peer is not runeld: it uses TLS" + hint)
        self.fails(answer_each(b"what?\n"),
                   "the peer is not runeld: it uses an unknown protocol" + hint)


class Escapes(Faults):
    BAD = b"\x1b]0;evil\x07\n\xff\xe2\x80\xae"
    SHOWN = "\\x1b]0;evil\\x07\\n\\xff\\xe2\\x80\\xae"

    def test_the_text_of_a_refused_task_is_escaped(self):
        self.fails(answer_each(reply(self.BAD, (4, 0, 1, 71, 0))),
                   "hostid: the device refused the task: " + re.escape(self.SHOWN), status=1)

    def test_names_are_escaped_on_a_terminal(self):
        names = b"StringVec 1\n%d:%s\n" % (len(self.BAD), self.BAD)
        walked = b"d 0755 0 0 0 1 .\n- 0644 0 0 3 1 \\x1b]0;evil\\x07\\x0a\xff\xe2\x80\xae\n"
        for words, answers in ((("ls", "/"), [reply(names)]),
                               (("ls", "-l", "/"), [reply(names), reply(STAT % b"0100644")]),
                               (("tree", "/"), [reply(walked)])):
            where = self.odd_peer(answer_each(*answers))
            status, shown = self.on_terminal("-d", where, *words)
            self.assertEqual(status, 0)
            self.assertIn(self.SHOWN.encode(), shown)
            self.assertNotIn(b"\x1b]", shown)

    def test_the_name_of_a_missing_file_is_escaped(self):
        self.daemon()
        result = self.ctl("cat", b"/none\x1b[31m\n")
        self.assertEqual(result.errors, ["runelctl: 127.0.0.1: /none\\x1b[31m\\n: "
                                         "No such file or directory"])


class Output(CtlCase):
    def test_a_write_error_on_standard_output_is_reported(self):
        self.daemon()
        with open("/dev/full", "wb") as full:
            process = self.start("hostid", stdout=full)
            self.assertEqual(process.wait(TIMEOUT), 1)
        self.assertIn(b"runelctl: standard output: No space left on device", process.stderr.read())


class GoingAndComing(CtlCase):
    def boots(self, identities, answers_reboot=True):
        """A device whose identity file has the next of @p identities at each read after a reboot.

        For None it closes the connection once."""
        state = {"reboots": 0, "asked": 0}
        left = list(identities)

        def serve(connected):
            while data := connected.recv(65536):
                if b"6:reboot" in data or b"7:restart" in data:
                    state["reboots"] += 1
                    if answers_reboot and b"6:reboot" in data:
                        connected.sendall(reply())
                    return connected.close()
                if state["reboots"] and len(left) > 1:
                    left.pop(0)
                if left[0] is None:
                    return connected.close()
                connected.sendall(reply(left[0]))

        return self.odd_peer(serve), state

    def test_a_reboot_is_verified_by_a_new_boot_id(self):
        where, state = self.boots([b"one\n", None, None, b"two\n"])
        result = self.succeed("-d", where, "reboot", "--wait")
        self.assertRegex(result.text, r"^reboot done: down after [\d.]+ s, back after [\d.]+ s "
                                      r"\(new boot_id\)\n$")
        self.assertEqual(state["reboots"], 1)
        where, _ = self.boots([b"one\n", None, b"two\n"], answers_reboot=False)
        last = self.succeed("-d", where, "--json", "reboot", "--wait").objects[-1]
        self.assertGreaterEqual(last["back_s"], last["down_s"])

    def test_without_wait_the_answer_is_sufficient(self):
        where, state = self.boots([b"one\n"])
        self.assertEqual(self.succeed("-d", where, "reboot").out, b"")
        self.assertEqual(state["reboots"], 1)

    def test_a_device_that_does_not_go_down_in_time(self):
        for command in ("reboot", "restart"):
            where, _ = self.boots([b"one\n"])
            result = self.ctl("-d", where, command, "--wait", "--down-timeout", "0.5")
            self.assertEqual(result.status, 255)
            self.assertIn(f"{command}: did not go down within 0.5 s", result.errors[0])

    def test_a_device_that_does_not_come_back_in_time(self):
        where, _ = self.boots([b"one\n", None])
        result = self.ctl("-d", where, "reboot", "--wait", "--up-timeout", "0.5")
        self.assertEqual(result.status, 255)
        self.assertIn("reboot: did not come back within 0.5 s", result.errors[0])

    def test_a_device_that_comes_back_without_a_reboot(self):
        where, _ = self.boots([b"one\n", None, b"one\n"])
        result = self.ctl("-d", where, "reboot", "--wait", "--up-timeout", "0.5")
        self.assertIn("the device answers, but there is no new boot_id within 0.5 s",
                      result.errors[0])

    def test_a_restart_is_verified_by_a_new_process(self):
        first = self.daemon()
        again = []

        def supervise():
            first.wait()
            again.append(self.daemon())

        thread = threading.Thread(target=supervise)
        thread.start()
        result = self.ctl("restart", "--wait")
        thread.join(TIMEOUT)
        self.assertEqual((result.status, result.err), (0, b""))
        self.assertRegex(result.text, r"^restart done: .*\(new process\)\n$")
        self.assertNotEqual(first.pid, again[0].pid)

    def test_a_daemon_that_is_not_started_again(self):
        self.daemon()
        result = self.ctl("restart", "--wait", "--up-timeout", "0.5")
        self.assertEqual(result.status, 255)
        self.assertIn("restart: did not come back within 0.5 s", result.errors[0])


if __name__ == "__main__":
    unittest.main()
