# SPDX-License-Identifier: Apache-2.0
"""The trial on a small tree, with instruments that say what they are told."""

from __future__ import annotations

import argparse
import os
import pathlib

import pytest

from lab.trial import trial

PATCH = """A fault, as git format-patch writes it.

--- a/libs/Greeting.cpp
+++ b/libs/Greeting.cpp
@@ -1 +1 @@
-hello
+hell
"""


@pytest.fixture(name="place")
def small_tree(tmp_path: pathlib.Path, monkeypatch: pytest.MonkeyPatch) -> pathlib.Path:
    """Two copies of a tree with one file, and the patch."""
    for name in ("sound", "scratch"):
        (tmp_path / name / "libs").mkdir(parents=True)
        (tmp_path / name / "libs" / "Greeting.cpp").write_text("hello\n")
    for constant, name in (
        ("TREE", "sound"),
        ("SCRATCH", "scratch"),
        ("BUILD", "built"),
        ("LOGS", "logs"),
        ("PLACE", "."),
    ):
        (tmp_path / name).mkdir(exist_ok=True)
        monkeypatch.setattr(trial, constant, tmp_path / name)
    (tmp_path / "built" / "bin").mkdir()
    (tmp_path / "fault.patch").write_text(PATCH)
    return tmp_path


def instrument(place: pathlib.Path, name: str, said: str, status: int = 0) -> None:
    program = place / "built" / "bin" / name
    program.write_text(f"#!/bin/sh\ncat <<'SAID'\n{said}\nSAID\nexit {status}\n")
    program.chmod(0o755)


def test_a_fault_is_planted_in_the_copy_alone_and_taken_out_again(place: pathlib.Path) -> None:
    planted = place / "scratch" / "libs" / "Greeting.cpp"
    os.utime(planted, (0, 0))
    assert trial.apply(place / "fault.patch") == ""
    assert planted.read_text() == "hell\n"
    assert (place / "sound" / "libs" / "Greeting.cpp").read_text() == "hello\n"
    os.utime(planted, (0, 0))
    trial.restore(trial.touched_by(place / "fault.patch"))
    assert planted.read_text() == "hello\n"
    assert planted.stat().st_mtime > 0  # or what was built of the fault would be kept


def test_a_fault_that_does_not_fit_is_said_so(place: pathlib.Path) -> None:
    (place / "scratch" / "libs" / "Greeting.cpp").write_text("good morning\n")
    row = trial.try_fault(place / "fault.patch", {}, argparse.Namespace(explore=1, torture=1, tests=0))
    assert row[:2] == ["fault", "Greeting.cpp"] and row[2].startswith("cannot be applied")


@pytest.mark.parametrize(
    ("said", "status", "means"),
    [
        (
            "explore: seed 12 fails\nexplore: 40 seeds, 900 steps, 1 s, 40 seeds a second",
            1,
            "FOUND: seed 12, 40 seeds, 0 s",
        ),
        ("explore: 5000 seeds, 900 steps, 1 s, 40 seeds a second", 0, "no: 5000 seeds, 0 s"),
        ("Segmentation fault", 139, "FOUND: status 139, ? seeds, 0 s"),
    ],
)
def test_what_an_explorer_says_is_understood(place: pathlib.Path, said: str, status: int, means: str) -> None:
    instrument(place, "orv-explore", said, status)
    assert trial.explored("orv-explore", 1, "log") == means


def test_an_instrument_that_does_not_end_has_found_something(
    place: pathlib.Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(trial, "GRACE", 0)
    (place / "built" / "bin" / "orv-explore").write_text("#!/bin/sh\nexec sleep 600\n")
    (place / "built" / "bin" / "orv-explore").chmod(0o755)
    assert trial.explored("orv-explore", 1, "log") == "FOUND: not ended after 1 s"


def test_only_what_the_fault_has_changed_is_run(place: pathlib.Path, monkeypatch: pytest.MonkeyPatch) -> None:
    for name in trial.INSTRUMENTS:
        instrument(place, name, "explore: 1 seeds")
    sound = trial.programs()

    def build(targets: list[str], log: str) -> bool:
        instrument(place, "orv-explore", "explore: seed 3 fails", 1)
        return True

    monkeypatch.setattr(trial, "build", build)
    row = trial.try_fault(place / "fault.patch", sound, argparse.Namespace(explore=1, torture=1, tests=0))
    assert row[2:] == ["FOUND: seed 3, ? seeds, 0 s", "same program", "same program", "yes", "not run"]
