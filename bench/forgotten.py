# SPDX-License-Identifier: Apache-2.0
"""Measures the cost of background programs whose connection was closed."""
import contextlib
import os
import signal
import socket
import time
from pathlib import Path

import servers
from measuring import Row, row

HOST = "127.0.0.1"
SETTLE = 0.5


def children_of(pid):
    found = []
    for name in filter(str.isdigit, os.listdir("/proc")):
        with contextlib.suppress(OSError):  # it may end at any time
            about = Path("/proc", name, "stat").read_text(encoding="latin-1")
            if int(about.rpartition(")")[2].split()[1]) == pid:
                found.append(int(name))
    return found


def ask(connection, request):
    """Sends @p request, whose reply is small. Returns the size of the reply."""
    connection.sendall(request)
    return len(connection.recv(4096))


@contextlib.contextmanager
def forgotten_programs(server, start, count):
    """Sends the request @p start @p count times on one connection, and closes that connection."""
    with socket.create_connection((HOST, servers.LISTEN_PORT), servers.TIMEOUT) as starter:
        for _ in range(count):
            ask(starter, start)
    programs = children_of(server.pid)
    try:
        if len(programs) != count:
            raise RuntimeError(f"{len(programs)} of {count} programs run")
        yield
    finally:
        for program in programs:
            os.kill(program, signal.SIGKILL)
    servers.wait_until(lambda: not children_of(server.pid), "the programs are not reaped")


@contextlib.contextmanager
def idle_connections(request, count):
    """A master, and @p count connections that have sent one request. Yields the size of a reply."""
    with contextlib.ExitStack() as open_ones:
        listener = open_ones.enter_context(socket.create_server((HOST, servers.MASTER_PORT)))
        listener.settimeout(servers.TIMEOUT)
        open_ones.enter_context(listener.accept()[0])
        for _ in range(count):
            idle = socket.create_connection((HOST, servers.LISTEN_PORT), servers.TIMEOUT)
            size = ask(open_ones.enter_context(idle), request)
        yield size


def processor_at_rest(server, seconds):
    """The processor time that the idle server uses in @p seconds, in nanoseconds."""
    def used():
        return int(Path(f"/proc/{server.pid}/schedstat").read_text(encoding="ascii").split()[0])
    time.sleep(SETTLE)
    before = used()
    time.sleep(seconds)
    return used() - before


def beside_forgotten_programs(bench, start, request, idle):
    """Measures the daemon with and without the programs in turn; without them it is the floor. Both use
    the same process and the same connections, because two processes differ by more than the limit."""
    programs, turns = bench.amount(200, 5), bench.amount(20, 1)
    path = bench.file("exists.request", request)

    def figures(server, reply):
        found = bench.load("rounds", server, request=path, count=bench.amount(1500, 50),
                           port=servers.LISTEN_PORT, reply=reply)
        return {**found, "rest": processor_at_rest(server, bench.amount(3, 0.2))}

    without, beside = [], []
    with bench.daemon() as server, idle_connections(request, idle) as reply:
        for _ in range(turns):
            without.append(figures(server, reply))
            with forgotten_programs(server, start, programs):
                beside.append(figures(server, reply))
    work = f"{programs} forgotten programs, {idle} idle"
    return [row("14", work, "p50, us", "p50_us", {"runeld": beside, "floor": without}, 1.10),
            Row("14", work, "processor at rest, ms", total(beside), total(without), limit=1.10)]


def total(figures):
    return [sum(figure["rest"] for figure in figures) / 1e6]
