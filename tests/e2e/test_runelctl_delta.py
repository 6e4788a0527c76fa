# SPDX-License-Identifier: Apache-2.0
"""Large files of which only the differences are sent."""
import os
import shutil
import signal
import stat

from support.ctl import Between, only_programs, small_disk
from support.thin_line import ThinLine
from support.wait import wait_until
from test_runelctl_files import MIB, Transfers, WHEN, noise

# More than any request and answer of a delta without content.
OVERHEAD = 30_000


class DeltaTest(Transfers):
    def old_and_new(self, old, new):
        """The target with @p old, and the local file with @p new."""
        self.file("device/image", old)
        os.chmod(self.on_device("image"), 0o600)
        return self.dated("image", new, 0o751)

    def push(self, *words, **options):
        result = self.succeed(*words, "--json", "push", "--delta", self.path("image"),
                              self.on_device("image"), **options)
        return result.objects[-1]

    def assert_arrived(self, new):
        self.assertTrue(self.content("device/image") == new, "wrong content")
        st = os.stat(self.on_device("image"))
        self.assertEqual((stat.S_IMODE(st.st_mode), st.st_mtime_ns), (0o751, WHEN))
        self.assertEqual(self.leftovers(), [])

    def assert_delta(self, old, new, most):
        """A push of @p new over @p old sends at most @p most bytes of content, and little else."""
        self.old_and_new(old, new)
        line = Between(self, 1 << 60)
        done = self.push("-d", line.where)
        self.assert_arrived(new)
        self.assertLessEqual(done["bytes"], most)
        self.assertEqual(done["bytes"] + done["kept"], len(new))
        self.assertNotIn("notes", done)
        self.assertLess(line.passed, done["bytes"] + OVERHEAD)

    def test_a_changed_part_is_sent(self):
        self.serve()
        old = noise(3 * MIB)
        self.assert_delta(old, old[:MIB] + noise(120_000, 2) + old[MIB + 120_000:],
                          120_000 + 2 * 16384)

    def test_an_insertion_at_the_front_moves_everything(self):
        self.serve()
        old = noise(3 * MIB)
        self.assert_delta(old, noise(1000, 2) + old, 1000)

    def test_scattered_changes_cost_a_short_block_each(self):
        self.serve()
        new = bytearray(noise(4 * MIB))
        for at in range(100_000, len(new), 1_000_000):
            new[at] ^= 1
        self.assert_delta(noise(4 * MIB), bytes(new), 5 * 16384)

    def test_removed_and_repeated_parts_are_found(self):
        self.serve()
        old = noise(4 * MIB)
        self.assert_delta(old, old[MIB:2 * MIB] + old[2 * MIB + 5000:] + old[:MIB] + bytes(2 * MIB),
                          2 * MIB + 2 * 524288)

    def test_equal_blocks_are_no_problem(self):
        self.serve()
        self.assert_delta(bytes(3 * MIB), b"x" + bytes(2 * MIB), 524288)

    def test_an_equal_file_is_copied_on_the_device(self):
        self.serve()
        self.assert_delta(noise(MIB), noise(MIB), 0)

    def test_names_are_no_shell_text(self):
        self.serve()
        name = "a'b$(touch x) \"c\n-d"
        self.file("device/" + name, noise(MIB))
        here = self.dated("image", b"new" + noise(MIB))
        done = self.succeed("--json", "push", "--delta", here, self.on_device(name)).objects[-1]
        self.assertEqual((done["bytes"], done["kept"]), (3, MIB))
        self.assertEqual(os.listdir(self.there), [name])

    def test_each_common_shell_serves(self):
        new = b"new" + noise(MIB)
        for shell in ("dash", "bash", "busybox"):
            with self.subTest(shell):
                programs = self.shell_with(shell, "cksum", "sha256sum", "dd", "cat", "chmod", "touch",
                                           "chown")
                daemon = self.serve(environment={"PATH": programs})
                self.old_and_new(noise(MIB), new)
                self.assertEqual(self.push()["bytes"], 3)
                self.assert_arrived(new)
                daemon.stop()

    def shell_with(self, shell, *names):
        directory = only_programs(self, *names)
        programs = self.path("bin-" + shell)
        os.rename(directory, programs)
        os.symlink(shutil.which(shell), os.path.join(programs, "sh"))
        return programs

    def push_beside_openssl(self, body):
        """A delta to a device whose openssl is a shell script. Returns how often that ran."""
        programs = self.shell_with("dash", "cksum", "sha256sum", "dd", "cat", "chmod", "touch")
        log = self.path("runs")
        openssl = self.file(os.path.join(programs, "openssl"), f"#!/bin/sh\nprintf x >>{log}\n{body}".encode())
        os.chmod(openssl, 0o755)
        self.serve(environment={"PATH": programs})
        new = b"new" + noise(3 * MIB)
        self.old_and_new(noise(3 * MIB), new)
        self.assertEqual(self.push()["bytes"], 3)
        self.assert_arrived(new)
        return os.path.getsize(log)

    def test_openssl_computes_the_checksums_of_large_parts(self):
        self.assertEqual(self.push_beside_openssl("exec sha256sum"), 1)

    def test_sha256sum_is_used_where_openssl_fails(self):
        self.assertEqual(self.push_beside_openssl("exit 1"), 1)

    def assert_whole(self, new, why):
        result = self.ctl("push", "--delta", self.path("image"), self.on_device("image"))
        self.assertEqual(result.status, 0)
        self.assertEqual(result.errors, [f"runelctl: 127.0.0.1: {self.on_device('image')}: sent whole:"
                                         f" {why}"])
        self.assert_arrived(new)

    def test_without_the_utilities_the_whole_file_is_sent(self):
        self.serve(environment={"PATH": self.shell_with("dash", "dd", "chmod", "touch", "chown")})
        self.old_and_new(noise(MIB), noise(MIB, 2))
        self.assert_whole(noise(MIB, 2), "the device has no cksum")

    def test_a_wholly_new_file_is_sent(self):
        self.serve()
        self.old_and_new(noise(MIB), noise(MIB, 2))
        self.assert_whole(noise(MIB, 2), "the old file has none of its blocks")

    def test_notes_are_fields_in_json_and_not_printed_with_quiet(self):
        self.serve()
        self.old_and_new(noise(MIB), noise(MIB, 2))
        text = self.on_device("image") + ": sent whole: the old file has none of its blocks"
        self.assertEqual(self.push()["notes"], [{"text": text}])
        self.old_and_new(noise(MIB), noise(MIB, 2))
        self.succeed("-q", "push", "--delta", self.path("image"), self.on_device("image"))

    def test_without_space_for_both_files_the_old_one_stays(self):
        self.serve()
        disk = small_disk(self, "disk", 4 * MIB)
        target = os.path.join(disk, "image")
        self.file("disk/image", noise(3 * MIB))
        self.file("image", b"new" + noise(3 * MIB))
        self.fails(("push", "--delta", self.path("image"), target), 1,
                   "sent whole: the device has no space for both files", "No space left on device")
        self.assertTrue(self.content("disk/image") == noise(3 * MIB), "the old file stays")
        self.assertEqual(os.listdir(disk), ["image"])

    def test_a_target_that_changes_meanwhile_is_replaced_by_the_whole_file(self):
        self.serve()
        old = noise(6 * MIB)
        new = old[:MIB] + noise(300_000, 2) + old[MIB + 300_000:]
        self.old_and_new(old, new)

        def change():
            with open(self.on_device("image"), "r+b") as file:
                file.seek(5 * MIB)
                file.write(b"changed")
            return True

        line = Between(self, 100_000, change)
        done = self.push("-d", line.where)
        self.assertRegex(done["notes"][0]["text"], "the assembled file has another checksum")
        self.assert_arrived(new)

    def interrupted(self, end):
        """A push that meets @p end after 200 kB of 3 MiB new data. Returns the new content."""
        self.serve()
        old = noise(6 * MIB)
        new = old[:MIB] + noise(3 * MIB, 2) + old[4 * MIB:]
        self.old_and_new(old, new)
        running = []

        def meet():
            end(running[0])
            return True

        line = Between(self, 200_000, meet)
        running.append(self.start("-d", line.where, "push", "--delta", self.path("image"),
                                  self.on_device("image")))
        running[0].communicate()
        self.assertNotEqual(running[0].returncode, 0)
        self.wait_without_clients()
        self.assertTrue(self.content("device/image") == old, "the old file stays")
        return new

    def test_an_interrupt_leaves_the_old_file_and_nothing_beside_it(self):
        self.interrupted(lambda process: process.send_signal(signal.SIGINT))
        wait_until(lambda: self.leftovers() == [], "the part is removed")

    def test_after_a_kill_the_next_push_completes_the_file(self):
        new = self.interrupted(lambda process: process.kill())
        done = self.push()
        self.assertLess(done["bytes"], 4 * MIB)
        self.assert_arrived(new)

    def interrupted_whole(self, new):
        """An interrupted push of the 16 MiB @p new. Returns the size of its part."""
        self.serve()
        self.old_and_new(noise(6 * MIB), new)
        line = Between(self, 9 * MIB)
        self.ctl("-d", line.where, "push", "--no-delta", self.path("image"), self.on_device("image"))
        self.wait_without_clients()
        self.assertEqual(len(self.leftovers()), 1)
        size = os.stat(self.on_device(self.leftovers()[0])).st_size
        self.assertGreater(size, 0)
        return size

    def test_an_existing_part_is_continued(self):
        new = noise(10 * MIB, 2) + noise(6 * MIB)
        size = self.interrupted_whole(new)
        done = self.push()
        self.assertEqual((done["resumed_at"], done["bytes"], done["kept"]),
                         (size, 10 * MIB - size, 6 * MIB))
        self.assert_arrived(new)

    def test_an_existing_part_is_continued_without_differences_too(self):
        size = self.interrupted_whole(noise(16 * MIB, 2))
        done = self.push()
        self.assertIn("none of its blocks", done["notes"][0]["text"])
        self.assertEqual((done["resumed_at"], done["bytes"]), (size, 16 * MIB - size))
        self.assert_arrived(noise(16 * MIB, 2))

    def test_a_file_that_is_sent_whole_is_compressed(self):
        self.serve()
        new = b"".join(b"line %d\n" % n for n in range(800_000))
        self.old_and_new(noise(MIB), new)
        done = self.succeed("--json", "push", "--delta", "-z", self.path("image"),
                            self.on_device("image")).objects[-1]
        self.assertIn("none of its blocks", done["notes"][0]["text"])
        self.assertEqual(done["bytes"], len(new))
        self.assertLess(done["sent_bytes"], len(new))
        self.assert_arrived(new)

    def test_differences_may_be_asked_for_with_compression(self):
        self.serve()
        new = bytes(2 * MIB) + noise(3 * MIB)
        self.old_and_new(noise(3 * MIB), new)
        done = self.succeed("--json", "push", "--delta", "-z", self.path("image"),
                            self.on_device("image")).objects[-1]
        self.assertEqual((done["bytes"], done["kept"]), (2 * MIB, 3 * MIB))
        self.assert_arrived(new)

    def test_a_plan_reads_only(self):
        self.serve()
        self.old_and_new(noise(MIB), b"new" + noise(MIB))
        done = self.succeed("--json", "-n", "push", "--delta", self.path("image"),
                            self.on_device("image")).objects
        self.assertEqual([entry.get("action") for entry in done], ["replace", None])
        self.assertEqual((done[-1]["bytes"], done[-1]["dry_run"]), (3 + MIB, True))
        self.assertNotIn("kept", done[-1])
        self.assertTrue(self.content("device/image") == noise(MIB), "the old file stays")
        self.assertEqual(self.leftovers(), [])

    def test_a_slow_line_gets_only_differences_unasked(self):
        self.serve()
        old = noise(5 * MIB)
        new = old[:4 * MIB] + b"x" + old[4 * MIB:]
        self.old_and_new(old, new)
        line = ThinLine(400_000, 0.005, 7111, 5111)
        self.addCleanup(line.close)
        words = ("-d", line.where, "--json", "push", self.path("image"), self.on_device("image"))
        done = self.succeed(*words).objects[-1]
        self.assertLess(done["bytes"], MIB + 262144)
        self.assertEqual(done["bytes"] + done["kept"], len(new))
        self.assert_arrived(new)

    def test_no_delta_sends_whole_files(self):
        self.serve()
        self.old_and_new(noise(5 * MIB), noise(5 * MIB) + b"x")
        done = self.succeed("--json", "push", "--no-delta", self.path("image"),
                            self.on_device("image")).objects[-1]
        self.assertEqual(done["bytes"], 5 * MIB + 1)
        self.assertEqual(self.ctl("push", "--delta", "--no-delta", "a", "/b").status, 2)

    def test_sync_sends_differences_too(self):
        self.serve()
        os.mkdir(self.path("here"))
        old = noise(MIB)
        self.file("here/image", b"new" + old)
        self.file("device/image", old)
        done = self.succeed("--json", "sync", "--delta", self.path("here"), self.there).objects[-1]
        self.assertEqual((done["bytes"], done["kept"]), (3, MIB))
        self.assertTrue(self.content("device/image") == b"new" + old, "wrong content")
        self.file("device/image", old)
        done = self.succeed("--json", "sync", "--no-delta", self.path("here"), self.there).objects[-1]
        self.assertEqual(done["bytes"], 3 + MIB)

    def test_the_owner_is_kept(self):
        self.serve()
        self.old_and_new(noise(MIB), b"new" + noise(MIB))
        os.chown(self.on_device("image"), 1234, 5678)
        self.push()
        st = os.stat(self.on_device("image"))
        self.assertEqual((st.st_uid, st.st_gid), (1234, 5678))

    def test_a_terminal_shows_what_was_kept(self):
        self.serve()
        self.old_and_new(noise(MIB), b"new" + noise(MIB))
        status, shown = self.on_terminal("push", "--delta", self.path("image"),
                                         self.on_device("image"))
        self.assertEqual(status, 0)
        self.assertIn(b"1 file, 3 B, 1.0 MiB kept", shown)

