# SPDX-License-Identifier: Apache-2.0
"""What a gateway loses, and what it does not: kill -9, a full disk, a locked database, clocks that are set, and
devices that come and go for hours."""
import contextlib
import errno
import os
import random
import signal
import sqlite3
import struct
import subprocess
import threading
import time

from support.ctl import reply
from support.daemon import is_instrumented
from support.fake_devices import FakeDevice, address_of
from support.gateway import GatewayCase
from support.wait import TIMEOUT, wait_until

CLOCK = os.environ.get("RUNELGW_CLOCK", "")
KILLS = int(os.environ.get("RUNELGW_KILLS", "4"))
HOURS = float(os.environ.get("RUNELGW_HOURS", "2"))  # of the simulated day
FASTER = 300
YEAR = 365 * 86400


class LossCase(GatewayCase):
    def device(self, number, hostid, answers=None):
        device = FakeDevice(address_of(number), hostid, answers)
        self.addCleanup(device.close)
        return device

    def wait_online(self, gateway, name):
        def there():
            answer = gateway.ask("GET", f"/v1/devices/{name}")
            return answer.status == 200 and answer.json["state"] == "online"
        wait_until(there, f"{name} is online")

    def assert_sound(self, gateway):
        """The database of a gateway that does not run."""
        if not os.path.exists(gateway.settings["database.url"]):
            return
        with contextlib.closing(sqlite3.connect(gateway.settings["database.url"])) as database:
            self.assertEqual(database.execute("PRAGMA integrity_check").fetchall(), [("ok",)])
            self.assertEqual(database.execute("PRAGMA foreign_key_check").fetchall(), [])

    @staticmethod
    def end_at_once(gateway):
        gateway.process.kill()
        gateway.process.wait()


class Kill(LossCase):
    """SIGKILL: what a client was told is done is there after the next start."""

    def setUp(self):
        super().setUp()
        self.gateway = self.make_gateway(devices__caution_seconds=0, http__requests_per_second=100000,
                                         http__request_burst=100000)

    def check(self):
        self.end_at_once(self.gateway)
        self.assert_sound(self.gateway)
        self.gateway.start()

    def test_at_each_change_of_state(self):
        gateway = self.gateway
        gateway.launch()
        self.check()  # in the middle of the first start
        self.check()  # ready
        token = gateway.token()
        self.check()  # a token was made
        self.assertEqual(gateway.ask("GET", "/v1/devices", token=token).status, 200)
        device = self.device(1, b"one")
        gateway.wait_logged("device one: added")
        self.check()
        device.close()
        device = self.device(1, b"one")
        self.wait_online(gateway, "one")
        self.assertEqual(gateway.ask("PUT", "/v1/devices/one/tags/place", {"value": "roof"}).status, 200)
        self.check()
        self.assertEqual(gateway.get("/v1/devices/one")["tags"], {"place": "roof"})
        device.close()
        device = self.device(1, b"one", {"read": lambda connected: None})  # never answers
        self.wait_online(gateway, "one")
        started = gateway.ask("POST", "/v1/operations", {
            "query": "one", "task": {"task": "read", "arguments": ["/x"]}})
        self.assertEqual(started.status, 202)
        self.check()  # an operation was running
        operation = gateway.get(f"/v1/operations/{started.json['id']}")
        self.assertEqual((operation["state"], operation["answered"]), ("interrupted", 0))
        device.close()
        device = self.device(1, b"one")
        self.wait_online(gateway, "one")
        device.close()
        gateway.wait_logged("device one: lost")
        self.check()
        self.assertEqual(gateway.get("/v1/devices/one")["state"], "offline")
        self.assertEqual(gateway.ask("POST", "/v1/devices/one/deny").status, 200)
        self.check()
        device = self.device(1, b"one")
        wait_until(lambda: gateway.get("/v1/devices/one")["state"] == "denied", "the decision is known")
        copying = subprocess.Popen([gateway.process.args[0], *gateway.options(), "backup", self.path("copy.db")],
                                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.end_at_once(gateway)  # during a backup
        self.assertIn(copying.wait(TIMEOUT), (0, 1))  # without a gateway it may hold the database itself
        self.check()
        if copying.returncode == 0:
            self.assertEqual(gateway.command("restore", self.path("copy.db")).returncode, 0)
            gateway.process.send_signal(signal.SIGTERM)
            self.check()  # while it ends
        self.assertEqual(gateway.ask("DELETE", "/v1/devices/one").status in (204, 409), True)
        self.check()
        self.assertEqual(gateway.stop(), 0)
        self.assert_sound(gateway)

    def test_at_any_moment_nothing_acknowledged_is_lost(self):
        random_ = random.Random(17)
        gateway = self.gateway.start()
        self.device(1, b"one")
        self.wait_online(gateway, "one")
        done = {"tags": 0, "groups": set(), "access": set(), "tokens": set(), "operations": set()}
        for turn in range(KILLS):
            if turn:
                device = self.device(1, b"one")
                self.wait_online(gateway, "one")
            threads = [threading.Thread(target=self.change, args=(work, turn, done))
                       for work in (self.tag, self.group, self.allow, self.make_token, self.operate)]
            for thread in threads:
                thread.start()
            time.sleep(random_.uniform(0.05, 0.5))  # any moment
            self.end_at_once(gateway)
            for thread in threads:
                thread.join(TIMEOUT)
            self.assert_sound(gateway)
            gateway.start()
            if turn:
                device.close()
            self.compare(done)
        self.assertGreater(done["tags"], 0)
        self.assertTrue(all(done.values()), {name: not value for name, value in done.items()})

    def change(self, work, turn, done):
        """Repeats @p work until the gateway is gone."""
        with contextlib.suppress(OSError, ValueError, EOFError, Exception):
            for number in range(100000):
                work(f"{turn}-{number}", done)

    def tag(self, _, done):
        value = done["tags"] + 1
        if self.gateway.ask("PUT", "/v1/devices/one/tags/count", {"value": str(value)}).status == 200:
            done["tags"] = value

    def group(self, name, done):
        if self.gateway.ask("PUT", f"/v1/groups/g{name}", {"query": "@all"}).status in (200, 201):
            done["groups"].add(f"g{name}")

    def allow(self, name, done):
        body = {"kind": "hostid", "value": name, "allow": True}
        if self.gateway.ask("POST", "/v1/access", body).status in (200, 201):
            done["access"].add(name)

    def make_token(self, name, done):
        if self.gateway.ask("POST", "/v1/tokens", {"name": name, "role": "viewer"}).status == 201:
            done["tokens"].add(name)

    def operate(self, _, done):
        started = self.gateway.ask("POST", "/v1/operations", {
            "query": "one", "task": {"task": "fileexists", "arguments": ["/"]}})
        if started.status == 202:
            done["operations"].add(started.json["id"])

    def everything(self, path):
        items, cursor = [], ""
        while cursor is not None:
            page = self.gateway.get(f"{path}?limit=1000{cursor}")
            items += page["items"]
            cursor = page["next"] and f"&cursor={page['next']}"
        return items

    def compare(self, done):
        tag = int(self.gateway.get("/v1/devices/one")["tags"].get("count", 0))
        self.assertIn(tag, (done["tags"], done["tags"] + 1))  # the last one may be stored without an answer
        done["tags"] = tag
        for kind, key in (("groups", "name"), ("access", "value"), ("tokens", "name"), ("operations", "id")):
            found = self.everything(f"/v1/{kind}")
            self.assertEqual(done[kind] - {each[key] for each in found}, set(), kind)
        states = {each["state"] for each in self.everything("/v1/operations")}
        self.assertLessEqual(states, {"done", "interrupted"})


class Disk(LossCase):
    def test_a_full_disk_is_told_and_survived(self):
        gateway = self.make_gateway()
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=4m", "tmpfs", gateway.directory], check=True)
        self.addCleanup(subprocess.run, ["umount", "-l", gateway.directory], check=True)
        gateway.start()
        gateway.token()
        self.device(1, b"one")
        self.wait_online(gateway, "one")
        ballast = os.path.join(gateway.directory, "ballast")
        with open(ballast, "wb", buffering=0) as file:
            with self.assertRaises(OSError) as full:
                while True:
                    file.write(bytes(4096))
        self.assertEqual(full.exception.errno, errno.ENOSPC)
        refused = None
        for number in range(2000):  # until the room in the database's own files is used up
            answer = gateway.ask("PUT", f"/v1/groups/g{number}", {"query": "x" * 2000})
            if answer.status not in (200, 201):
                refused = answer
                break
        self.assertIsNotNone(refused, "changes are acknowledged on a full disk")
        self.assertGreaterEqual(refused.status, 500, refused.body)
        self.assertEqual(refused.headers["Content-Type"].split(";")[0], "application/problem+json")
        wait_until(lambda: "full" in gateway.log(), "the log says it")
        # What needs no disk still works.
        self.assertEqual(gateway.ask("GET", "/v1/devices/one").json["state"], "online")
        self.assertIsNone(gateway.process.poll())
        os.unlink(ballast)
        wait_until(lambda: gateway.ask("PUT", "/v1/groups/after", {"query": "@all"}).status in (200, 201),
                   "changes are stored again")
        told = gateway.ask("POST", "/v1/devices/one/tasks", {"task": "fileexists", "arguments": ["/"]}).json
        self.assertEqual(told["outcome"], "answered")
        self.assertEqual(gateway.stop(), 0)
        self.assert_sound(gateway)
        gateway.start()
        groups = {group["name"] for group in gateway.get("/v1/groups?limit=1000")["items"]}
        self.assertIn("after", groups)
        self.assertLessEqual({f"g{before}" for before in range(number)}, groups)

    def test_a_locked_database_is_refused_with_a_sentence(self):
        gateway = self.start_gateway()
        self.assertEqual(gateway.stop(), 0)
        with contextlib.closing(sqlite3.connect(gateway.settings["database.url"], isolation_level=None)) as other:
            other.execute("PRAGMA locking_mode=EXCLUSIVE")
            other.execute("BEGIN EXCLUSIVE")
            other.execute("CREATE TABLE other (x)")
            gateway.launch()
            self.assertEqual(gateway.process.wait(TIMEOUT), 1)
            self.assertRegex(gateway.log().splitlines()[-1], r"^error: .*fleet\.db.*locked")
            other.execute("ROLLBACK")
        gateway.start()

    def test_a_directory_that_is_read_only_is_refused_with_a_sentence(self):
        gateway = self.start_gateway()
        self.assertEqual(gateway.stop(), 0)
        subprocess.run(["mount", "--bind", gateway.directory, gateway.directory], check=True)
        self.addCleanup(subprocess.run, ["umount", "-l", gateway.directory], check=True)
        subprocess.run(["mount", "-o", "remount,ro,bind", gateway.directory], check=True)
        done = gateway.command("run")
        self.assertEqual(done.returncode, 1)
        self.assertRegex(done.stderr.decode().splitlines()[-1], r"^error: .*[Rr]ead-?only")


class Clock(LossCase):
    def setUp(self):
        super().setUp()
        self.leap_file = self.file("leap", bytes(8))

    def gateway_with_clock(self, faster=1, **settings):
        gateway = self.make_gateway(**settings)
        gateway.environment.update(LD_PRELOAD=CLOCK, GATEWAY_LEAP=self.leap_file, GATEWAY_FASTER=str(faster))
        return gateway.start()

    def leap(self, seconds):
        with open(self.leap_file, "r+b") as file:
            file.write(struct.pack("=q", seconds))

    def run_tasks(self, gateway):
        told = gateway.ask("POST", "/v1/devices/one/tasks", {"task": "fileexists", "arguments": ["/"]})
        self.assertEqual((told.status, told.json.get("outcome")), (200, "answered"), told.body)

    def test_a_wall_clock_that_is_set_loses_neither_devices_nor_records(self):
        gateway = self.gateway_with_clock(retention__history_days=1)
        token = gateway.token("admin", "--expires", "3650d")
        gateway.token_of[("admin",)] = token
        self.device(1, b"one")
        self.wait_online(gateway, "one")
        for number, seconds in enumerate((-YEAR, 0, 3600, -3600, 9 * YEAR, -20 * YEAR, 0), 1):
            self.leap(seconds)
            self.run_tasks(gateway)
            self.assertEqual(gateway.ask("PUT", "/v1/devices/one/tags/turn", {"value": str(number)}).status, 200)
            self.device(10 + number, b"n%d" % number)
            self.wait_online(gateway, f"n{number}")
        device = gateway.get("/v1/devices/one")
        self.assertEqual((device["state"], device["losses"], device["tags"]["turn"]), ("online", 0, "7"))
        history = [each["event"] for each in gateway.get("/v1/devices/one/history")["items"]]
        self.assertEqual(history[-1], "added", history)
        changes = [each["what"] for each in gateway.get("/v1/audit?limit=1000")["items"]]
        self.assertEqual(len([what for what in changes if what == "setTag"]), 7, changes)
        self.assertEqual(gateway.stop(), 0)
        self.leap(-YEAR)  # set while it was stopped
        gateway.start()
        self.wait_online(gateway, "one") if self.device(1, b"one") else None
        self.run_tasks(gateway)

    def test_nothing_grows_while_devices_come_and_go(self):
        """Hours in seconds, with everything that the gateway keeps for a while."""
        gateway = self.gateway_with_clock(
            FASTER, retention__history_days=0.02, retention__audit_days=0.02, retention__clause_hours=0.5,
            retention__output_days=0.02, inventory__interval_seconds=300, http__requests_per_second=100000,
            http__request_burst=100000, devices__answer_timeout_seconds=3000, service__log_level="warning")
        stop = threading.Event()
        turns = [0] * 12
        threads = [threading.Thread(target=self.come_and_go, args=(number, turns, stop)) for number in range(12)]
        self.addCleanup(stop.set)
        for thread in threads:
            thread.start()
        self.device(100, b"one")
        self.wait_online(gateway, "one")
        figures = []
        end = time.monotonic() + HOURS * 3600 / FASTER
        while time.monotonic() < end:
            for number in range(20):
                gateway.ask("PUT", "/v1/devices/one/tags/count", {"value": str(number)})
                gateway.ask("POST", "/v1/devices/one/tasks", {"task": "fileexists", "arguments": ["/"]})
            gateway.ask("POST", "/v1/operations", {"query": "@all", "task": {"task": "hostid"}})
            figures.append(self.figures(gateway))
        stop.set()
        for thread in threads:
            thread.join(TIMEOUT)
        self.assertGreater(sum(turns), 50)
        self.assertGreater(len(figures), 8)
        half = len(figures) // 2
        for name, room in (("resident", 6_000_000), ("descriptors", 20), ("database", 2_000_000)):
            if name == "resident" and is_instrumented():
                continue  # it retains freed memory
            before = max(each[name] for each in figures[half // 2:half])
            after = min(each[name] for each in figures[-half // 2:])
            self.assertLess(after, before + room, (name, [each[name] for each in figures[::max(1, half // 10)]]))
        self.assertEqual(gateway.stop(), 0)
        self.assert_sound(gateway)

    @staticmethod
    def come_and_go(number, turns, stop):
        with contextlib.suppress(OSError):
            while not stop.is_set():
                device = FakeDevice(address_of(200 + number), b"guest-%d" % number)
                stop.wait(0.05 + 0.02 * number)
                with contextlib.suppress(OSError):
                    device.socket.sendall(reply(b"surplus") if turns[number] % 5 == 4 else b"")
                device.close()
                turns[number] += 1

    @staticmethod
    def figures(gateway):
        process = f"/proc/{gateway.process.pid}"
        with open(f"{process}/statm", encoding="ascii") as about:
            resident = int(about.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")
        files = [os.path.join(gateway.directory, name) for name in os.listdir(gateway.directory)
                 if name.startswith("fleet.db")]
        return {"resident": resident, "descriptors": len(os.listdir(f"{process}/fd")),
                "database": sum(map(os.path.getsize, files))}
