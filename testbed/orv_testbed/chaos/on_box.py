# SPDX-License-Identifier: Apache-2.0
"""A gateway box as chaos sees it, and everything about it that must agree when the last fault is over."""
from __future__ import annotations

import json
import os
import pathlib
import subprocess
import time
from typing import Any

from orv_testbed import audit
from orv_testbed.application import Application
from orv_testbed.box import Box
from orv_testbed.calls import waits
from orv_testbed.chaos import demands
from orv_testbed.chaos.faults import BROKER, Words
from orv_testbed.chaos.schedule import Schedule
from orv_testbed.scene import Scene
from orv_testbed.topics import INHIBIT_DNS
from orv_testbed.waiting import NotInTime, comes_within, wait_until
from orv_testbed.wire import Witness

SETTLES = 150.0  # seconds after the last remedy; a probation of Ethernet may go on for longer
READER, APPLICATION = "log-reader", "gateway-app"
# Otherwise any application that is started would put Ethernet on top.
CONTROLLER = "[gateway]\ncontroller = gateway-app\n"
LOOK_UPS = 30.0  # seconds for which a look-up that nobody waits for any more may go on
LOST = "records were lost"
PROBATION, PROBATION_ENDS = "Ethernet is on probation", "Ethernet's probation is over"


class GatewayOnBox:
    """One round: `folder` gets its logs."""

    def __init__(self, box: Box, folder: pathlib.Path, schedule: Schedule) -> None:
        self._box, self._folder = box, folder
        kinds = {strike.words[0] for strike in schedule.strikes}
        self._clock = "clock" in kinds
        self._with_reader = any(strike.words[:2] == ("program", READER) for strike in schedule.strikes)
        self._suspended = any(strike.words[:2] == ("program", APPLICATION) for strike in schedule.strikes)
        self._messages_get_lost = "broker" in kinds or self._suspended
        # ConnMan carries out late what it was told while it or the bus was frozen; and a clock that jumps mixes up the log.
        self._orders_may_be_late = bool(kinds & {"connman", "bus", "clock"})
        self._explained = tuple({text for strike in schedule.strikes for text in strike.fault.explains})
        self._clocks: list[tuple[int, float]] = []
        self._witness = Witness(box, folder)
        self._scene: Scene | None = None
        settings = box.folder / "gateway/etc/orv/gateway.ini"
        settings.write_text(settings.read_text(encoding="utf-8") + CONTROLLER, encoding="utf-8")

    def do(self, words: Words) -> None:
        if words[0] == "clock":
            self._clocks.append((self._scene.application.mark() if self._scene else 0, int(words[1])))
        if self._scene is None and words[0] == "program":
            return  # there is nothing to suspend yet
        self._box(*words)

    def start(self) -> None:
        scene = Scene.__new__(Scene)
        scene.take(self._box, self._witness, self._application())
        scene.neighbours = ("neighbour",)
        scene.expected_complaints = self._explained
        scene.orders_may_be_late = self._orders_may_be_late
        scene.clocks = self._clocks
        if self._messages_get_lost:
            scene.wire_cut_at = 0
            scene.expected_complaints += BROKER
        self._scene = scene

    def _application(self) -> Application:
        if not self._with_reader:
            return Application(self._box, self._folder, clock=self._clock)
        reading, writing = os.pipe()
        application = Application(self._box, self._folder, clock=self._clock, output=writing)
        os.close(writing)
        with open(application.log_file, "ab") as log:
            self._box.start("bash", "-c", f"exec -a {READER} cat", stdin=reading, stdout=log)
        os.close(reading)
        return application

    def verdict(self) -> list[str]:
        scene = self._scene
        assert scene is not None, "no application was started"
        faults = []
        try:
            self._settle(scene)
        except NotInTime as error:
            faults.append(str(error).partition("\n")[0])
        if not faults and scene.application.process.poll() is None:
            faults += self._unmet(scene)
        ended = scene.application.process.poll()
        if ended is not None:
            return [*faults, f"the application has ended by itself, status {ended}"]
        try:
            figures = scene.application.stop()
            for process in self._box.processes[-1:] if self._with_reader else ():
                process.wait(10)  # it has read all
        except (AssertionError, subprocess.TimeoutExpired, IndexError) as error:
            return [*faults, f"the application does not end in good order: {error!r}"]
        if not self._suspended:  # for as long as that, a call has waited
            faults += waits(figures)
        if scene.application.has_logged(LOST):
            return faults + self._complaints_of_routes()  # the log tells too little
        faults += self._complaints_of_routes()
        return faults + scene.faults() + demands.impossible_events(scene.application.transcript())

    def _complaints_of_routes(self) -> list[str]:
        return demands.complaints("orv-source-routes", self._box("log", "routes"), self._explained)

    def _unmet(self, scene: Scene) -> list[str]:
        """What the settled gateway does not hold of its promises; some of them may take a while."""
        faults: list[str] = []

        def holds() -> bool:
            try:
                faults[:] = self._demands(scene)
            except (OSError, ValueError) as error:
                faults[:] = [f"cannot be seen: {error!r}"]
            return not faults

        comes_within(LOOK_UPS, holds, pause=1)
        return faults

    def _demands(self, scene: Scene) -> list[str]:
        application = scene.application
        probation = self._on_probation(application)
        interface = "wwan0" if probation else "eth0"
        addresses = {name: own for name in audit.INTERFACES if (own := self._address(name))}
        pid = application.process.pid
        status = application.status()
        faults = demands.status_file(status, interface, addresses.get(interface, ""), probation, pid, time.monotonic())
        if not application.has_logged(LOST):
            moves = [
                (match[1], match[2]) for line in application.log().splitlines() if (match := audit.MOVED.search(line))
            ]
            faults += demands.counters(status, application.transcript(), moves)
        rules, rules_6 = self._ip("-4", "rule"), self._ip("-6", "rule")
        tables = {
            name: self._ip("-4", "route", "show", "table", str(demands.TABLES[name])) for name in audit.INTERFACES
        }
        faults += demands.wrong_source_routes(addresses, rules, tables)
        faults += demands.wrong_ipv6_source_routes(scene.box.families, rules_6)
        programs = {pid: "gateway-app", scene.witness.pid: "witness"}
        faults += demands.wrong_connections(self._sockets(), programs)
        if not probation:  # its proofs take what they take
            faults += demands.held_beyond("gateway-app", demands.holdings(pid), self._clock)
        faults += demands.held_beyond("orv-source-routes", demands.holdings(self._box.pid_of("routes")))
        return faults

    def _ip(self, *words: str) -> list[dict[str, Any]]:
        command = ["ip", "-n", f"{self._box.name}-gw", "-details", "-json", *words]
        said = subprocess.run(command, text=True, capture_output=True, check=False).stdout
        found: list[dict[str, Any]] = json.loads(said or "[]")
        return found

    def _address(self, interface: str) -> str | None:
        found = self._ip("-4", "address", "show", "dev", interface, "scope", "global")
        return next((own["local"] for one in found for own in one.get("addr_info", ()) if own.get("local")), None)

    def _sockets(self) -> str:
        established = ["state", "established", "dport", "=", f":{demands.BROKER_PORT}"]
        command = ["ip", "netns", "exec", f"{self._box.name}-gw", "ss", "-tnpH", *established]
        return subprocess.run(command, text=True, capture_output=True, check=True).stdout

    def _settle(self, scene: Scene) -> None:
        faults: list[str] = []

        def settled() -> bool:
            if scene.application.process.poll() is not None:
                return True
            interface = "wwan0" if self._on_probation(scene.application) else "eth0"
            told = scene.witness.payloads(INHIBIT_DNS)
            inhibit = "inhibit" if interface == "wwan0" else "permit" if told else None
            state = "CELLULAR_ACTIVE" if interface == "wwan0" else "ETHERNET_ACTIVE"
            if scene.application.has_logged(LOST):
                state = scene.application.route_state()  # the log's, which nobody can compare
            faults[:] = audit.unsettled(scene, interface, state, inhibit)
            return not faults

        wait_until(settled, SETTLES, lambda: "; ".join(faults), pause=0.5)

    @staticmethod
    def _on_probation(application: Application) -> bool:
        log = application.log()
        return log.rfind(PROBATION) > log.rfind(PROBATION_ENDS)
