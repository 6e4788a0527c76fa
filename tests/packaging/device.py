# SPDX-License-Identifier: Apache-2.0
"""A client of the daemon of this world, and the processes of this world."""
import os
import pathlib
import re
import socket

from support import world
from support.peers import AGENT_PORT, Peer
from support.wait import wait_until
from support.wire import request

SUCCESS, RUNNING = 0, 2  # the first field of a reply


def connect():
    """A client of the daemon, or None while none listens."""
    try:
        return Peer(socket.create_connection(("127.0.0.1", AGENT_PORT), timeout=60))
    except ConnectionRefusedError:
        return None


def ask(*arguments, **options):
    """The output of one task. Waits until a daemon serves it."""
    peer = wait_until(connect, "a daemon listens")
    try:
        reply = peer.ask(*arguments, **options)
    finally:
        peer.close()
    assert reply.fields[0] in (SUCCESS, RUNNING), reply
    return reply.output.decode()


def send(test, *arguments):
    """Sends a task and waits for no reply. The connection ends with @p test."""
    peer = connect()
    test.addCleanup(peer.close)
    peer.send(request(*arguments))


def processes(pattern):
    """The pids of the processes whose command line, with blanks, contains a match of @p pattern."""
    found = []
    for pid in world.processes():
        try:
            line = pathlib.Path(f"/proc/{pid}/cmdline").read_bytes().replace(b"\0", b" ").decode()
            state = pathlib.Path(f"/proc/{pid}/stat").read_text("utf-8").rpartition(")")[2].split()[0]
        except (FileNotFoundError, ProcessLookupError):
            continue
        if state != "Z" and re.search(pattern, line):
            found.append(pid)
    return found


def end_processes():
    """Kills the processes of this world that a test left running, and waits for their end."""
    world.kill_all_others()
    try:
        while True:
            os.waitpid(-1, 0)
    except ChildProcessError:
        pass
