# SPDX-License-Identifier: Apache-2.0
"""A device with neighbours, and the files of packaging/protection in use there."""
import os
import re
import shutil
import socket
import stat
import subprocess

from support import networks, world
from support.case import EndToEndCase
from support.networks import inside
from support.peers import AGENT_PORT
from support.users import add_user, socket_of
from support.wait import TIMEOUT, wait_until

FILES = os.path.join(os.path.dirname(__file__), "..", "..", "..", "packaging", "protection")
PRIVILEGED = "/proc/sys/net/ipv4/ip_unprivileged_port_start"
MASTER, NEIGHBOUR, DEVICE = "192.0.2.1", "192.0.2.9", "192.0.2.2"
STRANGER, ELSEWHERE = "198.51.100.9", "198.51.100.2"
DROPPED = 0.5  # seconds after which a packet that was not answered counts as dropped


def installed(name):
    """The content of a file of packaging/protection."""
    with open(os.path.join(FILES, name), encoding="utf-8") as file:
        return file.read()


def filter_rules(*examples):
    """The nftables file, with the example elements of the sets @p examples in use."""
    text = installed("runeld.nft")
    for name in examples:
        text, count = re.subn(rf"(set {name} \{{[^}}]*?)(    elements = .*\n)?    # (elements = .*\n)",
                              r"\1    \3", text)
        assert count == 1, f"no example for the set {name}"
    return text


def nft(*arguments, rules=None):
    return subprocess.run(["nft", *arguments], input=rules, text=True, check=True,
                          capture_output=True).stdout


def load(rules):
    nft("-f", "-", rules=rules)


def dial(connecting, address, port, timeout=TIMEOUT):
    """What becomes of a connection: "connected", "refused" or "dropped"."""
    connecting.settimeout(timeout)
    try:
        connecting.connect((address, port))
    except ConnectionRefusedError:
        return "refused"
    except TimeoutError:
        return "dropped"
    return "connected"


class ProtectionCase(EndToEndCase):
    """A device with two neighbours: a master behind mgmt0, a stranger behind wan0."""

    def setUp(self):
        super().setUp()
        self.addCleanup(networks.remove_all_hosts)
        self.addCleanup(nft, "flush", "ruleset")
        self.addCleanup(self.restore, PRIVILEGED, self.text(PRIVILEGED))
        networks.add_host("master", "mgmt0", DEVICE, MASTER, NEIGHBOUR)
        networks.add_host("stranger", "wan0", ELSEWHERE, STRANGER)
        self.agent = add_user("agent", self.path("agent"))
        self.tunnel = add_user("stunnel4", self.path("stunnel4"))

    @staticmethod
    def text(path):
        with open(path, encoding="ascii") as file:
            return file.read()

    @staticmethod
    def restore(path, content):
        with open(path, "w", encoding="ascii") as file:
            file.write(content)

    def run_tool(self, *command, text=""):
        done = subprocess.run(command, input=text, text=True, capture_output=True, check=False)
        self.assertEqual(done.returncode, 0, done.stderr)
        return done.stdout

    def dial_as(self, user, address, port, timeout=TIMEOUT):
        with socket_of(user) as connecting:
            return dial(connecting, address, port, timeout)


class WireGuard(ProtectionCase):
    """A tunnel between the device and the master."""

    NEAR, FAR = "10.111.1.2", "10.111.1.1"

    def setUp(self):
        super().setUp()
        if not os.path.exists("/dev/net/tun"):
            os.mkdir("/dev/net")
            os.mknod("/dev/net/tun", stat.S_IFCHR | 0o600, os.makedev(10, 200))
        os.makedirs("/etc/wireguard", exist_ok=True)
        world.mount("-t", "tmpfs", "-o", "mode=700", "tmpfs", "/etc/wireguard")
        self.addCleanup(world.unmount, "/etc/wireguard")
        keys = {}
        for name in ("wg-master", "wg-devices"):
            private = self.run_tool("wg", "genkey")
            self.restore(f"/etc/wireguard/{name}.key", private)
            keys[name] = self.run_tool("wg", "pubkey", text=private).strip()
        self.install("wireguard-device.conf", "wg-master", MASTER_PUBLIC_KEY=keys["wg-devices"])
        self.install("wireguard-master.conf", "wg-devices", DEVICE_PUBLIC_KEY=keys["wg-master"])
        self.run_tool("ip", "netns", "exec", "master", "wg-quick", "up", "wg-devices")
        self.run_tool("wg-quick", "up", "wg-master")

    @staticmethod
    def install(file, interface, **values):
        text = installed(file)
        for name, value in values.items():
            assert text.count(name) == 1
            text = text.replace(name, value)
        with open(f"/etc/wireguard/{interface}.conf", "w", encoding="ascii") as config:
            os.fchmod(config.fileno(), 0o600)
            config.write(text)

    def rules(self):
        text = filter_rules("clients", "masters")
        assert text.count('"mgmt0" . 192.0.2.1 }') == 2 + 1  # and the comment at the top
        return text.replace('"mgmt0" . 192.0.2.1 }', f'"wg-master" . {self.FAR} }}')


class Stunnel(ProtectionCase):
    """TLS tunnels between the device and the master."""

    TUNNEL_PORT = 5114  # of the device

    def setUp(self):
        super().setUp()
        self.tunnels = []
        for ca, names in (("ca", ["master", "device-1", "device-2"]), ("other", ["master"])):
            self.run_tool("sh", os.path.join(FILES, "stunnel-certificates"), self.path(ca), *names)
        self.run_tool("sysctl", "-q", "-p", os.path.join(FILES, "60-runeld.conf"))
        load(filter_rules("client_users", "master_users")
             .replace("{ root, agent }", "{ root, stunnel4 }"))

    def stunnel(self, end, certificate, *wrapper):
        """Starts stunnel with the file of this @p end, where /etc/runeld has what the file names."""
        keys = self.path(f"keys-{end}")
        os.mkdir(keys)
        shutil.copy(self.path("ca/ca.pem"), keys)
        shutil.copy(self.path(certificate), os.path.join(keys, f"{end}.pem"))
        os.makedirs("/etc/runeld", exist_ok=True)
        start = f"mount --bind {keys} /etc/runeld && exec stunnel {FILES}/stunnel-{end}.conf"
        with open(self.path(f"stunnel-{end}"), "wb") as output:
            process = subprocess.Popen([*wrapper, "unshare", "--mount", "sh", "-c", start],
                                       stdin=subprocess.DEVNULL, stdout=output, stderr=output)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        self.tunnels.append(process)

    def user_of(self, process):
        status = self.text(f"/proc/{process.pid}/status")
        return int(re.search(r"^Uid:\s+(\d+)", status, re.MULTILINE)[1])

    def start_device(self, certificate="ca/device-1.pem"):
        self.stunnel("device", certificate)
        self.wait_listening(None, self.TUNNEL_PORT)

    def start_master(self, certificate="ca/master.pem"):
        with inside("master"):
            far = self.master()
        self.stunnel("master", certificate, "ip", "netns", "exec", "master")
        self.wait_listening("master", AGENT_PORT)
        return far

    def wait_listening(self, host, port):
        """Connects to no one: a connection would be the first that the other end gets."""
        def listens():
            assert self.tunnels[-1].poll() is None, "stunnel ended"
            with inside(host), open("/proc/thread-self/net/tcp", encoding="ascii") as table:
                return re.search(rf"^ *\d+: [0-9A-F]{{8}}:{port:04X} \S+ 0A ", table.read(), re.MULTILINE)
        wait_until(listens, f"a program listens on port {port}")
