# SPDX-License-Identifier: Apache-2.0
"""Real ext4 file systems in image files. A copy of an image is the disk after a power cut."""
import ctypes
import os
import stat
import subprocess

SIZE = 8 << 20


def make_loop_devices():
    """Creates the loop devices, which the isolated /dev lacks. The devices themselves are the machine's;
    each mounted image uses one."""
    if not os.path.exists("/dev/loop-control"):
        os.mknod("/dev/loop-control", stat.S_IFCHR | 0o600, os.makedev(10, 237))
    for number in range(64):
        if not os.path.exists(f"/dev/loop{number}"):
            os.mknod(f"/dev/loop{number}", stat.S_IFBLK | 0o600, os.makedev(7, number))


class Image:
    def __init__(self, path):
        self.path = path

    def make(self):
        with open(self.path, "wb") as file:
            file.truncate(SIZE)
        subprocess.run(["mkfs.ext4", "-q", "-F", "-m", "0", self.path], check=True)
        return self

    def copy(self, path):
        subprocess.run(["cp", "--sparse=always", self.path, path], check=True)
        return Image(path)

    def mounted(self, directory, options=()):
        return Mounted(self, directory, options)


class Mounted:
    def __init__(self, image, directory, options):
        self.image, self.directory, self.options = image, directory, options

    def __enter__(self):
        os.makedirs(self.directory, exist_ok=True)
        subprocess.run(["mount", "-t", "ext4", "-o", ",".join(("loop", *self.options)),
                        self.image.path, self.directory], check=True)
        return self.directory

    def __exit__(self, *_):
        subprocess.run(["umount", self.directory], check=True)


def fill(directory, files):
    """Writes and syncs @p files, whose keys are paths below the directory."""
    for name, content in files.items():
        path = os.path.join(directory, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as file:
            file.write(content)
    sync(directory)


def sync(directory):
    """Writes all cached data of the file system to the disk."""
    handle = os.open(directory, os.O_RDONLY)
    ctypes.CDLL(None).syncfs(handle)
    os.close(handle)


def commit(directory):
    """Commits the file system's journal, as the fsync of another program does. The content of files
    without a sync stays unwritten."""
    path = os.path.join(directory, "other-program's-file")
    handle = os.open(path, os.O_WRONLY | os.O_CREAT, 0o644)
    os.write(handle, b"x")
    os.fsync(handle)
    os.close(handle)


__all__ = ["Image", "commit", "fill", "make_loop_devices", "sync"]
