# SPDX-License-Identifier: Apache-2.0
"""The faults of a box as the page presses them."""
from __future__ import annotations

from typing import Any

import pytest

from orv_testbed.gateway_box import FAULTS
from orv_testbed.panel.faults import ALLOWED, CATALOGUE, UNDO_ALL, FaultDesk, kind_of
from orv_testbed.panel.hub import Hub


class Desk:
    def __init__(self) -> None:
        self.hub = Hub()
        self.done: list[str] = []
        self.broken = ""
        self.desk = FaultDesk(self.hub, self.box)

    def box(self, *words: str) -> str:
        if " ".join(words) == self.broken:
            raise RuntimeError("box: no such cable")
        self.done.append(" ".join(words))
        return ""

    def in_force(self) -> Any:
        return self.hub.sections["faults"][1]["in_force"]


def test_each_fault_that_the_box_knows_has_a_button() -> None:
    assert set(FAULTS) == {words.split()[0] for words in ALLOWED}


@pytest.mark.parametrize("kind", CATALOGUE, ids=lambda kind: f"{kind.group}-{kind.name}")
def test_each_fault_is_told_apart_by_its_words(kind: Any) -> None:
    assert all(kind_of(words) == kind for words in (*kind.faults.values(), kind.undo))


def test_a_fault_is_in_force_until_it_is_undone() -> None:
    desk = Desk()
    assert desk.desk.press("provider eth dead") == ""
    assert desk.in_force() == ["provider eth dead"]
    assert desk.desk.press("provider eth back") == ""
    assert desk.in_force() == [] and desk.done == ["provider eth dead", "provider eth back"]


def test_a_fault_replaces_the_one_of_its_kind() -> None:
    desk = Desk()
    for words in ("loss eth 10", "loss cell 10", "loss eth 80"):
        desk.desk.press(words)
    assert desk.in_force() == ["loss cell 10", "loss eth 80"]


def test_everything_is_undone_at_once_the_latest_first() -> None:
    desk = Desk()
    for words in ("cable out", "broker stop", UNDO_ALL):
        assert desk.desk.press(words) == ""
    assert desk.done[2:] == ["broker start", "cable in"] and desk.in_force() == []


def test_a_fault_that_fails_says_why_and_is_not_in_force() -> None:
    desk = Desk()
    desk.broken = "cable out"
    assert desk.desk.press("cable out") == "box: no such cable"
    assert desk.in_force() == []


@pytest.mark.parametrize(
    "words", ["", "down", "exec reboot", "cable out; reboot", "provider eth", "loss eth 99", "x" * 900]
)
def test_what_is_no_button_is_not_run(words: str) -> None:
    desk = Desk()
    assert "no such fault" in desk.desk.press(words)
    assert desk.done == []
