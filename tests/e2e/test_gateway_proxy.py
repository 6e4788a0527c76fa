# SPDX-License-Identifier: Apache-2.0
"""haproxy with the packaged example in front of a real gateway: it verifies the certificates of devices."""
import contextlib
import os
import re
import socket
import ssl
import subprocess
import threading

from support.gateway import DEVICE_PORT, GatewayCase
from support.wait import TIMEOUT, wait_until

EXAMPLE = os.path.join(os.path.dirname(__file__), "../../packaging/runelgw/haproxy.cfg")
TLS_PORT = 5113


class Device(threading.Thread):
    """One task connection of a device through the proxy. Answers its identity, and all else with success."""

    def __init__(self, context, hostid, session=None):
        super().__init__(daemon=True)
        self.hostid = hostid
        self.tls = context.wrap_socket(socket.create_connection(("127.0.0.1", TLS_PORT), TIMEOUT), session=session)
        self.start()

    def run(self):
        received = b""
        with contextlib.suppress(OSError):
            while more := self.tls.recv(65536):
                received += more
                while frame := re.match(rb"\x01(\d+)\x02", received):
                    end = frame.end() + int(frame[1])
                    if len(received) < end:
                        break
                    self.answer(received[frame.end():end])
                    received = received[end:]

    def answer(self, request):
        output = {b"hostid": self.hostid, b"devicetype": "server"}.get(request.split(b":")[1].split(b" ")[0], "")
        reply = f"SlaveTask 0 0 {len(output)}:{output} 0 0 0 0 0"
        self.tls.sendall(f"\x01{len(reply)}\x02{reply}".encode())

    def close(self):
        """Ends the connection. Returns its session, with which another one can begin."""
        session = self.tls.session
        # A close alone does not end a read of the thread. The method of the TLS socket would drop what it uses.
        socket.socket.shutdown(self.tls, socket.SHUT_RDWR)
        self.join(TIMEOUT)
        self.tls.close()
        return session


class ProxyInFront(GatewayCase):
    def setUp(self):
        super().setUp()
        self.certify("devices-ca", "-x509", "-subj", "/CN=authority")
        for name in ("gateway", "gw-7", "gw-8"):
            self.certify(name, "-x509", "-subj", f"/CN={name}", "-CA", self.path("devices-ca.pem"),
                         "-CAkey", self.path("devices-ca.key"))
        self.certify("stranger", "-x509", "-subj", "/CN=gw-7")
        with open(self.path("gateway.pem"), "a", encoding="ascii") as chain:
            with open(self.path("gateway.key"), encoding="ascii") as key:
                chain.write(key.read())

    def path(self, name):
        return os.path.join(self.directory, name)

    def certify(self, name, *options):
        subprocess.run(["openssl", "req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                        "-days", "2", "-keyout", self.path(f"{name}.key"), "-out", self.path(f"{name}.pem"), *options],
                       check=True, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def start_proxy(self):
        with open(EXAMPLE, encoding="utf-8") as example:
            text = example.read()
        # A test may open fewer descriptors.
        text = text.replace("/etc/haproxy/", f"{self.directory}/").replace("maxconn 20000", "maxconn 200")
        with open(self.path("haproxy.cfg"), "w", encoding="utf-8") as file:
            file.write(text)
        proxy = subprocess.Popen(["haproxy", "-db", "-f", self.path("haproxy.cfg")], stdin=subprocess.DEVNULL,
                                 stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(proxy.wait)
        self.addCleanup(proxy.kill)

        def listens():
            with contextlib.suppress(ConnectionRefusedError):
                socket.create_connection(("127.0.0.1", TLS_PORT), TIMEOUT).close()
                return True
            return proxy.poll() is not None
        wait_until(listens, "the proxy listens")
        self.assertIsNone(proxy.poll(), "the proxy refuses the example")

    def context(self, name, version=ssl.TLSVersion.TLSv1_3):
        made = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
        made.check_hostname = False
        made.load_verify_locations(self.path("devices-ca.pem"))
        made.minimum_version = made.maximum_version = version
        if name:
            made.load_cert_chain(self.path(f"{name}.pem"), self.path(f"{name}.key"))
        return made

    def test_the_verified_name_tells_devices_apart(self):
        gateway = self.start_gateway(devices__listen=f"127.0.0.1:{DEVICE_PORT}", devices__proxies="127.0.0.1")
        self.start_proxy()
        Device(self.context("gw-7"), "unit-7")
        Device(self.context("gw-8", ssl.TLSVersion.TLSv1_2), "unit-8")
        devices = gateway.wait_devices(2)
        self.assertEqual({name: each["certificate"] for name, each in devices.items()},
                         {"unit-7": "gw-7", "unit-8": "gw-8"})
        answer = gateway.ask("POST", "/v1/devices/unit-8/tasks", {"task": "fileexists", "arguments": ["/"]})
        self.assertEqual(answer.json["outcome"], "answered", answer.body)
        # One without a certificate of the authority gets no further than the proxy.
        for name in ("", "stranger"):
            with self.assertRaises(OSError):
                refused = self.context(name).wrap_socket(socket.create_connection(("127.0.0.1", TLS_PORT), TIMEOUT))
                self.assertEqual(refused.recv(1), b"")  # with TLS 1.3 the refusal comes after the handshake
                raise ConnectionError
        # A client of the proxy's host that pretends to be a proxy with nothing to say is not asked anything.
        with socket.create_connection(("127.0.0.1", DEVICE_PORT), TIMEOUT) as direct:
            direct.sendall(b"\x01")
            wait_until(lambda: "no header of a proxy" in gateway.log() or None, "the connection is refused")
            direct.settimeout(0.5)
            with self.assertRaises(TimeoutError):
                direct.recv(1)
        self.assertEqual(len(gateway.devices()), 2)

    def test_a_resumed_session_keeps_the_name(self):
        gateway = self.start_gateway(devices__listen=f"127.0.0.1:{DEVICE_PORT}", devices__proxies="127.0.0.1")
        self.start_proxy()
        for number, version in enumerate((ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3), 7):
            name = f"gw-{number}"
            context = self.context(name, version)
            first = Device(context, name)
            wait_until(lambda: name in gateway.devices("state:online"), "the device is online")
            session = first.close()
            wait_until(lambda: name in gateway.devices("state:offline"), "the device is offline")
            again = Device(context, name, session)
            self.assertTrue(again.tls.session_reused)
            found = wait_until(lambda: gateway.devices("state:online").get(name), "the device is back")
            self.assertEqual(found["certificate"], name)

