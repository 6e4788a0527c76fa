# SPDX-License-Identifier: Apache-2.0
# Made by make_sync.py from _sync/device.py.
"""One device and its 25 tasks."""
from __future__ import annotations

import collections
from types import TracebackType
from typing import Iterator, Callable, Deque, Iterable, List, Optional, Sequence, Type
from typing import TypeVar, Union

from runel import _io_sync as io
from runel._address import TASK_PORT, split_address
from runel._sync.link import Link, Pending, pump
from runel._sync.transfer import Progress, pull_file, push_file
from runel._protocol import ProtocolError
from runel.errors import Failure, LinkError, LocalError, Outcome, ProgramError, RunelError
from runel.errors import RunelTimeout, link_failure
from runel.results import LedStyle, ProgramResult, ProgramState, Reply, Stat, Status, TreeEntry
from runel.results import parse_names, parse_number, parse_stat, parse_tree, program_result, to_text
from runel.tasks import Answer, Name, Request, device_error, request

T = TypeVar("T")

WINDOW = 64
"""Requests that a pipeline has on their way at a time."""

_STOP_TIME = 2.0  # seconds that the daemon leaves a program between SIGTERM and SIGKILL
_ENOENT, _ESRCH, _EACCES, _ENOTDIR, _EROFS = 2, 3, 13, 20, 30


class Device:
    """A device to give tasks to, over one connection, which the first task makes.

    `host` is a name or an IPv4 address, with ``:PORT`` behind it for another port than 5111.
    Times are in seconds:

    - `timeout`: how long the device may send nothing while its answer is due. "exec" gets its own
      limit on top. The daemon does one thing at a time for all its connections, so this must cover
      the work of others. None: no limit.
    - `connect_timeout`: for making the connection.
    - `retries`, `retry_delay`: how often a request is sent again after its connection failed, and
      the first pause, doubled each time. Only what was not sent, or is safe to repeat, is sent
      again (see `runel.tasks`); a timeout with an unknown outcome is not.

    All callers share the connection: requests are pipelined in the order of the calls and
    answered in this order. A device may be used by any number of threads. A failed
    connection fails all requests on it; the next one connects again. Each method raises `LinkError`,
    `RunelTimeout` and `DeviceError`, and `LocalError` for arguments that cannot be sent.

    Close it with `close` or a `with` block; a task that still waits then fails.

    >>> with Device("127.0.0.1") as device:
    ...     device.fileexists("/etc/hosts")
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
        """Names the device in errors: the address, or at a master the host identifier."""
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
    def _over(cls, link: Link, host: str, timeout: Optional[float]) -> Device:
        """The device behind a connection that it has made itself. Cannot connect again."""
        device = cls(host, timeout=timeout, retries=0)
        device._link = link
        device._dials = False
        return device

    def __enter__(self) -> Device:
        return self

    def __exit__(
        self,
        kind: Optional[Type[BaseException]],
        error: Optional[BaseException],
        trace: Optional[TracebackType],
    ) -> None:
        self.close()

    def __repr__(self) -> str:
        return f"<{type(self).__name__} {self.name}>"

    def connect(self) -> None:
        """Makes the connection now, unless there is one."""
        self._connected()

    def close(self) -> None:
        """Ends the connection. The next task would make another one."""
        if self._link is not None:
            self._link.end(Failure(LinkError, "the connection was closed here"))

    def abort(self, sentence: str) -> None:
        """Ends the connection for good: what waits and all later tasks fail with a `RunelTimeout`."""
        self._given_up = Failure(RunelTimeout, sentence)
        if self._link is not None:
            self._link.end(self._given_up)

    def _connected(self) -> Link:
        with self._connecting:
            if self._given_up is not None:
                raise self._given_up.error(Outcome.NOT_SENT, self.name)
            if self._link is None or (self._link.failure is not None and self._dials):
                self._link = self._dial()
            return self._link

    def _dial(self) -> Link:
        host, port = self._address
        try:
            stream = io.connect(host, port, self._connect_timeout)
        except TimeoutError:
            failure = Failure(RunelTimeout, f"no connection within {self._connect_timeout:g} s")
            raise failure.error(Outcome.NOT_SENT, self.name) from None
        except OSError as error:
            failure = link_failure("cannot connect", error)
            raise failure.error(Outcome.NOT_SENT, self.name) from None
        link = Link(stream, self.name)
        io.spawn(pump, stream, link)
        return link

    def ask(self, request: Request, timeout: Optional[float] = None) -> Reply:
        """The reply to `request` as it came, whatever it says. For what the methods do not offer.

        `timeout`: seconds in place of the usual ones; "wait", and "exec" without a limit, are
        waited for without one.
        """
        return self._retried(lambda: self._ask_once(request, timeout), request)

    def _retried(self, work: Callable[[], T], request: Request) -> T:
        delay = self._retry_delay
        for left in range(self._retries, -1, -1):
            try:
                return work()
            except (LinkError, RunelTimeout) as error:
                timed_out = isinstance(error, RunelTimeout) and error.outcome is Outcome.UNKNOWN
                if left == 0 or timed_out or not request.task.may_retry(error.outcome):
                    raise
            io.sleep(delay)
            delay *= 2
        raise AssertionError("unreachable")

    def _ask_once(self, request: Request, timeout: Optional[float]) -> Reply:
        link = self._connected()
        pending = self._submit(link, request, timeout)
        return self._answer(link, pending)

    def _submit(self, link: Link, request: Request, timeout: Optional[float]) -> Pending:
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
        patience = self._patience(request) if timeout is None else timeout
        return link.submit(request, patience)

    def _answer(self, link: Link, pending: Pending) -> Reply:
        reply = link.answer(pending)
        if reply.status is Status.RUNNING:
            self._program_link = link
        return reply

    def _patience(self, request: Request) -> Optional[float]:
        if self.timeout is None or not request.task.unbounded:
            return self.timeout
        if request.task.name == "wait" or request.limit == 0:
            return None
        return self.timeout + max(0, request.limit) + _STOP_TIME

    def pipeline(self, requests: Iterable[Request]) -> Iterator[Reply]:
        """Sends many requests without waiting for each answer; gives the replies in their order.

        At most `WINDOW` requests are on their way. Nothing is retried: a connection that fails
        raises for the first request without an answer, and those behind it may have run too. A
        reply that tells of a failed task raises nothing: look at its `ok`.

        >>> from runel import request
        >>> with Device("127.0.0.1") as device:
        ...     asked = [request("fileexists", path) for path in ("/etc", "/none")]
        ...     [reply.ok for reply in device.pipeline(asked)]
        [True, False]
        """
        link = self._connected()
        waiting: Deque[Pending] = collections.deque()
        failure: Optional[RunelError] = None
        for request in requests:
            if len(waiting) >= WINDOW:
                yield self._answer(link, waiting.popleft())
            try:
                waiting.append(self._submit(link, request, None))
            except RunelError as error:
                failure = error  # raised behind the answers to those that were sent
                break
        while waiting:
            yield self._answer(link, waiting.popleft())
        if failure is not None:
            raise failure

    def _task(self, name: str, *args: Name) -> Reply:
        asked = request(name, *args)
        reply = self.ask(asked)
        if not reply.ok:
            raise device_error(self.name, asked, reply)
        return reply

    def _flag(self, name: str, *args: Name, no: Sequence[int]) -> bool:
        asked = request(name, *args)
        reply = self.ask(asked)
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

    def access(self, path: Name, mode: int) -> bool:
        """Whether the daemon may access `path`. `mode`: the sum of 4 read, 2 write, 1 execute; or 0.

        False for errors 1, 2, 13, 20 and 30; others raise `DeviceError`.

        >>> with Device("127.0.0.1") as device:
        ...     device.access("/etc/hosts", 4)
        True
        """
        no = (1, _ENOENT, _EACCES, _ENOTDIR, _EROFS)
        return self._flag("access", path, str(mode), no=no)

    def append(self, path: Name, data: bytes) -> None:
        """Adds all of `data` at the end of a file, or nothing; makes a missing file.

        It is on the device's disk when this returns.

        >>> with Device("127.0.0.1") as device:
        ...     device.write("/tmp/note", b"one ")
        ...     device.append("/tmp/note", b"two")
        ...     device.read("/tmp/note")
        b'one two'
        """
        self._task("append", path, data)

    def chmodx(self, path: Name) -> None:
        """Adds execute permission for everybody (0111).

        >>> with Device("127.0.0.1") as device:
        ...     device.write("/tmp/program", b"#!/bin/sh\\necho ready\\n")
        ...     device.chmodx("/tmp/program")
        ...     (device.exec(["/tmp/program"], limit=10)).output
        b'ready\\n'
        """
        self._task("chmodx", path)

    def fileexists(self, path: Name) -> bool:
        """Whether `path` exists, behind symbolic links. False for errors 2 and 20; others raise.

        >>> with Device("127.0.0.1") as device:
        ...     device.fileexists("/no/such/file")
        False
        """
        return self._flag("fileexists", path, no=(_ENOENT, _ENOTDIR))

    def freeblocks(self, path: Name) -> int:
        """Blocks that users without privileges may still fill on the file system of `path`.

        The device does not tell their size; it is 4096 bytes on most file systems.

        >>> with Device("127.0.0.1") as device:
        ...     device.freeblocks("/tmp") >= 0
        True
        """
        return self._read(parse_number, (self._task("freeblocks", path)).text, "freeblocks")

    def lstat(self, path: Name) -> Stat:
        """The metadata of `path`, of a symbolic link itself.

        >>> with Device("127.0.0.1") as device:
        ...     (device.lstat("/proc/self")).is_link
        True
        """
        return self._read(parse_stat, (self._task("lstat", path)).text, "lstat")

    def read(self, path: Name) -> bytes:
        """The whole content of a file, at most 256 MiB less 4 KiB. `pull` reads larger ones.

        >>> with Device("127.0.0.1") as device:
        ...     (device.read("/proc/version"))[:5]
        b'Linux'
        """
        return (self._task("read", path)).text

    def readdir(self, path: Name) -> List[str]:
        """The names in a directory, without ``.`` and ``..``, sorted by byte value.

        >>> with Device("127.0.0.1") as device:
        ...     "hosts" in device.readdir("/etc")
        True
        """
        return self._read(parse_names, (self._task("readdir", path)).text, "readdir")

    def realpath(self, path: Name) -> str:
        """The absolute path without symbolic links.

        >>> with Device("127.0.0.1") as device:
        ...     device.realpath("/etc/../etc/hosts")
        '/etc/hosts'
        """
        return to_text((self._task("realpath", path)).text)

    def rename(self, source: Name, target: Name) -> None:
        """Renames a file within its file system; replaces an existing `target` at once.

        >>> with Device("127.0.0.1") as device:
        ...     device.write("/tmp/old", b"")
        ...     device.rename("/tmp/old", "/tmp/new")
        """
        self._task("rename", source, target)

    def stat(self, path: Name) -> Stat:
        """The metadata of `path`, behind symbolic links. Sizes in bytes, times in nanoseconds.

        >>> with Device("127.0.0.1") as device:
        ...     device.write("/tmp/four", b"1234")
        ...     (device.stat("/tmp/four")).size
        4
        """
        return self._read(parse_stat, (self._task("stat", path)).text, "stat")

    def unlink(self, path: Name) -> None:
        """Removes a file, not a directory.

        >>> with Device("127.0.0.1") as device:
        ...     device.unlink("/no/such/file")
        Traceback (most recent call last):
        ...
        runel.errors.DeviceError: 127.0.0.1: unlink: /no/such/file: No such file or directory
        """
        self._task("unlink", path)

    def walktree(self, path: Name) -> List[TreeEntry]:
        """A directory and all below it; links are not followed.

        A directory that cannot be read makes this a `DeviceError`; `ask` gives what was gathered.

        >>> with Device("127.0.0.1") as device:
        ...     (device.walktree("/proc/sys/kernel/random"))[0].path
        '.'
        """
        return self._read(parse_tree, (self._task("walktree", path)).text, "walktree")

    def write(self, path: Name, data: bytes) -> None:
        """Replaces the content of a file, whole or not at all; makes a missing file.

        It is on the device's disk when this returns. `data` and `path` must fit into one frame of
        256 MiB; `push` sends more.

        >>> with Device("127.0.0.1") as device:
        ...     device.write("/tmp/greeting", b"hello")
        """
        self._task("write", path, data)

    # Programs.

    def exec(self, argv: Sequence[Name], *, limit: int = 0, check: bool = True) -> ProgramResult:
        """Runs a program with its arguments, without a shell.

        `limit`, in seconds: above 0 the program is stopped when it takes longer; 0 waits for its
        end without limit, and the device serves nobody meanwhile; below 0 starts it in the
        background, for `wait` and `kill`, and throws its output away. Each connection knows one
        background program; the next "exec" forgets it.

        With `check`, a program that does not exit with status 0 raises `ProgramError`. One that
        cannot be started raises `DeviceError`.

        >>> with Device("127.0.0.1") as device:
        ...     (device.exec(["echo", "hello"], limit=10)).output
        ...     (device.exec(["false"], limit=10, check=False)).exit_status
        b'hello\\n'
        1
        """
        asked = request("exec", *argv, limit=limit)
        return self._program(asked, self.ask(asked), check)

    def kill(self) -> ProgramResult:
        """Stops the background program: SIGTERM to its process group, SIGKILL 2 s later.

        Raises `DeviceError` with errno 3 when nothing is running, and `LinkError` when the
        connection that started the program is gone.

        >>> with Device("127.0.0.1") as device:
        ...     _ = device.exec(["sleep", "60"], limit=-1)
        ...     (device.kill()).signal
        15
        """
        asked = request("kill")
        return self._program(asked, self.ask(asked), False)

    def wait(self, *, check: bool = True) -> ProgramResult:
        """Waits for the background program to end, without limit; the device serves nobody meanwhile.

        Raises `DeviceError` with errno 10 when there is none, otherwise as `exec` does.

        >>> with Device("127.0.0.1") as device:
        ...     _ = device.exec(["true"], limit=-1)
        ...     (device.wait()).exit_status
        0
        """
        asked = request("wait")
        return self._program(asked, self.ask(asked), check)

    def _program(self, asked: Request, reply: Reply, check: bool) -> ProgramResult:
        if reply.state is ProgramState.NONE:
            raise device_error(self.name, asked, reply)
        result = program_result(reply)
        if check and not result.ok:
            raise ProgramError(result.describe(), result, device=self.name, task=asked.task.name)
        return result

    def processrunning(self, name: Name) -> bool:
        """Whether a process of this name runs: its argv[0], or the first 15 bytes of its name.

        >>> with Device("127.0.0.1") as device:
        ...     device.processrunning("runeld")
        True
        """
        return self._flag("processrunning", name, no=(_ESRCH,))

    # The device.

    def hostid(self) -> str:
        """The identifier of the device.

        >>> with Device("127.0.0.1") as device:
        ...     len(device.hostid()) > 0
        True
        """
        return to_text((self._task("hostid")).text)

    def devicetype(self) -> str:
        """ "controller", "server" or "unknown".

        >>> with Device("127.0.0.1") as device:
        ...     device.devicetype() in ("controller", "server", "unknown")
        True
        """
        return to_text((self._task("devicetype")).text)

    def changeleds(self, first: bool, second: bool) -> None:
        """Lights or darkens the device's two LEDs and ends a blinking. Errno 2: it has none."""
        self._task("changeleds", str(int(first)), str(int(second)))

    def blinkleds(self, style: Union[LedStyle, str]) -> None:
        """Blinks the device's two LEDs. Errno 22: no such style, 2: it has no LEDs."""
        self._task("blinkleds", style.value if isinstance(style, LedStyle) else style)

    def updateumstate(self, key: str, state: bytes) -> None:
        """Keeps `state` under `key` for the update manager.

        `key`: 1 to 255 letters, digits, ``.``, ``_`` and ``-``, no dot first; else errno 22.

        >>> with Device("127.0.0.1") as device:
        ...     device.updateumstate("release", b"1.0")
        """
        self._task("updateumstate", key, state)

    def reboot(self) -> None:
        """Reboots the device. Returns when the device has acknowledged it.

        A device that is back within seconds could not reboot: its daemon has only restarted.
        """
        self.ask(request("reboot"))

    def restart(self) -> None:
        """Has the daemon end, to be started again by its supervisor.

        There is no answer: this returns when the device has closed the connection.
        """
        asked = request("restart")
        link = self._retried(lambda: self._post(asked), asked)
        if not link.ended.wait(self.timeout):
            raise RunelTimeout(
                "the connection did not end", outcome=Outcome.UNKNOWN, device=self.name, task="restart"
            )
        if link.failure is not None and link.failure.errno is not None:
            raise link.failure.error(Outcome.UNKNOWN, self.name, "restart")

    def _post(self, asked: Request) -> Link:
        link = self._connected()
        link.post(asked, self.timeout)
        return link

    # Whole files, of any size.

    def push(
        self,
        source: Name,
        target: Name,
        *,
        mode: Optional[int] = None,
        progress: Optional[Progress] = None,
    ) -> int:
        """Copies the file `source` of this host to `target` on the device; the bytes sent.

        The content goes in pieces of 8 MiB to a hidden file beside `target`, which is renamed over
        it when it is whole: there is no limit on its size, and `target` is the old file or the new
        one at any time. An existing file keeps its owner and permission bits unless `mode` gives
        others; a new one gets those of `source`. A link is followed. The device needs chmod(1),
        and chown(1) for a file of another owner. Forgets a background program, as "exec" does.

        `progress` is called with the bytes sent and the bytes in all after each piece. After a
        failure the hidden file is removed if the device can still be reached.
        """
        return push_file(self, source, target, mode, progress)

    def pull(
        self, source: Name, target: Name, *, progress: Optional[Progress] = None
    ) -> int:
        """Copies the file `source` of the device to `target` on this host; the bytes received.

        A file above 8 MiB comes in pieces that dd(1) cuts on the device, which needs a /bin/sh;
        this forgets a background program, as "exec" does. `target` gets the permission bits of
        `source` and is replaced when all is there. Raises `DeviceError` when the file changed
        meanwhile.
        """
        return pull_file(self, source, target, progress)
