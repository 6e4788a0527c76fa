#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""The steps of scripts/demo-fleet, in isolated namespaces. It uses the harness of the end-to-end tests."""
import json
import os
import subprocess
import sys
import tempfile
import time
import urllib.parse

from support.gateway import Controllers, Gateway
from support.wait import wait_until

RUNELCTL = os.environ["RUNELCTL_BIN"]
DEVICES = 20
WIDTH = 108


def title(text):
    print(f"\n\n== {text}", flush=True)


def show(lines, most=24):
    """Prints @p lines, and how many were left out."""
    for line in lines[:most]:
        print(f"    {line[:WIDTH]}")
    if len(lines) > most:
        print(f"    ... {len(lines) - most} more")
    sys.stdout.flush()


def columns(rows):
    """@p rows as lines with aligned columns."""
    widths = [max(len(str(row[i])) for row in rows) for i in range(len(rows[0]))]
    return ["  ".join(f"{str(cell):{width}}" for cell, width in zip(row, widths)).rstrip() for row in rows]


class Story:
    def __init__(self, directory):
        self.directory = directory
        self.gateway = Gateway(directory, devices__caution_seconds=5)
        self.hosts = Controllers(directory, DEVICES)

    def call(self, method, path, body=None):
        """One request of the HTTP interface, printed."""
        print(f"\n  {method} {urllib.parse.unquote(path)}" + (f"  {json.dumps(body)}" if body else ""), flush=True)
        answer = self.gateway.ask(method, path, body)
        if answer.status >= 300:
            sys.exit(f"demo-fleet: {answer.status}: {answer.body.decode()}")
        return answer.json if answer.body else None

    def find(self, query):
        found = self.call("GET", "/v1/devices?limit=100&query=" + urllib.parse.quote(query))["items"]
        show([", ".join(device["name"] for device in found) or "(none)"])
        return found

    def runelgw(self, *words):
        print("\n  $ runelgw " + " ".join(words), flush=True)
        done = self.gateway.command(*words)
        if done.returncode != 0:
            sys.exit(f"demo-fleet: {done.stderr.decode()}")
        return done.stdout.decode()

    def runelctl(self, *words):
        """One command of runelctl through the gateway, printed."""
        print("\n  $ runelctl --gateway http://127.0.0.1:5180 " + " ".join(words), flush=True)
        done = subprocess.run(
            [RUNELCTL, "--gateway", "http://127.0.0.1:5180", *words], stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT, check=False, env={**os.environ, "RUNELCTL_TOKEN": self.gateway.token()})
        show(done.stdout.decode(errors="replace").splitlines())
        if done.returncode != 0:
            sys.exit(f"demo-fleet: runelctl ended with status {done.returncode}")

    def start(self):
        title("A gateway with an empty database")
        self.gateway.start()
        show(self.gateway.log().splitlines())
        token = self.runelgw("token", "create", "--name", "anna", "--role", "admin").strip()
        self.gateway.token_of["admin",] = token
        show([f"{token[:8]}... (printed once: the database has its hash only)"])
        title(f"{DEVICES} devices dial it, each from its own network namespace")
        started = time.monotonic()
        self.hosts.start()
        self.gateway.wait_devices(DEVICES)
        show([f"all {DEVICES} are connected and identified after {time.monotonic() - started:.1f} s"])

    def inventory(self):
        title("The inventory: what the gateway has asked each device")
        def asked():
            devices = self.gateway.devices().values()
            return all(device["kernel"] for device in devices)
        wait_until(asked, "the gateway has asked all devices")
        found = self.call("GET", "/v1/devices?limit=5")["items"]
        show(columns([("NAME", "STATE", "ADDRESS", "KERNEL", "FREE"),
                      *((each["name"], each["state"], each["address"], each["kernel"],
                         f"{each['free_bytes'] >> 30} GiB") for each in found)]))
        title("Queries: names with ranges, tags, states, ages, free space")
        for number in range(1, 6):
            self.gateway.ask("PUT", f"/v1/devices/gw-{number:02}/tags/site", {"value": "north"})
        self.find("site=north")
        self.find("gw-[01-03,20]")
        self.find("site=north !gw-01 free>1M")
        self.call("PUT", "/v1/groups/northern", {"query": "site=north"})
        self.find("@northern seen<1h")

    def fan_out(self):
        title("A fan-out: one task on all devices")
        started = self.call("POST", "/v1/operations", {
            "query": "@all", "task": {"task": "exec", "arguments": ["/bin/cat", "/etc/machine-id"], "limit_s": 20}})
        path = f"/v1/operations/{started['id']}"
        wait_until(lambda: self.gateway.get(path)["state"] == "done", "the operation ends")
        done = self.gateway.get(path)
        show([f"{done['devices']} devices: {done['answered']} answered, {done['not_run']} not run, "
              f"{done['unknown']} unknown whether it ran"])
        self.runelctl("-d", "@northern", "--timeout", "10", "exec", "--", "/bin/hostname")

    def push(self):
        title("A push to all devices through the gateway")
        path = os.path.join(self.directory, "firmware.bin")
        with open(path, "wb") as file:
            file.write(os.urandom(4 << 20))
        self.runelctl("-d", "@all", "push", path, "/run/")

    def clauses(self):
        title("An agent on a device: its clauses reach the gateway")
        with self.hosts.agent("gw-04") as agent:
            agent.sendall(b"<progress>50 %</progress><progress>100 %</progress>")
            wait_until(lambda: len(self.gateway.get("/v1/devices/gw-04/clauses")["items"]) == 2, "the clauses arrive")
            clauses = self.call("GET", "/v1/devices/gw-04/clauses")["items"]
            show([f"{each['time']}  {each['text']}" for each in clauses])
            self.call("POST", "/v1/devices/gw-04/clauses", {"text": "<install package='7'/>"})
            show([f"the agent got {agent.recv(1000)!r}"])

    def loss(self):
        title("A device is lost and comes back")
        self.hosts.stop("gw-09")
        wait_until(lambda: self.gateway.get("/v1/devices/gw-09")["state"] == "offline", "the loss is seen")
        answer = self.call("POST", "/v1/devices/gw-09/tasks", {"task": "fileexists", "arguments": ["/"]})
        show([f"{answer['outcome']} ({answer['reason']}): {answer['text']}"])
        self.find("state:offline")
        self.hosts.start("gw-09")
        self.gateway.wait_devices(DEVICES)
        answer = self.call("POST", "/v1/devices/gw-09/tasks", {"task": "fileexists", "arguments": ["/"]})
        show([answer["outcome"]])
        def history():
            items = self.gateway.get("/v1/devices/gw-09/history")["items"]
            return items if [each["event"] for each in items].count("connected") == 2 else None
        wait_until(history, "the history is stored")
        self.call("GET", "/v1/devices/gw-09/history")
        show([f"{each['time']}  {each['event']:10} {each['reason']}" for each in reversed(history())])

    def end(self):
        title("Who has changed what")
        audit = self.call("GET", "/v1/audit?limit=8")["items"]
        show(columns([(each["time"], each["who"], each["what"], each["devices"], each["outcome"])
                      for each in reversed(audit)]))
        title("The gateway ends: every daemon still runs, and dials the next one")
        status = self.gateway.stop()
        running = sum(self.hosts.is_running(name) for name in self.hosts.names)
        show([f"the gateway ended with status {status}, {running} of {DEVICES} daemons run"])
        if status != 0 or running != DEVICES:
            sys.exit("demo-fleet: that is not what should happen")


def main():
    with tempfile.TemporaryDirectory(prefix="runelgw-demo-") as directory:
        story = Story(directory)
        try:
            for step in (story.start, story.inventory, story.fan_out, story.push, story.clauses, story.loss,
                         story.end):
                step()
        finally:
            story.gateway.close()
            story.hosts.close()
    print("\nAll of it ran in private namespaces. docs/gateway.md tells how to set up a gateway.")


main()
