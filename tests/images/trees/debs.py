# SPDX-License-Identifier: Apache-2.0
"""The Debian packages of scripts/packages, and other versions of them made by repacking.

    python3 -B -m trees.debs VERSION DIRECTORY    a repository of all packages with another version
"""
import glob
import os
import re
import shutil
import subprocess
import sys
import tempfile

from trees.recipe import PROJECT


def directory():
    """Where the packages are: RUNELD_PACKAGES, or build/packages of the project."""
    return os.environ.get("RUNELD_PACKAGES") or os.path.join(PROJECT, "build", "packages")


def deb(package):
    """The path of the built @p package."""
    found = glob.glob(os.path.join(directory(), f"{package}_*.deb"))
    assert len(found) == 1, f"{directory()}: {len(found)} packages {package}; scripts/packages makes them"
    return found[0]


class Repacked:
    """Other versions of a package, in a temporary directory that `remove` removes."""

    def __init__(self):
        self.directory = tempfile.TemporaryDirectory(prefix="runeld-debs-")

    def remove(self):
        self.directory.cleanup()

    def make(self, package, version, change=None):
        """The package with another version. @p change gets the directory of its unpacked files."""
        tree = os.path.join(self.directory.name, f"{package}_{version}")
        made = f"{tree}.deb"
        subprocess.run(["dpkg-deb", "--raw-extract", deb(package), tree], check=True)
        control = os.path.join(tree, "DEBIAN/control")
        text = read(control)
        built = re.search(r"^Version: (.*)$", text, re.MULTILINE)[1]
        write(control, text.replace(f"Version: {built}\n", f"Version: {version}\n")
              .replace(f"(= {built})", f"(= {version})"))
        if change is not None:
            change(tree)
        subprocess.run(["dpkg-deb", "--root-owner-group", "-Znone", "--build", tree, made], check=True,
                       stdout=subprocess.DEVNULL)
        return made


def read(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def write(path, text):
    """Replaces the text of a file and keeps its mode."""
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)


def make_repository(version, target):
    """Puts all packages with another version, and their index, into the directory @p target."""
    repacked = Repacked()
    os.makedirs(target)
    for path in glob.glob(os.path.join(directory(), "*.deb")):
        package = os.path.basename(path).partition("_")[0]
        if not package.endswith("-dbgsym"):
            made = repacked.make(package, version)
            shutil.move(made, target)
    repacked.remove()
    with open(os.path.join(target, "Packages"), "wb") as index:
        subprocess.run(["dpkg-scanpackages", "--multiversion", "."], check=True, cwd=target, stdout=index)


if __name__ == "__main__":
    make_repository(*sys.argv[1:])
