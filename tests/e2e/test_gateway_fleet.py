# SPDX-License-Identifier: Apache-2.0
"""Real daemons behind a real gateway: twenty hosts with a network namespace each."""
import http.client
import json
import threading
import time

from support.gateway import HTTP_PORT, GatewayCase
from support.wait import TIMEOUT, wait_until

MANY = 20
CAUTION = 3


class Fleet(GatewayCase):
    def run_task(self, gateway, device, task, *arguments, **more):
        answer = gateway.ask("POST", f"/v1/devices/{device}/tasks",
                             {"task": task, "arguments": list(arguments), **more})
        self.assertEqual(answer.status, 200, answer.body)
        return answer.json

    def state(self, gateway, device):
        return gateway.get(f"/v1/devices/{device}")["state"]

    def test_twenty_daemons_are_named_work_and_return(self):
        gateway = self.start_gateway()
        hosts = self.controllers(MANY).start()
        devices = gateway.wait_devices(MANY)
        self.assertEqual(sorted(devices), hosts.names)
        self.assertEqual({each["address"] for each in devices.values()},
                         {hosts.address(name) for name in hosts.names})
        # A task on each of them, all at once.
        started = gateway.ask("POST", "/v1/operations", {
            "query": "@all",
            "task": {"task": "exec", "arguments": ["/bin/cat", "/etc/machine-id"], "limit_s": 60}})
        self.assertIn(started.status, (200, 201, 202), started.body)
        path = f"/v1/operations/{started.json['id']}"
        wait_until(lambda: gateway.get(path)["state"] == "done", "the operation ends")
        self.assertEqual(gateway.get(path)["answered"], MANY)
        results = gateway.get(f"{path}/results?limit=100")["items"]
        self.assertEqual(sorted(each["device"] for each in results), hosts.names)
        for each in results:
            self.assertIn(each["device"], json.dumps(each["reply"]))
        # One is lost and returns.
        hosts.stop("gw-07")
        wait_until(lambda: self.state(gateway, "gw-07") == "offline", "the loss is seen")
        lost = self.run_task(gateway, "gw-07", "fileexists", "/")
        self.assertEqual((lost["outcome"], lost["reason"]), ("not run", "offline"))
        self.assertEqual(sorted(gateway.devices("state:offline")), ["gw-07"])
        hosts.start("gw-07")
        gateway.wait_devices(MANY)
        self.assertEqual(self.run_task(gateway, "gw-07", "fileexists", "/")["outcome"], "answered")
        def history():
            return [each["event"] for each in gateway.get("/v1/devices/gw-07/history")["items"]]
        wait_until(lambda: (history().count("connected"), history().count("lost")) == (2, 1), "the history is stored")
        # An orderly restart: all are worked on at once.
        self.assertEqual(gateway.stop(), 0)
        gateway.start()
        gateway.wait_devices(MANY)
        self.assertNotIn("not orderly", gateway.log())
        self.assertTrue(all(hosts.is_running(name) for name in hosts.names), "a daemon was stopped")

    def test_after_a_crash_known_devices_are_not_written_to_for_a_while(self):
        gateway = self.start_gateway(devices__caution_seconds=CAUTION)
        hosts = self.controllers(3).start()
        gateway.wait_devices(3)
        for name in hosts.names:
            wait_until(lambda name=name: gateway.get(f"/v1/devices/{name}/history")["items"],
                       "the database knows them")
        gateway.kill()
        started = time.monotonic()
        gateway.start()
        self.assertIn("nothing is written to known devices for 3 s", gateway.log())
        gateway.wait_devices(3)
        self.assertGreaterEqual(time.monotonic() - started, CAUTION)
        self.assertTrue(all(hosts.is_running(name) for name in hosts.names))
        self.assertEqual(self.run_task(gateway, "gw-01", "fileexists", "/")["outcome"], "answered")

    def test_what_is_unknown_after_a_crash_is_told_as_unknown(self):
        gateway = self.start_gateway()
        self.controllers(1).start()
        gateway.wait_devices(1)
        token = gateway.token()
        connection = http.client.HTTPConnection("127.0.0.1", HTTP_PORT, timeout=TIMEOUT)
        body = json.dumps({"task": "exec", "arguments": ["/bin/sleep", "5"], "limit_s": 30})
        answers = []

        def ask():
            connection.request("POST", "/v1/devices/gw-01/tasks", body,
                               {"Authorization": f"Bearer {token}", "Content-Type": "application/json"})
            answers.append(json.loads(connection.getresponse().read()))
        thread = threading.Thread(target=ask)
        thread.start()
        wait_until(lambda: gateway.get("/v1/devices/gw-01?fields=queue")["queue"]["busy_with"],
                   "the program runs")
        self.assertEqual(gateway.stop(), 0)
        thread.join(TIMEOUT)
        self.assertEqual([(each["outcome"], each["reason"]) for each in answers], [("unknown", "stopping")])

    def test_two_devices_with_one_identity(self):
        gateway = self.start_gateway(admission__pin="nothing")
        hosts = self.controllers(2)
        for name in hosts.names:
            hosts.claim(name, "twin")
        hosts.start()
        # Without a pin nothing tells which one is meant: neither is worked on.
        wait_until(lambda: len(gateway.devices()) == 1 and self.state(gateway, "twin") == "quarantined",
                   "both are quarantined")
        answer = self.run_task(gateway, "twin", "fileexists", "/")
        self.assertEqual((answer["outcome"], answer["reason"]), ("not run", "quarantined"))
        # One of them goes: the other one is meant.
        hosts.stop("gw-02")
        wait_until(lambda: self.state(gateway, "twin") == "online", "the other one is worked on")
        self.assertEqual(gateway.get("/v1/devices/twin")["address"], hosts.address("gw-01"))
        self.assertEqual(self.run_task(gateway, "twin", "fileexists", "/")["outcome"], "answered")
        self.assertTrue(hosts.is_running("gw-01"))

    def test_the_pinned_device_stays_and_the_other_one_is_quarantined(self):
        gateway = self.start_gateway()
        hosts = self.controllers(2)
        for name in hosts.names:
            hosts.claim(name, "twin")
        hosts.start("gw-01")
        gateway.wait_devices(1)
        hosts.start("gw-02")
        gateway.wait_logged("device twin: quarantined")
        self.assertEqual(self.state(gateway, "twin"), "online")
        self.assertEqual(gateway.get("/v1/devices/twin")["address"], hosts.address("gw-01"))
        self.assertEqual(self.run_task(gateway, "twin", "fileexists", "/")["outcome"], "answered")
        self.assertTrue(hosts.is_running("gw-02"), "a quarantined device is kept connected")

    def test_the_clauses_of_an_agent(self):
        gateway = self.start_gateway()
        hosts = self.controllers(1).start()
        gateway.wait_devices(1)
        agent = hosts.agent("gw-01")
        self.addCleanup(agent.close)
        agent.sendall(b"<progress>50 %</progress>")
        wait_until(lambda: gateway.get("/v1/devices/gw-01/clauses")["items"], "the clause arrives")
        clause = gateway.get("/v1/devices/gw-01/clauses")["items"][0]
        self.assertIn("<progress>50 %</progress>", json.dumps(clause))
        self.assertTrue(gateway.get("/v1/devices/gw-01")["agent"])
        self.assertEqual(self.run_task(gateway, "gw-01", "fileexists", "/")["outcome"], "answered")

    def test_new_devices_wait_for_approval(self):
        gateway = self.start_gateway(admission__mode="approve")
        hosts = self.controllers(1).start()
        gateway.wait_devices(1, state="waiting")
        answer = self.run_task(gateway, "gw-01", "fileexists", "/")
        self.assertEqual((answer["outcome"], answer["reason"]), ("not run", "waiting"))
        self.assertEqual(gateway.ask("POST", "/v1/devices/gw-01/approve").status, 200)
        gateway.wait_devices(1)
        self.assertEqual(self.run_task(gateway, "gw-01", "fileexists", "/")["outcome"], "answered")
        self.assertTrue(hosts.is_running("gw-01"))
