#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""The steps of scripts/demo, in isolated namespaces. Arguments: BINARY LOGFILE."""
import contextlib
import os
import socket
import subprocess
import sys
import tempfile
import time

import demo_master

BINARY, LOG = sys.argv[1:3]
RUNELCTL = os.path.join(os.path.dirname(BINARY), "runelctl")
MASTER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "demo_master.py")


def title(text):
    print(f"\n\n== {text}", flush=True)


def wait_for(condition, what):
    deadline = time.monotonic() + 60
    while not condition():
        if time.monotonic() > deadline:
            sys.exit(f"demo: {what} did not happen")
        time.sleep(0.01)


def logged(text, times=1):
    with open(LOG, encoding="latin-1") as log:
        return log.read().count(text) >= times


def show_file(path):
    print(f"  {path}:")
    with open(path, encoding="ascii") as file:
        for line in file:
            print(f"      {line}", end="")
    print(flush=True)


def make_leds():
    """Creates two directories like those of the kernel's LED class, for a machine without LEDs."""
    subprocess.run(["mount", "-t", "tmpfs", "leds", "/sys/class"], check=True)
    for name in ("first", "second"):
        os.makedirs(f"/sys/class/leds/{name}")
        with open(f"/sys/class/leds/{name}/brightness", "w", encoding="ascii") as file:
            file.write("0\n")


def runelctl(*words):
    """Runs and prints one runelctl command. The devices are one daemon under three addresses."""
    print("\n  $ runelctl " + " ".join(words), flush=True)
    done = subprocess.run([RUNELCTL, *words], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          check=True)
    for line in done.stdout.decode().splitlines():
        print(f"    {line}", flush=True)


def runelctl_commands():
    runelctl("info")
    hello = os.path.join(tempfile.gettempdir(), "hello.sh")
    with open(hello, "w", encoding="ascii") as script:
        script.write("#!/bin/sh\necho hello from $(uname -n)\n")
    os.environ["RUNELCTL_DEVICE"] = "127.0.0.1,127.0.0.2,127.0.0.3"
    runelctl("push", hello, "/run/")
    runelctl("exec", "--", "sh", "/run/hello.sh")
    runelctl("--json", "fileexists", "/run/hello.sh")


def tasks():
    title("The master sends every task over the connection that the daemon opens to it")
    daemon = subprocess.Popen([BINARY], stdin=subprocess.DEVNULL, start_new_session=True)
    print(f"started: {BINARY}, status {daemon.wait()}: the daemon runs in the background")
    wait_for(lambda: logged("listening on port 5111"), "the start")
    show_file("/var/run/runeld.pid")
    title("Users run runelctl, which connects to the daemon's port 5111")
    runelctl_commands()
    title("All tasks over the connection to the master")
    subprocess.run([sys.executable, MASTER], check=True)
    wait_for(lambda: logged("exit status 0"), "the restart")
    print("\nThe daemon exited with status 0 on \"restart\"; a supervisor starts it again.")


def agent(number, slave_is_up):
    """A local agent, from its first clause to its last. The master replies on the bridge."""
    address = f"127.0.0.{number}"
    with socket.create_connection(("127.0.0.1", 5111), source_address=(address, 0)) as one:
        one.sendall(b"<hello>agent on " + address.encode() + b"</hello>\r\n")
        bridge, _ = slave_is_up.accept()
        with bridge:
            print(f"\n  agent {address} -> master: {bridge.recv(4096)!r}")
            show_file("/etc/hosts")
            bridge.sendall(b"<install package='7'/>")
            print(f"  master -> agent: {one.recv(4096)!r}")
            one.sendall(b"<progress>50 %</progress><progress>100 %</progress>")
            length = len(b"<progress>50 %</progress>\r\n<progress>100 %</progress>\r\n")
            print(f"  agent -> master: {bridge.recv(length, socket.MSG_WAITALL)!r}")
            one.shutdown(socket.SHUT_WR)
            while bridge.recv(4096):
                pass
            print("  the agent disconnected, and the daemon closed its bridge to the master", flush=True)


def agents():
    title("A local agent connects: the daemon relays clauses between the agent and the master")
    show_file("/etc/hosts")
    daemon = subprocess.Popen([BINARY, "-n", "-v"], stdin=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL, start_new_session=True)
    with socket.create_server(("", 5112)) as listener:
        slave, _ = listener.accept()
        print("  the daemon connected to the master")
        for number in (5, 6):
            agent(number, listener)
            if number == 5:
                print("\n  The next agent connects:")
        with contextlib.closing(slave):
            demo_master.ask(slave, "exec", "/bin/cat", "/etc/hosts")
        daemon.terminate()
        print(f"\n  SIGTERM: the daemon ended with status {daemon.wait()}")


def reboot():
    title("The last task is \"reboot\": here it ends a PID namespace instead of a device")
    daemon = subprocess.Popen(["unshare", "--pid", "--fork", "--kill-child", BINARY, "-n"],
                              stdin=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                              start_new_session=True)
    subprocess.run([sys.executable, MASTER, "reboot"], check=True)
    print(f"\n  the namespace ended by signal {-daemon.wait()}, which stands for a restart")


def main():
    make_leds()
    tasks()
    agents()
    reboot()
    title("The daemon's log")
    levels = ("emerg", "alert", "crit", "err", "warning", "notice", "info", "debug")
    with open(LOG, encoding="latin-1") as log:
        for line in log:
            priority, _, text = line[1:].partition(">")
            print(f"  {levels[int(priority) & 7]:8}{text}", end="")


if __name__ == "__main__":
    main()
