# SPDX-License-Identifier: Apache-2.0
"""Plays a schedule on a gateway, and says what was wrong."""
from __future__ import annotations

import subprocess
import time
from typing import Protocol

from orv_testbed.chaos.faults import Words
from orv_testbed.chaos.schedule import Schedule

BEGIN = 0.0
# What a box raises that cannot do as it is told.
BOX_FAILURES = (AssertionError, OSError, subprocess.SubprocessError)
OF_THE_BOX = "the box: "  # begins what is wrong with the box, not with the gateway


class Gateway(Protocol):
    """What a schedule is played on."""

    def do(self, words: Words) -> None:
        """A fault or a remedy. Raises where the box cannot do it."""

    def start(self) -> None:
        """The application."""

    def verdict(self) -> list[str]:
        """Waits until everything is right again, and looks at all that can be seen; returns what is wrong."""


class Clock:
    """Seconds; virtual in tests."""

    def now(self) -> float:
        return time.monotonic()

    def sleep(self, seconds: float) -> None:
        time.sleep(seconds)


def play(schedule: Schedule, gateway: Gateway, clock: Clock) -> list[str]:
    """A command takes its time, so those behind it may come late; none is left out, and none comes early.

    What the box cannot do ends the round: no verdict on the gateway follows from it.
    """
    begun: float | None = None
    for when, words in schedule.orders():
        if begun is None and when > BEGIN:
            try:
                gateway.start()
            except BOX_FAILURES as error:
                return [f"{OF_THE_BOX}start of the application: {error}"]
            begun = clock.now()
        if begun is not None:
            clock.sleep(max(0.0, begun + when - clock.now()))
        try:
            gateway.do(words)
        except BOX_FAILURES as error:
            return [f"{OF_THE_BOX}{' '.join(words)}: {error}"]
    return gateway.verdict()
