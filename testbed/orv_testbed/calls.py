# SPDX-License-Identifier: Apache-2.0
"""How long the library's calls took, over several runs of the application."""
from __future__ import annotations

import collections
from collections.abc import Iterator
from typing import Any

Figures = dict[str, Any]  # of gateway-app, at its end

# A call that waits gives the processor up by itself; it may do that for a moment where two threads share a lock. One that
# does not is as long as the machine is slow, or as long as others have the processor.
LONGEST_PAUSE_US = 100_000
# No call may be as long as the shortest wait for a broker, the bus or a name server.
LONGEST_US = 2_500_000


def waits(figures: Figures) -> list[str]:
    """Which calls of the library have waited."""
    faults = []
    for call in Calls.KINDS:
        longest, effort = figures[call]["longest_us"], figures[call]["longest"]
        paused = longest - effort["cpu_us"] if effort["waits"] else 0
        if longest >= LONGEST_US or paused >= LONGEST_PAUSE_US:
            faults.append(f"{call} has waited: {longest} us, {effort}")
    return faults


class Calls:
    KINDS = ("tick", "event_update")

    def __init__(self) -> None:
        self.classes: dict[str, collections.Counter[str]] = {kind: collections.Counter() for kind in self.KINDS}
        self.longest: dict[str, list[tuple[int, dict[str, int], str]]] = {kind: [] for kind in self.KINDS}

    def add(self, run: str, figures: Figures) -> None:
        for kind in self.KINDS:
            self.classes[kind].update(figures[kind]["below_us"])
            self.longest[kind].append((figures[kind]["longest_us"], figures[kind]["longest"], run))

    def lines(self) -> Iterator[str]:
        """A table for people: how many calls took less than so many microseconds, and the three longest."""
        for kind in self.KINDS:
            classes = self.classes[kind]
            if not classes:
                continue
            bounds = sorted(classes, key=lambda bound: 2**31 if bound == "more" else int(bound))
            yield f"{kind}: {sum(classes.values())} calls; by the time below which they stayed [us]:"
            yield "  " + "  ".join(f"{bound}: {classes[bound]}" for bound in bounds)
            for longest, effort, run in sorted(self.longest[kind], key=lambda entry: -entry[0])[:3]:
                had = ", ".join(f"{name} {value}" for name, value in effort.items())
                yield f"  the longest of {run}: {longest} us ({had})"
