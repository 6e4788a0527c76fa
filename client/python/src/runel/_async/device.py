# SPDX-License-Identifier: Apache-2.0
"""One device and its 25 tasks."""
from __future__ import annotations

import collections
from types import TracebackType
from typing import AsyncIterator, Callable, Deque, Iterable, List, Optional, Sequence, Type
from typing import TypeVar, Union
from typing import Awaitable

from runel import _io_async as io
from runel._address import TASK_PORT, split_address
from runel._async.link import Link, Pending, pump
from runel._async.transfer import Progress, pull_file, push_file
from runel._protocol import ProtocolError
from runel.errors import Failure, LinkError, LocalError, Outcome, ProgramError, RunelError
from runel.errors import RunelTimeout, link_failure
from runel.results import LedStyle, ProgramResult, ProgramState, Reply, Stat, Status, TreeEntry
from runel.results import parse_names, parse_number, parse_stat, parse_tree, program_result, to_text
from runel.tasks import Answer, Name, Request, device_error, request

T = TypeVar("T")

WINDOW = 64
"""Maximum number of unanswered requests in a pipeline."""

_STOP_TIME = 2.0  # seconds between SIGTERM and SIGKILL when the daemon stops a program
_ENOENT, _ESRCH, _EACCES, _ENOTDIR, _EROFS = 2, 3, 13, 20, 30


class AsyncDevice:
    """A device that runs tasks, over one connection. The first task connects.

    `host` is a name or an IPv4 address; append ``:PORT`` for a port other than 5111. Times are in
    seconds:

    - `timeout`: I/O timeout, the limit for the time without a byte while an answer is due. The
    limit of "exec" is added. The daemon serves all its connections one after the other, so the
    timeout must cover the requests of other clients. None: no limit.
    - `connect_timeout`: limit for connecting.
    - `retries`, `retry_delay`: maximum number of retries after a failed connection, and the pause
    before the first one, doubled each time. Only a request that was not sent, or is safe to
    repeat, is retried (see `runel.tasks`); a timeout with an unknown outcome is not.

    All callers share the connection: requests are sent in the order of the calls and answered in
    this order. A device may be used by any number of tasks of one event loop. When the connection
    fails, all requests on it fail; the next request connects again. Each method raises
    `LinkError`, `RunelTimeout` and `DeviceError`, and `LocalError` for arguments that cannot be
    sent.

    Close it with `close` or a `with` block; unanswered requests then fail.

    >>> async with AsyncDevice("127.0.0.1") as device:
    ...     await device.fileexists("/etc/hosts")
    True
    """

    def __init__(
        self,
        host: str,
        *,
        timeout: Optional[float] = 30.0,
        connect_timeout: Optional[float] = 10.0,
        retries: int = 1,
        retry_delay: float = 0.2,
    ) -> None:
        self.name = host
        """Name of the device in errors: its address, or its host identifier at a master."""
        self.timeout = timeout
        self._address = split_address(host, TASK_PORT)
        self._connect_timeout = connect_timeout
        self._retries = retries
        self._retry_delay = retry_delay
        self._connecting = io.Lock()
        self._link: Optional[Link] = None
        self._program_link: Optional[Link] = None
        self._given_up: Optional[Failure] = None
        self._dials = True

    @classmethod
    def _over(cls, link: Link, host: str, timeout: Optional[float]) -> AsyncDevice:
        """The device at the other end of `stream`, which it dialled. Cannot connect again."""
        device = cls(host, timeout=timeout, retries=0)
        device._link = link
        device._dials = False
        return device

    async def __aenter__(self) -> AsyncDevice:
        return self

    async def __aexit__(
        self,
        kind: Optional[Type[BaseException]],
        error: Optional[BaseException],
        trace: Optional[TracebackType],
    ) -> None:
        await self.close()

    def __repr__(self) -> str:
        return f"<{type(self).__name__} {self.name}>"

    async def connect(self) -> None:
        """Connects now, unless the device is connected."""
        await self._connected()

    async def close(self) -> None:
        """Closes the connection. The next task connects again."""
        if self._link is not None:
            self._link.end(Failure(LinkError, "the connection was closed here"))

    def abort(self, sentence: str) -> None:
        """Closes the connection permanently: pending and later tasks fail with `RunelTimeout`."""
        self._given_up = Failure(RunelTimeout, sentence)
        if self._link is not None:
            self._link.end(self._given_up)

    async def _connected(self) -> Link:
        async with self._connecting:
            if self._given_up is not None:
                raise self._given_up.error(Outcome.NOT_SENT, self.name)
            if self._link is None or (self._link.failure is not None and self._dials):
                self._link = await self._dial()
            return self._link

    async def _dial(self) -> Link:
        host, port = self._address
        try:
            stream = await io.connect(host, port, self._connect_timeout)
        except TimeoutError:
            failure = Failure(RunelTimeout, f"no connection within {self._connect_timeout:g} s")
            raise failure.error(Outcome.NOT_SENT, self.name) from None
        except OSError as error:
            failure = link_failure("cannot connect", error)
            raise failure.error(Outcome.NOT_SENT, self.name) from None
        link = Link(stream, self.name)
        io.spawn(pump, stream, link)
        return link

    async def ask(self, request: Request, timeout: Optional[float] = None) -> Reply:
        """The unchecked reply to `request`. For requests that the methods do not offer.

        `timeout`: seconds, replaces that of the device. By default "wait", and "exec" without a
        limit, have no timeout.
        """
        return await self._retried(lambda: self._ask_once(request, timeout), request)

    async def _retried(self, work: Callable[[], Awaitable[T]], request: Request) -> T:
        delay = self._retry_delay
        for left in range(self._retries, -1, -1):
            try:
                return await work()
            except (LinkError, RunelTimeout) as error:
                timed_out = isinstance(error, RunelTimeout) and error.outcome is Outcome.UNKNOWN
                if left == 0 or timed_out or not request.task.may_retry(error.outcome):
                    raise
            await io.sleep(delay)
            delay *= 2
        raise AssertionError("unreachable")

    async def _ask_once(self, request: Request, timeout: Optional[float]) -> Reply:
        link = await self._connected()
        pending = await self._submit(link, request, timeout)
        return await self._answer(link, pending)

    async def _submit(self, link: Link, request: Request, timeout: Optional[float]) -> Pending:
        if request.task.answer is Answer.NO_REPLY:
            raise LocalError(
                "it has no answer to wait for",
                outcome=Outcome.NOT_SENT,
                device=self.name,
                task=request.task.name,
            )
        if request.task.of_connection and self._program_link not in (None, link):
            self._program_link = None
            raise LinkError(
                "the connection that started the program is gone",
                outcome=Outcome.NOT_SENT,
                device=self.name,
                task=request.task.name,
            )
        if timeout is None:
            timeout = self._timeout_of(request)
        return await link.submit(request, timeout)

    async def _answer(self, link: Link, pending: Pending) -> Reply:
        reply = await link.answer(pending)
        if reply.status is Status.RUNNING:
            self._program_link = link
        return reply

    def _timeout_of(self, request: Request) -> Optional[float]:
        if self.timeout is None or not request.task.unbounded:
            return self.timeout
        if request.task.name == "wait" or request.limit == 0:
            return None
        return self.timeout + max(0, request.limit) + _STOP_TIME

    async def pipeline(self, requests: Iterable[Request]) -> AsyncIterator[Reply]:
        """Sends many requests without waiting for each answer; yields the replies in order.

        At most `WINDOW` requests are unanswered. Nothing is retried: a failed connection raises
        for the first request without an answer, and the requests after it may have run too. A
        reply of a failed task raises nothing: check its `ok`.

        >>> from runel import request
        >>> async with AsyncDevice("127.0.0.1") as device:
        ...     asked = [request("fileexists", path) for path in ("/etc", "/none")]
        ...     [reply.ok async for reply in device.pipeline(asked)]
        [True, False]
        """
        link = await self._connected()
        waiting: Deque[Pending] = collections.deque()
        failure: Optional[RunelError] = None
        for request in requests:
            if len(waiting) >= WINDOW:
                yield await self._answer(link, waiting.popleft())
            try:
                waiting.append(await self._submit(link, request, None))
            except RunelError as error:
                failure = error  # raised after the answers to the requests that were sent
                break
        while waiting:
            yield await self._answer(link, waiting.popleft())
        if failure is not None:
            raise failure

    async def _task(self, name: str, *args: Name) -> Reply:
        asked = request(name, *args)
        reply = await self.ask(asked)
        if not reply.ok:
            raise device_error(self.name, asked, reply)
        return reply

    async def _flag(self, name: str, *args: Name, no: Sequence[int]) -> bool:
        asked = request(name, *args)
        reply = await self.ask(asked)
        if not reply.ok and (reply.status is not Status.FAILURE or reply.errno not in no):
            raise device_error(self.name, asked, reply)
        return reply.ok

    def _read(self, parse: Callable[[bytes], T], text: bytes, task: str) -> T:
        try:
            return parse(text)
        except ProtocolError as error:
            raise LinkError(
                str(error), outcome=Outcome.ANSWERED, device=self.name, task=task
            ) from None

    # Files.

    async def access(self, path: Name, mode: int) -> bool:
        """Whether the daemon may access `path`. `mode`: sum of 4 read, 2 write, 1 execute; or 0.

        False for errors 1, 2, 13, 20 and 30; others raise `DeviceError`.

        >>> async with AsyncDevice("127.0.0.1") as device:
        ...     await device.access("/etc/hosts", 4)
        True
        """
        no = (1, _ENOENT, _EACCES, _ENOTDIR, _EROFS)
        return await self._flag("access", path, str(mode), no=no)

    async def append(self, path: Name, data: bytes) -> None:
        """Appends all of `data` to a file, or nothing; creates a missing file.

        The data is on the device's disk when this returns.

        >>> async with AsyncDevice("127.0.0.1") as device:
        ...     await device.write("/tmp/note", b"one ")
        ...     await device.append("/tmp/note", b"two")
        ...     await device.read("/tmp/note")
        b'one two'
        """
        await self._task("append", path, data)

    async def chmodx(self, path: Name) -> None:
        """Adds execute permission for owner, group and others (0111).

        >>> async with AsyncDevice("127.0.0.1") as device:
        ...     await device.write("/tmp/program", b"#!/bin/sh\\necho ready\\n")
        ...     await device.chmodx("/tmp/program")
        ...     (await device.exec(["/tmp/program"], limit=10)).output
        b'ready\\n'
        """
        await self._task("chmodx", path)

    async def fileexists(self, path: Name) -> bool:
        """Whether `path` exists; follows symbolic links. False for errors 2 and 20; others raise.

        >>> async with AsyncDevice("127.0.0.1") as device:
        ...     await device.fileexists("/no/such/file")
        False
        """
        return await self._flag("fileexists", path, no=(_ENOENT, _ENOTDIR))

    async def freeblocks(self, path: Name) -> int:
        """Free blocks for unprivileged users on the file system of `path`.

        The device does not report the block size; it is 4096 bytes on most file systems.

        >>> async with AsyncDevice("127.0.0.1") as device:
        ...     await device.freeblocks("/tmp") >= 0
        True
        """
        return self._read(parse_number, (await self._task("freeblocks", path)).text, "freeblocks")

    async def lstat(self, path: Name) -> Stat:
        """The metadata of `path`; does not follow a symbolic link.

        >>> async with AsyncDevice("127.0.0.1") as device:
        ...     (await device.lstat("/proc/self")).is_link
        True
        """
        return self._read(parse_stat, (await self._task("lstat", path)).text, "lstat")

    async def read(self, path: Name) -> bytes:
        """The whole content of a file, at most 256 MiB less 4 KiB. `pull` reads larger files.

        >>> async with AsyncDevice("127.0.0.1") as device:
        ...     (await device.read("/proc/version"))[:5]
        b'Linux'
        """
        return (await self._task("read", path)).text

    async def readdir(self, path: Name) -> List[str]:
        """The names in a directory, without ``.`` and ``..``, sorted by byte value.

        >>> async with AsyncDevice("127.0.0.1") as device:
        ...     "hosts" in await device.readdir("/etc")
        True
        """
        return self._read(parse_names, (await self._task("readdir", path)).text, "readdir")

    async def realpath(self, path: Name) -> str:
        """The absolute path without symbolic links.

        >>> async with AsyncDevice("127.0.0.1") as device:
        ...     await device.realpath("/etc/../etc/hosts")
        '/etc/hosts'
        """
        return to_text((await self._task("realpath", path)).text)

    async def rename(self, source: Name, target: Name) -> None:
        """Renames a file within its file system; replaces an existing `target` atomically.

        >>> async with AsyncDevice("127.0.0.1") as device:
        ...     await device.write("/tmp/old", b"")
        ...     await device.rename("/tmp/old", "/tmp/new")
        """
        await self._task("rename", source, target)

    async def stat(self, path: Name) -> Stat:
        """The metadata of `path`; follows symbolic links. Sizes in bytes, times in nanoseconds.

        >>> async with AsyncDevice("127.0.0.1") as device:
        ...     await device.write("/tmp/four", b"1234")
        ...     (await device.stat("/tmp/four")).size
        4
        """
        return self._read(parse_stat, (await self._task("stat", path)).text, "stat")

    async def unlink(self, path: Name) -> None:
        """Removes a file, not a directory.

        >>> async with AsyncDevice("127.0.0.1") as device:
        ...     await device.unlink("/no/such/file")
        Traceback (most recent call last):
        ...
        runel.errors.DeviceError: 127.0.0.1: unlink: /no/such/file: No such file or directory
        """
        await self._task("unlink", path)

    async def walktree(self, path: Name) -> List[TreeEntry]:
        """A directory and everything below it; does not follow links.

        An unreadable directory raises `DeviceError`; `ask` returns the entries found.

        >>> async with AsyncDevice("127.0.0.1") as device:
        ...     (await device.walktree("/proc/sys/kernel/random"))[0].path
        '.'
        """
        return self._read(parse_tree, (await self._task("walktree", path)).text, "walktree")

    async def write(self, path: Name, data: bytes) -> None:
        """Replaces the content of a file atomically; creates a missing file.

        The data is on the device's disk when this returns. `data` and `path` must fit into one
        frame of 256 MiB; `push` sends more.

        >>> async with AsyncDevice("127.0.0.1") as device:
        ...     await device.write("/tmp/greeting", b"hello")
        """
        await self._task("write", path, data)

    # Programs.

    async def exec(self, argv: Sequence[Name], *, limit: int = 0, check: bool = True) -> ProgramResult:
        """Runs a program with its arguments, without a shell.

        `limit`, in seconds: above 0 the program is stopped when it takes longer; 0 waits for its
        end without limit, and the device serves no other request meanwhile; below 0 starts it in
        the background, for `wait` and `kill`, and discards its output. Each connection has at most
        one background program; the next "exec" forgets it.

        With `check`, a program that does not exit with status 0 raises `ProgramError`. A program
        that cannot be started raises `DeviceError`.

        >>> async with AsyncDevice("127.0.0.1") as device:
        ...     (await device.exec(["echo", "hello"], limit=10)).output
        ...     (await device.exec(["false"], limit=10, check=False)).exit_status
        b'hello\\n'
        1
        """
        asked = request("exec", *argv, limit=limit)
        return self._program(asked, await self.ask(asked), check)

    async def kill(self) -> ProgramResult:
        """Stops the background program: SIGTERM to its process group, SIGKILL 2 s later.

        Raises `DeviceError` with errno 3 when no program is running, and `LinkError` when the
        connection that started the program is closed.

        >>> async with AsyncDevice("127.0.0.1") as device:
        ...     _ = await device.exec(["sleep", "60"], limit=-1)
        ...     (await device.kill()).signal
        15
        """
        asked = request("kill")
        return self._program(asked, await self.ask(asked), False)

    async def wait(self, *, check: bool = True) -> ProgramResult:
        """Waits for the background program to end, without limit.

        The device serves no other request meanwhile. Raises `DeviceError` with errno 10 without a
        background program, otherwise as `exec` does.

        >>> async with AsyncDevice("127.0.0.1") as device:
        ...     _ = await device.exec(["true"], limit=-1)
        ...     (await device.wait()).exit_status
        0
        """
        asked = request("wait")
        return self._program(asked, await self.ask(asked), check)

    def _program(self, asked: Request, reply: Reply, check: bool) -> ProgramResult:
        if reply.state is ProgramState.NONE:
            raise device_error(self.name, asked, reply)
        result = program_result(reply)
        if check and not result.ok:
            raise ProgramError(result.describe(), result, device=self.name, task=asked.task.name)
        return result

    async def processrunning(self, name: Name) -> bool:
        """Whether a process `name` runs: its argv[0], or the first 15 bytes of its name.

        >>> async with AsyncDevice("127.0.0.1") as device:
        ...     await device.processrunning("runeld")
        True
        """
        return await self._flag("processrunning", name, no=(_ESRCH,))

    # The device.

    async def hostid(self) -> str:
        """The identifier of the device.

        >>> async with AsyncDevice("127.0.0.1") as device:
        ...     len(await device.hostid()) > 0
        True
        """
        return to_text((await self._task("hostid")).text)

    async def devicetype(self) -> str:
        """ "controller", "server" or "unknown".

        >>> async with AsyncDevice("127.0.0.1") as device:
        ...     await device.devicetype() in ("controller", "server", "unknown")
        True
        """
        return to_text((await self._task("devicetype")).text)

    async def changeleds(self, first: bool, second: bool) -> None:
        """Switches the device's two LEDs on or off and stops blinking. Errno 2: no LEDs."""
        await self._task("changeleds", str(int(first)), str(int(second)))

    async def blinkleds(self, style: Union[LedStyle, str]) -> None:
        """Blinks the device's two LEDs. Errno 22: unknown style, 2: no LEDs."""
        await self._task("blinkleds", style.value if isinstance(style, LedStyle) else style)

    async def updateumstate(self, key: str, state: bytes) -> None:
        """Stores `state` under `key` for the update manager.

        `key`: 1 to 255 letters, digits, ``.``, ``_`` and ``-``, not starting with a dot; otherwise
        errno 22.

        >>> async with AsyncDevice("127.0.0.1") as device:
        ...     await device.updateumstate("release", b"1.0")
        """
        await self._task("updateumstate", key, state)

    async def reboot(self) -> None:
        """Reboots the device. Returns when the device has acknowledged the request.

        A device that answers within seconds failed to reboot: only its daemon restarted.
        """
        await self.ask(request("reboot"))

    async def restart(self) -> None:
        """Ends the daemon, so that its supervisor starts it again.

        The task has no reply: this returns when the device has closed the connection.
        """
        asked = request("restart")
        link = await self._retried(lambda: self._post(asked), asked)
        if not await link.ended.wait(self.timeout):
            raise RunelTimeout(
                "the connection did not end", outcome=Outcome.UNKNOWN, device=self.name, task="restart"
            )
        if link.failure is not None and link.failure.errno is not None:
            raise link.failure.error(Outcome.UNKNOWN, self.name, "restart")

    async def _post(self, asked: Request) -> Link:
        link = await self._connected()
        await link.post(asked, self.timeout)
        return link

    # Files of any size.

    async def push(
        self,
        source: Name,
        target: Name,
        *,
        mode: Optional[int] = None,
        progress: Optional[Progress] = None,
    ) -> int:
        """Copies the file `source` of this host to `target` on the device. Returns the bytes sent.

        Sends the content in pieces of 8 MiB to a hidden file beside `target` and renames it when
        complete: the size has no limit, and `target` is always the old file or the new one. An
        existing file keeps its owner and permission bits unless `mode` is given; a new file gets
        those of `source`. Follows a link. The device needs chmod(1), and chown(1) for a file of
        another owner. Forgets a background program, as "exec" does.

        `progress` is called with the bytes sent and the total after each piece. After a failure
        the hidden file is removed if the device is reachable.
        """
        return await push_file(self, source, target, mode, progress)

    async def pull(
        self, source: Name, target: Name, *, progress: Optional[Progress] = None
    ) -> int:
        """Copies the file `source` of the device to `target` here. Returns the bytes received.

        Reads a file above 8 MiB in pieces with dd(1) on the device, which needs a /bin/sh; this
        forgets a background program, as "exec" does. `target` gets the permission bits of `source`
        and is replaced when the copy is complete. Raises `DeviceError` if the file changed
        meanwhile.
        """
        return await pull_file(self, source, target, progress)
