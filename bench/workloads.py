# SPDX-License-Identifier: Apache-2.0
"""The fourteen workloads, and the memory use of large transfers. Each returns rows of the table."""
import statistics
import subprocess
import time

import forgotten
import scale
import servers
from measuring import Bench, Row, exponent, row

MIB = 1 << 20
HEADROOM = 8192  # bytes of a frame's largest payload that the record around a file needs
MASTER = {"master": servers.MASTER_PORT}
CLIENT = {"port": servers.LISTEN_PORT}
CPU, PEAK = "processor time", "peak memory / payload"


def record(*arguments, exec_param=0):
    fields = b"".join(b" %d:%s" % (len(argument), argument) for argument in arguments)
    text = b"SlaveTask %d%s %d 0: 0 0 0 0 0" % (len(arguments), fields, exec_param)
    return b"\x01%d\x02%s" % (len(text), text)


def text_of(size):
    """Bytes like those of a file: without the marker bytes of a frame, and with a long period."""
    line = bytes(range(32, 127)) * 43 + b"\n"
    return (line * (size // len(line) + 1))[:size]


def small_requests(bench, load, count, repetitions=None):
    """Runs "fileexists" requests. @p load selects the connections."""
    request = bench.file("exists.request", record(b"fileexists", b"/etc/hosts"))

    def drive(server):
        return bench.load("rounds", server, request=request, count=count, **MASTER, **load)

    def drive_redis(server):
        return bench.load("rounds", server, request=redis_request, count=count, reply=4,
                          **{**load, "port": server.port})

    loads = {"runeld": (bench.daemon, drive), "floor": (lambda: bench.floor("tasks"), drive)}
    for redis in bench.peer(servers.Redis):
        redis_request = bench.file("redis.request", b"*2\r\n$6\r\nEXISTS\r\n$5\r\nhosts\r\n")
        loads["redis"] = (lambda redis=redis: redis, drive_redis)
    return bench.in_turn(loads, repetitions)


def one_at_a_time(bench: Bench):
    results = small_requests(bench, {}, bench.amount(20000, 200))
    work = '"fileexists", one at a time'
    return [row("1", work, "p50, us", "p50_us", results, 1.10),
            row("1", work, CPU + ", us", "cpu_us", results, 1.25)]


def pipelined(bench: Bench):
    results = small_requests(bench, {"depth": 64}, bench.amount(100000, 1000))
    work = "the same, 64 on the way"
    return [row("2", work, "rate, 1/s", "rate", results, 0.75),
            row("2", work, CPU + ", us", "cpu_us", results, 1.45)]


def fifty_connections(bench: Bench):
    results = small_requests(bench, {**CLIENT, "connections": 50}, bench.amount(50000, 500))
    return [row("3", "50 connections, one request each", "p50, us", "p50_us", results, 1.15)]


def beside_idle_ones(bench: Bench):
    results = small_requests(bench, {**CLIENT, "idle": bench.amount(900, 100)},
                             bench.amount(3000, 50))
    return [row("4", "one busy beside 900 idle", "p50, us", "p50_us", results, 1.25)]


def size_name(size):
    whole, rest = divmod(size, MIB)
    return f"{whole} MiB" if rest == 0 else f"{whole + 1} MiB less {(MIB - rest) // 1024} KiB"


def transfer(bench, content, peers=(), repetitions=None):
    """One large task on the master's connection. @p peers maps names to (server, drive)."""
    request = bench.file("transfer.request", content)
    loads = {}
    for name, make in (("runeld", bench.daemon), ("floor", lambda: bench.floor("tasks"))):
        loads[name] = (make, lambda server: bench.load("transfer", server, request=request,
                                                       **MASTER))
    for server, drive in peers:
        loads[server.name] = (lambda server=server: server,
                              lambda server, drive=drive: {"seconds": timed(drive, server)})
    return bench.in_turn(loads, repetitions)


def timed(action, *arguments):
    begin = time.monotonic()
    action(*arguments)
    return time.monotonic() - begin


def without_peers(results):
    return {name: results[name] for name in ("runeld", "floor")}


def peak_of(results, size):
    return {name: [{"peak": one["peak"] / size} for one in result]
            for name, result in results.items()}


def transfer_rows(number, work, size, results, limit):
    own = without_peers(results)
    peak = row(number, work, PEAK, "peak", peak_of(own, size), 2.2)
    peak.judge = "value"
    return [row(number, work, CPU + ", s", "cpu_s", own, limit), peak,
            row(number, work, "time, s", "seconds", results)]


def write_request(bench, size):
    target = str(bench.directory / "written").encode()
    return record(b"write", target, text_of(size))


def file_peers(bench, copy):
    peers = bench.peer(servers.Rsync, bench.directory) + bench.peer(servers.Dropbear, bench.directory)
    return [(server, copy) for server in peers]


def write_64(bench: Bench):
    size = bench.amount(64, 1) * MIB
    source = bench.file("source", text_of(size))
    results = transfer(bench, write_request(bench, size),
                       file_peers(bench, lambda server: server.copy_in(source)))
    return transfer_rows("5", f'"write" of {size_name(size)}', size, results, 1.75)


def read_64(bench: Bench):
    size = bench.amount(64, 1) * MIB
    source = bench.file("source", text_of(size))
    target = bench.directory / "target"
    results = transfer(bench, record(b"read", str(source).encode()),
                       file_peers(bench, lambda server: server.copy_out(source, target)))
    return transfer_rows("6", f'"read" of {size_name(size)}', size, results, 1.8)


def write_256(bench: Bench):
    size = bench.amount(256, 2) * MIB - HEADROOM
    results = transfer(bench, write_request(bench, size))
    return transfer_rows("7", f'"write" of {size_name(size)}', size, results, 1.75)


def programs(bench: Bench):
    request = bench.file("exec.request", record(b"exec", b"/bin/true"))
    count = bench.amount(300, 10)

    def drive(server):
        return bench.load("rounds", server, request=request, count=count, **MASTER)

    def drive_ssh(server):
        times = [timed(server.execute, "/bin/true") for _ in range(bench.amount(30, 3))]
        return {"p50_us": statistics.median(times) * 1e6}

    loads = {"runeld": (bench.daemon, drive), "floor": (lambda: bench.floor("tasks"), drive)}
    for dropbear in bench.peer(servers.Dropbear, bench.directory):
        loads["dropbear"] = (lambda: dropbear, drive_ssh)
    rows = [row("8", '"exec" of /bin/true', "p50, us", "p50_us", bench.in_turn(loads), 1.10)]
    size = bench.amount(16, 1) * MIB
    source = bench.file("source", text_of(size))
    results = transfer(bench, record(b"exec", b"/bin/cat", str(source).encode()))
    rows.append(row("8", f'"exec" with {size_name(size)} of output', CPU + ", s", "cpu_s", results,
                    3.3))
    return rows


def growth(number, work, sizes, by_size, key, limit):
    """The row of the growth exponent. @p by_size: the result of in_turn() for each size."""
    def of(name):
        return [exponent(sizes, [min(result[key] for result in results[name])
                                 for results in by_size])]
    made = Row(number, f"{work} of {size_name(sizes[0])} to {size_name(sizes[-1])}",
               "growth exponent", of("runeld"), of("floor"), limit=limit, judge="value")
    made.curve = {name: [(size, min(result[key] for result in results[name]))
                         for size, results in zip(sizes, by_size)]
                  for name in ("runeld", "floor")}
    return made


def large_frames(bench: Bench):
    sizes = [size * MIB for size in bench.amount((1, 4, 16, 64), (1, 2))]
    # A task ignores surplus arguments, so this measures only the framing and the record.
    by_size = [transfer(bench, record(b"fileexists", b"/etc/hosts", text_of(size)))
               for size in sizes]
    return [growth("9", "a frame", sizes, by_size, "cpu_s", 1.15),
            row("9", f"a frame of {size_name(sizes[-1])}", CPU + ", s", "cpu_s", by_size[-1])]


def relay(bench, clauses, pieces, reply, **more):
    path = bench.file("clauses", clauses)
    loads = {}
    for name, make in (("runeld", bench.daemon), ("floor", lambda: bench.floor("relay"))):
        loads[name] = (make, lambda server: bench.load("relay", server, clauses=path, reply=reply,
                                                       pieces=pieces, **CLIENT, **MASTER, **more))
    return loads


def one_clause(bench: Bench):
    sizes = [size * MIB for size in bench.amount((1, 4, 16), (1, 2))]
    by_size = []
    for size in sizes:
        clause = b"<update>" + text_of(size).translate(None, b"<>") + b"</update>"
        by_size.append(bench.in_turn(relay(bench, clause, 1, len(clause) + 2)))
    return [growth("10", "one clause", sizes, by_size, "cpu_s", 1.15),
            row("10", f"one clause of {size_name(sizes[-1])}", CPU + ", s", "cpu_s", by_size[-1],
                2.0)]


def small_clauses(count):
    """Clauses of 200 bytes."""
    body = b"x" * (200 - len("<report></report>"))
    return b"<report>%s</report>" % body * count


def mqtt_string(text):
    return len(text).to_bytes(2, "big") + text


def mqtt_packet(kind, body):
    length = bytes([len(body)]) if len(body) < 128 else bytes([len(body) % 128 | 128,
                                                               len(body) // 128])
    return bytes([kind]) + length + body


def broker(bench, mosquitto, pieces, repeat):
    """Messages of 200 bytes, delivered at most once, to one subscriber."""
    def connect(name):
        return mqtt_packet(0x10, mqtt_string(b"MQTT") + b"\x04\x02\x00\x3c" + mqtt_string(name))

    topic = mqtt_string(b"report")
    message = mqtt_packet(0x30, topic + b"x" * (200 - 3 - len(topic)))
    files = {"clauses": bench.file("messages", message * pieces),
             "sender": bench.file("sender", connect(b"sender")),
             "receiver": bench.file("receiver", connect(b"receiver") +
                                    mqtt_packet(0x82, b"\x00\x01" + topic + b"\x00"))}
    return (lambda: mosquitto,
            lambda server: bench.load("broker", server, **files, reply=len(message) * pieces,
                                      pieces=pieces, repeat=repeat, sender_welcome=4,
                                      receiver_welcome=9, port=server.port))


def clause_stream(bench: Bench):
    pieces, repeat = 1000, bench.amount(80, 1)
    loads = relay(bench, small_clauses(pieces), pieces, 202 * pieces, repeat=repeat)
    for mosquitto in bench.peer(servers.Mosquitto, bench.directory):
        loads["mosquitto"] = broker(bench, mosquitto, pieces, repeat)
    rows = [row("11", "clauses of 200 bytes", "rate, 1/s", "rate", bench.in_turn(loads), 0.9)]
    sizes, by_size = [size * MIB for size in bench.amount((1, 4, 16), (1, 2))], []
    for size in sizes:
        count = size // 200
        by_size.append(bench.in_turn(relay(bench, small_clauses(count), count, 202 * count,
                                           backlog=1)))
    rows.append(growth("11", "a backlog", sizes, by_size, "cpu_s", 1.15))
    rows.append(row("11", f"a backlog of {size_name(sizes[-1])}", CPU + ", s", "cpu_s",
                    by_size[-1], 1.5))
    return rows


def directories(bench: Bench):
    directory = bench.directory / "directory"
    directory.mkdir(exist_ok=True)
    entries = bench.amount(10000, 100)
    for number in range(entries):
        (directory / f"entry-{number * 7919 % entries:05}").touch()
    rows = []
    for task in ("readdir", "walktree"):
        request = bench.file("directory.request", record(task.encode(), str(directory).encode()))

        def drive(server, request=request):
            return bench.load("rounds", server, request=request, count=bench.amount(50, 3),
                              **MASTER)

        results = bench.in_turn({"runeld": (bench.daemon, drive),
                                 "floor": (lambda: bench.floor("tasks"), drive)})
        work = f'"{task}" of {entries} entries'
        rows += [row("12", work, "p50, us", "p50_us", results, 1.2),
                 row("12", work, CPU + ", us", "cpu_us", results)]
    return rows


def value(number, work, figure, results, key, limit, scale=float):
    made = row(number, work, figure, key, results, limit, scale)
    made.judge = "value"
    return made


def life(bench: Bench):
    starts = []
    for _ in range(bench.amount(20, 1)):
        daemon = bench.daemon()
        starts.append(bench.load("start", daemon, command=daemon.program, **CLIENT))
        daemon.find()
        daemon.__exit__()
    idle = bench.in_turn({"runeld": (bench.daemon, lambda server: bench.load(
        "idle", server, milliseconds=bench.amount(3000, 300), **MASTER))})
    return [value("13", "start to listening", "time, ms", {"runeld": starts}, "start_ms", 20),
            value("13", "idle", "wake-ups, 1/s", idle, "wakeups", 12),
            value("13", "idle", "processor, %", idle, "cpu_percent", 0.3),
            value("13", "idle", "resident, MiB", idle, "resident", 8, lambda size: size / MIB)]


def forgotten_programs(bench: Bench):
    start = record(b"exec", b"/bin/sleep", b"1000", exec_param=-1)
    return forgotten.beside_forgotten_programs(bench, start, record(b"fileexists", b"/etc/hosts"),
                                               bench.amount(300, 10))


def memory(bench: Bench):
    """The peak memory of large transfers, and the memory that is not released afterwards."""
    rows = []
    for size in (full * MIB - HEADROOM for full in bench.amount((16, 64, 256), (16,))):
        source = bench.file("source", text_of(size))
        for task, request in (("write", write_request(bench, size)),
                              ("read", record(b"read", str(source).encode()))):
            results = without_peers(transfer(bench, request, repetitions=bench.amount(2, 1)))
            for one in results["runeld"] + results["floor"]:
                one["peak_mib"] = one["peak"] / MIB
                one["kept_mib"] = (one["after"] - one["before"]) / MIB
            work = f'"{task}" of {size_name(size)}'
            rows.append(value("M", work, "peak, MiB", results, "peak_mib", 2.2 * size / MIB + 8))
            rows.append(value("M", work, "kept afterwards, MiB", results, "kept_mib", 8))
    for one in rows:
        one.is_memory = True
    return rows


def many_devices(bench: Bench):
    return [*scale.beside_more_and_more(bench, small_requests, CLIENT),
            scale.many_connections(bench), scale.without_master(bench)]


WORKLOADS = {"W1": one_at_a_time, "W2": pipelined, "W3": fifty_connections,
             "W4": beside_idle_ones, "W5": write_64, "W6": read_64, "W7": write_256,
             "W8": programs, "W9": large_frames, "W10": one_clause, "W11": clause_stream,
             "W12": directories, "W13": life, "W14": forgotten_programs,
             "MEMORY": memory, "SCALE": many_devices}
