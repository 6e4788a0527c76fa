# SPDX-License-Identifier: Apache-2.0
"""Guesses which other protocol a peer speaks, from its first bytes."""
from __future__ import annotations

_KNOWN = (
    (b"SSH-", "it speaks like an SSH server"),
    (b"HTTP/", "it speaks like a web server"),
    (b"<!DOCTYPE", "it speaks like a web server"),
    (b"<html", "it speaks like a web server"),
    (b"@RSYNCD:", "it speaks like an rsync daemon"),
    (b"RFB ", "it speaks like a VNC server"),
    (b"+OK", "it speaks like a mail server"),
    (b"* OK", "it speaks like a mail server"),
    (b"220", "it speaks like a mail or FTP server"),
    (b"\x15\x03", "it speaks TLS"),
    (b"\x16\x03", "it speaks TLS"),
    (b"\xff\xfb", "it speaks like a telnet server"),
    (b"\xff\xfd", "it speaks like a telnet server"),
    (b"<", "it sends XML, as agents do"),
)


def guess_peer(first: bytes) -> str:
    """ "not a runeld: ..." for the first bytes of a peer; empty if they start a frame.

    >>> guess_peer(b"SSH-2.0-x")
    'not a runeld: it speaks like an SSH server'
    """
    start = first.lstrip(b" \t\r\n")
    if not start or start[0] == 1:
        return ""
    for begins, what in _KNOWN:
        if start.startswith(begins):
            return f"not a runeld: {what}"
    return "not a runeld: it speaks another protocol"
