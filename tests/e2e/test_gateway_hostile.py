# SPDX-License-Identifier: Apache-2.0
"""Hostile devices and hostile clients, at the real gateway."""
import base64
import contextlib
import json
import os
import random
import socket
import struct
import time
import urllib.parse

from support.ctl import reply
from support.fake_devices import FakeDevice, address_of, dial, nothing_came
from support.gateway import HTTP_PORT, GatewayCase
from support.wait import TIMEOUT, wait_until
from support.wire import request

SURPLUS = int(os.environ.get("RUNELGW_SURPLUS", "2000"))
FUZZED = int(os.environ.get("RUNELGW_FUZZED", "150"))


def bytes_of(value):
    return base64.b64decode(value["base64"]) if isinstance(value, dict) else value.encode()


class HostileCase(GatewayCase):
    """A gateway with an honest device, which must always work."""

    settings = {}

    def setUp(self):
        super().setUp()
        self.gateway = self.start_gateway(
            **{"http__requests_per_second": 100000, "http__request_burst": 100000, **self.settings})
        self.honest = self.device(0, b"honest")
        self.wait_online("honest")

    def device(self, number, hostid, answers=None):
        device = FakeDevice(address_of(number), hostid, answers)
        self.addCleanup(device.close)
        return device

    def wait_online(self, name):
        def there():
            answer = self.gateway.ask("GET", f"/v1/devices/{name}")
            return answer.json if answer.status == 200 and answer.json["state"] == "online" else None
        return wait_until(there, f"{name} is online")

    def wait_known(self, name):
        wait_until(lambda: self.gateway.ask("GET", f"/v1/devices/{name}").status == 200, f"{name} is known")

    def dial(self, number):
        connected = dial(address_of(number))
        self.addCleanup(connected.close)
        return connected

    def task(self, name, *words, **more):
        path = f"/v1/devices/{urllib.parse.quote(name, safe='')}/tasks"
        answer = self.gateway.ask("POST", path, {"task": words[0], "arguments": words[1:], **more})
        self.assertEqual(answer.status, 200, answer.body)
        return answer.json

    def assert_works(self):
        self.assertEqual(self.task("honest", "fileexists", "/")["outcome"], "answered")
        self.assertIsNone(self.gateway.process.poll())
        self.assertNotIn("exception", self.gateway.log())

    def resident(self):
        with open(f"/proc/{self.gateway.process.pid}/statm", encoding="ascii") as about:
            return int(about.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.gateway.process.pid}/fd"))


class Devices(HostileCase):
    settings = {"devices__answer_timeout_seconds": 2}

    def test_hostids_with_every_byte(self):
        hostids = {b"id" + bytes([byte]) for byte in range(256)}
        hostids |= {bytes(range(256)), b"\xff\xfe\x00\x01", "gerät".encode(), b"x\nerror: forged\n", b"@all", b"*",
                    b"../../etc", b"<script>", b"' or 1=1 --", b"\x1b[2J"}
        for number, hostid in enumerate(sorted(hostids), 1):
            self.device(number, hostid)
        # Devices whose hostids differ only in what surrounds a name are different ones.
        devices = self.gateway.wait_devices(len(hostids) + 1)
        told = {bytes_of(device["hostid"]) for device in devices.values()}
        self.assertEqual(told, hostids | {b"honest"})
        self.assertEqual(len(devices), len(hostids) + 1)
        for name in devices:
            self.assertEqual(self.task(name, "fileexists", "/")["outcome"], "answered", name)
        self.assertNotRegex(self.gateway.log(), r"(?m)^error: forged|\x1b")
        self.assertEqual(self.gateway.stop(), 0)
        self.gateway.start()
        again = {bytes_of(device["hostid"]) for device in self.gateway.devices().values()}
        self.assertEqual(again, told)

    def test_no_hostid_and_a_huge_one(self):
        self.device(1, b"")
        self.device(2, b"h" * 1_000_000)
        devices = wait_until(lambda: len(found := self.gateway.devices()) >= 2 and found, "there are devices")
        self.assertLess(max(map(len, devices)), 300)
        self.assertLess(len(self.gateway.log()), 100_000)
        self.assert_works()

    def test_silent_devices_cost_nothing(self):
        silent = [self.dial(number) for number in range(1, 301)]
        self.device(400, b"late")
        self.wait_online("late")
        self.assert_works()
        self.assertEqual(len(silent), 300)

    def test_half_frames_and_impossible_lengths(self):
        before = self.resident()
        answers = [b"\x01", b"\x01268435456\x02", b"\x01268435457\x02", b"\x01" + b"9" * 400 + b"\x02", b"\x01-1\x02",
                   b"\x010x10\x02", b"\x01\x02", b"\x020\x01", b"\x015\x02abc", b"\x01 5\x02abcde", b"\x00" * 1000,
                   b"\xff" * 5000, b"SlaveTask 0 0 0: 0 0 0 0 0", reply(b"x")[:-1], reply(b"x", (9, 9, 9, 9, 9)),
                   b"\x0130\x02SlaveTask 0 0 999999999:x 0 0 0", b"\x0112\x02SlaveTask -1",
                   b"\x0123\x02SlaveTask 99999999999 0"]
        for number, answer in enumerate(answers, 1):
            self.device(number, b"", {"hostid": answer})
        devices = [self.device(number, b"odd-%d" % number, {"lstat": answer})
                   for number, answer in enumerate(answers, 101)]
        for number, (device, answer) in enumerate(zip(devices, answers), 101):
            self.wait_known(f"odd-{number}")
            told = self.task(f"odd-{number}", "lstat", "/mine", deadline_ms=500)
            if told["outcome"] == "not run":
                self.assertNotIn(["lstat", "/mine"], device.asked, (answer, told))
            elif told["outcome"] == "answered":  # whole frames only
                self.assertTrue(answer.endswith((b"0 0 0", b"9 9 9", b"Task -1", b"999 0")), (answer, told))
        self.assert_works()
        self.assertLess(self.resident() - before, 64_000_000 + (400_000_000 if self.is_instrumented() else 0))

    @staticmethod
    def is_instrumented():
        from support.gateway import BINARY
        with open(BINARY, "rb") as binary:
            return b"__asan_init" in binary.read()

    def test_an_answer_without_a_request_is_never_the_answer_to_a_later_one(self):
        device = self.device(1, b"forger")
        self.wait_online("forger")
        wait_until(lambda: self.gateway.get("/v1/devices/forger")["free_bytes"], "it was asked for its facts")
        device.socket.sendall(reply(b"forged"))
        time.sleep(0.2)  # for the gateway to read it; without this wait the test could only pass
        told = self.task("forger", "read", "/x", deadline_ms=3000)
        self.assertNotIn("forged", json.dumps(told))
        self.assert_works()

    def test_a_connection_that_speaks_like_a_bridge_is_never_written_to(self):
        bridges = []
        for number in range(1, 101):
            bridge = self.dial(number)
            bridge.sendall(b"<clause>1</clause>" if number % 2 else b"<")
            bridges.append(bridge)
        self.device(200, b"late")
        self.wait_online("late")
        self.assert_works()
        # The first connection of an address may be asked who it is before it has said anything.
        allowed = {b"", request("hostid"), request("hostid") + request("devicetype")}
        self.assertEqual([written for written in map(self.written_to, bridges) if written not in allowed], [])

    @staticmethod
    def written_to(connected):
        connected.setblocking(False)
        with contextlib.suppress(BlockingIOError, ConnectionError):
            return connected.recv(65536)
        return b""

    def test_thousands_of_connections_from_one_address(self):
        """Only the first one can be a device. The others are never written to, and not closed unless they
        say what no daemon says."""
        device = self.device(1, b"many")
        self.wait_online("many")
        surplus = [self.dial(1) for _ in range(SURPLUS)]
        self.assertEqual(self.task("many", "fileexists", "/")["outcome"], "answered")
        strange = set(range(0, SURPLUS, 14))
        for number in range(0, SURPLUS, 7):
            surplus[number].sendall(b"\x01\x02" if number in strange else b"<a/>")
        self.assertEqual(self.task("many", "fileexists", "/")["outcome"], "answered")
        self.assert_works()
        touched = {number for number, each in enumerate(surplus) if not nothing_came(each)}
        self.assertEqual(touched - strange, set())
        self.assertEqual({self.written_to(surplus[number]) for number in touched}, {b""} if touched else set())
        most = self.descriptors()
        for each in surplus:
            each.close()
        wait_until(lambda: self.descriptors() < most - SURPLUS + 50, "their descriptors are free again")
        self.assertEqual(self.task("many", "fileexists", "/")["outcome"], "answered")
        self.assertTrue(device.asked)

    def test_random_answers(self):
        random_ = random.Random(7)
        whole = reply(b"sim\n")
        for number in range(1, FUZZED + 1):
            data = bytearray(whole * 2)
            for _ in range(random_.randint(1, 6)):
                place = random_.randrange(len(data))
                kind = random_.randrange(3)
                if kind == 0:
                    data[place] = random_.randrange(256)
                elif kind == 1:
                    del data[place:place + random_.randrange(5)]
                    data = data or bytearray(b"x")
                else:
                    data[place:place] = bytes(random_.randrange(256) for _ in range(4))
            device = self.device(number, b"fuzzed-%d" % number,
                                 {random_.choice(("hostid", "devicetype", "read", "stat")): bytes(data)})
            if number % 10 == 0:
                self.assert_works()
                device.close()
        self.assert_works()
        self.assertEqual(self.gateway.stop(), 0)


class Smuggling(HostileCase):
    """A request that two readers could understand differently is refused, and its connection closed."""

    def exchange(self, data, wait=TIMEOUT):
        """Everything that the gateway sends until it closes."""
        with socket.create_connection(("127.0.0.1", HTTP_PORT), wait) as connected:
            connected.sendall(data)
            connected.shutdown(socket.SHUT_WR)
            received = b""
            while part := connected.recv(65536):
                received += part
        return received

    def head(self, *lines, method="POST", path="/v1/access"):
        token = self.gateway.token()
        return "\r\n".join([f"{method} {path} HTTP/1.1", "Host: localhost", f"Authorization: Bearer {token}",
                            "Content-Type: application/json", *lines, "", ""]).encode()

    def test_an_ambiguous_length_is_refused_and_what_follows_is_not_a_request(self):
        body = b'{"kind":"hostid","value":"smuggled","allow":true}'
        inner = self.head(f"Content-Length: {len(body)}") + body
        for lines in (["Content-Length: 0", "Transfer-Encoding: chunked"],
                      ["Transfer-Encoding: chunked", "Content-Length: 3"],
                      ["Content-Length: 0", f"Content-Length: {len(inner)}"],
                      ["Content-Length: 0, 5"], ["Content-Length: +0"], ["Content-Length: 0x0"], ["Content-Length: -1"],
                      ["Content-Length : 0"], ["Transfer-Encoding: xchunked"], ["Transfer-Encoding : chunked"],
                      ["Transfer-Encoding: chunked, identity"], ["Transfer-Encoding: identity, chunked"],
                      ["X: y\r\n folded: z", "Content-Length: 0"], ["Content-Length: 99999999999999999999999"],
                      ["X: y\rContent-Length: 5", "Content-Length: 0"], ["X: a\0b", "Content-Length: 0"],
                      ["Host: evil.example", "Content-Length: 0"]):
            received = self.exchange(self.head(*lines) + inner)
            self.assertEqual(received.count(b"\r\nDate: "), 1, (lines, received))
            self.assertRegex(received, rb"^HTTP/1.1 (4\d\d|501) ", lines)
        chunked = self.head("Transfer-Encoding: chunked")
        for chunks in (b"0;\n\r\n\r\n" + inner, b"-1\r\n\r\n" + inner, b"fffffffffffffffff\r\n" + inner,
                       b"5\r\nabcdeX0\r\n\r\n" + inner, b"0x0\r\n\r\n" + inner, b"0\n\n" + inner):
            received = self.exchange(chunked + chunks)
            self.assertEqual(received.count(b"\r\nDate: "), 1, (chunks[:20], received))
            self.assertNotRegex(received, rb"^HTTP/1.1 2", chunks[:20])
        for line in (b"POST /v1/access HTTP/1.1\nHost: localhost\n\n", b"GET  /healthz HTTP/1.1\r\nHost: localhost\r\n\r\n",
                     b"GET /healthz HTTP/3.1\r\nHost: localhost\r\n\r\n", b"GET /healthz\r\n\r\n", b"\x16\x03\x01" * 50,
                     b"GET http://evil.example/healthz HTTP/1.1\r\nHost: localhost\r\n\r\n"):
            received = self.exchange(line + inner)
            self.assertLessEqual(received.count(b"\r\nDate: "), 1, (line, received))
            self.assertNotRegex(received, rb"^HTTP/1.1 2", line)
        self.assertEqual(self.gateway.get("/v1/access")["items"], [])
        self.assertNotIn("smuggled", json.dumps(self.gateway.get("/v1/audit")))
        self.assert_works()

    def test_a_request_with_a_body_that_is_refused_ends_its_connection(self):
        body = b'{"kind":"hostid","value":"smuggled","allow":true}'
        inner = self.head(f"Content-Length: {len(body)}") + body
        refused = b"POST /v1/access HTTP/1.1\r\nHost: evil.example\r\nContent-Length: %d\r\n\r\n" % len(inner)
        received = self.exchange(refused + inner)
        self.assertEqual(received.count(b"\r\nDate: "), 1, received)
        self.assertEqual(self.gateway.get("/v1/access")["items"], [])

    def test_random_bytes(self):
        random_ = random.Random(11)
        whole = self.head("Content-Length: 2") + b"{}"
        for number in range(FUZZED):
            data = bytearray(whole)
            for _ in range(random_.randint(1, 8)):
                place = random_.randrange(len(data))
                data[place:place + random_.randrange(3)] = random_.randbytes(random_.randrange(3))
            with contextlib.suppress(ConnectionError):
                received = self.exchange(bytes(data))
                self.assertNotRegex(received, rb"^HTTP/1.1 50[0-4]", (number, bytes(data), received))
        self.assert_works()


class Slow(HostileCase):
    settings = {"http__header_timeout_seconds": 1, "http__idle_timeout_seconds": 1, "http__max_connections": 60}

    def test_clients_that_send_slowly_are_closed_and_delay_no_other(self):
        slow = []
        for number in range(50):
            connected = socket.create_connection(("127.0.0.1", HTTP_PORT), TIMEOUT)
            self.addCleanup(connected.close)
            connected.sendall((b"GET /healthz HTTP/1.1\r\nHost: localhost\r\nX: ",
                               b"POST /v1/access HTTP/1.1\r\nHost: localhost\r\nContent-Length: 5\r\n\r\n{",
                               b"")[number % 3])
            slow.append(connected)
        self.assert_works()
        for number, connected in enumerate(slow):
            received = b""
            with contextlib.suppress(ConnectionError):
                while part := connected.recv(65536):
                    received += part
            self.assertNotRegex(received, rb"^HTTP/1.1 2", number)
        self.assert_works()

    def test_more_connections_than_allowed_are_refused_and_not_kept(self):
        many = []
        for _ in range(100):
            connected = socket.create_connection(("127.0.0.1", HTTP_PORT), TIMEOUT)
            self.addCleanup(connected.close)
            many.append(connected)
        wait_until(lambda: self.descriptors() < 100, "not all are accepted, or some are closed")
        for connected in many:
            connected.close()
        wait_until(lambda: self.gateway.ask("GET", "/healthz", token="").status == 200, "it serves again")
        self.assert_works()


class Rights(HostileCase):
    def test_tokens_of_others(self):
        token = self.gateway.token("viewer")
        for wrong in ("", "rgw_", "x", token[:-1], token + "A", token[:-1] + ("A" if token[-1] != "A" else "B"),
                      token.lower(), token.upper(), "rgw_" + "A" * 43, "' or 1=1", "rgw_" + "A" * 100000):
            headers = {"Authorization": f"Bearer {wrong}"}
            status = self.gateway.ask("GET", "/v1/devices", token="", headers=headers).status
            self.assertIn(status, (400, 401, 431), wrong[:60])
        for path in (f"/v1/devices?token={token}", f"/v1/devices?access_token={token}"):
            self.assertIn(self.gateway.ask("GET", path, token="").status, (400, 401), path[:20])
        self.assertNotIn(token, self.gateway.log())

    def test_a_viewer_neither_reads_nor_writes_nor_runs(self):
        token = self.gateway.token("viewer")
        before = len(self.honest.asked)
        for task, words in (("read", ["/etc/shadow"]), ("write", ["/x"]), ("exec", ["/bin/true"]), ("unlink", ["/x"]),
                            ("reboot", []), ("restart", []), ("kill", ["1"]), ("wait", [])):
            answer = self.gateway.ask("POST", "/v1/devices/honest/tasks",
                                      {"task": task, "arguments": words, **({"limit_s": 5} if task == "exec" else {}),
                                       **({"content": "x"} if task == "write" else {})}, token=token)
            self.assertIn(answer.status, (400, 403, 422), (task, answer.body))
        operation = self.gateway.ask("POST", "/v1/operations", token=token, body={
            "query": "@all", "task": {"task": "exec", "arguments": ["/bin/true"], "limit_s": 5}})
        self.assertEqual(operation.status, 403, operation.body)
        for method, path in (("POST", "/v1/tokens"), ("GET", "/v1/tokens"), ("GET", "/v1/audit"), ("GET", "/v1/access"),
                             ("DELETE", "/v1/devices/honest"), ("POST", "/v1/devices/honest/deny"),
                             ("PUT", "/v1/groups/x"), ("PUT", "/v1/devices/honest/tags/x")):
            body = {"query": "@all"} if "groups" in path else {"value": "x"} if "tags" in path else None
            self.assertIn(self.gateway.ask(method, path, body, token=token).status, (400, 403, 415), path)
        asked = [words[0] for words in self.honest.asked[before:]]
        self.assertFalse({"write", "exec", "unlink", "reboot", "restart", "kill", "wait"} & set(asked), asked)

    def test_a_token_of_a_group_reaches_no_other_device(self):
        self.device(1, b"mine")
        self.wait_online("mine")
        self.assertIn(self.gateway.ask("PUT", "/v1/groups/few", {"query": "mine"}).status, (200, 201))
        token = self.gateway.token("operator", "--group", "few")
        self.assertEqual(self.gateway.ask("GET", "/v1/devices", token=token).json["total"], 1)
        for path in ("/v1/devices/honest", "/v1/devices/honest/history", "/v1/devices/honest/clauses"):
            self.assertIn(self.gateway.ask("GET", path, token=token).status, (403, 404), path)
        body = {"task": "fileexists", "arguments": ["/"]}
        self.assertIn(self.gateway.ask("POST", "/v1/devices/honest/tasks", body, token=token).status, (403, 404))
        self.assertEqual(self.gateway.ask("POST", "/v1/devices/mine/tasks", body, token=token).status, 200)
        # Its name is answered as one that no device has.
        unknown = [self.gateway.ask("POST", "/v1/operations", {"query": name, "task": body}, token=token)
                   for name in ("honest", "absent")]
        self.assertEqual([answer.status for answer in unknown], [400, 400])
        self.assertEqual(unknown[0].body.replace(b"honest", b"absent"), unknown[1].body)
        operation = self.gateway.ask("POST", "/v1/operations", {"query": "@all,!x=y", "task": body}, token=token)
        self.assertEqual(operation.status, 202, operation.body)
        self.assertEqual(operation.json["devices"], 1)

    def test_requests_of_other_sites(self):
        body = {"kind": "hostid", "value": "x", "allow": True}
        for headers in ({"Origin": "https://evil.example"}, {"Origin": "null"}, {"Origin": "http://localhost.evil.example"},
                        {"Origin": "http://localhost:1"}, {"Host": "evil.example"}, {"Host": "localhost.evil.example"},
                        {"Host": "localhost:5180@evil.example"}, {"Host": ""}):
            status = self.gateway.ask("POST", "/v1/access", body, headers=headers).status
            self.assertIn(status, (400, 403, 421), headers)
        self.assertIn(self.gateway.ask("GET", "/healthz", token="", headers={"Host": "evil.example"}).status, (400, 403, 421))
        # A browser's session: its cookie alone does not suffice from elsewhere.
        login = self.gateway.ask("POST", "/v1/session", {"token": self.gateway.token()}, token="",
                                 headers={"Origin": f"http://localhost:{HTTP_PORT}", "Host": f"localhost:{HTTP_PORT}"})
        self.assertEqual(login.status, 200, login.body)
        cookie = login.headers["Set-Cookie"]
        for word in ("HttpOnly", "SameSite=Strict"):
            self.assertIn(word, cookie)
        session = {"Cookie": cookie.split(";")[0]}
        self.assertEqual(self.gateway.ask("GET", "/v1/devices", token="", headers=session).status, 200)
        for origin in ({}, {"Origin": "https://evil.example"}):
            self.assertEqual(self.gateway.ask("POST", "/v1/access", body, token="", headers={**session, **origin}).status,
                             403, origin)
        self.assertEqual(self.gateway.get("/v1/access")["items"], [])


def web_socket_frame(opcode, payload, masked=True, length=None, final=True):
    length = len(payload) if length is None else length
    flag = 0x80 if masked else 0
    head = bytes([(0x80 if final else 0) | opcode])
    if length < 126:
        head += bytes([flag | length])
    elif length < 65536:
        head += bytes([flag | 126]) + struct.pack(">H", length)
    else:
        head += bytes([flag | 127]) + struct.pack(">Q", length)
    return head + (bytes(4) if masked else b"") + payload


class WebSockets(HostileCase):
    def open(self, expect=b"101", **headers):
        fields = {"Host": "localhost", "Upgrade": "websocket", "Connection": "Upgrade", "Sec-WebSocket-Version": "13",
                  "Sec-WebSocket-Key": "YmVuY2hfZ2F0ZXdheS4uLg==", "Sec-WebSocket-Protocol": "runel.attach.v1",
                  "Authorization": f"Bearer {self.gateway.token()}",
                  **{name.replace("_", "-"): value for name, value in headers.items()}}
        connected = socket.create_connection(("127.0.0.1", HTTP_PORT), TIMEOUT)
        self.addCleanup(connected.close)
        connected.sendall(b"GET /v1/attach HTTP/1.1\r\n" + "".join(
            f"{name}: {value}\r\n" for name, value in fields.items() if value).encode() + b"\r\n")
        head = b""
        while b"\r\n\r\n" not in head:
            part = connected.recv(1)
            self.assertTrue(part, head)
            head += part
        self.assertRegex(head, b"^HTTP/1.1 " + expect)
        return connected

    @staticmethod
    def rest(connected):
        """What arrives until the end."""
        received = b""
        with contextlib.suppress(ConnectionError):
            while part := connected.recv(65536):
                received += part
        return received

    def test_without_rights_or_from_elsewhere_it_is_refused(self):
        self.open(b"40[13]", Origin="https://evil.example")
        self.open(b"40[13]", Authorization="")
        self.open(b"4", Host="evil.example")
        self.open(b"4", Sec_WebSocket_Version="12")
        self.open(b"4", Sec_WebSocket_Protocol="other")

    def test_wrong_frames_end_the_connection_and_nothing_else(self):
        good = self.open()
        for data in (web_socket_frame(1, b"{}", masked=False), web_socket_frame(1, b"", length=1 << 63),
                     web_socket_frame(2, b"", length=1 << 40), web_socket_frame(1, b"\xff\xfe"), web_socket_frame(3, b""),
                     web_socket_frame(9, b"x" * 126), web_socket_frame(0, b"x"), b"\xf1\x80\0\0\0\0", web_socket_frame(8, b"x"),
                     web_socket_frame(1, b"{"), web_socket_frame(1, b"[]"), web_socket_frame(1, b"null"),
                     web_socket_frame(1, b"[" * 100000), web_socket_frame(2, b""), web_socket_frame(2, b"\0\0\0"),
                     web_socket_frame(2, b"\0\0\0\0x"), web_socket_frame(2, b"\0\0\0\7x"),
                     web_socket_frame(1, b'{"attach":0,"device":"honest"}'), web_socket_frame(1, b'{"attach":-1,"device":"honest"}'),
                     web_socket_frame(1, b'{"attach":1e99,"device":"honest"}'), web_socket_frame(1, b'{"attach":1,"device":7}'),
                     web_socket_frame(1, b'{"credit":1,"bytes":-1}'), web_socket_frame(1, b'{"detach":"x"}'),
                     web_socket_frame(1, b'{"list":7,"id":[]}'), web_socket_frame(1, b'{"list":"(((","id":1}')):
            connected = self.open()
            connected.sendall(data)
            connected.shutdown(socket.SHUT_WR)
            self.rest(connected)
            self.assertIsNone(self.gateway.process.poll(), data[:60])
        self.attach(good, "honest")
        self.assert_works()

    def attach(self, connected, name):
        connected.sendall(web_socket_frame(1, json.dumps({"attach": 1, "device": name, "deadline_ms": 5000}).encode()))
        told = b""
        while b"}" not in told:
            told += connected.recv(4096)
        self.assertIn(b'"attached":1', told)

    def test_more_than_the_credit_ends_the_web_socket(self):
        connected = self.open()
        self.attach(connected, "honest")
        part = b"\0\0\0\1" + b"\x01" + b"200000000\x02" + b"x" * 60000
        with contextlib.suppress(ConnectionError):
            connected.sendall(web_socket_frame(2, part))
            for _ in range(200):  # a client that honours its credit would wait
                connected.sendall(web_socket_frame(2, b"\0\0\0\1" + b"x" * 60000))
        self.rest(connected)
        self.assert_works()

    def test_two_clients_do_not_see_each_other(self):
        first, second = self.open(), self.open()
        self.attach(first, "honest")
        second.sendall(web_socket_frame(2, b"\0\0\0\1" + b"\x010\x02"))
        self.rest(second)
        self.assert_works()

    def test_random_messages(self):
        random_ = random.Random(13)
        texts = [b'{"attach":1,"device":"honest","deadline_ms":1000}', b'{"detach":1}', b'{"credit":1,"bytes":5}',
                 b'{"list":"@all","id":1}']
        for _ in range(FUZZED // 5):
            connected = self.open()
            with contextlib.suppress(ConnectionError):
                for _ in range(random_.randint(1, 10)):
                    data = bytearray(random_.choice(texts))
                    place = random_.randrange(len(data))
                    data[place:place + random_.randrange(3)] = random_.randbytes(random_.randrange(3))
                    connected.sendall(web_socket_frame(random_.choice((1, 1, 1, 2)), bytes(data)))
                connected.shutdown(socket.SHUT_WR)
            self.rest(connected)
        self.assert_works()
