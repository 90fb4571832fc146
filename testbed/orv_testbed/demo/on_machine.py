# SPDX-License-Identifier: Apache-2.0
"""The demo on a MIPS32 machine: the same outage and the same picture, with the installed packages, the machine's own systemd,
ConnMan and broker. Run by script/demo --machine."""

from __future__ import annotations

import subprocess
import sys
import time
from typing import Any

from orv_testbed.demo.on_box import LOG_LEVEL, BoxDemo, follow, show
from orv_testbed.demo.transcript import Transcript
from orv_testbed.machine.gateway import PATIENCE, Gateway
from orv_testbed.machine.scene import ORDINARY, prepare


class MachineDemo(BoxDemo):
    def __init__(self, gateway: Gateway, transcript: Transcript) -> None:
        super().__init__(gateway, transcript)
        self.gateway = gateway
        self.patience = PATIENCE

    def watch(self) -> None:
        """The machine tells by itself."""
        prepare(self.gateway, LOG_LEVEL)
        self.run.begin = time.monotonic()
        happenings = subprocess.Popen(
            ["tail", "-F", "-n", "+1", str(self.gateway.machine / "seen")],
            stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL,
            text=True,
            errors="replace",
        )
        self.gateway.processes.append(happenings)
        follow(happenings.stdout, self.on_told)

    def on_told(self, line: str) -> None:
        kind, _, what = line.partition(" ")
        takers: dict[str, Any] = {"wire": self.on_message, "log": self.on_log, "happening": self.on_happening}
        if kind == "route":
            self.run.note("default route", what or "none", f"default over {what or 'none'}")
        elif kind in takers:
            takers[kind](what)

    def start_application(self) -> None:
        self.gateway.sh("systemctl start gateway-app")

    def signal(self, name: str) -> None:
        self.gateway.sh(f"systemctl kill --signal={name} gateway-app")

    def states(self) -> list[str]:
        """Without the losses that a tick has seen while the application connected anew: at this speed that takes longer than a
        tick."""
        states: list[str] = []
        for state in super().states():
            if state == "ETHERNET_ACTIVE" and states[-2:] == ["ETHERNET_ACTIVE", "ETHERNET_LOST_DELAY"]:
                states.pop()
            else:
                states.append(state)
        return states

    def end_application(self) -> int:
        self.gateway.sh("systemctl stop gateway-app")
        status = int(self.gateway.property("gateway-app", "ExecMainStatus"))
        self.gateway.sh(ORDINARY)
        return status


def main(folder: str, colour: str) -> int:
    transcript = Transcript(colour == "colour")
    transcript.chapter("A gateway comes up, a MIPS32 machine: two providers, a cloud, and Debian on a board")
    return show(transcript, Gateway, MachineDemo, folder, "machine")


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
