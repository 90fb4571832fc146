# SPDX-License-Identifier: Apache-2.0
"""Processes that depend on the one that has started them."""
from __future__ import annotations

import subprocess
from collections.abc import Sequence
from typing import Any

PATIENCE = 3  # seconds that a process has to end


def start_dependent(command: Sequence[str], **options: Any) -> subprocess.Popen[Any]:
    """Starts a process that is killed when the thread that calls this ends, however that comes about."""
    options.setdefault("stdin", subprocess.DEVNULL)
    return subprocess.Popen(["setpriv", "--pdeathsig", "KILL", *command], **options)


def end_all(processes: Sequence[subprocess.Popen[Any]]) -> None:
    """Ends those that still run, the latest first, and waits until they are gone."""
    for process in reversed(processes):
        if process.poll() is None:
            process.terminate()
            try:
                process.wait(PATIENCE)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait()
