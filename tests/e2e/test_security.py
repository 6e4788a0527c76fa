# SPDX-License-Identifier: Apache-2.0
"""Runs the recipes of docs/security.md and checks their effect."""
import os
import re
import signal
import shutil
import socket
import subprocess

from support import networks
from support.case import SUCCESS, EndToEndCase
from support.daemon import BINARY, is_instrumented
from support.networks import inside, reaches
from support.peers import Client, Peer
from support.users import add_user
from support.wait import TIMEOUT, wait_until
from support.wire import request

DOCUMENT = os.path.join(os.path.dirname(__file__), "..", "..", "docs", "security.md")
MASTER, DEVICE = "192.0.2.1", "192.0.2.2"
STRANGER, ELSEWHERE = "198.51.100.9", "198.51.100.2"
LISTENING = "listening on port 5111"


def recipe(name):
    """The fenced block of the document with the name @p name after its language."""
    with open(DOCUMENT, encoding="utf-8") as document:
        found = re.findall(rf"^```\w+ {name}\n(.*?)^```$", document.read(), re.MULTILINE | re.DOTALL)
    assert len(found) == 1, f"{len(found)} recipes called {name}"
    return found[0]


class SecurityCase(EndToEndCase):
    def setUp(self):
        super().setUp()
        self.addCleanup(networks.remove_all_hosts)
        programs = self.path("bin")
        os.mkdir(programs)
        os.symlink(BINARY, os.path.join(programs, "runeld"))
        self.search = f"{programs}:{os.environ['PATH']}:/usr/sbin:/sbin"

    def shell(self, name):
        """Starts the recipe @p name in a shell, in a new session."""
        with open(self.path("shell"), "ab") as output:
            process = subprocess.Popen(["sh", "-ec", recipe(name)], start_new_session=True,
                                       env={**os.environ, "PATH": self.search},
                                       stdin=subprocess.DEVNULL, stdout=output, stderr=output)
        self.addCleanup(self.end, process)
        return process

    @staticmethod
    def end(process):
        if process.poll() is None:
            os.killpg(process.pid, signal.SIGKILL)
            process.wait()

    def run_here(self, command):
        with open(self.path("output"), "ab") as output:
            process = subprocess.Popen(command, start_new_session=True, stdin=subprocess.DEVNULL,
                                       stdout=output, stderr=output)
        self.addCleanup(self.end, process)
        return process


class NamespaceTest(SecurityCase):
    def test_a_daemon_in_a_network_namespace_is_reachable_only_over_its_cable(self):
        networks.add_host("stranger", "wan0", ELSEWHERE, STRANGER)
        process = self.shell("namespace")
        self.log.wait_for(LISTENING)
        self.assertTrue(reaches(None, "10.111.0.2"))
        self.assertFalse(reaches(None, "127.0.0.1"))
        self.assertFalse(reaches("stranger", ELSEWHERE))
        master = self.master("10.111.0.1")
        self.assertEqual(master.accept().ask("fileexists", "/").fields, SUCCESS)
        os.killpg(process.pid, signal.SIGTERM)
        self.assertEqual(process.wait(TIMEOUT), 0)


class TunnelTest(SecurityCase):
    def setUp(self):
        super().setUp()
        networks.add_host("master", "mgmt0", DEVICE, MASTER)
        os.makedirs("/etc/runeld", exist_ok=True)
        with inside("master"):
            self.far = self.master()

    def assert_tunnel_carries_tasks(self, start):
        """The master works through the tunnel, and again after an interruption."""
        daemon = self.daemon()
        for _ in range(2):
            tunnel = start()
            slave = self.far.accept()
            slave.socket.settimeout(TIMEOUT)
            self.assertEqual(slave.ask("fileexists", "/").fields, SUCCESS)
            content = os.urandom(1 << 20)
            self.assertEqual(slave.ask("write", self.path("sent"), content).fields, SUCCESS)
            self.assertEqual(self.content("sent"), content)
            self.assertEqual(slave.ask("read", self.path("sent")).output, content)
            os.killpg(tunnel.pid, signal.SIGKILL)
            tunnel.wait()
            slave.read_to_end()
        self.assert_stops(daemon)

    def test_ssh_carries_the_slave_connection(self):
        add_user("tunnel", self.path("tunnel"))
        os.mkdir(self.path("tunnel"), 0o755)
        for name in ("host", "client"):
            subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", self.path(name)],
                           check=True)
        shutil.move(self.path("client"), "/etc/runeld/key")
        with open("/etc/runeld/known_hosts", "wb") as known:
            known.write(MASTER.encode() + b" " + self.content("host.pub"))
        keys = self.file("keys", b'restrict,port-forwarding,permitopen="127.0.0.1:5112" ' +
                         self.content("client.pub"))
        config = self.file("sshd_config", f"HostKey {self.path('host')}\nUsePAM no\n"
                           f"AuthorizedKeysFile {keys}\nStrictModes no\nPidFile none\n".encode())
        os.chmod(self.directory, 0o755)
        os.makedirs("/run/sshd", exist_ok=True)
        self.run_here(["ip", "netns", "exec", "master", "/usr/sbin/sshd", "-D", "-e", "-f", config])
        self.wait_listening(22)
        self.assert_tunnel_carries_tasks(lambda: self.shell("ssh"))

    def test_stunnel_carries_the_slave_connection(self):
        with open("/etc/runeld/psk", "w", encoding="ascii") as secret:
            secret.write("device:" + os.urandom(32).hex() + "\n")
        os.chmod("/etc/runeld/psk", 0o600)
        there = self.file("master.conf", recipe("master").encode())
        here = self.file("device.conf", recipe("device").encode())
        self.run_here(["ip", "netns", "exec", "master", "stunnel", there])
        self.wait_listening(5113)
        self.assert_tunnel_carries_tasks(lambda: self.run_here(["stunnel", here]))

    def wait_listening(self, port):
        def listens():
            with socket.socket() as trial:
                return trial.connect_ex((MASTER, port)) == 0
        wait_until(listens, f"somebody listens on the master's port {port}")


class MemoryTest(SecurityCase):
    # Not testable with a sanitizer, which needs more address space than any limit leaves.
    if not is_instrumented():
        def test_a_limit_on_memory_ends_an_endless_clause_and_nothing_else(self):
            master = self.master()
            process = self.shell("memory")
            self.log.wait_for(LISTENING)
            slave = master.accept()
            agent = self.client()
            agent.send(b"<endless>")
            bridge = master.accept()
            part = b"x" * (1 << 20)
            for _ in range(600):
                agent.send(part)
            self.log.wait_for(r"handle_data_read: exception std::bad_alloc: .*")
            self.assertEqual(slave.ask("fileexists", "/").fields, SUCCESS)
            with open(f"/proc/{process.pid}/comm", encoding="ascii") as name:
                self.assertEqual(name.read(), "runeld\n")
            agent.close()
            self.assertEqual(bridge.read_to_end(), b"")
            with Client().socket as connected:
                connected.sendall(request("fileexists", "/"))
                self.assertEqual(Peer(connected).receive().fields, SUCCESS)
            os.killpg(process.pid, signal.SIGTERM)
            self.assertEqual(process.wait(TIMEOUT), 0)
