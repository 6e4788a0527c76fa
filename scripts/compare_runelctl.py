# SPDX-License-Identifier: Apache-2.0
"""The measurements of scripts/compare-runelctl; runs inside a private world only."""
import os
import random
import shutil
import socket
import statistics
import subprocess
import sys
import tempfile
import time

ROUNDS = int(os.environ.get("ROUNDS", "5"))
DEVICES = int(os.environ.get("DEVICES", "200"))
COMMANDS = int(os.environ.get("COMMANDS", "1000"))
MIB = 1 << 20


def run(*words, **options):
    if "input" not in options:
        options["stdin"] = subprocess.DEVNULL
    done = subprocess.run(words, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False,
                          **options)
    if done.returncode:
        sys.exit(f"{words}: status {done.returncode}\n{done.stdout.decode(errors='replace')[-2000:]}")
    return done.stdout


def wait_for_port(address, port):
    for _ in range(3000):
        with socket.socket() as probe:
            if probe.connect_ex((address, port)) == 0:
                return
        time.sleep(0.01)
    sys.exit(f"nobody listens at {address}:{port}")


def row(title, rivals):
    """@p rivals: (name, prepare, work) each. Rounds in turn, so that all have the same weather."""
    times = {name: [] for name, _, _ in rivals}
    for _ in range(ROUNDS):
        for name, prepare, work in rivals:
            prepare()
            begin = time.monotonic()
            work()
            times[name].append(time.monotonic() - begin)
    ours = statistics.median(times[rivals[0][0]])
    for name, values in times.items():
        middle = statistics.median(values)
        print(f"| {title} | {name} | {middle:.3f} s | {min(values):.3f} to {max(values):.3f} | "
              f"{middle / ours:.2f} |", flush=True)


class Bench:
    def __init__(self, binaries):
        self.ctl = os.path.join(binaries, "runelctl")
        self.daemon = os.path.join(binaries, "runeld")
        self.folder = tempfile.mkdtemp()
        self.keys()

    def swallow_log(self, binaries):
        """As many lines wait for the log's reader as on a machine that systemd started."""
        with open("/proc/sys/net/unix/max_dgram_qlen", "w", encoding="ascii") as length:
            length.write("512")
        subprocess.Popen([os.path.join(binaries, "bench_log")], start_new_session=True)
        while not os.path.exists("/dev/log"):
            time.sleep(0.01)

    def path(self, name):
        return os.path.join(self.folder, name)

    def keys(self):
        for name in ("host", "user"):
            run("ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", self.path(name))
        shutil.copy(self.path("user.pub"), self.path("authorized"))
        with open(self.path("sshd_config"), "w", encoding="utf-8") as config:
            config.write(f"HostKey {self.path('host')}\nAuthorizedKeysFile {self.path('authorized')}\n"
                         "Port 22\nPidFile none\nStrictModes no\nUsePAM no\nPermitRootLogin yes\n"
                         "MaxStartups 1000\nMaxSessions 1000\nUseDNS no\n")
        with open(self.path("ssh_config"), "w", encoding="utf-8") as config:
            config.write(f"IdentityFile {self.path('user')}\nStrictHostKeyChecking no\n"
                         "UserKnownHostsFile /dev/null\nLogLevel ERROR\nUser root\n")
        os.makedirs("/run/sshd", exist_ok=True)
        # This world's own: what a login of this machine's root starts is not to be measured.
        with open("/etc/passwd", encoding="utf-8") as passwd:
            lines = [f"root:x:0:0::{self.folder}:/bin/sh\n" if line.startswith("root:") else line
                     for line in passwd]
        with open("/etc/passwd", "w", encoding="utf-8") as passwd:
            passwd.writelines(lines)

    def serve(self):
        subprocess.Popen([self.daemon, "-n"], cwd="/", stdin=subprocess.DEVNULL,
                         stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                         start_new_session=True)
        subprocess.Popen(["/usr/sbin/sshd", "-D", "-f", self.path("sshd_config")],
                         stderr=subprocess.DEVNULL, start_new_session=True)
        with open(self.path("rsyncd.conf"), "w", encoding="utf-8") as config:
            config.write("use chroot = no\nuid = 0\ngid = 0\n[all]\npath = /\nread only = no\n")
        subprocess.Popen(["rsync", "--daemon", "--no-detach", "--port=873",
                          f"--config={self.path('rsyncd.conf')}"], start_new_session=True)
        for port in (5111, 22, 873):
            wait_for_port("127.0.0.1", port)

    def files(self, where, disk):
        source, there = os.path.join(disk, "source"), os.path.join(disk, "there")
        os.makedirs(os.path.join(source, "tree"))
        data = random.Random(1)
        with open(os.path.join(source, "big"), "wb") as file:
            file.write(data.randbytes(64 * MIB))
        for number in range(2000):
            folder = os.path.join(source, "tree", f"d{number % 40}")
            os.makedirs(folder, exist_ok=True)
            with open(os.path.join(folder, f"f{number}"), "wb") as file:
                file.write(data.randbytes(data.randrange(8192)))

        def clean():
            shutil.rmtree(there, ignore_errors=True)
            os.mkdir(there)
            os.sync()

        url = "rsync://127.0.0.1/all"
        big, tree = os.path.join(source, "big"), os.path.join(source, "tree")

        def ctl(*words):
            return lambda: run(self.ctl, *words)

        def rsync(*words):
            return lambda: run("rsync", "-a", *words)

        row(f"push 64 MiB, {where}", [
            ("runelctl", clean, ctl("push", big, there + "/")),
            ("rsync", clean, rsync(big, url + there + "/"))])
        row(f"pull 64 MiB, {where}", [
            ("runelctl", clean, ctl("pull", big, there + "/")),
            ("rsync", clean, rsync(url + big, there + "/"))])
        row(f"push 2,000 files, {where}", [
            ("runelctl", clean, ctl("push", "-r", tree, there + "/")),
            ("rsync", clean, rsync(tree, url + there + "/"))])
        row(f"pull 2,000 files, {where}", [
            ("runelctl", clean, ctl("pull", "-r", tree, there + "/")),
            ("rsync", clean, rsync(url + tree, there + "/"))])
        run(self.ctl, "sync", tree, there + "/same")
        row(f"2,000 files of which none differs, {where}", [
            ("runelctl", lambda: None, ctl("sync", tree, there + "/same")),
            ("rsync", lambda: None, rsync(tree + "/", url + there + "/same"))])
        shutil.rmtree(disk)

    def commands(self):
        control = self.path("control")
        base = ["ssh", "-F", self.path("ssh_config"), "-S", control]
        subprocess.Popen([*base, "-M", "-N", "127.0.0.1"], stdin=subprocess.DEVNULL,
                         start_new_session=True)
        while not os.path.exists(control):
            time.sleep(0.01)

        def each(*words):
            def work():
                for _ in range(COMMANDS):
                    run(*words)
            return work

        row(f"{COMMANDS} commands, a process each", [
            ("runelctl", lambda: None, each(self.ctl, "exec", "--", "true")),
            ("ssh, kept connection", lambda: None, each(*base, "127.0.0.1", "true"))])
        lines = b"exec -- true\n" * COMMANDS
        if b"\n  shell " in run(self.ctl, "--help"):
            row(f"{COMMANDS} commands, one process", [
                ("runelctl shell", lambda: None, lambda: run(self.ctl, "shell", input=lines)),
                ("ssh, kept connection, a process each", lambda: None,
                 each(*base, "127.0.0.1", "true"))])

    def many(self):
        run("ip", "link", "add", "bridge", "type", "bridge")
        run("ip", "addr", "add", "10.9.0.1/16", "dev", "bridge")
        run("ip", "link", "set", "bridge", "up")
        os.makedirs("/run/netns", exist_ok=True)
        addresses = [f"10.9.{number // 200 + 1}.{number % 200 + 1}" for number in range(DEVICES)]
        for number, address in enumerate(addresses):
            space = f"d{number}"
            run("ip", "netns", "add", space)
            run("ip", "link", "add", f"v{number}", "type", "veth", "peer", "name", "eth0", "netns",
                space)
            run("ip", "link", "set", f"v{number}", "master", "bridge", "up")
            run("ip", "-n", space, "addr", "add", address + "/16", "dev", "eth0")
            run("ip", "-n", space, "link", "set", "eth0", "up")
            run("ip", "-n", space, "link", "set", "lo", "up")
            # A pid file of its own for each daemon.
            device = "mount -t tmpfs tmpfs /var/run && exec \"$0\" -n -i 10.9.0.1"
            subprocess.Popen(["ip", "netns", "exec", space, "unshare", "--mount", "sh", "-c", device,
                              self.daemon], cwd="/", start_new_session=True,
                             stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                             stderr=subprocess.DEVNULL)
            subprocess.Popen(["ip", "netns", "exec", space, "/usr/sbin/sshd", "-D", "-f",
                              self.path("sshd_config")], start_new_session=True,
                             stderr=subprocess.DEVNULL)
        for address in addresses:
            for port in (5111, 22):
                wait_for_port(address, port)
        with open(self.path("list"), "w", encoding="utf-8") as lines:
            lines.write("".join(address + "\n" for address in addresses))
        ssh = f"-F {self.path('ssh_config')}"
        environment = {**os.environ, "PDSH_SSH_ARGS_APPEND": ssh}
        row(f"one command on {DEVICES} devices, 64 at a time", [
            ("runelctl", lambda: None,
             lambda: run(self.ctl, "--devices", self.path("list"), "exec", "--", "uname", "-r")),
            ("pdsh with ssh", lambda: None,
             lambda: run("pdsh", "-R", "ssh", "-f", "64", "-w", "^" + self.path("list"), "uname",
                         "-r", env=environment)),
            ("parallel with ssh", lambda: None,
             lambda: run("parallel", "-j", "64", "-a", self.path("list"),
                         f"ssh {ssh} {{}} uname -r"))])
        file = self.path("script")
        with open(file, "wb") as script:
            script.write(b"#!/bin/sh\nuname -r\n" + b"# padding\n" * 10000)
        row(f"one file of 100 kB to {DEVICES} devices, 64 at a time", [
            ("runelctl", lambda: None,
             lambda: run(self.ctl, "--devices", self.path("list"), "push", file, "/var/run/")),
            ("parallel with scp", lambda: None,
             lambda: run("parallel", "-j", "64", "-a", self.path("list"),
                         f"scp -q {ssh} {file} {{}}:/var/run/copy-{{}}"))])


def main():
    if os.environ.get("RUNELD_WORLD") != "1":
        sys.exit("this runs in scripts/world only")
    bench = Bench(sys.argv[1])
    bench.swallow_log(sys.argv[1])
    bench.serve()
    print(f"{os.cpu_count()} processors, load {os.getloadavg()[0]:.1f} at the start, "
          f"median of {ROUNDS} rounds\n")
    print("| what | by | median | from, to | beside runelctl |\n|---|---|---|---|---|")
    parts = os.environ.get("PARTS", "memory,commands,many,disk").split(",")
    if "memory" in parts:
        bench.files("in memory", bench.path("memory"))
    if "commands" in parts:
        bench.commands()
    if "many" in parts:
        bench.many()
    if "disk" in parts:
        bench.files("on a disk", tempfile.mkdtemp(dir="/var/tmp"))


main()
