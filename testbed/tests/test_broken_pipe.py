# SPDX-License-Identifier: Apache-2.0
"""Commands whose reader has gone away."""
from __future__ import annotations

import os
import pathlib
import signal
import subprocess
import sys

from orv_testbed.box import Box
from orv_testbed.fixtures import box  # noqa: F401
from orv_testbed.programs import TESTBED

START = '{"time": "2026-01-31T10:00:00Z", "monotonic": 0, "what": "start", "default_route": "eth0"}\n'
EVENT = '{"time": "2026-01-31T10:00:01Z", "monotonic": 1, "what": "event", "event": "ETHERNET_CONNECTED", "reported": true}\n'


def end_without_a_word(*command: str | pathlib.Path, environment: dict[str, str]) -> bool:
    reader, writer = os.pipe()
    os.close(reader)
    done = subprocess.run(command, env=environment, stdout=writer, stderr=subprocess.PIPE, check=False)
    os.close(writer)
    return (done.returncode, done.stderr) == (128 + signal.SIGPIPE, b"")


def test_a_box_tells_nobody_its_status_without_a_complaint(box: Box) -> None:  # noqa: F811
    assert end_without_a_word(*box.command("status"), environment=box.environment)
    assert end_without_a_word(*box.command("services"), environment=box.environment)


def test_a_replay_is_made_for_nobody_without_a_complaint(tmp_path: pathlib.Path) -> None:
    transcript = tmp_path / "transcript.jsonl"
    transcript.write_text(START + EVENT, encoding="ascii")
    replay = (sys.executable, "-B", "-m", "orv_testbed.scenarios.replay", transcript)
    assert end_without_a_word(*replay, environment={**os.environ, "PYTHONPATH": str(TESTBED)})
