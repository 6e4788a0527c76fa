# SPDX-License-Identifier: Apache-2.0
"""Other hosts: network namespaces, each connected by one virtual cable to the test's world."""
import contextlib
import ctypes
import os
import socket
import subprocess

from support.case import SUCCESS
from support.peers import AGENT_PORT, Peer
from support.wait import TIMEOUT

CLONE_NEWNET = 0x40000000

libc = ctypes.CDLL(None, use_errno=True)


def ip(*arguments):
    subprocess.run(["ip", *arguments], check=True)


def _enter(handle):
    if libc.setns(handle, CLONE_NEWNET) != 0:
        raise OSError(ctypes.get_errno(), "setns")


@contextlib.contextmanager
def inside(host):
    """Sockets that are created meanwhile belong to @p host; None: this host."""
    if host is None:
        yield
        return
    with open("/proc/thread-self/ns/net", "rb") as here, open(f"/run/netns/{host}", "rb") as there:
        _enter(there.fileno())
        try:
            yield
        finally:
            _enter(here.fileno())


def add_host(host, interface, near, *far):
    """Connects a new host with the addresses @p far; @p near is ours on @p interface; all /24."""
    ip("netns", "add", host)
    ip("link", "add", interface, "type", "veth", "peer", "name", "eth0", "netns", host)
    ip("address", "add", f"{near}/24", "dev", interface)
    ip("link", "set", interface, "up")
    ip("-n", host, "link", "set", "lo", "up")
    for address in far:
        ip("-n", host, "address", "add", f"{address}/24", "dev", "eth0")
    ip("-n", host, "link", "set", "eth0", "up")


def remove_all_hosts():
    """Removes every other host and its cable immediately, unlike the end of its processes."""
    for _, interface in socket.if_nameindex():
        if interface != "lo":
            ip("link", "delete", interface)
    if os.path.isdir("/run/netns"):
        for host in os.listdir("/run/netns"):
            ip("netns", "delete", host)


def reaches(host, address, source=None, timeout=TIMEOUT):
    """Whether a client on @p host can run a task at @p address."""
    with inside(host):
        connecting = socket.socket()
    with connecting:
        connecting.settimeout(timeout)
        try:
            if source:
                connecting.bind((source, 0))
            connecting.connect((address, AGENT_PORT))
        except OSError:
            return False
        return Peer(connecting).ask("fileexists", "/").fields == SUCCESS
