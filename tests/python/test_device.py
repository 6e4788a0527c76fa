# SPDX-License-Identifier: Apache-2.0
"""All tasks and transfers against the real daemon."""
import asyncio
import contextlib
import os
import shutil
import signal
import subprocess
import tempfile

from runel import DeviceError, LedStyle, LinkError, LocalError, Outcome, ProgramError, ProgramState
from runel import TASKS, request
from runel._sync import transfer as sync_transfer
from runel._async import transfer as async_transfer
from support import ADDRESS, Daemon, DaemonCase, FaceCase, both_faces

NOT_SENT, ANSWERED = Outcome.NOT_SENT, Outcome.ANSWERED


@both_faces
class FileTest(DaemonCase):
    async def test_write_append_read(self):
        data = bytes(range(256)) * 5000
        async with self.Device(ADDRESS) as device:
            await device.write(self.path("f"), data)
            await device.append(self.path("f"), b"end")
            self.assertEqual(await device.read(self.path("f")), data + b"end")
        self.assertEqual(self.content("f"), data + b"end")

    async def test_stat_and_lstat(self):
        os.symlink(self.file("f", b"1234"), self.path("link"))
        os.utime(self.path("f"), ns=(5, -1234567891))
        async with self.Device(ADDRESS) as device:
            for name in ("f", "link"):
                self.same(await device.stat(self.path(name)), os.stat(self.path(name)))
                self.same(await device.lstat(self.path(name)), os.lstat(self.path(name)))

    def same(self, found, about):
        for name in ("dev", "ino", "mode", "nlink", "uid", "gid", "rdev", "size", "blksize",
                     "blocks", "atime_ns", "mtime_ns", "ctime_ns"):
            self.assertEqual(getattr(found, name), getattr(about, f"st_{name}"), name)

    async def test_questions_about_a_path(self):
        self.file("f")
        async with self.Device(ADDRESS) as device:
            self.assertTrue(await device.fileexists(self.path("f")))
            self.assertFalse(await device.fileexists(self.path("none")))
            self.assertTrue(await device.access(self.path("f"), 6))
            self.assertFalse(await device.access(self.path("f"), 1))
            self.assertGreaterEqual(await device.freeblocks("/"), 0)
            self.assertEqual(await device.realpath(self.path("./f")), os.path.realpath(self.path("f")))

    async def test_changes_of_a_path(self):
        self.file("f")
        async with self.Device(ADDRESS) as device:
            await device.chmodx(self.path("f"))
            self.assertTrue(os.access(self.path("f"), os.X_OK))
            await device.rename(self.path("f"), self.path("g"))
            self.assertEqual(await device.readdir(self.path("")), ["g"])
            await device.unlink(self.path("g"))
            self.assertEqual(await device.readdir(self.path("")), [])

    async def test_names_of_any_bytes(self):
        names = ["a\nb", "\udcff", "caf\u00e9"]
        for name in names:
            self.file(name)
        async with self.Device(ADDRESS) as device:
            self.assertEqual(sorted(await device.readdir(self.path(""))), sorted(names))
            tree = await device.walktree(self.path(""))
            self.assertEqual(sorted(entry.path for entry in tree[1:]), sorted(names))
            for name in names:
                self.assertTrue(await device.fileexists(self.path(name)))

    async def test_walktree(self):
        os.mkdir(self.path("d"), 0o750)
        self.file("d/f", b"123")
        os.symlink("f", self.path("d/l"))
        async with self.Device(ADDRESS) as device:
            tree = await device.walktree(self.path("d"))
        self.assertEqual([(entry.kind, entry.path, entry.size, entry.target) for entry in tree],
                         [("d", ".", 0, None), ("-", "f", 3, None), ("l", "l", 0, "f")])
        self.assertEqual(tree[0].permissions, 0o750)

    async def test_failures_name_path_and_errno(self):
        async with self.Device(ADDRESS) as device:
            for task, args in (("read", ()), ("stat", ()), ("lstat", ()), ("unlink", ()), ("chmodx", ()),
                               ("readdir", ()), ("walktree", ()), ("realpath", ()), ("freeblocks", ()),
                               ("rename", ("/x",))):
                error = await self.fails(DeviceError, ANSWERED, getattr(device, task)("/none/f", *args))
                self.assertEqual(error.errno, 2, task)
                self.assertIn(f"{ADDRESS}: {task}: /none/f: No such file", str(error))


@both_faces
class ProgramTest(DaemonCase):
    async def test_output_and_arguments(self):
        async with self.Device(ADDRESS) as device:
            done = await device.exec(["printf", "%s|", "a b", "", b"\xff"], limit=20)
            self.assertEqual((done.output, done.exit_status, done.ok), (b"a b||\xff|", 0, True))

    async def test_exit_status(self):
        command = ["/bin/sh", "-c", "echo bad; exit 3"]
        async with self.Device(ADDRESS) as device:
            error = await self.fails(ProgramError, ANSWERED, device.exec(command, limit=20))
            self.assertEqual((error.result.exit_status, error.result.output), (3, b"bad\n"))
            done = await device.exec(command, limit=20, check=False)
            self.assertEqual(done, error.result)

    async def test_a_signal(self):
        async with self.Device(ADDRESS) as device:
            done = await device.exec(["/bin/sh", "-c", "kill -9 $$"], limit=20, check=False)
            self.assertEqual((done.state, done.signal), (ProgramState.SIGNALLED, 9))

    async def test_the_time_limit(self):
        async with self.Device(ADDRESS) as device:
            error = await self.fails(ProgramError, ANSWERED, device.exec(["sleep", "60"], limit=1))
            self.assertTrue(error.result.timed_out)

    async def test_no_such_program(self):
        async with self.Device(ADDRESS) as device:
            error = await self.fails(DeviceError, ANSWERED, device.exec(["no-such"], limit=20))
            self.assertEqual(error.errno, 2)

    async def test_background(self):
        os.symlink(shutil.which("sleep"), self.path("sleeper"))
        async with self.Device(ADDRESS) as device:
            started = await device.exec([self.path("sleeper"), "1000"], limit=-1)
            self.assertEqual(started.state, ProgramState.RUNNING)
            self.assertTrue(await device.processrunning("sleeper"))
            self.assertEqual((await device.kill()).signal, signal.SIGTERM)
            self.assertFalse(await device.processrunning("sleeper"))
            error = await self.fails(DeviceError, ANSWERED, device.kill())
            self.assertEqual(error.errno, 3)

    async def test_wait(self):
        async with self.Device(ADDRESS) as device:
            await device.exec(["/bin/sh", "-c", "exit 4"], limit=-1)
            self.assertEqual((await device.wait(check=False)).exit_status, 4)
            error = await self.fails(DeviceError, ANSWERED, device.wait())
            self.assertEqual(error.errno, 10)


@both_faces
class OneConnectionTest(DaemonCase):
    async def test_requests_of_many_callers(self):
        for number in range(30):
            self.file(str(number), b"%d" % number)
        async with self.Device(ADDRESS) as device:
            found = await asyncio.gather(*(device.read(self.path(str(n))) for n in range(30)))
        self.assertEqual(found, [b"%d" % number for number in range(30)])

    async def test_a_pipeline_longer_than_its_window(self):
        data = bytes(20000)
        asked = [request("append", self.path("f"), data) for _ in range(100)]
        asked += [request("read", self.path("f")), request("unlink", "/none")]
        async with self.Device(ADDRESS) as device:
            replies = [reply async for reply in device.pipeline(asked)]
        self.assertEqual([reply.ok for reply in replies], [True] * 101 + [False])
        self.assertEqual(len(replies[100].text), 100 * len(data))

    async def test_large_answers_and_requests_at_the_same_time(self):
        large = self.file("f", os.urandom(1 << 20))
        asked = [request("read", large), request("write", self.path("g"), bytes(1 << 20))] * 8
        async with self.Device(ADDRESS) as device:
            sizes = [len(reply.text) async for reply in device.pipeline(asked)]
        self.assertEqual(sizes, [1 << 20, 0] * 8)

    async def test_a_pipeline_left_early(self):
        async with self.Device(ADDRESS) as device:
            replies = device.pipeline([request("hostid")] * 10)
            async for _ in replies:
                break
            self.assertTrue(await device.fileexists("/"))


@both_faces
class DeviceTest(DaemonCase):
    def setUp(self):
        super().setUp()
        subprocess.run(["mount", "-t", "tmpfs", "tmpfs", "/sys/class"], check=True)
        self.addCleanup(subprocess.run, ["umount", "-l", "/sys/class"], check=True)
        for name in ("first", "second"):
            os.makedirs(f"/sys/class/leds/{name}")
            open(f"/sys/class/leds/{name}/brightness", "wb").close()

    def lights(self):
        found = []
        for name in ("first", "second"):
            with open(f"/sys/class/leds/{name}/brightness", encoding="ascii") as file:
                found.append(file.read().strip())
        return found

    async def test_leds(self):
        async with self.Device(ADDRESS) as device:
            await device.changeleds(True, False)
            self.assertEqual(self.lights(), ["1", "0"])
            await device.blinkleds(LedStyle.ON)
            self.assertEqual(self.lights(), ["1", "1"])
            await device.blinkleds("off")
            self.assertEqual(self.lights(), ["0", "0"])
            error = await self.fails(DeviceError, ANSWERED, device.blinkleds("no"))
            self.assertEqual(error.errno, 22)

    async def test_identity(self):
        with open("/etc/machine-id", encoding="ascii") as file:
            wanted = file.read().split()[0]
        async with self.Device(ADDRESS) as device:
            self.assertEqual(await device.hostid(), wanted)
            self.assertIn(await device.devicetype(), ("controller", "server", "unknown"))
            self.assertTrue(await device.processrunning("runeld"))

    async def test_updateumstate(self):
        async with self.Device(ADDRESS) as device:
            await device.updateumstate("key", b"state")
            error = await self.fails(DeviceError, ANSWERED, device.updateumstate("../key", b""))
            self.assertEqual(error.errno, 22)
        with open("/var/lib/runeld/umstate/key", "rb") as file:
            self.assertEqual(file.read(), b"state")


@both_faces
class EndTest(FaceCase):
    """Tasks that end the daemon."""

    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.directory = directory.name

    def daemon(self, *wrapper):
        daemon = Daemon(*wrapper)
        self.addCleanup(daemon.close)
        return daemon

    async def test_restart(self):
        daemon = self.daemon()
        async with self.Device(ADDRESS) as device:
            await device.hostid()
            await device.restart()
            self.assertEqual(await asyncio.to_thread(daemon.process.wait, 30), 0)
            error = await self.fails(LinkError, NOT_SENT, device.hostid())
            self.assertEqual(error.kind, "link")

    async def test_reboot(self):
        daemon = self.daemon("unshare", "--pid", "--fork", "--kill-child")
        async with self.Device(ADDRESS) as device:
            await device.reboot()
            self.assertEqual(await asyncio.to_thread(daemon.process.wait, 30), -signal.SIGHUP)

    async def test_every_task_has_a_method(self):
        device = self.Device(ADDRESS)
        for name in TASKS:
            self.assertTrue(callable(getattr(device, name)), name)

    async def test_the_daemon_dies_while_it_works(self):
        daemon = self.daemon()
        script = f"echo $$ >{self.directory}/pid; exec sleep 60"
        async with self.Device(ADDRESS) as device:
            work = asyncio.ensure_future(device.exec(["/bin/sh", "-c", script], limit=60))
            await self.until(lambda: os.path.exists(f"{self.directory}/pid"))
            daemon.kill()
            await self.fails(LinkError, Outcome.UNKNOWN, work)


@both_faces
class TransferTest(DaemonCase):
    def setUp(self):
        super().setUp()
        for module in (sync_transfer, async_transfer):
            old = module.PIECE
            module.PIECE = 262144
            self.addCleanup(setattr, module, "PIECE", old)
        self.data = os.urandom(5 * 262144 + 17)
        self.steps = []

    def progress(self, *step):
        self.steps.append(step)

    async def test_push(self):
        self.file("source", self.data)
        os.chmod(self.path("source"), 0o751)
        async with self.Device(ADDRESS) as device:
            sent = await device.push(self.path("source"), self.path("target"), progress=self.progress)
        self.assertEqual((sent, self.content("target")), (len(self.data), self.data))
        self.assertEqual([done for done, _ in self.steps], [262144 * n for n in range(1, 6)] + [sent])
        self.assertEqual(os.stat(self.path("target")).st_mode & 0o7777, 0o751)
        self.assertEqual(sorted(os.listdir(self.path(""))), ["source", "target"])

    async def test_push_keeps_owner_and_mode_behind_a_link(self):
        self.file("source", b"new")
        os.chmod(self.file("target", b"old"), 0o640)
        os.chown(self.path("target"), 12, 34)
        os.symlink("target", self.path("link"))
        async with self.Device(ADDRESS) as device:
            await device.push(self.path("source"), self.path("link"))
            about = os.stat(self.path("target"))
            self.assertEqual((about.st_uid, about.st_gid, about.st_mode & 0o7777), (12, 34, 0o640))
            self.assertEqual(self.content("target"), b"new")
            await device.push(self.path("source"), self.path("link"), mode=0o600)
        self.assertEqual(os.stat(self.path("target")).st_mode & 0o7777, 0o600)
        self.assertTrue(os.path.islink(self.path("link")))

    async def test_pull(self):
        for size in (0, 17, 262144, len(self.data)):
            os.chmod(self.file("source", self.data[:size]), 0o604)
            async with self.Device(ADDRESS) as device:
                taken = await device.pull(self.path("source"), self.path("target"),
                                          progress=self.progress)
            self.assertEqual((taken, self.content("target")), (size, self.data[:size]))
            self.assertEqual(self.steps[-1], (size, size))
            self.assertEqual(os.stat(self.path("target")).st_mode & 0o7777, 0o604)

    async def test_pull_of_a_file_that_shows_no_size(self):
        async with self.Device(ADDRESS) as device:
            self.assertGreater(await device.pull("/proc/version", self.path("target")), 0)

    async def test_failures_leave_nothing_behind(self):
        self.file("source", self.data)
        async with self.Device(ADDRESS) as device:
            await self.fails(LocalError, NOT_SENT, device.push(self.path("none"), "/t"))
            await self.fails(DeviceError, ANSWERED, device.push(self.path("source"), "/none/t"))
            os.mkdir(self.path("d"))
            self.file("d/f")
            await self.fails(DeviceError, ANSWERED, device.push(self.path("source"), self.path("d")))
            await self.fails(DeviceError, ANSWERED, device.pull("/none", self.path("t")))
            await self.fails(LocalError, NOT_SENT, device.pull(self.path("source"), "/none/t"))
        self.assertEqual(sorted(os.listdir(self.path(""))), ["d", "source"])

    async def test_an_append_with_unknown_outcome_is_checked(self):
        self.file("source", self.data)
        async with self.Device(ADDRESS, retry_delay=0.01) as device:
            plain = getattr(device, "plain", device)
            for applied in (True, False):
                with doubtful_append(plain, self.face, applied):
                    await device.push(self.path("source"), self.path("target"))
                self.assertEqual(self.content("target"), self.data)


@contextlib.contextmanager
def doubtful_append(device, face, applied):
    """Makes the first "append" of `device` fail with an unknown outcome, applied or not."""
    real, lost = device.append, LinkError("lost", outcome=Outcome.UNKNOWN)
    calls = []

    def fake(path, data):
        calls.append(path)
        if len(calls) > 1:
            return real(path, data)
        if applied:
            real(path, data)
        raise lost

    async def fake_async(path, data):
        calls.append(path)
        if len(calls) > 1:
            return await real(path, data)
        if applied:
            await real(path, data)
        raise lost

    device.append = fake_async if face == "async" else fake
    try:
        yield
    finally:
        del device.append
