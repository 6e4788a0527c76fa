# SPDX-License-Identifier: Apache-2.0
"""Devices and local users that try to lead a transfer out of the directory that the user named."""
import contextlib
import errno
import hashlib
import os
import random
import shutil
import stat
import unittest

from support import calls
from support.ctl import CtlCase, reply, snapshot
from support.fakes import FRAME
from support.wire import parse_record

MIB = 1 << 20
WHEN = 1_600_000_000_123_456_789
BIG = random.Random(1).randbytes(9 * MIB)
BLOCK = 65536


def directory(name):
    return b"d 0755 0 0 0 0 %s\n" % name


def link(name, target):
    return b"l 0777 0 0 0 0 %s -> %s\n" % (name, os.fsencode(target))


def regular(name, size=3):
    return b"- 0644 0 0 %d 7 %s\n" % (size, name)


def stat_line(mode, size=0, mtime=7):
    return (b"dev=1 ino=1 mode=%07o nlink=1 uid=0 gid=0 rdev=0 size=%d blksize=4096 blocks=0 "
            b"atime=0.000000000 mtime=%d.000000000 ctime=0.000000000\n" % (mode, size, mtime))


class Device:
    """Answers for a made-up tree /x: the @p lines of its walk, and the @p contents of its files by
    relative name. `before` has a call for a task, made once before the task's answer. `stats` has
    the sizes and times that one "stat" of a file after the other tells; the last one is repeated."""

    def __init__(self, case, *lines, contents=None, before=None, stats=None):
        self.lines = b"".join(lines)
        self.contents = contents or {}
        self.before = before or {}
        self.stats = stats or {}
        self.received = b""
        self.where = case.odd_peer(self._serve)

    def _serve(self, connected):
        rest = b""
        while data := connected.recv(65536):
            self.received += data
            rest += data
            while (head := FRAME.match(rest)) and len(rest) >= head.end() + int(head[1]):
                end = head.end() + int(head[1])
                words = parse_record(rest[head.end():end]).arguments
                rest = rest[end:]
                self.before.pop(words[0], lambda: None)()
                connected.sendall(self._answer(*words))

    def _answer(self, task, *words):
        if task == b"exec":
            return self._run(*words)
        name = self._name(words[0])
        if task == b"walktree":
            return reply(self.lines)
        if task == b"read" and name not in self.contents:
            return reply(fields=(1, 0, 1, errno.ENOENT, 0))
        if task == b"read":
            return reply(self.contents[name])
        if task == b"stat":
            return reply(self._stat(name))
        if task == b"lstat":
            return reply(fields=(1, 0, 1, errno.ENOENT, 0))
        return reply()

    def _stat(self, name):
        told = self.stats.get(name)
        if told:
            return stat_line(0o100644, *(told.pop(0) if len(told) > 1 else told[0]))
        content = self.contents.get(name)
        return stat_line(0o40755) if content is None else stat_line(0o100644, len(content))

    def _run(self, program, *words):
        if program == b"sha256sum":
            sums = (self._sum(self.contents[self._name(word)]) for word in words[1:])
            return reply(b"".join(sums))
        if program == b"/bin/sh" and words[1].startswith(b"exec dd"):
            size, skip, count = map(int, words[3:])
            return reply(self.contents[self._name(words[2])][skip * size:(skip + count) * size])
        if program == b"/bin/sh":
            return reply(self._sum(self.contents[self._name(words[2])][:int(words[3]) * BLOCK]))
        return reply()

    @staticmethod
    def _name(path):
        return path.replace(b"/./", b"/").removeprefix(b"/x/")

    @staticmethod
    def _sum(content):
        return hashlib.sha256(content).hexdigest().encode() + b"  name\n"


class Transfers(CtlCase):
    """A directory `here` for the transfers, and a directory `outside` that no transfer may touch."""

    refused = None  # the error of openat2, if the system does not have it

    def setUp(self):
        super().setUp()
        self.here = self.path("here")
        self.outside = self.path("outside")
        os.makedirs(self.path("outside/sub"))
        os.mkdir(self.here)
        self.file("outside/keys", b"keys")
        self.file("outside/sub/f", b"f")
        for name in ("outside/keys", "outside/sub/f", "outside/sub", "outside"):
            os.chmod(self.path(name), 0o710)
            os.utime(self.path(name), ns=(WHEN, WHEN))
        self.before = self.outsiders()

    def start(self, *words, **options):
        if self.refused:
            options["preexec_fn"] = lambda: calls.refuse(calls.OPENAT2, self.refused)
        return super().start(*words, **options)

    def outsiders(self):
        st = os.stat(self.outside)
        return stat.S_IMODE(st.st_mode), st.st_mtime_ns, snapshot(self.outside)

    def pull(self, device, *options, target=None):
        result = self.ctl("-d", device.where, "pull", "-r", *options, "/x/.", target or self.here)
        self.assertEqual(self.outsiders(), self.before, result.err)
        return result

    def refuses(self, device, *patterns, **options):
        """A pull that fails with one line for each of @p patterns."""
        result = self.pull(device, **options)
        self.assertEqual((result.status, len(result.errors)), (1, len(patterns)), result.err)
        for line, pattern in zip(result.errors, patterns):
            self.assertRegex(line, pattern)

    def swap(self, name):
        """Replaces a directory or file in `here` by a link to the one of this name in `outside`."""
        os.rename(os.path.join(self.here, name), os.path.join(self.here, name + ".old"))
        os.symlink(os.path.join(self.outside, name), os.path.join(self.here, name))


class Pull(Transfers):
    def test_a_link_of_an_earlier_pull_is_not_followed(self):
        device = Device(self, directory(b"."), link(b"ssh", self.outside))
        self.assertEqual(self.pull(device).status, 0)
        self.assertEqual(os.readlink(self.path("here/ssh")), self.outside)
        for name in (b"ssh/keys", b"ssh/new", b"ssh/sub/f"):
            device = Device(self, directory(b"."), regular(name), contents={name: b"bad"})
            self.refuses(device, "a symbolic link is in the path")

    def test_a_directory_does_not_replace_a_link_of_an_earlier_pull(self):
        os.symlink(self.outside, self.path("here/ssh"))
        device = Device(self, directory(b"."), directory(b"ssh"), regular(b"ssh/keys"),
                        directory(b"ssh/sub"), regular(b"ssh/sub/f"),
                        contents={b"ssh/keys": b"bad", b"ssh/sub/f": b"bad"})
        self.refuses(device, "ssh: File exists")  # which stands for all that is below it
        self.assertTrue(os.path.islink(self.path("here/ssh")))

    def test_a_large_file_is_not_written_through_a_link(self):
        os.symlink(self.outside, self.path("here/ssh"))
        device = Device(self, directory(b"."), regular(b"ssh/keys", len(BIG)),
                        contents={b"ssh/keys": BIG})
        self.refuses(device, "a symbolic link is in the path")

    def test_a_link_is_not_created_through_a_link(self):
        os.symlink(self.outside, self.path("here/ssh"))
        self.refuses(Device(self, directory(b"."), link(b"ssh/keys", "/etc"), link(b"ssh/new", "x")),
                     *2 * ["a symbolic link is in the path"])

    def test_links_within_the_tree_are_not_followed_either(self):
        os.makedirs(self.path("here/real"))
        os.symlink("real", self.path("here/to"))
        device = Device(self, directory(b"."), regular(b"to/a"), contents={b"to/a": b"bad"})
        self.refuses(device, "to/a: a symbolic link is in the path "
                             r"\(links below the local directory are not followed\)")
        self.assertEqual(os.listdir(self.path("here/real")), [])

    def test_a_file_replaces_a_link_and_not_its_target(self):
        for content in (b"new", BIG):
            with contextlib.suppress(FileNotFoundError):
                os.unlink(self.path("here/keys"))
            os.symlink(self.path("outside/keys"), self.path("here/keys"))
            device = Device(self, directory(b"."), regular(b"keys", len(content)),
                            contents={b"keys": content})
            self.assertEqual(self.pull(device, "--checksum").status, 0)
            self.assertFalse(os.path.islink(self.path("here/keys")))
            self.assertTrue(self.content("here/keys") == content)

    def test_names_that_lead_out_are_left_out_with_status_1(self):
        names = [b"..", b"../outside/keys", os.fsencode(self.outside) + b"/keys", b"a/../b", b"a//b",
                 b"a/", b"/", b"./a", b"a/./b", b"nul\\x00byte", b"\\x2e\\x2e/outside/keys"]
        for make in (regular, directory, lambda name: link(name, self.outside)):
            device = Device(self, directory(b"."), *map(make, names), regular(b"good"),
                            contents={b"good": b"1.."})
            self.refuses(device, *len(names) * ["skipped, its path leads out of the directory"])
            self.assertEqual(os.listdir(self.here), ["good"])

    def test_a_component_that_is_too_long_fails_alone(self):
        long, below = b"n" * 256, b"m" * 256 + b"/a"
        device = Device(self, directory(b"."), regular(long), regular(below), directory(long),
                        link(long, "x"), regular(b"good"),
                        contents={long: b"bad", below: b"bad", b"good": b"1.."})
        self.refuses(device, *4 * ["File name too long"])
        self.assertEqual(os.listdir(self.here), ["good"])

    def test_the_target_does_not_become_a_link(self):
        for lie in (link(b".", self.outside), regular(b".")):
            self.refuses(Device(self, lie), "skipped, the top of a directory tree is not a directory",
                         target=self.path("new"))
            self.assertFalse(os.path.islink(self.path("new")))
            os.rmdir(self.path("new"))

    def test_a_directory_that_becomes_a_link_while_a_file_is_fetched(self):
        for content, task in ((b"bad", b"read"), (BIG, b"exec")):
            device = Device(self, directory(b"."), directory(b"sub"), regular(b"sub/f", len(content)),
                            contents={b"sub/f": content}, before={task: lambda: self.swap("sub")})
            self.assertEqual(self.pull(device).status, 1)
            os.unlink(self.path("here/sub"))
            shutil.rmtree(self.path("here/sub.old"))

    def test_a_directory_that_becomes_a_link_gets_no_mode_and_time(self):
        device = Device(self, directory(b"."), directory(b"sub"), regular(b"z"),
                        contents={b"z": b"1.."}, before={b"read": lambda: self.swap("sub")})
        self.refuses(device, "sub: a symbolic link is in the path")

    def test_a_file_that_becomes_a_link_is_not_compared(self):
        def swap():
            os.unlink(self.path("here/keys"))
            os.symlink(self.path("outside/keys"), self.path("here/keys"))

        device = Device(self, directory(b"."), regular(b"keys", 4), contents={b"keys": b"keys"},
                        before={b"exec": swap})
        result = self.pull(device, "--checksum")
        self.assertEqual(result.status, 1)
        self.assertRegex(result.errors[0], "keys: checksum mismatch")

    def test_a_directory_of_a_device_is_not_a_link_of_another_device(self):
        lines = directory(b"."), regular(b"f")
        devices = [Device(self, *lines, contents={b"f": b"bad"}).where for _ in range(2)]
        words = ("-q", "-d", ",".join(devices), "pull", "/x/f", self.here)
        self.succeed(*words)
        names = sorted(os.listdir(self.here))
        for name in names:
            shutil.rmtree(self.path("here/" + name))
        liar = Device(self, directory(b"."), link(os.fsencode(names[1]), self.outside))
        self.assertEqual(self.pull(liar).status, 0)
        result = self.ctl(*words)
        self.assertEqual((result.status, self.outsiders()), (1, self.before), result.err)
        self.assertEqual(self.content(f"here/{names[0]}/f"), b"bad")

    def test_the_target_itself_may_be_a_link(self):
        os.symlink("here", self.path("named"))
        device = Device(self, directory(b"."), directory(b"d"), regular(b"d/f"),
                        contents={b"d/f": b"1.."})
        for target in ("named", "named/", "named/.", "named/d/..", "named/new"):
            result = self.pull(device, target=self.path(target))
            self.assertEqual((result.status, result.err), (0, b""))
        self.assertEqual(self.content("here/d/f"), b"1..")
        self.assertEqual(self.content("here/new/d/f"), b"1..")


class Parts(Transfers):
    """What lies at the name of a part before a pull."""

    def setUp(self):
        super().setUp()
        name = ".runelctl-" + hashlib.sha256(b"keys").hexdigest()[:16] + ".part"
        self.part = self.path("here/" + name)

    def replaces_the_part(self, content, *options):
        device = Device(self, directory(b"."), regular(b"keys", len(content)),
                        contents={b"keys": content})
        result = self.pull(device, *options)
        self.assertEqual((result.status, result.err), (0, b""))
        self.assertTrue(self.content("here/keys") == content)
        self.assertEqual(os.listdir(self.here), ["keys"])

    def test_a_link_is_replaced(self):
        for content in (b"new", BIG):
            os.symlink(self.path("outside/keys"), self.part)
            self.replaces_the_part(content)

    def test_a_second_name_of_a_file_is_replaced(self):
        for content in (b"new", BIG):
            for options in ((), ("--no-resume",)):
                os.link(self.path("outside/keys"), self.part)
                self.replaces_the_part(content, *options)

    def test_a_pipe_is_replaced(self):
        for content in (b"new", BIG):
            os.mkfifo(self.part)
            self.replaces_the_part(content)

    def test_a_file_of_another_user_is_replaced(self):
        for content in (b"new", BIG):
            self.file("here/" + os.path.basename(self.part), BIG[:BLOCK])
            os.chown(self.part, 12, 34)
            with open(self.part, "rb") as held:
                self.replaces_the_part(content)
                self.assertEqual(held.read(), BIG[:BLOCK])


class Push(Transfers):
    """Local files that are swapped after they were listed, when the device is asked for its target."""

    def secrets(self, size):
        self.file("outside/sub/f", b"secret" * (size // 6))

    def push(self, swap, *words, task=b"stat"):
        device = Device(self, before={task: swap})
        result = self.ctl("-d", device.where, *words)
        self.assertNotIn(b"secret", device.received)
        self.assertEqual(result.status, 1, result.err)
        return result

    def tree(self, size):
        self.secrets(size)
        os.makedirs(self.path("here/sub"))
        self.file("here/sub/f", b"public" * (size // 6))

    def file_becomes_link(self):
        os.unlink(self.path("here/sub/f"))
        os.symlink(self.path("outside/sub/f"), self.path("here/sub/f"))

    def commands(self):
        for command, options, source in (("push", ["-r"], "here"), ("sync", [], "here"),
                                         ("push", [], "here/sub/f")):
            for size in (600, 9 * MIB):
                with self.subTest(command=command, size=size, source=source):
                    self.tree(size)
                    yield (command, *options, self.path(source), "/t"), source
                shutil.rmtree(self.here)

    def test_a_file_that_becomes_a_link_is_not_sent(self):
        for words, _ in self.commands():
            result = self.push(self.file_becomes_link, *words)
            self.assertIn("sub/f: a symbolic link is in the path", result.err.decode())

    def test_a_directory_that_becomes_a_link_is_not_read(self):
        for words, source in self.commands():
            if source == "here":
                result = self.push(lambda: self.swap("sub"), *words)
                self.assertIn("sub/f: a symbolic link is in the path", result.err.decode())

    def test_a_file_that_becomes_a_pipe_is_not_waited_for(self):
        def swap():
            os.unlink(self.path("here/sub/f"))
            os.mkfifo(self.path("here/sub/f"))

        for words, _ in self.commands():
            result = self.push(swap, *words)
            self.assertIn("sub/f: changed during the transfer", result.err.decode())

    def test_the_checksum_is_not_that_of_a_link(self):
        self.tree(600)
        device = Device(self, contents={b"/t/sub/f": b"secret" * 100},
                        before={b"exec": self.file_becomes_link})
        result = self.ctl("-d", device.where, "push", "--checksum", self.path("here/sub/f"), "/t/sub/f")
        self.assertEqual(result.status, 1, result.err)

    def test_sources_may_be_links(self):
        self.tree(600)
        os.symlink("here", self.path("named"))
        os.symlink("sub/f", self.path("here/named"))
        for words in (("push", "-r", self.path("named"), "/t"), ("sync", self.path("named"), "/t"),
                      ("push", self.path("here/named"), "/t"),
                      ("push", self.path("named/sub/f"), "/t")):
            device = Device(self)
            result = self.ctl("-d", device.where, *words)
            self.assertEqual((result.status, result.err), (0, b""))
            self.assertIn(b"public", device.received)


class Sizes(Transfers):
    """What a device says about the size of a file, before and after its content."""

    def setUp(self):
        super().setUp()
        self.file("here/f", b"old")

    def pull_file(self, content, *stats, options=(), **about):
        """Pulls a file. Returns the exit status, the error lines and the file afterwards."""
        device = Device(self, contents={b"f": content}, stats={b"f": list(stats)}, **about)
        result = self.ctl("-d", device.where, "pull", *options, "/x/f", self.path("here/f"))
        self.assertEqual(os.listdir(self.here), ["f"])
        return result.status, result.err.decode(), self.content("here/f")

    def copies(self, content, told, expected, pattern, **options):
        status, lines, got = self.pull_file(content, *told, **options)
        self.assertTrue(got == expected, got[:80])
        self.assertRegex(lines, pattern)
        self.assertEqual((status, lines.count("\n")), (int(pattern != "^$"), int(pattern != "^$")))

    def test_a_large_file_that_is_shorter_than_announced(self):
        self.copies(b"1234", [(9 * MIB,), (4,)], b"1234",
                    "f: has shrunk from 9437184 bytes to 4 bytes since it was listed")

    def test_a_small_file_that_is_shorter_than_listed(self):
        device = Device(self, directory(b"."), regular(b"f", 100), contents={b"f": b"1"})
        self.refuses(device, "f: has shrunk from 100 bytes to 1 byte since it was listed")
        self.assertEqual(self.content("here/f"), b"1")

    def test_a_file_that_grows_is_copied_to_its_earlier_length(self):
        for options in ((), ("--checksum",)):
            self.copies(b"12345", [(3,), (5,)], b"123",
                        "f: has grown during the transfer; only its first 3 bytes were copied",
                        options=options)
            self.copies(b"123", [(3,), (5,)], b"123", "only its first 3 bytes were copied",
                        options=options)
            self.copies(BIG + b"more", [(len(BIG),), (len(BIG),), (len(BIG) + 4,)], BIG,
                        "only its first 9437184 bytes were copied", options=options)

    def test_an_empty_file_that_grows_is_copied_empty(self):
        self.copies(b"12345", [(0,), (5,)], b"", "only its first 0 bytes were copied")

    def test_a_file_without_a_size_is_copied_completely(self):
        self.copies(b"12345", [(0, 1), (0, 2)], b"12345", "^$")

    def test_a_file_that_gives_less_than_its_size_is_not_copied(self):
        self.copies(b"12345", [(4096,)], b"old", "f: only 5 of 4096 bytes could be read")
        self.copies(BIG[:-1], [(len(BIG),)], b"old", "f: changed during the transfer")

    def test_a_file_that_changes_is_not_copied(self):
        for told in ([(5, 1), (5, 2)], [(5,), (4,)], [(4,)]):
            self.copies(b"12345", told, b"old", "f: changed during the transfer")
        self.copies(BIG, [(len(BIG), 1), (len(BIG), 1), (len(BIG), 2)], b"old",
                    "f: changed during the transfer")


class PullWithoutOpenat2(Pull):
    refused = errno.ENOSYS


class PartsWithAFilterOfSystemCalls(Parts):
    refused = errno.EPERM


class PushWithAFilterOfSystemCalls(Push):
    refused = errno.EPERM


if __name__ == "__main__":
    unittest.main()
