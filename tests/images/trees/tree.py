# SPDX-License-Identifier: Apache-2.0
"""A booted Debian tree: a layer above a tree of the cache, with its own network, ended with the test.

`systemd-nspawn -b` runs in private mount and PID namespaces. The layer is in memory there, so that
nothing is left when the first process of these namespaces is killed. Each tree has a separate control
group: two init processes in one group would end each other's services.
"""
import contextlib
import ctypes
import itertools
import os
import select
import shutil
import socket
import subprocess
import tempfile
import threading

from support.wait import TIMEOUT, wait_until

CLONE_NEWNET = 0x40000000
PR_SET_PDEATHSIG = 1
BOOT_TIMEOUT = 180.0
REBOOTED = 133  # the exit status of systemd-nspawn --keep-unit after reboot(2) inside
ENVIRONMENT = {"PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
               "LC_ALL": "C.UTF-8", "TERM": "dumb", "HOME": "/root"}

# First process of the namespaces. /run is private: systemd-nspawn leaves nothing on this machine.
HOLDER = r"""
set -e
mount --make-rprivate /
mount -t tmpfs -o mode=755 tmpfs /run
mkdir -p /run/layer/upper /run/layer/work /run/tree
chmod 755 /run/layer/upper
mount -t overlay overlay -o "lowerdir=$1,upperdir=/run/layer/upper,workdir=/run/layer/work" /run/tree
shift
echo ready
while read -r _; do
  status=0
  systemd-nspawn "$@" </dev/null >>"$CONSOLE" 2>&1 || status=$?
  echo "ended $status"
done
"""

numbers = itertools.count(1)
libc = ctypes.CDLL(None, use_errno=True)


class Failed(AssertionError):
    """A command in the tree had another exit status than expected."""


def _control_groups():
    """The directories of this process's control groups that an init process uses to track services."""
    with open("/proc/self/mountinfo", encoding="utf-8") as mounts:
        points = {}
        for line in mounts:
            before, _, after = line.rstrip("\n").partition(" - ")
            kind, _, options = after.split(" ", 2)
            if kind == "cgroup2":
                points[""] = before.split(" ")[4]
            elif kind == "cgroup" and "name=systemd" in options.split(","):
                points["name=systemd"] = before.split(" ")[4]
    with open("/proc/self/cgroup", encoding="utf-8") as groups:
        for line in groups:
            _, controllers, path = line.rstrip("\n").split(":", 2)
            if controllers in points:
                yield points[controllers] + path.rstrip("/")


def _children(pid):
    with contextlib.suppress(OSError):
        with open(f"/proc/{pid}/task/{pid}/children", encoding="ascii") as children:
            return [int(child) for child in children.read().split()]
    return []


def _descendants(pid):
    for child in _children(pid):
        yield child
        yield from _descendants(child)


class Tree:
    """A copy-on-write layer above the tree of @p recipe. `boot` starts its init.

    Before the boot and after it, `path` gives files of the layer. Every operation has a deadline.
    """

    def __init__(self, recipe, options=()):
        self.recipe = recipe
        self.lower = recipe.tree()
        self.directory = tempfile.mkdtemp(prefix="runeld-tree-")
        self.console = os.path.join(self.directory, "console")
        self.leader = None
        self.name = f"runeld-{os.getpid()}-{next(numbers)}"
        self.groups = [f"{directory}/{self.name}" for directory in _control_groups()]
        for group in self.groups:
            os.mkdir(group)
        command = ["unshare", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc",
                   "sh", "-c", HOLDER, "holder", self.lower,
                   "--quiet", "--boot", "--register=no", "--keep-unit", "--private-network",
                   "--console=pipe", "--link-journal=no", "--resolv-conf=off", "--timezone=off",
                   f"--machine={self.name}", "--directory=/run/tree", *options]
        self.process = subprocess.Popen(
            command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, bufsize=0, text=False,
            env={**os.environ, "CONSOLE": self.console}, start_new_session=True,
            preexec_fn=self._start)
        self.answers = b""
        try:
            self._answer("ready", TIMEOUT)
        except AssertionError:
            self.end()
            raise

    def _start(self):
        """Runs in the new process: its groups, and its end at the end of this process."""
        libc.prctl(PR_SET_PDEATHSIG, 9, 0, 0, 0)
        for group in self.groups:
            with open(f"{group}/cgroup.procs", "w", encoding="ascii") as members:
                members.write(str(os.getpid()))

    def _answer(self, word, timeout):
        """The rest of the holder's next line, which begins with @p word."""
        def complete():
            if b"\n" not in self.answers and select.select([self.process.stdout], [], [], 0)[0]:
                data = os.read(self.process.stdout.fileno(), 4096)
                assert data, f"the tree's holder ended with {self.process.wait()}"
                self.answers += data
            return b"\n" in self.answers
        wait_until(complete, f"the tree's holder says {word}", timeout)
        line, _, self.answers = self.answers.partition(b"\n")
        found, _, rest = line.decode().partition(" ")
        assert found == word, line
        return rest

    # Files.

    def holder(self):
        """The number of the first process of the private namespaces."""
        return wait_until(lambda: _children(self.process.pid), "the holder runs")[0]

    def path(self, name):
        """This machine's path of the file @p name of the layer. Links in it must not be absolute."""
        return f"/proc/{self.holder()}/root/run/tree/{name.lstrip('/')}"

    def live_path(self, name):
        """The same in the mount namespace of the booted tree: also /run and /tmp."""
        return f"/proc/{self.leader}/root/{name.lstrip('/')}"

    def write(self, name, content, mode=0o644):
        """Writes a file, in the layer or in the booted tree. Makes its directories."""
        data = content if isinstance(content, bytes) else content.encode()
        target = self.live_path(name) if self.leader else self.path(name)
        os.makedirs(os.path.dirname(target), exist_ok=True)
        with open(target, "wb") as file:
            file.write(data)
            os.fchmod(file.fileno(), mode)

    def read(self, name):
        with open(self.live_path(name) if self.leader else self.path(name), "rb") as file:
            return file.read()

    def copy_in(self, source, name, mode=0o755):
        """Copies the file @p source of this machine to @p name."""
        target = self.live_path(name) if self.leader else self.path(name)
        os.makedirs(os.path.dirname(target), exist_ok=True)
        with contextlib.suppress(FileNotFoundError):
            os.unlink(target)
        shutil.copyfile(source, target)
        os.chmod(target, mode)

    def exists(self, name):
        return os.path.lexists(self.live_path(name) if self.leader else self.path(name))

    # Boot and end.

    def boot(self, wait=True):
        """Starts the tree's init and, with @p wait, waits until the system is up."""
        assert self.leader is None, "the tree is up"
        self.process.stdin.write(b"boot\n")
        self.leader = wait_until(self._find_leader, "the tree's init runs", BOOT_TIMEOUT)
        if wait:
            self.wait_up()
        return self

    def _find_leader(self):
        """The tree's process 1, as soon as it is the init program and no longer systemd-nspawn."""
        for pid in _descendants(self.process.pid):
            with contextlib.suppress(OSError):
                with open(f"/proc/{pid}/status", encoding="ascii", errors="replace") as about:
                    numbers_of = next(line for line in about if line.startswith("NSpid:")).split()[1:]
                program = os.readlink(f"/proc/{pid}/exe").rpartition("/")[2]
                if len(numbers_of) >= 3 and numbers_of[-1] == "1" and program in ("systemd", "init"):
                    return pid
        assert not select.select([self.process.stdout], [], [], 0)[0], \
            f"the boot ended:\n{self.console_text()}"
        return None

    def wait_up(self, timeout=BOOT_TIMEOUT):
        """Waits until init has started everything."""
        if self.recipe.flavour == "systemd":
            state = wait_until(lambda: self._state() in ("running", "degraded") and self._state(),
                               "the system is up", timeout)
            return state
        wait_until(lambda: self.run("runlevel", check=False).stdout.strip().endswith(" 2"),
                   "runlevel 2", timeout)
        wait_until(lambda: not self.run("pgrep", "-x", "rc", check=False).stdout,
                   "the scripts of runlevel 2 have ended", timeout)
        return "2"

    def _state(self):
        return self.run("systemctl", "is-system-running", check=False).stdout.strip()

    def wait_ended(self, timeout=TIMEOUT):
        """Waits until the booted system has ended. "reboot" or "poweroff" (any other end fails)."""
        status = int(self._answer("ended", timeout))
        self.leader = None
        if status == REBOOTED:
            return "reboot"
        assert status == 0, f"systemd-nspawn ended with {status}:\n{self.console_text()}"
        return "poweroff"

    def has_ended(self):
        """Whether the booted system has ended; `wait_ended` tells how."""
        return bool(self.answers or select.select([self.process.stdout], [], [], 0)[0])

    def poweroff(self):
        """Shuts the system down in order."""
        self.run("poweroff", check=False)
        return self.wait_ended()

    def end(self):
        """Kills all processes of the tree and removes what it left on this machine."""
        for child in _children(self.process.pid):
            with contextlib.suppress(ProcessLookupError):
                os.kill(child, 9)
        self.process.kill()
        self.process.wait()
        for stream in (self.process.stdin, self.process.stdout):
            stream.close()
        for group in self.groups:
            wait_until(lambda: _remove_group(group), f"{group} is empty")
        shutil.rmtree(self.directory, ignore_errors=True)

    # Programs.

    def _entered(self, command, timeout, environment):
        assert self.leader, "the tree is not up"
        return ["nsenter", f"--target={self.leader}", "--mount", "--uts", "--ipc", "--net", "--pid",
                "--cgroup", "--root", "--wd", "env", "-i",
                *(f"{key}={value}" for key, value in {**ENVIRONMENT, **environment}.items()),
                "timeout", "--kill-after=5", str(timeout), *command]

    def run(self, *command, check=True, timeout=TIMEOUT, environment=None, text=True, **options):
        """Runs a command in the booted tree. Returns subprocess's result, with its output."""
        return _run(self._entered(command, timeout, environment or {}), command, check, text, timeout,
                    options)

    def shell(self, script, **options):
        """Runs a script with the tree's sh. Returns its standard output."""
        return self.run("sh", "-c", script, **options).stdout

    def prepare(self, *command, check=True, timeout=600.0, text=True, **options):
        """Runs a command in the layer before the boot: no network, no services."""
        entered = ["nsenter", f"--target={self.holder()}", "--mount", "--pid", "unshare", "--net",
                   "chroot", "/run/tree", "env", "-i",
                   *(f"{key}={value}" for key, value in ENVIRONMENT.items()), *command]
        return _run(entered, command, check, text, timeout, options)

    def outside(self, *command):
        """The command line of a program of this machine in the network of the booted tree."""
        return ["nsenter", f"--target={self.leader}", "--net", *command]

    @contextlib.contextmanager
    def network(self):
        """Sockets that this thread makes meanwhile belong to the network of the booted tree."""
        own = os.open(f"/proc/self/task/{threading.get_native_id()}/ns/net", os.O_RDONLY)
        other = os.open(f"/proc/{self.leader}/ns/net", os.O_RDONLY)
        try:
            _set_network(other)
            yield socket
        finally:
            _set_network(own)
            os.close(own)
            os.close(other)

    # What happened.

    def console_text(self):
        with contextlib.suppress(FileNotFoundError):
            with open(self.console, encoding="utf-8", errors="replace") as lines:
                return lines.read()
        return ""

    def journal(self, *options):
        """The lines of the journal, as journalctl's @p options select them."""
        return self.run("journalctl", "--quiet", "--no-pager", "--output=cat", *options).stdout.splitlines()

    def report(self, lines=150):
        """The console and the end of the log, for a failed test."""
        parts = [f"-- console of {self.name}", *self.console_text().splitlines()[-lines:]]
        if self.leader and os.path.exists(f"/proc/{self.leader}"):
            if self.recipe.flavour == "systemd":
                command = ["journalctl", "--no-pager", "--output=short-monotonic", f"--lines={lines}"]
            else:
                command = ["tail", f"--lines={lines}", "/var/log/syslog"]
            parts += ["-- log", self.run(*command, check=False, timeout=20).stdout]
        return "\n".join(parts)


def _run(entered, command, check, text, timeout, options):
    options = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, "stdin": subprocess.DEVNULL, **options}
    if "input" in options:
        del options["stdin"]
    result = subprocess.run(entered, text=text, timeout=timeout + 30, check=False, **options)
    if check and result.returncode != 0:
        raise Failed(f"{' '.join(command)} ended with {result.returncode}:\n"
                     f"{result.stdout}\n{result.stderr}")
    return result


def _set_network(descriptor):
    if libc.setns(descriptor, CLONE_NEWNET) != 0:
        raise OSError(ctypes.get_errno(), "setns")


def _remove_group(group):
    """Removes a control group and those below it. False while processes are left."""
    for directory, _, _ in os.walk(group, topdown=False):
        try:
            os.rmdir(directory)
        except FileNotFoundError:
            continue
        except OSError:
            return False
    return not os.path.exists(group)
