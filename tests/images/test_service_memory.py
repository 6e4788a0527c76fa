# SPDX-License-Identifier: Apache-2.0
"""OOMPolicy=continue: a program of "exec" that takes too much memory dies alone. In a virtual machine, since
systemd learns of it from the memory controller of a unified hierarchy only."""
import unittest

from trees.machine import machine_recipe, run_in_machine
from trees.service import ServiceCase
from test_service_lines import run_without

SCRIPT = r"""
import subprocess, time
from support.peers import Client
from support.wait import wait_until

def show(name):
    return subprocess.run(["systemctl", "show", "--value", "--property=" + name, "runeld"],
                          stdout=subprocess.PIPE, text=True, check=True).stdout.strip()

def connected():
    try:
        return Client()
    except ConnectionRefusedError:
        return None

def killed():
    lines = subprocess.run(["journalctl", "--quiet", "--output=cat", "--unit=runeld"], text=True,
                           stdout=subprocess.PIPE).stdout
    return "killed by the OOM killer" in lines

subprocess.run(["systemctl", "start", "runeld"], check=True)
subprocess.run(["systemctl", "set-property", "--runtime", "runeld.service", "MemoryMax=64M"], check=True)
client = wait_until(connected, "the daemon listens")
before = show("MainPID")
reply = client.ask("exec", "/usr/bin/python3", "-c", "text = b'x' * (256 << 20)")
wait_until(killed, "systemd knows", 120)
# Where the policy is to stop, the daemon is stopped and started again within this time.
end = time.monotonic() + 15
while time.monotonic() < end and show("NRestarts") == "0":
    time.sleep(0.2)
again = wait_until(connected, "the daemon listens").ask("fileexists", "/")
tell(before=before, after=show("MainPID"), restarts=show("NRestarts"), fields=reply.fields,
     again=again.fields, result=show("Result"), controllers=open("/sys/fs/cgroup/cgroup.controllers").read())
"""


class Memory(ServiceCase):
    recipe = machine_recipe()

    def test_the_daemon_survives_a_program_that_takes_too_much(self):
        tree = self.prepared()
        for name in ("__init__", "wait", "wire", "peers"):
            tree.copy_in(self.project(f"tests/e2e/support/{name}.py"), f"/opt/support/{name}.py", 0o644)
        told = run_in_machine(tree, SCRIPT)
        self.assertIn("memory", told["controllers"])
        self.assertEqual(told["fields"][4], 9, "the program was not killed")
        self.assertEqual(told["again"], [0, 0, 0, 0, 0])
        self.assertEqual(told["restarts"], "0", "the daemon was restarted")
        self.assertEqual(told["after"], told["before"])
        self.figure("the program was killed, the daemon served on")


class WithoutTheLine(unittest.TestCase):
    def test_OOMPolicy(self):
        status, output = run_without("OOMPolicy=continue", "test_service_memory.Memory")
        self.assertEqual(status, 1, output[-2000:])
        self.assertIn("the daemon was restarted", output)


if __name__ == "__main__":
    unittest.main()
