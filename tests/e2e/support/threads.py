# SPDX-License-Identifier: Apache-2.0
"""Threads that serve sockets."""
import contextlib
import socket
import threading

from support.wait import TIMEOUT


def serve_in_thread(target, *args):
    """Starts @p target in a thread that does not keep the program alive."""
    thread = threading.Thread(target=target, args=args, daemon=True)
    thread.start()
    return thread


def close_served(served):
    """Closes the sockets of @p served, pairs of a socket and its thread.

    The threads end first. A thread that is just about to call accept or recv would otherwise use
    a later socket that got the same descriptor.
    """
    for served_socket, _ in served:
        with contextlib.suppress(OSError):
            served_socket.shutdown(socket.SHUT_RDWR)
    for served_socket, thread in served:
        thread.join(TIMEOUT)
        if not thread.is_alive():
            served_socket.close()
