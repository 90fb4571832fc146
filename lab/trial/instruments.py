# SPDX-License-Identifier: Apache-2.0
"""The instruments as a trial runs them, and what their words mean.

Only a check that has failed is a finding, and only if what it has found passes without the fault. An instrument that
ends in any other way has not worked.
"""
from __future__ import annotations

import abc
import dataclasses
import enum
import functools
import json
import os
import pathlib
import re
import subprocess
import time
from collections.abc import Iterable, Sequence

from lab.trial.scratch import ASAN, JOBS, Ended, Scratch, Stopwatch

PATIENCE = 20  # seconds that the torture waits for what has to come
GRACE = 240  # seconds that an instrument may take beyond its time: a seed that hangs, a point that is tried again
ALONE = 240  # seconds for one seed or point
MOST_OF_A_ROUND = 400  # seconds
MOST_REPEATED = 4  # rounds that are played again
MOST_KNOWN = 4  # findings that the sound tree has, too
BRIEF = 10  # seconds in which an explorer finds most of what it finds
BRIEF_TORTURE = 30  # seconds; the first dozen of them it looks at programs without a failure
FIRST_SCHEDULE = 4200  # of chaos: the same seeds for each fault, and for the sound tree


class Verdict(enum.Enum):
    FOUND = "FOUND"
    NOTHING = "no"
    UNCHANGED = "same program"
    NOT_RUN = "not run"
    BROKEN = "did not work"


@dataclasses.dataclass(frozen=True)
class Outcome:
    verdict: Verdict
    how: str = ""
    seconds: float = 0  # of looking

    def __str__(self) -> str:
        return f"{self.verdict.value}: {self.how}" if self.how else self.verdict.value


@dataclasses.dataclass
class Search:
    """What an instrument has done about one tree, which may be in several looks."""

    limit: float  # seconds for all of them
    sound: bool = False  # the programs without a fault
    seconds: float = 0
    tried: int = 0
    known: list[str] = dataclasses.field(default_factory=list)

    def __str__(self) -> str:
        return str(Stopwatch(time.monotonic() - self.seconds))


class Instrument(abc.ABC):
    """`made_of`: the built files on which its findings depend. `effort`: seconds; of chaos rounds. `searches`: the folders
    whose faults it is made for, which it looks for before the others."""

    name: str
    targets: tuple[str, ...]
    made_of: tuple[str, ...]
    kept: tuple[str, ...] = ()  # programs of which a sound copy is needed
    preset = ASAN  # by which it is built
    searches: tuple[str, ...] = ()
    brief = 0  # seconds of a first look, where it is worth its time
    control = 0  # seconds for which the sound tree is looked at before anything has been found
    last = False  # looks only for what no other one has found
    dispensable = False  # where the sound tree does not pass, the trial goes on without it

    def __init__(self, effort: int) -> None:
        self.effort = effort

    @abc.abstractmethod
    def run(self, scratch: Scratch, log: str, search: Search) -> Outcome:
        """Looks for a fault in what is built, until it has found one or its time is over."""

    def prepare(self, scratch: Scratch, log: str, seconds: float) -> Outcome:
        """Looks at the sound tree."""
        return self.look(scratch, log, Search(seconds, sound=True))

    def look(self, scratch: Scratch, log: str, search: Search | None = None) -> Outcome:
        try:
            return self.run(scratch, log, search or Search(self.effort))
        except Ended as ended:
            return Outcome(Verdict.BROKEN, str(ended))


def passes(scratch: Scratch, command: list[str], log: str) -> bool:
    try:
        return scratch.run(command, log, ALONE)[0] == 0
    except Ended:
        return False


def last_words(status: int, said: str) -> Outcome:
    return Outcome(Verdict.BROKEN, f"status {status}, {(said.strip().splitlines() or ['no word'])[-1][:80]}")


class Searcher(Instrument):
    """Goes on where it finds what the sound tree has, too: that says nothing of the fault."""

    unit: str

    def run(self, scratch: Scratch, log: str, search: Search) -> Outcome:
        here = len(search.known)
        while True:
            watch = Stopwatch()
            name = f"{len(search.known)}.{log}" if search.known else log
            found, tried, unfit = self.search(scratch, name, max(1, round(search.limit - search.seconds)), search)
            search.seconds += watch.seconds()
            search.tried += tried
            count = f"{search.tried} {self.unit}, {search}"
            for one in found:
                if self.passes_sound(scratch, one, f"{name}.sound"):
                    return Outcome(Verdict.FOUND, f"{one}, {count}", search.seconds)
            search.known += found
            too = f"{search.known[0]} fails without the fault, too" if search.known else ""
            if len(search.known) - here >= MOST_KNOWN:
                return Outcome(Verdict.BROKEN, f"{too}, {search}", search.seconds)
            if unfit or not found or search.seconds >= search.limit:
                how = ", ".join(filter(None, (count, too)))
                return unfit or Outcome(Verdict.NOTHING, how, search.seconds)

    @abc.abstractmethod
    def search(self, scratch: Scratch, log: str, seconds: int, search: Search) -> tuple[list[str], int, Outcome | None]:
        """What it has found, how much it has tried, and what has come of it when it has not worked."""

    @abc.abstractmethod
    def passes_sound(self, scratch: Scratch, found: str, log: str) -> bool:
        """Whether the program without the fault passes there."""

    def program(self, scratch: Scratch, sound: bool) -> str:
        folder = scratch.sound_folder(self.preset) if sound else scratch.folder(self.preset) / "bin"
        return str(folder / self.targets[0])


class Explorer(Searcher):
    unit = "seeds"

    def __init__(self, effort: int, name: str, program: str, *searches: str, preset: str = ASAN) -> None:
        super().__init__(effort)
        self.name, self.targets, self.kept, self.made_of = name, (program,), (program,), (f"bin/{program}",)
        self.searches, self.preset = searches, preset
        self.brief = self.control = min(effort, BRIEF)

    def search(self, scratch: Scratch, log: str, seconds: int, search: Search) -> tuple[list[str], int, Outcome | None]:
        program = self.program(scratch, search.sound)
        behind = ["--from", str(int(search.known[-1].split()[1]) + 1)] if search.known else []
        status, said = scratch.run([program, str(seconds), *behind, "--jobs", str(JOBS)], log, seconds + GRACE)
        counted = re.search(r"(?m)^explore: (\d+) seeds", said)
        found = re.findall(r"(?m)^explore: (seed \d+) fails", said)
        tried = int(counted.group(1)) if counted else 0
        return found, tried, None if found or (status == 0 and tried > 0) else last_words(status, said)

    def passes_sound(self, scratch: Scratch, found: str, log: str) -> bool:
        return passes(scratch, [self.program(scratch, True), "--seed", found.split()[1]], log)


def tortured_with(program: pathlib.Path) -> list[str]:
    endpoint = "libs/OrvStackSdk/tests/support/with-test-endpoint"
    return [
        "env",
        f"ORV_TORTURE_PATIENCE={PATIENCE}",
        endpoint,
        "/usr/bin/python3",
        "-B",
        "lab/torture/with_cloud.py",
        str(program),
    ]


class Torture(Searcher):
    name, targets, kept, made_of = "torture", ("orv-torture",), ("orv-torture",), ("bin/orv-torture",)
    unit = "points"

    def __init__(self, effort: int) -> None:
        super().__init__(effort)
        self.control = min(effort, BRIEF_TORTURE)

    def search(self, scratch: Scratch, log: str, seconds: int, search: Search) -> tuple[list[str], int, Outcome | None]:
        options = ["--seconds", str(seconds), "--faults", "1", "--jobs", str(4 * JOBS)]
        program = pathlib.Path(self.program(scratch, search.sound))
        status, said = scratch.run([*tortured_with(program), *options], log, seconds + GRACE)
        counted = re.search(r"(?m)^torture: (\d+) of \d+ points, (\d+) faults", said)
        if not counted:
            return [], 0, last_words(status, said)
        tried = int(counted.group(1))
        if status == 0 and tried > 0:
            return [], tried, None
        points = re.findall(r"(?m)^torture: (\S+ \S+ \d+ (?:once|later)|\S+ without any failure): (.*)", said)
        busy = {point for point, words in points if "and nothing found" in words}
        found = list(dict.fromkeys(point for point, _ in points if point not in busy))
        if int(counted.group(2)) == 0 or not found:
            return [], tried, last_words(status, said)
        return found, tried, None

    def passes_sound(self, scratch: Scratch, found: str, log: str) -> bool:
        alone = ["--seconds", "1", "--program", found.split()[0]] if "without" in found else ["--one", *found.split()]
        return passes(scratch, [*tortured_with(scratch.sound / "orv-torture"), *alone], log)


class Chaos(Instrument):
    """The same few schedules each time: those that the sound tree passes twice. A schedule that fails has to fail again, for
    real programs run in real time. Its programs have no sanitizers: with them none starts under a clock of its own."""

    name = "chaos"
    targets = ("gateway-app", "orv-source-routes", "orv-shell", "orv-status")
    made_of = ("bin/gateway-app", "bin/orv-source-routes", "lib/*.so*")
    preset = "debug"
    last = True
    dispensable = True

    def __init__(self, effort: int) -> None:
        super().__init__(effort)
        self.usable = set(range(FIRST_SCHEDULE, FIRST_SCHEDULE + effort))

    def prepare(self, scratch: Scratch, log: str, seconds: float) -> Outcome:
        watch = Stopwatch()
        try:
            plays = [(FIRST_SCHEDULE, self.effort, f"{number}.{log}") for number in (1, 2)]
            self.usable -= set().union(*self._plays(scratch, plays))
        except Ended as ended:
            return Outcome(Verdict.BROKEN, str(ended))
        except NoRounds as none:
            return none.outcome
        how = f"{len(self.usable)} of {self.effort} rounds pass twice, {watch}"
        return Outcome(Verdict.NOTHING if self.usable else Verdict.BROKEN, how)

    def run(self, scratch: Scratch, log: str, search: Search) -> Outcome:
        watch = Stopwatch()
        try:
            failing = sorted(self.usable & self._failing(scratch, FIRST_SCHEDULE, self.effort, log))[:MOST_REPEATED]
            again = self._plays(scratch, [(seed, 1, f"{seed}.{log}") for seed in failing])
            if twice := sorted(set().union(*again)):
                return Outcome(Verdict.FOUND, f"seed {twice[0]}, twice, {watch}")
        except NoRounds as none:
            return none.outcome
        return Outcome(Verdict.NOTHING, f"{len(self.usable)} rounds, {watch}")

    def _plays(self, scratch: Scratch, plays: list[tuple[int, int, str]]) -> list[set[int]]:
        """Side by side: boxes mostly wait."""
        return scratch.side_by_side([functools.partial(self._failing, scratch, *play) for play in plays])

    @staticmethod
    def _failing(scratch: Scratch, first: int, rounds: int, log: str) -> set[int]:
        """The seeds of rounds that fail, but for want of a box."""
        command = ["env", "-u", "ORV_BUILD", "script/chaos", "--seed", str(first), "--rounds", str(rounds)]
        status, said = scratch.run([*command, "--boxes", str(min(4, rounds))], log, MOST_OF_A_ROUND * rounds)
        summed = re.search(r"(?m)^(\d+) rounds, .* (\d+) rounds failed, (\d+) of them for want of a box", said)
        if not summed or summed.group(1) == summed.group(3):
            raise NoRounds(last_words(status, said))
        if summed.group(2) == summed.group(3):
            return set()
        return {int(seed) for seed in re.findall(r"(?m)^seed (\d+): FAILED", said)}


class NoRounds(Exception):
    """Chaos had none."""

    def __init__(self, outcome: Outcome) -> None:
        super().__init__(str(outcome))
        self.outcome = outcome


# The tests of what a fault touches, by the beginning of the file's name.
TESTS = {
    "libs/OrvPlatform/src/base/": ["orv-platform-base-tests"],
    "libs/OrvPlatform/src/broker/": ["orv-broker-tests"],
    "libs/OrvPlatform/src/config/": ["orv-platform-config-tests"],
    "libs/OrvPlatform/src/connman/": ["orv-connman-tests"],
    "libs/OrvPlatform/src/log/": ["orv-platform-log-tests"],
    "libs/OrvStackSdk/src/": ["orv-stack-sdk-tests", "orv-route-tests", "orv-poke-tests"],
    "libs/OrvStackSdkC/src/": ["orv-stack-sdk-c-fake-tests"],
}


def tests_of(names: Iterable[str]) -> set[str]:
    return {test for prefix, tests in TESTS.items() for test in tests if any(one.startswith(prefix) for one in names)}


def tested(scratch: Scratch, names: Sequence[str], seconds: int, name: str) -> str:
    """The tests of the files of these names. They are for comparison: nothing more is built than they need."""
    owned = tests_of(names)
    if not owned:
        return "none of their own"
    if not scratch.build(sorted(owned), f"{name}.tests-build.log"):
        return "do not build"
    listed = json.loads(subprocess.check_output(["ctest", "--show-only=json-v1"], cwd=scratch.built))
    numbers = [
        str(number)
        for number, test in enumerate(listed["tests"], 1)
        if any(os.path.basename(word) in owned for word in test.get("command", []))
    ]
    watch = Stopwatch()
    command = ["ctest", "--test-dir", str(scratch.built), "-j", str(2 * JOBS), "--timeout", "60", "--stop-on-failure"]
    try:
        _, said = scratch.run([*command, "-I", "0,0,0," + ",".join(numbers)], f"{name}.tests.log", seconds)
    except Ended as ended:
        return f"no: {ended}"
    failed = re.search(r"(?m)^\s*\d+ - (\S+) \(", said)
    return f"FOUND: {failed.group(1)}, {watch}" if failed else f"no: {len(numbers)} tests, {watch}"
