# SPDX-License-Identifier: Apache-2.0
"""Rounds of chaos, several side by side, and what came of them."""
from __future__ import annotations

import collections
import concurrent.futures
import dataclasses
import itertools
import pathlib
import threading
import time
from collections.abc import Callable, Iterable, Sequence

from orv_testbed.chaos.play import OF_THE_BOX
from orv_testbed.chaos.schedule import Schedule

HOPELESS = 10  # rounds in a row that no box could carry out
# Plays a schedule on the box of that number; `folder` gets logs. Returns what was wrong.
Play = Callable[[Schedule, int, pathlib.Path], list[str]]


@dataclasses.dataclass(frozen=True)
class Result:
    schedule: Schedule
    faults: list[str]
    seconds: float
    folder: pathlib.Path

    @property
    def found(self) -> bool:
        """Whether something is wrong with the gateway, not with the box."""
        return not all(fault.startswith(OF_THE_BOX) for fault in self.faults)


class Rounds:
    def __init__(self, play: Play, boxes: int, folder: pathlib.Path) -> None:
        self._play, self._boxes, self._folder = play, boxes, folder
        self._numbers = itertools.count(1)
        self._free = list(range(boxes))
        self._lock = threading.Lock()
        self.interrupted = False
        self.results: list[Result] = []

    def run(self, schedules: Iterable[Schedule], tell: Callable[[Result], None], until: float | None = None) -> None:
        """Begins none after `until`, of time.monotonic(), and none where no box works.

        `tell` is called once for each, in the order of their ends. After KeyboardInterrupt those under way end untold.
        """
        remaining = iter(schedules)

        def worker() -> None:
            while until is None or time.monotonic() < until:
                with self._lock:
                    schedule = None if self.interrupted or self._is_hopeless() else next(remaining, None)
                if schedule is None:
                    return
                result = self._one(schedule)
                with self._lock:
                    if self.interrupted:
                        return
                    self.results.append(result)
                    tell(result)

        with concurrent.futures.ThreadPoolExecutor(self._boxes) as pool:
            workers = [pool.submit(worker) for _ in range(self._boxes)]
            try:
                for done in concurrent.futures.as_completed(workers):
                    done.result()
            except KeyboardInterrupt:
                self.interrupted = True
                print("interrupted; the rounds under way end first", flush=True)
                raise

    def _is_hopeless(self) -> bool:
        last = self.results[-HOPELESS:]
        return len(last) == HOPELESS and all(result.faults and not result.found for result in last)

    def fail(self, schedules: Sequence[Schedule]) -> list[bool]:
        """Which of them fail, and not for want of a box; side by side."""
        with concurrent.futures.ThreadPoolExecutor(self._boxes) as pool:
            return [result.found for result in pool.map(self._one, schedules)]

    def _one(self, schedule: Schedule) -> Result:
        with self._lock:
            number = self._free.pop()
            folder = self._folder / f"round-{next(self._numbers)}-seed-{schedule.seed}"
        begun = time.monotonic()
        try:
            folder.mkdir(parents=True)
            schedule.save(folder / "schedule")
            faults = self._play(schedule, number, folder)
        finally:
            with self._lock:
                self._free.append(number)
        return Result(schedule, faults, time.monotonic() - begun, folder)

    def summary(self) -> str:
        drawn = collections.Counter(strike.words for result in self.results for strike in result.schedule.strikes)
        failed = [result for result in self.results if result.faults]
        for_want_of_a_box = sum(not result.found for result in failed)
        hours = sum(result.seconds for result in self.results) / 3600
        return (
            f"{len(self.results)} rounds, {sum(drawn.values())} faults of {len(drawn)} kinds, "
            f"{len(failed)} rounds failed, {for_want_of_a_box} of them for want of a box, {hours:.2f} box-hours"
        )
