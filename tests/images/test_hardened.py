# SPDX-License-Identifier: Apache-2.0
"""The example of a hardened service: what still works under it, and what each line takes from programs."""
import re
import subprocess
import tempfile
import unittest

from support.peers import Master
from support.wait import wait_until
from trees.recipe import Recipe
from trees.service import DROP_IN, LEDS, TIMEOUT, ServiceCase, drop_in, unit_text

SUCCESS = (0, 0, 0, 0, 0)
ENDED = (0, 2, 0, 0, 0)  # a program that ended with 0
MOST_EXPOSURE = 4.0
PLAIN_EXPOSURE = 9.6

# The setting, and a command that works as a program of "exec" without it and fails with it. "{}" stands for
# Python.
TAKEN = (
    ("CapabilityBoundingSet", "mount -t tmpfs none /mnt"),
    ("NoNewPrivileges", "grep -q 'NoNewPrivs:.*0' /proc/self/status"),
    ("SystemCallFilter", "{} 'import ctypes, errno; libc = ctypes.CDLL(None, use_errno=True); "
                         "libc.ptrace(9999, 0, 0, 0); assert ctypes.get_errno() != errno.EPERM'"),
    ("SystemCallArchitectures", "/opt/call32"),
    ("PrivateDevices", "test -c /dev/tried"),
    ("ProtectKernelTunables", "echo 1 >/proc/sys/net/ipv4/ip_forward"),
    ("ProtectControlGroups", "cd /sys/fs/cgroup; test -d systemd && cd systemd; mkdir made && rmdir made"),
    ("ProtectKernelModules", "ls /usr/lib/modules/tried"),
    ("ProtectHostname", "hostname another"),
    ("RestrictNamespaces", "unshare --uts true"),
    ("RestrictRealtime", "chrt --rr 1 true"),
    ("LockPersonality", "setarch --addr-no-randomize true"),
    ("RestrictAddressFamilies", "{} 'import socket; socket.socket(socket.AF_PACKET, socket.SOCK_DGRAM)'"),
)
# What a container of this machine may not do anyway, or what needs devices that it lacks.
NOT_TRIED = ("DevicePolicy", "ProtectKernelLogs", "ProtectClock")
NOT_TAKING = ("ReadWritePaths", "SystemCallErrorNumber")

# Ends with 0 if the kernel executes a system call by the entry for 32-bit programs: getpid by int 0x80.
CALL32 = r"""int main(void) {
  int result;
  __asm__ volatile("int $0x80" : "=a"(result) : "a"(20));
  return result > 0 ? 0 : 1;
}
"""


def settings(text):
    return [line for line in text.splitlines() if line and not line.startswith(("#", "["))]


class HardenedCase(ServiceCase):
    recipe = Recipe(packages=("util-linux", "hostname"))

    def hardened(self, text=None, **how):
        return self.started(files=[(DROP_IN, drop_in() if text is None else text)], **how)

    def succeeds(self, tree, *task, **options):
        reply = self.client(tree).ask(*task, timeout=TIMEOUT, **options)
        self.assertEqual(reply.fields, ENDED if task[0] == "exec" else SUCCESS, reply)
        return reply


class Works(HardenedCase):
    def test_files_and_programs(self):
        tree = self.hardened()
        for path in ("/etc/made", "/usr/bin/made", "/tmp/made", "/root/made", "/var/lib/made"):
            self.succeeds(tree, "write", path, "content")
            self.assertEqual(tree.read(path), b"content")
            self.assertEqual(self.succeeds(tree, "read", path).output, b"content")
            self.succeeds(tree, "chmodx", path)
            self.succeeds(tree, "unlink", path)
        reply = self.succeeds(tree, "exec", "/bin/sh", "-c", "id -u; cat /etc/hostname | wc -l; kill -0 1")
        self.assertEqual(reply.output.split()[0], b"0")
        self.succeeds(tree, "exec", "/usr/bin/systemctl", "is-active", "runeld")
        self.succeeds(tree, "exec", "/usr/bin/apt-get", "--version")
        self.succeeds(tree, "exec", "/bin/su", "-s", "/bin/sh", "-c", "true", "nobody")

    def test_a_program_by_systemd_run_is_not_restricted(self):
        tree = self.hardened()
        mount = ("mount", "-t", "tmpfs", "none", "/mnt")
        self.assertNotEqual(self.client(tree).ask("exec", "/usr/bin/env", *mount).fields, ENDED)
        self.succeeds(tree, "exec", "/usr/bin/systemd-run", "--quiet", *mount)
        wait_until(lambda: " /mnt tmpfs " in tree.read("/proc/1/mounts").decode(), "it is mounted", TIMEOUT)

    def test_relay_and_hosts_file(self):
        tree = self.hardened()
        with tree.network():
            master = Master()
        self.addCleanup(master.close)
        slave = master.accept(TIMEOUT)
        self.assertEqual(slave.ask("fileexists", "/etc/hosts").fields, SUCCESS)
        agent = self.client(tree)
        agent.send(b"<hello/>")
        bridge = master.accept(TIMEOUT)
        self.assertEqual(bridge.receive_bytes(10, TIMEOUT), b"<hello/>\r\n")
        bridge.send(b"<answer/>")
        self.assertEqual(agent.receive_bytes(11, TIMEOUT), b"<answer/>\r\n")
        self.assertRegex(tree.read("/etc/hosts").decode(), r"(?m)^127\.0\.0\.1\s+update-master")

    def leds(self, text=None):
        """Asks for the LEDs of a device. As in a real /sys, their directories are links to others."""
        tree = self.installed(files=[(DROP_IN, drop_in() if text is None else text)])
        tree.shell("mount -t tmpfs tmpfs /sys/class; mount -t tmpfs tmpfs /sys/block; mkdir /sys/class/leds")
        for directory in LEDS:
            name = directory.rpartition("/")[2]
            tree.shell(f"mkdir /sys/block/{name}; : >/sys/block/{name}/brightness; "
                       f"ln -s ../../block/{name} {directory}")
        tree.run("systemctl", "start", "runeld")
        self.wait_served(tree)
        fields = self.client(tree).ask("changeleds", "1", "1").fields
        return fields, [tree.shell(f"cat {directory}/brightness").strip() for directory in LEDS]

    def test_leds(self):
        self.assertEqual(self.leds(), (SUCCESS, ["1", "1"]))

    def test_leds_need_their_paths(self):
        text = "\n".join(line for line in drop_in().splitlines() if not line.startswith("ReadWritePaths"))
        fields, values = self.leds(text)
        self.assertNotEqual(fields, SUCCESS)
        self.assertEqual(values, ["", ""])

    def test_restart_and_reboot(self):
        tree = self.hardened()
        before = self.main_pid(tree)
        self.restart(tree)
        self.wait_replaced(tree, before)
        self.succeeds(tree, "reboot")
        self.assertEqual(tree.wait_ended(TIMEOUT), "reboot")

    def test_a_privileged_port(self):
        """Also where ports below 5113 are privileged."""
        tree = self.installed(files=[(DROP_IN, drop_in())])
        tree.run("sysctl", "-q", "-w", "net.ipv4.ip_unprivileged_port_start=5113")
        tree.run("systemctl", "start", "runeld")
        self.wait_served(tree)

    def test_the_port_needs_its_capability(self):
        text = drop_in().replace(" CAP_NET_BIND_SERVICE", "")
        tree = self.installed(files=[(DROP_IN, text)])
        tree.run("sysctl", "-q", "-w", "net.ipv4.ip_unprivileged_port_start=5113")
        tree.run("systemctl", "start", "runeld")
        wait_until(lambda: any("cannot bind socket: port = 5111, Permission denied" in line
                               for line in tree.journal("--unit=runeld")), "the bind fails", TIMEOUT)


class Takes(HardenedCase):
    def prepared(self, *arguments, **how):
        tree = super().prepared(*arguments, **how)
        tree.write("/usr/lib/modules/tried", "")
        with tempfile.TemporaryDirectory() as directory:
            with open(f"{directory}/call32.c", "w", encoding="ascii") as file:
                file.write(CALL32)
            subprocess.run(["cc", "-static", "-no-pie", "-o", f"{directory}/call32", f"{directory}/call32.c"],
                           check=True)
            tree.copy_in(f"{directory}/call32", "/opt/call32")
        return tree

    def test_what_each_line_takes(self):
        """With only this line, the command fails; without the file, it works."""
        tree = self.started()
        tree.run("mknod", "/dev/tried", "c", "1", "3")
        for name, _ in TAKEN:
            self.assertEqual(self.tries(tree, name), ENDED, f"{name}: fails without the file")
        for name, _ in TAKEN:
            with self.subTest(name):
                lines = [line for line in settings(drop_in())
                         if line.startswith((f"{name}=", "SystemCallErrorNumber="))]
                self.assertTrue(lines[:1])
                tree.write(DROP_IN, "\n".join(["[Service]", *lines]) + "\n")
                tree.run("systemctl", "daemon-reload")
                tree.run("systemctl", "restart", "runeld")
                self.wait_served(tree)
                self.assertNotEqual(self.tries(tree, name), ENDED, f"{name}: takes nothing")
        self.figure(f"{len(TAKEN)} settings take what their comment says")

    def tries(self, tree, name):
        """The reply's fields of the command of the setting @p name, run by "exec"."""
        command = dict(TAKEN)[name].replace("{}", "/usr/bin/python3 -c")
        reply = self.client(tree).ask("exec", "/bin/sh", "-c", command, timeout=TIMEOUT)
        return reply.fields

    def test_each_setting_is_tried_or_named(self):
        names = {line.partition("=")[0] for line in settings(drop_in())}
        self.assertEqual(names, {*(name for name, _ in TAKEN), *NOT_TRIED, *NOT_TAKING})


class Exposure(unittest.TestCase):
    def exposure(self, *drop_ins):
        with tempfile.TemporaryDirectory() as directory:
            for name, text in (("runeld.service", unit_text()), *drop_ins):
                path = f"{directory}/{name}"
                subprocess.run(["mkdir", "-p", path.rpartition("/")[0]], check=True)
                with open(path, "w", encoding="utf-8") as file:
                    file.write(text)
            answer = subprocess.run(["systemd-analyze", "security", "--offline=true", "--no-pager",
                                     f"{directory}/runeld.service"], stdout=subprocess.PIPE, text=True,
                                    stderr=subprocess.STDOUT, check=True)
        return float(re.search(r"Overall exposure level for runeld.service: ([0-9.]+)", answer.stdout)[1])

    def test_exposure(self):
        plain, hardened = self.exposure(), self.exposure(("runeld.service.d/hardened.conf", drop_in()))
        self.assertEqual(plain, PLAIN_EXPOSURE)
        self.assertLessEqual(hardened, MOST_EXPOSURE)
        stated = re.search(r"rates the service\n# ([0-9.]+) without this file and ([0-9.]+) with it", drop_in())
        self.assertEqual([float(text) for text in stated.groups()], [plain, hardened])


if __name__ == "__main__":
    unittest.main()
