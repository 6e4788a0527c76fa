# SPDX-License-Identifier: Apache-2.0
"""The gateway, its floor, and fleets of simulated and real devices. Each is a context manager."""
import contextlib
import http.client
import json
import os
import ssl
import subprocess
import time
from pathlib import Path

MASTER = "127.0.0.1:5112"
HTTP_PORT = 8080
HTTP = f"127.0.0.1:{HTTP_PORT}"
TIMEOUT = 120.0


def wait_until(condition, what, pause=0.05):
    end = time.monotonic() + TIMEOUT
    while not condition():
        if time.monotonic() > end:
            told = what() if callable(what) else what
            raise RuntimeError(f"timeout after {TIMEOUT:.0f} s: {told}")
        time.sleep(pause)


class Process:
    """A running program, and what the kernel knows of it."""

    def start(self, *command, **streams):
        self.process = subprocess.Popen([str(word) for word in command], **streams)
        self.pid = self.process.pid

    def status(self, name):
        for line in Path(f"/proc/{self.pid}/status").read_text(encoding="latin-1").splitlines():
            if line.startswith(name + ":"):
                return int(line.split()[1]) * 1024
        raise RuntimeError(f"the process has no {name}: it has ended")

    def resident(self):
        return self.status("VmRSS")

    def peak(self):
        return self.status("VmHWM")

    def forget_peak(self):
        Path(f"/proc/{self.pid}/clear_refs").write_text("5", encoding="ascii")

    def processor_seconds(self):
        fields = Path(f"/proc/{self.pid}/stat").read_text(encoding="latin-1").rpartition(")")[2].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def processor_share(self, seconds):
        """The part of one processor that it uses while nothing happens for so long."""
        begin, before = time.monotonic(), self.processor_seconds()
        time.sleep(seconds)
        return (self.processor_seconds() - before) / (time.monotonic() - begin)

    def __exit__(self, *_):
        if self.process.stdin:
            self.process.stdin.close()  # ends the simulation
            with contextlib.suppress(subprocess.TimeoutExpired):
                self.process.wait(20)
        self.process.terminate()
        try:
            self.process.wait(20)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()


class Gateway(Process):
    """A new gateway with an empty database, and a token that no rate limits."""

    def __init__(self, bin_directory, directory, tls=False, **settings):
        self.bin, self.directory, self.tls = bin_directory, directory, tls
        self.state = directory / f"gateway-{time.monotonic_ns()}"
        self.state.mkdir()
        self.token_file = self.state / "token"
        self.settings = {
            "service-state-directory": self.state, "service-control-socket": self.state / "control",
            "service-log-level": "warning", "queue-spool-directory": self.state / "spool",
            "database-url": self.state / "fleet.db", "devices-listen": "0.0.0.0:5112", "http-listen": HTTP,
            "http-requests-per-second": 1000000, "http-request-burst": 1000000, **settings}
        if tls:
            self.make_certificate()

    def make_certificate(self):
        files = {name: self.state / f"{name}.pem" for name in ("certificate", "key")}
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
                        "-nodes", "-days", "2", "-subj", "/CN=localhost", "-addext",
                        "subjectAltName=DNS:localhost,IP:127.0.0.1", "-keyout", files["key"], "-out",
                        files["certificate"]], check=True, capture_output=True)
        self.settings |= {f"http-{name}": path for name, path in files.items()}

    def words(self):
        return [word for name, value in self.settings.items() for word in (f"--{name}", str(value))]

    def __enter__(self):
        with open(self.state / "log", "wb") as log:
            self.start(self.bin / "runelgw", *self.words(), "run", stdin=subprocess.DEVNULL, stdout=log,
                       stderr=log)
        wait_until(self.is_ready, "the gateway is ready")
        token = subprocess.run([self.bin / "runelgw", *self.words(), "token", "create", "--name", "bench",
                                "--role", "admin"], check=True, capture_output=True)
        self.token_file.write_bytes(token.stdout)
        return self

    def is_ready(self):
        if self.process.poll() is not None:
            raise RuntimeError("the gateway has ended: " + (self.state / "log").read_text())
        with contextlib.suppress(OSError):
            return self.request("GET", "/readyz")[0] == 200
        return False

    def request(self, method, path, body=None):
        where = ("127.0.0.1", HTTP_PORT)
        if self.tls:
            context = ssl.create_default_context(cafile=self.settings["http-certificate"])
            connection = http.client.HTTPSConnection(*where, timeout=TIMEOUT, context=context)
        else:
            connection = http.client.HTTPConnection(*where, timeout=TIMEOUT)
        headers = {"Content-Type": "application/json"} if body else {}
        if self.token_file.exists():
            headers["Authorization"] = "Bearer " + self.token_file.read_text().strip()
        with contextlib.closing(connection):
            connection.request(method, path, json.dumps(body) if body else None, headers)
            answer = connection.getresponse()
            return answer.status, answer.read()

    def get(self, path):
        return self.good(*self.request("GET", path))

    def post(self, path, body):
        return self.good(*self.request("POST", path, body))

    @staticmethod
    def good(status, body):
        if not 200 <= status < 300:
            raise RuntimeError(f"the gateway answers {status}: {body.decode()}")
        return json.loads(body)

    def states(self):
        return self.get("/v1/info")["devices"]

    def wait_online(self, count):
        wait_until(lambda: self.states()["online"] == count,
                   lambda: f"{count} devices are online, not {self.states()}")

    def wait_inventory(self, count):
        """Waits until each device has answered what it is asked after it has connected."""
        def known():
            return self.get("/v1/devices?limit=1&fields=name&query=free%3E0")["total"]
        wait_until(lambda: known() == count, lambda: f"{count} devices are asked for facts, not {known()}",
                   pause=0.2)

    def runelctl(self, *words):
        """The standard output of a run through the gateway, which must succeed."""
        scheme = "https" if self.tls else "http"
        return run_runelctl(self.bin, "--gateway", f"{scheme}://localhost:{HTTP_PORT}", *words,
                            RUNELCTL_TOKEN=self.token_file.read_text().strip())


def run_runelctl(bin_directory, *words, **environment):
    done = subprocess.run([str(word) for word in (bin_directory / "runelctl", *words)], check=False,
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          timeout=1200, env={**os.environ, **environment})
    if done.returncode != 0:
        raise RuntimeError(f"runelctl {' '.join(map(str, words))}: {done.stderr.decode()[-2000:]}")
    return done.stdout.decode()


class Direct(Process):
    """The floor: librunel alone as the master of the devices."""

    def __init__(self, bin_directory, devices):
        self.bin, self.devices = bin_directory, devices

    def __enter__(self):
        self.start(self.bin / "bench_gateway", "direct", "--at", MASTER, "--devices", self.devices,
                   "--requests", 0, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        wait_until(lambda: f":{5112:04X} 00000000:0000 0A" in Path("/proc/net/tcp").read_text(),
                   "the floor listens")
        return self

    def wait_ready(self):
        if not self.process.stdout.readline():
            raise RuntimeError("the floor has ended")


class Simulated(Process):
    """Devices in one process, each with its own loopback address."""

    def __init__(self, bin_directory, devices, slow=0, delay=1000):
        self.command = (bin_directory / "bench_fleet", "--master", MASTER, "--devices", devices,
                        "--slow", slow, "--delay", delay)

    def __enter__(self):
        self.start(*self.command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        return self

    def tell(self, line):
        self.process.stdin.write(line + "\n")
        self.process.stdin.flush()

    def state(self):
        self.tell("state")
        return json.loads(self.process.stdout.readline())

    def check(self):
        """A frame on a bridge would have stopped a daemon."""
        state = self.state()
        if state["bridge_frames"]:
            raise RuntimeError(f"frames were written to bridges: {state}")


class Real:
    """Real daemons, each with its own namespaces and its own directory /store."""

    def __init__(self, bin_directory, directory, count):
        self.bin, self.directory = bin_directory, directory / f"real-{time.monotonic_ns()}"
        self.names = [f"gw-{number:03}" for number in range(1, count + 1)]
        self.running = {}

    @staticmethod
    def near(number):
        return f"10.{64 + number // 256}.{number % 256}.1"

    @staticmethod
    def far(number):
        return f"10.{64 + number // 256}.{number % 256}.2"

    def addresses(self):
        return [self.far(number) for number in range(len(self.names))]

    def stored(self, number):
        return self.directory / self.names[number] / "store" / "file"

    @staticmethod
    def ip(lines, *options):
        subprocess.run(["ip", *options, "-batch", "-"], input="\n".join(lines).encode(), check=True)

    def __enter__(self):
        if not os.path.exists("/etc/machine-id"):
            Path("/etc/machine-id").write_text("world\n", encoding="ascii")
        lines = []
        for number, name in enumerate(self.names):
            lines += [f"netns add {name}", f"link add {name} type veth peer name eth0 netns {name}",
                      f"address add {self.near(number)}/24 dev {name}", f"link set {name} up"]
        self.ip(lines)
        for number, name in enumerate(self.names):
            self.ip([f"address add {self.far(number)}/24 dev eth0", "link set eth0 up", "link set lo up"],
                    "-n", name)
            (self.directory / name / "store").mkdir(parents=True)
            (self.directory / name / "machine-id").write_text(name + "\n", encoding="ascii")
        os.makedirs("/store", exist_ok=True)
        self.begin = time.monotonic()
        for number, name in enumerate(self.names):
            self.running[name] = self.start_daemon(number, name)
        return self

    def start_daemon(self, number, name):
        script = ('mount --bind "$1/machine-id" /etc/machine-id && mount --bind "$1/store" /store &&'
                  ' mount -t tmpfs none /run && hostname "$2" && exec "$3" -n -i "$4"')
        return subprocess.Popen(
            ["nsenter", f"--net=/run/netns/{name}", "unshare", "--mount", "--uts", "sh", "-c", script, "sh",
             self.directory / name, name, self.bin / "runeld", self.near(number)],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            start_new_session=True)

    def check(self):
        """A frame on a bridge would have stopped a daemon."""
        ended = [name for name, process in self.running.items() if process.poll() is not None]
        if ended:
            raise RuntimeError(f"daemons have ended: {', '.join(ended)}")

    def runelctl(self, *words):
        return run_runelctl(self.bin, *words)

    def __exit__(self, *_):
        for process in self.running.values():
            process.kill()
            process.wait()
        for name in self.names:
            subprocess.run(["ip", "netns", "delete", name], check=False)
