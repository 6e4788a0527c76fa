# SPDX-License-Identifier: Apache-2.0
"""The command line of the verification commands."""
import argparse
import random


def parse(name, description, each_once=False):
    parser = argparse.ArgumentParser(prog=f"scripts/verify {name}", description=description,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--long", action="store_true", help="run everything instead of a sample")
    if each_once:
        parser.add_argument("--each-once", action="store_true",
                            help="fail each call once, with one of its errors")
    parser.add_argument("--seed", type=int, default=None, metavar="N",
                        help="seed of the sample (default: random, printed at the end)")
    parser.add_argument("--only", metavar="NAME", help="run every case whose name contains NAME")
    parser.add_argument("--verbose", action="store_true", help="print the progress")
    parser.add_argument("--most-findings", type=int, default=20, metavar="N",
                        help="stop after N findings (default: 20)")
    options = parser.parse_args()
    if options.seed is None:
        options.seed = random.randrange(1 << 31)
    return options
