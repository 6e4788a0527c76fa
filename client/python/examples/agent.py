#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""A local agent: sends one clause to the master and prints the next clause: agent.py CLAUSE"""
import sys

import runel


def main(clause: str) -> None:
    with runel.Agent("127.0.0.1") as agent:
        agent.send(clause.encode())
        answer = agent.receive(timeout=30)
        print("the master has gone" if answer is None else answer.decode())


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    try:
        main(sys.argv[1])
    except runel.RunelError as failure:
        sys.exit(f"{failure.kind}: {failure}")
