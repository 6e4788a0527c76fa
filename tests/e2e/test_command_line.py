# SPDX-License-Identifier: Apache-2.0
"""The command line: arguments, usage text, exit statuses, standard streams."""
import itertools
import os
import re
import resource
import signal
import subprocess
import unittest

from support.case import SUCCESS, EndToEndCase
from support.daemon import BINARY, is_instrumented, sanitizer_options
from support.logs import ERR, INFO
from support.world import PID_FILE

USAGE = (b"Usage: runeld [OPTION]\n"
         b"Execute commands from the update manager daemon\n"
         b"\n"
         b" -i, --ip-address addr   IP address of the master\n"
         b" -v, --verbose           Additional -v generates more output\n"
         b" -l, --log-to-stdout     Send logging to stdout\n"
         b" -n, --nodaemon,         Run the the foreground\n"
         b" --no-daemon             Run the the foreground\n")


class UsageTest(EndToEndCase):
    """Command lines that only print the usage text."""

    def run_binary(self, *arguments, **options):
        return subprocess.run([BINARY, *arguments], capture_output=True, timeout=60,
                              stdin=subprocess.DEVNULL, start_new_session=True, check=False,
                              env={**os.environ, **sanitizer_options(self.directory)}, **options)

    def assert_usage(self, status, *arguments):
        done = self.run_binary(*arguments)
        self.assertEqual((done.returncode, done.stdout, done.stderr), (status, USAGE, b""))
        self.assertEqual(self.log.lines, [])
        self.assertFalse(os.path.exists("/var/run/runeld.pid"))

    def test_help_prints_the_usage_text_and_ends_with_0(self):
        self.assert_usage(0, "-h")
        self.assert_usage(0, "--help")

    def test_address_without_a_value_prints_the_usage_text_and_ends_with_1(self):
        self.assert_usage(1, "-i")
        self.assert_usage(1, "--ip-address")
        self.assert_usage(1, "-n", "-v", "-i", "10.0.0.1", "-i")

    def test_help_before_a_trailing_address_option_ends_the_scan(self):
        self.assert_usage(0, "-h", "-i")
        self.assert_usage(0, "-n", "--help", "--ip-address")

    def test_the_scan_reaches_a_help_that_follows_other_arguments(self):
        self.assert_usage(0, "-n", "nonsense", "-i", "10.0.0.1", "-h")

    def test_an_option_after_the_address_option_is_its_value(self):
        self.assert_usage(1, "-i", "-h", "-i")

    def test_usage_with_a_closed_standard_output_still_gives_the_status(self):
        done = subprocess.run([BINARY, "-h"], stdin=subprocess.DEVNULL, timeout=60, check=False,
                              stderr=subprocess.PIPE, preexec_fn=lambda: os.close(1),
                              env={**os.environ, **sanitizer_options(self.directory)})
        self.assertEqual((done.returncode, done.stderr), (0, b""))


class SettingsTest(EndToEndCase):
    """The settings that the start banner shows."""

    def settings(self, *arguments, **options):
        """Address, daemon and verbose in the banner."""
        mark = self.log.mark()
        daemon = self.daemon(*arguments, **options)
        shown = tuple(self.log.find(rf" {name} = .*", INFO, mark).text.partition("= ")[2]
                      for name in ("address", "daemon ", "verbose"))
        self.assert_stops(daemon)
        return shown

    def test_no_arguments_mean_a_quiet_daemon_with_the_master_on_this_device(self):
        self.assertEqual(self.settings(background=True), ("127.0.0.1", "1", "0"))

    def test_each_spelling_of_no_daemon_keeps_it_in_the_foreground(self):
        for spelling in ("-n", "--nodaemon", "--no-daemon"):
            with self.subTest(spelling):
                # A background start of the harness adds no -n. The started process must stay.
                mark = self.log.mark()
                daemon = self.daemon(spelling, background=True, wait=False)
                daemon.pid = daemon.process.pid
                self.log.wait_for("listening on port 5111", INFO, mark)
                self.assertEqual(self.log.find(r" daemon  = .*", INFO, mark).text, " daemon  = 0")
                daemon.process.send_signal(signal.SIGTERM)
                self.assertEqual(daemon.process.wait(60), 0)

    def test_each_verbose_adds_one(self):
        self.assertEqual(self.settings("-v", "--verbose", "-v"), ("127.0.0.1", "0", "3"))

    def test_grouped_short_options_are_unknown_and_ignored(self):
        self.assertEqual(self.settings("-vv", "-nv", "-vi"), ("127.0.0.1", "0", "0"))

    def test_the_last_address_wins(self):
        self.assertEqual(self.settings("-i", "127.0.0.2", "--ip-address", "127.0.0.3"),
                         ("127.0.0.3", "0", "0"))

    def test_the_address_is_taken_as_it_stands(self):
        self.assertEqual(self.settings("-i", "-v"), ("-v", "0", "0"))

    def test_an_empty_address_adds_no_host(self):
        mark = self.log.mark()
        self.assertEqual(self.settings("-i", ""), ("", "0", "0"))
        self.assertIsNotNone(self.log.find("adding empty host, ignoring", since=mark))

    def test_unknown_arguments_change_nothing(self):
        unknown = ("x", "--verbos", "--ip-address=1.2.3.4", "-V", "", "--", "-", "--NODAEMON")
        self.assertEqual(self.settings(*unknown, "-v", *unknown), ("127.0.0.1", "0", "1"))

    def test_log_to_stdout_changes_no_other_setting(self):
        self.assertEqual(self.settings("-l", "--log-to-stdout"), ("127.0.0.1", "0", "0"))

    def test_log_to_stdout_shows_what_is_logged_before_the_loop(self):
        daemon = self.daemon("-l", "-i", "", background=True)
        self.assertEqual(daemon.stderr(),
                         f"runeld: ({daemon.process.pid}) adding empty host, ignoring\n")
        self.assert_stops(daemon)

    def test_a_daemon_without_it_shows_nothing(self):
        daemon = self.daemon("-i", "", background=True)
        self.assert_stops(daemon)
        self.assertEqual(daemon.stderr(), "")

    def test_the_foreground_shows_the_log_on_standard_error(self):
        daemon = self.daemon()
        self.assertIn(f"runeld: ({daemon.pid}) listening on port 5111\n", daemon.stderr())
        self.assert_stops(daemon)


class StopLineTest(EndToEndCase):
    """The log line about the stop."""

    STOP = r"stop runeld \(pid = \d+\), exit status \d+"

    def test_the_daemon_logs_its_stop_last_with_its_own_number_twice(self):
        daemon = self.daemon(background=True)
        self.assert_stops(daemon)
        line = self.log.wait_for(self.STOP, INFO)
        self.assertEqual(line.text, f"stop runeld (pid = {daemon.pid}), exit status 0")
        self.assertEqual(line.pid, daemon.pid)
        self.assertEqual(self.log.count(self.STOP), 1)
        self.assertIs(self.log.lines[-1], line)

    def test_the_launcher_logs_no_stop(self):
        daemon = self.daemon(background=True)
        self.assertNotEqual(daemon.process.pid, daemon.pid)
        self.assertEqual(daemon.process.returncode, 0)
        self.assertEqual(self.log.count(self.STOP), 0)
        self.assert_stops(daemon)

    def test_the_foreground_logs_no_stop(self):
        self.assert_stops(self.daemon())
        self.assertEqual(self.log.count(self.STOP), 0)


class ExceptionTest(EndToEndCase):
    """An uncaught exception: a log line and status 1."""

    ODD = "unhandled exception caught, outer::OddError: 100 %s of it: %m"
    UNKNOWN = "unhandled exception caught, exception unknown"

    def throwing(self, what, **options):
        environment = {"LD_PRELOAD": os.environ["RUNELD_THROWING_SELECT"], "RUNELD_THROW": what}
        return self.daemon(environment=environment, **options)

    def last_lines(self, daemon):
        """The last three lines of the daemon, without socket numbers."""
        self.assertEqual(daemon.wait(), 1)
        own = [line for line in self.log.lines if line.pid == daemon.pid]
        return [(line.level, re.sub(r"socket \d+$", "socket N", line.text)) for line in own[-3:]]

    def test_a_standard_one_is_shown_by_type_and_text_when_all_is_closed(self):
        self.assertEqual(self.last_lines(self.throwing("error"))[1:],
                         [(INFO, "closing listening socket N"), (ERR, self.ODD)])

    def test_any_other_is_unknown(self):
        self.assertEqual(self.last_lines(self.throwing("number"))[1:],
                         [(INFO, "closing listening socket N"), (ERR, self.UNKNOWN)])

    def test_the_daemon_logs_its_stop_behind_it_and_leaves_the_pid_file(self):
        daemon = self.throwing("error", background=True)
        self.assertEqual(self.last_lines(daemon), [
            (INFO, "closing listening socket N"), (ERR, self.ODD),
            (INFO, f"stop runeld (pid = {daemon.pid}), exit status 1")])
        self.assertTrue(os.path.exists(PID_FILE))


class DescriptorTest(EndToEndCase):
    """Only the standard descriptors are available."""

    # Not testable with a sanitizer, which needs another descriptor to start.
    if not is_instrumented():
        def test_a_start_that_can_fill_one_gap_and_no_more_does_not_hang(self):
            def leave_one_gap():
                os.close(0)
                resource.setrlimit(resource.RLIMIT_NOFILE, (3, 3))
            done = subprocess.run([BINARY, "-h"], timeout=60, check=False, preexec_fn=leave_one_gap,
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE)
            # A build that counts coverage cannot open its data files either, and says so.
            errors = [line for line in done.stderr.splitlines() if not line.startswith(b"profiling:")]
            self.assertEqual((done.returncode, done.stdout, errors), (0, USAGE, []))


class StreamsTest(EndToEndCase):
    """Inherited streams and signal settings."""

    def test_closed_standard_streams_are_opened_on_dev_null(self):
        for count in range(4):
            for closed in itertools.combinations((0, 1, 2), count):
                with self.subTest(closed=closed):
                    def close(numbers=closed):
                        for number in numbers:
                            os.close(number)
                    daemon = self.daemon(setup=close)
                    targets = daemon.descriptors()
                    for number in (0, 1, 2):
                        expected = "/dev/null" if number in closed or number == 0 else \
                            daemon.stderr_path
                        self.assertEqual(targets[number], expected)
                        self.assertFalse(daemon.closes_on_exec(number))
                    # The reserve descriptor, but not those that only filled the gaps.
                    others = [targets[number] for number in targets if number > 2]
                    self.assertEqual(others.count("/dev/null"), 1)
                    path = self.file("there")
                    self.assertEqual(self.client().ask("fileexists", path).fields, SUCCESS)
                    self.assert_stops(daemon)

    def test_closed_standard_streams_do_not_keep_a_daemon_from_starting(self):
        daemon = self.daemon(background=True, setup=lambda: os.closerange(0, 3))
        self.assertEqual([daemon.descriptors()[number] for number in (0, 1, 2)], ["/dev/null"] * 3)
        self.assert_stops(daemon)

    def test_an_ignored_child_signal_does_not_hide_how_programs_end(self):
        daemon = self.daemon(setup=lambda: signal.signal(signal.SIGCHLD, signal.SIG_IGN))
        client = self.client()
        self.assertEqual(client.ask("exec", "/bin/true").fields, (0, 2, 0, 0, 0))
        self.assertEqual(client.ask("exec", "/bin/sh", "-c", "exit 7").fields, (1, 2, 7, 0, 0))
        self.assert_stops(daemon)

    def test_every_other_descriptor_closes_on_exec(self):
        daemon, _ = self.slave_connection()
        self.client()
        self.log.wait_for("accepted connection, .*")
        numbers = [number for number in daemon.descriptors() if number > 2]
        self.assertGreaterEqual(len(numbers), 3)
        self.assertEqual([one for one in numbers if not daemon.closes_on_exec(one)], [])
        self.assert_stops(daemon)


if __name__ == "__main__":
    unittest.main()
