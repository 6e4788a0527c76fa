# SPDX-License-Identifier: Apache-2.0
"""Programs that run as jobs: exec --stream, sh --stream, job."""
import contextlib
import hashlib
import os
import re
import shutil
import signal
import socket
import stat
import subprocess
import time
import unittest

from support import networks
from support.ctl import Between, CtlCase, answer_each, hang, reply
from support.jobs import JOBS, JobCase, alive
from support.wait import TIMEOUT, wait_until

SOURCE = os.path.join(os.path.dirname(__file__), "../../client/jobs/job_scripts.cc")
DAY = 86400


class Stream(JobCase):
    """The basic promises, with each shell that a device may have: see the classes below."""

    def test_output_is_seen_while_the_program_runs(self):
        hold = self.fifo("hold")
        run = self.begin("exec", "--stream", "sh", "-c",
                         f"echo one; echo oops >&2; cat {hold}; echo two; exit 3")
        run.wait_out(b"one\n")
        run.wait_err(b"oops\n")
        self.assertEqual(run.out, b"one\n")
        self.open_fifo("hold")
        self.assertEqual((run.finish(), run.out, run.err), (3, b"one\ntwo\n", b"oops\n"))
        self.assertEqual(os.listdir(JOBS), [])

    def test_a_program_that_writes_for_seconds_is_seen_piece_by_piece(self):
        run = self.begin("sh", "--stream", "for i in 1 2 3 4; do echo $i; sleep 1; done")
        times = []
        for number in range(1, 5):
            run.wait_out(b"%d\n" % number)
            times.append(time.monotonic())
        self.assertEqual((run.finish(), run.out), (0, b"1\n2\n3\n4\n"))
        self.assertGreater(times[-1] - times[0], 1.5)

    def test_the_exit_status_is_the_programs(self):
        for words, status in ((("true",), 0), (("sh", "-c", "exit 77"), 77),
                              (("sh", "-c", "kill -9 $$"), 137), (("/no/such/program",), 127),
                              ((self.file("plain"),), 126), (("exit", "3"), 127)):
            self.assertEqual(self.ctl("exec", "--stream", "--", *words).status, status, words)

    def test_arguments_arrive_unchanged(self):
        words = ["", "a b", "'\"$`\\", "*", "new\nline", "\x01\xff", "-n", "--"]
        result = self.succeed("exec", "--stream", "printf", "<%s>", *words)
        self.assertEqual(result.out, "".join(f"<{word}>" for word in words).encode())

    def test_binary_output_arrives_unchanged(self):
        data = os.urandom(300000) + bytes(5000) + b"no newline at the end"
        path = self.file("data", data)
        result = self.ctl("exec", "--stream", "sh", "-c", f"cat {path}; cat {path} >&2")
        self.assertEqual((result.status, result.out == data, result.err == data), (0, True, True))

    def test_standard_input_is_sent_first(self):
        data = os.urandom(2500000)
        result = self.succeed("exec", "--stream", "--stdin", "sha256sum", feed=data)
        self.assertEqual(result.text.split()[0], hashlib.sha256(data).hexdigest())
        self.assertEqual(self.succeed("sh", "--stream", "wc -c", feed=b"unsent").text.strip(), "0")
        self.assertEqual(self.succeed("exec", "--stream", "--stdin", "cat", feed=b"").out, b"")

    def test_the_program_has_the_daemons_environment_umask_and_directory(self):
        # A shell counts in SHLVL how many shells it runs in.
        text = "umask; pwd; env | grep -v -e ^_= -e ^SHLVL= | sort"
        plain = self.succeed("exec", "sh", "-c", text)
        self.assertEqual(self.succeed("exec", "--stream", "sh", "-c", text).out, plain.out)
        self.succeed("exec", "--stream", "touch", self.path("made"))
        self.succeed("exec", "touch", self.path("made-plain"))
        self.assertEqual(os.stat(self.path("made")).st_mode, os.stat(self.path("made-plain")).st_mode)

    def test_the_first_signal_is_sigint_and_it_has_its_default_action(self):
        run = self.begin("exec", "--stream", "sh", "-c", "echo ready; sleep 1000; echo no")
        run.wait_out(b"ready\n")
        run.interrupt()
        self.assertEqual((run.finish(), run.out), (130, b"ready\n"))
        self.assertIn(b"SIGINT sent to the program", run.err)

    def test_the_second_signal_is_sigterm_and_the_third_leaves_the_program_running(self):
        run = self.begin("exec", "--stream", "sh", "-c",
                         "trap 'echo int' INT; trap 'echo term' TERM; echo ready $$; "
                         "while :; do sleep 0.05; done")
        run.wait_out(b"ready")
        for said in (b"int\n", b"term\n"):
            run.interrupt()
            run.wait_out(said)
        program = int(re.search(rb"ready (\d+)", run.out)[1])
        run.interrupt()
        self.assertEqual(run.finish(), 130)
        job = re.search(rb"the program continues \(runelctl -d 127.0.0.1 job attach (\S+)\)", run.err)
        job = job[1].decode()
        self.assertTrue(alive(program))
        self.assertEqual(self.states(), {job: "running"})
        back = self.begin("job", "attach", job)
        back.wait_out(b"term\n")
        self.assertEqual(self.ctl("job", "stop", "--grace", "0.5", job).status, 0)
        self.assertEqual((back.finish(), alive(program)), (137, False))
        self.assertEqual(back.out, run.out + b"term\n")

    def test_a_second_start_with_the_same_id_is_refused(self):
        mark = self.path("mark")
        words = ("job", "start", "--id", "deploy-7", "sh", "-c", f"echo x >>{mark}")
        self.assertEqual(self.succeed(*words).text, "deploy-7\n")
        result = self.ctl("--json", *words)
        self.assertEqual((result.status, result.objects[-1]["errno"], result.objects[-1]["started"]),
                         (1, 17, False))
        self.wait_ended("deploy-7")
        self.assertEqual(self.ctl(*words).errors,
                         ["runelctl: 127.0.0.1: job deploy-7 exists already "
                          "(runelctl -d 127.0.0.1 job attach deploy-7)"])
        self.assertEqual(self.content("mark"), b"x\n")

    def test_of_many_starts_one_wins(self):
        runs = [self.begin("job", "start", "--id", "one", "sleep", "1000") for _ in range(8)]
        statuses = sorted(run.finish() for run in runs)
        self.assertEqual(statuses, [0] + [1] * 7)

    def test_a_limit_stops_the_program_and_its_children(self):
        run = self.begin("exec", "--stream", "--timeout", "1", "sh", "-c",
                         "trap '' TERM; sleep 1000 & echo $! $$; while :; do sleep 0.1; done")
        run.wait_out(b"\n")
        children = [int(word) for word in run.out.split()]
        self.assertEqual(run.finish(), 124)
        self.assertEqual([alive(pid) for pid in children], [False, False])
        self.assertRegex(run.err, rb"exceeded its time limit")
        self.assertEqual(self.succeed("exec", "--stream", "--timeout", "100", "echo", "x").out, b"x\n")

    def test_a_program_that_ignores_sigterm_ends_at_the_deadline_too(self):
        mark = self.path("pid")
        result = self.ctl("--deadline", "2", "sh", "--stream",
                          f"trap '' TERM; echo $$ >{mark}; echo said; while :; do sleep 0.1; done")
        self.assertEqual((result.status, result.out), (255, b"said\n"))
        self.assertRegex(result.errors[-1], r"deadline exceeded \(the program is being stopped: "
                         r"runelctl -d 127.0.0.1 job attach runelctl-[0-9a-f]+\)")
        program = int(self.content("pid"))
        wait_until(lambda: not alive(program), "the program ends")
        (job,) = self.states()
        again = self.ctl("job", "attach", job)
        self.assertEqual((again.status, again.out), (137, b"said\n"))

    def test_a_child_that_keeps_the_output_open_does_not_delay_the_end(self):
        hold = self.fifo("hold")
        result = self.succeed("sh", "--stream", f"(cat {hold}; echo late) & echo done")
        self.assertEqual(result.out, b"done\n")

    def test_output_beyond_the_limit_is_drained_counted_and_reported(self):
        job = self.start_job("sh", "-c", "head -c 200000 /dev/zero | tr '\\0' x; echo end >&2",
                             options=("--job-limit", "64K"))
        self.assertEqual(self.ctl("job", "wait", job).status, 0)
        result = self.ctl("--json", "job", "output", job)
        self.assertEqual((result.status, result.objects[-1]["lost_stdout"]), (1, 200000 - 65536))
        self.assertTrue(result.objects[-1]["truncated"])
        plain = self.ctl("job", "output", job)
        self.assertEqual(plain.out, b"x" * 65536)
        self.assertRegex(plain.err, rb"^end\n.*131 KiB of standard output did not fit")

    def test_fetched_output_makes_room(self):
        data = os.urandom(40 * 8192)
        pieces = [data[at:at + 8192] for at in range(0, len(data), 8192)]
        turns = self.fifo("turns")
        path = self.file("data", data)
        script = (f"exec 9<{turns}; i=0; while [ $i -lt {len(pieces)} ]; do "
                  f"dd if={path} bs=8192 skip=$i count=1 2>/dev/null; i=$((i + 1)); read -r x <&9; done")
        run = self.begin("exec", "--stream", "--job-limit", "64K", "sh", "-c", script)
        with open(turns, "wb", buffering=0) as turn:
            for number in range(len(pieces)):
                run.wait_for(lambda now, end=(number + 1) * 8192: len(now.out) >= end, f"{number}")
                turn.write(b"\n")
        self.assertEqual((run.finish(), run.err), (0, b""))
        self.assertEqual(hashlib.sha256(run.out).digest(), hashlib.sha256(data).digest())

    def test_nothing_is_lost_or_doubled_when_the_connection_is_cut(self):
        data = os.urandom(150000)
        path = self.file("data", data)
        script = f"for i in 0 1 2; do dd if={path} bs=50000 skip=$i count=1; sleep 0.3; done 2>/dev/null"
        for limit in (1, 300, 2000, 60000, 120000):
            between = Between(self, limit, back=True)
            result = self.ctl("-d", between.where, "exec", "--stream", "sh", "-c", script)
            self.assertEqual((result.status, hashlib.sha256(result.out).digest()),
                             (0, hashlib.sha256(data).digest()), (limit, result.err))
            self.assertIsNone(between.limit, "was not cut")
        self.assertIn(b"trying to connect again", result.err)

    def test_the_input_arrives_once_when_the_connection_is_cut(self):
        data = os.urandom(3000000)
        for limit in (5000, 1200000, 2900000):
            between = Between(self, limit)
            result = self.ctl("-d", between.where, "exec", "--stream", "--stdin", "sha256sum", feed=data)
            self.assertEqual(result.text.split()[:1], [hashlib.sha256(data).hexdigest()], result.err)
            self.assertIsNone(between.limit, "was not cut")

    def test_a_job_survives_the_daemon(self):
        hold = self.fifo("hold")
        run = self.begin("exec", "--stream", "sh", "-c", f"echo one; cat {hold}; echo two; exit 5")
        run.wait_out(b"one\n")
        self.device.send_signal(signal.SIGKILL)
        self.device.wait()
        run.wait_err(b"trying to connect again")
        self.open_fifo("hold")
        self.device = self.start_device()
        self.assertEqual((run.finish(), run.out), (5, b"one\ntwo\n"))

    def test_finished_jobs_are_removed_days_later_by_the_next_start(self):
        hold = self.fifo("hold")
        old = self.start_job("true")
        young = self.start_job("true")
        running = self.start_job("cat", hold)
        others = self.start_job("true", options=("--id", "rollout-1"))
        for job in (old, young, others):
            self.wait_ended(job)
        killed = self.start_job("cat", hold)
        os.kill(self.wrapper_of(killed), signal.SIGKILL)
        for job, days in ((old, 8), (young, 6), (running, 8), (others, 8), (killed, 8)):
            then = time.time() - days * DAY
            os.utime(self.files_of(job), (then, then))
        new = self.start_job("true")
        wait_until(lambda: not os.path.exists(self.files_of(old)), "the old job is removed")
        wait_until(lambda: not os.path.exists(self.files_of(killed)), "the killed job is removed")
        self.assertEqual(set(self.states()), {young, running, others, new})
        self.start_job("true", options=("--job-days", "6"))
        wait_until(lambda: not os.path.exists(self.files_of(young)), "the younger job is removed")
        self.assertIn(running, self.states())
        self.assertIn(others, self.states())


class StreamWithBash(Stream):
    def setUp(self):
        super().setUp()
        self.as_shell("/usr/bin/bash")


class StreamWithBusybox(Stream):
    """The shell and all utilities are those of busybox."""

    def start_device(self):
        path = self.path("busybox-bin")
        if not os.path.isdir(path):
            self.busybox_path()
            self.as_shell("/usr/bin/busybox")
        return self.daemon(environment={"PATH": path})


class Place(JobCase):
    """The directory of the jobs belongs to root alone, and nothing replaces it."""

    def refused(self, directory, pattern):
        result = self.ctl("job", "start", "--job-directory", directory, "touch", self.path("ran"))
        self.assertEqual(result.status, 1)
        self.assertRegex(result.errors[0], "the device has no safe directory for jobs: " + pattern)
        self.assertFalse(os.path.exists(self.path("ran")))

    def private(self):
        """A directory below /var/lib that only root can change."""
        os.makedirs("/var/lib/runel/own/a/b", mode=0o700)
        return "/var/lib/runel/own"

    def test_it_is_made_for_root_alone(self):
        self.start_job("true")
        for path in ("/var/lib/runel", JOBS):
            about = os.stat(path)
            self.assertEqual((about.st_uid, stat.S_IMODE(about.st_mode)), (0, 0o700))

    def test_the_files_of_a_job_are_private(self):
        job = self.start_job("true")
        self.wait_ended(job)
        self.assertEqual(stat.S_IMODE(os.stat(self.files_of(job)).st_mode), 0o700)
        modes = {stat.S_IMODE(os.stat(os.path.join(self.files_of(job), name)).st_mode)
                 for name in os.listdir(self.files_of(job))}
        self.assertEqual(modes, {0o600})
        self.assertEqual(len(self.read_job(job, "started").split()), 10)

    def test_a_directory_that_another_user_can_change_is_refused(self):
        own = self.private()
        os.chown(f"{own}/a", 1000, 0)
        self.refused(f"{own}/a/b", f"{own}/a: does not belong to root")
        os.chown(f"{own}/a", 0, 0)
        for mode in (0o770, 0o702, 0o1777):
            os.chmod(f"{own}/a", mode)
            self.refused(f"{own}/a/b/c", f"{own}/a: other users than root can write to it")
        self.refused("/tmp/jobs", "/tmp: other users")
        self.assertFalse(os.path.exists("/tmp/jobs"))

    def test_a_link_in_the_path_is_refused(self):
        own = self.private()
        os.symlink("a", f"{own}/link")
        self.refused(f"{own}/link", f"{own}/link: is a symbolic link")
        self.refused(f"{own}/link/b", f"{own}/link: is a symbolic link")
        with open(f"{own}/file", "wb"):
            pass
        self.refused(f"{own}/file", f"{own}/file: is not a directory")

    def test_a_directory_that_cannot_be_made_is_refused(self):
        own = self.private()
        subprocess.run(["mount", "-t", "tmpfs", "-o", "mode=700", "tmpfs", f"{own}/a"], check=True)
        self.addCleanup(subprocess.run, ["umount", "-l", f"{own}/a"], check=True)
        subprocess.run(["mount", "-o", "remount,ro", f"{own}/a"], check=True)
        self.refused(f"{own}/a/new", ".*Read-only file system")

    def test_exec_sh_and_start_have_the_same_options(self):
        own = self.private() + "/own"
        options = ("--stdin", "--job-limit", "64K", "--job-days", "3", "--job-directory", own,
                   "--reconnect", "30")
        for words in (("exec", "--stream", "--keep", *options, "cat"),
                      ("sh", "--stream", "--keep", *options, "cat")):
            self.assertEqual(self.succeed(*words, feed=b"typed").out, b"typed")
        job = self.succeed("job", "start", "--timeout", "60", *options, "cat", feed=b"typed").text.strip()
        self.assertEqual(len(self.states("--job-directory", own)), 3)
        for verb, out in (("wait", b""), ("attach", b"typed"), ("output", b"typed"), ("stop", b"")):
            result = self.succeed("job", verb, "--reconnect", "30", "--job-directory", own, job)
            self.assertEqual(result.out, out)

    def test_every_other_request_checks_the_path_too(self):
        own = self.private() + "/a/b"
        job = self.start_job("sleep", "1000", options=("--job-directory", own))
        os.chmod(own, 0o777)
        for words in (("attach", job), ("output", job), ("wait", job), ("stop", job), ("remove", job),
                      ("list",)):
            result = self.ctl("job", words[0], "--job-directory", own, *words[1:])
            self.assertEqual(result.status, 1, words)
            self.assertRegex(result.errors[0], "no safe directory for jobs", words)
        os.chmod(own, 0o700)
        self.assertEqual(self.states("--job-directory", own), {job: "running"})

    def test_paths_and_names_are_checked_before_anything_is_sent(self):
        for path in ("jobs", "/", "/var/../tmp", "/var//lib", "/var/lib/"):
            result = self.ctl("job", "list", "--job-directory", path)
            self.assertEqual((result.status, len(result.errors)), (2, 1), path)
        for name in (".", "..", "a/b", "-x", "a b", "x" * 101):
            self.assertEqual(self.ctl("job", "start", f"--id={name}", "true").status, 2, name)
        self.assertFalse(os.path.exists(JOBS))

    def test_a_directory_with_a_blank_works(self):
        directory = "/var/lib/runel/a b'c"
        result = self.ctl("exec", "--stream", "--job-directory", directory, "echo", "x")
        self.assertEqual((result.status, result.out), (0, b"x\n"))
        self.assertEqual(os.listdir(directory), [])


class Identity(JobCase):
    """A signal reaches only the processes of the job."""

    def test_another_boot_id_means_interrupted(self):
        hold = self.fifo("hold")
        job = self.start_job("sh", "-c", f"echo before; cat {hold}")
        wait_until(lambda: self.read_job(job, "out.0"), "the output is stored")
        with self.rebooted():
            self.assertEqual(self.states(), {job: "interrupted"})
            result = self.ctl("job", "wait", job)
            self.assertEqual(result.status, 1)
            self.assertRegex(result.errors[0], "interrupted before it ended")
            self.assertEqual(self.ctl("job", "attach", job).out, b"before\n")
            self.assertEqual(self.ctl("job", "stop", "--signal", "KILL", job).errors,
                             [f"runelctl: 127.0.0.1: job {job} does not run"])
        self.assertEqual(self.states(), {job: "running"})
        self.open_fifo("hold")
        self.assertEqual(self.ctl("job", "wait", job).status, 0)

    def test_a_process_with_another_start_time_gets_no_signal(self):
        job = self.start_job("sleep", "1000")
        fields = self.read_job(job, "started").split()
        wrapper = int(fields[1])
        fields[3] = str(int(fields[3]) + 1)
        with open(os.path.join(self.files_of(job), "started"), "w", encoding="ascii") as file:
            file.write(" ".join(fields) + "\n")
        self.assertEqual(self.ctl("job", "stop", "--signal", "TERM", job).status, 1)
        self.assertTrue(alive(wrapper))
        self.assertEqual(self.states(), {job: "interrupted"})

    def test_a_job_without_its_wrapper_is_interrupted(self):
        job = self.start_job("sleep", "1000")
        run = self.begin("job", "attach", job)
        wait_until(lambda: self.log.count(".*accepted connection.*") > 1, "it is attached")
        os.kill(self.wrapper_of(job), signal.SIGKILL)
        self.assertEqual(run.finish(), 1)
        self.assertEqual(self.states(), {job: "interrupted"})

    def test_sigkill_spares_what_stores_the_status_and_the_output(self):
        job = self.start_job("sh", "-c", "trap '' TERM INT HUP; echo said; sleep 1000")
        wait_until(lambda: self.read_job(job, "out.0"), "the output is stored")
        self.succeed("job", "stop", "--signal", "KILL", job)
        result = self.ctl("job", "attach", job)
        self.assertEqual((result.status, result.out), (137, b"said\n"))

    def test_a_claimed_job_is_not_started(self):
        self.start_job("true", options=("--id", "first"))
        os.mkdir(os.path.join(JOBS, "claimed"), mode=0o700)
        self.assertEqual(self.states()["claimed"], "claimed")
        self.assertRegex(self.ctl("job", "attach", "claimed").errors[0], "was never started")
        self.assertEqual(self.ctl("job", "start", "--id", "claimed", "true").status, 1)
        self.succeed("job", "remove", "claimed")
        self.assertEqual(self.start_job("true", options=("--id", "claimed")), "claimed")

    def test_an_exceeded_deadline_ends_the_program(self):
        mark = self.path("pid")
        result = self.ctl("--deadline", "2", "sh", "--stream", f"echo $$ >{mark}; exec sleep 1000")
        self.assertEqual(result.status, 255)
        program = int(self.content("pid"))
        wait_until(lambda: not alive(program), "the program ends")

    def test_a_signal_that_the_device_cannot_send_is_told(self):
        run = self.begin("sh", "--stream", "echo ready; exec sleep 1000")
        run.wait_out(b"ready\n")
        self.as_shell("/bin/false")
        run.interrupt()
        run.wait_err(b"SIGINT was not sent: the device failed to do it\n")

    def test_a_signal_during_a_lost_connection_is_sent_when_it_is_back(self):
        run = self.begin("sh", "--stream", "trap 'echo int; exit 6' INT; echo ready; "
                         "while :; do sleep 0.05; done")
        run.wait_out(b"ready\n")
        self.device.send_signal(signal.SIGKILL)
        self.device.wait()
        run.wait_err(b"trying to connect again")
        run.interrupt()
        time.sleep(1)  # an attempt to connect fails meanwhile
        self.device = self.start_device()
        self.assertEqual((run.finish(), run.out), (6, b"ready\nint\n"))

    def test_another_job_with_the_same_id_is_told(self):
        self.start_job("sh", "-c", "echo ready; sleep 1000", options=("--id", "same"))
        self.start_job("sleep", "1000", options=("--id", "other"))
        run = self.begin("job", "attach", "same")
        run.wait_out(b"ready\n")
        self.device.send_signal(signal.SIGKILL)
        self.device.wait()
        os.rename(self.files_of("same"), self.files_of("first"))
        os.rename(self.files_of("other"), self.files_of("same"))
        run.wait_err(b"trying to connect again")
        self.device = self.start_device()
        self.assertEqual(run.finish(), 1)
        self.assertEqual(run.err.decode().splitlines()[-1],
                         "runelctl: 127.0.0.1: job same was removed, and its ID was used for another job: "
                         "the end of its output and its exit status are lost (to follow the other job: "
                         "runelctl -d 127.0.0.1 job attach same)")

    def test_sigterm_and_sighup_are_passed_on(self):
        for number, name in ((signal.SIGTERM, b"term"), (signal.SIGHUP, b"hup")):
            run = self.begin("sh", "--stream", "trap 'echo term; exit 4' TERM; "
                             "trap 'echo hup; exit 4' HUP; echo ready; while :; do sleep 0.05; done")
            run.wait_out(b"ready\n")
            run.interrupt(number)
            self.assertEqual((run.finish(), run.out), (4, b"ready\n" + name + b"\n"))


class FullDisk(JobCase):
    """A file system of 1 MiB."""

    def setUp(self):
        super().setUp()
        os.makedirs("/var/lib/runel/disk", mode=0o700)
        self.disk = "/var/lib/runel/disk"
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=1m,mode=700", "tmpfs", self.disk],
                       check=True)
        self.addCleanup(subprocess.run, ["umount", "-l", self.disk], check=True)

    def fill(self):
        """Takes the rest of the file system."""
        with open(f"{self.disk}/filler", "wb", buffering=0) as file:
            try:
                while file.write(bytes(4096)):
                    pass
            except OSError:
                pass

    def free(self):
        about = os.statvfs(self.disk)
        return about.f_bavail * about.f_frsize

    def test_a_tenth_of_the_file_system_stays_free(self):
        job = self.start_job("head", "-c", "5000000", "/dev/zero", options=("--job-directory", self.disk))
        options = ("--job-directory", self.disk, job)
        self.assertEqual(self.ctl("job", "wait", *options).status, 0)
        self.assertGreaterEqual(self.free(), 1048576 // 10 - 4096)
        result = self.ctl("--json", "job", "output", *options)
        kept = sum(len(one["content"]) for one in result.objects if one.get("entry") == "output")
        self.assertGreater(kept, 100000)
        self.assertEqual(kept + result.objects[-1]["lost_stdout"], 5000000)

    def test_without_room_nothing_is_started(self):
        self.fill()
        result = self.ctl("job", "start", "--job-directory", self.disk, "touch", self.path("ran"))
        self.assertEqual(result.status, 1)
        self.assertRegex(result.errors[0], "cannot be written|No space left on device")
        self.assertEqual(os.listdir(self.disk), ["filler"])
        self.assertFalse(os.path.exists(self.path("ran")))

    def test_the_status_is_stored_on_a_disk_that_became_full(self):
        hold = self.fifo("hold")
        job = self.start_job("sh", "-c", f"echo before; cat {hold}; head -c 50000 /dev/zero; exit 9",
                             options=("--job-directory", self.disk))
        wait_until(lambda: os.path.getsize(f"{self.disk}/{job}/out.0"), "the output is stored")
        self.fill()
        self.open_fifo("hold")
        options = ("--job-directory", self.disk, job)
        self.assertEqual(self.ctl("job", "wait", *options).status, 9)
        result = self.ctl("--json", "job", "output", *options)
        kept = sum(len(one["content"]) for one in result.objects if one.get("entry") == "output")
        self.assertEqual(kept + result.objects[-1]["lost_stdout"], 50000 + len("before\n"))

    def test_input_without_room_leaves_nothing(self):
        result = self.ctl("exec", "--stream", "--stdin", "--job-directory", self.disk, "cat",
                          feed=bytes(3000000))
        self.assertEqual(result.status, 1)
        self.assertRegex(result.errors[0], "standard input: No space left on device")
        self.assertEqual(os.listdir(self.disk), [])


class Steps(JobCase):
    """start, list, attach, output, wait, stop and remove."""

    def test_a_job_step_by_step(self):
        hold = self.fifo("hold")
        job = self.start_job("sh", "-c", f"echo out; echo err >&2; cat {hold}; echo more; exit 6")
        self.assertRegex(job, r"^runelctl-[0-9a-f]{12}$")
        wait_until(lambda: self.read_job(job, "err.0"), "the output is stored")
        result = self.ctl("job", "output", job)
        self.assertEqual((result.status, result.out, result.err), (0, b"out\n", b"err\n"))
        self.assertRegex(self.succeed("job", "list").text,
                         rf"^{job} +running +20\d\d-\d\d-\d\d \d\d:\d\d:\d\d  sh -c 'echo out; ")
        self.assertRegex(self.ctl("job", "remove", job).errors[0], f"job {job} is running")
        wait = self.begin("job", "wait", job)
        self.open_fifo("hold")
        self.assertEqual((wait.finish(), wait.out, wait.err), (6, b"", b""))
        self.assertRegex(self.succeed("job", "list").text, f"^{job} +exit status 6 ")
        result = self.ctl("job", "attach", job)
        self.assertEqual((result.status, result.out, result.err), (6, b"out\nmore\n", b"err\n"))
        self.succeed("job", "stop", job)
        self.succeed("job", "remove", job)
        self.assertEqual(self.succeed("job", "list").out, b"")
        for verb in ("attach", "output", "wait", "remove"):
            result = self.ctl("job", verb, job)
            self.assertEqual((result.status, result.errors),
                             (1, [f"runelctl: 127.0.0.1: no such job: {job}"]))

    def test_json_has_the_state_of_a_job(self):
        hold = self.fifo("hold")
        job = self.start_job("sh", "-c", f"cat {hold}; exit 6")
        last = self.succeed("--json", "job", "output", job).objects[-1]
        self.assertEqual((last["state"], last["ok"]), ("running", True))
        self.open_fifo("hold")
        last = self.ctl("--json", "job", "wait", job).objects[-1]
        self.assertEqual((last["state"], last["status"], last["error"]),
                         ("ended", 6, f"job {job}: exit status 6"))
        last = self.succeed("--json", "exec", "--stream", "true").objects[-1]
        self.assertEqual((last["state"], last.get("error")), ("ended", None))

    def test_an_attempt_to_look_does_not_tell_that_the_job_continues(self):
        where = self.odd_peer(hang)
        rest = f" (the job continues: runelctl -d {where} job attach a)"
        for verb, rest in (("output", ""), ("wait", rest)):
            self.assertEqual(self.ctl("-d", where, "--deadline", "0.3", "job", verb, "a").errors,
                             [f"runelctl: {where}: deadline exceeded{rest}"])

    def test_without_any_jobs(self):
        self.assertEqual(self.succeed("job", "list").out, b"")
        self.assertFalse(os.path.exists(JOBS))
        self.assertEqual(self.ctl("job", "stop", "none").status, 1)

    def test_stop_sends_sigterm_and_waits(self):
        job = self.start_job("sh", "-c", "trap 'exit 8' TERM; while :; do sleep 0.05; done")
        self.succeed("job", "stop", job)
        self.assertEqual(self.ctl("job", "wait", job).status, 8)

    def test_other_names_are_ignored(self):
        os.makedirs(JOBS, mode=0o700)
        os.mkdir(f"{JOBS}/bad name")
        os.symlink("/etc", f"{JOBS}/link")
        with open(f"{JOBS}/file", "wb"):
            pass
        self.assertEqual(self.states(), {})

    def test_a_shell_runs_jobs_in_its_directory(self):
        result = self.succeed("shell", feed=b"cd /usr/bin\nexec --stream pwd\nsh --stream pwd\n")
        self.assertEqual(result.out.count(b"/usr/bin\n"), 2)

    def test_a_kept_job_can_be_printed_again(self):
        self.succeed("exec", "--stream", "--keep", "echo", "x")
        (job,) = self.states()
        self.assertEqual(self.succeed("job", "attach", job).out, b"x\n")

    def test_the_limit_of_a_job_ends_it(self):
        job = self.start_job("sleep", "1000", options=("--timeout", "1"))
        self.assertEqual(self.ctl("job", "wait", job).status, 124)
        self.assertRegex(self.succeed("job", "list").text, f"^{job} +time limit ")

    def test_the_input_of_a_job_may_end_before_runelctl(self):
        job = self.succeed("job", "start", "--stdin", "cat", feed=b"typed").text.strip()
        self.assertEqual(self.succeed("job", "attach", job).out, b"typed")

    def test_what_an_earlier_reader_has_removed_is_reported(self):
        job = self.start_job("head", "-c", "60000", "/dev/zero", options=("--job-limit", "64K"))
        self.wait_ended(job)
        self.succeed("job", "attach", job)
        result = self.ctl("--json", "job", "output", job)
        last = result.objects[-1]
        kept = sum(len(one["content"]) for one in result.objects if one.get("entry") == "output")
        self.assertEqual((result.status, kept + last["removed_stdout"]), (1, 60000))

    def test_utf8_is_not_cut_between_two_objects(self):
        text = "äöü€😀" * 3000
        path = self.file("text", text.encode())
        objects = self.succeed("--json", "exec", "--stream", "cat", path).objects
        self.assertEqual("".join(one["content"] for one in objects if "content" in one), text)
        raw = self.ctl("--json", "exec", "--stream", "printf", r"x\303").objects
        self.assertEqual([one.get("content") or one.get("content_base64") for one in raw[:-1]],
                         ["x", "ww=="])

    def test_a_device_that_lacks_a_program_is_told(self):
        directory = self.path("bin")
        os.mkdir(directory)
        for name in ("sh", "ls", "mkdir", "rm", "mv"):
            os.symlink(shutil.which(name), os.path.join(directory, name))
        self.device.stop()
        self.device = self.daemon(environment={"PATH": directory})
        result = self.ctl("job", "start", "true")
        self.assertEqual(result.status, 1)
        self.assertRegex(result.errors[0], "dd: no such program")
        self.assertFalse(os.path.exists(JOBS))


class ManyDevices(JobCase):
    """A second device, in a separate network and with separate files."""

    def setUp(self):
        super().setUp()
        networks.add_host("second", "dev0", "10.9.0.1", "10.9.0.2")
        self.addCleanup(networks.remove_all_hosts)
        self.daemon(wrapper=("ip", "netns", "exec", "second", "sh", "-c",
                             'mount -t tmpfs -o mode=755 tmpfs /var/lib && exec "$@"', "sh"))
        self.both = ("-d", "127.0.0.1,10.9.0.2")

    def test_prefixed_lines_come_while_the_programs_run(self):
        go = self.path("go")
        run = self.begin("-q", "--prefix", *self.both, "sh", "--stream",
                         "printf 'one\\ntw'; echo err >&2; "
                         f"until [ -e {go} ]; do sleep 0.05; done; echo o; printf end")
        for name in (b"127.0.0.1", b"10.9.0.2"):
            run.wait_out(name + b": one\n")
            run.wait_err(name + b": err\n")
        self.assertNotIn(b"tw", run.out)
        self.file("go")
        self.assertEqual(run.finish(), 0)
        for name in (b"127.0.0.1", b"10.9.0.2"):
            self.assertEqual([line for line in run.out.split(b"\n") if line.startswith(name)],
                             [name + b": one", name + b": two", name + b": end"])

    def test_without_a_prefix_the_output_is_grouped_at_the_end(self):
        result = self.ctl("-q", *self.both, "exec", "--stream", "echo", "same")
        self.assertEqual((result.status, result.text),
                         (0, "== 127.0.0.1, 10.9.0.2 (2 devices)\nsame\n"))

    def kept(self, name):
        return [self.content(f"out/{name}.{stream}") for stream in ("out", "err")]

    def test_files_keep_the_streams_of_each_device_apart(self):
        line = "echo one; sleep 0.3; echo oops >&2; printf two"
        for words in (("--prefix",), ("--group",), ()):
            result = self.ctl("--output-dir", self.path("out"), *words, *self.both, "sh", "--stream", line)
            self.assertEqual(result.status, 0)
            self.assertEqual(result.out.count(b"one"), 2 if words else 1)
            for name in ("127.0.0.1", "10.9.0.2"):
                self.assertEqual(self.kept(name), [b"one\ntwo", b"oops\n"], words)
        self.assertEqual(self.ctl("--output-dir", self.path("out"), "sh", "--stream", line).err, b"oops\n")
        self.assertEqual(self.kept("127.0.0.1"), [b"one\ntwo", b"oops\n"])

    def test_files_keep_streamed_objects(self):
        result = self.ctl("--json", "--output-dir", self.path("out"), "sh", "--stream", "echo one; exit 3")
        self.assertEqual((result.status, self.kept("127.0.0.1")[0]), (3, result.out))
        self.assertEqual([one.get("content") for one in result.objects], ["one\n", None])

    def test_files_of_a_program_that_writes_nothing_are_empty(self):
        self.succeed("-q", "--output-dir", self.path("out"), *self.both, "exec", "--stream", "true")
        self.assertEqual(self.kept("127.0.0.1") + self.kept("10.9.0.2"), [b""] * 4)

    def test_files_that_cannot_be_written_are_told_once(self):
        os.makedirs(self.path("out/127.0.0.1.out"))
        result = self.ctl("--output-dir", self.path("out"), "sh", "--stream",
                          "echo one; sleep 0.3; echo two; sleep 0.3; echo three")
        self.assertEqual((result.status, result.out), (1, b"one\ntwo\nthree\n"))
        self.assertEqual(len(result.errors), 1)
        self.assertIn("127.0.0.1.out: Is a directory", result.errors[0])

    def test_a_job_has_the_same_id_on_each(self):
        result = self.ctl("-q", *self.both, "job", "start", "sh", "-c", "exit 3")
        job = re.fullmatch(r"== 127.0.0.1, 10.9.0.2 \(2 devices\)\n(\S+)\n", result.text)[1]
        self.assertEqual(self.ctl("-q", *self.both, "job", "wait", job).status, 3)
        objects = self.ctl("--json", *self.both, "job", "list").objects
        self.assertEqual({one["device"] for one in objects if one.get("entry") == "job"},
                         {"127.0.0.1", "10.9.0.2"})

    def test_ctrl_c_reaches_the_programs_on_all_devices(self):
        run = self.begin("-q", "--prefix", *self.both, "sh", "--stream", "echo ready; sleep 1000")
        for name in (b"127.0.0.1", b"10.9.0.2"):
            run.wait_out(name + b": ready\n")
        run.interrupt()
        self.assertEqual(run.finish(), 130)
        self.assertEqual(self.succeed("-q", *self.both, "job", "list").out, b"")

    def test_a_note_about_several_devices_is_one_line(self):
        run = self.begin("--prefix", *self.both, "sh", "--stream", "echo ready; sleep 1000")
        for name in (b"127.0.0.1", b"10.9.0.2"):
            run.wait_out(name + b": ready\n")
        run.interrupt()
        self.assertEqual(run.finish(), 130)
        self.assertEqual(run.err.decode().splitlines()[0],
                         "runelctl: 127.0.0.1,10.9.0.2: SIGINT sent to the program; interrupt again to "
                         "send SIGTERM")

    def test_a_closed_pipe_ends_the_programs_on_all_devices(self):
        for words in (("--prefix",), ()):
            run = self.begin(*words, *self.both, "sh", "--stream", "echo ready; sleep 1000")
            wait_until(lambda: self.ctl("--json", *self.both, "job", "list").out.count(b'"running"') == 2,
                       "both programs run")
            run.process.stdout.close()
            self.assertEqual((run.finish(), run.err), (-signal.SIGPIPE, b""))
            self.assertEqual(self.succeed("-q", *self.both, "job", "list").out, b"", words)


class Unreached(CtlCase):
    """A device that accepts no connection."""

    @staticmethod
    def holds_signals(pid):
        """Whether the process takes its signals by itself."""
        with open(f"/proc/{pid}/status", encoding="ascii") as about:
            blocked = re.search(r"SigBlk:\s+(\w+)", about.read())[1]
        return int(blocked, 16) & 1 << signal.SIGINT - 1

    def test_an_interrupt_does_not_claim_to_stop_a_program(self):
        with contextlib.ExitStack() as stack:
            listener = stack.enter_context(socket.create_server(("127.0.0.1", 0), backlog=0))
            for _ in range(3):
                waiting = stack.enter_context(socket.socket())
                waiting.setblocking(False)
                waiting.connect_ex(listener.getsockname())
            where = "127.0.0.1:%d" % listener.getsockname()[1]
            process = self.start("-d", where, "sh", "--stream", "true")
            wait_until(lambda: self.holds_signals(process.pid), "it takes signals")
            process.send_signal(signal.SIGINT)
            self.assertEqual(process.communicate(timeout=TIMEOUT)[1].decode(),
                             f"runelctl: {where}: interrupted\n")


class LostOutput(JobCase):
    """Standard output of runelctl is lost while the program runs."""

    def begin_program(self, line, *options, **streams):
        """Starts @p line, which writes "ready" when the file `pid` has its process number."""
        run = self.begin(*options, "sh", "--stream", f"echo $$ >{self.path('pid')}; echo ready; {line}",
                         **streams)
        if run.process.stdout:
            run.wait_out(b"ready\n")
        return run

    def assert_ended(self, run, status):
        self.assertEqual(run.finish(), status, run.err)
        program = int(self.content("pid"))
        wait_until(lambda: not alive(program), "the program ends")

    def test_a_closed_pipe_ends_the_program_and_then_runelctl_by_sigpipe(self):
        for line in ("yes", "exec sleep 1000", "trap '' PIPE TERM; while :; do sleep 0.1; echo; done",
                     "trap 'echo late >&2; exit' TERM; while :; do sleep 0.1; done"):
            run = self.begin_program(line)
            run.process.stdout.close()
            self.assert_ended(run, -signal.SIGPIPE)
            self.assertEqual((run.err, os.listdir(JOBS)), (b"", []), line)

    def test_a_full_disk_ends_it_with_an_error(self):
        with open("/dev/full", "wb") as full:
            self.assert_ended(run := self.begin_program("sleep 1000", stdout=full), 1)
        self.assertEqual(run.err, b"runelctl: standard output: No space left on device\n")
        self.assertEqual(os.listdir(JOBS), [])

    def test_where_sigpipe_is_ignored_it_ends_with_an_error(self):
        run = self.begin_program("sleep 1000", restore_signals=False)
        run.process.stdout.close()
        self.assert_ended(run, 1)
        self.assertEqual(run.err, b"runelctl: standard output: Broken pipe\n")

    def test_a_job_that_is_only_looked_at_continues(self):
        job = self.start_job("sh", "-c", "echo ready; sleep 1000")
        run = self.begin("job", "attach", job)
        run.wait_out(b"ready\n")
        run.process.stdout.close()
        self.assertEqual((run.finish(), run.err), (-signal.SIGPIPE, b""))
        self.assertEqual(self.states(), {job: "running"})

    def test_a_device_that_is_silent_does_not_hold_it_up(self):
        run = self.begin_program("sleep 1000", "--deadline", "60")
        self.device.send_signal(signal.SIGSTOP)
        self.addCleanup(self.device.send_signal, signal.SIGCONT)
        run.process.stdout.close()
        self.assertEqual(run.finish(), -signal.SIGPIPE)


class Hostile(JobCase):
    """Devices that answer anything."""

    def test_garbage_in_place_of_jobs(self):
        exited = (0, 2, 0, 0, 0)
        for text in (b"\x1b[31m", b"job ../x\n", b"job a\nstarted x\n", b"job a\nstatus\n", b"job a"):
            where = self.odd_peer(answer_each(reply(text, exited)))
            for words in (("list",), ("attach", "a"), ("wait", "a")):
                result = self.ctl("-d", where, "job", *words)
                self.assertEqual((result.status, len(result.errors)), (255, 1), (text, words))
                self.assertRegex(result.errors[0], "malformed list of jobs")

    def test_texts_of_a_device_are_escaped(self):
        where = self.odd_peer(answer_each(reply(b"/\x1b[2J\r: no\n", (1, 2, 82, 0, 0))))
        result = self.ctl("-d", where, "job", "start", "true")
        self.assertEqual(result.status, 1)
        self.assertIn("safe directory for jobs: /\\x1b[2J\\r: no", result.errors[0])

    def test_a_device_that_claims_everything_succeeded(self):
        where = self.odd_peer(answer_each(reply(b"", (0, 2, 0, 0, 0))))
        result = self.ctl("-d", where, "exec", "--stream", "true")
        self.assertEqual(result.status, 1)
        self.assertRegex(result.errors[0], "no such job")


class Texts(unittest.TestCase):
    """The shell texts, with their comments."""

    def texts(self):
        with open(SOURCE, encoding="utf-8") as file:
            source = file.read()
        parts = dict(re.findall(r'const char (k\w+)\[\] = R"sh\((.*?)\)sh";', source, re.DOTALL))
        found = re.findall(r"std::string& (\w+)Script\(\) \{.*?withoutComments\(\{([^}]*)\}", source,
                           re.DOTALL)
        self.assertEqual([name for name, _ in found], ["start", "show", "signal", "remove"])
        return {name: "".join(parts[part.strip()] for part in names.split(","))
                for name, names in found}

    def test_shellcheck_finds_nothing(self):
        for name, text in self.texts().items():
            result = subprocess.run(["shellcheck", "-s", "sh", "-"], input=text, text=True,
                                    capture_output=True, check=False, timeout=TIMEOUT)
            self.assertEqual((result.returncode, result.stdout), (0, ""), name)

    def test_each_shell_reads_them(self):
        for name, text in self.texts().items():
            for shell in (["dash"], ["bash", "--posix"], ["busybox", "ash"]):
                result = subprocess.run([*shell, "-n"], input=text, text=True, capture_output=True,
                                        check=False, timeout=TIMEOUT)
                self.assertEqual((result.returncode, result.stderr), (0, ""), (name, shell))


if __name__ == "__main__":
    unittest.main()
