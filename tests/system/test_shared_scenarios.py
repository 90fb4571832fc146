# SPDX-License-Identifier: Apache-2.0
"""The scenarios of tests/scenarios on a gateway box: what happens is what happens in virtual time."""
from __future__ import annotations

import pathlib
import shutil
from collections.abc import Callable

import pytest

from orv_testbed import box as boxes
from orv_testbed.box import Box
from orv_testbed.programs import TREE, Missing, program
from orv_testbed.scenarios import __main__ as command
from orv_testbed.scenarios import gateways
from orv_testbed.scenarios.recorder import Recorder
from orv_testbed.scenarios.run import Cannot, Failed, on_box, on_loopback
from orv_testbed.topics import GREEN, YELLOW

SCENARIOS = sorted((TREE / "tests/scenarios").glob("*.orv"))


def name(scenario: pathlib.Path) -> str:
    return scenario.stem


@pytest.mark.parametrize("scenario", SCENARIOS, ids=name)
def test_a_box_does_what_the_simulation_does(box: Box, scenario: pathlib.Path) -> None:
    journal, _ = on_box(program("orv-shell"), scenario, box)
    assert journal.lines()


def a_simulation_that(folder: pathlib.Path, *command: str) -> str:
    """orv-shell, but for its simulation, whose output is changed by `command`."""
    shell = folder / "orv-shell"
    shutil.copy(program("orv-shell"), shell)
    simulation = folder / "orv-simulate"
    words = " ".join(f"'{word}'" for word in command)
    simulation.write_text(f"#!/bin/sh\n'{program('orv-simulate')}' \"$@\" | {words}\n", encoding="ascii")
    simulation.chmod(0o755)
    return str(shell)


@pytest.mark.parametrize(
    "change, seen",
    [
        ("s, retained /orv/led/, /orv/led/,", f"+session: retained {YELLOW} 'On'"),
        ("/led.*green Off/d", f"+session: retained {GREEN} 'Off'"),
        ("s/OnInitConfirmation ACK/OnInitConfirmation NACK/", "+callbacks: OnInitConfirmation ACK"),
        ("s/start delay to cell/no delay/", "+states: eth cloud lost, start delay to cell"),
    ],
)
def test_a_difference_is_seen(box: Box, tmp_path: pathlib.Path, change: str, seen: str) -> None:
    scenario = TREE / "tests/scenarios/events-and-leds.orv"
    with pytest.raises(Failed) as fault:
        on_box(a_simulation_that(tmp_path, "sed", change), scenario, box)
    assert seen in str(fault.value)


def test_a_machine_without_interfaces_for_the_purpose_says_so() -> None:
    with pytest.raises(Cannot, match="13: ethernet dead: not on a real broker.*run it on a gateway box"):
        on_loopback(program("orv-shell"), TREE / "tests/scenarios/fail-over-and-return.orv")


@pytest.mark.parametrize(
    "fault",
    [
        boxes.Failed("box up: no room"),
        Missing("no broker"),
        BrokenPipeError("its shell has ended"),
        Failed("another journal"),
    ],
)
def test_a_scenario_that_breaks_off_leaves_the_next_one_its_turn(
    fault: Exception, monkeypatch: pytest.MonkeyPatch, capsys: pytest.CaptureFixture[str]
) -> None:
    run: list[str] = []

    def begin(_: str, scenario: pathlib.Path) -> None:
        run.append(scenario.name)
        raise fault

    monkeypatch.setattr(command, "on_loopback", begin)
    assert command.main(["orv-shell", "first.orv", "second.orv"]) == 1
    assert run == ["first.orv", "second.orv"]
    assert f"second.orv: {fault}" in capsys.readouterr().err


def test_a_gateway_that_does_not_come_up_leaves_nothing_behind(
    monkeypatch: pytest.MonkeyPatch, tmp_path: pathlib.Path
) -> None:
    def never(self: Recorder, _: int) -> None:
        raise boxes.Failed("no subscription")

    left: list[Recorder] = []
    make: Callable[..., None] = Recorder.__init__

    def remember(self: Recorder, *arguments: object) -> None:
        make(self, *arguments)
        left.append(self)

    monkeypatch.setattr(Recorder, "__init__", remember)
    monkeypatch.setattr(Recorder, "await_subscription", never)
    with pytest.raises(boxes.Failed):
        gateways.Loopback(program("orv-shell"), tmp_path, "10ms")
    assert left[0].process.poll() is not None
