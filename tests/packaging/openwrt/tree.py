# SPDX-License-Identifier: Apache-2.0
"""A tree like that of an OpenWrt device: busybox, and the stubs of this directory for rc.common, procd,
uci and opkg. Programs in it share the network and the processes of the world in which the test runs.
"""
import os
import pathlib
import re
import shutil
import subprocess

HERE = pathlib.Path(__file__).resolve().parent
STUBS = {"rc.common": "etc/rc.common", "procd-stub": "usr/sbin/procd-stub", "uci": "sbin/uci",
         "opkg": "bin/opkg"}
ENVIRONMENT = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "HOME": "/root"}


def libraries(program):
    """The shared libraries of a program of this machine, and its dynamic linker."""
    listed = subprocess.run(["ldd", program], stdout=subprocess.PIPE, text=True, check=False).stdout
    return re.findall(r"(/\S+) \(0x", listed)


class OpenwrtTree:
    """Made in the empty directory @p top. `unmount` it before the directory is removed."""

    def __init__(self, top):
        assert os.environ.get("RUNELD_WORLD") == "1", "only in scripts/world"
        self.top = pathlib.Path(top)
        for name in ("bin", "sbin", "usr/bin", "usr/sbin", "etc/config", "etc/init.d", "etc/rc.d", "dev", "proc",
                     "root", "tmp", "var/run", "var/log"):
            (self.top / name).mkdir(parents=True)
        busybox = shutil.which("busybox")
        self.add_program(busybox, "bin/busybox")
        applets = subprocess.run([busybox, "--list-full"], stdout=subprocess.PIPE, text=True, check=True)
        for name in applets.stdout.split():
            target = self.top / name
            target.parent.mkdir(parents=True, exist_ok=True)
            if not os.path.lexists(target):
                target.symlink_to("/bin/busybox")
        for name, place in STUBS.items():
            self.add(HERE / name, place)
        for name in ("dev", "proc"):
            subprocess.run(["mount", "--rbind", f"/{name}", self.top / name], check=True)

    def unmount(self):
        for name in ("dev", "proc"):
            subprocess.run(["umount", "-l", self.top / name], check=True)

    def add(self, source, place, mode=0o755):
        """Copies a file of this machine into the tree."""
        target = self.top / place.lstrip("/")
        target.parent.mkdir(parents=True, exist_ok=True)
        target.unlink(missing_ok=True)
        shutil.copyfile(source, target)
        target.chmod(mode)

    def add_program(self, program, place):
        self.add(program, place)
        self.add_libraries(program)

    def add_libraries(self, program):
        """Adds what a program built for this machine needs: the packages libstdcpp and libc of a device."""
        for library in libraries(program):
            if not (self.top / library.lstrip("/")).exists():
                self.add(library, library)

    def read(self, place):
        return (self.top / place.lstrip("/")).read_text("utf-8")

    def run(self, script, timeout=120):
        """Runs a script with the tree's sh. Returns its exit status and its output."""
        done = subprocess.run(["chroot", self.top, "/bin/sh", "-c", script], stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False,
                              env=ENVIRONMENT, timeout=timeout)
        return done.returncode, done.stdout
