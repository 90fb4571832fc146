# SPDX-License-Identifier: Apache-2.0
"""A box as a whole: in which order its parts come and go, and who carries out which word of the command."""
from __future__ import annotations

import re
import shutil
import signal
from collections.abc import Callable
from typing import TextIO

from orv_testbed import watch
from orv_testbed.box_processes import BoxProcesses
from orv_testbed.cloud import Cloud
from orv_testbed.commands import succeeds
from orv_testbed.families import Families
from orv_testbed.family_faults import FamilyFaults
from orv_testbed.fault_record import FaultRecord
from orv_testbed.faults import Faults
from orv_testbed.gateway import Gateway
from orv_testbed.host import check_host
from orv_testbed.layout import BoxError, Layout, Usage
from orv_testbed.machine.board import WORDS, Board
from orv_testbed.networks import Networks
from orv_testbed.program_faults import ProgramFaults
from orv_testbed.programs import Missing, program
from orv_testbed.report import Report

FAMILY_FAULTS = ("ipv4", "ipv6")
# How many words may follow each fault's name.
FAULTS = {
    **dict.fromkeys(("provider", "loss", "bandwidth", "delay", "mtu"), 2),
    **dict.fromkeys(("portal", "lease", "cloud-tls", "program"), 2),
    **dict.fromkeys(("cable", "cellular", "cloud", "cloud-mqtt", "broker", "connman", "bus"), 1),
    **dict.fromkeys(("var-tmp", "authorities", "clock", "neighbour"), 1),
    "names": 4,
    **dict.fromkeys(FAMILY_FAULTS, 2),
}
ENDED_FIRST = ("routes", "connman", "modem", "broker", "resolver", "bus")


def read_options(*words: str) -> tuple[bool, Families]:
    """What follows `up`: whether the gateway is a machine, and which families there are."""
    named = dict(zip(words[::2], words[1::2]))
    if 2 * len(named) != len(words) or not named.keys() <= {"--machine", "--families"}:
        raise Usage
    if named.get("--machine", "mipsel") != "mipsel":
        raise Usage
    return "--machine" in named, Families.parse(named["--families"]) if "--families" in named else Families()


class GatewayBox:
    """All parts of the box that the environment names, whether it is up or not."""

    def __init__(self, layout: Layout, output: TextIO, complaints: TextIO) -> None:
        self.layout = layout
        self.complaints = complaints
        self.processes = BoxProcesses(self.layout)
        self.networks = Networks(self.layout, self.processes)
        self.cloud = Cloud(self.layout, self.processes, self.networks.cloud)
        self.gateway = Gateway(self.layout, self.processes, self.networks.gateway)
        self.board = Board(self.layout, self.processes, self.networks)
        self.faults = Faults(self.layout, self.processes, self.networks, self.cloud, self.gateway)
        self.family_faults = FamilyFaults(self.layout, self.networks)
        self.programs = ProgramFaults(self.layout, self.processes, self.gateway)
        self.record = FaultRecord(self.layout.state)
        self.report = Report(self.layout, self.processes, self.gateway, self.record, output)

    def up(self, machine: bool, families: Families) -> None:
        self.layout.check_place()
        check_host()
        image = self.board.find_image() if machine else None
        self.networks.check()
        self.layout.state.parent.mkdir(parents=True, exist_ok=True)
        self.layout.state.mkdir()
        try:
            for folder in ("pid", "log"):
                (self.layout.state / folder).mkdir()
            families.note(self.layout.state)
            self.networks.families = families
            if image:
                self.board.make(image)
            self.networks.make(taps=machine)
            self.cloud.start()
            if machine:
                self.board.prepare_disk(families)
                self.board.start()
                self.board.wait()
            else:
                self.gateway.start()
        except BaseException as error:
            if isinstance(error, (BoxError, Missing)):
                print(f"box: {error}", file=self.complaints)
            print("box: coming up failed, taking the rest down; the ends of its logs:", file=self.complaints)
            self.report.show_logs(self.complaints)
            self.down()
            raise SystemExit(1) from error

    def down(self) -> None:
        self._end_all()
        self.networks.remove()
        self.gateway.remove_faketime_traces()
        if (self.layout.state / "pid").is_dir():
            shutil.rmtree(self.layout.state)

    def _end_all(self) -> None:
        """Everything that runs in the box's namespaces is the box's, also what was started with "box exec"."""
        for process in ENDED_FIRST:
            self.processes.end(process, signal.SIGKILL)
        for namespace in self.networks.all:
            for pid in namespace.pids():
                succeeds("kill", "-KILL", pid)
        for process in self.processes.names():
            self.processes.end(process, signal.SIGKILL)

    def need_up(self) -> None:
        self.layout.check_caller()
        if not self.processes.alive("gateway"):
            raise self.layout.not_up()

    def watch(self) -> int:
        """Shows the gateway until Ctrl-C; returns the exit status."""
        if self.layout.has_machine():
            self.layout.check_caller()
            return watch.repeat(self.board.look, self.record)  # also over a power cut
        self.need_up()
        status = (program("orv-status"), "--watch", "--color", watch.colour())
        return watch.follow(self.gateway.command(*status), self.record)

    def do(self, word: str, *words: str) -> None:
        if word == "watch" and not words:
            raise SystemExit(self.watch())
        if word in WORDS and self.layout.has_machine():
            self.need_up()
            self.board.do(word, *words)
            if word in FAULTS:
                self.record.note(word, *words)
        elif word == "up":
            wanted = read_options(*words)
            self.layout.check_caller()
            self.up(*wanted)
        elif word == "down" and not words:
            self.layout.check_caller()
            self.down()
        elif word == "power":
            self.layout.check_caller()
            self.board.power(*words)
            self.record.note(word, *words)
        elif word in ("status", "services", "log"):
            self.need_up()
            arguments = words if word == "log" else ()
            getattr(self.report, word)(*arguments)
        elif word == "wait-route" and 1 <= len(words) <= 2 and re.fullmatch("[1-9][0-9]*", (*words, "10")[1]):
            self.need_up()
            self.report.wait_route(*words)
        elif word in FAULTS and len(words) <= FAULTS[word]:
            self.need_up()
            those = (
                self.family_faults
                if word in FAMILY_FAULTS
                else self.programs
                if word in ("program", "neighbour")
                else self.faults
            )
            fault: Callable[..., None] = getattr(those, word.replace("-", "_"))
            fault(*words)
            self.record.note(word, *words)
        else:
            raise Usage
