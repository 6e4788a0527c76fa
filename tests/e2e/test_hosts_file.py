# SPDX-License-Identifier: Apache-2.0
"""The master's alias in /etc/hosts, which names the host of the newest agent."""
import os
import stat
import unittest

from support import world
from support.case import EndToEndCase
from support.logs import ERR, INFO, WARNING

HOSTS = "/etc/hosts"
NEW = "/etc/hosts.new"
AGENT = "127.0.0.9"
ENTRY = b"127.0.0.9 update-master\n"


class HostsFileCase(EndToEndCase):
    """Restores /etc after each test."""

    def setUp(self):
        super().setUp()
        self.restore()
        self.addCleanup(self.restore)

    def restore(self):
        for path in (HOSTS, NEW):
            if os.path.isdir(path) and not os.path.islink(path):
                os.rmdir(path)
            elif os.path.lexists(path):
                os.unlink(path)
        self.write(world.HOSTS.encode())

    def write(self, content, path=HOSTS):
        with open(path, "wb") as file:
            file.write(content)
        os.chown(path, 0, 0)
        os.chmod(path, 0o644)

    def hosts(self):
        with open(HOSTS, "rb") as file:
            return file.read()

    def agent_connects(self, source=AGENT):
        """Returns when the daemon has accepted the agent: the hosts file is then rewritten."""
        mark = self.log.mark()
        agent = self.client(source=source)
        agent.send(b"<hello/>")
        self.log.wait_for("handleMessage: no peer_ link, buffering '<hello/>'", WARNING, since=mark)
        return agent

    def assert_rewritten(self, before, after):
        self.write(before)
        daemon = self.daemon()
        self.agent_connects()
        self.assertEqual(self.hosts(), after)
        self.assertFalse(os.path.lexists(NEW))
        self.assertEqual(self.log.count("setEtcHosts: .*"), 0)
        self.assert_stops(daemon)

    def assert_untouched(self, *complaints):
        """Expects the log lines of a failed rewrite, and the old content."""
        before = self.hosts()
        daemon = self.daemon()
        self.agent_connects()
        self.assertEqual(self.hosts(), before)
        lines = [(line.level, line.text) for line in self.log.lines if "setEtcHosts" in line.text]
        self.assertEqual(lines, list(complaints))
        self.assert_stops(daemon)


class RewriteTest(HostsFileCase):
    """The content after a rewrite."""

    def test_the_alias_names_the_address_of_the_agent(self):
        self.assert_rewritten(b"127.0.0.1 localhost\n", b"127.0.0.1 localhost\n" + ENTRY)

    def test_an_older_entry_is_replaced_and_all_others_are_kept_in_order(self):
        self.assert_rewritten(b"# top\n127.0.0.1 localhost\n10.0.0.1 update-master\n\n::1 six\n",
                              b"# top\n127.0.0.1 localhost\n\n::1 six\n" + ENTRY)

    def test_an_alias_that_begins_a_longer_name_is_dropped_too(self):
        self.assert_rewritten(b"10.0.0.1 update-master.example\n10.0.0.2 x\n",
                              b"10.0.0.2 x\n" + ENTRY)

    def test_an_alias_without_a_blank_before_it_is_kept(self):
        self.assert_rewritten(b"10.0.0.1\tupdate-master\n10.0.0.1 the-update-master\n",
                              b"10.0.0.1\tupdate-master\n10.0.0.1 the-update-master\n" + ENTRY)

    def test_an_empty_file_gets_the_entry(self):
        self.assert_rewritten(b"", ENTRY)

    def test_a_last_line_without_a_newline_gets_one(self):
        self.assert_rewritten(b"127.0.0.1 localhost", b"127.0.0.1 localhost\n" + ENTRY)

    def test_carriage_returns_are_kept(self):
        self.assert_rewritten(b"a b\r\n10.0.0.1 update-master\r\n", b"a b\r\n" + ENTRY)

    def test_zero_bytes_are_kept(self):
        self.assert_rewritten(b"a\0b\nx\0 update-master\n", b"a\0b\n" + ENTRY)

    def test_a_line_of_a_megabyte_is_kept(self):
        line = b"x" * (1 << 20) + b"\n"
        self.assert_rewritten(line, line + ENTRY)

    def test_each_agent_takes_the_alias_over(self):
        daemon = self.daemon()
        for last in (9, 10, 11):
            self.agent_connects(f"127.0.0.{last}").close()
            self.assertEqual(self.hosts(),
                             f"{world.HOSTS}127.0.0.{last} update-master\n".encode())
        self.assert_stops(daemon)

    def test_other_connections_leave_the_file_alone(self):
        before = os.stat(HOSTS)
        daemon = self.daemon()
        stray = self.client()
        stray.send(b"hello\r\n")
        self.log.wait_for("handle_data_read: ignoring telnet connection, .*", INFO)
        self.client().ask("hostid")
        self.assertEqual(os.stat(HOSTS).st_ino, before.st_ino)
        self.assertEqual(self.hosts(), world.HOSTS.encode())
        self.assert_stops(daemon)

    def test_a_missing_file_is_created(self):
        os.unlink(HOSTS)
        daemon = self.daemon(setup=lambda: os.umask(0o077))
        self.agent_connects()
        self.assertEqual(self.hosts(), b"127.0.0.1 localhost\n" + ENTRY)
        self.assertEqual(stat.S_IMODE(os.stat(HOSTS).st_mode), 0o644)
        self.log.wait_for("setEtcHosts: cannot open /etc/hosts", WARNING)
        self.assert_stops(daemon)

    def test_mode_and_owner_are_kept(self):
        os.chmod(HOSTS, 0o664)
        os.chown(HOSTS, 12, 34)
        daemon = self.daemon(setup=lambda: os.umask(0o077))
        self.agent_connects()
        about = os.stat(HOSTS)
        self.assertEqual((about.st_uid, about.st_gid), (12, 34))
        self.assertEqual(stat.S_IMODE(about.st_mode), 0o664)
        self.assert_stops(daemon)

    def test_a_stale_file_of_an_interrupted_rewrite_is_replaced(self):
        self.write(b"half a li", NEW)
        self.assert_rewritten(b"a b\n", b"a b\n" + ENTRY)

    def test_a_link_in_place_of_the_new_file_is_not_followed(self):
        victim = self.file("victim", b"precious")
        os.symlink(victim, NEW)
        self.assert_rewritten(b"a b\n", b"a b\n" + ENTRY)
        self.assertEqual(self.content("victim"), b"precious")

    def test_a_fifo_in_either_place_does_not_block(self):
        os.mkfifo(NEW)
        self.assert_rewritten(b"a b\n", b"a b\n" + ENTRY)
        os.unlink(HOSTS)
        os.mkfifo(HOSTS)
        daemon = self.daemon()
        self.agent_connects()
        self.assertEqual(self.hosts(), ENTRY)
        self.assert_stops(daemon)


class FailureTest(HostsFileCase):
    """The old file is never damaged."""

    def test_a_mount_point_cannot_be_replaced(self):
        mounted = self.file("mounted", b"a b\n")
        world.mount("--bind", mounted, HOSTS)
        self.addCleanup(world.unmount, HOSTS)
        self.assert_untouched((ERR, "setEtcHosts: cannot rename /etc/hosts.new to /etc/hosts,"
                                    "Device or resource busy"))
        self.assertFalse(os.path.lexists(NEW))

    def own_etc(self, options):
        """An /etc with only a hosts file."""
        world.mount("-t", "tmpfs", "-o", options, "tmpfs", "/etc")
        self.addCleanup(world.unmount, "/etc")
        self.write(b"127.0.0.1 localhost\n10.0.0.1 update-master\n")

    def test_a_read_only_file_system(self):
        self.own_etc("size=64k")
        world.mount("-o", "remount,ro", "/etc")
        self.assert_untouched((ERR, "setEtcHosts: cannot open /etc/hosts.new,Read-only file system"))

    def test_a_full_file_system(self):
        self.own_etc("size=8k")
        self.write(b"x" * 4096, "/etc/filler")
        self.assert_untouched((ERR, "setEtcHosts: error writing /etc/hosts.new,"
                                    "No space left on device"))
        self.assertFalse(os.path.lexists(NEW))

    def test_a_directory_in_place_of_the_new_file(self):
        os.mkdir(NEW)
        self.assert_untouched((ERR, "setEtcHosts: cannot open /etc/hosts.new,Is a directory"))

    def test_a_directory_in_place_of_the_file(self):
        os.unlink(HOSTS)
        os.mkdir(HOSTS)
        daemon = self.daemon()
        self.agent_connects()
        self.log.wait_for("setEtcHosts: error reading /etc/hosts,Is a directory", ERR)
        self.assertTrue(os.path.isdir(HOSTS))
        self.assertFalse(os.path.lexists(NEW))
        self.assert_stops(daemon)


if __name__ == "__main__":
    unittest.main()
