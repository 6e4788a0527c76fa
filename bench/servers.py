# SPDX-License-Identifier: Apache-2.0
"""The measured servers: the daemon, its floors, and peers from Debian packages.

Each is a context manager: it listens after __enter__ and has ended after __exit__. All of them share
one processor with the load.
"""
import os
import shutil
import signal
import socket
import subprocess
import time
from pathlib import Path

LISTEN_PORT, MASTER_PORT = 5111, 5112
PID_FILE = Path("/run/runeld.pid")
WORK, LOG = min(os.sched_getaffinity(0)), max(os.sched_getaffinity(0))
TIMEOUT = 20.0


def wait_until(condition, what):
    end = time.monotonic() + TIMEOUT
    while not condition():
        if time.monotonic() > end:
            raise RuntimeError(f"timeout after {TIMEOUT:.0f} s: {what}")
        time.sleep(0.002)


def start(command, processor=WORK, **more):
    """Starts a program, by default on the processor that server and load share."""
    return subprocess.Popen([str(word) for word in command], stdin=subprocess.DEVNULL,
                            preexec_fn=lambda: os.sched_setaffinity(0, {processor}), **more)


def run(command, **more):
    """Runs a client program to its end, on the same processor."""
    streams = {"stdin": subprocess.DEVNULL, "stdout": subprocess.DEVNULL, **more}
    subprocess.run([str(word) for word in command], check=True, stderr=subprocess.DEVNULL,
                   preexec_fn=lambda: os.sched_setaffinity(0, {WORK}), **streams)


def listens(port):
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", port)) == 0


class Program:
    """A server that runs in the foreground."""
    name, port, need = "", 0, ()

    def __init__(self, *arguments):
        self.arguments = arguments

    @classmethod
    def installed(cls):
        return all(shutil.which(program) for program in cls.need)

    def __enter__(self):
        quiet = {"stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
        self.process = start(self.arguments, **quiet)
        self.pid = self.process.pid
        wait_until(lambda: listens(self.port), f"{self.name} does not listen")
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()


class Floor(Program):
    name, port = "floor", LISTEN_PORT

    def __init__(self, bin_directory, kind):
        super().__init__(bin_directory / "bench_floor", kind, LISTEN_PORT, MASTER_PORT)


class Daemon:
    """The daemon under test, in the background as in production."""
    name, port = "runeld", LISTEN_PORT

    def __init__(self, bin_directory):
        self.program = bin_directory / "runeld"

    def __enter__(self):
        started = start([self.program])
        if started.wait() != 0:
            raise RuntimeError("the daemon does not start")
        self.find()
        return self

    def find(self):
        """Attaches to a daemon that another program has started."""
        wait_until(lambda: PID_FILE.exists() and PID_FILE.read_text().strip(), "no pid file")
        self.pid = int(PID_FILE.read_text())
        wait_until(lambda: listens(self.port), "the daemon does not listen")

    def __exit__(self, *_):
        os.kill(self.pid, signal.SIGTERM)
        wait_until(lambda: not Path(f"/proc/{self.pid}").exists(), "the daemon does not end")


class Redis(Program):
    name, port, need = "redis", 6379, ("redis-server",)

    def __init__(self):
        super().__init__("redis-server", "--port", self.port, "--bind", "127.0.0.1", "--save", "",
                         "--appendonly", "no", "--maxclients", 2000)


class Mosquitto(Program):
    name, port, need = "mosquitto", 1883, ("mosquitto",)

    def __init__(self, directory):
        settings = directory / "mosquitto.conf"
        settings.write_text(f"listener {self.port} 127.0.0.1\nallow_anonymous true\n"
                            "max_queued_messages 0\nset_tcp_nodelay true\n")
        super().__init__("mosquitto", "-c", settings)


class Rsync(Program):
    name, port, need = "rsync", 8730, ("rsync",)

    def __init__(self, directory):
        self.store = directory / "rsync"
        self.store.mkdir(exist_ok=True)
        settings = directory / "rsyncd.conf"
        settings.write_text(f"[bench]\npath = {self.store}\nuse chroot = no\nread only = no\n"
                            "uid = 0\ngid = 0\n")
        super().__init__("rsync", "--daemon", "--no-detach", "--address", "127.0.0.1", "--port",
                         self.port, "--config", settings)

    def copy_in(self, source):
        (self.store / "file").unlink(missing_ok=True)
        run(["rsync", "--whole-file", source, f"rsync://127.0.0.1:{self.port}/bench/file"])

    def copy_out(self, source, target):
        target.unlink(missing_ok=True)
        if not (self.store / "file").exists():
            shutil.copyfile(source, self.store / "file")
        run(["rsync", "--whole-file", f"rsync://127.0.0.1:{self.port}/bench/file", target])


class Dropbear(Program):
    """An SSH server with one persistent connection."""
    name, port, need = "dropbear", 2222, ("dropbear", "dropbearkey", "ssh", "ssh-keygen", "mount")

    def __init__(self, directory):
        self.directory = directory / "dropbear"
        self.control = self.directory / "control"
        super().__init__("dropbear", "-F", "-E", "-p", f"127.0.0.1:{self.port}", "-r",
                         self.directory / "host", "-P", self.directory / "pid", "-W", 1048576)

    def __enter__(self):
        if not self.directory.exists():
            self.make_keys()
        super().__enter__()
        run(["ssh", "-M", "-S", self.control, "-N", "-f", "-F", "none", "-p", str(self.port),
             "-i", self.directory / "key", "-o", "StrictHostKeyChecking=no", "-o",
             "UserKnownHostsFile=/dev/null", "root@127.0.0.1"])
        return self

    def __exit__(self, *_):
        run(["ssh", "-S", self.control, "-O", "exit", "root@127.0.0.1"])
        super().__exit__()

    def make_keys(self):
        self.directory.mkdir()
        home = Path(os.path.expanduser("~root"))
        # Mounted in the isolated namespaces only; the machine's directory does not change.
        run(["mount", "-t", "tmpfs", "-o", "mode=700", "tmpfs", home])
        run(["dropbearkey", "-t", "ed25519", "-f", self.directory / "host"])
        run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", self.directory / "key"])
        (home / ".ssh").mkdir(mode=0o700)
        keys = home / ".ssh" / "authorized_keys"
        keys.write_text((self.directory / "key.pub").read_text())
        keys.chmod(0o600)

    def execute(self, command, **more):
        run(["ssh", "-S", self.control, "root@127.0.0.1", command], **more)

    def copy_in(self, source):
        target = self.directory / "file"
        target.unlink(missing_ok=True)
        with open(source, "rb") as file:
            self.execute(f"cat > {target}", stdin=file)

    def copy_out(self, source, target):
        with open(target, "wb") as file:
            self.execute(f"cat {source}", stdout=file)
