# SPDX-License-Identifier: Apache-2.0
"""Waves: the number of devices on which a job runs in each step."""
from __future__ import annotations

import math
import re
from typing import List, Sequence, Union

from runel.errors import LocalError, Outcome

Wave = Union[int, str]
"""A number of devices, a percentage of all such as "10%", or "rest"."""


def wave_sizes(waves: Sequence[Wave], devices: int) -> List[int]:
    """The size of each wave; the devices that remain are one more wave.

    >>> wave_sizes((1, "10%", "rest"), 30)
    [1, 3, 26]
    """
    sizes: List[int] = []
    for wave in waves:
        size = min(_size(wave, devices), devices - sum(sizes))
        if size > 0:
            sizes.append(size)
    left = devices - sum(sizes)
    return sizes + [left] if left else sizes


def _size(wave: Wave, devices: int) -> int:
    if wave == "rest":
        return devices
    if isinstance(wave, int) and wave > 0:
        return wave
    if isinstance(wave, str) and re.fullmatch("[1-9][0-9]?%|100%", wave):
        return max(1, math.floor(devices * int(wave[:-1]) / 100))
    raise LocalError(f"{wave!r} is not a wave", outcome=Outcome.NOT_SENT)
