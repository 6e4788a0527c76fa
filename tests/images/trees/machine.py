# SPDX-License-Identifier: Apache-2.0
"""A tree on the disk of a virtual machine, for what a container of this machine cannot have: a kernel with
a unified hierarchy of control groups and all of their controllers."""
import glob
import json
import subprocess

from trees.recipe import Recipe

PACKAGES = ("linux-image-cloud-amd64", "initramfs-tools")
BOOT_TIMEOUT = 900.0
MARK = "TRIED "

# Runs the script as the last service, and switches the machine off.
UNIT = """[Unit]
After=multi-user.target
[Service]
Type=oneshot
ExecStart=/usr/bin/python3 /opt/tried.py
StandardOutput=journal+console
StandardError=journal+console
ExecStopPost=systemctl poweroff --no-block
"""
# What the script says about the result: a line of the console.
HEAD = f"""import json, sys
sys.path.insert(0, "/opt")
def tell(**fields):
    with open("/dev/ttyS0", "w") as console:
        console.write("\\n{MARK}" + json.dumps(fields) + "\\n")
"""


def machine_recipe(packages=()):
    return Recipe(packages=(*PACKAGES, *packages))


def run_in_machine(tree, script, memory=512):
    """Boots the layer @p tree, which is not up, in a virtual machine without a network. Runs the Python
    text @p script there, as root. Returns the fields that it told with tell(...)."""
    tree.write("/opt/tried.py", HEAD + script)
    tree.write("/etc/systemd/system/tried.service", UNIT)
    tree.prepare("mkdir", "-p", "/etc/systemd/system/multi-user.target.wants")
    tree.prepare("ln", "-s", "/etc/systemd/system/tried.service",
                 "/etc/systemd/system/multi-user.target.wants/tried.service")
    kernel, = glob.glob(f"{tree.lower}/boot/vmlinuz-*")
    start, = glob.glob(f"{tree.lower}/boot/initrd.img-*")
    entered = ["nsenter", f"--target={tree.holder()}", "--mount", "--pid", "nice", "-n", "19"]
    subprocess.run([*entered, "mke2fs", "-q", "-t", "ext4", "-d", "/run/tree", "/run/disk", "2G"], check=True,
                   stdout=subprocess.DEVNULL)
    command = [
        *entered, "qemu-system-x86_64", "-machine", "q35,accel=tcg", "-m", str(memory), "-smp", "1",
        "-nodefaults", "-no-reboot", "-display", "none", "-serial", "stdio", "-nic", "none",
        "-drive", "file=/run/disk,format=raw,if=virtio,cache=unsafe", "-kernel", kernel, "-initrd", start,
        "-append", "root=/dev/vda rw console=ttyS0 panic=-1"]
    with open(tree.console, "w+b") as console:
        machine = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=console, stderr=console)
        try:
            machine.wait(BOOT_TIMEOUT)
        finally:
            machine.kill()
            machine.wait()
    text = tree.console_text()
    told = {}
    for line in text.splitlines():
        _, mark, fields = line.partition(MARK)
        if mark:
            told.update(json.loads(fields))
    assert told, f"the machine told nothing, and ended with {machine.returncode}"
    return told
