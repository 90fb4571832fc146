# SPDX-License-Identifier: Apache-2.0
"""Following a command that tells, falls silent, dies or talks nonsense."""
from __future__ import annotations

import pathlib
import sys
from collections.abc import Callable, Iterator
from typing import Any

import pytest

from orv_testbed.panel.follower import Follower
from orv_testbed.panel.hub import Hub
from orv_testbed.panel.tests.samples import ON_ETHERNET, line
from orv_testbed.waiting import SLACK, wait_until

Follow = Callable[[str], Hub]


@pytest.fixture
def follow(tmp_path: pathlib.Path) -> Iterator[Follow]:
    """Follows a program; `status` is the line that it may print, `first` whether this is its first run."""
    (tmp_path / "status").write_bytes(line(ON_ETHERNET))
    made: list[Follower] = []

    def start(program: str) -> Hub:
        head = (
            "import os, pathlib, sys, time\n"
            f"folder = pathlib.Path({str(tmp_path)!r})\n"
            "status = (folder / 'status').read_text()\n"
            "first = not (folder / 'ran').exists()\n"
            "(folder / 'ran').touch()\n"
        )
        hub = Hub()
        made.append(Follower(hub, [sys.executable, "-u", "-c", head + program], pause=0.05))
        made[-1].start()
        return hub

    yield start
    for follower in made:
        follower.stop()


def source(hub: Hub) -> dict[str, Any]:
    found: dict[str, Any] = hub.sections["source"][1]
    return found


def wait_for(hub: Hub, state: str) -> None:
    wait_until(lambda: source(hub)["state"] == state, SLACK, lambda: f"{state}, not {source(hub)}")


def test_what_is_printed_is_known_at_once(follow: Follow) -> None:
    hub = follow("print(status, end='')\ntime.sleep(60)")
    wait_for(hub, "running")
    assert hub.last and hub.last["leds"]["green"] == "on"


def test_a_command_that_dies_is_said_to_be_away_and_run_again(follow: Follow) -> None:
    hub = follow(
        "print(status, end='')\n"
        "if first:\n"
        "    sys.exit('no route to host')\n"
        "while not (folder / 'end').exists(): time.sleep(0.05)"
    )
    told: list[dict[str, Any]] = []

    def ran_twice() -> bool:
        if not told or told[-1] != source(hub):
            told.append(source(hub))
        return [event["value"] for event in hub.events if event["lane"] == "green LED"] == ["On", "", "On"]

    wait_until(ran_twice, SLACK, lambda: f"a second run: {told}")
    wait_for(hub, "running")


def test_its_last_words_and_its_exit_status_are_passed_on(follow: Follow) -> None:
    hub = follow("sys.exit('no route to host')")
    wait_for(hub, "away")
    assert source(hub)["words"] == "the command has ended with exit status 1: no route to host"


def test_what_is_no_status_is_said_to_be_none(follow: Follow) -> None:
    hub = follow("print('<script>alert(1)</script>')\ntime.sleep(60)")
    wait_for(hub, "away")
    assert "no JSON" in source(hub)["words"]


def test_a_line_without_an_end_is_not_collected_for_ever(follow: Follow) -> None:
    hub = follow("while True: sys.stdout.write('x' * 65536)")
    wait_for(hub, "away")
    assert "more than 4 MiB" in source(hub)["words"]


def test_a_command_that_is_not_there_is_named() -> None:
    hub = Hub()
    follower = Follower(hub, ["/nowhere/orv-status"], pause=60)
    follower.start()
    try:
        wait_for(hub, "away")
        assert "/nowhere/orv-status" in source(hub)["command"]
    finally:
        follower.stop()


def test_a_shell_that_greets_is_told_from_a_status_and_the_remedy_is_named(follow: Follow) -> None:
    hub = follow("print('Welcome to gateway 7')\nprint(status, end='')\ntime.sleep(60)")
    wait_for(hub, "away")
    assert "no JSON: Welcome to gateway 7" in source(hub)["words"] and "no greeting of a shell" in source(hub)["words"]


def test_a_gateway_without_the_program_is_told_which_package_it_lacks(follow: Follow) -> None:
    hub = follow("sys.stderr.write('sh: orv-status: not found\\n')\nsys.exit(127)")
    wait_for(hub, "away")
    assert source(hub)["words"].endswith("sh: orv-status: not found (orv-status comes with the package orv-tools)")


def test_complaints_without_end_are_not_collected(follow: Follow) -> None:
    hub = follow("sys.stderr.write('x' * 2**20)\nsys.exit(3)")
    wait_for(hub, "away")
    assert len(source(hub)["words"]) < 500


def test_each_trouble_is_said_once_in_the_terminal(tmp_path: pathlib.Path) -> None:
    said: list[str] = []
    runs = tmp_path / "runs"
    program = f"import sys; open({str(runs)!r}, 'a').write('x'); sys.exit('no route to host')"
    follower = Follower(Hub(), [sys.executable, "-c", program], pause=0, say=said.append)
    follower.start()
    try:
        wait_until(lambda: runs.exists() and runs.stat().st_size >= 3, SLACK, "three runs")
    finally:
        follower.stop()
    assert said == [
        "the gateway does not answer: the command has ended with exit status 1: no route to host; trying again"
    ]
