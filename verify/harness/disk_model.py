# SPDX-License-Identifier: Apache-2.0
"""A model of the disk states that are possible after a power cut.

Before a sync, each written sector may be on the disk or not, in any order, and the length of a file
may be any length since the last sync. Before a sync of their directory, each change of a name may be on
the disk or not, but a rename is atomic. Real file systems give stronger guarantees.
"""
import itertools
import os

O_CREAT, O_EXCL, O_TRUNC, O_APPEND, O_DIRECTORY = 0o100, 0o200, 0o1000, 0o2000, 0o200000
AT_FDCWD = -100


class File:
    """An inode: its current content, and the contents that may be on the disk."""

    def __init__(self, content=b""):
        self.content = bytearray(content)
        self.durable = bytes(content)
        self.lengths = [len(content)]

    def write(self, at, data):
        if len(self.content) < at:
            self.content.extend(bytes(at - len(self.content)))
        self.content[at:at + len(data)] = data
        self.lengths.append(len(self.content))

    def truncate(self, length):
        del self.content[length:]
        self.content.extend(bytes(length - len(self.content)))
        self.lengths.append(length)

    def sync(self):
        self.durable = bytes(self.content)
        self.lengths = [len(self.content)]

    def choices(self, sector):
        """The number of possible lengths, and the sectors that differ."""
        return len(set(self.lengths)), self.dirty(sector)

    def dirty(self, sector):
        length = max(len(self.content), len(self.durable))
        return [at for at in range(0, length, sector)
                if self.content[at:at + sector] != self.durable[at:at + sector]]

    def as_cut(self, length, arrived, sector):
        """The content with @p arrived sectors and this length. Bytes never written are zeros."""
        content = bytearray(self.durable)
        content.extend(bytes(max(0, length - len(content))))
        for at in arrived:
            new = self.content[at:at + sector]
            content[at:at + len(new)] = new
        return bytes(content[:length])


class Disk:
    """Names and files. Each traced call changes them."""

    def __init__(self, files):
        self.durable_names = {path: File(content) for path, content in files.items()}
        self.names = dict(self.durable_names)
        self.pending = []  # unsynced changes of names: (directory, {path: file or None})
        self.descriptors = {}
        self.made = set()  # directories that the daemon created
        self.answered = False

    def change(self, changes):
        self.names.update(changes)
        directory = os.path.dirname(next(iter(changes)))
        self.pending.append((directory, changes))

    def path_of(self, directory, name):
        name = name.decode()
        if not name.startswith("/") and directory != AT_FDCWD:
            name = os.path.join(self.descriptors[directory]["path"], name)
        path = os.path.normpath(name)
        # /var/run and /run are the same directory.
        return path[len("/var"):] if path.startswith("/var/run/") else path

    def apply(self, record, with_syncs=True):
        name, arguments, result, first, second = record
        arguments = [value - (1 << 32) if 1 << 31 <= value < 1 << 32 else value
                     for value in arguments]
        if result < 0:
            return
        method = getattr(self, f"on_{name}", None)
        if method and (with_syncs or name != "fsync"):
            method(arguments, result, first, second)

    def on_openat(self, arguments, result, first, _second):
        path, flags = self.path_of(arguments[0], first), arguments[2]
        file = None if path in self.made else self.names.get(path)
        if flags & O_CREAT and file is None:
            file = File()
            self.change({path: file})
        if file is not None and flags & O_TRUNC:
            file.truncate(0)
        self.descriptors[result] = {"path": path, "file": file, "at": 0, "flags": flags}

    def on_write(self, arguments, result, first, _second):
        target = self.descriptors.get(arguments[0])
        if target is None or target["file"] is None:
            return
        file = target["file"]
        at = len(file.content) if target["flags"] & O_APPEND else target["at"]
        file.write(at, first)
        target["at"] = at + result

    def on_ftruncate(self, arguments, _result, _first, _second):
        self.descriptors[arguments[0]]["file"].truncate(arguments[1])

    def on_fsync(self, arguments, _result, _first, _second):
        target = self.descriptors.get(arguments[0])
        if target is None:
            return
        if target["file"] is not None:
            target["file"].sync()
        else:
            self.sync_directory(target["path"])

    def sync_directory(self, directory):
        for where, changes in self.pending:
            if where == directory:
                self.durable_names.update(changes)
        self.pending = [(where, changes) for where, changes in self.pending if where != directory]

    def on_close(self, arguments, _result, _first, _second):
        self.descriptors.pop(arguments[0], None)

    def on_rename(self, _arguments, _result, first, second):
        self.move(self.path_of(AT_FDCWD, first), self.path_of(AT_FDCWD, second))

    def on_renameat(self, arguments, _result, first, second):
        self.move(self.path_of(arguments[0], first), self.path_of(arguments[2], second))

    def move(self, source, target):
        if self.names.get(source) is not None:
            self.change({target: self.names[source], source: None})

    def on_unlink(self, _arguments, _result, first, _second):
        self.change({self.path_of(AT_FDCWD, first): None})

    def on_unlinkat(self, arguments, _result, first, _second):
        self.change({self.path_of(arguments[0], first): None})

    def on_mkdir(self, _arguments, _result, first, _second):
        path = self.path_of(AT_FDCWD, first)
        self.made.add(path)
        self.change({path: File()})

    def on_sendmsg(self, _arguments, _result, _first, _second):
        self.answered = True

    def states(self, path, sector, choice, most):
        """At most @p most of the contents that @p path may have after a cut now. None: no file."""
        for names in self.name_states():
            file = names.get(path)
            lost = any(path.startswith(f"{directory}/") and names.get(directory) is None
                       for directory in self.made)
            if file is None or lost:
                yield None
            else:
                yield from file_states(file, sector, choice, most)

    def name_states(self):
        for taken in itertools.product((False, True), repeat=len(self.pending)):
            names = dict(self.durable_names)
            for take, (_, changes) in zip(taken, self.pending):
                if take:
                    names.update(changes)
            yield names


def file_states(file, sector, choice, most):
    dirty = file.dirty(sector)
    lengths = sorted(set(file.lengths))
    if len(lengths) << len(dirty) <= most:
        for length in lengths:
            for chosen in itertools.product((False, True), repeat=len(dirty)):
                arrived = [at for at, there in zip(dirty, chosen) if there]
                yield file.as_cut(length, arrived, sector)
        return
    for _ in range(most):
        arrived = [at for at in dirty if choice.random() < 0.5]
        yield file.as_cut(choice.choice(lengths), arrived, sector)
