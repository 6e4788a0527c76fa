# SPDX-License-Identifier: Apache-2.0
"""Other hosts around the world that a test runs in, each a network namespace with one cable."""
import contextlib
import ctypes
import os
import socket
import subprocess

CLONE_NEWNET = 0x40000000

libc = ctypes.CDLL(None, use_errno=True)


def ip(*arguments):
    subprocess.run(["ip", *arguments], check=True)


def _enter(handle):
    if libc.setns(handle, CLONE_NEWNET) != 0:
        raise OSError(ctypes.get_errno(), "setns")


@contextlib.contextmanager
def inside(host):
    """Sockets that are made meanwhile belong to @p host; None is here."""
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
    """Connects a new host: its addresses are @p far, ours on @p interface is @p near; all /24."""
    ip("netns", "add", host)
    ip("link", "add", interface, "type", "veth", "peer", "name", "eth0", "netns", host)
    ip("address", "add", f"{near}/24", "dev", interface)
    ip("link", "set", interface, "up")
    ip("-n", host, "link", "set", "lo", "up")
    for address in far:
        ip("-n", host, "address", "add", f"{address}/24", "dev", "eth0")
    ip("-n", host, "link", "set", "eth0", "up")


def remove_all_hosts():
    """Takes every other host away, and the cables with them: at once, unlike the hosts' own end."""
    for _, interface in socket.if_nameindex():
        if interface != "lo":
            ip("link", "delete", interface)
    if os.path.isdir("/run/netns"):
        for host in os.listdir("/run/netns"):
            ip("netns", "delete", host)
