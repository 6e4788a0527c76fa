# SPDX-License-Identifier: Apache-2.0
"""Captures the packets on the loopback interface, and reads captures with the dissector in tshark."""
import json
import os
import re
import signal
import socket
import subprocess
import tempfile

from support.wait import TIMEOUT, wait_until

DISSECTOR = os.path.realpath(os.path.join(os.path.dirname(__file__), "..", "..", "..", "packaging",
                                          "wireshark", "runel.lua"))
MARK_PORT = 9  # no program listens there
LUA_ERROR = re.compile(rb"lua.?error|runel\.lua:\d|error during loading|stack traceback", re.IGNORECASE)


class Capture:
    """A running dumpcap. A datagram, which the capture shows, marks its start and its end."""

    def __init__(self, path, snap_length=0):
        self.path = path
        self.marks = 0
        command = ["dumpcap", "-q", "-i", "lo", "-w", path, "-B", "64", "-f",
                   f"tcp port 5111 or tcp port 5112 or udp port {MARK_PORT}"]
        if snap_length:
            command += ["-s", str(snap_length)]
        self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                        stderr=subprocess.DEVNULL)
        self._wait_for_mark()

    def _wait_for_mark(self):
        """Sends marks until one is in the file, and so is everything that was sent before it."""
        self.marks += 1
        mark = b"mark %d of the capture" % self.marks

        def is_captured():
            assert self.process.poll() is None, "dumpcap ended"
            with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
                sender.sendto(mark, ("127.0.0.1", MARK_PORT))
            if not os.path.exists(self.path):
                return False
            with open(self.path, "rb") as file:
                return mark in file.read()

        wait_until(is_captured, "dumpcap captures", pause=0.05)

    def stop(self):
        self._wait_for_mark()
        self.process.send_signal(signal.SIGINT)
        assert self.process.wait(TIMEOUT) == 0
        return self.path

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()


def classic(path):
    """The capture in the classic format, which support.pcap reads."""
    subprocess.run(["editcap", "-F", "nsecpcap", path, f"{path}.classic"], check=True,
                   stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    return f"{path}.classic"


def tshark(path, *arguments, script=DISSECTOR):
    """The standard output of tshark, without the user's settings. Fails on each message of it."""
    with tempfile.TemporaryDirectory() as home:
        ran = subprocess.run(["tshark", "-n", "-r", path, "-X", f"lua_script:{script}", *arguments],
                             env={"PATH": os.environ["PATH"], "HOME": home, "LC_ALL": "C.UTF-8"},
                             stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                             timeout=TIMEOUT)
    complaints = [line for line in ran.stderr.splitlines() if line and not line.startswith(b"Running as")]
    assert ran.returncode == 0 and not complaints, (ran.returncode, complaints[:10])
    return ran.stdout


def lua_errors(output):
    """The lines of tshark's output that tell of an error in the dissector."""
    return [line for line in output.splitlines() if LUA_ERROR.search(line)]


def as_list(value):
    return value if isinstance(value, list) else [value]


def messages(path, *arguments, script=DISSECTOR):
    """The messages that the dissector shows, each a dictionary of its fields without "runel.".

    Added are the frame's number, the TCP stream, and the names of the expert notes with their texts. A
    field with several values has a list of them.
    """
    text = tshark(path, "-2", "-T", "json", "--no-duplicate-keys", "-Y",
                  "runel or _ws.lua.error", *arguments, script=script)
    assert lua_errors(text) == [], lua_errors(text)[:5]
    found = []
    for packet in json.loads(text):
        layers = packet["_source"]["layers"]
        for layer in as_list(layers["runel"]):
            message = {name.removeprefix("runel."): value for name, value in layer.items()}
            notes = {}
            for note in as_list(message.pop("_ws.expert", [])):
                name = next(name for name in note if name.startswith("runel."))
                notes[name.removeprefix("runel.")] = note["_ws.expert.message"]
            number = int(as_list(layers["frame"]["frame.number"])[0])
            found.append({**message, "notes": notes, "frame": number, "stream": layers["tcp"]["tcp.stream"]})
    return found
