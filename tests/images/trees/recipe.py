# SPDX-License-Identifier: Apache-2.0
"""Makes minimal Debian 12 trees with mmdebstrap and keeps them below build/images.

The directory of a tree is named by a hash of its recipe, so that each recipe is made once. Nothing may
change it afterwards: a test works in a layer above it (trees.tree).
"""
import contextlib
import dataclasses
import fcntl
import hashlib
import os
import shutil
import subprocess

SUITE = "bookworm"
FORMAT = 1  # change it when the same recipe has to make another tree

FLAVOURS = {
    "systemd": ("systemd", "systemd-sysv"),
    "plain": (),  # for chroot, not booted
    "sysvinit": ("sysvinit-core", "sysv-rc", "inetutils-syslogd"),
}
ALWAYS = ("iproute2", "procps", "python3-minimal", "libpython3-stdlib")

PROJECT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__)))))


def cache_directory():
    """Where trees are kept: RUNELD_IMAGES, or build/images of the project."""
    return os.environ.get("RUNELD_IMAGES") or os.path.join(PROJECT, "build", "images")


def apt_sources():
    """This machine's own sources of Debian, as one-line entries."""
    shown = "$(ORIGIN)|$(REPO_URI)|$(RELEASE)|$(CODENAME)|$(COMPONENT)"
    command = ["apt-get", "indextargets", "--format", shown, "Created-By: Packages"]
    for attempt in ("first", "after an update"):
        lines = subprocess.run(command, check=True, capture_output=True, text=True).stdout.splitlines()
        rows = [line.split("|") for line in lines]
        found = [f"deb {uri} {release} {component}" for origin, uri, release, codename, component in rows
                 if origin == "Debian" and codename.startswith(SUITE)]
        if found:
            return list(dict.fromkeys(found))
        if attempt == "first":
            subprocess.run(["apt-get", "update", "-qq"], check=True)
    raise RuntimeError(f"apt on this machine has no source for Debian {SUITE}")


@dataclasses.dataclass(frozen=True)
class Recipe:
    """What a tree is made of. `packages` are Debian packages beyond those that every tree has."""
    flavour: str = "systemd"
    packages: tuple = ()

    def includes(self):
        return sorted({*FLAVOURS[self.flavour], *ALWAYS, *self.packages})

    def name(self):
        text = "\n".join([str(FORMAT), SUITE, self.flavour, *self.includes()])
        return f"{self.flavour}-{hashlib.sha256(text.encode()).hexdigest()[:16]}"

    def tree(self):
        """The directory of the complete tree. Makes it if it is missing."""
        directory = cache_directory()
        os.makedirs(directory, exist_ok=True)
        complete = os.path.join(directory, self.name())
        with open(f"{complete}.lock", "w", encoding="ascii") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            if not os.path.isdir(complete):
                self._make(complete)
        return complete

    def _make(self, complete):
        unfinished = f"{complete}.unfinished"
        with contextlib.suppress(FileNotFoundError):
            shutil.rmtree(unfinished)
        sources = f"{complete}.list"
        with open(sources, "w", encoding="ascii") as file:
            file.write("\n".join(apt_sources()) + "\n")
        command = ["nice", "-n", "19", "mmdebstrap", "--mode=root", "--variant=minbase",
                   f"--include={','.join(self.includes())}",
                   "--aptopt=APT::Install-Recommends \"false\"",
                   "--customize-hook=mkdir -p \"$1/var/log/journal\"",
                   SUITE, unfinished, sources]
        environment = {**os.environ, "LC_ALL": "C.UTF-8", "DEBIAN_FRONTEND": "noninteractive"}
        with open(f"{complete}.log", "w+", encoding="utf-8") as log:
            made = subprocess.run(command, stdout=log, stderr=subprocess.STDOUT, env=environment,
                                  stdin=subprocess.DEVNULL, check=False)
            if made.returncode != 0:
                log.seek(0)
                raise RuntimeError(f"mmdebstrap failed for {self}:\n{log.read()[-4000:]}")
        os.rename(unfinished, complete)
