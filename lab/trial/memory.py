# SPDX-License-Identifier: Apache-2.0
"""What a trial has found out, for one that goes on where it was interrupted."""
from __future__ import annotations

import dataclasses
import hashlib
import json
import pathlib
from collections.abc import Sequence
from typing import Any

from lab.trial.instruments import Outcome, Verdict


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


def digest(*what: object) -> str:
    return hashlib.sha256(json.dumps(what, sort_keys=True).encode()).hexdigest()[:24]


def as_words(outcome: Outcome) -> dict[str, Any]:
    return {**dataclasses.asdict(outcome), "verdict": outcome.verdict.name}


def from_words(words: dict[str, Any]) -> Outcome:
    return Outcome(Verdict[words["verdict"]], words["how"], words["seconds"])


class Memory:
    """By a digest of all that an answer depends on."""

    def __init__(self, folder: pathlib.Path, rows: bool) -> None:
        self._folder, self._rows = folder, rows

    def control(self, key: str) -> Outcome | None:
        words = self._read(key)
        return from_words(words) if words else None

    def keep_control(self, key: str, outcome: Outcome) -> None:
        self._write(key, as_words(outcome))

    def row(self, key: str) -> Row | None:
        words = self._read(key) if self._rows else None
        if not words:
            return None
        outcomes = list(map(from_words, words["outcomes"]))
        return Row(words["name"], words["touched"], words["unfit"], outcomes, words["tests"])

    def keep_row(self, key: str, row: Row) -> None:
        self._write(key, {**dataclasses.asdict(row), "outcomes": list(map(as_words, row.outcomes))})

    def _read(self, key: str) -> dict[str, Any] | None:
        file = self._folder / f"{key}.json"
        found: dict[str, Any] | None = json.loads(file.read_text(encoding="utf-8")) if file.exists() else None
        return found

    def _write(self, key: str, words: dict[str, Any]) -> None:
        self._folder.mkdir(parents=True, exist_ok=True)
        beside = self._folder / f"{key}.new"
        beside.write_text(json.dumps(words, indent=1), encoding="utf-8")
        beside.replace(self._folder / f"{key}.json")
