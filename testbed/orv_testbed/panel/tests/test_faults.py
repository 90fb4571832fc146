# SPDX-License-Identifier: Apache-2.0
"""The faults of a box as the page presses them."""
from __future__ import annotations

from typing import Any

import pytest

from orv_testbed.fault_record import after
from orv_testbed.gateway_box import FAULTS
from orv_testbed.panel.faults import ALLOWED, CATALOGUE, UNDO_ALL, FaultDesk, kind_of
from orv_testbed.panel.hub import Hub
from orv_testbed.panel.tests.samples import as_read


class Desk:
    """A desk, and the box that it makes faults on."""

    def __init__(self, *in_force: str) -> None:
        self.hub = Hub()
        self.hub.take(as_read())  # without it there is no time for a mark
        self.done: list[str] = []
        self.broken = ""
        self.noted = list(in_force)
        self.desk = FaultDesk(self.hub, self.box, lambda: list(self.noted))

    def box(self, *words: str) -> str:
        if " ".join(words) == self.broken:
            raise RuntimeError("box: no such cable")
        self.done.append(" ".join(words))
        self.noted = after(self.noted, *words)
        return ""

    def by_hand(self, words: str) -> None:
        self.noted = after(self.noted, *words.split())
        self.desk.look()

    def told(self) -> Any:
        return self.hub.sections["faults"][1]

    def in_force(self) -> Any:
        return self.told()["in_force"]

    def marks(self) -> list[str]:
        return [event["mark"] for event in self.hub.events if "mark" in event]


def test_each_fault_that_the_box_knows_has_a_button() -> None:
    assert set(FAULTS) == {words.split()[0] for words in ALLOWED}


@pytest.mark.parametrize("kind", CATALOGUE, ids=lambda kind: f"{kind.group}-{kind.name}")
def test_each_fault_is_told_apart_by_its_words_and_ended_by_its_undo(kind: Any) -> None:
    for words in kind.faults.values():
        assert kind_of(words) == kind
        assert after([], *words.split()) == [words]
        assert after([words], *kind.undo.split()) == []


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


def test_what_was_in_force_before_the_panel_is_shown_and_can_be_undone() -> None:
    desk = Desk("cable out")
    assert desk.in_force() == ["cable out"] and desk.marks() == []
    assert desk.desk.press(UNDO_ALL) == ""
    assert desk.in_force() == [] and desk.done == ["cable in"]


def test_a_fault_made_by_hand_is_in_force_like_any_other() -> None:
    desk = Desk()
    desk.by_hand("provider eth dead")
    assert desk.told() == {
        "in_force": ["provider eth dead"],
        "undo": {"provider eth dead": "provider eth back"},
        "busy": None,
    }
    desk.by_hand("provider eth back")
    assert desk.in_force() == [] and desk.marks() == ["provider eth dead", "provider eth back"]


@pytest.mark.parametrize(
    ("fault", "undo"),
    [
        ("loss eth 33", "loss eth off"),
        ("names cell lie 192.0.2.1 cloud.box.test", "names cell back"),
        ("clock +3600", "clock 0"),
        ("power cut", None),
    ],
)
def test_words_that_no_button_has_are_shown_with_what_takes_them_back(fault: str, undo: str | None) -> None:
    desk = Desk(fault)
    assert desk.told()["undo"] == {fault: undo}
    assert desk.desk.press(UNDO_ALL) == "" and desk.done == ([undo] if undo else [])


def test_a_fault_that_ends_another_leaves_one_mark() -> None:
    desk = Desk("broker freeze")
    desk.by_hand("broker stop")
    assert desk.in_force() == ["broker stop"] and desk.marks() == ["broker stop"]


def test_what_is_being_done_is_told_until_it_is_done() -> None:
    desk = Desk()
    told: list[Any] = []

    def box(*_: str) -> str:
        desk.desk.look()
        told.append(desk.told()["busy"])
        return ""

    desk.desk.box = box
    desk.desk.press("cable out")
    assert told == ["cable out"] and desk.told()["busy"] is None
