# SPDX-License-Identifier: Apache-2.0
"""How everything in the testbed waits: for a condition, with a deadline."""
from __future__ import annotations

import os
import time
from collections.abc import Callable

# Beside the system's own delays, what a busy machine may add. ORV_SLACK: more, for a gateway that is emulated.
SLACK = float(os.environ.get("ORV_SLACK", "15"))


class NotInTime(AssertionError):
    """What was waited for has not come about."""


def comes_within(seconds: float, condition: Callable[[], object], pause: float = 0.02) -> bool:
    """Whether `condition()` comes true before the time is over."""
    return comes_by(time.monotonic() + seconds, condition, pause)


def comes_by(deadline: float, condition: Callable[[], object], pause: float = 0.02) -> bool:
    """Whether `condition()` comes true before `time.monotonic()` says so much."""
    while not condition():
        if time.monotonic() >= deadline:
            return False
        time.sleep(pause)
    return True


def wait_until(
    condition: Callable[[], object], seconds: float, what: str | Callable[[], str], pause: float = 0.05
) -> None:
    """Waits until `condition()` is true; `what` is waited for, and may be a function, called on failure."""
    if not comes_within(seconds, condition, pause):
        raise NotInTime(f"not within {seconds:.0f} s: {what() if callable(what) else what}")
