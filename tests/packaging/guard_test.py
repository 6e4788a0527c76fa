# SPDX-License-Identifier: Apache-2.0
"""runeld-guard, in an isolated world: whom it refuses, with each shell that a device may have."""
import contextlib
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest

PROJECT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
GUARD = os.path.join(PROJECT, "packaging", "guard", "runeld-guard")
BINARY = os.environ["RUNELD_BIN"]
PORT = 5111
SHELLS = (("dash",), ("bash", "--posix"), ("busybox", "sh"))
TIMEOUT = 60


def listening(address="127.0.0.1", family=socket.AF_INET, port=PORT):
    holder = socket.socket(family)
    holder.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    if family == socket.AF_INET6:
        holder.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, 1)
    holder.bind((address, port))
    holder.listen()
    return holder


class GuardTest(unittest.TestCase):
    def setUp(self):
        assert os.environ.get("RUNELD_WORLD") == "1", "run it in scripts/world"
        self.directory = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, self.directory)

    def daemon(self, program=BINARY):
        """A runeld that listens."""
        process = subprocess.Popen([program, "-n"], stdin=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                   start_new_session=True)
        self.addCleanup(self._end, process)
        deadline = time.monotonic() + TIMEOUT
        with contextlib.closing(socket.socket()) as probe:
            while probe.connect_ex(("127.0.0.1", PORT)) != 0:
                self.assertLess(time.monotonic(), deadline)
                time.sleep(0.01)
        return process

    @staticmethod
    def _end(process):
        with contextlib.suppress(ProcessLookupError):
            process.send_signal(signal.SIGKILL)
        process.wait()

    def namesake(self, script, *before):
        """Another program called runeld, which runs @p script and says when it is ready."""
        copy = os.path.join(self.directory, "runeld")
        shutil.copy(os.path.realpath(sys.executable), copy)
        process = subprocess.Popen([*before, copy, "-c", f"import socket; {script}"], stdout=subprocess.PIPE)
        self.addCleanup(process.stdout.close)
        self.addCleanup(self._end, process)
        self.assertEqual(process.stdout.readline(), b"ready\n")
        return process

    def guard(self, *shell, **environment):
        return subprocess.run([*(shell or ("sh",)), GUARD], stdout=subprocess.PIPE, text=True, check=False,
                              stderr=subprocess.STDOUT, timeout=TIMEOUT,
                              env={**os.environ, **environment})

    def assert_permits(self):
        for shell in SHELLS:
            result = self.guard(*shell)
            self.assertEqual((result.returncode, result.stdout), (0, ""), shell)

    def assert_refuses(self, process):
        for shell in SHELLS:
            result = self.guard(*shell)
            self.assertEqual((result.returncode, result.stdout),
                             (1, f"another runeld, process {process.pid}, has port 5111: not started\n"), shell)

    def test_a_free_port_is_permitted(self):
        self.assert_permits()

    def test_another_runeld_is_refused_until_it_ends(self):
        process = self.daemon()
        self.assert_refuses(process)
        process.send_signal(signal.SIGTERM)
        process.wait(TIMEOUT)
        self.assert_permits()

    def test_busybox_tools_suffice(self):
        tools = os.path.join(self.directory, "tools")
        os.mkdir(tools)
        os.symlink(shutil.which("busybox"), os.path.join(tools, "ls"))
        process = self.daemon()
        result = self.guard(shutil.which("busybox"), "sh", PATH=tools)
        self.assertEqual(result.returncode, 1, result.stdout)
        self.assertIn(f"process {process.pid},", result.stdout)

    def test_a_runeld_that_was_replaced_on_disk_is_refused(self):
        copy = os.path.join(self.directory, "runeld")
        shutil.copy(BINARY, copy)
        process = self.daemon(copy)
        os.rename(shutil.copy(BINARY, f"{copy}.new"), copy)
        self.assertTrue(os.readlink(f"/proc/{process.pid}/exe").endswith("/runeld (deleted)"))
        self.assert_refuses(process)

    def test_a_path_with_blanks_and_an_arrow_is_refused(self):
        strange = os.path.join(self.directory, "a -> b c")
        os.mkdir(strange)
        self.assert_refuses(self.daemon(shutil.copy(BINARY, os.path.join(strange, "runeld"))))

    def test_another_program_is_permitted(self):
        self.addCleanup(listening("0.0.0.0").close)
        self.assert_permits()

    def test_another_program_is_permitted_while_a_runeld_waits_for_the_port(self):
        self.addCleanup(listening("0.0.0.0").close)
        process = subprocess.Popen([BINARY, "-n"], stdin=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                   start_new_session=True)
        self.addCleanup(self._end, process)
        deadline = time.monotonic() + TIMEOUT
        while not os.readlink(f"/proc/{process.pid}/exe").endswith("/runeld"):
            self.assertLess(time.monotonic(), deadline)
            time.sleep(0.01)
        self.assert_permits()

    def test_a_runeld_with_a_connection_to_the_port_is_permitted(self):
        """The socket must listen: a connection between others on 5111 is of no interest."""
        holder = listening("0.0.0.0")
        self.addCleanup(holder.close)
        self.namesake("s = socket.create_connection(('127.0.0.1', 5111)); print('ready', flush=True); s.recv(1)")
        self.assert_permits()

    def test_a_listener_by_ipv6_counts(self):
        other = self.namesake("s = socket.create_server(('::1', 5111), family=socket.AF_INET6);"
                              " print('ready', flush=True); s.accept()")
        self.assert_refuses(other)

    def test_a_program_of_another_user_is_permitted(self):
        """Without privileged ports any user could keep the device deaf."""
        os.chmod(self.directory, 0o755)
        self.namesake("s = socket.create_server(('0.0.0.0', 5111)); print('ready', flush=True); s.accept()",
                      "setpriv", "--reuid=65534", "--regid=65534", "--clear-groups")
        self.assert_permits()

    def test_a_runeld_that_dpkg_is_replacing_is_refused(self):
        copy = os.path.join(self.directory, "runeld")
        shutil.copy(BINARY, copy)
        process = self.daemon(copy)
        os.rename(copy, f"{copy}.dpkg-tmp")
        self.assertTrue(os.readlink(f"/proc/{process.pid}/exe").endswith("/runeld.dpkg-tmp"))
        self.assert_refuses(process)

    def test_a_program_with_a_similar_name_is_permitted(self):
        self.daemon(shutil.copy(BINARY, os.path.join(self.directory, "notruneld")))
        self.assert_permits()

    def test_another_port_is_permitted(self):
        self.namesake("s = socket.create_server(('0.0.0.0', 5112)); print('ready', flush=True); s.accept()")
        self.assert_permits()

    def test_a_runeld_of_another_network_is_permitted(self):
        process = self.daemon()
        self.assert_refuses(process)
        result = subprocess.run(["unshare", "--net", "sh", GUARD], stdout=subprocess.PIPE, text=True, check=False)
        self.assertEqual((result.returncode, result.stdout), (0, ""))

    def test_a_proc_that_cannot_be_read_permits(self):
        """A guard that cannot see must not keep a device deaf."""
        self.assertEqual(self.guard(RUNELD_GUARD_PROC=self.directory).returncode, 0)

    def test_an_installation_with_another_port_looks_at_that_port(self):
        with open(GUARD, encoding="utf-8") as file:
            text = file.read()
        self.assertEqual(text.count("\nport=5111\n"), 1, "CMake replaces this line")
        other = os.path.join(self.directory, "guard")
        with open(other, "w", encoding="utf-8") as file:
            file.write(text.replace("\nport=5111\n", "\nport=511\n"))
        self.daemon()
        self.assertEqual(subprocess.run(["sh", other], check=False).returncode, 0)

    def test_shellcheck_finds_nothing(self):
        result = subprocess.run(["shellcheck", GUARD], stdout=subprocess.PIPE, text=True, check=False)
        self.assertEqual((result.returncode, result.stdout), (0, ""))


if __name__ == "__main__":
    unittest.main(verbosity=2)
