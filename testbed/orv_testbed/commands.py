# SPDX-License-Identifier: Apache-2.0
"""Runs the programs that a box is made with."""
from __future__ import annotations

import pathlib
import subprocess

from orv_testbed.layout import BoxError

Word = str | pathlib.Path


def run(*command: Word, told: str | None = None) -> str:
    """Returns what the command prints; `told` is its standard input. One that fails ends the whole."""
    done = subprocess.run(command, input=told, text=True, capture_output=True, check=False)
    if done.returncode != 0:
        raise BoxError(f"{' '.join(map(str, command))}: {done.stderr.strip() or f'exit status {done.returncode}'}")
    return done.stdout


def succeeds(*command: Word) -> bool:
    return subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, check=False).returncode == 0


def is_mount_point(path: Word) -> bool:
    return succeeds("mountpoint", "-q", path)
