# SPDX-License-Identifier: Apache-2.0
"""The background start, the pid file, signals, and the complete log of a run."""
import os
import random
import signal
import subprocess
import unittest

from support import world
from support.case import EndToEndCase
from support.logs import DEBUG, ERR, INFO, LOCAL5, NOTICE, WARNING
from support.wait import wait_until
from support.wire import request

PID_FILE = world.PID_FILE
BANNER_RULE = "=" * 50


def pid_file():
    with open(PID_FILE, encoding="latin-1") as file:
        return file.read()


def write_pid_file(text):
    with open(PID_FILE, "w", encoding="latin-1") as file:
        file.write(text)


def dead_pid():
    """The pid of a process that has ended."""
    process = subprocess.Popen(["true"])
    process.wait()
    return process.pid


class BackgroundTest(EndToEndCase):
    """The files and output of the launcher, and the attributes that the daemon keeps."""

    def test_the_launcher_writes_the_daemons_number_into_the_pid_file(self):
        daemon = self.daemon(background=True)
        wait_until(lambda: os.path.exists(PID_FILE), "the pid file")
        self.assertEqual(pid_file(), f"{daemon.pid}\n")
        self.assert_stops(daemon)
        self.assertFalse(os.path.exists(PID_FILE))

    def test_the_launcher_says_with_its_own_number_that_it_went_to_the_background(self):
        daemon = self.daemon(background=True)
        line = self.log.wait_for("daemon backgrounded", NOTICE)
        self.assertEqual(line.pid, daemon.process.pid)
        self.assert_stops(daemon)

    def test_no_temporary_file_stays_beside_the_pid_file(self):
        daemon = self.daemon(background=True)
        self.assertEqual([name for name in os.listdir("/var/run") if "runeld" in name],
                         ["runeld.pid"])
        self.assert_stops(daemon)
        self.assertEqual([name for name in os.listdir("/var/run") if "runeld" in name], [])

    def test_the_daemon_keeps_session_group_directory_umask_and_streams(self):
        daemon = self.daemon(background=True, setup=lambda: (os.umask(0o037), None)[1])
        self.assertEqual(os.getsid(daemon.pid), daemon.process.pid)
        self.assertEqual(os.getpgid(daemon.pid), daemon.process.pid)
        self.assertEqual(os.readlink(f"/proc/{daemon.pid}/cwd"), "/")
        with open(f"/proc/{daemon.pid}/status", encoding="ascii") as status:
            self.assertIn("Umask:\t0037\n", status.read())
        targets = daemon.descriptors()
        self.assertEqual([targets[number] for number in (0, 1, 2)],
                         ["/dev/null", daemon.stderr_path, daemon.stderr_path])
        self.assert_stops(daemon)

    def test_the_foreground_has_no_pid_file(self):
        write_pid_file(f"{os.getpid()}\n")
        daemon = self.daemon()
        self.assertEqual(pid_file(), f"{os.getpid()}\n")
        self.assert_stops(daemon)
        self.assertEqual(pid_file(), f"{os.getpid()}\n")


class PidFileAtStartTest(EndToEndCase):
    """The effect of an existing pid file on a start."""

    def refused(self, message):
        """The start ends with 0 after the log line @p line and runs no daemon."""
        launcher = self.daemon(background=True, wait=False)
        self.assertEqual(launcher.process.wait(60), 0)
        self.assertEqual([(f"({line.pid}) {line.text}", line.level) for line in self.log.lines],
                         [(message, ERR)])
        self.assertEqual(world.processes(), [])

    def starts(self):
        daemon = self.daemon(background=True)
        self.assertEqual(pid_file(), f"{daemon.pid}\n")
        self.assert_stops(daemon)
        self.assertEqual(self.log.count(r".*(already running|cannot parse).*"), 0)

    def test_a_live_process_refuses_the_start_with_that_process_number(self):
        write_pid_file(f"{os.getpid()}\n")
        self.refused(f"({os.getpid()}) daemon is already running")
        self.assertEqual(pid_file(), f"{os.getpid()}\n")

    def test_a_second_daemon_is_refused_by_the_first(self):
        first = self.daemon(background=True)
        mark = self.log.mark()
        second = self.daemon(background=True, wait=False)
        self.assertEqual(second.process.wait(60), 0)
        line = self.log.wait_for("daemon is already running", ERR, mark)
        self.assertEqual(line.pid, first.pid)
        self.assertEqual(pid_file(), f"{first.pid}\n")
        self.assert_stops(first)

    def test_a_dead_process_number_is_overwritten(self):
        write_pid_file(f"{dead_pid()}\n")
        self.starts()

    def test_the_number_is_read_up_to_the_first_other_byte(self):
        write_pid_file(f" \n {os.getpid()}x\n")
        self.refused(f"({os.getpid()}) daemon is already running")

    def test_text_refuses_the_start_with_a_zero(self):
        write_pid_file("nonsense\n")
        self.refused("(0) cannot parse pid file")
        self.assertEqual(pid_file(), "nonsense\n")

    def test_an_empty_file_refuses_the_start(self):
        write_pid_file("")
        self.refused("(0) cannot parse pid file")
        self.assertEqual(pid_file(), "")

    def test_a_directory_refuses_the_start(self):
        os.mkdir(PID_FILE)
        self.refused("(0) cannot parse pid file")
        self.assertTrue(os.path.isdir(PID_FILE))

    def test_zero_names_the_own_process_group_which_is_alive(self):
        write_pid_file("0\n")
        self.refused("(0) daemon is already running")

    def test_minus_one_names_all_processes(self):
        bystander = subprocess.Popen(["sleep", "1000"])
        self.addCleanup(bystander.wait)
        self.addCleanup(bystander.kill)
        write_pid_file("-1\n")
        launcher = self.daemon(background=True, wait=False)
        self.assertEqual(launcher.process.wait(60), 0)
        self.assertEqual(self.log.wait_for("daemon is already running", ERR).pid, -1)
        self.assertIsNone(bystander.poll())

    def test_the_number_of_a_group_that_has_ended_is_stale(self):
        write_pid_file("-4194300\n")
        self.starts()

    def test_a_file_that_cannot_be_opened_does_not_prevent_the_start(self):
        os.symlink(PID_FILE, PID_FILE)
        daemon = self.daemon(background=True)
        self.assertEqual(self.log.count(r".*(already running|cannot parse).*"), 0)
        self.assert_stops(daemon)

    def test_a_fifo_does_not_block_the_start(self):
        os.mkfifo(PID_FILE)
        self.refused("(0) cannot parse pid file")

    def test_a_read_only_directory_prevents_only_the_pid_file(self):
        world.mount("-o", "remount,ro", "/run")
        self.addCleanup(world.mount, "-o", "remount,rw", "/run")
        daemon = self.daemon(background=True)
        line = self.log.wait_for("unable to write pid file: .*", ERR)
        self.assertEqual((line.pid, line.text), (
            daemon.process.pid, "unable to write pid file: Read-only file system"))
        self.assertEqual(self.log.wait_for("daemon backgrounded").pid, daemon.process.pid)
        self.assert_stops(daemon)
        line = self.log.wait_for("unable to read pid file: .*", ERR)
        self.assertEqual(line.text, "unable to read pid file: No such file or directory")
        self.assertEqual(self.log.count("stop ServerBase with SIGTERM"), 0)


class PidFileAtStopTest(EndToEndCase):
    """How the daemon uses the pid file at its end."""

    def test_its_own_number_makes_it_signal_itself(self):
        daemon = self.daemon(background=True)
        self.assert_stops(daemon)
        self.log.wait_for("stop ServerBase with SIGTERM", INFO, pid=daemon.pid)
        self.assertFalse(os.path.exists(PID_FILE))

    def test_another_number_is_signalled(self):
        victim = subprocess.Popen(["sleep", "1000"])
        daemon = self.daemon(background=True)
        wait_until(lambda: os.path.exists(PID_FILE), "the pid file")
        write_pid_file(f"{victim.pid}\n")
        self.assert_stops(daemon)
        self.assertEqual(victim.wait(60), -signal.SIGTERM)
        self.assertFalse(os.path.exists(PID_FILE))

    def test_text_makes_it_signal_the_whole_group(self):
        # The shell starts the sleep before the daemon, in the same session.
        daemon = self.daemon(background=True,
                             wrapper=("sh", "-c", 'sleep 1000 & echo $! >"$1"; shift; exec "$@"',
                                      "sh", self.path("member")))
        member = int(self.content("member"))
        self.assertEqual(os.getpgid(member), os.getpgid(daemon.pid))
        wait_until(lambda: os.path.exists(PID_FILE), "the pid file")
        write_pid_file("nonsense\n")
        self.assert_stops(daemon)
        self.log.wait_for("cannot parse pid file", WARNING, pid=daemon.pid)
        self.log.wait_for("stop ServerBase with SIGTERM", INFO, pid=daemon.pid)
        self.assertEqual(os.waitstatus_to_exitcode(os.waitpid(member, 0)[1]), -signal.SIGTERM)
        self.assertFalse(os.path.exists(PID_FILE))

    def test_a_missing_file_is_logged_and_no_process_signalled(self):
        daemon = self.daemon(background=True)
        wait_until(lambda: os.path.exists(PID_FILE), "the pid file")
        os.unlink(PID_FILE)
        self.assert_stops(daemon)
        line = self.log.wait_for("unable to read pid file: .*", ERR)
        self.assertEqual(line.text, "unable to read pid file: No such file or directory")
        self.assertEqual(self.log.count("stop ServerBase with SIGTERM"), 0)


class WholeLogTest(EndToEndCase):
    """Every log line of a run, in order, with its level."""

    def shown(self, pid):
        self.assertEqual({(line.facility, line.ident) for line in self.log.lines},
                         {(LOCAL5, "runeld")})
        return [(line.level, line.text) for line in self.log.lines if line.pid == pid]

    def expect(self, pid, expected):
        """Compares with (level, pattern) pairs. The first group of all patterns must match the same
        number."""
        shown = self.shown(pid)
        self.assertEqual(len(shown), len(expected), shown)
        for (level, text), (wanted_level, pattern) in zip(shown, expected):
            self.assertEqual(level, wanted_level, text)
            self.assertRegex(text, rf"\A{pattern}\Z")

    def start_lines(self, daemon, background):
        return [(INFO, rf"start runeld \({daemon.pid}\) {BANNER_RULE}"),
                (INFO, r" version = \d+\.\d+\.\d+"),
                (INFO, r" address = 127\.0\.0\.1"),
                (INFO, rf" daemon  = {background}"),
                (INFO, r" verbose = 0"),
                (INFO, r" port    = 5111"),
                (DEBUG, r"bind succeeded, port = 5111, socket = \d+"),
                (INFO, r"listening on port 5111")]

    def test_a_foreground_run_with_master_and_client(self):
        daemon, master = self.slave_connection()
        client = self.client()
        self.assertEqual(client.ask("hostid").fields[0], 0)
        daemon.wait_asleep()
        daemon.stop()
        self.assertEqual(master.read_to_end(), b"")
        self.expect(daemon.pid, [
            *self.start_lines(daemon, 0),
            (INFO, r"established connection to 127\.0\.0\.1, port 5112, socket \d+"),
            (INFO, r"accepted connection, accept on socket \d+ from 127\.0\.0\.1, "
                   r"new socket \d+"),
            (INFO, r"handle_data_read: creating byte count client connection, socket \d+"),
            (WARNING, r"select failed, but was due to a signal"),
            (INFO, r"exiting on signal: 15"),
            (INFO, r"closing data socket \d+"),
            (INFO, r"closing listening socket \d+"),
            (INFO, r"closing host 127\.0\.0\.1, socket \d+"),
            (ERR, r"stop\(\) called, not running as a daemon")])

    def test_a_background_run(self):
        daemon = self.daemon(background=True)
        daemon.wait_asleep()
        self.assert_stops(daemon)
        self.expect(daemon.process.pid, [(NOTICE, "daemon backgrounded")])
        self.expect(daemon.pid, [
            *self.start_lines(daemon, 1),
            (WARNING, r"select failed, but was due to a signal"),
            (INFO, r"exiting on signal: 15"),
            (INFO, r"closing listening socket \d+"),
            (INFO, r"stop ServerBase with SIGTERM"),
            (INFO, rf"stop runeld \(pid = {daemon.pid}\), exit status 0")])

    def test_the_socket_numbers_of_a_run_are_consistent(self):
        daemon, _ = self.slave_connection()
        client = self.client()
        client.ask("hostid")
        daemon.stop()
        numbers = {}
        for what, pattern in (("bound", r"bind succeeded, .* socket = (\d+)"),
                              ("host", r"established connection .* socket (\d+)"),
                              ("accept", r"accepted connection, accept on socket (\d+) .*"),
                              ("new", r"accepted connection, .* new socket (\d+)"),
                              ("handler", r".*creating byte count client connection, socket (\d+)"),
                              ("data closed", r"closing data socket (\d+)"),
                              ("listener closed", r"closing listening socket (\d+)"),
                              ("host closed", r"closing host .* socket (\d+)")):
            text = self.log.find(pattern).text
            numbers[what] = [int(word) for word in text.replace(",", " ").split()
                             if word.isdigit()][0 if what == "accept" else -1]
        self.assertEqual(numbers["bound"], numbers["accept"])
        self.assertEqual(numbers["bound"], numbers["listener closed"])
        self.assertEqual(numbers["host"], numbers["host closed"])
        self.assertEqual(numbers["new"], numbers["handler"])
        self.assertEqual(numbers["new"], numbers["data closed"])


class SignalTest(EndToEndCase):
    """The four signals that end the daemon, idle and under load."""

    SIGNALS = (signal.SIGTERM, signal.SIGQUIT, signal.SIGINT, signal.SIGABRT)

    def test_each_of_the_four_ends_it_regularly(self):
        for number in self.SIGNALS:
            for background in (False, True):
                with self.subTest(number=number, background=background):
                    mark = self.log.mark()
                    daemon = self.daemon(background=background)
                    self.assertEqual(daemon.stop(number), 0)
                    self.log.wait_for(f"exiting on signal: {int(number)}", INFO, mark)
                    self.assertFalse(os.path.exists(PID_FILE))

    def test_a_broken_pipe_signal_is_ignored(self):
        daemon = self.daemon()
        daemon.send_signal(signal.SIGPIPE)
        daemon.send_signal(signal.SIGALRM)
        self.assertEqual(self.client().ask("exec", "/bin/true").fields, (0, 2, 0, 0, 0))
        self.assert_stops(daemon)

    def test_other_signals_keep_their_default_action(self):
        daemon = self.daemon()
        daemon.send_signal(signal.SIGHUP)
        self.assertEqual(daemon.wait(), -signal.SIGHUP)

    def test_a_signal_at_any_point_of_the_start_is_not_lost(self):
        seed = random.randrange(1 << 32)
        choice = random.Random(seed)
        for turn in range(60):
            number = choice.choice(self.SIGNALS)
            with self.subTest(seed=seed, turn=turn, number=number):
                mark = self.log.mark()
                daemon = self.daemon(wait=False)
                lines = choice.randrange(9)
                wait_until(lambda: self.log.mark() - mark >= lines or daemon.process.poll(),
                           "the first lines of the log")
                daemon.send_signal(number)
                status = daemon.wait()
                if lines > 0 or status == 0:
                    # From its first log line on, the daemon blocks signals until it can handle them.
                    self.assertEqual(status, 0)
                    self.log.wait_for(f"exiting on signal: {int(number)}", INFO, mark)
                else:
                    self.assertEqual(status, -number)

    def test_a_signal_under_load_ends_it_within_a_pass(self):
        seed = random.randrange(1 << 32)
        choice = random.Random(seed)
        burst = request("fileexists", "/etc/hosts") * 200
        for turn in range(20):
            number = choice.choice(self.SIGNALS)
            with self.subTest(seed=seed, turn=turn, number=number):
                mark = self.log.mark()
                daemon = self.daemon()
                clients = [self.client() for _ in range(4)]
                for client in clients:
                    client.send(burst)
                for _ in range(choice.randrange(200)):
                    clients[0].receive()
                self.assertEqual(daemon.stop(number), 0)
                self.log.wait_for(f"exiting on signal: {int(number)}", INFO, mark)
                for client in clients:
                    client.close()

    def test_a_second_signal_only_replaces_the_first(self):
        daemon = self.daemon()
        client = self.client()
        os.mkfifo(self.path("go"))
        client.send(request("exec", "/bin/sh", "-c",
                            f"touch {self.path('up')}; read x <{self.path('go')}"))
        wait_until(lambda: os.path.exists(self.path("up")), "the program runs")
        daemon.send_signal(signal.SIGINT)
        wait_until(lambda: daemon.pending_signals() == 0, "the first signal is taken")
        daemon.send_signal(signal.SIGTERM)
        with open(self.path("go"), "w", encoding="ascii") as pipe:
            pipe.write("\n")
        self.assertEqual(daemon.wait(), 0)
        ends = [line.text for line in self.log.lines if line.text.startswith("exiting on signal")]
        self.assertEqual(ends, ["exiting on signal: 15"])


if __name__ == "__main__":
    unittest.main()
