# SPDX-License-Identifier: Apache-2.0
"""Clients of port 5111. Each worker is a coroutine that continues while the run works."""
import asyncio
import itertools
import os
import stat

from support.wire import frame, request

SUCCESS = b"0 0 0 0 0"
BURST = 100
NUMBERS = itertools.count()
BAD_FRAMES = (b"x", b"\x0101\x02", b"\x01\x02", b"\x01999999999", b"\x01-1\x02")


def answer(output=b"", fields=SUCCESS):
    """The bytes of the expected reply."""
    return frame(b"SlaveTask 0 0 %d:%b %b" % (len(output), output, fields))


def time_text(nanoseconds):
    return "%d.%09d" % divmod(nanoseconds, 10**9)


def stat_text(path):
    st = os.lstat(path)
    return (f"dev={st.st_dev} ino={st.st_ino} mode={st.st_mode:07o} nlink={st.st_nlink} "
            f"uid={st.st_uid} gid={st.st_gid} rdev={st.st_rdev} size={st.st_size} "
            f"blksize={st.st_blksize} blocks={st.st_blocks} atime={time_text(st.st_atime_ns)} "
            f"mtime={time_text(st.st_mtime_ns)} ctime={time_text(st.st_ctime_ns)}\n").encode()


class Work:
    """The requests of any connection, with their answers and files."""

    def __init__(self, directory):
        self.directory = directory
        there = self._file("there", b"")
        text = self._file("text", bytes(range(256)) * 8)
        self.large_content = os.urandom(1 << 20)
        large = self._file("large", self.large_content)
        names = os.path.join(directory, "names")
        os.mkdir(names)
        for name in ("one", "two", "three"):
            with open(os.path.join(names, name), "wb"):
                pass
        os.symlink("there", os.path.join(directory, "link"))
        missing = os.path.join(directory, "missing")
        self.small = (request("fileexists", there), answer())
        self.large = (request("read", large), answer(self.large_content))
        tree = "".join(f"{letter} {stat.S_IMODE(st.st_mode):04o} {st.st_uid} {st.st_gid} 0 "
                       f"{int(st.st_mtime)} {name}\n" for letter, name, st in (
                           ("d", ".", os.lstat(names)),
                           *(("-", name, os.lstat(os.path.join(names, name)))
                             for name in ("one", "three", "two")))).encode()
        self.mixed = (
            self.small,
            (request("fileexists", missing), answer(fields=b"1 0 1 2 0")),
            (request("access", there, "6"), answer()),
            (request("lstat", there), answer(stat_text(there))),
            (request("realpath", os.path.join(directory, "link")), answer(there.encode())),
            (request("read", text), answer(bytes(range(256)) * 8)),
            (request("read", missing), answer(fields=b"1 0 1 2 0")),
            (request("readdir", names), answer(b"StringVec 3\n3:one\n5:three\n3:two\n")),
            (request("walktree", names), answer(tree)),
            (request("unlink", missing), answer(fields=b"1 0 1 2 0")),
            (request("processrunning", "world"), answer()),
        )

    def _file(self, name, content):
        path = os.path.join(self.directory, name)
        with open(path, "wb") as file:
            file.write(content)
        return path


def cut(run, data):
    """@p data in up to five pieces."""
    places = sorted(run.random.randrange(len(data) + 1) for _ in range(run.random.randrange(5)))
    return [data[begin:end] for begin, end in zip([0, *places], [*places, len(data)])
            if begin < end]


async def quiet(run, work, pause):
    """Stays connected for the whole run and sends occasional requests."""
    link = await run.connect()
    while run.working:
        await link.ask(*run.random.choice(work.mixed))
        await run.pause(pause)
    link.close()


async def bulk(run, work, pause):
    """Pipelines a hundred requests after each pause."""
    while run.working:
        link = await run.connect()
        for _ in range(40):
            await link.ask(*work.small, count=BURST)
            if pause:
                await run.pause(pause)
            if not run.working:
                break
        link.close()


async def guest(run, work, pause):
    """Connects, sends a few requests, disconnects."""
    while run.working:
        link = await run.connect()
        for _ in range(run.random.randrange(4)):
            await link.ask(*run.random.choice(work.mixed))
        link.close()
        run.counts["guests that came and went"] += 1
        await run.pause(pause)


async def writer(run, work, pause):
    """Writes a file, appends to it, reads it, removes it."""
    link = await run.connect()
    path = os.path.join(work.directory, f"file{next(NUMBERS)}")
    while run.working:
        first = run.random.randbytes(run.random.randrange(20000))
        more = run.random.randbytes(run.random.randrange(2000))
        await link.ask(request("write", path, first), answer())
        await link.ask(request("append", path, more), answer())
        await link.ask(request("read", path), answer(first + more))
        await link.ask(request("rename", path, path + "b"), answer())
        await link.ask(request("unlink", path + "b"), answer())
        run.counts["files stored, read back and removed"] += 1
        await run.pause(pause)
    link.close()


async def resetter(run, work, pause):
    """Sends requests and resets its connection at a random point."""
    while run.working:
        link = await run.connect()
        data = b"".join(run.random.choice(work.mixed)[0] for _ in range(run.random.randrange(8)))
        link.send(data[:run.random.randrange(len(data) + 1)])
        run.given_up += 1
        if run.random.randrange(2):
            await asyncio.sleep(run.random.random() / 50)
        link.reset()
        run.counts["connections reset"] += 1
        await run.pause(pause)


async def dawdler(run, work, pause):
    """Sends frames in pieces with pauses; leaves some unfinished."""
    while run.working:
        link = await run.connect()
        question, right = run.random.choice(work.mixed)
        run.asked += 1
        for piece in cut(run, question):
            link.send(piece)
            await asyncio.sleep(run.random.random() / 20)
        await link.expect(right, "the answer to a frame in pieces")
        run.answered += 1
        link.send(question[:run.random.randrange(len(question))])
        link.close()
        run.counts["frames left unfinished"] += 1
        await run.pause(pause)


async def stranger(run, question, right):
    """Sends bytes of no protocol first, and requests after those were read and ignored."""
    link = await run.connect()
    async with run.one_stranger:
        before = run.log.ignored
        link.send(run.random.choice((b"help\r\n", b"\r\n \t", b"GET / HTTP/1.0\r\n")))
        with run.waiting("a stranger's words to be ignored"):
            while run.log.ignored == before:
                await asyncio.sleep(0.01)
    await link.ask(question, right)
    link.close()


async def intruder(run, work, pause):
    """Sends malformed bytes: before its request, which is tolerated, or after it."""
    question, right = work.small
    while run.working:
        if run.random.randrange(2):
            await stranger(run, question, right)
            run.counts["strangers who turned out to be masters"] += 1
        else:
            link = await run.connect()
            run.asked += 1
            link.send(question + run.random.choice(BAD_FRAMES))
            await link.expect(right, "the answer before a bad frame")
            run.answered += 1
            await link.expect_end("the end after a bad frame")
            link.close()
            run.counts["bad frames"] += 1
        await run.pause(pause)


async def slow_reader(run, work, pause):
    """Reads a megabyte slowly."""
    question, right = work.large
    while run.working:
        link = await run.connect(receive_buffer=65536)
        run.asked += 1
        link.send(question)
        await link.expect_slowly(right, 32768, 0.002, "a large file, read slowly")
        run.answered += 1
        link.close()
        run.counts["slow readers of 1 MiB"] += 1
        await run.pause(pause)


async def programs(run, _work, pause):
    """Runs programs: in the foreground, in the background, killed, and left running."""
    link = await run.connect()
    started = answer(fields=b"2 1 0 0 0")
    while run.working:
        status = run.random.randrange(1, 100)
        await link.ask(request("exec", "/bin/echo", str(status)),
                       answer(b"%d\n" % status, b"0 2 0 0 0"))
        await link.ask(request("exec", "/bin/sh", "-c", f"exit {status}", exec_param=-1), started)
        await link.ask(request("wait"), answer(fields=b"1 2 %d 0 0" % status))
        await link.ask(request("exec", "/bin/sleep", "1000", exec_param=-1), started)
        await link.ask(request("kill"), answer(fields=b"0 3 -1 0 15"))
        await link.ask(request("exec", "/bin/sleep", "0.3", exec_param=-1), started)
        run.counts["programs run"] += 4
        if run.random.randrange(2):
            link.close()
            link = await run.connect()
        await run.pause(pause)
    link.close()
