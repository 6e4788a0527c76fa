# SPDX-License-Identifier: Apache-2.0
"""Waiting for a condition with a deadline. The deadline only guards against a hang."""
import time

TIMEOUT = 180.0
LONGEST_PAUSE = 0.05


def wait_until(condition, what, timeout=TIMEOUT, pause=0.002):
    """Asks @p condition again and again; its first true answer, or AssertionError after timeout.

    The pauses grow, so that parallel tests do not use the processor up with polling.
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
