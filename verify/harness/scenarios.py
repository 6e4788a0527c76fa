# SPDX-License-Identifier: Apache-2.0
"""The scenarios that run while calls fail: work of a running daemon, and whole life cycles."""
import contextlib
import os
import select
import shutil
import signal
import socket
import time

from harness.session import HANG, SHORT_TIMEOUT, Finding, Lost, Wait, expect, old_or_new
from support.peers import ready
from support.wait import wait_until
from support.wire import frame, request

HOSTS = "/etc/hosts"
OLD_HOSTS = b"127.0.0.1 localhost\n192.0.2.1 update-master\n"
NEW_HOSTS = b"127.0.0.1 localhost\n127.0.0.1 update-master\n"
PID_FILE = "/var/run/runeld.pid"
STATE_DIRECTORY = "/var/lib/runeld"


def put(path, content):
    with open(path, "wb") as file:
        file.write(content)


def replace(session, task, name, old, new, data):
    """A task that replaces a file. The file must have its old or new content, after success the new."""
    path = session.path(name)
    if old is None:
        with contextlib.suppress(FileNotFoundError):
            os.unlink(path)
    else:
        put(path, old)
    try:
        done = session.ask(request(task, path, data)) is not None
    except Lost:
        done = False
    finally:
        is_new = old_or_new(path, old, new, task)
    expect(is_new or not done, f"{task}: success, but the old content")
    return done


def step(session, *arguments, wanted=(0, 0, 0, 0, 0), output=None, exec_param=0, also=()):
    """A task that changes nothing. On success its output must be correct."""
    with contextlib.suppress(Lost):
        reply = session.ask(request(*arguments, exec_param=exec_param), wanted, also=also)
        if reply is not None and output is not None:
            if not session.strict and session.log.find("exec: cannot read output, .*"):
                session.deviate("the output was lost")
                return reply
            expect(reply.output == output, f"{arguments[0]} gave {reply.output[:200]!r}")
        return reply
    return None


def write_files(session):
    replace(session, "write", "new", None, b"new", "new")
    replace(session, "write", "kept", b"old content\n", b"brand new", "brand new")
    replace(session, "append", "appended", None, b"first", "first")
    replace(session, "append", "log", b"a line\n", b"a line\nand one\n", "and one\n")
    key = f"{STATE_DIRECTORY}/umstate/key"
    shutil.rmtree(STATE_DIRECTORY, ignore_errors=True)
    for old, new in ((None, b"one"), (b"one", b"two")):
        if old is not None and not os.path.exists(key):
            os.makedirs(os.path.dirname(key), exist_ok=True)
            put(key, old)
        try:
            done = session.ask(request("updateumstate", "key", new)) is not None
        except Lost:
            done = False
        is_new = old_or_new(key, old, new, "updateumstate")
        expect(is_new or not done, "updateumstate: success, but the old content")


def look_at_files(session):
    path = session.path("looked-at")
    directory = session.path("tree")
    put(path, b"content")
    os.makedirs(f"{directory}/below", exist_ok=True)
    put(f"{directory}/below/file", b"x")
    with contextlib.suppress(FileExistsError):
        os.symlink("below", f"{directory}/link")
    step(session, "read", path, output=b"content")
    step(session, "stat", path)
    step(session, "lstat", f"{directory}/link")
    step(session, "access", path, 4)
    step(session, "fileexists", path)
    step(session, "realpath", f"{directory}/link", output=f"{directory}/below".encode())
    step(session, "readdir", directory, output=b"StringVec 2\n5:below\n4:link\n")
    step(session, "walktree", directory)
    step(session, "freeblocks", directory)


def change_files(session):
    path, other = session.path("moved"), session.path("moved-to")
    put(path, b"moved")
    with contextlib.suppress(FileNotFoundError):
        os.unlink(other)
    step(session, "chmodx", path)
    if step(session, "rename", path, other):
        expect(not os.path.exists(path), "rename left the source")
    expect(os.path.exists(path) != os.path.exists(other), "rename lost the file or doubled it")
    if step(session, "unlink", other if os.path.exists(other) else path):
        expect(not os.path.exists(other) and not os.path.exists(path), "unlink left the file")


def run_programs(session):
    step(session, "exec", "/bin/echo", "hello", wanted=(0, 2, 0, 0, 0), output=b"hello\n",
         exec_param=100)
    step(session, "exec", "sleep", "3", wanted=(2, 1, 0, 0, 0), exec_param=-1)
    step(session, "kill", wanted=(0, 3, -1, 0, signal.SIGTERM),
         also=((0, 3, -1, 0, signal.SIGKILL), (0, 2, 0, 0, 0)))
    step(session, "exec", "/bin/true", wanted=(2, 1, 0, 0, 0), exec_param=-1)
    step(session, "wait", wanted=(0, 2, 0, 0, 0))
    step(session, "processrunning", "world")


def stop_at_limit(session):
    step(session, "exec", "sleep", "3", wanted=(3, 4, -1, 110, 15), exec_param=1)


def ask_about_device(session):
    step(session, "hostid")
    step(session, "devicetype")
    step(session, "blinkleds", "fast")
    step(session, "changeleds", 1, 0)


def move_much(session):
    data = bytes(range(256)) * 4096
    if replace(session, "write", "big", b"small", data, data):
        step(session, "read", session.path("big"), output=data)


def serve_clients(session):
    """Connections with each protocol of the port, and with invalid input."""
    with contextlib.suppress(Lost):
        client = session.client()
        with contextlib.closing(client):
            session.ask(b"\r\n" + request("fileexists", "/"), peer=client)
            session.ask(request("fileexists", "/"), peer=client)
    with contextlib.suppress(Lost):
        client = session.client()
        with contextlib.closing(client):
            send(client, b"hello\r\n")
            send(client, frame(b"x") + b"\x01999999999999\x02")
            session.quiet()
    with contextlib.suppress(Lost):
        client = session.client()
        with contextlib.closing(client):
            send(client, b"\x01junk")
            expect(session.reads_end(client) == b"", "a reply to malformed input")


def send(peer, data):
    """Sends @p data. Raises Lost when the connection has ended."""
    try:
        peer.send(data)
    except AssertionError as error:
        raise Lost(str(error)) from error


def clause_arrives(session, target, clause):
    """Reads a clause that the daemon has relayed. False when a failure has lost it."""
    wanted = clause + b"\r\n"
    got = b""
    while len(got) < len(wanted) and session.arrives(target):
        try:
            part = target.socket.recv(4096)
        except ConnectionError:
            break
        if not part:
            break
        got += part
    if got == wanted:
        return True
    expect(wanted.startswith(got), f"the relay changed {wanted!r} to {got!r}")
    session.deviate(f"a clause was lost, {got!r} came")
    return False


def relay(session):
    """An agent connects, the hosts file is rewritten, the bridge relays clauses, the agent leaves."""
    session.slave_or_new()
    put(HOSTS, OLD_HOSTS)
    agent = session.client()
    bridge = None
    try:
        send(agent, b"<hello/>")
        wait = Wait(session)
        while bridge is None and not wait.is_over():
            if ready(session.master.listener, select.POLLIN, 0.01):
                bridge = session.master.accept()
            if session.ended() is not None:
                raise Lost("the daemon ended")
        if bridge is None:
            session.deviate("no bridge")
            return
        if not clause_arrives(session, bridge, b"<hello/>"):
            return
        expect(old_or_new(HOSTS, OLD_HOSTS, NEW_HOSTS, "hosts") or not session.strict,
               "the hosts file is as before")
        send(bridge, b"<answer>yes</answer>")
        clause_arrives(session, agent, b"<answer>yes</answer>")
        send(agent, b"<thanks>a lot</thanks>")
        clause_arrives(session, bridge, b"<thanks>a lot</thanks>")
    except (OSError, Lost) as error:
        session.deviate(f"relay: {error}")
    finally:
        agent.close()
        old_or_new(HOSTS, OLD_HOSTS, NEW_HOSTS, "hosts")
        if bridge is not None:
            bridge.read_to_end(HANG)  # the bridge ends with the agent
            session.forget(bridge)


WORK = {function.__name__: function for function in (
    write_files, look_at_files, change_files, run_programs, stop_at_limit, ask_about_device,
    move_much, serve_clients, relay)}


class Life:
    """The life cycle of a daemon from start to end. `role` is the process whose calls fail."""

    def __init__(self, name, run, role=0):
        self.name, self.run, self.role = name, run, role


def prepare(session, *arguments, background=False):
    spawn = session.launch(*arguments, background=background)
    for path in (PID_FILE, f"{PID_FILE}.new"):
        with contextlib.suppress(FileNotFoundError):
            os.unlink(path)
    return spawn


def serve_once(session):
    """Waits for the slave connection and sends one request."""
    session.connect_slave()
    step(session, "fileexists", "/")


# The log line of the first lookup of the master's name.
LOOKED_UP = r"(established connection to|cannot resolve host) .*"


def stop_by_signal(session):
    if session.ended() is None:
        session.daemon.send_signal(signal.SIGTERM)
    status = session.wait_end("SIGTERM")
    if status in session.deaths_of_libc and not session.log.find(LOOKED_UP):
        return
    expect(status in (0, 1), f"exit status {status}")
    if status != 0:
        session.deviate(f"exit status {status}")


def foreground(session, spawn):
    spawn()
    with contextlib.suppress(Lost):
        serve_once(session)
    stop_by_signal(session)


def ended_by_task(session, spawn, task, answered):
    """The master ends the daemon by a task. If a failure prevents that, a signal ends it."""
    spawn()
    try:
        peer = session.connect_slave()
        send(peer, request(task))
        reply = session.reads_end(peer)
        if (b"SlaveTask 0 0 0: 0 0 0 0 0" in reply) != answered:
            session.deviate(f"{task} got the reply {reply!r}")
    except (Lost, OSError) as lost:
        session.deviate(f"{task}: {lost}")
    if session.daemon.status is None:
        with contextlib.suppress(Exception):
            session.daemon.wait(0.2 if session.deviations else HANG)
    stop_by_signal(session)


def restarted(session, spawn):
    ended_by_task(session, spawn, "restart", False)


def rebooted(session, spawn):
    ended_by_task(session, spawn, "reboot", True)
    shared = session.state.shared
    expect(shared.reboots <= shared.syncs <= 1, "reboot without sync, or twice")
    expect(shared.reboots == 1 or not session.strict, "no reboot")


def find_child(session):
    """The process id of the daemon in the background; None without one."""
    return session.state.shared.processes[1].pid or None


def reap_child(session, pid):
    """Waits for the daemon in the background to end. Returns its exit status."""
    def reaped():
        found, status = os.waitpid(pid, os.WNOHANG)
        return (os.waitstatus_to_exitcode(status),) if found else None
    try:
        return wait_until(reaped, "the daemon in the background ends", HANG)[0]
    except ChildProcessError as error:
        raise Finding("the daemon in the background vanished") from error


def background(session, spawn):
    """The daemon forks into the background, writes its pid file, serves, and removes the file."""
    spawn()
    status = session.daemon.process.wait(HANG)
    expect(status in (0, 1), f"exit status {status} of the launching process")
    pid = find_child(session)
    if pid is None:
        session.deviate("no daemon in the background")
        return
    try:
        written = old_or_new(PID_FILE, None, b"%d\n" % pid, "pid file")
        if not written:
            session.deviate("no pid file")
        session.daemon.pid = pid
        session.daemon.background = False
        with contextlib.suppress(Lost):
            until_child_serves(session, pid)
    finally:
        with contextlib.suppress(ProcessLookupError):
            os.kill(pid, signal.SIGTERM)
        ended = reap_child(session, pid)
        expect(ended in (0, 1), f"exit status {ended} of the daemon")
    # A remaining pid file names a dead process, and the next start replaces it.
    if old_or_new(PID_FILE, None, b"%d\n" % pid, "pid file"):
        expect(not session.strict, "the pid file stays")


def until_child_serves(session, pid):
    begun = time.monotonic()
    while not ready(session.master.listener, select.POLLIN, 0.005):
        if not session.strict and time.monotonic() > begun + SHORT_TIMEOUT:
            session.state.pause()
        with open(f"/proc/{pid}/stat", encoding="latin-1") as about:
            if about.read().rpartition(")")[2].split()[0] == "Z":
                raise Lost("the daemon ended")
        if time.monotonic() > begun + HANG:
            raise Finding("the daemon does not connect to its master")
    session.slave = session.master.accept()
    session.ask(request("fileexists", "/"))


@contextlib.contextmanager
def held_port():
    """Another process listens on the port."""
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as holder:
        holder.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        holder.bind(("0.0.0.0", 5111))
        holder.listen()
        yield


def ladder(session, spawn):
    """The port stays in use. After 35 failures the daemon reboots the device."""
    with held_port():
        spawn()
        status = session.wait_end("the ladder")
    expect(status in (0, 1), f"exit status {status}")
    shared = session.state.shared
    if status == 0 and session.strict:
        expect(shared.reboots == 1 and shared.restart_reboots == 1, "no reboot")
        expect(shared.popens == 1 and shared.systems == 1, "the process list is shown once")
    expect(shared.popens <= 1 and shared.systems <= 1, "the process list is shown again")


LIVES = (
    Life("foreground", foreground), Life("named_master", foreground), Life("restarted", restarted),
    Life("rebooted", rebooted),
    Life("launcher", background, 0), Life("background", background, 1), Life("ladder", ladder))

# Command lines of the life cycles, where not the default.
ARGUMENTS = {"named_master": ("-i", "localhost", "-v", "-v", "-v")}
