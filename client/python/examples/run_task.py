#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Runs a program on a device and prints its output: run_task.py HOST PROGRAM [ARGUMENT...]"""
import sys

import runel


def main(host: str, *argv: str) -> int:
    with runel.Device(host) as device:
        try:
            result = device.exec(argv, limit=60)
        except runel.ProgramError as error:
            print(error, file=sys.stderr)
            result = error.result
        except runel.RunelError as error:
            print(f"{error.kind}: {error}", file=sys.stderr)
            return 125
    sys.stdout.buffer.write(result.output)
    return result.exit_status if result.exit_status is not None else 124


if __name__ == "__main__":
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    sys.exit(main(*sys.argv[1:]))
