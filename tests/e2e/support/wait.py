# SPDX-License-Identifier: Apache-2.0
"""Waits for a condition with a deadline, which only guards against a hang."""
import time

TIMEOUT = 180.0
LONGEST_PAUSE = 0.05


def wait_until(condition, what, timeout=TIMEOUT, pause=0.002):
    """Polls @p condition. Returns its first true value; AssertionError after the timeout.

    The pauses grow, so that polling leaves processor time to parallel tests.
    """
    deadline = time.monotonic() + timeout
    while True:
        answer = condition()
        if answer:
            return answer
        if time.monotonic() > deadline:
            raise AssertionError(f"did not happen within {timeout:.0f} s: {what}")
        time.sleep(pause)
        pause = min(1.5 * pause, LONGEST_PAUSE)
