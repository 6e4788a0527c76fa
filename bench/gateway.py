#!/usr/bin/python3 -IB
# SPDX-License-Identifier: Apache-2.0
"""Measures the gateway with simulated and real devices, and prints one table.

    bench/gateway.py BIN_DIRECTORY [--only LATENCY,RATE] [--json FILE] [--short]

Runs only in isolated namespaces (scripts/world): scripts/bench --gateway builds everything and calls
it. Beside each figure is its floor where there is one: librunel as the master of the same devices,
without a gateway. --short runs each workload once in a small size, and judges only what does not
depend on time. Exit status: 0 when every target is met, 1 when one is not, 2 when a workload failed.
"""
import dataclasses
import json
import os
import subprocess
import sys
import tempfile
import time
from pathlib import Path
from typing import Optional

sys.path.insert(0, str(Path(__file__).resolve().parent))

import report  # noqa: E402
from fleets import HTTP, MASTER, Direct, Gateway, Real, Simulated, wait_until  # noqa: E402

HEAD = ("work", "figure", "gateway", "floor", "target", "verdict")


@dataclasses.dataclass
class Row:
    """One line of the table. The judged figure may differ from the shown one, as a difference does."""
    work: str
    figure: str
    value: float
    floor: Optional[float] = None
    target: str = "-"
    holds: Optional[bool] = None

    def cells(self):
        verdict = "-" if self.holds is None else "met" if self.holds else "NOT MET"
        return (self.work, self.figure, number(self.value), number(self.floor), self.target, verdict)


def number(value):
    if value is None:
        return "-"
    return f"{value:.0f}" if abs(value) >= 1000 else f"{value:.3g}"


class Bench:
    def __init__(self, bin_directory, directory, short):
        self.bin, self.directory, self.short = bin_directory, directory, short

    def amount(self, full, short):
        return short if self.short else full

    def judged(self, holds):
        """A verdict on a time, which the short form does not give."""
        return None if self.short else holds

    def gateway(self, **settings):
        return Gateway(self.bin, self.directory, **settings)

    def simulated(self, devices, **options):
        return Simulated(self.bin, devices, **options)

    def direct(self, devices):
        """The floor: the master of the simulated devices, with its own process."""
        return Direct(self.bin, devices)

    def load(self, way, gateway=None, **options):
        """The figures of one run of the load generator."""
        command = [self.bin / "bench_gateway", way, "--at", HTTP if gateway else MASTER]
        if gateway:
            command += ["--token-file", gateway.token_file, "--tls", "yes" if gateway.tls else "no"]
        for name, value in options.items():
            command += ["--" + name.replace("_", "-"), str(value)]
        done = subprocess.run([str(word) for word in command], stdin=subprocess.DEVNULL, timeout=600,
                              stdout=subprocess.PIPE, text=True, check=False)
        if done.returncode != 0:
            raise RuntimeError(f"the load failed: {' '.join(map(str, command))}")
        figures = json.loads(done.stdout.splitlines()[-1])
        if figures["failed"]:
            raise RuntimeError(f"{figures['failed']} requests failed: {' '.join(map(str, command))}")
        return figures


def in_turn(bench, devices, loads, key, repetitions):
    """The figures @p key of each load, which are run in turn. Names with a + have TLS."""
    found = {name: [] for name in loads}
    for _ in range(repetitions):
        with bench.simulated(devices):
            found["direct"].append(bench.load("direct", **loads["direct"])[key])
        for tls in (False, True):
            mine = [name for name in loads if name != "direct" and name.endswith("+") == tls]
            with bench.gateway(tls=tls) as gateway, bench.simulated(devices):
                gateway.wait_online(devices)
                for name in mine:
                    found[name].append(bench.load(name.rstrip("+"), gateway, **loads[name])[key])
    return found


def way_name(name):
    way = {"attach": "WebSocket", "http": "HTTP"}[name.rstrip("+")]
    return f"{way}, TLS" if name.endswith("+") else way


def latency(bench):
    requests = bench.amount(5000, 100)
    loads = {name: {"requests": requests} for name in ("direct", "attach", "http", "attach+", "http+")}
    found = in_turn(bench, 1, loads, "p50_us", bench.amount(5, 1))
    floor = min(found.pop("direct"))
    rows = []
    for name, values in found.items():
        value, tls = min(values), name.endswith("+")
        rows.append(Row(f"fileexists, {way_name(name)}", "p50, us", value, floor,
                        "-" if tls else "<= floor + 250",
                        None if tls else bench.judged(value - floor <= 250)))
    return rows


def rate(bench):
    devices = bench.amount(1000, 50)
    many = {"devices": devices, "requests": bench.amount(100000, 500)}
    loads = {"direct": {**many, "window": bench.amount(500, 20)},
             "attach": {**many, "window": bench.amount(500, 20)},
             "http": {**many, "window": bench.amount(64, 5)}}
    loads |= {"attach+": loads["attach"], "http+": loads["http"]}
    found = in_turn(bench, devices, loads, "rate", bench.amount(3, 1))
    floor = max(found.pop("direct"))
    return [Row(f"fileexists, {devices} devices, {way_name(name)}", "1/s", max(values), floor,
                ">= 10000" if name == "attach" else "-",
                bench.judged(max(values) >= 10000) if name == "attach" else None)
            for name, values in found.items()]


def floor_of_storm(bench, devices):
    """The same devices at a master without a gateway: seconds, and bytes for each."""
    with bench.direct(devices) as direct:
        before = direct.resident()
        begin = time.monotonic()
        with bench.simulated(devices):
            direct.wait_ready()
            return time.monotonic() - begin, (direct.resident() - before) / devices


def fan_out(gateway, devices):
    """The seconds of "@all fileexists" as an operation, until its last result was read."""
    begin = time.monotonic()
    operation = gateway.post("/v1/operations", {
        "query": "@all", "parallel": 1000, "task": {"task": "fileexists", "arguments": ["/"]}})
    path = f"/v1/operations/{operation['id']}"
    wait_until(lambda: gateway.get(path)["state"] == "done", "the operation ends", pause=0.02)
    names, cursor = [], ""
    while True:
        page = gateway.get(f"{path}/results?limit=1000{cursor}")
        names += [item["device"] for item in page["items"] if item["outcome"] == "answered"]
        if not page["next"]:
            break
        cursor = f"&cursor={page['next']}"
    seconds = time.monotonic() - begin
    if len(names) != devices or len(set(names)) != devices:
        raise RuntimeError(f"{len(names)} answers of {len(set(names))} devices, not of {devices}")
    return seconds


def fan_out_of_runelctl(gateway, devices):
    """The same with runelctl. Each device must be named once."""
    begin = time.monotonic()
    done = gateway.runelctl("--json", "-d", "@all", "-j", "1000", "fileexists", "/")
    seconds = time.monotonic() - begin
    names = [found["device"] for found in map(json.loads, done.splitlines()) if "device" in found]
    if len(names) != devices or len(set(names)) != devices:
        raise RuntimeError(f"{len(names)} lines of {len(set(names))} devices, not of {devices}")
    return seconds


def storm(bench):
    devices = bench.amount(10000, 200)
    floor_seconds, floor_bytes = floor_of_storm(bench, devices)
    rows = []
    with bench.gateway() as gateway:
        gateway.get("/v1/info")
        before = gateway.resident()
        begin = time.monotonic()
        with bench.simulated(devices) as fleet:
            gateway.wait_online(devices)
            seconds = time.monotonic() - begin
            gateway.wait_inventory(devices)
            growth = (gateway.resident() - before) / devices
            idle = gateway.processor_share(bench.amount(30, 1))
            operation = fan_out(gateway, devices)
            fleet.check()
    name = f"{devices} devices"
    rows.append(Row(f"{name} connect at once", "seconds until all are identified", seconds, floor_seconds,
                    "<= 15", bench.judged(seconds <= 15)))
    rows.append(Row(name, "resident memory for each, bytes", growth, floor_bytes, "<= 8192",
                    bench.judged(growth <= 8192)))
    rows.append(Row(f"{name}, idle", "processor, %", idle * 100, None, "< 3", bench.judged(idle < 0.03)))
    rows.append(Row(f"@all fileexists, {name}, an operation", "seconds", operation, None, "<= 5",
                    bench.judged(operation <= 5)))
    return rows


def called(bench):
    devices = bench.amount(10000, 200)
    with bench.gateway() as gateway, bench.simulated(devices) as fleet:
        gateway.wait_inventory(devices)
        seconds = min(fan_out_of_runelctl(gateway, devices) for _ in range(bench.amount(3, 1)))
        fleet.check()
    return [Row(f"@all fileexists, {devices} devices, runelctl", "seconds", seconds, None, "<= 5",
                bench.judged(seconds <= 5))]


def slow_devices(bench):
    """The same load on the others, without and with slow devices that are always busy."""
    devices, slow = bench.amount((1000, 200), (50, 10))
    load = {"devices": devices, "requests": bench.amount(20000, 200), "rate": bench.amount(2000, 400)}
    times = {0: [], slow: []}
    for _ in range(bench.amount(3, 1)):
        for count in times:
            with bench.gateway() as gateway, bench.simulated(devices, slow=count, delay=1000):
                gateway.wait_online(devices)
                gateway.wait_inventory(devices)
                figures = bench.load("attach", gateway, slow=count, **load)
                times[count].append(figures["p99_us"])
    alone, beside = min(times[0]), min(times[slow])
    return [Row(f"{load['rate']} a second, {slow} slow devices beside", "p99 of the others, us", beside,
                alone, "<= 2 x without them", bench.judged(beside <= 2 * alone))]


def push_one(bench):
    size = bench.amount(64, 2) << 20
    content = bench.directory / "content"
    content.write_bytes(os.urandom(1 << 20) * (size >> 20))
    times = {"direct": [], "gateway": []}
    with bench.gateway() as gateway, Real(bench.bin, bench.directory, 1) as fleet:
        gateway.wait_online(1)
        for _ in range(bench.amount(5, 1)):
            for way in times:
                begin = time.monotonic()
                if way == "direct":
                    fleet.runelctl("-d", fleet.addresses()[0], "push", content, "/store/file")
                else:
                    gateway.runelctl("-d", fleet.names[0], "push", content, "/store/file")
                times[way].append(time.monotonic() - begin)
                if fleet.stored(0).read_bytes() != content.read_bytes():
                    raise RuntimeError("the pushed file differs")
                fleet.stored(0).unlink()
    content.unlink()
    value, floor = (size / 1e6 / min(times[way]) for way in ("gateway", "direct"))
    return [Row(f"push of {size >> 20} MiB to one device", "MB/s", value, floor, ">= 0.8 x floor",
                bench.judged(value >= 0.8 * floor))]


def push_many(bench):
    devices, size = bench.amount((100, 64), (4, 2))
    content = bench.directory / "content"
    content.write_bytes(os.urandom(1 << 20) * size)
    with bench.gateway() as gateway, Real(bench.bin, bench.directory, devices) as fleet:
        gateway.wait_online(devices)
        gateway.wait_inventory(devices)
        before = gateway.resident()
        gateway.forget_peak()
        begin = time.monotonic()
        gateway.runelctl("-q", "-j", str(devices), "-d", "@all", "push", content, "/store/file")
        seconds = time.monotonic() - begin
        growth = (gateway.peak() - before) / 1e6
        for number_ in range(devices):
            if fleet.stored(number_).stat().st_size != content.stat().st_size:
                raise RuntimeError(f"the file of {fleet.names[number_]} is not complete")
    content.unlink()
    work = f"push of {size} MiB to {devices} devices"
    return [Row(work, "growth of the gateway, MB", growth, None, "<= 256", growth <= 256),
            Row(work, "MB/s of all", devices * size * 1.048576 / seconds)]


def real(bench):
    devices = bench.amount(200, 4)
    with bench.gateway() as gateway, Real(bench.bin, bench.directory, devices) as fleet:
        gateway.wait_online(devices)
        seconds = time.monotonic() - fleet.begin
        operation = fan_out(gateway, devices)
        fleet.check()
    return [Row(f"{devices} real daemons", "seconds until all are identified", seconds),
            Row(f"@all fileexists, {devices} real daemons, an operation", "seconds", operation)]


WORKLOADS = {"LATENCY": latency, "RATE": rate, "STORM": storm, "REAL": real,
             "SLOW": slow_devices, "CALLED": called, "PUSH": push_one, "PUSHMANY": push_many}


def main():
    chosen = report.arguments(__doc__, WORKLOADS)
    if os.environ.get("RUNELD_WORLD") != "1":
        sys.exit("bench/gateway.py: runs only in isolated namespaces: use scripts/bench --gateway")
    rows, loads = [], []
    with tempfile.TemporaryDirectory() as directory:
        bench = Bench(chosen.bin.resolve(), Path(directory), chosen.short)
        for name in chosen.only:
            begin = time.monotonic()
            about = report.machine()
            loads.append(f"{report.machine_text(about)}, {about['date']}")
            print(f"{name}: {loads[-1]}", file=sys.stderr, flush=True)
            rows += WORKLOADS[name](bench)
            print(f"{name}: {time.monotonic() - begin:.1f} s", file=sys.stderr, flush=True)
    print(loads[0])
    report.print_table([HEAD] + [row.cells() for row in rows])
    if chosen.json:
        content = {"machine": loads, "rows": [dataclasses.asdict(row) for row in rows]}
        chosen.json.write_text(json.dumps(content, indent=1) + "\n")
    return 1 if any(row.holds is False for row in rows) else 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except (OSError, RuntimeError, subprocess.SubprocessError) as error:
        print(f"bench: {error}", file=sys.stderr)
        sys.exit(2)
