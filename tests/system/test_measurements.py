# SPDX-License-Identifier: Apache-2.0
"""What script/measure runs on gateway boxes comes to its end. The figures mean nothing here."""
from __future__ import annotations

import pathlib
import subprocess
import sys

import pytest

from orv_testbed.fixtures import skip_without_what_a_box_needs

HERE = pathlib.Path(__file__).parent
ENDS = 300  # seconds; each takes about half a minute


@pytest.mark.parametrize(
    ("command", "row"),
    [
        ("fail_over 1", "return to Ethernet, 1 times"),
        ("families 1 eth=4,cell=4", "eth=4,cell=4 "),
        ("flapping 5 provider-dead", "| provider-dead |"),
        ("cellular_bytes 5 healthy", "healthy  "),
    ],
)
def test_a_measurement_comes_to_its_end(command: str, row: str) -> None:
    skip_without_what_a_box_needs()
    name, *arguments = command.split()
    measure = [sys.executable, "-B", str(HERE / f"measure_{name}.py"), *arguments]
    said = subprocess.run(measure, capture_output=True, text=True, timeout=ENDS, check=False)
    assert said.returncode == 0, said.stdout + said.stderr
    assert row in said.stdout
