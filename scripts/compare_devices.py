# SPDX-License-Identifier: Apache-2.0
"""Many devices on one machine, for scripts/compare-runelctl and scripts/trial. Each device is a network
namespace with a daemon, and with an ssh server if it has a configuration. A bridge connects them."""
import socket
import subprocess
import time

MASTER, MASTER_PORT = "10.9.0.1", 5112
TIMEOUT = 300  # seconds until all devices must serve, on a busy machine

# The script of a device: reports that its namespaces exist, waits for its network interface, serves.
# It has a private /run for the daemon's pid file and for pushed files, and a private /var/lib for jobs.
DEVICE = f"""set -e
echo made
read -r address
ip -batch - <<END
link set lo up
address add $address/16 dev eth0
link set eth0 up
END
mount -t proc proc /proc
mount -t tmpfs tmpfs /run
mount -t tmpfs -o mode=755 tmpfs /var/lib
mkdir /run/sshd
"$1" -n -i {MASTER} >/dev/null 2>&1 &
[ -n "$2" ] || wait
exec /usr/sbin/sshd -D -f "$2" >/dev/null 2>&1
"""


def wait_for_port(address, port, deadline):
    while True:
        with socket.socket() as probe:
            probe.settimeout(5)
            if probe.connect_ex((address, port)) == 0:
                return
        if time.monotonic() > deadline:
            raise TimeoutError(f"no server listens at {address}:{port}")
        time.sleep(0.01)


def silent_master(address):
    """A master that accepts the daemons' connections and sends nothing, like an idle real one.

    Without a master, a daemon tries to connect with every packet that it reads, and ten times a second
    when idle. That is the load of a disconnected device, not of a working one.
    """
    master = socket.socket()
    master.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    master.bind((address, MASTER_PORT))
    master.listen(4096)
    return master


class Devices:
    """The devices. They exist during the block `with Devices(...) as devices:`."""

    def __init__(self, count, daemon, sshd_config=""):
        self.addresses = [f"10.9.{number // 200 + 1}.{number % 200 + 1}" for number in range(count)]
        self.words = [daemon, sshd_config]
        self.ports = (5111, 22) if sshd_config else (5111,)
        self.processes = []
        self.master = None

    def __enter__(self):
        try:
            self.plug()
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_):
        for process in self.processes:
            process.kill()  # unshare --kill-child ends all processes in its namespaces
        for process in self.processes:
            process.wait()
        if self.master is not None:
            self.master.close()
        subprocess.run(["ip", "link", "delete", "bridge"], check=False)

    def plug(self):
        self.batch("link add bridge type bridge", f"address add {MASTER}/16 dev bridge",
                   "link set bridge up")
        self.master = silent_master(MASTER)
        for _ in self.addresses:
            self.processes.append(subprocess.Popen(
                ["unshare", "--net", "--mount", "--pid", "--fork", "--kill-child", "sh", "-c",
                 DEVICE, "device", *self.words],
                cwd="/", stdin=subprocess.PIPE, stdout=subprocess.PIPE, start_new_session=True))
        for process in self.processes:
            process.stdout.readline()
        self.batch(*(f"link add v{number} type veth peer name eth0 netns {process.pid}\n"
                     f"link set v{number} master bridge up"
                     for number, process in enumerate(self.processes)))
        for address, process in zip(self.addresses, self.processes):
            process.stdin.write(address.encode() + b"\n")
            process.stdin.close()
        deadline = time.monotonic() + TIMEOUT
        for address in self.addresses:
            for port in self.ports:
                wait_for_port(address, port, deadline)

    @staticmethod
    def batch(*lines):
        subprocess.run(["ip", "-batch", "-"], input="\n".join(lines).encode(), check=True)

    def disconnect(self, number):
        """Takes the device's line away: its address no longer answers."""
        self.batch(f"link set v{number} down")

    def daemon(self, number):
        """The process id of the device's daemon."""
        waiting = [self.processes[number].pid]
        while waiting:
            process = str(waiting.pop())
            with open(f"/proc/{process}/comm", encoding="utf-8") as name:
                if name.read() == "runeld\n":
                    return int(process)
            with open(f"/proc/{process}/task/{process}/children", encoding="ascii") as children:
                waiting += children.read().split()
        raise ProcessLookupError(f"device {number} has no daemon")

    def paths(self, path):
        """The path on this machine of @p path on each device."""
        return [f"/proc/{process.pid}/root{path}" for process in self.processes]
