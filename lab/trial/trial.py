# SPDX-License-Identifier: Apache-2.0
"""Plants faults one by one, and tries which instrument finds them. Started by script/trial, which explains it."""
from __future__ import annotations

import argparse
import dataclasses
import pathlib
import shutil
import signal
import sys
from collections.abc import Sequence

from lab.trial.instruments import Chaos, Explorer, Instrument, Outcome, Search, Torture, Verdict, tested, tests_of
from lab.trial.memory import Memory, Row, digest
from lab.trial.scratch import ASAN, Scratch, Stopwatch, touched_by

TREE = pathlib.Path(__file__).resolve().parents[2]
UNTRIED = Outcome(Verdict.NOT_RUN)
BROKER = "libs/OrvPlatform/src/broker/"
CONNMAN = "libs/OrvPlatform/src/connman/"
LOG = ("libs/OrvPlatform/src/log/", "libs/OrvPlatform/src/config/", "libs/OrvPlatform/src/ProcessWide")
# What judges beside the programs. Commands without an ending lie in the upper folders.
SCRIPTS = ("testbed/**/*.py", "testbed/*", "lab/**/*.py", "script/*", "script/lib/*")


class Trial:
    def __init__(
        self,
        scratch: Scratch,
        instruments: Sequence[Instrument],
        tests: int,
        first: bool,
        memory: Memory | None = None,
    ) -> None:
        self._scratch, self._instruments, self._tests, self._first = scratch, instruments, tests, first
        self._memory = memory
        self._sound: dict[Instrument, dict[str, str]] = {}
        self._sources: dict[str, str] = {}
        self._controlled: dict[Instrument, float] = {}
        self.unusable: set[str] = set()

    @property
    def columns(self) -> list[str]:
        return ["fault", "touches", *(one.name for one in self._instruments), "found", "tests"]

    def control(self) -> list[Outcome]:
        """The sound tree, which each instrument must pass. Afterwards it is known what they are made of."""
        for one in self._instruments:
            self._scratch.keep_sound(one.kept, one.preset)
            self._sound[one] = self._scratch.content(one.made_of, self._scratch.folder(one.preset))
        self._sources = self._scratch.content(SCRIPTS, self._scratch.copy)
        self._scratch.keep_built({one.preset for one in self._instruments} | ({ASAN} if self._tests else set()))
        said = [self._controls(one, one.control) for one in self._instruments]
        passed = {one.name for one, outcome in zip(self._instruments, said) if outcome.verdict is Verdict.NOTHING}
        self.unusable = {one.name for one in self._instruments if one.dispensable} - passed
        return said

    def _controls(self, one: Instrument, seconds: float) -> Outcome:
        """What the instrument says of the sound tree when it looks for so long."""
        key = digest("control", one.name, self._sound[one])
        known = self._memory.control(key) if self._memory else None
        if known and known.seconds >= seconds > 0:
            self._controlled[one] = known.seconds
            return known
        outcome = one.prepare(self._scratch, f"control-{seconds:.0f}.{log_name(one)}", seconds)
        if outcome.verdict is Verdict.NOTHING:
            self._controlled[one] = max(seconds, self._controlled.get(one, 0))
        if self._memory and outcome.verdict is Verdict.NOTHING and seconds > 0:
            self._memory.keep_control(key, dataclasses.replace(outcome, seconds=seconds))
        return outcome

    def may_begin(self, control: Sequence[Outcome]) -> bool:
        """Whether each instrument passes the sound tree that is not dispensable."""
        return all(
            outcome.verdict is Verdict.NOTHING or one.name in self.unusable
            for one, outcome in zip(self._instruments, control)
        )

    def plant(self, patch: pathlib.Path) -> Row:
        touched = touched_by(patch)
        key = self._key(patch)
        if self._memory and (known := self._memory.row(key)):
            return dataclasses.replace(known, name=patch.stem)
        try:
            row = self._planted(patch, touched)
        finally:
            self._scratch.restore(touched)
        if self._memory and row.counts:
            self._memory.keep_row(key, row)
        return row

    def _key(self, patch: pathlib.Path) -> str:
        efforts = [(one.name, one.effort, one.name in self.unusable) for one in self._instruments]
        made_of = [self._sources, *self._sound.values()]
        return digest("row", patch.read_text(errors="replace"), efforts, self._tests, self._first, made_of)

    def _planted(self, patch: pathlib.Path, touched: Sequence[str]) -> Row:
        row = Row(patch.stem, touched, outcomes=[UNTRIED] * len(self._instruments))
        refused = self._scratch.apply(patch)
        if refused:
            return dataclasses.replace(row, unfit=f"cannot be applied: {refused.splitlines()[0]}")
        outcomes: dict[Instrument, Outcome] = {}
        searches: dict[Instrument, Search] = {}
        built: set[Instrument] = set()
        for look in looks([one for one in self._instruments if one.name not in self.unusable], touched, self._first):
            one = look.instrument
            found = any(earlier.verdict is Verdict.FOUND for earlier in outcomes.values())
            if found and (self._first or one.last):
                break
            if one in outcomes and (one not in searches or outcomes[one].verdict is not Verdict.NOTHING):
                continue
            if one not in outcomes:
                if one not in built and not self._scratch.build_several(targets_of(look.built_with), patch.stem):
                    return dataclasses.replace(row, unfit="does not build")
                built.update(look.built_with)
                if self._scratch.content(one.made_of, self._scratch.folder(one.preset)) == self._sound[one]:
                    outcomes[one] = Outcome(Verdict.UNCHANGED)
                    continue
            search = searches.setdefault(one, Search(0))
            search.limit = look.seconds
            outcomes[one] = self._looks(one, search, f"{patch.stem}-{look.seconds}.{log_name(one)}")
        tests = tested(self._scratch, touched, self._tests, patch.stem) if self._tests else "not run"
        return dataclasses.replace(row, outcomes=[outcomes.get(one, UNTRIED) for one in self._instruments], tests=tests)

    def _looks(self, one: Instrument, search: Search, log: str) -> Outcome:
        outcome = one.look(self._scratch, log, search)
        if outcome.verdict is not Verdict.FOUND or outcome.seconds <= self._controlled.get(one, 0):
            return outcome
        # The sound tree must have been looked at for as long.
        control = self._controls(one, outcome.seconds)
        if control.verdict is Verdict.NOTHING:
            return outcome
        return Outcome(Verdict.BROKEN, f"{outcome.how}, but the tree without a fault: {control}")


@dataclasses.dataclass(frozen=True)
class Look:
    """An instrument may look more than once at a fault; `seconds` counts from the beginning of the first look."""

    instrument: Instrument
    seconds: int
    built_with: Sequence[Instrument]


def looks(instruments: Sequence[Instrument], touched: Sequence[str], first: bool) -> list[Look]:
    """Those that are made for what is touched come first, those that are to be last come last. With `first` each that can has
    a brief look before any has a long one: most faults are found in the first seconds, by whichever instrument."""
    last = [one for one in instruments if one.last]
    own = [one for one in instruments if not one.last and touches(touched, one.searches)]
    others = [one for one in instruments if not one.last and one not in own]
    groups = [(one, group) for group in (own, others) for one in group]
    found = [Look(one, one.brief, group) for one, group in groups if first and 0 < one.brief < one.effort]
    return (
        found + [Look(one, one.effort, group) for one, group in groups] + [Look(one, one.effort, [one]) for one in last]
    )


def touches(touched: Sequence[str], folders: Sequence[str]) -> bool:
    return any(name.startswith(folder) for name in touched for folder in folders)


def targets_of(instruments: Sequence[Instrument]) -> dict[str, list[str]]:
    """By preset."""
    presets = sorted({one.preset for one in instruments})
    return {preset: [name for one in instruments if one.preset == preset for name in one.targets] for preset in presets}


def log_name(instrument: Instrument) -> str:
    return f"{instrument.name.replace(' ', '-')}.log"


def build_all(scratch: Scratch, instruments: Sequence[Instrument], tests: set[str]) -> bool:
    """The sound tree, for all of them."""
    wanted = targets_of(instruments)
    if tests:
        wanted[ASAN] = sorted({*wanted.get(ASAN, ()), *tests})
    for preset, targets in wanted.items():
        if not scratch.configure(preset) or not scratch.build(targets, f"build-{preset}.log", preset):
            return False
    return True


def show(cells: Sequence[str], table: pathlib.Path) -> None:
    line = "| " + " | ".join(cell.replace("|", "/") for cell in cells) + " |"
    print(line, flush=True)
    with table.open("a") as output:
        output.write(line + "\n")


def say(words: str) -> None:
    print(f"trial: {words}", file=sys.stderr, flush=True)


def summary(rows: Sequence[Row]) -> str:
    counting = [row for row in rows if row.counts]
    found = sum(row.found for row in counting)
    return f"{found} of {len(counting)} found" + (
        f"; {len(rows) - len(counting)} do not count" if len(counting) < len(rows) else ""
    )


def chosen(options: argparse.Namespace) -> list[Instrument]:
    found: list[Instrument] = [
        Explorer(options.explore, "explore broker", "orv-explore", BROKER),
        Explorer(options.explore, "races broker", "orv-explore", BROKER, preset="tsan"),
        Explorer(options.explore, "explore connman", "orv-explore-connman", CONNMAN),
        Explorer(options.explore, "races connman", "orv-explore-connman", CONNMAN, preset="tsan"),
        Explorer(options.explore, "explore gateway", "orv-explore-gateway", "apps/"),
        Explorer(options.explore, "races gateway", "orv-explore-gateway", "apps/", preset="tsan"),
        Explorer(options.explore, "explore client", "orv-explore-client", "libs/OrvStackSdk/"),
        Explorer(options.explore, "races client", "orv-explore-client", "libs/OrvStackSdk/", preset="tsan"),
        Explorer(options.explore, "explore log", "orv-explore-log", *LOG),
        Explorer(options.explore, "races log", "orv-explore-log", *LOG, preset="tsan"),
        Torture(options.torture),
        Chaos(options.chaos),
    ]
    return [one for one in found if one.effort > 0]


def hold(trial: Trial, patches: Sequence[pathlib.Path], table: pathlib.Path, only_prepare: bool = False) -> int:
    show(trial.columns, table)
    show(["---"] * len(trial.columns), table)
    say("control: the sound tree")
    control = trial.control()
    show(["none (control)", "", *map(str, control), "no", ""], table)
    if not trial.may_begin(control):
        say("an instrument does not pass the tree without a fault, so what it says of one means nothing")
        return 1
    if only_prepare:
        return 0
    for name in sorted(trial.unusable):
        say(f"{name} does not pass the tree without a fault: the trial goes on without it")
    rows: list[Row] = []
    for number, patch in enumerate(patches, 1):
        watch = Stopwatch()
        rows.append(trial.plant(patch))
        show(rows[-1].cells(), table)
        say(f"{patch.name} took {watch}; {len(patches) - number} to go")
    print(f"trial: {summary(rows)}; {table}")
    return 0 if any(row.counts for row in rows) else 1


def main(words: Sequence[str]) -> int:
    parser = argparse.ArgumentParser(prog="trial")
    parser.add_argument("folder", type=pathlib.Path)
    parser.add_argument("--only", default="")
    parser.add_argument("--explore", type=int, default=30)
    parser.add_argument("--torture", type=int, default=60)
    parser.add_argument("--chaos", type=int, default=4)
    parser.add_argument("--tests", type=int, default=120)
    parser.add_argument("--first", action="store_true")
    parser.add_argument("--resume", action="store_true")
    parser.add_argument("--prepare", action="store_true")
    options = parser.parse_args(words)
    patches = [one for one in sorted(options.folder.glob("*.patch")) if options.only in one.name]
    if not patches:
        say(f"{options.folder} holds no {'*' + options.only + '*.patch' if options.only else '*.patch'}")
        return 2
    instruments = chosen(options)
    if not instruments:
        say("no instrument is left: each has no time")
        return 2
    scratch = Scratch(TREE, TREE / "build" / "trial")
    if not options.resume:
        shutil.rmtree(scratch.logs, ignore_errors=True)
    scratch.logs.mkdir(parents=True, exist_ok=True)
    say(f"{len(patches)} faults; builds the tree without them, in {scratch.copy}")
    scratch.update()
    tests = {name for one in patches for name in tests_of(touched_by(one))} if options.tests else set()
    if not build_all(scratch, instruments, tests):
        say(f"the tree itself does not build: see {scratch.logs}")
        return 1
    out = TREE / "out" / "trial"
    out.mkdir(parents=True, exist_ok=True)
    table = out / f"{options.folder.resolve().name}.md"
    table.unlink(missing_ok=True)
    memory = Memory(scratch.place / "memory", options.resume)
    return hold(Trial(scratch, instruments, options.tests, options.first, memory), patches, table, options.prepare)


if __name__ == "__main__":
    signal.signal(signal.SIGTERM, lambda number, frame: sys.exit("trial: told to end"))
    try:
        sys.exit(main(sys.argv[1:]))
    except KeyboardInterrupt:
        sys.exit("trial: told to end")
