# SPDX-License-Identifier: Apache-2.0
"""What is asked of each scenario in the end finds what it is to find."""
from __future__ import annotations

import json
import pathlib
from typing import cast

import pytest

from orv_testbed.application import Application
from orv_testbed.audit import (
    POKES,
    moves_not_told_once,
    pokes_on_a_wrong_way,
    proofs_on_a_wrong_way,
    true_times,
    unproven_moves,
)
from orv_testbed.box import Box
from orv_testbed.passages import Passage
from orv_testbed.timestamps import at

THERE, BACK = ("Ethernet (eth0)", "Cellular (wwan0)"), ("Cellular (wwan0)", "Ethernet (eth0)")


class Recorded(Application):
    """An application that has ended: the default route's interfaces with the seconds for which each had it, and its log."""

    def __init__(self, folder: pathlib.Path, routes: list[tuple[str, float]], moves: list[tuple[str, str]]) -> None:
        self.log_file, self.transcript_file = folder / "app.log", folder / "transcript.jsonl"
        told = "2026-01-01T00:00:00.000Z info [GatewayApp] the WAN route has moved from {} to {}: a reason\n"
        self.log_file.write_text("".join(told.format(*move) for move in moves), encoding="utf-8")
        now, entries = 100.0, []
        for number, (interface, seconds) in enumerate(routes):
            what = ("default_route", "interface") if number else ("start", "default_route")
            entries.append({"what": what[0], what[1]: interface, "monotonic": now})
            now += seconds
        entries.append({"what": "end", "monotonic": now})
        self.transcript_file.write_text("".join(json.dumps(entry) + "\n" for entry in entries), encoding="utf-8")


ONCE = [("eth0", 20.0), ("wwan0", 20.0)]


@pytest.mark.parametrize(
    "routes, moves, right",
    [
        (ONCE, [THERE], True),
        (ONCE, [], False),
        (ONCE, [THERE, THERE], False),
        (ONCE, [THERE, BACK], False),
        ([*ONCE, ("", 2.0), ("eth0", 20.0)], [THERE, BACK], True),
        ([*ONCE, ("", 2.0), ("eth0", 20.0)], [THERE], False),
        ([("", 5.0), *ONCE], [THERE], True),
        ([("eth0", 20.0), ("wwan0", 1.0), ("eth0", 20.0)], [], True),  # back before it counted
    ],
)
def test_each_move_of_the_route_is_told_once(
    tmp_path: pathlib.Path, routes: list[tuple[str, float]], moves: list[tuple[str, str]], right: bool
) -> None:
    assert (moves_not_told_once(Recorded(tmp_path, routes, moves)) == []) == right


HOUR = 3600.0


@pytest.mark.parametrize("marked_at", [1, 2, 3], ids=["before its change", "at its change", "after its change"])
def test_a_clock_that_is_put_forward_and_back_does_not_change_when_something_was(marked_at: int) -> None:
    """The place that a scenario notes for the change is not exactly the one where the log shows it."""
    told = ["10:00:00", "10:00:01", "11:00:02", "11:00:03", "10:00:04"]
    lines = [f"2026-01-01T{time}.000Z info [Test] a line\n" for time in told]
    clocks = [(len("".join(lines[:marked_at])), HOUR), (len("".join(lines[:4])), 0.0)]
    times = [time for time, _ in true_times("".join(lines), clocks)]
    assert [time - times[0] for time in times] == [0, 1, 2, 3, 4]


def test_a_clock_that_was_wrong_at_the_start_is_taken_off() -> None:
    lines = "2026-01-01T10:00:00.000Z info [Test] one\n2026-01-01T09:00:01.000Z info [Test] another\n"
    (wrong, _), (right, _) = true_times(lines, [(0, HOUR), (20, 0.0)])
    assert right - wrong == 1
    assert right == at("2026-01-01T09:00:01.000Z")


def test_a_clock_that_is_behind_from_the_start_is_not_taken_for_right_when_that_is_nearer() -> None:
    lines = "".join(f"2026-01-01T10:00:0{second}.000Z info [Test] a line\n" for second in range(3))
    times = [time for time, _ in true_times(lines, [(0, -0.5)])]
    assert [time - times[0] for time in times] == [0, 1, 2]


def passage(side: str, source: str, port: int = 443) -> Passage:
    family, target = ("6", "2001:db8:51::10") if ":" in source else ("4", "198.51.100.10")
    return Passage("2026-01-01T00:00:00.000Z", side, family, source, 40000, target, port)


@pytest.mark.parametrize(
    "poked, passages, right",
    [
        (["eth"], [passage("eth", "10.11.0.179")], True),
        (["eth"], [passage("eth", "2001:db8:11:2::1")], True),
        (["cell"], [passage("cell", "10.12.0.50"), passage("cell", "2001:db8:12:1::1")], True),
        (["cell"], [passage("cell", "10.11.0.179")], False),
        (["cell"], [passage("cell", "2001:db8:11:1::1")], False),
        (["cell"], [passage("eth", "10.11.0.179")], False),
        (["cell"], [passage("eth", "2001:db8:11:1::1")], False),
        ([], [passage("eth", "10.12.0.50", port=8883)], True),  # the cloud connection, which is bound to nothing
    ],
)
def test_a_poke_leaves_over_its_interface_in_either_family(
    tmp_path: pathlib.Path, poked: list[str], passages: list[Passage], right: bool
) -> None:
    application = Recorded(tmp_path, ONCE, [])
    application.log_file.write_text("".join(f"{POKES[side]} an interface\n" for side in poked), encoding="utf-8")
    assert (pokes_on_a_wrong_way(application, passages, others_poke=False) == []) == right


def test_what_another_application_pokes_is_its_own_affair(tmp_path: pathlib.Path) -> None:
    application = Recorded(tmp_path, ONCE, [])
    assert pokes_on_a_wrong_way(application, [passage("eth", "10.11.0.179")], others_poke=True) == []
    assert pokes_on_a_wrong_way(application, [passage("eth", "10.12.0.50")], others_poke=True)


def test_a_lent_address_is_no_fault_but_a_side_that_nobody_has_poked_is_one(tmp_path: pathlib.Path) -> None:
    lent = passage("eth", "10.12.0.50")
    for poked, right in (("eth", True), ("cell", False)):
        application = Recorded(tmp_path, ONCE, [])
        application.log_file.write_text(f"{POKES[poked]} an interface\n", encoding="utf-8")
        faults = pokes_on_a_wrong_way(application, [lent], others_poke=False, addresses_lent=True)
        assert (faults == []) == right


def test_an_address_may_be_lent_on_the_side_that_has_lost_its_own_and_on_no_other(tmp_path: pathlib.Path) -> None:
    lent = passage("eth", "10.12.0.50")
    for lost, right in (("ETHERNET", True), ("CELLULAR", False)):
        application = Recorded(tmp_path, ONCE, [])
        application.log_file.write_text(f"{POKES['eth']} eth0\nevent {lost}_IP_LOST\n", encoding="utf-8")
        faults = pokes_on_a_wrong_way(application, [lent], others_poke=False)
        assert (faults == []) == right


def test_each_proof_has_left_over_the_interface_that_it_is_of_in_either_family(tmp_path: pathlib.Path) -> None:
    application = Recorded(tmp_path, ONCE, [])
    application.log_file.write_text(
        "2026-01-01T00:00:10.000Z warning [GatewayApp] Ethernet is on probation: why\n"
        "2026-01-01T00:00:15.000Z info [GatewayApp] proof over eth0: good\n"
        "2026-01-01T00:00:25.000Z info [GatewayApp] proof over eth0: good\n",
        encoding="utf-8",
    )

    def begun(side: str, source: str, second: int) -> Passage:
        return passage(side, source, port=8883)._replace(time=f"2026-01-01T00:00:{second:02d}.000Z")

    first, second = begun("eth", "10.11.0.179", 11), begun("eth", "2001:db8:11:1::1", 20)
    for passages, wrong in (
        ([first, second], 0),
        ([first], 1),
        ([second], 1),
        ([first._replace(port=443), second], 1),
        ([begun("eth", "10.11.0.179", 9), second], 1),  # the cloud connection before
        ([begun("eth", "10.12.0.50", 11), second], 1),  # another interface's address
        ([begun("cell", "10.12.0.50", 11), begun("cell", "2001:db8:12:1::1", 20)], 2),
    ):
        assert len(proofs_on_a_wrong_way(application, passages)) == wrong, passages


class Answered:
    """A box whose cloud has completed a handshake over Cellular at a time of its own clock."""

    def __init__(self, time: str) -> None:
        self.time = time

    def handshakes(self, side: str) -> list[str]:
        return [self.time] if side == "cell" else []


@pytest.mark.parametrize("grain, proven", [(0.001, False), (0.4, True)])
def test_a_proof_counts_within_what_two_clocks_may_differ(tmp_path: pathlib.Path, grain: float, proven: bool) -> None:
    application = Recorded(tmp_path, ONCE, [])
    application.log_file.write_text(
        "2026-01-01T00:00:05.100Z debug [OrvRoute] Tick: Started Poke to cell if wwan0\n"
        "2026-01-01T00:00:05.500Z debug [OrvRoute] Tick: poke success, route to Cell\n",
        encoding="utf-8",
    )
    box = cast(Box, Answered("2026-01-01T00:00:05.880Z"))
    assert (unproven_moves(application, box, grain=grain) == []) == proven


def test_the_last_word_of_a_handshake_may_be_lost_with_its_interface(tmp_path: pathlib.Path) -> None:
    application = Recorded(tmp_path, ONCE, [])
    lines = [
        "2026-01-01T00:00:05.100Z debug [OrvRoute] Tick: Started Poke to cell if wwan0\n",
        "2026-01-01T00:00:05.480Z info [GatewayApp] event CELLULAR_IP_LOST\n",
        "2026-01-01T00:00:05.500Z debug [OrvRoute] Tick: poke success, route to Cell\n",
    ]
    nobody = cast(Box, Answered("2026-01-01T00:00:01.000Z"))
    in_time, before = (
        passage("cell", "10.12.0.50")._replace(time=f"2026-01-01T00:00:{second}Z") for second in ("05.200", "03.000")
    )
    cases: list[tuple[list[str], list[Passage], bool]] = [
        (lines, [in_time], True),
        ([lines[0], lines[2], lines[1].replace("480", "600")], [in_time], True),
        ([lines[0], lines[2]], [in_time], False),
        (lines, [before], False),
        (lines, [in_time._replace(side="eth")], False),
        (lines, [], False),
    ]
    for log, passages, proven in cases:
        application.log_file.write_text("".join(log), encoding="utf-8")
        assert (unproven_moves(application, nobody, passages) == []) == proven, (log, passages)
