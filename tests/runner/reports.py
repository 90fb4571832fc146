# SPDX-License-Identifier: Apache-2.0
"""Reads what ctest and pytest write about their tests (JUnit XML)."""

from __future__ import annotations

import dataclasses
import pathlib
import xml.etree.ElementTree as ElementTree


@dataclasses.dataclass(frozen=True)
class Test:
    name: str
    seconds: float
    verdict: str  # passed, failed or skipped
    output: str = ""


def _verdict(case: ElementTree.Element) -> tuple[str, str]:
    for kind in ("failure", "error"):
        found = case.find(kind)
        if found is not None:
            said = (found.text or "") or found.get("message", "")
            return "failed", said + (case.findtext("system-out") or "")
    skipped = case.find("skipped")
    if skipped is not None or case.get("status") in ("notrun", "disabled"):
        return "skipped", "" if skipped is None else skipped.get("message", "")
    return "passed", ""


def read(folder: pathlib.Path) -> list[Test]:
    """All tests of the reports in a folder. A report that cannot be read counts as one failed test. Where ctest has run
    many tests as one, what counts is the report of that name."""
    tests: list[Test] = []
    files = sorted(folder.glob("*.xml"))
    together = {file.stem for file in files}
    for file in files:
        try:
            cases = list(ElementTree.parse(file).iter("testcase"))
        except ElementTree.ParseError as error:
            tests.append(Test(f"the report {file.name}", 0.0, "failed", f"cannot be read: {error}"))
            continue
        for case in cases:
            if case.get("name") in together:
                continue
            verdict, output = _verdict(case)
            # ctest repeats a test's name as its class.
            owner, name = case.get("classname", ""), case.get("name", "")
            full = name if owner in ("", name) else f"{owner}.{name}"
            tests.append(Test(full, float(case.get("time") or 0), verdict, output))
    return tests


def second_tries(folder: pathlib.Path) -> list[str]:
    """The tests that passed, or failed for good, only when they were tried once more."""
    file = folder / "second-tries"
    return file.read_text(encoding="utf-8").splitlines() if file.exists() else []


def count(tests: list[Test], verdict: str) -> int:
    return sum(1 for test in tests if test.verdict == verdict)


def slowest(tests: list[Test], how_many: int) -> list[Test]:
    return sorted(tests, key=lambda test: test.seconds, reverse=True)[:how_many]
