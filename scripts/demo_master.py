#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""A minimal master: waits for the daemon on port 5112 and sends it tasks.

    demo_master.py [reboot]      (scripts/demo runs it; "reboot" requests a real reboot)

The master listens and the daemon connects. A request and its reply are frames with a record:

    frame    0x01 COUNT 0x02 PAYLOAD                COUNT: the payload's length in decimal
    record   SlaveTask ARGC ARG... EXECPARAM OUTPUT STATUS STATE RESULT ERRNO SIGNAL
             an ARG and OUTPUT are LENGTH:BYTES, the rest are decimal numbers
"""
import os
import socket
import sys

STATUS = ("success", "failure", "running", "timeout", "error")


def request(*arguments, limit=0):
    """The bytes of one request. `limit` is the time limit of "exec" in seconds."""
    texts = [text if isinstance(text, bytes) else text.encode() for text in arguments]
    counted = b"".join(b"%d:%s " % (len(text), text) for text in texts)
    record = b"SlaveTask %d %s%d 0: 0 0 0 0 0" % (len(texts), counted, limit)
    return b"\x01%d\x02%s" % (len(record), record)


def reply(stream):
    """Reads one reply. Returns its output and its five numbers. Replies have no arguments."""
    assert stream.read(1) == b"\x01"
    count = b""
    while (byte := stream.read(1)) != b"\x02":
        count += byte
    record = stream.read(int(count))
    _task, _no_arguments, _no_limit, rest = record.split(b" ", 3)
    length, _, rest = rest.partition(b":")
    output, numbers = rest[:int(length)], rest[int(length):].split()
    return output, [int(number) for number in numbers]


def ask(connection, *arguments, limit=0):
    """Sends one task and prints the request and the reply."""
    shown = " ".join(repr(text) if " " in text or "\n" in text else text for text in arguments)
    how = f"   (for {limit} s at most)" if limit > 0 else "   (in the background)" * (limit < 0)
    print(f"\n  > {shown}{how}", flush=True)
    connection.sendall(request(*arguments, limit=limit))
    if arguments[0] == "restart":
        print("  < (no reply: the daemon exits and its supervisor starts it again)", flush=True)
        return
    with connection.makefile("rb") as stream:
        output, (status, _, result, error, signal) = reply(stream)
    details = [os.strerror(error)] * (error != 0) + [f"signal {signal}"] * (signal != 0)
    details += [f"exit status {result}"] * (result > 0 and not details)
    print(f"  < {STATUS[status]}" + "".join(f", {text}" for text in details), flush=True)
    for line in output.decode(errors="replace").splitlines():
        print(f"      {line}", flush=True)


def accept():
    """Waits for the daemon, which tries to connect ten times a second."""
    with socket.create_server(("", 5112)) as listener:
        connection, (address, _) = listener.accept()
    print(f"\nmaster: the daemon on {address} connected", flush=True)
    return connection


def all_tasks(connection):
    """Every task except "reboot", on real files and programs."""
    directory = "/run/tmp/demo"
    os.makedirs(directory)
    script = f"{directory}/update.sh"
    ask(connection, "hostid")
    ask(connection, "devicetype")
    ask(connection, "fileexists", script)
    ask(connection, "write", script, "#!/bin/sh\necho \"installing on $(uname -s)\"\n")
    ask(connection, "append", script, "exit 3\n")
    ask(connection, "read", script)
    ask(connection, "access", script, "1")
    ask(connection, "chmodx", script)
    ask(connection, "access", script, "1")
    ask(connection, "exec", script)
    ask(connection, "exec", "/bin/sh", "-c", "sleep 1000", limit=1)
    ask(connection, "exec", "/bin/sh", "-c", "exit 5", limit=-1)
    ask(connection, "wait")
    ask(connection, "exec", "/bin/sleep", "1000", limit=-1)
    ask(connection, "processrunning", "sleep")
    ask(connection, "kill")
    ask(connection, "processrunning", "sleep")
    ask(connection, "rename", script, f"{directory}/done.sh")
    os.symlink("done.sh", f"{directory}/latest")
    ask(connection, "realpath", f"{directory}/latest")
    ask(connection, "stat", f"{directory}/latest")
    ask(connection, "lstat", f"{directory}/latest")
    ask(connection, "readdir", directory)
    ask(connection, "walktree", directory)
    ask(connection, "freeblocks", directory)
    ask(connection, "unlink", f"{directory}/latest")
    ask(connection, "updateumstate", "phase", "installed")
    ask(connection, "changeleds", "1", "0")
    ask(connection, "blinkleds", "alternate")
    ask(connection, "no-such-task")
    ask(connection, "restart")


if __name__ == "__main__":
    with accept() as daemon:
        if sys.argv[1:] == ["reboot"]:
            ask(daemon, "reboot")
        else:
            all_tasks(daemon)
        daemon.recv(1)  # waits until the daemon closes the connection
