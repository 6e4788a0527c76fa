# SPDX-License-Identifier: Apache-2.0
"""The start banner, and the start while the port is not available."""
import os
import signal
import socket
import subprocess
import unittest

from support import world
from support.case import SUCCESS, EndToEndCase
from support.daemon import BINARY, sanitizer_options
from support.logs import CRIT, DEBUG, ERR, INFO, WARNING
from support.peers import AGENT_PORT
from support.world import PID_FILE

# The socket options in the order of the log after a failure.
OPTIONS = ("SO_ACCEPTCONN", "SO_BROADCAST", "SO_BSDCOMPAT", "SO_DEBUG", "SO_ERROR", "SO_DONTROUTE",
           "SO_KEEPALIVE", "SO_OOBINLINE", "SO_PASSCRED", "SO_PRIORITY", "SO_RCVBUF",
           "SO_RCVLOWAT", "SO_SNDLOWAT", "SO_RCVTIMEO", "SO_SNDTIMEO", "SO_REUSEADDR", "SO_SNDBUF",
           "SO_TYPE", "SO_BINDTODEVICE")
RETRY = r"failed to listen on the only port \(5111\), retrying"


class BannerTest(EndToEndCase):
    """The six lines of a start."""

    def test_the_banner_shows_every_setting(self):
        daemon = self.daemon("-v", "-i", "127.0.0.9", "-v", background=True)
        lines = [line for line in self.log.lines if line.pid == daemon.pid][:6]
        self.assertEqual([line.level for line in lines], [INFO] * 6)
        version = lines[1].text
        self.assertRegex(version, r"\A version = \d+\.\d+\.\d+\Z")
        self.assertEqual([line.text for line in lines], [
            f"start runeld ({daemon.pid}) ==================================================",
            version, " address = 127.0.0.9", " daemon  = 1", " verbose = 2", " port    = 5111"])
        self.assert_stops(daemon)


class PortCase(EndToEndCase):
    """Another process has the port."""

    def take_port(self):
        holder = socket.socket()
        self.addCleanup(holder.close)
        holder.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        holder.bind(("", AGENT_PORT))
        holder.listen()
        return holder


class ListenFailureTest(PortCase):
    """The port is in use: waits longer each time, logs the processes, finally reboots."""

    def fast(self):
        """A daemon whose waits are skipped, and process 1 of the namespace that its reboot ends."""
        preload = {"LD_PRELOAD": os.environ["RUNELD_FAST_CLOCK"]}
        return self.daemon(wait=False, environment=preload,
                           wrapper=("unshare", "--pid", "--fork", "--kill-child"))

    def test_a_port_that_becomes_free_after_two_failures_is_used(self):
        holder = self.take_port()
        daemon = self.daemon(wait=False)
        self.log.wait_for(RETRY, WARNING)
        second = self.log.mark()
        self.log.wait_for(RETRY, WARNING, since=second)
        holder.close()
        daemon.wait_ready()
        self.assertEqual(self.client().ask("fileexists", "/etc/hosts").fields, SUCCESS)
        self.assertEqual(self.log.count(RETRY), 2)
        self.assertEqual(self.log.count("cannot bind socket: .*", CRIT), 2)
        self.assert_stops(daemon)

    def test_an_ignored_child_signal_does_not_hide_how_killall_ends(self):
        holder = self.take_port()
        daemon = self.daemon(wait=False,
                             setup=lambda: signal.signal(signal.SIGCHLD, signal.SIG_IGN))
        self.log.wait_for("/usr/bin/killall -TERM atftpd", WARNING)
        self.log.wait_for(RETRY, WARNING, since=self.log.mark())
        holder.close()
        daemon.wait_ready()
        self.assertEqual(self.log.count("killall failed.*"), 0)
        self.assert_stops(daemon)

    def test_a_failure_is_logged_with_the_options_of_the_socket(self):
        self.take_port()
        daemon = self.fast()
        self.log.wait_for(RETRY, WARNING)
        lines = self.log.lines
        first = next(at for at, line in enumerate(lines) if line.level == CRIT)
        self.assertEqual(lines[first].text,
                         "cannot bind socket: port = 5111, Address already in use")
        options = lines[first + 1:first + 1 + len(OPTIONS)]
        for line, name in zip(options, OPTIONS):
            self.assertEqual(line.level, DEBUG)
            self.assertRegex(line.text, rf"\A(socket option {name} = .*|"
                                        rf"failed to read socket option {name})\Z")
        shown = [line.text for line in options]
        self.assertIn("socket option SO_REUSEADDR = 1", shown)
        self.assertIn("socket option SO_TYPE = 1", shown)
        self.assertIn("socket option SO_ACCEPTCONN = 0", shown)
        self.assertRegex(lines[first + 1 + len(OPTIONS)].text, rf"\A{RETRY}\Z")
        daemon.kill()

    def test_the_first_failure_only_lists_processes_and_ends_the_usual_holder(self):
        self.take_port()
        daemon = self.fast()
        self.log.wait_for("rebooting", ERR)
        lines = [(line.level, line.text) for line in self.log.lines]
        first = next(at for at, line in enumerate(lines) if "failed to listen" in line[1])
        # The tool is missing here: its empty list is one empty line.
        self.assertEqual(lines[first + 1:first + 3],
                         [(DEBUG, ""), (WARNING, "/usr/bin/killall -TERM atftpd")])
        self.assertEqual(self.log.count("/usr/bin/killall -TERM atftpd"), 1)
        self.assertEqual(self.log.count("killall failed.*"), 0)
        daemon.process.wait(60)

    def test_the_thirty_fifth_failure_reboots(self):
        self.take_port()
        daemon = self.fast()
        # reboot(2) ends process 1 of the namespace, the daemon, by SIGHUP.
        self.assertEqual(daemon.process.wait(120), -signal.SIGHUP)
        self.log.wait_for("rebooting", ERR)
        self.assertEqual(self.log.count(RETRY, WARNING), 35)
        self.assertEqual(self.log.count("cannot bind socket: .*", CRIT), 35)
        self.assertEqual([(line.level, line.text) for line in self.log.lines[-3:]],
                         [(WARNING, "failed to listen on the only port (5111), retrying"),
                          (ERR, "retry count exceeded, exiting"), (ERR, "rebooting")])

    def test_a_signal_during_the_wait_ends_it_after_the_port_was_opened(self):
        holder = self.take_port()
        daemon = self.daemon(wait=False)
        self.log.wait_for(RETRY, WARNING)
        self.log.wait_for("/usr/bin/killall -TERM atftpd")
        daemon.send_signal(signal.SIGTERM)
        holder.close()
        self.assertEqual(daemon.wait(), 0)
        self.log.wait_for("exiting on signal: 15", INFO)


class AddressInUseTest(EndToEndCase):
    """SO_REUSEADDR cannot be set."""

    def test_the_error_is_logged_and_the_daemon_listens(self):
        # In a private network: here the port may have connections in TIME_WAIT.
        daemon = self.daemon(detect_leaks=False, wrapper=(
            "unshare", "--net", "strace", "-qq", "-o", self.path("trace"), "--trace=setsockopt",
            "--inject=setsockopt:error=ENOPROTOOPT:when=1"))
        lines = self.log.lines
        first = next(at for at, line in enumerate(lines) if line.level == WARNING)
        self.assertEqual(lines[first].text, "warning: setsockopt() failure: Protocol not available")
        self.assertRegex(lines[first + 1].text, r"\Abind succeeded, port = 5111, socket = \d+\Z")
        self.assertEqual(lines[first + 2].text, "listening on port 5111")
        with open(self.path("trace"), encoding="latin-1") as trace:
            self.assertRegex(trace.readline(), r"SO_REUSEADDR, \[1\], 4\) = .* \(INJECTED\)")
        os.kill(lines[first].pid, signal.SIGTERM)
        self.assertEqual(daemon.wait(), 0)


class ResolverTest(EndToEndCase):
    """The daemon initializes the resolver first."""

    def start(self, error, **options):
        """A daemon whose first open of /etc/resolv.conf fails with @p error."""
        return self.daemon(detect_leaks=False, wrapper=(
            "strace", "-f", "-qq", "-o", self.path("trace"), "--trace=openat",
            "--trace-path=/etc/resolv.conf", f"--inject=openat:error={error}:when=1"), **options)

    def assert_injected(self, error):
        with open(self.path("trace"), encoding="latin-1") as trace:
            self.assertRegex(trace.readline(), rf'"/etc/resolv.conf".* = -1 {error} .*\(INJECTED\)')

    def test_the_daemon_does_not_start_when_the_resolver_is_out_of_memory(self):
        for background in (False, True):
            with self.subTest(background=background):
                mark = self.log.mark()
                daemon = self.start("ENOMEM", background=background, wait=False)
                self.assertEqual(daemon.process.wait(60), 1)
                self.assert_injected("ENOMEM")
                self.assertEqual(self.log.shown(mark),
                                 [(ERR, "cannot prepare name lookups: Cannot allocate memory")])
                self.assertFalse(os.path.exists(PID_FILE))

    def test_the_daemon_starts_when_the_resolver_fails_for_another_reason(self):
        daemon = self.start("EIO")
        self.assert_injected("EIO")
        self.assertEqual(self.log.count("cannot prepare .*"), 0)
        self.assertEqual(self.client().ask("fileexists", "/etc/hosts").fields, SUCCESS)
        os.kill(self.log.find("listening on port 5111").pid, signal.SIGTERM)
        self.assertEqual(daemon.wait(), 0)


class ProcessListTest(PortCase):
    """The tools of the listen policy, on a root file system that has them."""

    TOOLS = {
        "zell/bin/psreal": "#!/bin/sh\necho \"ps $*\"\necho second\n",
        "usr/bin/killall": "#!/bin/sh\necho \"$*\" >>/run/killed\n",
    }

    def root_with_tools(self):
        root, changes = self.path("root"), self.path("changes")
        os.mkdir(root)
        os.mkdir(changes)
        world.mount("-t", "tmpfs", "tmpfs", changes)
        self.addCleanup(world.unmount, changes)
        for name in ("upper", "work"):
            os.mkdir(os.path.join(changes, name))
        world.mount("-t", "overlay", "overlay", "-o",
                    f"lowerdir=/,upperdir={changes}/upper,workdir={changes}/work", root)
        self.addCleanup(world.unmount, root)
        for name in ("dev", "etc", "proc", "run"):
            world.mount("--rbind", f"/{name}", f"{root}/{name}")
        for name, text in self.TOOLS.items():
            path = os.path.join(root, name)
            os.makedirs(os.path.dirname(path), exist_ok=True)
            with open(path, "w", encoding="ascii") as tool:
                tool.write(text)
            os.chmod(path, 0o755)
        # The binary may be on another file system than the root.
        subprocess.run(["cp", BINARY, os.path.join(root, "runeld")], check=True)
        return root

    def test_the_process_list_is_logged_line_by_line_and_its_last_line_twice(self):
        root = self.root_with_tools()
        holder = self.take_port()
        process = subprocess.Popen(
            ["chroot", root, "/runeld", "-n"], start_new_session=True, stdin=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL, env={**os.environ, **sanitizer_options(self.directory)})
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        self.log.wait_for(RETRY, WARNING)
        self.log.wait_for("/usr/bin/killall -TERM atftpd", WARNING)
        holder.close()
        self.log.wait_for("listening on port 5111", INFO)
        texts = [line.text for line in self.log.lines]
        first = texts.index("failed to listen on the only port (5111), retrying")
        self.assertEqual(texts[first + 1:first + 5], ["ps alxw -L\n", "second\n", "second\n",
                                                      "/usr/bin/killall -TERM atftpd"])
        with open("/run/killed", encoding="ascii") as killed:
            self.assertEqual(killed.read(), "-TERM atftpd\n")
        os.unlink("/run/killed")
        process.terminate()
        self.assertEqual(process.wait(60), 0)


if __name__ == "__main__":
    unittest.main()
