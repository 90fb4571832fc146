# SPDX-License-Identifier: Apache-2.0
"""A scenario in virtual time and on a real gateway, compared."""
from __future__ import annotations

import pathlib
import tempfile

from orv_testbed.box import Box
from orv_testbed.scenarios.gateways import SURROUNDINGS, Cannot, Gateway, Loopback, OnBox
from orv_testbed.scenarios.journal import Failed, Journal, commands_of, difference, simulate, tick_of, words_of
from orv_testbed.waiting import SLACK, comes_within

__all__ = ["Cannot", "Failed", "on_box", "on_loopback"]


def await_counts(journal: Journal, wanted: dict[str, int], expected: Journal) -> None:
    def all_there() -> bool:
        present = journal.count()
        return all(present[kind] >= count for kind, count in wanted.items())

    if not comes_within(2 * SLACK, all_there):
        raise Failed(difference(expected, journal))


def check_that_it_can(gateway: type[Gateway], scenario: pathlib.Path) -> None:
    """@raise Cannot: before anything has begun"""
    for number, line in enumerate(scenario.read_text(encoding="utf-8").splitlines(), 1):
        if (words := words_of(line)) and not gateway.can(words):
            raise Cannot(f"{number}: {' '.join(words)}: not on {gateway.NAME}, {gateway.REASON}")


def is_awaited_anyway(words: list[str]) -> bool:
    """After each command everything is waited for that came in virtual time."""
    return words[0] == "expect" and words[1] in ("published", "route", "state")


def follow(gateway: Gateway, scenario: pathlib.Path, expected: Journal, counts: list[dict[str, int]]) -> None:
    started = False
    for number, (command, wanted) in enumerate(zip(commands_of(scenario), counts)):
        words = words_of(command)
        if not started and words[0] not in SURROUNDINGS:
            gateway.start()
            started = True
        if words[0] in SURROUNDINGS:
            gateway.change(words)
        elif not is_awaited_anyway(words):
            gateway.run_command(command, number)
        if started:
            await_counts(gateway.journal, wanted, expected)
    gateway.finish()
    if expected.lines() != gateway.journal.lines():
        raise Failed(difference(expected, gateway.journal))


def on_loopback(shell: str, scenario: pathlib.Path) -> tuple[Journal, str]:
    """@return what happened, the same in both, and what the gateway is called"""
    check_that_it_can(Loopback, scenario)
    expected, counts = simulate(shell, scenario, Loopback.KINDS)
    with tempfile.TemporaryDirectory(prefix="orv-scenario-") as folder:
        gateway = Loopback(shell, pathlib.Path(folder), tick_of(scenario))
        try:
            follow(gateway, scenario, expected, counts)
        finally:
            gateway.stop()
    return expected, Loopback.NAME


def on_box(shell: str, scenario: pathlib.Path, box: Box) -> tuple[Journal, str]:
    """The same on a box that is up, and on which nothing has happened yet."""
    expected, counts = simulate(shell, scenario, OnBox.KINDS)
    gateway = OnBox(shell, box, tick_of(scenario))
    try:
        follow(gateway, scenario, expected, counts)
    finally:
        gateway.stop()
    return expected, OnBox.NAME
