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


def played_machine(folder: pathlib.Path, families: Families) -> board.Board:
    (folder / "console").touch()
    layout = SimpleNamespace(machine=folder, command="box")
    return board.Board(
        layout,  # type: ignore[arg-type]
        SimpleNamespace(alive=lambda _: True),  # type: ignore[arg-type]
        SimpleNamespace(families=families),  # type: ignore[arg-type]
    )


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
    machine = played_machine(tmp_path, Families(eth="46"))
    with pytest.raises(BoxError):
        machine.wait()
    assert clock.now < Gateway.longest_command


@pytest.mark.parametrize("is_missed", [False, True])
def test_an_ipv6_address_is_taken_away_only_when_the_connection_manager_has_missed_it(
    tmp_path: pathlib.Path, monkeypatch: pytest.MonkeyPatch, is_missed: bool
) -> None:
    clock = Clock()
    monkeypatch.setattr(time, "monotonic", clock.read)
    monkeypatch.setattr(time, "sleep", clock.go)
    flushes = 0

    def played(_: object, *command: str, **__: object) -> agent.Outcome:
        nonlocal flushes
        if command[:4] == ("ip", "-6", "addr", "flush"):
            flushes += 1
        servers = "10.22.0.53" if is_missed and flushes < 2 else "10.22.0.53,2001:db8:22::53"
        told = f"wwan0 ready cellular 10.12.0.50 {servers} - /path" if command == board.SERVICES else "an address"
        return agent.Outcome(0, told, "")

    monkeypatch.setattr(agent, "run", played)
    played_machine(tmp_path, Families(cell="46")).wait()
    assert flushes == (2 if is_missed else 0)
