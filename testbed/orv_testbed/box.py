# SPDX-License-Identifier: Apache-2.0
"""A gateway box, as those who use it from Python see it.

Scenarios give a box some thirty commands each. A process of its own for each would be most of what they cost, so the words of
testbed/box are carried out here, and what runs on the gateway is started from here. Only a machine's take the command.
"""
from __future__ import annotations

import io
import json
import os
import pathlib
import signal
import subprocess
import tempfile
from typing import IO, Any, Self

from orv_testbed import passages
from orv_testbed.box_command import carry_out
from orv_testbed.box_processes import BoxProcesses
from orv_testbed.families import Families
from orv_testbed.gateway import Gateway
from orv_testbed.layout import SIDES, BoxError, Layout
from orv_testbed.networks import Networks
from orv_testbed.programs import PYTHON, TESTBED, Program, program
from orv_testbed.status_files import ERRORS, STATUSES, read_statuses

LONGEST_COMMAND: float = 90  # seconds


def family_at(side: str, peer: str) -> str:
    """The family in which the gateway has sent what the cloud has from this peer, "ADDRESS:PORT"."""
    return SIDES[side].family_of(peer.rpartition(":")[0].strip("[]")) or ""


class Failed(AssertionError):
    """A command of the box has failed; the text is what it said."""


class Box:
    """Up within `with`. `name` has 8 small letters and digits at most; `families` as `box up --families` has them."""

    kind: tuple[str, ...] = ()  # what follows `up`
    longest_command = LONGEST_COMMAND

    def __init__(self, name: str, families: str | None = None) -> None:
        self.name = name
        if families:
            self.kind = ("--families", families)
        self.families = Families.parse(families) if families else Families()
        self.folder = pathlib.Path(tempfile.gettempdir()) / f"orv-box-{name}"
        self.environment = {
            **os.environ,
            "ORV_BOX": name,
            "ORV_BOX_DIR": str(self.folder),
            "PYTHONPATH": str(TESTBED),  # for the package's programs on the gateway
            "PYTHONDONTWRITEBYTECODE": "1",
            **self.brings(),
        }
        self.layout = Layout(str(TESTBED / "box"), self.environment)
        self.processes: list[subprocess.Popen[str]] = []

    @staticmethod
    def brings() -> dict[str, str]:
        """Programs of this tree that run on the gateway, by the variable that names each."""
        return {"ORV_SOURCE_ROUTES": program("orv-source-routes")}

    def __enter__(self) -> Self:
        if self._has_left_something():
            self("down")
        try:
            self("up", *self.kind)
        except BaseException:
            self("down")
            raise
        return self

    def __exit__(self, *_: object) -> None:
        for process in self.processes:
            if process.poll() is None:
                process.send_signal(signal.SIGCONT)
                process.kill()
            process.wait()
        self("down")

    def _has_left_something(self) -> bool:
        """Whether there is anything of a box of this name."""
        return self.folder.exists() or any(pathlib.Path("/run/netns").glob(f"{self.name}-*"))

    def __call__(self, *words: str, must_succeed: bool = True) -> str:
        done = self.try_to(*words)
        if must_succeed and done.returncode != 0:
            raise Failed(f"box {' '.join(words)}: {done.stderr.strip()}")
        return done.stdout

    def try_to(self, *words: str, **options: Any) -> subprocess.CompletedProcess[str]:
        """A command that may fail."""
        if words[0] == "exec" or self._is_a_machine():
            options = {"env": self.environment, "timeout": self.longest_command, "stdin": subprocess.DEVNULL, **options}
            try:
                command = self.on_gateway(*words[1:]) if words[0] == "exec" else self.command(*words)
            except BoxError as error:
                return subprocess.CompletedProcess(words, 1, "", f"box: {error}\n")
            return subprocess.run(command, text=True, capture_output=True, check=False, **options)
        output, complaints = io.StringIO(), io.StringIO()
        try:
            status = carry_out(self.layout, output, complaints, words)
        except SystemExit as end:  # it has said why
            status = int(end.code or 0)
        return subprocess.CompletedProcess(words, status, output.getvalue(), complaints.getvalue())

    def _is_a_machine(self) -> bool:
        return "--machine" in self.kind or self.layout.has_machine()

    @staticmethod
    def command(*words: str) -> list[str]:
        return [str(TESTBED / "box"), *words]

    def on_gateway(self, *words: str, clock: bool = False) -> list[str]:
        """What runs a program on the gateway, in this box's environment. `clock`: with a wall clock of its own."""
        if self._is_a_machine():
            return self.command("exec", *words)
        return self._gateway().command(*words, clock=clock)

    def _gateway(self) -> Gateway:
        processes = BoxProcesses(self.layout)
        return Gateway(self.layout, processes, Networks(self.layout, processes).gateway)

    def start(
        self,
        *command: str,
        stdout: Any,
        stderr: Any = None,
        stdin: Any = subprocess.DEVNULL,
        clock: bool = False,
    ) -> subprocess.Popen[str]:
        """Starts a program on the gateway, which ends with the box at the latest."""
        process = subprocess.Popen(
            self.on_gateway(*command, clock=clock),
            env=self.environment,
            text=True,
            errors="replace",
            stdin=stdin,
            stdout=stdout,
            stderr=stderr,
        )
        if clock:
            self._gateway().note_faketime(process.pid)
        self.processes.append(process)
        return process

    def start_own(self, module: str, *arguments: str, output: IO[str] | IO[bytes]) -> int:
        """Starts one of this package's programs on the gateway, which ends with the box; returns its pid."""
        if not BoxProcesses.forks:
            return self.start(*PYTHON, module, *arguments, stdout=output, stderr=output).pid
        program = Program(self._gateway(), module, arguments)
        with open(os.devnull, "rb") as nothing:
            files = (nothing.fileno(), output.fileno(), output.fileno())
            return BoxProcesses.forks.start(program, files, self.environment, new_session=False)

    def said_by_own(self, module: str, *arguments: str) -> str:
        """What one of this package's programs says until it ends."""
        reading, writing = os.pipe()
        with open(reading, encoding="utf-8", errors="replace") as said:
            with open(writing, "wb") as output:
                self.start_own(module, *arguments, output=output)
            return said.read()

    def services(self) -> list[tuple[str, str]]:
        """ConnMan's order: (interface, name servers) of the connected services; empty while it does not answer."""
        lines = [line.split() for line in self("services", must_succeed=False).splitlines()]
        return [(words[0], words[4]) for words in lines if words[1] in ("ready", "online")]

    def order(self) -> list[str]:
        return [interface for interface, _ in self.services()]

    def default_interfaces(self) -> list[str]:
        command = ["ip", "-n", f"{self.name}-gw", "-json", "route", "show", "default"]
        routes = subprocess.run(command, text=True, capture_output=True, check=True)
        return [route["dev"] for route in json.loads(routes.stdout)]

    def unbound_ipv6(self) -> str | None:
        """The interface over which what is not bound goes in IPv6; "none" where programs are told that there is no way. None:
        that is nobody's affair here, or not settled."""
        routes = json.loads(self("exec", "ip", "-6", "-json", "route", "show", "default", "metric", "100"))
        return "none" if "unreachable" in str(routes) else routes[0]["dev"] if routes else None

    def handshakes(self, side: str) -> list[str]:
        """When the connections were taken over this side on which the cloud has completed a TLS handshake."""
        return [time for time, _ in self.handshakes_by_family(side)]

    def handshakes_by_family(self, side: str) -> list[tuple[str, str]]:
        """The same, with the family in which each has left the gateway, whatever its provider has translated it to."""
        lines = (line.split() for line in self("log", "cloud-https").splitlines())
        return [
            (time, family_at(side, peer))
            for time, its_side, peer, outcome, *_ in lines
            if (its_side, outcome) == (side, "handshake")
        ]

    def passages(self) -> list[passages.Passage]:
        """The TCP connections that the gateway has begun, as they came to the providers, the first one first."""
        return passages.read((self.folder / "log/passages").read_text(encoding="ascii"))

    def pid_of(self, process: str) -> int:
        """Of one of the box's own processes."""
        return int((self.folder / "pid" / process).read_text(encoding="ascii").split()[0])

    def file(self, path: str) -> str | None:
        """The text of a file on the gateway; None when it is not there."""
        on_machine = pathlib.Path(f"/proc/{self.pid_of('gateway')}/root", path.lstrip("/"))
        return on_machine.read_text(encoding="utf-8") if on_machine.exists() else None

    def status_file(self) -> dict[str, str]:
        return read_statuses(self.file(STATUSES) or "")

    def error_file(self) -> str | None:
        return self.file(ERRORS)
