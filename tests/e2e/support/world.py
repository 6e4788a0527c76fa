# SPDX-License-Identifier: Apache-2.0
"""Refuses to run outside scripts/world, and keeps the world's rooms as the tests expect them."""
import os
import signal
import subprocess
import sys

HOSTS = "127.0.0.1 localhost\n"
PID_FILE = "/var/run/runeld.pid"

# The kernel gives the machine's own PID namespace this number, always.
MACHINES_OWN_PID_NAMESPACE = "pid:[4026531836]"


def require():
    """Ends this process unless it runs in a world of its own: the tests reboot and rewrite."""
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
    """The numbers of all processes of this world but process 1 and this one."""
    return [int(name) for name in os.listdir("/proc")
            if name.isdigit() and int(name) not in (1, os.getpid())]


def kill_all_others():
    """Ends what a test left running. Safe in here only, where there is nobody else."""
    require()
    for pid in processes():
        try:
            os.kill(pid, signal.SIGKILL)
        except ProcessLookupError:
            pass


def adopt_orphans():
    """Makes this process the parent of orphans, so that a daemon's exit status can be had."""
    import ctypes
    if ctypes.CDLL(None, use_errno=True).prctl(36, 1, 0, 0, 0) != 0:  # PR_SET_CHILD_SUBREAPER
        raise OSError(ctypes.get_errno(), "prctl")


def reset():
    """Brings /etc/hosts and /run to where each test starts."""
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
