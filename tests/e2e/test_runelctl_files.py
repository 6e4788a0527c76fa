# SPDX-License-Identifier: Apache-2.0
"""Files and directory trees to and from a device, replaced completely or not at all."""
import contextlib
import functools
import os
import random
import select
import shutil
import signal
import socket
import stat
import threading
import unittest

from support.ctl import Between, CtlCase, only_programs, say, small_disk, snapshot
from support.thin_line import ThinLine
from support.wait import TIMEOUT, wait_until

MIB = 1 << 20
WHEN = 1_600_000_000_123_456_789
ODD_NAMES = [b"new\nline", b"\x1b[31mred", b"\xff\xfe", b"quo'te\"s", b"-dash", b"back\\slash", b" "]


@functools.lru_cache(8)
def noise(size, seed=1):
    return random.Random(seed).randbytes(size)


class LateData:
    """Relays between runelctl and a daemon. Cuts the first connection after @p limit bytes, and keeps
    the data that follow them for `deliver`."""

    def __init__(self, case, limit):
        self.limit = limit
        self.first = True
        self.may = threading.Event()
        self.delivered = threading.Event()
        self.late = b""
        case.addCleanup(self.may.set)
        self.where = case.odd_peer(self._serve)

    def deliver(self):
        """Sends the data that were kept, and returns their number."""
        self.may.set()
        self.delivered.wait(TIMEOUT)
        return len(self.late)

    def _serve(self, connected):
        first, self.first = self.first, False
        with socket.create_connection(("127.0.0.1", 5111)) as daemon:
            passed = 0
            ways = {connected: daemon, daemon: connected}
            while not first or passed < self.limit:
                for source in select.select(list(ways), [], [])[0]:
                    data = source.recv(65536)
                    if not data:
                        return
                    passed += len(data) if source is connected else 0
                    ways[source].sendall(data)
            self._keep(connected)
            connected.close()
            self.may.wait(TIMEOUT)
            daemon.sendall(self.late)
            daemon.shutdown(socket.SHUT_WR)
            while daemon.recv(65536):
                pass
        self.delivered.set()

    def _keep(self, connected):
        """All that runelctl sends without further answers."""
        connected.settimeout(1)
        with contextlib.suppress(TimeoutError):
            while data := connected.recv(65536):
                self.late += data


class Transfers(CtlCase):
    def setUp(self):
        super().setUp()
        self.there = self.path("device")
        os.mkdir(self.there)

    def serve(self, **options):
        daemon = self.daemon(**options)
        self.peers = daemon.peers
        return daemon

    def wait_without_clients(self):
        """Waits until the daemon has read all data of its clients."""
        wait_until(lambda: not self.peers(), "the daemon has closed its connections")

    def on_device(self, name):
        return os.path.join(self.there, name)

    def dated(self, name, content=b"", mode=0o640):
        path = self.file(name, content)
        os.chmod(path, mode)
        os.utime(path, ns=(WHEN, WHEN))
        return path

    def tree(self, name, files=20):
        """A tree of files, directories, links and unusual names with different modes and times."""
        root = self.path(name)
        os.makedirs(os.path.join(root, "empty"))
        os.makedirs(os.path.join(root, "deep/er"))
        for number in range(files):
            self.dated(f"{name}/f{number}", noise(number * 37, number), 0o600 + number % 0o100)
            os.utime(self.path(f"{name}/f{number}"), ns=(WHEN, WHEN + number * 1_000_000_007))
        self.dated(f"{name}/deep/er/big", noise(9 * MIB))
        os.symlink("../f1", os.path.join(root, "deep/link"))
        os.symlink("nowhere", os.path.join(root, "dangling"))
        for odd in ODD_NAMES:
            with open(os.path.join(root.encode(), b"deep", odd), "wb") as file:
                file.write(odd)
        for directory, _, _ in os.walk(root, topdown=False):
            os.chmod(directory, 0o750)
            os.utime(directory, ns=(WHEN, WHEN))
        return root

    def leftovers(self, directory=None):
        return [name for _, directories, files in os.walk(directory or self.there)
                for name in [*directories, *files] if name.startswith(".run")]

    def parts(self):
        """The parts alone: on a slow line a compressed piece may lie beside one."""
        return [name for name in self.leftovers() if name.endswith(".part")]

    def fails(self, words, status, *patterns, **options):
        result = self.ctl(*words, **options)
        self.assertEqual(result.status, status, result.err)
        self.assertEqual(len(result.errors), len(patterns), result.errors)
        for line, pattern in zip(result.errors, patterns):
            self.assertRegex(line, pattern)
        return result


class Push(Transfers):
    def test_a_file_is_copied_with_mode_and_time(self):
        self.serve()
        self.assertEqual(self.succeed("push", self.dated("a", b"x\x00"), self.on_device("b")).out, b"")
        st = os.stat(self.on_device("b"))
        self.assertEqual((stat.S_IMODE(st.st_mode), st.st_mtime_ns), (0o640, WHEN))
        self.assertEqual(self.content("device/b"), b"x\x00")

    def test_several_files_are_copied_into_a_directory(self):
        self.serve()
        self.succeed("push", self.file("a", b"1"), self.file("b", b"2"), self.there)
        self.succeed("push", self.file("c", b"3"), self.on_device("new/"))
        self.assertEqual([self.content("device/" + n) for n in ("a", "b", "new/c")],
                         [b"1", b"2", b"3"])

    def test_a_tree_is_copied_exactly(self):
        self.serve()
        here = self.tree("here")
        self.succeed("push", "-r", "--checksum", here, self.on_device("copy"))
        self.assertEqual(snapshot(self.on_device("copy")), snapshot(here))
        self.succeed("push", "-r", here, self.there)
        self.assertEqual(snapshot(self.on_device("here")), snapshot(here))
        self.assertEqual(self.leftovers(), [])

    def test_a_tree_is_copied_without_tar(self):
        self.serve(environment={"PATH": only_programs(self, "mkdir", "chmod", "touch", "ln", "rm")})
        here = self.tree("here")
        self.succeed("push", "-r", here, self.on_device("copy"))
        self.assertEqual(snapshot(self.on_device("copy")), snapshot(here))
        self.assertEqual(self.leftovers(), [])

    def directories(self, name, count=20):
        """Many directories with few files, each with a different mode and time."""
        root = self.path(name)
        for number in range(count):
            os.makedirs(os.path.join(root, f"d{number}/sub"))
            self.dated(f"{name}/d{number}/sub/f", noise(number))
        for number, (directory, _, _) in enumerate(os.walk(root, topdown=False)):
            os.chmod(directory, 0o2700 + number)
            os.utime(directory, ns=(WHEN, WHEN + number * 1_000_000_007))
        return root

    def test_many_directories_need_no_touch(self):
        self.serve(environment={"PATH": only_programs(self, "mkdir", "tar", "sync", "rm")})
        here = self.directories("here")
        self.succeed("push", "-r", here, self.there)
        self.assertEqual(snapshot(self.on_device("here")), snapshot(here))
        self.assertEqual(os.listdir(self.there), ["here"])

    def test_many_directories_are_copied_without_tar(self):
        self.serve(environment={"PATH": only_programs(self, "mkdir", "chmod", "touch", "rm")})
        here = self.directories("here")
        self.succeed("push", "-r", here, self.there)
        self.assertEqual(snapshot(self.on_device("here")), snapshot(here))
        self.assertEqual(os.listdir(self.there), ["here"])

    def test_directories_with_long_names_keep_modes_and_times(self):
        self.serve()
        name = "here/" + "long" * 20 + "/" + "name" * 20
        here = self.directories(name)
        self.succeed("push", "-r", self.path("here"), self.there)
        self.assertEqual(snapshot(self.on_device(name)), snapshot(here))

    def test_an_existing_directory_keeps_its_owner_and_a_link_is_followed(self):
        self.serve()
        here = self.directories("here")
        os.makedirs(self.on_device("here/d1"))
        os.chown(self.on_device("here/d1"), 12, 34)
        os.mkdir(self.on_device("real"))
        os.symlink("../real", self.on_device("here/d2"))
        self.succeed("push", "-r", here, self.there)
        self.assertEqual(os.readlink(self.on_device("here/d2")), "../real")
        self.assertEqual(snapshot(self.on_device("real")), snapshot(os.path.join(here, "d2")))
        for name, copy in (("d1", "here/d1"), ("d2", "real")):
            wanted, st = os.stat(os.path.join(here, name)), os.stat(self.on_device(copy))
            self.assertEqual((st.st_mode, st.st_mtime_ns), (wanted.st_mode, wanted.st_mtime_ns))
        st = os.stat(self.on_device("here/d1"))
        self.assertEqual((st.st_uid, st.st_gid), (12, 34))

    def test_nothing_remains_when_only_the_first_files_fit_an_archive(self):
        self.serve()
        os.mkdir(self.path("here"))
        for number in range(42):  # they fill one archive completely
            self.dated(f"here/f{number:02}", noise(200_000, number))
        for name in ("a", "z"):
            self.dated(f"here/{name}", noise(300_000))
        self.succeed("push", "-r", self.path("here"), self.there)
        self.assertEqual(snapshot(self.on_device("here")), snapshot(self.path("here")))
        self.assertEqual(self.leftovers(), [])

    def test_a_directory_requires_r(self):
        self.serve()
        self.fails(("push", self.there, "/tmp/x"), 1,
                   r"device: Is a directory \(use -r for directories\)")

    def test_a_missing_local_file_is_reported(self):
        self.fails(("push", self.path("none"), "/x"), 1, "none: No such file or directory")
        self.fails(("push", self.file("a")), 2, "push: expected LOCAL... REMOTE")

    def test_special_files_are_skipped_with_status_1(self):
        self.serve()
        os.mkfifo(self.path("device/fifo"))
        for words in (("push", "-r"), ("sync",)):
            self.fails((*words, self.there, self.path("copy")), 1, "fifo: skipped, not a file")
            self.assertEqual(os.listdir(self.path("copy")), [])

    def test_a_large_file_is_sent_in_pieces(self):
        self.serve()
        content = noise(20 * MIB)
        result = self.succeed("--json", "push", "--checksum", self.dated("big", content, 0o4755),
                              self.on_device("big"))
        self.assertEqual((result.objects[-1]["files"], result.objects[-1]["bytes"]), (1, 20 * MIB))
        st = os.stat(self.on_device("big"))
        self.assertEqual((stat.S_IMODE(st.st_mode), st.st_mtime_ns), (0o4755, WHEN))
        self.assertEqual(self.content("device/big"), content)
        self.assertEqual(self.leftovers(), [])

    def test_a_large_file_is_compressed(self):
        self.serve()
        content = b"".join(b"line %d of a text\n" % number for number in range(MIB))
        result = self.succeed("--json", "push", "-z", "--checksum",
                              self.dated("big", content, 0o600), self.on_device("big"))
        self.assertEqual(result.objects[-1]["bytes"], len(content))
        self.assertLess(result.objects[-1]["sent_bytes"], len(content))
        self.assertTrue(self.content("device/big") == content)
        self.assertEqual(self.leftovers(), [])
        result = self.succeed("--json", "push", "--no-compress", self.path("big"),
                              self.on_device("big"))
        self.assertNotIn("sent_bytes", result.objects[-1])

    def counting(self, name, log, pause=0):
        """A PATH in which the program @p name writes a byte to @p log and pauses in each run."""
        path = only_programs(self, "mkdir", "chmod", "touch", "rm", "gzip")
        place = os.path.join(path, name)
        with contextlib.suppress(FileNotFoundError):
            os.remove(place)
        self.file(place, f"#!/bin/sh\nprintf x >>{log}\n{shutil.which('sleep')} {pause}\n"
                  f"exec {shutil.which(name)} \"$@\"\n".encode())
        os.chmod(place, 0o755)
        return path

    def test_bzip2_is_used_where_the_device_unpacks_it(self):
        log = self.path("runs")
        self.serve(environment={"PATH": self.counting("bunzip2", log)})
        content = b"".join(b"line %d of a text\n" % number for number in range(MIB))
        self.succeed("push", "-z", self.file("big", content), self.on_device("big"))
        self.assertTrue(self.content("device/big") == content)
        self.assertGreater(os.path.getsize(log), 1, "an empty file and at least one piece")
        self.assertEqual(self.leftovers(), [])

    def test_bzip2_is_left_where_the_device_is_slow_with_it(self):
        log = self.path("runs")
        self.serve(environment={"PATH": self.counting("bunzip2", log, pause=1)})
        line = ThinLine(1_000_000, 0.005, 7111, 5111)
        self.addCleanup(line.close)
        content = b"".join(b"line %d of a text\n" % number for number in range(MIB // 2))
        self.succeed("-d", line.where, "push", self.file("big", content), self.on_device("big"))
        self.assertTrue(self.content("device/big") == content)
        self.assertEqual(os.path.getsize(log), 2, "an empty file and a short piece")

    def test_gzip_is_used_where_the_device_has_no_bunzip2(self):
        log = self.path("runs")
        self.serve(environment={"PATH": self.counting("gzip", log)})
        content = b"".join(b"line %d of a text\n" % number for number in range(MIB))
        result = self.succeed("--json", "push", "-z", self.file("big", content), self.on_device("big"))
        self.assertIn("sent_bytes", result.objects[-1])
        self.assertTrue(self.content("device/big") == content)
        self.assertGreater(os.path.getsize(log), 2, "an empty file and some pieces")
        self.assertEqual(self.leftovers(), [])

    def test_a_large_file_of_a_sync_is_compressed(self):
        self.serve()
        os.mkdir(self.path("here"))
        content = b"".join(b"line %d of a text\n" % number for number in range(MIB))
        self.file("here/big", content)
        for option, packed in (("-z", True), ("--no-compress", False)):
            words = ("sync", option, self.path("here"), self.on_device("copy"))
            result = self.succeed("--json", *words)
            self.assertEqual("sent_bytes" in result.objects[-1], packed)
            self.assertTrue(self.content("device/copy/big") == content)
            os.remove(self.on_device("copy/big"))

    def test_an_interrupted_transfer_is_resumed(self):
        self.serve()
        content = noise(20 * MIB)
        big = self.file("big", content)
        self.file("device/big", b"old")
        between = Between(self, 12 * MIB)
        self.fails(("-d", between.where, "push", big, self.on_device("big")), 255,
                   "the device closed the connection|reset by peer|Broken pipe")
        self.assertEqual(self.content("device/big"), b"old")
        self.wait_without_clients()
        self.assertEqual(len(self.parts()), 1)
        result = self.succeed("--json", "push", big, self.on_device("big"))
        self.assertEqual(result.objects[-1]["resumed_at"] + result.objects[-1]["bytes"], 20 * MIB)
        self.assertGreaterEqual(result.objects[-1]["resumed_at"], 8 * MIB)
        self.assertEqual(self.content("device/big"), content)
        self.assertEqual(self.leftovers(), [])

    def test_a_partial_file_that_grows_meanwhile_is_sent_again(self):
        self.serve()
        content = noise(20 * MIB)

        def grow():
            with open(self.on_device(self.parts()[0]), "ab") as part:
                part.write(b"from a connection that was lost")
            return True

        between = Between(self, 12 * MIB, grow)
        result = self.succeed("-d", between.where, "--json", "push", self.file("big", content),
                              self.on_device("big"))
        self.assertEqual(result.objects[-1]["files"], 1)
        self.assertEqual((self.content("device/big"), self.leftovers()), (content, []))

    def test_a_partial_file_of_another_file_is_not_resumed(self):
        self.serve()
        for again in ("--resume", "--no-resume"):
            between = Between(self, 12 * MIB)
            self.ctl("-d", between.where, "push", self.file("big", noise(20 * MIB)),
                     self.on_device("big"))
            self.assertEqual(len(self.parts()), 1)
            other = noise(20 * MIB, 2)
            result = self.succeed("--json", "push", again, self.file("big", other),
                                  self.on_device("big"))
            self.assertNotIn("resumed_at", result.objects[-1])
            self.assertEqual(self.content("device/big"), other)

    def test_without_resuming_nothing_remains(self):
        self.serve()
        between = Between(self, 12 * MIB)
        self.fails(("-d", between.where, "push", "--no-resume", self.file("big", noise(20 * MIB)),
                    self.on_device("big")), 255, "big|closed|reset|Broken")
        self.assertEqual(os.listdir(self.there), [])

    def test_without_resuming_nothing_remains_though_data_arrive_later(self):
        """Data of the lost connection reach the device when runelctl has ended."""
        self.serve()
        late = LateData(self, 4 * MIB)
        self.fails(("-d", late.where, "push", "--no-resume", self.file("big", noise(20 * MIB)),
                    self.on_device("big")), 255, "big|closed|reset|Broken")
        self.assertGreater(late.deliver(), MIB // 2)
        self.wait_without_clients()
        self.assertEqual(os.listdir(self.there), [])

    def test_a_full_device_keeps_the_old_file_and_nothing_else(self):
        self.serve()
        disk = small_disk(self, "small", 4 * MIB)
        for size in (5 * MIB, 20 * MIB):
            self.file("small/a", b"old")
            self.fails(("push", self.file("a", noise(size)), disk + "/a"), 1,
                       r"a: No space left on device \(the device's file system is full")
            self.assertEqual((self.content("small/a"), os.listdir(disk)), (b"old", ["a"]))

    def test_a_tree_that_does_not_fit_is_copied_as_far_as_possible(self):
        self.serve()
        disk = small_disk(self, "small", 2 * MIB)
        for number in range(30):
            self.file(f"device/f{number}", noise(100_000, number))
        result = self.ctl("push", "-r", self.there, disk + "/copy")
        self.assertEqual(result.status, 1)
        self.assertIn("No space left on device", result.errors[0])
        arrived = os.listdir(disk + "/copy")
        self.assertTrue(arrived)
        for name in arrived:
            self.assertEqual(self.content(f"small/copy/{name}"), self.content(f"device/{name}"))

    def test_a_file_that_changes_meanwhile_is_not_copied(self):
        self.serve()
        for size, change in ((20 * MIB, lambda path: os.truncate(path, MIB)),
                             (20 * MIB, lambda path: os.utime(path, ns=(WHEN, WHEN)))):
            self.file("device/big", b"old")
            big = self.file("big", noise(size))
            between = Between(self, 5 * MIB, lambda: (change(big), True)[1])
            self.fails(("-d", between.where, "push", big, self.on_device("big")), 1,
                       "big: changed during the transfer")
            self.assertEqual((self.content("device/big"), self.leftovers()), (b"old", []))

    def test_a_missing_program_is_reported_in_one_line(self):
        self.serve(environment={"PATH": only_programs(self, "mkdir", "ln", "rm")})
        self.fails(("push", self.dated("a", b"x"), self.on_device("a")), 1,
                   "modes not preserved: chmod: No such file",
                   "times not preserved: touch: No such file")
        self.assertEqual(self.content("device/a"), b"x")
        self.fails(("push", "--checksum", self.file("b", b"x"), self.on_device("b")), 1,
                   "modes not preserved", "times not preserved",
                   "checksums not verified: sha256sum: No such")

    def test_a_touch_without_fractions_preserves_the_seconds(self):
        programs = only_programs(self, "chmod")
        self.file(os.path.basename(programs) + "/touch",
                  b"#!/bin/sh\ncase $3 in *.*) exit 1;; esac\nexec /usr/bin/touch \"$@\"\n")
        os.chmod(programs + "/touch", 0o755)
        self.serve(environment={"PATH": programs})
        self.succeed("push", self.dated("a"), self.on_device("a"))
        self.succeed("push", self.dated("b", noise(9 * MIB)), self.on_device("b"))
        for name in ("a", "b"):
            self.assertEqual(os.stat(self.on_device(name)).st_mtime_ns, WHEN // 10**9 * 10**9)

    def test_a_checksum_mismatch_is_a_failure(self):
        programs = only_programs(self, "chmod", "touch")
        self.file(os.path.basename(programs) + "/sha256sum",
                  b"#!/bin/sh\necho " + b"0" * 64 + b"  x\n")
        os.chmod(programs + "/sha256sum", 0o755)
        self.serve(environment={"PATH": programs})
        self.fails(("push", "--checksum", self.file("a"), self.on_device("a")), 1,
                   "a: checksum mismatch")

    def test_a_replaced_file_keeps_its_owner_and_a_link_is_followed(self):
        self.serve()
        sources = [self.file(f"f{number}", b"new") for number in range(12)]
        sources.append(self.file("big", noise(9 * MIB)))
        for number in range(12):
            os.chown(self.file(f"device/f{number}", b"old"), 12, 34)
        os.chown(self.file("device/real", b"old"), 12, 34)
        os.symlink("real", self.on_device("big"))
        os.remove(self.on_device("f3"))
        os.symlink("elsewhere", self.on_device("f3"))
        self.succeed("push", *sources, self.there)
        for name in ("f1", "f11", "real"):
            st = os.stat(self.on_device(name))
            self.assertEqual((st.st_uid, st.st_gid), (12, 34), name)
        self.assertEqual((self.content("device/real"), self.content("device/elsewhere")),
                         (noise(9 * MIB), b"new"))
        self.assertTrue(os.path.islink(self.on_device("big")))
        self.assertTrue(os.path.islink(self.on_device("f3")))

    def test_a_private_file_is_never_readable_by_others(self):
        self.serve()
        self.succeed("push", self.dated("key", b"secret", 0o600), self.on_device("key"))
        self.assertEqual(stat.S_IMODE(os.stat(self.on_device("key")).st_mode), 0o600)
        big = self.dated("big", noise(20 * MIB), 0o600)
        modes = []
        between = Between(self, 12 * MIB, lambda: (modes.extend(
            stat.S_IMODE(os.stat(self.on_device(name)).st_mode) for name in self.leftovers()),
            True)[1])
        self.succeed("-d", between.where, "push", big, self.on_device("big"))
        self.assertEqual(set(modes), {0o600})

    def interrupted(self, limit, *words):
        """Sends SIGINT after @p limit bytes, while the transfer is blocked."""
        met = threading.Event()
        between = Between(self, limit, lambda: (met.set(), held.wait(TIMEOUT), False)[2])
        held = threading.Event()
        process = self.start("-d", between.where, *words)
        self.assertTrue(met.wait(TIMEOUT))
        process.send_signal(signal.SIGINT)
        status = process.wait(TIMEOUT)
        held.set()
        return status

    def test_an_interrupt_leaves_no_incomplete_target(self):
        self.serve()
        self.file("device/big", b"old")
        big = self.file("big", noise(20 * MIB))
        self.assertEqual(self.interrupted(12 * MIB, "push", big, self.on_device("big")), 130)
        self.assertEqual(self.content("device/big"), b"old")
        self.succeed("push", big, self.on_device("big"))
        self.assertEqual((self.content("device/big"), self.leftovers()), (noise(20 * MIB), []))

    def test_an_interrupt_removes_the_hidden_directory(self):
        self.serve()
        for number in range(40):
            self.file(f"f{number}", noise(100_000))
        names = [self.path(f"f{number}") for number in range(40)]
        self.assertEqual(self.interrupted(2 * MIB, "push", *names, self.there), 130)
        self.assertEqual(os.listdir(self.there), [])

    def test_a_progress_bar_is_shown_only_on_a_terminal(self):
        self.serve()
        big = self.file("big", noise(40 * MIB))
        status, shown = self.on_terminal("push", big, self.on_device("big"))
        self.assertEqual(status, 0)
        self.assertRegex(shown, rb"big \[#+\.*\] \d+% [\d.]+ [KMG]iB/s \d+:\d\d")
        self.assertTrue(shown.endswith(b"\r\x1b[K1 file, 40.0 MiB\r\n"), shown[-80:])
        self.assertEqual(self.on_terminal("--quiet", "push", big, self.on_device("big"))[1], b"")

    def test_the_progress_bar_fits_a_narrow_terminal(self):
        self.serve()
        big = self.file("big", noise(40 * MIB))
        _, shown = self.on_terminal("push", big, self.on_device("big"), columns=20)
        lines = [line for line in shown.replace(b"\x1b[K", b"").split(b"\r") if b"%" in line]
        self.assertTrue(lines)
        self.assertLess(max(map(len, lines)), 20)


class Sync(Transfers):
    def test_only_differences_are_sent(self):
        self.serve()
        here = self.tree("here")
        first = self.succeed("--json", "sync", here, self.on_device("copy")).objects[-1]
        self.assertEqual(first["files"], 20 + 1 + len(ODD_NAMES))
        self.assertEqual(snapshot(self.on_device("copy")), snapshot(here))
        self.assertEqual(self.succeed("--json", "sync", here, self.on_device("copy"))
                         .objects[-1]["files"], 0)
        self.file("here/f3", b"changed")
        self.file("here/new", b"new")
        os.chmod(self.path("here/f5"), 0o777)
        again = self.succeed("--json", "sync", "--checksum", here, self.on_device("copy")).objects[-1]
        self.assertEqual(again["files"], 2)
        self.assertEqual(snapshot(self.on_device("copy")), snapshot(here))

    def test_with_checksums_the_content_decides(self):
        self.serve()
        here = self.tree("here", 3)
        self.dated("here/large", noise(9 * MIB))
        self.succeed("sync", here, self.on_device("copy"))
        for name in ("f2", "large"):
            st = os.stat(self.on_device("copy/" + name))
            self.file("device/copy/" + name, bytes(st.st_size))
            os.utime(self.on_device("copy/" + name), ns=(WHEN, st.st_mtime_ns))
        os.utime(self.path("here/f1"), ns=(WHEN, WHEN + 7_000_000_000))
        words = ("--json", "sync", "--checksum", here, self.on_device("copy"))
        self.assertEqual(self.succeed(*words).objects[-1]["files"], 2)
        self.assertEqual(snapshot(self.on_device("copy")), snapshot(here))
        self.assertEqual(self.succeed(*words).objects[-1]["files"], 0)

    def test_without_checksums_size_and_time_decide(self):
        self.serve()
        here = self.tree("here", 3)
        self.succeed("sync", here, self.on_device("copy"))
        self.file("device/copy/f2", bytes(74))
        os.utime(self.on_device("copy/f2"), ns=(WHEN, os.stat(self.path("here/f2")).st_mtime_ns))
        self.assertEqual(self.succeed("--json", "sync", here, self.on_device("copy"))
                         .objects[-1]["files"], 0)

    def test_files_whose_checksums_are_unknown_are_sent(self):
        self.serve(environment={"PATH": only_programs(self, "mkdir", "chmod", "touch", "ln")})
        os.mkdir(self.path("here"))
        self.dated("here/f", b"12345")
        self.succeed("sync", self.path("here"), self.on_device("copy"))
        self.file("device/copy/f", b"wrong")
        os.utime(self.on_device("copy/f"), ns=(WHEN, WHEN))
        self.fails(("sync", "--checksum", self.path("here"), self.on_device("copy")), 1,
                   "checksums not verified: sha256sum: No such file")
        self.assertEqual(self.content("device/copy/f"), b"12345")
    def test_a_summary_tells_what_was_done(self):
        self.serve()
        os.mkdir(self.path("here"))
        self.file("here/a", b"x" * 1024)
        self.file("here/b", b"y" * 1024)
        words = ("sync", "--delete", self.path("here"), self.on_device("copy"))
        self.assertEqual(self.succeed(*words).text, "sent 2 files, 2.0 KiB; removed 0\n")
        os.remove(self.path("here/a"))
        self.file("here/b", b"z")
        self.assertEqual(self.succeed(*words).text, "sent 1 file, 1 B; removed 1\n")
        self.assertEqual(self.succeed(*words).text, "sent 0 files, 0 B; removed 0\n")
        self.assertEqual(self.succeed("-q", *words).out, b"")

    def test_only_delete_removes_files_that_are_missing_locally(self):
        self.serve()
        here = self.tree("here", 3)
        self.succeed("sync", here, self.on_device("copy"))
        os.makedirs(self.on_device("copy/more/and"))
        self.file("device/copy/more/and/more")
        self.file("device/copy/more-")
        self.succeed("sync", here, self.on_device("copy"))
        self.assertTrue(os.path.exists(self.on_device("copy/more/and/more")))
        result = self.succeed("--json", "sync", "--delete", here, self.on_device("copy"))
        self.assertEqual(result.objects[-1]["removed"], 2)
        self.assertEqual(snapshot(self.on_device("copy")), snapshot(here))

    def test_an_interrupted_sync_is_resumed_by_default(self):
        self.serve()
        os.mkdir(self.path("here"))
        self.file("here/big", noise(20 * MIB))
        for flag, kept in (("--resume", True), ("--no-resume", False)):
            between = Between(self, 12 * MIB)
            words = ("sync", flag, self.path("here"), self.on_device("copy"))
            self.fails(("-d", between.where, *words), 255, "closed|reset|Broken|big")
            self.wait_without_clients()
            self.assertEqual(len(self.leftovers()), int(kept))
            self.assertEqual("resumed_at" in self.succeed("--json", *words).objects[-1], kept)
            self.assertEqual(self.content("device/copy/big"), noise(20 * MIB))
            os.remove(self.on_device("copy/big"))

    def test_a_link_to_the_directory_is_followed(self):
        self.serve()
        here = self.tree("here", 3)
        os.mkdir(self.on_device("real"))
        os.symlink("real", self.on_device("copy"))
        for files in (4 + len(ODD_NAMES), 0):
            result = self.succeed("--json", "sync", here, self.on_device("copy"))
            self.assertEqual(result.objects[-1]["files"], files)
        self.assertEqual(snapshot(self.on_device("real")), snapshot(here))


class Pull(Transfers):
    def test_a_file_is_copied_with_mode_and_time(self):
        self.serve()
        self.assertEqual(self.succeed("pull", self.dated("device/a", b"x\x00"), self.path("b")).out,
                         b"")
        st = os.stat(self.path("b"))
        self.assertEqual((stat.S_IMODE(st.st_mode), st.st_mtime_ns), (0o640, WHEN))
        self.assertEqual(self.content("b"), b"x\x00")

    def test_several_files_are_copied_into_a_new_directory(self):
        self.serve()
        self.succeed("pull", self.file("device/a", b"1"), self.file("device/b", b"2"),
                     self.path("new"))
        self.assertEqual((self.content("new/a"), self.content("new/b")), (b"1", b"2"))

    def test_a_tree_is_copied_exactly(self):
        self.serve()
        there = self.tree("there")
        self.succeed("pull", "-r", "--checksum", there, self.path("copy"))
        self.assertEqual(snapshot(self.path("copy")), {
            path: about for path, about in snapshot(there).items()})
        self.succeed("pull", "-r", there + "/", self.path("copy2/"))
        self.assertEqual(snapshot(self.path("copy2/there")), snapshot(there))
        self.assertEqual(self.leftovers(self.directory), [])

    def test_a_file_of_size_zero_is_read_to_its_end(self):
        self.serve()
        self.succeed("pull", "/proc/version", self.path("version"))
        with open("/proc/version", "rb") as file:
            self.assertEqual(self.content("version"), file.read())

    def test_sources_that_cannot_be_copied_are_reported(self):
        self.serve()
        os.mkfifo(self.on_device("fifo"))
        self.fails(("pull", self.on_device("none"), self.path("x")), 1, "none: No such file")
        self.fails(("pull", self.there, self.path("x")), 1, r"Is a directory \(use -r")
        self.fails(("pull", self.on_device("fifo"), self.path("x")), 1, "not a file or directory")
        self.fails(("pull", self.on_device("fifo")), 2, "pull: expected REMOTE... LOCAL")
        self.fails(("pull", "-r", self.there, self.path("y")), 1, "fifo: skipped")
        self.assertFalse(os.path.exists(self.path("x")))

    def test_an_interrupted_transfer_is_resumed(self):
        self.serve()
        content = noise(20 * MIB)
        there = self.file("device/big", content)
        for flag, expected in (("--resume", True), ("--no-resume", False)):
            self.file("big", b"old")
            between = Between(self, 12 * MIB, back=True)
            self.fails(("-d", between.where, "pull", flag, there, self.path("big")), 255, "closed|reset|Broken")
            self.assertEqual(self.content("big"), b"old")
            self.assertEqual(len(self.leftovers(self.directory)), int(expected))
            result = self.succeed("--json", "pull", "--checksum", there, self.path("big"))
            self.assertEqual(result.objects[-1].get("resumed_at", 0) > 0, expected)
            self.assertEqual(self.content("big"), content)
            self.assertEqual(self.leftovers(self.directory), [])

    def test_a_large_file_is_the_same_from_any_number_of_devices(self):
        """The size of a piece depends on the number of devices."""
        self.serve()
        content = noise(10 * MIB)
        devices = [f"127.0.0.{number}" for number in range(1, 12)]
        self.succeed("-q", "-d", ",".join(devices), "pull", self.file("device/big", content),
                     self.path("all"))
        for device in devices:
            self.assertTrue(self.content(f"all/{device}/big") == content, device)

    def test_a_new_directory_for_several_devices_can_be_listed_by_all(self):
        self.serve()
        self.succeed("-q", "-d", "127.0.0.1,127.0.0.2", "pull", self.file("device/a", b"1"),
                     self.path("all"))
        self.assertEqual(stat.S_IMODE(os.stat(self.path("all")).st_mode), 0o755)

    def test_a_private_directory_for_several_devices_stays_private(self):
        self.serve()
        os.mkdir(self.path("all"), 0o700)
        self.succeed("-q", "-d", "127.0.0.1,127.0.0.2", "pull", self.file("device/a", b"1"),
                     self.path("all"))
        self.assertEqual(stat.S_IMODE(os.stat(self.path("all")).st_mode), 0o700)

    def test_a_partial_file_of_another_file_is_not_resumed(self):
        self.serve()
        between = Between(self, 12 * MIB, back=True)
        self.ctl("-d", between.where, "pull", self.file("device/big", noise(20 * MIB)),
                 self.path("big"))
        self.assertEqual(len(self.leftovers(self.directory)), 1)
        other = noise(16 * MIB, 2)
        result = self.succeed("--json", "pull", self.file("device/big", other), self.path("big"))
        self.assertNotIn("resumed_at", result.objects[-1])
        self.assertEqual(self.content("big"), other)

    def test_a_full_local_disk_keeps_the_old_file_and_nothing_else(self):
        self.serve()
        disk = small_disk(self, "small", 4 * MIB)
        for size in (5 * MIB, 20 * MIB):
            self.file("small/a", b"old")
            self.fails(("pull", self.file("device/a", noise(size)), disk + "/a"), 1,
                       "a: No space left on device")
            self.assertEqual((self.content("small/a"), os.listdir(disk)), (b"old", ["a"]))

    def test_a_file_that_changes_meanwhile_is_not_copied(self):
        self.serve()
        for change in (lambda path: os.truncate(path, MIB),
                       lambda path: os.utime(path, ns=(WHEN, WHEN))):
            there = self.file("device/big", noise(20 * MIB))
            self.file("big", b"old")
            between = Between(self, MIB, lambda: (change(there), True)[1], back=True)
            self.fails(("-d", between.where, "pull", there, self.path("big")), 1,
                       "big: changed during the transfer")
            self.assertEqual((self.content("big"), self.leftovers(self.directory)), (b"old", []))

    def test_a_file_that_grows_is_copied_to_its_earlier_length(self):
        self.serve()
        there = self.file("device/log", noise(20 * MIB))

        def grow():
            with open(there, "ab") as log:
                log.write(b"more")
            return True

        between = Between(self, MIB, grow, back=True)
        self.fails(("-d", between.where, "pull", "--checksum", there, self.path("log")), 1,
                   "log: has grown during the transfer; only its first 20971520 bytes were copied")
        self.assertTrue(self.content("log") == noise(20 * MIB))
        self.assertEqual(self.leftovers(self.directory), [])
        between = Between(self, MIB, grow, back=True)
        result = self.fails(("-d", between.where, "pull", there, "-"), 1,
                            "log: has grown during the transfer; only its first 20971524 bytes were copied")
        self.assertTrue(result.out == noise(20 * MIB) + b"more")

    def test_an_interrupt_leaves_no_incomplete_target(self):
        self.serve()
        there = self.file("device/big", noise(20 * MIB))
        met, held = threading.Event(), threading.Event()
        between = Between(self, 5 * MIB, lambda: (met.set(), held.wait(TIMEOUT), False)[2], back=True)
        process = self.start("-d", between.where, "pull", there, self.path("big"))
        self.assertTrue(met.wait(TIMEOUT))
        process.send_signal(signal.SIGINT)
        self.assertEqual(process.wait(TIMEOUT), 130)
        held.set()
        self.assertFalse(os.path.exists(self.path("big")))

    def test_names_that_lead_out_of_the_directory_are_skipped(self):
        def lie(connected):
            answers = [b"dev=1 ino=1 mode=0040755 nlink=1 uid=0 gid=0 rdev=0 size=0 blksize=4096 "
                       b"blocks=0 atime=0.000000000 mtime=0.000000000 ctime=0.000000000\n",
                       b"d 0755 0 0 0 0 .\n- 0644 0 0 3 0 ../evil\n- 0644 0 0 3 0 /tmp/evil\n"
                       b"l 0777 0 0 0 0 a -> /\n"]
            for text in [*answers, answers[0]]:
                connected.recv(65536)
                record = b"SlaveTask 0 0 %d:%s 0 0 0 0 0" % (len(text), text)
                connected.sendall(b"\x01%d\x02%s" % (len(record), record))
            connected.recv(65536)

        result = self.ctl("-d", self.odd_peer(lie), "pull", "-r", "/x", self.path("copy"))
        self.assertEqual((result.status, len(result.errors)), (1, 2), result.errors)
        self.assertEqual(os.listdir(self.path("copy")), ["a"])
        self.assertFalse(os.path.exists(self.path("evil")))

    def test_no_file_is_written_through_an_existing_link(self):
        self.serve()
        there = self.tree("there", 3)
        os.makedirs(self.path("copy"))
        os.symlink(self.there, self.path("copy/deep"))
        result = self.ctl("pull", "-r", there, self.path("copy") + "/../copy2")
        self.assertEqual(result.status, 0)
        result = self.ctl("pull", "-r", there + "/.", self.path("copy"))
        self.assertEqual(result.status, 1)
        self.assertIn("deep: File exists", result.errors[0])


if __name__ == "__main__":
    unittest.main()
