# SPDX-License-Identifier: Apache-2.0
"""The demo with a program of one's own."""
from __future__ import annotations

import json
import os
import pathlib
import subprocess
import sys

import pytest

from orv_testbed.fixtures import NO_NAMESPACES
from orv_testbed.host import can_make_namespaces
from orv_testbed.programs import TREE, program

LONGEST = 240  # seconds


def demo(folder: pathlib.Path, *command: str) -> tuple[int, str]:
    """Its exit status, and what it said."""
    if not can_make_namespaces():
        pytest.skip(NO_NAMESPACES)
    done = subprocess.run(
        [sys.executable, "-B", "-m", "orv_testbed.demo.own_application", str(folder), "plain", *command],
        env={**os.environ, "PYTHONPATH": str(TREE / "testbed")},
        text=True,
        capture_output=True,
        timeout=LONGEST,
        check=False,
    )
    return done.returncode, done.stdout + done.stderr


def lane(folder: pathlib.Path, name: str) -> list[str]:
    events = map(json.loads, (folder / "app.jsonl").read_text(encoding="utf-8").splitlines())
    return [event["value"] for event in events if event.get("lane") == name and event["value"] != "none"]


@pytest.mark.long
def test_a_program_that_reports_the_cloud_fails_over_and_is_drawn(tmp_path: pathlib.Path) -> None:
    status, said = demo(tmp_path, program("cloud-connection"), "198.51.100.10", "8883")
    assert status == 0, said
    assert lane(tmp_path, "default route") == ["eth0", "wwan0", "eth0"], said
    assert "CELLULAR_ACTIVE" in lane(tmp_path, "route state") and "inhibit" in lane(tmp_path, "DNS topic"), said
    assert lane(tmp_path, "green LED")[-1] == "On", said
    picture = (tmp_path / "app.svg").read_text(encoding="utf-8")
    assert "cloud connection" in picture and "Ethernet provider dies" in picture
    left_out = said.split("What is not in the picture:\n")[1].split("\n\n")[0]
    assert left_out.count("- ") == 1 and "only the program knows" in left_out


@pytest.mark.long
def test_what_a_program_does_not_tell_is_said(tmp_path: pathlib.Path) -> None:
    status, said = demo(tmp_path, program("first-steps"))
    assert status == 0, said
    assert lane(tmp_path, "default route") == ["eth0"] and lane(tmp_path, "green LED") == []
    for words in ("the program has ended by itself", "not reported CLOUD_CONNECTED", "- LEDs:", "- a fail-over:"):
        assert words in said, said
    assert (tmp_path / "app.svg").exists()


def test_a_program_that_fails_is_a_failure(tmp_path: pathlib.Path) -> None:
    status, said = demo(tmp_path, "/bin/false")
    assert status == 1 and "exit status 1" in said
