# SPDX-License-Identifier: Apache-2.0
"""Parses addresses: HOST or HOST:PORT."""
from __future__ import annotations

from typing import Tuple

from runel.errors import LocalError, Outcome

TASK_PORT = 5111
"""Port on which a device listens for masters and agents."""

MASTER_PORT = 5112
"""Port on which a master listens for devices."""


def split_address(text: str, port: int) -> Tuple[str, int]:
    """Host and port of `text`; `port` is the default. Raises `LocalError`.

    >>> split_address("gw-3:80", 5111), split_address("gw-3", 5111)
    (('gw-3', 80), ('gw-3', 5111))
    """
    host, colon, number = text.partition(":")
    if not colon:
        number = str(port)
    if not host or not number.isascii() or not number.isdigit() or not 0 < int(number) < 65536:
        raise LocalError(f"{text!r} is not HOST or HOST:PORT", outcome=Outcome.NOT_SENT)
    return host, int(number)
