# SPDX-License-Identifier: Apache-2.0
"""The HTTP API of a real gateway: outcomes after a crash, streams, logins, and the document."""
import base64
import http.client
import importlib.util
import json
import os
import re
import shutil
import socket
import sqlite3
import tempfile
from pathlib import Path

from support.gateway import HTTP_PORT, GatewayCase
from support.wait import TIMEOUT, wait_until

ROOT = Path(__file__).resolve().parents[2]
DOCUMENT = json.loads((ROOT / "gateway/api/openapi.json").read_text(encoding="utf-8"))
TOKEN = re.compile(r"rgw_[A-Za-z0-9_-]{43}")


def answer_check():
    """The module that validates answers of the unit tests."""
    path = ROOT / "tests/unit/gateway/api/check_answers.py"
    spec = importlib.util.spec_from_file_location("check_answers", path)
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module


class Events:
    """A client of server-sent events."""

    def __init__(self, path, token, headers=None):
        self.connection = http.client.HTTPConnection("127.0.0.1", HTTP_PORT, timeout=TIMEOUT)
        self.connection.request("GET", path, headers={"Authorization": f"Bearer {token}", **(headers or {})})
        self.response = self.connection.getresponse()

    def next(self):
        """The next event as a dictionary; None at the end of the stream."""
        event = {}
        while line := self.response.readline():
            line = line.decode().rstrip("\r\n")
            if not line and "data" in event:
                return event
            name, _, value = line.partition(":")
            if name:
                event[name] = value.removeprefix(" ")
        return None

    def until(self, kind):
        while event := self.next():
            if event["event"] == kind:
                return event
        return None

    def close(self):
        self.connection.close()


class Api(GatewayCase):
    def shared(self):
        """A directory that the devices see too. /run is private to each."""
        directory = tempfile.mkdtemp(dir="/etc")
        self.addCleanup(shutil.rmtree, directory)
        return Path(directory)

    def run_on_all(self, gateway, script, parallel):
        started = gateway.ask("POST", "/v1/operations", {
            "query": "@all", "parallel": parallel,
            "task": {"task": "exec", "arguments": ["/bin/sh", "-c", script], "limit_s": 60}})
        self.assertEqual(started.status, 202, started.body)
        return f"/v1/operations/{started.json['id']}"

    def test_the_outcomes_of_an_operation_are_exact_after_a_crash(self):
        gateway = self.start_gateway(devices__caution_seconds=0)
        hosts = self.controllers(6).start()
        gateway.wait_devices(6)
        marks = self.shared()
        # The programs of one round end when the test says so. Three states of an operation: nothing is
        # answered, some are answered, all but the last ones are.
        script = f"touch {marks}/$(cat /etc/machine-id).$ROUND; while ! [ -e {marks}/go.$ROUND ]; do sleep 0.02; done"
        for number, answered in enumerate((0, 2, 4)):
            text = script.replace("$ROUND", str(number))
            if answered:  # the first ones do not wait
                names = "|".join(hosts.names[:answered])
                text = f"case $(cat /etc/machine-id) in {names}) touch {marks}/$(cat /etc/machine-id).{number};;" \
                       f" *) {text};; esac"
            path = self.run_on_all(gateway, text, parallel=2)
            reached = answered + 2

            def ran():
                return sorted(mark.stem for mark in marks.glob(f"gw-*.{number}"))
            wait_until(lambda: len(ran()) == reached and gateway.get(path)["answered"] == answered,
                       f"{answered} have answered and two are at work")
            gateway.kill()
            (marks / f"go.{number}").touch()
            with sqlite3.connect(gateway.settings["database.url"]) as database:
                self.assertEqual(database.execute("pragma integrity_check").fetchall(), [("ok",)])
            gateway.start()
            wait_until(lambda: gateway.get(path)["state"] == "interrupted", "its results are counted")
            now = gateway.get(path)
            self.assertEqual((now["answered"], now["unknown"], now["not_run"]), (answered, 2, 6 - reached))
            results = gateway.get(f"{path}/results")["items"]
            outcomes = {each["device"]: each["outcome"] for each in results}
            self.assertEqual(sorted(outcomes), hosts.names)
            for name, outcome in outcomes.items():
                self.assertEqual(outcome != "not run", name in ran(), (name, outcome))
            gateway.wait_devices(6)
        # It is not started again by a repeated request with its key.
        body = {"query": "@all", "task": {"task": "exec", "limit_s": 9, "arguments": [
            "/bin/sh", "-c", f"echo >>{marks}/once.$(cat /etc/machine-id)"]}}
        key = {"Idempotency-Key": "once"}
        first = gateway.ask("POST", "/v1/operations", body, headers=key).json["id"]
        wait_until(lambda: gateway.get(f"/v1/operations/{first}")["state"] == "done", "it is done")
        gateway.kill()
        gateway.start()
        gateway.wait_devices(6)
        self.assertEqual(gateway.ask("POST", "/v1/operations", body, headers=key).json["id"], first)
        self.assertEqual({mark.read_text() for mark in marks.glob("once.*")}, {"\n"})
        self.assertEqual(len(list(marks.glob("once.*"))), 6)

    def test_events_continue_after_the_last_one_that_was_seen(self):
        gateway = self.start_gateway()
        hosts = self.controllers(1)
        stream = Events("/v1/events", gateway.token())
        hosts.start()
        added = stream.until("added")
        self.assertEqual(json.loads(added["data"])["device"], "gw-01")
        stream.close()
        gateway.wait_devices(1)
        hosts.stop()
        wait_until(lambda: gateway.get("/v1/devices/gw-01")["state"] == "offline", "it is lost")
        again = Events("/v1/events", gateway.token(), {"Last-Event-ID": added["id"]})
        self.addCleanup(again.close)
        self.assertEqual(again.until("lost")["event"], "lost")
        # A viewer's stream ends with its token.
        viewer = gateway.token("viewer")
        short = Events("/v1/events", viewer)
        self.addCleanup(short.close)
        tokens = gateway.get("/v1/tokens")["items"]
        number = next(each["id"] for each in tokens if each["role"] == "viewer")
        self.assertEqual(gateway.ask("DELETE", f"/v1/tokens/{number}").status, 204)
        self.assertIsNone(short.until("nothing"))
        self.assertEqual(gateway.ask("GET", "/v1/session", token=viewer).status, 401)

    def test_contents_of_any_bytes_and_any_size(self):
        gateway = self.start_gateway()
        self.controllers(1).start()
        gateway.wait_devices(1)
        content = os.urandom(3 << 20)  # more than is kept in memory
        wanted = str(self.shared() / "content")

        def run(**task):
            answer = gateway.ask("POST", "/v1/devices/gw-01/tasks", task)
            self.assertEqual((answer.status, answer.json["outcome"]), (200, "answered"), answer.body[:300])
            return answer.json["reply"]
        encoded = {"base64": base64.b64encode(content).decode()}
        self.assertEqual(run(task="write", arguments=[wanted], content=encoded)["status"], "success")
        self.assertEqual(Path(wanted).read_bytes(), content)
        reply = run(task="read", arguments=[wanted])
        self.assertEqual(base64.b64decode(reply["output"]["base64"]), content)
        self.assertEqual((reply["output_bytes"], reply["truncated"]), (len(content), False))
        refused = gateway.ask("POST", "/v1/devices/gw-01/tasks", {"task": "exec", "arguments": ["/bin/true"]})
        self.assertEqual(refused.status, 422)
        self.assertIn("job", refused.json["hint"])

    def test_a_browser_is_logged_in_for_this_site_only(self):
        gateway = self.start_gateway()
        answer = gateway.ask("POST", "/v1/session", {"token": gateway.token()}, token="")
        self.assertEqual(answer.status, 200, answer.body)
        cookie = answer.headers["Set-Cookie"]
        self.assertRegex(cookie, r"^runelgw=[\w-]{43}; Path=/; HttpOnly; SameSite=Strict$")
        cookie = cookie.partition(";")[0]
        site = f"http://127.0.0.1:{HTTP_PORT}"

        def change(**headers):
            sent = {"Cookie": cookie, **{name.replace("_", "-"): text for name, text in headers.items()}}
            return gateway.ask("PUT", "/v1/groups/g", {"query": "@all"}, token="", headers=sent).status
        self.assertEqual(change(), 403)
        self.assertEqual(change(Origin="http://evil.example"), 403)
        self.assertEqual(change(Origin="null"), 403)
        self.assertEqual(change(Origin=site, Sec_Fetch_Site="cross-site"), 403)
        self.assertEqual(gateway.get("/v1/groups")["items"], [])
        self.assertEqual(change(Origin=site, Sec_Fetch_Site="same-origin"), 201)
        foreign = gateway.ask("GET", "/v1/session", token="", headers={"Cookie": cookie, "Host": "evil.example"})
        self.assertIn(foreign.status, (400, 403, 421))
        mine = gateway.ask("GET", "/v1/session", token="", headers={"Cookie": cookie})
        self.assertEqual((mine.status, mine.json["way"]), (200, "session"))

    def test_what_was_changed_is_recorded_and_no_secret_is(self):
        gateway = self.start_gateway()
        token = gateway.token()
        gateway.ask("PUT", "/v1/groups/one", {"query": "@all"})
        gateway.ask("PUT", "/v1/groups/two", {"query": "@all"}, token=gateway.token("viewer"))
        gateway.ask("PUT", "/v1/groups/three", {"query": "@all"}, token="rgw_" + "A" * 43)
        self.assertEqual(gateway.ask("GET", f"/v1/devices?query={token}").status, 400)
        with socket.create_connection(("127.0.0.1", HTTP_PORT), TIMEOUT) as raw:
            raw.sendall(f"GET /{token} HTTP/1.1\r\nHost: 127.0.0.1:{HTTP_PORT}\r\n{token}\r\n\r\n".encode())
            raw.recv(1000)
        gateway.wait_logged("setGroup", 3)
        gateway.stop()
        gateway.start()
        records = [each for each in gateway.get("/v1/audit")["items"] if each["what"] == "setGroup"]
        self.assertEqual([(each["outcome"], each["from"]) for each in records],
                         [("refused (unauthorized)", "127.0.0.1"), ("refused (forbidden)", "127.0.0.1"),
                          ("done", "127.0.0.1")])
        self.assertEqual(records[2]["role"], "admin")
        self.assertEqual(TOKEN.findall(gateway.log()), [])
        for file in Path(gateway.directory).glob("fleet.db*"):
            self.assertEqual(TOKEN.findall(file.read_bytes().decode("latin-1")), [], file)

    def test_the_document_describes_what_is_answered(self):
        gateway = self.start_gateway()
        self.controllers(1).start()
        gateway.wait_devices(1)
        check = answer_check()
        gateway.ask("PUT", "/v1/groups/g", {"query": "@all"})
        schemas = check.Schemas(DOCUMENT)
        values = {"{name}": "gw-01", "{group}": "g", "{token}": "1", "{rule}": "none", "{operation}": "1"}
        seen = 0
        for method, path, operation in check.operations(DOCUMENT):
            if method != "GET" or operation["operationId"] in ("attach", "streamEvents"):
                continue
            for place, value in values.items():
                path = path.replace(place, value)
            got = gateway.ask("GET", path)
            answer = {"status": got.status, "type": got.headers["Content-Type"], "body": got.body.decode()}
            self.assertEqual(check.check_answer(DOCUMENT, schemas, operation, answer), [], (path, answer))
            seen += got.status == 200
        self.assertGreater(seen, 15)
        self.assertEqual(gateway.get("/v1/openapi.json", token=""), DOCUMENT)
