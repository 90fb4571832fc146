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

from lab.trial.instruments import Chaos, Explorer, Instrument, Outcome, Torture, Verdict, tested
from lab.trial.scratch import Scratch, Stopwatch, touched_by

TREE = pathlib.Path(__file__).resolve().parents[2]
UNTRIED = Outcome(Verdict.NOT_RUN)
BROKER = "libs/OrvPlatform/src/broker/"
CONNMAN = "libs/OrvPlatform/src/connman/"
LOG = ("libs/OrvPlatform/src/log/", "libs/OrvPlatform/src/config/", "libs/OrvPlatform/src/ProcessWide")


@dataclasses.dataclass(frozen=True)
class Row:
    """What came of a fault."""

    name: str
    touched: Sequence[str]
    unfit: str = ""  # why it does not count
    outcomes: Sequence[Outcome] = ()
    tests: str = ""

    @property
    def found(self) -> bool:
        return any(one.verdict is Verdict.FOUND for one in self.outcomes)

    @property
    def counts(self) -> bool:
        """Where nothing was found, each instrument that could find it must have worked."""
        return not self.unfit and (self.found or all(one.verdict is not Verdict.BROKEN for one in self.outcomes))

    def cells(self) -> list[str]:
        verdict = ("yes" if self.found else "no") if self.counts else f"does not count: {self.unfit or 'see left'}"
        touched = ", ".join(sorted({pathlib.Path(one).name for one in self.touched}))
        return [self.name, touched, *map(str, self.outcomes), verdict, self.tests]


class Trial:
    def __init__(self, scratch: Scratch, instruments: Sequence[Instrument], tests: int, first: bool) -> None:
        self._scratch, self._instruments, self._tests, self._first = scratch, instruments, tests, first
        self._sound: dict[str, dict[str, str]] = {}
        self.unusable: set[str] = set()

    @property
    def columns(self) -> list[str]:
        return ["fault", "touches", *(one.name for one in self._instruments), "found", "tests"]

    def control(self) -> list[Outcome]:
        """The sound tree, which each instrument must pass. Afterwards it is known what they are made of."""
        for one in self._instruments:
            self._scratch.keep_sound(one.kept, one.preset)
            self._sound[one.name] = self._scratch.content(one.made_of, one.preset)
        said = [one.prepare(self._scratch, f"control.{one.name.replace(' ', '-')}.log") for one in self._instruments]
        passed = {one.name for one, outcome in zip(self._instruments, said) if outcome.verdict is Verdict.NOTHING}
        self.unusable = {one.name for one in self._instruments if one.dispensable} - passed
        return said

    def may_begin(self, control: Sequence[Outcome]) -> bool:
        """Whether each instrument passes the sound tree that is not dispensable."""
        return all(
            outcome.verdict is Verdict.NOTHING or one.name in self.unusable
            for one, outcome in zip(self._instruments, control)
        )

    def plant(self, patch: pathlib.Path) -> Row:
        touched = touched_by(patch)
        try:
            return self._planted(patch, touched)
        finally:
            self._scratch.restore(touched)

    def _planted(self, patch: pathlib.Path, touched: Sequence[str]) -> Row:
        row = Row(patch.stem, touched, outcomes=[UNTRIED] * len(self._instruments))
        refused = self._scratch.apply(patch)
        if refused:
            return dataclasses.replace(row, unfit=f"cannot be applied: {refused.splitlines()[0]}")
        outcomes: dict[Instrument, Outcome] = {}
        for one in in_order(self._instruments, touched):
            found = any(earlier.verdict is Verdict.FOUND for earlier in outcomes.values())
            if one.name in self.unusable or (found and (self._first or one.last)):
                outcomes[one] = UNTRIED
                continue
            log = f"{patch.stem}.{one.name.replace(' ', '-')}.build.log"
            if not self._scratch.build(one.targets, log, one.preset):
                return dataclasses.replace(row, unfit="does not build")
            outcomes[one] = self._tried(one, patch.stem)
        tests = tested(self._scratch, list(touched), self._tests, patch.stem) if self._tests else "not run"
        return dataclasses.replace(row, outcomes=[outcomes[one] for one in self._instruments], tests=tests)

    def _tried(self, instrument: Instrument, name: str) -> Outcome:
        if self._scratch.content(instrument.made_of, instrument.preset) == self._sound[instrument.name]:
            return Outcome(Verdict.UNCHANGED)
        return instrument.look(self._scratch, f"{name}.{instrument.name.replace(' ', '-')}.log")


def in_order(instruments: Sequence[Instrument], touched: Sequence[str]) -> list[Instrument]:
    """Those that are made for what is touched come first, those that are to be last come last."""

    def rank(one: Instrument) -> int:
        return 2 if one.last else 0 if any(name.startswith(one.searches) for name in touched if one.searches) else 1

    return sorted(instruments, key=rank)


def build_all(scratch: Scratch, instruments: Sequence[Instrument]) -> bool:
    """The sound tree, for all of them."""
    for preset in sorted({one.preset for one in instruments}):
        targets = sorted({target for one in instruments if one.preset == preset for target in one.targets})
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
        Explorer(options.explore, "explore client", "orv-explore-client", "libs/OrvStackSdk/"),
        Explorer(options.explore, "explore log", "orv-explore-log", *LOG),
        Explorer(options.explore, "races log", "orv-explore-log", *LOG, preset="tsan"),
        Torture(options.torture),
        Chaos(options.chaos),
    ]
    return [one for one in found if one.effort > 0]


def hold(trial: Trial, patches: Sequence[pathlib.Path], table: pathlib.Path) -> int:
    show(trial.columns, table)
    show(["---"] * len(trial.columns), table)
    say("control: the sound tree")
    control = trial.control()
    show(["none (control)", "", *map(str, control), "no", ""], table)
    if not trial.may_begin(control):
        say("an instrument does not pass the tree without a fault, so what it says of one means nothing")
        return 1
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
    shutil.rmtree(scratch.logs, ignore_errors=True)
    scratch.logs.mkdir(parents=True)
    say(f"{len(patches)} faults; builds the tree without them, in {scratch.copy}")
    scratch.update()
    if not build_all(scratch, instruments):
        say(f"the tree itself does not build: see {scratch.logs}")
        return 1
    out = TREE / "out" / "trial"
    out.mkdir(parents=True, exist_ok=True)
    table = out / f"{options.folder.resolve().name}.md"
    table.unlink(missing_ok=True)
    return hold(Trial(scratch, instruments, options.tests, options.first), patches, table)


if __name__ == "__main__":
    signal.signal(signal.SIGTERM, lambda number, frame: sys.exit("trial: told to end"))
    try:
        sys.exit(main(sys.argv[1:]))
    except KeyboardInterrupt:
        sys.exit("trial: told to end")
