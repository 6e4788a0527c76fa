# SPDX-License-Identifier: Apache-2.0
"""Waiting for a condition with a deadline. The deadline only guards against a hang."""
import time

PATIENCE = 60.0


def wait_until(condition, what, timeout=PATIENCE, pause=0.002):
    """Asks @p condition again and again; its first true answer, or AssertionError after timeout."""
    deadline = time.monotonic() + timeout
    while True:
        answer = condition()
        if answer:
            return answer
        if time.monotonic() > deadline:
            raise AssertionError(f"did not happen within {timeout:.0f} s: {what}")
        time.sleep(pause)
