# SPDX-License-Identifier: Apache-2.0
"""The fewest and shortest faults of a schedule with which it still fails."""
from __future__ import annotations

import dataclasses
import itertools
from collections.abc import Callable, Iterable, Sequence

from orv_testbed.chaos.schedule import SHORTEST, Schedule, Strike

Strikes = tuple[Strike, ...]
# Which of these schedules fail; they may be tried side by side.
Fail = Callable[[Sequence[Schedule]], Sequence[bool]]


def shrink(schedule: Schedule, fail: Fail, at_once: int = 1) -> Schedule:
    """`schedule` is known to fail. `at_once`: how many schedules `fail` is given at most."""

    def first_failing(candidates: Iterable[Strikes]) -> Strikes | None:
        remaining = iter(candidates)
        while some := list(itertools.islice(remaining, at_once)):
            verdicts = fail([dataclasses.replace(schedule, strikes=strikes) for strikes in some])
            for strikes, failed in zip(some, verdicts, strict=True):
                if failed:
                    return strikes
        return None

    strikes = _fewest(schedule.strikes, first_failing)
    return dataclasses.replace(schedule, strikes=_shortest(strikes, first_failing))


def _fewest(strikes: Strikes, first_failing: Callable[[Iterable[Strikes]], Strikes | None]) -> Strikes:
    """Leaves out halves, then quarters, and so on."""
    size = (len(strikes) + 1) // 2
    while size >= 1 and len(strikes) > 1:
        without = (strikes[:place] + strikes[place + size :] for place in range(0, len(strikes), size))
        found = first_failing(rest for rest in without if rest)
        if found is None:
            size //= 2
        else:
            strikes = found
            size = min(size, (len(strikes) + 1) // 2)
    return strikes


def _shortest(strikes: Strikes, first_failing: Callable[[Iterable[Strikes]], Strikes | None]) -> Strikes:
    """Halves what each lasts."""
    for place in range(len(strikes)):
        while (halved := _halved(strikes[place])) != strikes[place]:
            found = first_failing([(*strikes[:place], halved, *strikes[place + 1 :])])
            if found is None:
                break
            strikes = found
    return strikes


def _halved(strike: Strike) -> Strike:
    length = round((strike.end - strike.begin) / 2, 1)
    return strike if length < SHORTEST else dataclasses.replace(strike, end=round(strike.begin + length, 1))
