# SPDX-License-Identifier: Apache-2.0
"""Which fault is in force from when to when: drawn from a seed, and kept in a file."""
from __future__ import annotations

import dataclasses
import json
import pathlib
import random
from collections.abc import Iterator, Sequence

from orv_testbed.chaos.faults import FAULTS, KNOWN, Fault, Words

LONGEST = 25.0  # seconds that a fault lasts
SHORTEST = 0.1
BEFORE_THE_START = 0.1  # of all faults: so many are there when the application starts


class NoSchedule(Exception):
    """A file that holds none; the text says why."""


@dataclasses.dataclass(frozen=True)
class Strike:
    """A fault, in seconds since the application's start. One that begins at 0 was there before it."""

    begin: float
    end: float
    words: Words

    @property
    def fault(self) -> Fault:
        return KNOWN[self.words]


@dataclasses.dataclass(frozen=True)
class Schedule:
    seed: int
    strikes: tuple[Strike, ...]

    def orders(self) -> Iterator[tuple[float, Words]]:
        """(when, what to tell the box), in the order of time; what ends at a moment comes before what begins."""
        ends = [(strike.end, 0, strike.fault.remedy) for strike in self.strikes]
        begins = [(strike.begin, 1, strike.words) for strike in self.strikes]
        for when, _, words in sorted(ends + begins):
            yield when, words

    def lines(self) -> list[str]:
        """For a person."""
        return [f"{strike.begin:5.1f} to {strike.end:5.1f} s: {' '.join(strike.words)}" for strike in self.strikes]

    def save(self, file: pathlib.Path) -> None:
        strikes = [f"{strike.begin} {strike.end} {' '.join(strike.words)}" for strike in self.strikes]
        file.write_text(json.dumps({"seed": self.seed, "strikes": strikes}, indent=2) + "\n", encoding="utf-8")


def load(file: pathlib.Path) -> Schedule:
    try:
        found = json.loads(file.read_text(encoding="utf-8"))
        strikes = []
        for line in found["strikes"]:
            begin, end, *words = line.split()
            strikes.append(Strike(float(begin), float(end), tuple(words)))
        seed = int(found["seed"])
    except (OSError, ValueError, KeyError, TypeError, AttributeError) as error:
        raise NoSchedule(f"{file} is no schedule: {error}") from error
    for strike in strikes:
        if strike.words not in KNOWN or not 0 <= strike.begin < strike.end:
            raise NoSchedule(f"{file}: not a fault of chaos: {strike}")
    return Schedule(seed, tuple(strikes))


def overlap(one: Strike, other: Strike) -> bool:
    return one.begin <= other.end and other.begin <= one.end


def _fits(strike: Strike, others: Sequence[Strike]) -> bool:
    return not any(overlap(strike, other) and strike.fault.occupies & other.fault.occupies for other in others)


def draw(seed: int, most: int = 16, seconds: float = 60) -> Schedule:
    """At least one fault, any number of them at a time."""
    chance = random.Random(seed)
    strikes: list[Strike] = []
    for _ in range(chance.randint(1, most)):
        fault = chance.choice(FAULTS)
        begin = 0.0 if chance.random() < BEFORE_THE_START else round(chance.uniform(0.1, seconds), 1)
        strike = Strike(begin, round(begin + chance.uniform(SHORTEST, LONGEST), 1), fault.words)
        if strike.end > strike.begin and _fits(strike, strikes):
            strikes.append(strike)
    return Schedule(seed, tuple(sorted(strikes, key=lambda one: one.begin)))
