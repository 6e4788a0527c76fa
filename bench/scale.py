# SPDX-License-Identifier: Apache-2.0
"""Measures the cost of many connections for the daemon's loop and for the master of many devices."""
import resource
import socket
import time
from pathlib import Path

from measuring import Row, row

LISTEN_BACKLOG = 1024


def beside_more_and_more(bench, small_requests, client):
    """One busy connection beside an increasing number of idle ones."""
    counts = bench.amount((0, 100, 300, 600, 900), (0, 10))
    rows = []
    for count in counts:
        results = small_requests(bench, {**client, "idle": count}, bench.amount(2000, 50),
                                 bench.amount(3, 1))
        rows.append(row("S", f"one busy beside {count} idle", "p50, us", "p50_us", results))
    rows[-1].curve = {"runeld": list(zip(counts, (min(one.subject) for one in rows))),
                      "floor": list(zip(counts, (min(one.floor) for one in rows)))}
    return rows


def kernel_memory():
    """The memory of the kernel's objects, in bytes."""
    for line in Path("/proc/meminfo").read_text(encoding="ascii").splitlines():
        if line.startswith("SUnreclaim:"):
            return int(line.split()[1]) * 1024
    raise RuntimeError("/proc/meminfo has no line SUnreclaim")


def connections_memory(count):
    """The kernel memory of one end of an idle connection, in bytes."""
    before = kernel_memory()
    with socket.create_server(("127.0.0.1", 0), backlog=LISTEN_BACKLOG) as listener:
        ends = []
        try:
            for _ in range(count):
                ends.append(socket.create_connection(listener.getsockname()))
                ends.append(listener.accept()[0])
            return (kernel_memory() - before) / len(ends)
        finally:
            for end in ends:
                end.close()


def many_connections(bench):
    _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
    count = bench.amount(8000, 100)
    used = [connections_memory(count) / 1024 for _ in range(bench.amount(5, 1))]
    return Row("S", f"{count} connections, all idle", "memory of one end, KiB", used)


def active_opens():
    """The number of connections opened in this network namespace so far."""
    names, values = [line.split() for line in Path("/proc/net/snmp").read_text(
        encoding="ascii").splitlines() if line.startswith("Tcp:")]
    return int(values[names.index("ActiveOpens")])


def without_master(bench):
    """The rate at which a device tries to connect to an absent master."""
    rates = []
    for _ in range(bench.amount(3, 1)):
        with bench.daemon():
            begin, opens = time.monotonic(), active_opens()
            time.sleep(bench.amount(3, 0.3))
            rates.append((active_opens() - opens) / (time.monotonic() - begin))
    return Row("S", "the master is away", "connects, 1/s", rates)
