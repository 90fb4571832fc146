# SPDX-License-Identifier: Apache-2.0
"""A box knows which faults are in force, whoever has made them."""
from __future__ import annotations

import concurrent.futures
import pathlib

import pytest

from orv_testbed.box import Box
from orv_testbed.fault_record import FaultRecord, after, faults_in_force
from orv_testbed.gateway_box import FAULTS
from orv_testbed.panel.faults import CATALOGUE, Kind


def course(*commands: str) -> list[str]:
    faults: list[str] = []
    for command in commands:
        faults = after(faults, *command.split())
    return faults


@pytest.mark.parametrize("kind", CATALOGUE, ids=lambda kind: f"{kind.group}-{kind.name}")
def test_a_fault_is_in_force_until_its_undoing(kind: Kind) -> None:
    for fault in kind.faults.values():
        assert course(kind.undo, fault) == [fault]
        assert course(kind.undo, fault, fault) == [fault]
        assert course(fault, kind.undo) == []


def test_no_kind_of_fault_is_left_out() -> None:
    assert {words.split()[0] for kind in CATALOGUE for words in kind.faults.values()} == set(FAULTS)


@pytest.mark.parametrize(
    "commands, faults",
    [
        (("loss eth 10", "loss cell 20", "loss eth 80"), ["loss cell 20", "loss eth 80"]),
        (("provider eth dead", "provider cell back"), ["provider eth dead"]),
        (("names eth lie 10.11.0.1 eth0", "names eth first 1.2.3.4"), ["names eth first 1.2.3.4"]),
        (("names eth lie 10.11.0.1", "names eth mute"), ["names eth lie 10.11.0.1", "names eth mute"]),
        (("names eth lie 10.11.0.1", "names eth mute", "names eth back"), []),
        (("cloud-tls refused",), ["cloud-tls refused eth", "cloud-tls refused cell"]),
        (("cloud-tls refused", "cloud-tls silent cell"), ["cloud-tls refused eth", "cloud-tls silent cell"]),
        (("cloud-tls silent eth", "cloud-tls refused cell", "cloud-tls ok"), []),
        (
            ("cloud-tls silent", "cloud-mqtt refused", "cloud-tls ok cell"),
            ["cloud-tls silent eth", "cloud-mqtt refused"],
        ),
        (("ipv4 eth dead", "ipv6 eth dead", "ipv4 eth back"), ["ipv6 eth dead"]),
        (("ipv6 eth dead", "ipv6 eth no-router", "ipv6 cell duplicate"), ["ipv6 eth no-router", "ipv6 cell duplicate"]),
        (("ipv6 eth no-router", "ipv6 eth renumber"), ["ipv6 eth no-router"]),
        (("cable gone", "cable out"), ["cable gone", "cable out"]),
        (("cable out", "cable gone", "cable in"), []),
        (("cellular out", "cellular gone", "cellular reset"), []),
        (("cellular out", "cellular gone", "cellular in"), ["cellular gone"]),
        (("broker freeze", "broker stop"), ["broker stop"]),
        (("broker freeze", "broker start"), ["broker freeze"]),
        (("connman freeze", "broker thaw"), ["connman freeze"]),
        (("cellular out", "connman start"), ["cellular out"]),
        (("cellular out", "connman stop", "connman start"), []),
        (("connman restart",), []),
        (("connman freeze", "connman restart"), []),
        (("connman crash",), []),
        (("connman freeze", "connman crash"), []),
        (("clock 60",), ["clock +60"]),
        (("clock -60", "clock +0"), []),
        (("cable out", "loss eth 10", "power cut"), ["loss eth 10", "power cut"]),
        (("power cut", "power on"), []),
        (("power on 2000-01-01", "cable out"), ["power on 2000-01-01", "cable out"]),
    ],
)
def test_faults_add_up_and_replace_those_of_their_kind(commands: tuple[str, ...], faults: list[str]) -> None:
    assert course(*commands) == faults


def test_those_who_note_at_the_same_time_lose_nothing(tmp_path: pathlib.Path) -> None:
    with concurrent.futures.ThreadPoolExecutor(8) as several:
        for noted in [several.submit(FaultRecord(tmp_path).note, "cloud", str(number)) for number in range(40)]:
            noted.result()
        assert len(FaultRecord(tmp_path).in_force()) == 1
        for noted in [several.submit(FaultRecord(tmp_path).note, f"f{number}", "dead") for number in range(40)]:
            noted.result()
    assert len(FaultRecord(tmp_path).in_force()) == 41


def test_what_is_done_to_a_box_by_hand_is_known_to_everybody(box: Box) -> None:
    assert faults_in_force(box) == []
    assert "faults in force:\n  none\n" in box("status")
    box("provider", "eth", "dead")
    box("loss", "cell", "30")
    assert box.try_to("loss", "cell", "100").returncode != 0
    assert faults_in_force(box) == ["provider eth dead", "loss cell 30"]
    assert "faults in force:\n  provider eth dead\n  loss cell 30\n" in box("status")
    box("provider", "eth", "back")
    box("loss", "cell", "off")
    assert faults_in_force(box) == []
    box("cable", "out")
    box("down")
    assert faults_in_force(box) == []
    box("up")
    assert faults_in_force(box) == []
