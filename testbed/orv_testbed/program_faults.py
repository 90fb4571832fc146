# SPDX-License-Identifier: Apache-2.0
"""What programs on the gateway of a box suffer, and what they do to each other; one method a command."""
from __future__ import annotations

import os
import pathlib
import signal

from orv_testbed.box_processes import BoxProcesses
from orv_testbed.commands import run
from orv_testbed.gateway import Gateway
from orv_testbed.layout import BoxError, Layout, misused
from orv_testbed.programs import TESTBED, Program, program
from orv_testbed.waiting import comes_within

HOSTILE = ("forges", "floods", "litters")
NEIGHBOUR = "neighbour"


class ProgramFaults:
    def __init__(self, layout: Layout, processes: BoxProcesses, gateway: Gateway) -> None:
        self._layout, self._processes, self._gateway = layout, processes, gateway

    def program(self, name: str = "", state: str = "") -> None:
        """Suspends what runs on the gateway under that name, its own first word, or lets it go on."""
        if state not in ("freeze", "thaw") or not name:
            misused("program", "program NAME freeze|thaw")
        found = [pid for pid in self._gateway.namespace.pids() if name_of(pid) == name]
        if not found:
            raise BoxError(f"no program named {name} runs on the gateway")
        for pid in found:
            os.kill(int(pid), signal.SIGSTOP if state == "freeze" else signal.SIGCONT)

    def neighbour(self, what: str = "") -> None:
        """Another program on the gateway, one at a time."""
        if what not in (*HOSTILE, "crashes", "gone"):
            misused("neighbour", "neighbour crashes|forges|floods|litters|gone")
        self._end_neighbour()
        if what == "gone":
            return
        log = self._layout.log(NEIGHBOUR)
        log.unlink(missing_ok=True)
        if what == "crashes":
            crashing = (TESTBED / "lib/crash-all-the-time", program("orv-shell"))
            self._processes.start(NEIGHBOUR, self._gateway.command(*crashing))
        else:
            self._processes.start(NEIGHBOUR, Program(self._gateway, "orv_testbed.hostile_neighbour", (what,)))
        if not comes_within(20, lambda: "at work" in log.read_text(encoding="utf-8", errors="replace")):
            raise BoxError(f"the neighbour does not get to work, see {log}")

    def _end_neighbour(self) -> None:
        """With what it has started, as it leads a session of its own, and with what it has made."""
        pid = self._processes.pid_of(NEIGHBOUR)
        if pid is not None:
            os.killpg(pid, signal.SIGKILL)
        self._processes.end(NEIGHBOUR, signal.SIGKILL)
        if pid is not None and not comes_within(10, lambda: pid not in map(group_of, self._gateway.namespace.pids())):
            raise BoxError("the neighbour cannot be ended")
        run(*self._gateway.command("find", "/var/tmp", "-mindepth", "1", "-user", "nobody", "-delete"))


def group_of(pid: str) -> int | None:
    """The process group of a process; None when it has ended."""
    try:
        return os.getpgid(int(pid))
    except ProcessLookupError:
        return None


def name_of(pid: str) -> str:
    """The last part of a process's own first word; empty when it has ended."""
    try:
        first = pathlib.Path(f"/proc/{pid}/cmdline").read_bytes().split(b"\0")[0]
    except OSError:
        return ""
    return os.fsdecode(first).rpartition("/")[2]
