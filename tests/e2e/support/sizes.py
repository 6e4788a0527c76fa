# SPDX-License-Identifier: Apache-2.0
"""Sizes of tests whose full size adds confidence but no further check.

RUNELD_LONG=1 (`scripts/test --long`) selects the full sizes.
"""
import os

IS_LONG = os.environ.get("RUNELD_LONG") == "1"


def sized(short, full):
    """@p short, or @p full in a long run."""
    return full if IS_LONG else short
