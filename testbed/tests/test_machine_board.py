# SPDX-License-Identifier: Apache-2.0
"""How long a box waits for its machine, without a machine."""
from __future__ import annotations

import pathlib
import time
from types import SimpleNamespace

import pytest

from orv_testbed.families import Families
from orv_testbed.layout import BoxError
from orv_testbed.machine import agent, board
from orv_testbed.machine.gateway import Gateway


class Clock:
    """Goes on only when somebody sleeps."""

    def __init__(self) -> None:
        self.now = 0.0

    def read(self) -> float:
        return self.now

    def go(self, seconds: float) -> None:
        self.now += max(seconds, 1)


@pytest.mark.parametrize("answers_after, connects_after", [(1e9, 1e9), (1700, 1e9), (1000, 1700)])
def test_a_machine_that_does_not_come_up_is_given_up_before_the_word_is(
    tmp_path: pathlib.Path, monkeypatch: pytest.MonkeyPatch, answers_after: float, connects_after: float
) -> None:
    clock = Clock()
    monkeypatch.setattr(time, "monotonic", clock.read)
    monkeypatch.setattr(time, "sleep", clock.go)

    def played(_: object, *command: str, **__: object) -> agent.Outcome:
        after = {"true": answers_after, board.CONNECT_CELLULAR[0]: connects_after}.get(command[0], 1e9)
        return agent.Outcome(0 if clock.now >= after else 1, "", "")

    monkeypatch.setattr(agent, "run", played)
    (tmp_path / "console").touch()
    layout = SimpleNamespace(machine=tmp_path, command="box")
    machine = board.Board(
        layout,  # type: ignore[arg-type]
        SimpleNamespace(alive=lambda _: True),  # type: ignore[arg-type]
        SimpleNamespace(families=Families(eth="46")),  # type: ignore[arg-type]
    )
    with pytest.raises(BoxError):
        machine.wait()
    assert clock.now < Gateway.longest_command
