# SPDX-License-Identifier: Apache-2.0
"""The processes of a box, which outlive the command that starts them."""
from __future__ import annotations

import os
import pathlib
import signal
import subprocess
from collections.abc import Sequence
from typing import TYPE_CHECKING

from orv_testbed.layout import Layout
from orv_testbed.programs import Program, python_environment
from orv_testbed.waiting import comes_within

if TYPE_CHECKING:
    from orv_testbed.preloaded import Preloaded


def started_at(pid: int) -> str | None:
    """When a process was started, as the kernel counts; None when it has ended."""
    try:
        words = (
            pathlib.Path(f"/proc/{pid}/stat").read_text(encoding="utf-8", errors="replace").rpartition(") ")[2].split()
        )
    except OSError:
        return None
    return None if words[0] == "Z" else words[19]


class BoxProcesses:
    """Each is noted as "pid start-time": one that has ended, or whose pid went to another process, is none of ours."""

    forks: Preloaded | None = None  # what starts the package's programs, if whoever makes boxes wants that

    def __init__(self, layout: Layout) -> None:
        self._layout = layout
        self._notes = layout.state / "pid"

    def names(self) -> list[str]:
        return sorted(note.name for note in self._notes.iterdir()) if self._notes.is_dir() else []

    def pid_of(self, name: str) -> int | None:
        try:
            pid, at = (self._notes / name).read_text(encoding="ascii").split()
        except (OSError, ValueError):
            return None
        return int(pid) if started_at(int(pid)) == at else None

    def alive(self, name: str) -> bool:
        return self.pid_of(name) is not None

    def start(self, name: str, command: Sequence[str | pathlib.Path] | Program) -> None:
        """In a session of its own; what it says goes to log/NAME."""
        with open(self._layout.log(name), "ab") as log:
            if isinstance(command, Program) and self.forks:
                with open(os.devnull, "rb") as nothing:
                    files = (nothing.fileno(), log.fileno(), log.fileno())
                    pid = self.forks.start(command, files, python_environment(), new_session=True)
            else:
                words = command.command() if isinstance(command, Program) else [str(word) for word in command]
                pid = subprocess.Popen(
                    words,
                    env=python_environment(),
                    stdin=subprocess.DEVNULL,
                    stdout=log,
                    stderr=log,
                    start_new_session=True,
                ).pid
        (self._notes / name).write_text(f"{pid} {started_at(pid) or ''}\n", encoding="ascii")

    def send(self, name: str, number: signal.Signals) -> bool:
        """Whether it was there to take it."""
        pid = self.pid_of(name)
        try:
            if pid is not None:
                os.kill(pid, number)
        except ProcessLookupError:
            return False
        return pid is not None

    def end(self, name: str, number: signal.Signals = signal.SIGTERM) -> None:
        if self.send(name, number):
            self.send(name, signal.SIGCONT)
            if not comes_within(3, lambda: not self.alive(name)):
                self.send(name, signal.SIGKILL)
                comes_within(1, lambda: not self.alive(name))
        (self._notes / name).unlink(missing_ok=True)
