# SPDX-License-Identifier: Apache-2.0
"""Refuses to run outside scripts/world, and restores the state of the world for each test."""
import os
import signal
import subprocess
import sys

HOSTS = "127.0.0.1 localhost\n"
PID_FILE = "/var/run/runeld.pid"

# Inode of the initial PID namespace, fixed in the kernel.
MACHINES_OWN_PID_NAMESPACE = "pid:[4026531836]"


def require():
    """Ends this process outside an isolated world: the tests reboot and rewrite system files."""
    try:
        with open("/proc/1/comm", encoding="ascii") as name:
            first = name.read().strip()
        inside = (os.environ.get("RUNELD_WORLD") == "1" and first == "world" and
                  os.readlink("/proc/self/ns/pid") != MACHINES_OWN_PID_NAMESPACE)
    except OSError:
        inside = False
    if not inside:
        sys.exit("These tests run in scripts/world only: start them with ctest, or with "
                 "'scripts/world --no-log python3 -m support.runner NAME' in tests/e2e.")


def processes():
    """The numbers of all processes of this world except process 1 and this one."""
    return [int(name) for name in os.listdir("/proc")
            if name.isdigit() and int(name) not in (1, os.getpid())]


def kill_all_others():
    """Kills the processes that a test left running. Safe only in an isolated world."""
    require()
    for pid in processes():
        try:
            os.kill(pid, signal.SIGKILL)
        except ProcessLookupError:
            pass


def adopt_orphans():
    """Makes this process the parent of orphans, so that it gets a daemon's exit status."""
    import ctypes
    if ctypes.CDLL(None, use_errno=True).prctl(36, 1, 0, 0, 0) != 0:  # PR_SET_CHILD_SUBREAPER
        raise OSError(ctypes.get_errno(), "prctl")


def reset():
    """Restores the initial /etc/hosts and /run."""
    with open("/etc/hosts", "w", encoding="ascii") as hosts:
        hosts.write(HOSTS)
    for name in os.listdir("/run"):
        path = os.path.join("/run", name)
        if name.startswith("runeld.pid"):
            os.rmdir(path) if os.path.isdir(path) and not os.path.islink(path) else os.unlink(path)


def mount(*arguments):
    subprocess.run(["mount", *arguments], check=True)


def unmount(path):
    subprocess.run(["umount", "-l", path], check=True)


require()
