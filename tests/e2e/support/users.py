# SPDX-License-Identifier: Apache-2.0
"""Other users of the test's world."""
import os
import pwd
import socket

UNPRIVILEGED = 65534


def add_user(name, home):
    """Adds a user, unless it exists. Returns its number."""
    try:
        return pwd.getpwnam(name).pw_uid
    except KeyError:
        number = 20000 + len(pwd.getpwall())
    with open("/etc/passwd", "a", encoding="ascii") as users:
        users.write(f"{name}:x:{number}:{UNPRIVILEGED}::{home}:/bin/sh\n")
    with open("/etc/shadow", "a", encoding="ascii") as users:
        users.write(f"{name}:*:19000:0:99999:7:::\n")
    return number


def _run(user, function):
    """Calls @p function in a child process that runs as @p user."""
    child = os.fork()
    if child == 0:
        status = 1
        try:
            os.setgroups([])
            os.setgid(UNPRIVILEGED)
            os.setuid(user)
            function()
            status = 0
        finally:
            os._exit(status)
    assert os.waitpid(child, 0)[1] == 0


def as_user(user, function):
    """The text that @p function returns when @p user calls it."""
    reading, writing = os.pipe()
    _run(user, lambda: os.write(writing, function().encode()))
    os.close(writing)
    with os.fdopen(reading) as answer:
        return answer.read()


def socket_of(user, make=socket.socket):
    """The socket that @p make returns. It belongs to @p user for the kernel, also when others use it."""
    here, there = socket.socketpair()
    with here, there:
        def send():
            with make() as sent:
                socket.send_fds(there, [b"s"], [sent.fileno()])

        _run(user, send)
        received = socket.recv_fds(here, 1, 1)[1]
    return socket.socket(fileno=received[0])
