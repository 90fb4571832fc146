# SPDX-License-Identifier: Apache-2.0
"""A box as the panel's gateway: its faults, orv-status on it, and the state of the route from the application's log."""
from __future__ import annotations

import pathlib
import subprocess
import threading

from orv_testbed import route_states
from orv_testbed.box import Box, Failed
from orv_testbed.fault_record import faults_in_force
from orv_testbed.panel.faults import FaultDesk
from orv_testbed.panel.hub import Hub
from orv_testbed.programs import program

LOOK = 0.05  # seconds between two looks at the log and at the faults in force


def attached(name: str) -> Box:
    """A box that is up; it stays so."""
    box = Box(name)
    if box.try_to("log").returncode != 0:
        raise Failed(f"no box named {name} is up: ORV_BOX={name} testbed/box up")
    return box


class BoxGateway:
    def __init__(self, hub: Hub, box: Box, log: pathlib.Path | None) -> None:
        self.hub = hub
        self.box = box
        self.log = log
        self.desk = FaultDesk(hub, box, lambda: faults_in_force(box))
        self.over = threading.Event()
        self.place, self.rest, self.state = 0, "", "ETHERNET_ACTIVE"  # of the log
        self.watcher = threading.Thread(target=self._watch, daemon=True)
        self.watcher.start()

    def follow_command(self) -> list[str]:
        return self.box.command("exec", program("orv-status"), "--follow", "--json")

    def start_application(self) -> subprocess.Popen[str]:
        """gateway-app, with a wall clock that the box can set."""
        assert self.log
        command = (program("gateway-app"), "--cloud-host", "cloud.box.test")
        with open(self.log, "w", encoding="utf-8") as log:
            return self.box.start(
                *("env", "RES_OPTIONS=timeout:1 attempts:2", "ORV_LOG_LEVEL=info,OrvRoute=debug", *command),
                stdout=log,
                stderr=log,
                clock=True,
            )

    def stop(self) -> None:
        self.over.set()
        self.watcher.join(5)

    def _watch(self) -> None:
        """What neither a status nor a button tells of."""
        while not self.over.wait(LOOK):
            self.desk.look()
            if self.log and self.log.exists() and self.hub.now() is not None:
                self._read_log(self.log)

    def _read_log(self, log: pathlib.Path) -> None:
        """The lane "route state"."""
        with open(log, encoding="utf-8", errors="replace") as file:
            file.seek(self.place)
            text = self.rest + file.read()
            first, self.place = self.place == 0, file.tell()
        *lines, self.rest = text.split("\n")
        states = [found for found in map(route_states.entered, lines) if found]
        for state in states[-1:] if first else states or [self.state]:  # what was before the panel has no time here
            self.state = state
            self.hub.lane("route state", state)
