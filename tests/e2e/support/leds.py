# SPDX-License-Identifier: Apache-2.0
"""Two LEDs as files, and checks of their state."""
import os

from support import world
from support.case import EndToEndCase
from support.wait import wait_until

NAMES = ("first", "second")


def path(name):
    return f"/sys/class/leds/{name}/brightness"


class LedCase(EndToEndCase):
    """A device with two LEDs."""

    def setUp(self):
        super().setUp()
        world.mount("-t", "tmpfs", "tmpfs", "/sys/class")
        self.addCleanup(world.unmount, "/sys/class")
        for name in NAMES:
            os.makedirs(os.path.dirname(path(name)))
            with open(path(name), "w", encoding="ascii"):
                pass

    def brightness(self):
        values = []
        for name in NAMES:
            with open(path(name), encoding="ascii") as file:
                values.append(file.read().strip())
        return tuple(values)

    def assert_blinks(self):
        for value in ("1", "0", "1"):
            wait_until(lambda wanted=value: self.brightness() == (wanted, wanted), "it blinks")
