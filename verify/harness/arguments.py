# SPDX-License-Identifier: Apache-2.0
"""The command line of the verification commands."""
import argparse
import random


def parse(name, description, each_once=False):
    parser = argparse.ArgumentParser(prog=f"scripts/verify {name}", description=description,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--long", action="store_true", help="everything, not a sample")
    if each_once:
        parser.add_argument("--each-once", action="store_true",
                            help="each call once, with one of its errors")
    parser.add_argument("--seed", type=int, default=None, help="of the sample; printed at the end")
    parser.add_argument("--only", help="only what has this in its name, all of it")
    parser.add_argument("--verbose", action="store_true", help="tell how far it is")
    parser.add_argument("--most-findings", type=int, default=20, help="stop after so many")
    options = parser.parse_args()
    if options.seed is None:
        options.seed = random.randrange(1 << 31)
    return options
