# SPDX-License-Identifier: Apache-2.0
"""runelctl probe: the line, the performance data, the exit status and the metrics of each state."""
import os
import re
import socket
import stat
import subprocess
import time

from support.ctl import CtlCase, answer_each, hang, reply, requests, say, small_disk
from support.fakes import FakeDevice
from support.master import MasterCase
from support.wait import TIMEOUT

OK, WARNING, CRITICAL, UNKNOWN = range(4)
RTT = r"round trip [0-9.]+ m?s"
UPTIME = b"350735.47 234388.90\n"
PROCESS = b"123 (runeld) S 1 123 123 0 -1 4194560 210 0 0 0 3 1 0 0 20 0 1 0 34343547 3006464 512 0 0\n"
STAT = (b"dev=2049 ino=17 mode=0%06o nlink=1 uid=0 gid=0 rdev=0 size=%d blksize=%d blocks=8 "
        b"atime=0.000000000 mtime=0.000000000 ctime=0.000000000\n")
VERSION_FILE = "/usr/share/runeld/version"
RULES = os.path.join(os.path.dirname(__file__), "../../packaging/monitoring/runel.rules.yml")
DOCUMENT = os.path.join(os.path.dirname(__file__), "../../docs/monitoring.md")
ENOENT = reply(fields=(1, 0, 1, 2, 0))
UNKNOWN_TASK = reply(b"(1) unknown cmd", fields=(4, 0, 1, 71, 0))
# One value as the plugin guidelines describe it.
NUMBER = r"-?[0-9]+(?:\.[0-9]+)?"
RANGE = rf"(?:{NUMBER}|{NUMBER}:)?"
PERFDATA = re.compile(rf"'((?:[^'=|]|'')+)'=({NUMBER})(s|B)?;({RANGE});({RANGE});({NUMBER})?;({NUMBER})?(?: |$)")


def stat_of(mode, size=4096, block_size=4096):
    return reply(STAT % (mode, size, block_size))


def file_stat(size):
    return stat_of(stat.S_IFREG | 0o644, size)


DIRECTORY = stat_of(stat.S_IFDIR | 0o755)


class Scripted:
    """A device with given answers, by task and first argument."""

    def __init__(self, case, answers=None, address="127.0.0.1", port=0):
        self.answers = {
            ("fileexists", "/"): reply(),
            ("read", "/proc/uptime"): reply(UPTIME),
            ("read", "/proc/self/stat"): reply(PROCESS),
            ("stat", "/"): DIRECTORY,
            ("freeblocks", "/"): reply(b"256"),
            ("stat", VERSION_FILE): file_stat(6),
            ("read", VERSION_FILE): reply(b"1.0.0\n"),
            **(answers or {})}
        self.asked = []
        self.where = case.odd_peer(self._serve, address, port)

    def _serve(self, connected):
        for words in requests(connected):
            self.asked.append(words)
            answer = self.answers.get(tuple(words[:2]), ENOENT)
            if answer is None:
                return connected.close()
            connected.sendall(answer)
        return None


class ProbeCase(CtlCase):
    def probe(self, *words, where=None, **options):
        return self.ctl(*(("-d", where) if where else ()), "probe", *words, **options)

    def check(self, result, status, line):
        """The only output is one line, which matches @p line before its performance data. Returns the
        performance data by label."""
        self.assertEqual((result.status, result.err), (status, b""), result.out)
        text, newline, rest = result.text.partition("\n")
        self.assertEqual((newline, rest), ("\n", ""))
        shown, bar, perfdata = text.partition(" | ")
        self.assertRegex(shown, rf"\A{line}\Z")
        self.assertEqual(bar, " | ")
        return self.values(perfdata)

    def values(self, perfdata):
        found = list(PERFDATA.finditer(perfdata))
        self.assertEqual("".join(one[0] for one in found), perfdata)
        return {one[1]: "".join((one[2], one[3] or "", ";" + one[4], ";" + one[5]))
                for one in found}

    def check_unstarted(self, result, what):
        """Nothing was probed: one line without performance data."""
        self.assertEqual((result.status, result.err, result.text),
                         (UNKNOWN, b"", f"RUNEL UNKNOWN - {what}\n"))

    def resolver(self, text):
        """Replaces /etc/resolv.conf of this world."""
        with open("/etc/resolv.conf", "rb") as file:
            before = file.read()
        with open("/etc/resolv.conf", "w", encoding="ascii") as file:
            file.write(text)

        def restore():
            with open("/etc/resolv.conf", "wb") as file:
                file.write(before)

        self.addCleanup(restore)


class States(ProbeCase):
    def test_a_real_daemon(self):
        self.daemon()
        version = self.file("version", b"1.2.3~rc1\n")
        result = self.probe("--version-file", version, "--path", "/", "--path", self.directory)
        values = self.check(result, OK, rf"RUNEL OK - 127\.0\.0\.1 up, {RTT}, uptime [0-9]+ (s|min|h|days), "
                            rf"free on / [0-9.]+ .?i?B, free on {self.directory} [0-9.]+ .?i?B, "
                            r"version 1\.2\.3~rc1, daemon started [0-9]+ s ago")
        self.assertEqual(list(values), ["up", "rtt", "uptime", "free_/", f"free_{self.directory}",
                                        "restart_age"])
        self.assertEqual(values["up"], "1;;")
        self.assertRegex(values["rtt"], r"\A0\.[0-9]{6}s;1;5\Z")
        with open("/proc/uptime", encoding="ascii") as file:
            now = float(file.read().split()[0])
        self.assertLess(abs(now - float(values["uptime"].split("s")[0])), 60)
        free = os.statvfs(self.directory)
        told = int(values[f"free_{self.directory}"].split("B")[0])
        self.assertLess(abs(free.f_bavail * free.f_bsize - told), 1 << 30)

    def test_the_age_is_that_of_the_daemon(self):
        """It begins at 0 with each start of the daemon."""
        ages = []
        for _ in range(2):
            daemon = self.daemon()
            with open(f"/proc/{daemon.pid}/stat", encoding="ascii") as file:
                start = int(file.read().rsplit(") ", 1)[1].split()[19]) / 100
            told = self.probe().text
            uptime, age = (float(re.search(rf"'{label}'=([0-9.]+)s", told)[1])
                           for label in ("uptime", "restart_age"))
            self.assertAlmostEqual(uptime - age, start, delta=0.03)
            ages.append(age)
            daemon.kill()
        self.assertLess(max(ages), 60)

    def test_all_facts(self):
        device = Scripted(self)
        values = self.check(
            self.probe(where=device.where), OK,
            rf"RUNEL OK - {device.where} up, {RTT}, uptime 4 days, free on / 1\.0 MiB, version 1\.0\.0, "
            r"daemon started 2 h ago")
        self.assertEqual({**values, "rtt": ""},
                         {"up": "1;;", "rtt": "", "uptime": "350735.47s;;", "free_/": "1048576B;;",
                          "restart_age": "7300.00s;;"})
        # Only tasks that change nothing and run nothing.
        self.assertEqual({words[0] for words in device.asked},
                         {"fileexists", "read", "stat", "freeblocks"})

    def test_the_example_of_the_document(self):
        """But for the round trip, the command of docs/monitoring.md prints the line that is shown there."""
        with open(DOCUMENT, encoding="utf-8") as file:
            text = file.read()
        command, line = re.search(r"(?m)^    runelctl -d (\S+ probe --path .*)\n(?:.*\n)*?    (RUNEL OK .*)$",
                                  text).groups()
        name, *words = command.split()
        device = Scripted(self, {("stat", "/data"): DIRECTORY, ("freeblocks", "/data"): reply(b"15616")})
        result = self.ctl("--devices", self.file("devices", f"{name} {device.where}\n".encode()), *words)

        def without_rtt(shown):
            return re.sub(r"'rtt'=[0-9.]+", "'rtt'=", re.sub(RTT, "round trip", shown))

        self.assertEqual(without_rtt(result.text), without_rtt(line + "\n"))

    def test_warning_and_critical(self):
        device = Scripted(self)
        where = device.where
        before = rf"{where} up, {RTT}"
        after = r"uptime 4 days, free on / 1\.0 MiB"
        end = r"version 1\.0\.0, daemon started 2 h ago"
        rtt = ("--critical-rtt", "9", "--warning-rtt")
        values = self.check(self.probe(*rtt, "0", where=where), WARNING,
                            rf"RUNEL WARNING - {before} \(WARNING: above 0 s\), {after}, {end}")
        self.assertRegex(values["rtt"], r"s;0;9\Z")
        self.check(self.probe("--warning-rtt", "0", "--critical-rtt", "0", where=where), CRITICAL,
                   rf"RUNEL CRITICAL - {before} \(CRITICAL: above 0 s\), {after}, {end}")
        values = self.check(self.probe("--warning-free", "2M", "--critical-free", "1M", where=where),
                            WARNING,
                            rf"RUNEL WARNING - {before}, {after} \(WARNING: below 2\.0 MiB\), {end}")
        self.assertEqual(values["free_/"], "1048576B;2097152:;1048576:")
        self.check(self.probe("--critical-free", "1048577", where=where), CRITICAL,
                   rf"RUNEL CRITICAL - {before}, {after} \(CRITICAL: below 1\.0 MiB\), {end}")
        values = self.check(
            self.probe("--warning-restart", "7301", "--critical-restart", "300", where=where), WARNING,
            rf"RUNEL WARNING - {before}, {after}, {end} \(WARNING: below 7301 s\)")
        self.assertEqual(values["restart_age"], "7300.00s;7301:;300:")
        self.check(self.probe("--critical-restart", "7300.5", where=where), CRITICAL,
                   rf"RUNEL CRITICAL - {before}, {after}, {end} \(CRITICAL: below 7300\.5 s\)")
        self.check(self.probe("--warning-restart", "7300", "--critical-free", "1M", where=where), OK,
                   rf"RUNEL OK - {before}, {after}, {end}")

    def test_a_daemon_that_tells_nothing(self):
        device = Scripted(self)
        device.answers = {("fileexists", "/"): reply()}
        self.check(self.probe(where=device.where), OK, rf"RUNEL OK - {device.where} up, {RTT}")
        self.check(self.probe("--warning-free", "1", where=device.where), UNKNOWN,
                   rf"RUNEL UNKNOWN - {device.where} up, {RTT}, "
                   "free on / unknown: No such file or directory")
        self.check(self.probe("--critical-restart", "1", where=device.where), UNKNOWN,
                   rf"RUNEL UNKNOWN - {device.where} up, {RTT}, last restart unknown")
        device.answers = dict.fromkeys([("fileexists", "/"), ("read", "/proc/uptime"),
                                        ("read", "/proc/self/stat")], UNKNOWN_TASK)
        self.check(self.probe(where=device.where), OK, rf"RUNEL OK - {device.where} up, {RTT}")

    def test_several_devices(self):
        first, second, third = (Scripted(self, address=f"127.0.0.{number}", port=5111)
                                for number in (1, 2, 3))
        second.answers["read", "/proc/self/stat"] = ENOENT
        third.answers["freeblocks", "/"] = reply(b"1")
        names = "127.0.0.1,127.0.0.2,127.0.0.3,127.0.0.1:9"
        words = ("--warning-free", "5000", "--critical-restart", "60")
        result = self.probe(*words, where=names)
        self.assertEqual((result.status, result.err), (CRITICAL, b""))
        lines = result.text.splitlines()
        self.assertEqual(lines[0], "RUNEL CRITICAL - 4 devices: 1 CRITICAL (127.0.0.1:9), "
                         "1 UNKNOWN (127.0.0.2), 1 WARNING (127.0.0.3), 1 OK | 'up'=3;;;0;4")
        self.assertEqual(len(lines), 5)
        self.assertRegex(lines[1], rf"\A127\.0\.0\.1: OK - up, {RTT}, uptime 4 days, free on / 1\.0 MiB, "
                         r"version 1\.0\.0, daemon started 2 h ago\Z")
        self.assertRegex(lines[2], r"\A127\.0\.0\.2: UNKNOWN - up, .*, last restart unknown\Z")
        self.assertRegex(lines[3], r"\A127\.0\.0\.3: WARNING - .*\(WARNING: below 4\.9 KiB\)")
        self.assertEqual(lines[4], "127.0.0.1:9: CRITICAL - down: Connection refused "
                         "(check that runeld is running on the device)")
        quiet = self.ctl("-q", "-d", names, "probe", *words)
        self.assertEqual([line.split(":")[0] for line in quiet.text.splitlines()],
                         ["RUNEL CRITICAL - 4 devices", "127.0.0.2", "127.0.0.3", "127.0.0.1"])

    def test_behind_a_master_that_is_missing(self):
        socket_path = self.path("none")
        self.check(self.ctl("--master-socket", socket_path, "-d", "@gw-1", "probe"), UNKNOWN,
                   rf"RUNEL UNKNOWN - @gw-1 not reached: no master at {socket_path}: "
                   r"No such file or directory \(start one: runelctl master\)")
        self.check_unstarted(self.ctl("--master-socket", socket_path, "-d", "@all", "probe"),
                             f"no master at {socket_path}: No such file or directory")


class BehindAMaster(MasterCase):
    def test_its_devices_can_be_probed(self):
        self.start_master("--allow-hostid", "fake")
        device = FakeDevice(self)
        self.wait_told("connected")
        result = self.ctl("-d", "@fake", "probe")
        self.assertEqual((result.status, result.err), (OK, b""))
        self.assertRegex(result.text, rf"\ARUNEL OK - @fake up, {RTT} \| 'up'=1;;;0;1 'rtt'=\S+;1;5;0;\n\Z")
        device.close()
        self.wait_told("lost")
        result = self.ctl("-d", "@fake", "probe")
        self.assertEqual((result.status, result.err), (CRITICAL, b""))
        self.assertRegex(result.text, r"\ARUNEL CRITICAL - @fake down: [^|]* \| 'up'=0;;;0;1\n\Z")


class Down(ProbeCase):
    def check_down(self, result, name, why):
        values = self.check(result, CRITICAL, f"RUNEL CRITICAL - {re.escape(name)} down: {why}")
        self.assertEqual(values, {"up": "0;;"})

    def limited(self, where, *words):
        """A probe with a deadline of one second. It must end long before any other timeout."""
        began = time.monotonic()
        result = self.ctl("--deadline", "1", *words, "-d", where, "probe")
        self.assertLess(time.monotonic() - began, 9)
        return result

    def test_nothing_listens(self):
        self.check_down(self.probe(where="127.0.0.1:9"), "127.0.0.1:9",
                        r"Connection refused \(check that runeld is running on the device\)")

    def test_a_device_that_does_not_answer(self):
        where = self.odd_peer(hang)
        self.check_down(self.limited(where), where,
                        r"no answer within 1 s \(the daemon may be busy\)")

    def test_a_device_that_stops_answering(self):
        where = self.odd_peer(answer_each(reply(), reply(), b""))
        self.check_down(self.limited(where), where,
                        r"no answer within 1 s \(the daemon may be busy\)")

    def test_a_device_that_takes_no_connection(self):
        listener = socket.socket()
        self.addCleanup(listener.close)
        listener.bind(("127.0.0.1", 5112))
        listener.listen(0)
        self.fill_queue()
        self.check_down(self.limited("127.0.0.1:5112"), "127.0.0.1:5112", "no connection within 1 s")
        result = self.ctl("--connect-timeout", "0.2", "-d", "127.0.0.1:5112", "probe")
        self.check_down(result, "127.0.0.1:5112", r"connect timeout \(.*\)")

    def test_an_io_timeout(self):
        where = self.odd_peer(hang)
        self.check_down(self.ctl("--io-timeout", "0.2", "-d", where, "probe"), where,
                        r"no (answer|data).* \(.*\)")

    def test_a_connection_that_is_lost(self):
        for lost in (("fileexists", "/"), ("read", "/proc/uptime"), ("read", VERSION_FILE)):
            device = Scripted(self, {lost: None})
            self.check_down(self.probe(where=device.where), device.where,
                            r"(Connection reset by peer|.*closed.*)")

    def test_another_server(self):
        where = self.odd_peer(say(b"HTTP/1.0 400 Bad | Request\r\n\r\n"))
        self.check_down(self.probe(where=where), where, r"[^|]* \(check the port: .*\)")

    def test_a_name_service_that_is_silent(self):
        silent = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.addCleanup(silent.close)
        silent.bind(("127.0.0.1", 53))
        self.resolver("nameserver 127.0.0.1\noptions timeout:30\n")
        self.check_down(self.limited("gateway.example"), "gateway.example", "no connection within 1 s")
        device = Scripted(self, address="127.0.0.1", port=5111)
        result = self.limited("gateway.example,127.0.0.1,other.example")
        self.assertEqual(result.status, CRITICAL, result)
        self.assertIn("2 CRITICAL (gateway.example,other.example), 1 OK |", result.text)
        self.assertTrue(device.asked)

    def test_a_name_that_is_unknown(self):
        self.resolver("nameserver 127.0.0.1\noptions timeout:1 attempts:1\n")
        self.check(self.probe(where="gateway.example"), UNKNOWN,
                   r"RUNEL UNKNOWN - gateway\.example not reached: .* \(check the host name\)")

    def test_a_name_is_looked_up(self):
        with open("/etc/hosts", "a", encoding="ascii") as hosts:
            hosts.write("127.0.0.7 gw-7.example\n")
        Scripted(self, address="127.0.0.7", port=5111)
        self.check(self.probe(where="gw-7.example"), OK, r"RUNEL OK - gw-7\.example up, .*")

    def test_the_deadline_of_the_inventory(self):
        where = self.odd_peer(hang)
        inventory = self.file("devices.toml", f'[devices.slow]\naddress = "{where}"\ndeadline = 0.5\n'
                              .encode())
        result = self.ctl("--inventory", inventory, "-d", "slow", "probe")
        self.check_down(result, "slow", r"no answer within 0\.5 s \(the daemon may be busy\)")


class HostileDevice(ProbeCase):
    """What the device tells never breaks the line or the metrics."""

    def check_left_out(self, answers, missing):
        device = Scripted(self, answers)
        path = self.path("out.prom")
        result = self.probe("--prometheus", path, where=device.where)
        values = self.check(result, OK, r"RUNEL OK - .*")
        for label, metric, text in missing:
            self.assertNotIn(label, values)
            self.assertNotIn(metric, self.content(path).decode())
            self.assertNotIn(text, result.text)
        check_metrics(self, path)

    def test_versions(self):
        missing = [("version", "runel_version_info", "version")]
        for version in (b"1.0\"} 1\nrunel_up 0\n", b"1.0'|x", b"1\n2\n", b"\n", b"\xff\n", b"1.0 \x1b[2J\n",
                        b"\0", b"x" * 65):
            with self.subTest(version=version):
                self.check_left_out({("stat", VERSION_FILE): file_stat(len(version)),
                                     ("read", VERSION_FILE): reply(version)}, missing)
        self.check_left_out({("stat", VERSION_FILE): file_stat(6),
                             ("read", VERSION_FILE): reply(b"1" * 60000)}, missing)

    def test_only_a_small_regular_version_file_is_read(self):
        for about in (file_stat(66), file_stat(1 << 40), DIRECTORY, stat_of(stat.S_IFIFO | 0o644, 6),
                      reply(b"x"), reply(), ENOENT):
            device = Scripted(self, {("stat", VERSION_FILE): about})
            self.check(self.probe(where=device.where), OK, r"RUNEL OK - [^|]* 1\.0 MiB, daemon [^|]*")
            self.assertNotIn(["read", VERSION_FILE], device.asked)

    def test_an_endless_answer_ends_the_probe(self):
        for path in ("/proc/uptime", VERSION_FILE):
            device = Scripted(self, {("read", path): b"\x01268435456\x02SlaveTask 0 0 268435400:"})
            self.check(self.probe(where=device.where), CRITICAL,
                       r"RUNEL CRITICAL - [^|]* down: answer exceeds the size limit")

    def test_times(self):
        uptime = [("uptime", "runel_uptime", "uptime"), ("restart_age", "runel_restart", "started")]
        for text in (b"", b"garbage\n", b"-1.00 1\n", b"nan\n", b"1e300 1\n", b"9" * 5000, b"12.3|4\n"):
            with self.subTest(uptime=text):
                self.check_left_out({("read", "/proc/uptime"): reply(text)}, uptime)
        for text in (b"", b"1 (runeld) S", b"(" * 60000, PROCESS.replace(b"34343547", b"-1"),
                     PROCESS.replace(b"34343547", b"999999999999")):
            with self.subTest(process=text):
                self.check_left_out({("read", "/proc/self/stat"): reply(text)}, uptime[1:])

    def test_free_space(self):
        free = [("free_/", "runel_free", "free")]
        for blocks, about in ((b"", DIRECTORY), (b"-1", DIRECTORY), (b"x", DIRECTORY),
                              (b"18446744073709551615", DIRECTORY),
                              (b"18446744073709551616", DIRECTORY), (b"256", reply(b"x")),
                              (b"256", stat_of(stat.S_IFDIR | 0o755, block_size=0))):
            with self.subTest(blocks=blocks, about=about):
                self.check_left_out({("freeblocks", "/"): reply(blocks), ("stat", "/"): about}, free)

    def test_messages(self):
        device = Scripted(self, {("freeblocks", "/"): reply(b"a|b\nc\x1b[2J", fields=(4, 0, 1, 71, 0))})
        result = self.probe("--warning-free", "1", where=device.where)
        self.check(result, UNKNOWN, r"RUNEL UNKNOWN - [^|\x1b]*")


def check_metrics(case, path):
    """promtool accepts the file, and every line is a comment or one of a known metric."""
    with open(path, "rb") as file:
        done = subprocess.run(["promtool", "check", "metrics"], stdin=file, capture_output=True,
                              check=False, timeout=TIMEOUT)
    case.assertEqual((done.returncode, done.stdout, done.stderr), (0, b"", b""))


class Metrics(ProbeCase):
    def test_a_real_daemon(self):
        self.daemon()
        path = self.path("runel.prom")
        result = self.probe("--prometheus", path, "--version-file", self.file("version", b"1.0.0\n"))
        self.assertEqual((result.status, result.err), (OK, b""))
        check_metrics(self, path)
        samples = self.samples(path)
        device = '{device="127.0.0.1"}'
        self.assertEqual(list(samples), [
            f"runel_up{device}", f"runel_round_trip_seconds{device}", f"runel_uptime_seconds{device}",
            f"runel_restart_age_seconds{device}", 'runel_free_bytes{device="127.0.0.1",path="/"}',
            'runel_version_info{device="127.0.0.1",version="1.0.0"}',
            f"runel_probe_timestamp_seconds{device}"])
        # The metrics of the alert rules exist.
        with open(RULES, encoding="utf-8") as rules:
            self.assertEqual(set(re.findall(r"\brunel_[a-z_]+", rules.read()))
                             - {sample.partition("{")[0] for sample in samples}, set())
        self.assertEqual(samples[f"runel_up{device}"], 1)
        self.assertLess(abs(samples[f"runel_probe_timestamp_seconds{device}"] - time.time()), 60)

    def samples(self, path):
        lines = self.content(path).decode().splitlines()
        return {line.rsplit(" ", 1)[0]: float(line.rsplit(" ", 1)[1])
                for line in lines if not line.startswith("#")}

    def test_a_device_that_is_down(self):
        path = self.file("runel.prom", b"old")
        result = self.probe("--prometheus", path, where="127.0.0.1:9")
        self.assertEqual(result.status, CRITICAL)
        samples = self.samples(path)
        self.assertEqual(list(samples), ['runel_up{device="127.0.0.1:9"}',
                                         'runel_probe_timestamp_seconds{device="127.0.0.1:9"}'])
        self.assertEqual(samples['runel_up{device="127.0.0.1:9"}'], 0)
        check_metrics(self, path)

    def test_several_devices_with_any_names(self):
        first, second = Scripted(self), Scripted(self)
        devices = self.file("devices", f'a"\\{{}}|ä= {first.where}\nb {second.where}\n'.encode())
        path = self.path("runel.prom")
        result = self.ctl("--devices", devices, "probe", "--prometheus", path, "--path", "/",
                          "--path", "/", "--path", '/"\n\\')
        self.assertEqual((result.status, result.err), (OK, b""), result)
        check_metrics(self, path)
        self.assertIn('runel_up{device="a\\"\\\\{}|ä="} 1\nrunel_up{device="b"} 1\n',
                      self.content(path).decode())

    def test_the_file_is_replaced_with_its_mode(self):
        path = self.file("runel.prom", b"old")
        os.link(path, self.path("other"))
        self.addCleanup(os.umask, os.umask(0o077))
        device = Scripted(self)
        self.assertEqual(self.probe("--prometheus", path, where=device.where).status, OK)
        self.assertEqual(self.content("other"), b"old")
        self.assertEqual(stat.S_IMODE(os.stat(path).st_mode), 0o644)
        self.assertEqual(sorted(os.listdir(self.directory)), ["other", "runel.prom"])

    def test_a_missing_directory(self):
        device = Scripted(self)
        path = self.path("none/runel.prom")
        values = self.check(self.probe("--prometheus", path, where=device.where), UNKNOWN,
                            rf"RUNEL UNKNOWN - cannot write {path}: No such file or directory; "
                            rf"{device.where} up, .*")
        self.assertEqual(values["up"], "1;;")

    def test_a_full_disk(self):
        disk = small_disk(self, "disk", 65536)
        path = os.path.join(disk, "runel.prom")
        with open(path, "wb") as file:
            file.write(b"old")
        rest = os.open(os.path.join(disk, "rest"), os.O_WRONLY | os.O_CREAT)
        with self.assertRaises(OSError):
            while True:
                os.write(rest, bytes(4096))
        os.close(rest)
        for where, text in ((Scripted(self).where, "up, .*"), ("127.0.0.1:9", "down: .*")):
            self.check(self.probe("--prometheus", path, where=where), UNKNOWN,
                       rf"RUNEL UNKNOWN - cannot write {path}: No space left on device; {where} {text}")
            self.assertEqual(sorted(os.listdir(disk)), ["rest", "runel.prom"])
            with open(path, "rb") as file:
                self.assertEqual(file.read(), b"old")

    def test_equal_names_are_refused(self):
        devices = self.file("devices", b"a 127.0.0.1\na 127.0.0.2\n")
        path = self.path("runel.prom")
        self.check_unstarted(self.ctl("--devices", devices, "probe", "--prometheus", path),
                             "several devices have the name a")
        self.assertFalse(os.path.exists(path))


class Usage(ProbeCase):
    """No error has the status 1 or 2, which would be a warning or a critical state."""

    def test_errors(self):
        for words, what in (
                (("probe", "--bogus"), "unknown option '--bogus' (see runelctl probe --help)"),
                (("--bogus", "probe"), "unknown option '--bogus' (see runelctl probe --help)"),
                (("probe", "--warning-rt", "1"), "unknown option '--warning-rt' (did you mean "
                 "'--warning-rtt'? see runelctl probe --help)"),
                (("probe", "extra"), "unexpected argument: extra (see runelctl probe --help)"),
                (("-n", "probe"), "probe: --dry-run is not supported"),
                (("probe", "-n"), "probe: --dry-run is not supported"),
                (("-d", "a|b", "probe"), "-d: invalid address or host name 'a\\x7cb'"),
                (("probe", "--critical-rtt", "0.5"),
                 "--warning-rtt 1: expected at most the value of --critical-rtt, 0.5"),
                (("probe", "--critical-free", "2K", "--warning-free", "1K"),
                 "--warning-free 1024: expected at least the value of --critical-free, 2048"),
                (("probe", "--critical-restart", "2", "--warning-restart", "1"),
                 "--warning-restart 1: expected at least the value of --critical-restart, 2"),
                (("--inventory", "/none", "probe"), "/none: No such file or directory")):
            with self.subTest(words=words):
                self.check_unstarted(self.ctl(*words), what)
        for words in (("probe", "--warning-rtt", "x"), ("probe", "--warning-rtt"),
                      ("probe", "--warning-free", "1Q"), ("--timeout", "5", "probe"),
                      ("probe", "--deadline", "x"), ("-a", "probe"), ("-j", "0", "probe")):
            with self.subTest(words=words):
                result = self.ctl(*words)
                self.assertEqual((result.status, result.err), (UNKNOWN, b""))
                self.assertRegex(result.text, r"\ARUNEL UNKNOWN - [^|\n]+\n\Z")

    def test_errors_as_objects(self):
        for words in (("probe", "--json", "--bogus"), ("--json", "-d", "x y", "probe")):
            result = self.ctl(*words)
            self.assertEqual((result.status, result.err), (UNKNOWN, b""))
            self.assertEqual({**result.objects[0], "error": ""},
                             {"v": 1, "task": "probe", "ok": False, "status": UNKNOWN, "state": "UNKNOWN",
                              "where": "local", "retry": False, "error": ""})

    def test_the_help_is_no_error(self):
        self.assertEqual(self.probe("--help").status, 0)

    def test_other_commands_keep_their_status(self):
        for words in (("agent", "-n"), ("inventory", "--bogus"), ("ping", "--bogus"), ("--bogus",)):
            result = self.ctl(*words)
            self.assertEqual((result.status, result.out), (2, b""), words)

    def test_standard_output_that_cannot_be_written(self):
        with open("/dev/full", "wb") as full:
            process = self.start("-d", Scripted(self).where, "probe", stdout=full)
        self.assertEqual(process.wait(TIMEOUT), UNKNOWN)
        self.assertEqual(process.stderr.read(),
                         b"runelctl: standard output: No space left on device\n")


class Objects(ProbeCase):
    def test_one_device(self):
        device = Scripted(self)
        result = self.ctl("--json", "-d", device.where, "probe", "--critical-free", "2M")
        self.assertEqual((result.status, result.err), (CRITICAL, b""))
        opening = {"v": 1, "device": device.where, "task": "probe"}
        free, last = result.objects
        self.assertEqual(free, {**opening, "entry": "filesystem", "path": "/", "free_bytes": 1048576})
        self.assertRegex(last.pop("text"), r"\Aup, .* \(CRITICAL: below 2\.0 MiB\), .* ago\Z")
        self.assertGreater(last.pop("round_trip_s"), 0)
        self.assertEqual(last, {**opening, "ok": False, "status": CRITICAL, "state": "CRITICAL",
                                "uptime_s": 350735.47, "restart_age_s": 7300.0, "version": "1.0.0"})

    def test_several_devices_and_a_file_that_is_not_written(self):
        device = Scripted(self)
        result = self.ctl("--json", "-d", f"{device.where},127.0.0.1:9", "probe", "--prometheus",
                          "/none/x")
        self.assertEqual((result.status, result.err), (UNKNOWN, b""))
        _, up, down, failure, summary = result.objects
        self.assertEqual((up["state"], up["status"]), ("OK", OK))
        self.assertEqual((down["state"], down["status"], down["where"], down["errno"]),
                         ("CRITICAL", CRITICAL, "link", 111))
        self.assertEqual((failure["status"], failure["error"]),
                         (UNKNOWN, "cannot write /none/x: No such file or directory"))
        self.assertEqual(summary["summary"], {"ok": 1, "warning": 0, "critical": 1, "unknown": 0})
