# SPDX-License-Identifier: Apache-2.0
"""What a run on a gateway box has left behind, replayed in virtual time."""
from __future__ import annotations

import json
import pathlib
import shlex
from collections.abc import Sequence

import pytest

from orv_testbed.box import Box
from orv_testbed.fixtures import MakeScene
from orv_testbed.scenarios import replay
from orv_testbed.scenarios.recording import RECORD_THE_WIRE
from orv_testbed.topics import GREEN, MODEM_SIM, of_feature
from orv_testbed.waiting import SLACK, wait_until

RELOAD = (of_feature("gateway-app", "init"), "reload")
STRENGTH = (MODEM_SIM + "strength", '-71 "dBm"')


def tell(box: Box, topic: str, payload: str) -> None:
    box("exec", "mosquitto_pub", "-t", topic, "-m", payload)


def record_a_fail_over(box: Box, make_scene: MakeScene, wire: pathlib.Path) -> None:
    with open(wire, "w", encoding="utf-8") as output:
        recorder = box.start(*shlex.split(RECORD_THE_WIRE), stdout=output)

    def is_heard() -> bool:
        tell(box, "/orv/recording", "begins")
        return wire.stat().st_size > 0

    wait_until(is_heard, SLACK, "the recording")
    scene = make_scene().start()
    tell(box, *RELOAD)
    tell(box, *STRENGTH)
    scene.application.wait_for("options read anew", 5)
    box("provider", "eth", "dead")
    scene.settles("wwan0", 25)
    box("provider", "eth", "back")
    scene.settles("eth0", 30)
    recorder.terminate()
    recorder.wait(SLACK)


def replayed(capsys: pytest.CaptureFixture[str], *words: object) -> tuple[int, str, str]:
    """Its exit status, the scenario, and what it said."""
    status = replay.main([*map(str, words), "--check"])
    output = capsys.readouterr()
    return status, output.out, output.err


def in_order(scenario: str, commands: Sequence[str]) -> bool:
    places = [scenario.find("\n" + command) for command in commands]
    return -1 not in places and places == sorted(places)


def test_a_fail_over_becomes_a_scenario_that_does_the_same(
    box: Box, make_scene: MakeScene, tmp_path: pathlib.Path, capsys: pytest.CaptureFixture[str]
) -> None:
    wire, transcript = tmp_path / "wire.jsonl", tmp_path / "transcript.jsonl"
    record_a_fail_over(box, make_scene, wire)

    # The field has the transcript always, the wire and the states of the route sometimes.
    for recordings in ((), ("--wire", wire), ("--wire", wire, "--log", tmp_path / "app.log")):
        status, scenario, said = replayed(capsys, transcript, *recordings)
        assert status == 0, said + scenario
        assert "event CLOUD_DISCONNECTED" in scenario and "expect OnAppActionIndication RELOAD" in scenario
        if recordings:
            assert "in the run and in virtual time" in said
            assert f'publish {STRENGTH[0]} "-71 \\"dBm\\""' in scenario
    assert in_order(
        scenario,
        (
            'expect state "poke success, route to Cell"',
            'expect state "route is Cell, reconnecting"',
            'expect state "poke success, route to ETH"',
            'expect state "cell to eth delay done"',
        ),
    )

    # A run that was another is noticed.
    lines = wire.read_text(encoding="utf-8").splitlines()
    place = max(number for number, line in enumerate(lines) if json.loads(line)["topic"] == GREEN)
    wire.write_text("\n".join(lines[:place] + lines[place + 1 :]), encoding="utf-8")
    status, _, said = replayed(capsys, transcript, "--wire", wire)
    assert status == 1 and f"+session: retained {GREEN}" in said
