# SPDX-License-Identifier: Apache-2.0
from __future__ import annotations

import os
import pathlib
import subprocess

from orv_testbed.families import Families
from orv_testbed.gateway_box import read_options

BOX = pathlib.Path(__file__).resolve().parents[1] / "box"


def run(*words: str) -> subprocess.CompletedProcess[str]:
    environment = {**os.environ, "ORV_BOX": "none"}
    return subprocess.run([BOX, *words], env=environment, capture_output=True, text=True, check=False)


def test_a_command_that_there_is_not_is_named_after_those_there_are() -> None:
    said = run("nonsense", "now")
    assert said.returncode == 2
    assert "box up" in said.stderr
    assert said.stderr.endswith("\nbox: no such command: nonsense now\n")


def test_a_box_that_is_not_up_is_told_with_the_command_that_brings_it_up() -> None:
    for words in (["status"], ["exec", "true"]):
        said = run(*words)
        assert said.returncode == 1
        assert said.stderr == f"box: no box named none is up: ORV_BOX=none {BOX} up\n"


def test_a_gateway_that_there_is_not_is_no_command() -> None:
    for words in (["--machine"], ["--machine", "mips64"], ["--families", "eth=46", "--machine"], ["--colour", "red"]):
        said = run("up", *words)
        assert said.returncode == 2
        assert said.stderr.endswith(f"\nbox: no such command: up {' '.join(words)}\n")


def test_families_are_understood_before_and_behind_the_kind_of_gateway() -> None:
    both = Families("46", "46", "46")
    assert read_options() == (False, Families())
    assert read_options("--families", "eth=46,cell=46") == (False, both)
    assert read_options("--machine", "mipsel", "--families", "eth=46,cell=46") == (True, both)
    assert read_options("--families", "eth=46,cell=46", "--machine", "mipsel") == (True, both)
