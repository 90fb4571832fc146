# SPDX-License-Identifier: Apache-2.0
"""What is going on in a box."""
from __future__ import annotations

from collections.abc import Iterable
from typing import TextIO

from orv_testbed.box_processes import BoxProcesses
from orv_testbed.fault_record import FaultRecord
from orv_testbed.gateway import Gateway
from orv_testbed.layout import SIDES, BoxError, Layout
from orv_testbed.networks import Namespace
from orv_testbed.passages import read
from orv_testbed.waiting import comes_within

ORDINARY = ("lookup local", "lookup main", "lookup default")
SHOWN_LINES = 10
CLOUDS_PORTS = {443: "https", 8883: "mqtts"}


class Report:
    def __init__(
        self, layout: Layout, processes: BoxProcesses, gateway: Gateway, record: FaultRecord, output: TextIO
    ) -> None:
        self._layout, self._processes, self._gateway, self._record = layout, processes, gateway, record
        self._output = output
        self._namespace: Namespace = gateway.namespace

    def services(self) -> None:
        services = self._gateway.services()
        if services is None:
            raise BoxError("ConnMan does not answer")
        self._output.write(services)

    def status(self) -> None:
        for process in self._processes.names():
            pid = self._processes.pid_of(process)
            self._say(f"{process}: " + ("not running" if pid is None else f"pid {pid}"))
        self._say("faults in force:")
        self._indented(self._record.in_force() or ["none"])
        self._say("services, in ConnMan's order:")
        self._indented((self._gateway.services() or "ConnMan does not answer").splitlines())
        self._say("the latest connections to the cloud:")
        self._indented(self._latest_connections() or ["none"])
        self._say("routes:")
        self._indented(self._namespace.ip("route").splitlines())
        self._indented(self._namespace.ip("-6 route show default").splitlines())
        rules = self._namespace.ip("rule").splitlines()
        self._indented(f"rule {rule}" for rule in rules if not any(word in rule for word in ORDINARY))
        self._say("name servers:")
        known = (self._layout.gateway_root / "run/connman/resolv.conf").read_text(encoding="utf-8").splitlines()
        self._indented(line.removeprefix("nameserver").strip() for line in known if line.startswith("nameserver"))

    def _latest_connections(self) -> list[str]:
        """Of each of the cloud's ports, with the interface and the family in which it left the gateway."""
        passages = read(self._layout.log("passages").read_text(encoding="ascii"))
        latest = {one.port: one for one in passages if one.port in CLOUDS_PORTS}
        return [
            f"{CLOUDS_PORTS[port]}: over {SIDES[one.side].interface}, IPv{one.family}, begun {one.time}"
            for port, one in sorted(latest.items())
        ]

    def _say(self, line: str) -> None:
        print(line, file=self._output)

    def _indented(self, lines: Iterable[str]) -> None:
        for line in lines:
            self._say(f"  {line}")

    def log(self, *names: str) -> None:
        folder = self._layout.log("")
        there = sorted(log.name for log in folder.iterdir())
        if not names:
            self._say("\n".join(there))
        elif names[0] not in there:
            raise BoxError(f"there is no log of {names[0]}; there are: {' '.join(there)}")
        else:
            self._output.write((folder / names[0]).read_text(encoding="utf-8", errors="replace"))

    def show_logs(self, where: TextIO) -> None:
        """The end of each log that says something: the folder goes away with the box."""
        folder = self._layout.log("")
        for log in sorted(folder.iterdir()) if folder.is_dir() else ():
            for line in log.read_text(encoding="utf-8", errors="replace").splitlines()[-SHOWN_LINES:]:
                print(f"box: {log.name}: {line}", file=where)

    def wait_route(self, interface: str, seconds: str = "10") -> None:
        def routes() -> str:
            return self._namespace.ip("route show default")

        def leads_over() -> bool:
            return any(interface in line.split()[1:] for line in routes().splitlines())

        if not comes_within(int(seconds), leads_over):
            raise BoxError(f"the default route does not lead over {interface} after {seconds} s: {routes()}")
