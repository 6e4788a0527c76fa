# SPDX-License-Identifier: Apache-2.0
"""Real ext4 file systems in files, which can be copied at any moment as a power cut leaves them."""
import ctypes
import os
import stat
import subprocess

SIZE = 8 << 20


def make_loop_devices():
    """The world's /dev has none; they are the machine's, each image in one for as long as mounted."""
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

    def mounted(self, folder, options=()):
        return Mounted(self, folder, options)


class Mounted:
    def __init__(self, image, folder, options):
        self.image, self.folder, self.options = image, folder, options

    def __enter__(self):
        os.makedirs(self.folder, exist_ok=True)
        subprocess.run(["mount", "-t", "ext4", "-o", ",".join(("loop", *self.options)),
                        self.image.path, self.folder], check=True)
        return self.folder

    def __exit__(self, *_):
        subprocess.run(["umount", self.folder], check=True)


def fill(folder, files):
    """Puts files, by their paths below the folder, and has them on the disk."""
    for name, content in files.items():
        path = os.path.join(folder, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as file:
            file.write(content)
    sync(folder)


def sync(folder):
    """All that was written to the file system is on the disk."""
    handle = os.open(folder, os.O_RDONLY)
    ctypes.CDLL(None).syncfs(handle)
    os.close(handle)


def commit(folder):
    """The file system's journal is written, as another program's fsync would have it, but not the
    content of files that nobody synced."""
    path = os.path.join(folder, "other-program's-file")
    handle = os.open(path, os.O_WRONLY | os.O_CREAT, 0o644)
    os.write(handle, b"x")
    os.fsync(handle)
    os.close(handle)


__all__ = ["Image", "commit", "fill", "make_loop_devices", "sync"]
