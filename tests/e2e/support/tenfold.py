# SPDX-License-Identifier: Apache-2.0
"""A daemon whose waits for a slow peer are shortened to a tenth, and a slow peer."""
import os
import threading

# Arguments of the daemon's start.
TENFOLD = {"environment": {"LD_PRELOAD": os.environ.get("RUNELD_TENFOLD_CLOCK", "")}}

# The daemon's limits in real seconds: without progress, for a reply, and per MiB of the reply.
STALL, WHOLE, PER_MIB = 3.0, 3.0, 0.1


def take_slowly(connected, enough):
    """Reads 8 KiB twenty times a second until `enough()`. Returns the bytes.

    The kernel reports the daemon's socket as writable when a third of its send buffer is free. That
    is far more than this function reads within STALL.
    """
    taken = bytearray()
    pause = threading.Event()
    while not enough():
        pause.wait(0.05)
        taken += connected.recv(8192)
    return taken
