# SPDX-License-Identifier: Apache-2.0
"""Runs runelgw as its supervisor does, with real daemons that dial it from separate hosts."""
import contextlib
import http.client
import json
import os
import signal
import socket
import subprocess

from support.case import EndToEndCase
from support.daemon import BINARY as DAEMON
from support.daemon import sanitizer_options
from support.networks import ip, remove_all_hosts
from support.wait import TIMEOUT, wait_until

BINARY = os.environ.get("RUNELGW_BIN", "")
DEVICE_PORT, HTTP_PORT = 5112, 5180


class Answer:
    """The answer to one HTTP request."""

    def __init__(self, response):
        self.status = response.status
        self.headers = response.headers
        self.body = response.read()

    @property
    def json(self):
        return json.loads(self.body)


class Gateway:
    """A gateway with its state directory. It can be started several times."""

    def __init__(self, directory, **settings):
        self.directory = os.path.join(directory, "gateway")
        os.mkdir(self.directory, 0o700)
        self.settings = {"service.state_directory": self.directory,
                         "service.control_socket": os.path.join(self.directory, "control"),
                         "service.log_level": "debug",
                         "queue.spool_directory": os.path.join(self.directory, "spool"),
                         "database.url": os.path.join(self.directory, "fleet.db"),
                         **{name.replace("__", "."): value for name, value in settings.items()}}
        self.environment = {**os.environ, **sanitizer_options(directory)}
        self.log_path = os.path.join(directory, "gateway.log")
        self.token_of = {}
        self.process = None
        self.states = None

    def options(self):
        words = []
        for name, value in self.settings.items():
            words += ["--" + name.replace(".", "-").replace("_", "-"), str(value)]
        return words

    def launch(self, wrapper=()):
        """Starts the process with the socket of a supervisor, and does not wait."""
        path = os.path.join(self.directory, "notify")
        with contextlib.suppress(FileNotFoundError):
            os.unlink(path)
        if self.states:
            self.states.close()
        self.states = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.states.bind(path)
        self.states.settimeout(0)
        with open(self.log_path, "ab") as log:
            self.process = subprocess.Popen(
                [*wrapper, BINARY, *self.options(), "run"], stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                env={**self.environment, "NOTIFY_SOCKET": path})

    def start(self, **options):
        """Starts it and waits until it tells its supervisor that it is ready."""
        self.launch(**options)
        wait_until(lambda: self.told() == "READY=1" or self.process.poll() is not None, "the gateway is ready")
        assert self.process.poll() is None, self.log()
        return self

    def told(self):
        """The next state that the supervisor hears, or None."""
        with contextlib.suppress(BlockingIOError):
            return self.states.recv(1000).decode()
        return None

    def log(self):
        with open(self.log_path, encoding="utf-8") as log:
            return log.read()

    def wait_logged(self, text, times=1):
        wait_until(lambda: self.log().count(text) >= times, f"{times} times '{text}' in the log:\n{self.log()}")

    def stop(self):
        """Ends it orderly, and runs the stop hook of the supervisor. Returns the exit status."""
        self.process.send_signal(signal.SIGTERM)
        status = self.process.wait(TIMEOUT)
        self.end_hook("success" if status == 0 else "exit-code")
        return status

    def kill(self):
        """Ends it as a crash does, with the stop hook of the supervisor."""
        self.process.kill()
        self.process.wait()
        self.end_hook("signal")

    def end_hook(self, result):
        done = self.command("orderly-end", environment={"SERVICE_RESULT": result})
        assert done.returncode == 0, done.stderr

    def command(self, *words, environment=None, **options):
        """Runs another command of the program with the same settings."""
        return subprocess.run([BINARY, *self.options(), *words], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, timeout=TIMEOUT, check=False,
                              env={**self.environment, **(environment or {})}, **options)

    def token(self, role="admin", *words):
        """A token of the role, made once."""
        if (role, *words) not in self.token_of:
            name = f"{role}-{len(self.token_of)}"
            done = self.command("token", "create", "--name", name, "--role", role, *words)
            assert done.returncode == 0, done.stderr
            self.token_of[role, *words] = done.stdout.decode().strip()
        return self.token_of[role, *words]

    def ask(self, method, path, body=None, token=None, headers=None):
        """One HTTP request with the token of an administrator; token="": with none."""
        token = self.token() if token is None else token
        sent = {"Authorization": f"Bearer {token}"} if token else {}
        if body is not None:
            body = json.dumps(body)
            sent["Content-Type"] = "application/json"
        connection = http.client.HTTPConnection("127.0.0.1", HTTP_PORT, timeout=TIMEOUT)
        with contextlib.closing(connection):
            connection.request(method, path, body, {**sent, **(headers or {})})
            return Answer(connection.getresponse())

    def get(self, path, **options):
        """The JSON object at @p path."""
        answer = self.ask("GET", path, **options)
        assert answer.status == 200, (answer.status, answer.body)
        return answer.json

    def devices(self, query="@all"):
        """The devices of @p query by name."""
        found = self.get(f"/v1/devices?limit=1000&query={query}")
        return {device["name"]: device for device in found["items"]}

    def wait_devices(self, count, state="online"):
        """Waits for @p count devices in this state. Returns all devices by name."""
        def there():
            devices = self.devices()
            return devices if [each["state"] for each in devices.values()].count(state) == count else None
        return wait_until(there, f"{count} devices are {state}")

    def close(self):
        if self.process and self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        if self.states:
            self.states.close()


class Controllers:
    """Hosts with a network namespace and an identity each. A host runs at most one daemon."""

    def __init__(self, directory, count):
        self.directory = directory
        self.names = [f"gw-{number:02}" for number in range(1, count + 1)]
        self.running = {}
        self.masters = {name: self.near(name) for name in self.names}  # whom its daemon dials
        batch = []
        for name in self.names:
            batch += [f"netns add {name}",
                      f"link add {name} type veth peer name eth0 netns {name}",
                      f"address add {self.near(name)}/24 dev {name}", f"link set {name} up"]
        self._batch([], batch)
        for name in self.names:
            self._batch(["-n", name], [f"address add {self.address(name)}/24 dev eth0", "link set eth0 up",
                                       "link set lo up", f"route add default via {self.near(name)}"])
            with open(self._identity(name), "w", encoding="ascii") as file:
                file.write(f"{name}\n")

    @staticmethod
    def _batch(options, lines):
        subprocess.run(["ip", *options, "-batch", "-"], input="\n".join(lines).encode(), check=True)

    def _identity(self, name):
        return os.path.join(self.directory, f"machine-id.{name}")

    @staticmethod
    def near(name):
        """The gateway's address on the cable to @p name."""
        return f"10.0.{int(name.rpartition('-')[2])}.1"

    @staticmethod
    def address(name):
        return f"10.0.{int(name.rpartition('-')[2])}.2"

    def claim(self, name, identity):
        """From its next start on, @p name tells another identity."""
        with open(self._identity(name), "w", encoding="ascii") as file:
            file.write(f"{identity}\n")

    def start(self, *names):
        """Starts the daemons of these hosts, by default of all."""
        for name in names or self.names:
            script = ('mount --bind "$1" /etc/machine-id && mount -t tmpfs none /run && hostname "$2" &&'
                      ' exec "$3" -n -i "$4"')
            self.running[name] = subprocess.Popen(
                ["nsenter", f"--net=/run/netns/{name}", "unshare", "--mount", "--uts", "sh", "-c", script, "sh",
                 self._identity(name), name, DAEMON, self.masters[name]],
                stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                start_new_session=True, env={**os.environ, **sanitizer_options(self.directory)})
        return self

    def stop(self, *names):
        for name in names or list(self.running):
            process = self.running.pop(name)
            process.terminate()
            process.wait(TIMEOUT)

    def is_running(self, name):
        return self.running[name].poll() is None

    @staticmethod
    def cut(name):
        """Takes the cable out: nothing arrives, and neither end is told."""
        ip("link", "set", name, "down")

    @staticmethod
    def mend(name):
        ip("link", "set", name, "up")

    def agent(self, name):
        """A local agent of @p name: a socket connected to its daemon."""
        from support.networks import inside
        with inside(name):
            connected = socket.socket()
        connected.settimeout(TIMEOUT)
        connected.connect(("127.0.0.1", 5111))
        return connected

    def close(self):
        for process in self.running.values():
            with contextlib.suppress(ProcessLookupError):
                os.killpg(process.pid, signal.SIGKILL)
            process.wait()
        remove_all_hosts()


class GatewayCase(EndToEndCase):
    """Ends gateways and hosts with the test, and checks for sanitizer reports."""

    def make_gateway(self, **settings):
        """A gateway that is not started. A setting is SECTION__KEY=VALUE."""
        gateway = Gateway(self.directory, **settings)
        self.addCleanup(gateway.close)
        return gateway

    def start_gateway(self, **settings):
        return self.make_gateway(**settings).start()

    def controllers(self, count):
        """Hosts whose daemons are not started."""
        if not os.path.exists("/etc/machine-id"):
            with open("/etc/machine-id", "w", encoding="ascii") as file:
                file.write("world\n")
        controllers = Controllers(self.directory, count)
        self.addCleanup(controllers.close)
        return controllers
