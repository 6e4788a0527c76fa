# SPDX-License-Identifier: Apache-2.0
"""The daemon as a systemd service in a booted tree."""
import os
import re
import subprocess

from support.peers import Client
from support.wait import wait_until
from support.wire import request
from trees.case import TreeCase
from trees.recipe import PROJECT, cache_directory

UNIT = "/lib/systemd/system/runeld.service"
OPTIONS = "/etc/default/runeld"
GUARD = "/usr/lib/runeld/runeld-guard"
BINARY = "/usr/sbin/runeld"
DROP_IN = "/etc/systemd/system/runeld.service.d/hardened.conf"
LEDS = ("/sys/class/leds/first", "/sys/class/leds/second")
TIMEOUT = 60

# A line to leave out of the unit, and one in its place: the test of that line has to fail then.
WITHOUT = os.environ.get("RUNELD_UNIT_WITHOUT", "")
WITH = os.environ.get("RUNELD_UNIT_WITH", "")


def unit_text():
    """The unit as an installation below /usr has it."""
    with open(os.path.join(PROJECT, "packaging", "systemd", "runeld.service.in"), encoding="utf-8") as file:
        text = file.read()
    for name, value in (("CMAKE_INSTALL_FULL_SYSCONFDIR", "/etc"), ("CMAKE_INSTALL_FULL_SBINDIR", "/usr/sbin"),
                        ("RUNELD_FULL_GUARD", GUARD)):
        text = text.replace(f"@{name}@", value)
    assert not re.search(r"@\w+@", text), text
    return text


def drop_in():
    """The example of a hardened service, as an installation has it."""
    with open(os.path.join(PROJECT, "packaging", "systemd", "hardened.conf.in"), encoding="utf-8") as file:
        text = file.read()
    for name, value in zip(("FIRST", "SECOND"), LEDS):
        text = text.replace(f"@RUNELD_LED_{name}@", value)
    return text


def unit_lines(text=None):
    """The lines of the unit that are neither comments nor names of sections."""
    return [line for line in (text or unit_text()).splitlines()
            if line and not line.startswith(("#", "["))]


def tried_unit():
    """The unit for a test, with WITH in place of WITHOUT, if they are set."""
    text = unit_text()
    if WITHOUT:
        assert unit_lines(text).count(WITHOUT) == 1, f"the unit has no line {WITHOUT}"
        text = text.replace(f"\n{WITHOUT}\n", f"\n{WITH}\n")
    return text


def preload(name):
    """The path of the library that is made of tests/e2e/NAME.c."""
    source = os.path.join(PROJECT, "tests", "e2e", f"{name}.c")
    library = os.path.join(cache_directory(), f"{name}.so")
    if not os.path.exists(library) or os.path.getmtime(library) < os.path.getmtime(source):
        os.makedirs(cache_directory(), exist_ok=True)
        subprocess.run(["cc", "-shared", "-fPIC", "-O1", "-o", f"{library}.{os.getpid()}", source, "-ldl"],
                       check=True)
        os.rename(f"{library}.{os.getpid()}", library)
    return library


class ServiceCase(TreeCase):
    """Installs the daemon and its unit in a tree."""

    def installed(self, *arguments, **how):
        """A booted tree with the service, not started."""
        return self.prepared(*arguments, **how).boot()

    def prepared(self, options=None, clock=None, files=(), **how):
        """A tree with the service, not booted. `options` go to /etc/default/runeld, `clock` is a library
        of tests/e2e to preload there, `files` are (name, content) pairs."""
        tree = self.tree(**how)
        tree.copy_in(self.daemon_binary(), BINARY)
        tree.copy_in(self.project("packaging/guard/runeld-guard"), GUARD)
        tree.write(UNIT, tried_unit())
        tree.write("/etc/hosts", "127.0.0.1 localhost\n")
        settings = [] if options is None else [f'RUNELD_OPTIONS="{options}"']
        if clock is not None:
            tree.copy_in(preload(clock), f"/opt/{clock}.so")
            settings.append(f"LD_PRELOAD=/opt/{clock}.so")
        if settings:
            tree.write(OPTIONS, "\n".join(settings) + "\n")
        for name, content in files:
            tree.write(name, content)
        return tree

    def started(self, *arguments, **how):
        """A booted tree in which the service serves."""
        tree = self.installed(*arguments, **how)
        tree.run("systemctl", "start", "runeld")
        self.wait_served(tree)
        return tree

    def client(self, tree):
        """A connection to the daemon."""
        with tree.network():
            client = Client()
        self.addCleanup(client.close)
        return client

    def serves(self, tree):
        try:
            client = self.client(tree)
        except ConnectionRefusedError:
            return False
        served = client.ask("fileexists", "/", timeout=TIMEOUT).fields == (0, 0, 0, 0, 0)
        client.close()
        return served

    def wait_served(self, tree, timeout=TIMEOUT):
        wait_until(lambda: self.serves(tree), "the daemon serves", timeout)

    def restart(self, tree):
        """The task "restart", which has no reply: the daemon ends."""
        client = self.client(tree)
        client.send(request("restart"))
        self.assertEqual(client.read_to_end(TIMEOUT), b"")

    @staticmethod
    def show(tree, name):
        return tree.run("systemctl", "show", "--value", f"--property={name}", "runeld").stdout.strip()

    def main_pid(self, tree):
        return int(self.show(tree, "MainPID"))

    def wait_replaced(self, tree, before):
        """Waits until another process than @p before serves."""
        wait_until(lambda: self.main_pid(tree) not in (0, before), "the daemon runs again", 30)
        self.wait_served(tree)
