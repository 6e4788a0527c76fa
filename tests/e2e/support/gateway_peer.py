# SPDX-License-Identifier: Apache-2.0
"""The gateway's side of the attach protocol (docs/attach.md), in front of daemons or scripted devices."""
import base64
import contextlib
import hashlib
import json
import queue
import re
import select
import socket
import ssl
import struct
import threading

from support.ctl import FRAME
from support.threads import close_served, serve_in_thread
from support.wire import parse_record

GUID = b"258EAFA5-E914-47DA-95CA-C5AB0DC85B11"
SUBPROTOCOL = "runel.attach.v1"
TOKEN = "rgw_test-token"
WINDOW = 262144
TEXT, BINARY, CLOSE, PING, PONG = 1, 2, 8, 9, 10


def unmasked(data, key):
    """@p data without the mask, as one long number: byte by byte it would take seconds."""
    size = len(data)
    whole = (key * (size // 4 + 1))[:size]
    return (int.from_bytes(data, "big") ^ int.from_bytes(whole, "big")).to_bytes(size, "big")


class Ended(Exception):
    """The client has closed the connection."""


class WebSocket:
    """The server's side of one WebSocket."""

    def __init__(self, connected):
        self.connected = connected
        self.lock = threading.Lock()

    def _exactly(self, count):
        data = bytearray()
        while len(data) < count:
            part = self._some(count - len(data))
            if not part:
                raise Ended
            data += part
        return bytes(data)

    def _some(self, count):
        if not isinstance(self.connected, ssl.SSLSocket):
            return self.connected.recv(count)
        # A TLS connection must not be used by two threads at once.
        if not self.connected.pending():
            select.select([self.connected], [], [])
        with self.lock:
            return self.connected.recv(count)

    def receive(self):
        """The next message, as its kind and its bytes."""
        whole, kind = b"", None
        while True:
            first, second = self._exactly(2)
            assert second & 0x80, "a client masks its frames"
            size = second & 0x7f
            if size == 126:
                size = struct.unpack(">H", self._exactly(2))[0]
            elif size == 127:
                size = struct.unpack(">Q", self._exactly(8))[0]
            key = self._exactly(4)
            data = unmasked(self._exactly(size), key)
            code = first & 0x0f
            if code == PING:
                self.send(data, PONG)
            elif code == CLOSE:
                raise Ended
            elif code != PONG:
                kind = code or kind
                whole += data
                if first & 0x80:
                    return kind, whole

    def send(self, data, kind=BINARY):
        size = len(data)
        head = bytes([0x80 | kind])
        if size < 126:
            head += bytes([size])
        elif size < 65536:
            head += struct.pack(">BH", 126, size)
        else:
            head += struct.pack(">BQ", 127, size)
        self.raw(head + data)

    def raw(self, data):
        with self.lock:
            self.connected.sendall(data)

    def tell(self, **message):
        self.send(json.dumps(message).encode(), TEXT)


class Channel:
    """One attached device: a connection to its daemon, with a thread for each direction."""

    def __init__(self, client, number, name, where):
        self.client = client
        self.number = number
        host, _, port = where.rpartition(":")
        self.device = socket.create_connection((host, int(port)), timeout=10)
        self.device.settimeout(None)
        self.lock = threading.Lock()
        self.pending = []      # of each request: None, or the message in place of its answer
        self.over = False
        self.credit = threading.Semaphore(0)
        self.room = WINDOW
        self.changed = threading.Condition()
        self.arrived = queue.SimpleQueue()
        self.name = name
        client.socket.tell(attached=number, device=name, hostid=name)
        self.threads = [serve_in_thread(self._forward), serve_in_thread(self._answer)]

    # From the client to the device.

    def _forward(self):
        data = b""
        taken = 0
        while (part := self.arrived.get()) is not None:
            data += part
            taken += len(part)
            if taken >= WINDOW // 4:
                self.client.grant(self.number, taken)
                taken = 0
            while (head := FRAME.match(data)) and len(data) >= head.end() + int(head[1]):
                end = head.end() + int(head[1])
                request, data = data[head.end():end], data[end:]
                self.request(request, head[0] + request)

    def request(self, payload, whole):
        words = []
        limit = 0
        with contextlib.suppress(AssertionError, ValueError):
            parsed = parse_record(payload)
            words, limit = parsed.arguments, parsed.exec_param
        self.client.peer.requests.append((self.name, words))
        task = words[0] if words else b""
        if task in (b"kill", b"wait") or (task == b"exec" and limit <= 0):
            self._add({"failed": self.number, "outcome": "not run", "reason": "refused",
                       "text": "the gateway refuses it"})
            return
        instead = self.client.peer.instead(self, words)
        if instead:
            self._add(instead)
            return
        with contextlib.suppress(OSError):
            self._add(None if task != b"restart" else {"sent": self.number})
            self.device.sendall(whole)

    def _add(self, message):
        with self.lock:
            self.pending.append(message)
            self._tell_first()

    def _tell_first(self):
        while self.pending and self.pending[0]:
            self.client.tell(**self.pending.pop(0))

    # From the device to the client.

    def _answer(self):
        data = b""
        with contextlib.suppress(OSError):
            while part := self.device.recv(65536):
                data += part
                self._pass(part)
                while (head := FRAME.match(data)) and len(data) >= head.end() + int(head[1]):
                    data = data[head.end() + int(head[1]):]
                    with self.lock:
                        if self.pending:
                            self.pending.pop(0)
                        self._tell_first()
        self.end("the device closed the connection")

    def _pass(self, part):
        while part:
            with self.changed:
                self.changed.wait_for(lambda: self.room > 0 or self.over)
                count = min(self.room, len(part))
                self.room -= count
            if self.over:
                return
            self.client.socket.send(struct.pack(">I", self.number) + part[:count])
            part = part[count:]

    def granted(self, count):
        with self.changed:
            self.room += count
            self.changed.notify_all()

    def end(self, text):
        """Tells what has become of the requests, then that the channel has ended."""
        with self.lock:
            if self.over:
                return
            self.over = True
            for message in self.pending:
                self.client.tell(**(message or {"failed": self.number, "outcome": "unknown",
                                                "reason": "lost", "text": text}))
            self.pending = []
            self.client.tell(lost=self.number, text=text)
        self.close()

    def close(self):
        self.over = True
        with self.changed:
            self.changed.notify_all()
        self.arrived.put(None)
        with contextlib.suppress(OSError):
            self.device.shutdown(socket.SHUT_RDWR)
        self.device.close()


class Client:
    """One WebSocket and its channels."""

    def __init__(self, peer, connected):
        self.peer = peer
        self.socket = WebSocket(connected)
        self.channels = {}

    def tell(self, **message):
        with contextlib.suppress(OSError):
            self.socket.tell(**message)

    def grant(self, number, count):
        if self.peer.grants:
            self.tell(credit=number, bytes=count)

    def serve(self):
        try:
            while True:
                kind, data = self.socket.receive()
                if kind == TEXT:
                    self.peer.messages.append(json.loads(data))
                    self.text(self.peer.messages[-1])
                else:
                    number = struct.unpack(">I", data[:4])[0]
                    self.peer.received += len(data) - 4
                    if number in self.channels:
                        self.channels[number].arrived.put(data[4:])
        except (Ended, OSError):
            pass
        finally:
            for channel in self.channels.values():
                channel.close()

    def text(self, message):
        if self.peer.answers(self, message):
            return
        if "attach" in message:
            self.attach(message["attach"], message["device"])
        elif "detach" in message:
            if channel := self.channels.pop(message["detach"], None):
                channel.close()
        elif "credit" in message:
            if channel := self.channels.get(message["credit"]):
                channel.granted(message["bytes"])
        elif "list" in message:
            self.list(message)

    def attach(self, number, name):
        where = self.peer.devices.get(name)
        try:
            self.channels[number] = Channel(self, number, name, where or "")
        except (OSError, ValueError):
            self.tell(refused=number, reason="offline",
                      text=f"{name} is offline" if where else f"no device {name}")

    def list(self, message):
        try:
            names = self.peer.select(message["list"])
        except ValueError as error:
            self.tell(error="query", id=message["id"], text=str(error))
            return
        begin = int(message.get("cursor", 0))
        part = names[begin:begin + self.peer.page]
        rest = {"next": str(begin + len(part))} if begin + len(part) < len(names) else {}
        self.tell(devices=message["id"], **rest,
                  list=[{"device": name, "state": "online", "address": self.peer.devices[name],
                         "devicetype": "test"} for name in part])


class GatewayPeer:
    """A gateway for @p devices, a map of names to HOST:PORT. `requests` has what reached it.

    Tests replace `upgrade`, `answers` and `instead` to misbehave.
    """

    def __init__(self, case, devices, certificate=None, client_authority=None):
        self.devices = devices
        self.tags = {}
        self.page = 1000
        self.requests = []
        self.messages = []
        self.received = 0
        self.heads = []
        self.grants = True
        self.clients = []
        self.tls = None
        if certificate:
            self.tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
            self.tls.load_cert_chain(certificate)
            if client_authority:
                self.tls.verify_mode = ssl.CERT_REQUIRED
                self.tls.load_verify_locations(client_authority)
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        self.url = f"{'https' if certificate else 'http'}://127.0.0.1:{self.port}"
        self.served = []
        self.thread = serve_in_thread(self._accept)
        case.addCleanup(self.close)

    def _accept(self):
        with contextlib.suppress(OSError):
            while True:
                connected, _ = self.listener.accept()
                connected.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
                self.served.append((connected, serve_in_thread(self._serve, connected)))

    def _serve(self, connected):
        with contextlib.suppress(OSError, Ended):
            if self.tls:
                connected = self.tls.wrap_socket(connected, server_side=True)
            head = b""
            while b"\r\n\r\n" not in head:
                part = connected.recv(4096)
                if not part:
                    return
                head += part
            self.heads.append(head.decode())
            if self.upgrade(connected, head.decode()):
                client = Client(self, connected)
                self.clients.append(client)
                client.serve()
        with contextlib.suppress(OSError):
            connected.close()

    def upgrade(self, connected, head):
        """Answers the request for a WebSocket. Returns whether it is one now."""
        fields = dict(re.findall(r"(?m)^([^:\r\n]+): *([^\r\n]*)", head))
        fields = {name.lower(): value for name, value in fields.items()}
        if not self.tls or "authorization" in fields:
            if fields.get("authorization") != f"Bearer {TOKEN}":
                self.refuse(connected, "401 Unauthorized")
                return False
        if not head.startswith("GET /v1/attach HTTP/1.1\r\n"):
            self.refuse(connected, "404 Not Found")
            return False
        key = fields["sec-websocket-key"].encode()
        accept = base64.b64encode(hashlib.sha1(key + GUID).digest()).decode()
        connected.sendall((f"HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\n"
                           f"Connection: Upgrade\r\nSec-WebSocket-Accept: {accept}\r\n"
                           f"Sec-WebSocket-Protocol: {SUBPROTOCOL}\r\n\r\n").encode())
        return True

    @staticmethod
    def refuse(connected, status, body="{}"):
        connected.sendall(f"HTTP/1.1 {status}\r\nContent-Type: application/problem+json\r\n"
                          f"Content-Length: {len(body)}\r\nConnection: close\r\n\r\n{body}".encode())

    def answers(self, client, message):
        """Whether the test has dealt with the text message of the client."""
        del client, message
        return False

    def instead(self, channel, words):
        """The message in place of the answer to a request, or None to pass it on."""
        del channel, words
        return None

    def select(self, query):
        """The names that match: lists of names and ranges, @all, KEY=VALUE, parentheses with tags."""
        if query.count("(") != query.count(")"):
            raise ValueError(f"query '{query}': unbalanced parenthesis")
        names = sorted(self.devices)
        if inner := re.fullmatch(r"\((.*)\)((?: \S+=\S+)+)", query):
            for tag in inner[2].split():
                names = [name for name in names if tag in self.tags.get(name, ())]
            return [name for name in names if name in self.select(inner[1])]
        found = set()
        for element in re.split(r",(?![^\[]*\])", query):
            if element == "@all":
                found.update(names)
            elif element.startswith("@"):
                found.update(name for name in names if f"group={element[1:]}" in self.tags.get(name, ()))
            elif "=" in element:
                found.update(name for name in names if element in self.tags.get(name, ()))
            else:
                ranges = re.fullmatch(r"(.*)\[(\d+)-(\d+)\]", element)
                wanted = ([f"{ranges[1]}{number}" for number in range(int(ranges[2]), int(ranges[3]) + 1)]
                          if ranges else [element])
                found.update(set(wanted) & set(names))
        return sorted(found)

    def cut(self):
        """Closes all connections of clients."""
        for client in self.clients:
            with contextlib.suppress(OSError):
                client.socket.connected.shutdown(socket.SHUT_RDWR)

    def close(self):
        close_served([(self.listener, self.thread)])
        self.cut()
        close_served(self.served)
