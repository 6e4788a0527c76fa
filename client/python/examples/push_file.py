#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Copies a file to a device and prints the progress: push_file.py HOST SOURCE TARGET"""
import sys

import runel


def show(done: int, size: int) -> None:
    print(f"\r{done / 1e6:.1f} of {size / 1e6:.1f} MB", end="", flush=True)


def main(host: str, source: str, target: str) -> None:
    with runel.Device(host) as device:
        sent = device.push(source, target, progress=show)
    print(f"\n{target}: {sent} bytes")


if __name__ == "__main__":
    if len(sys.argv) != 4:
        sys.exit(__doc__)
    try:
        main(*sys.argv[1:])
    except runel.RunelError as failure:
        sys.exit(f"{failure.kind}: {failure}")
