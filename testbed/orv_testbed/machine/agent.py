# SPDX-License-Identifier: Apache-2.0
"""Runs commands on the machine, by its guest agent, and tells qemu itself something."""
from __future__ import annotations

import base64
import dataclasses
import json
import pathlib
import random
import socket
import sys
import time
from typing import Any


class AgentError(Exception):
    """The machine did not answer, or refused."""


@dataclasses.dataclass(frozen=True)
class Outcome:
    """What a command on the machine came to."""

    status: int
    output: str
    errors: str


class Channel:
    """Requests and answers, a line of JSON each, over a unix socket of qemu."""

    def __init__(self, path: pathlib.Path, seconds: float) -> None:
        self.deadline = time.monotonic() + seconds
        self.pending = b""
        self.socket = socket.socket(socket.AF_UNIX)
        try:
            self.socket.connect(str(path))
        except OSError as error:
            self.socket.close()
            raise AgentError(f"{path}: {error}") from error

    def __enter__(self) -> Channel:
        return self

    def __exit__(self, *_: object) -> None:
        self.socket.close()

    def send(self, request: dict[str, Any], prefix: bytes = b"") -> None:
        try:
            self.socket.sendall(prefix + json.dumps(request).encode() + b"\n")
        except OSError as error:
            raise AgentError(str(error)) from error

    def receive(self) -> dict[str, Any]:
        while b"\n" not in self.pending:
            left = self.deadline - time.monotonic()
            if left <= 0:
                raise AgentError("no answer")
            self.socket.settimeout(left)
            try:
                received = self.socket.recv(65536)
            except OSError as error:
                raise AgentError(str(error) or "no answer") from error
            if not received:
                raise AgentError("the machine is off")
            self.pending += received
        line, self.pending = self.pending.split(b"\n", 1)
        answer = json.loads(line.strip(b"\xff") or b"{}")
        assert isinstance(answer, dict)
        return answer

    def execute(self, command: str, **arguments: Any) -> Any:
        self.send({"execute": command, "arguments": arguments})
        while True:
            answer = self.receive()
            if "error" in answer:
                raise AgentError(f"{command}: {answer['error'].get('desc')}")
            if "return" in answer:
                return answer["return"]


def synchronise(channel: Channel) -> None:
    """What an earlier caller has left unread is dropped."""
    number = random.randrange(1 << 30)
    channel.send({"execute": "guest-sync-delimited", "arguments": {"id": number}}, b"\xff")
    while channel.receive().get("return") != number:
        pass


def run(folder: pathlib.Path, *command: str, seconds: float = 60, given: str = "") -> Outcome:
    """Runs a command on the machine as root, with `given` on its standard input; raises AgentError when there is no answer."""
    deadline = time.monotonic() + seconds
    with Channel(folder / "agent", seconds) as channel:
        synchronise(channel)
        arguments: dict[str, Any] = {"path": command[0], "arg": list(command[1:]), "capture-output": True}
        arguments["env"] = ["PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C.UTF-8", "DEBIAN_FRONTEND=noninteractive"]
        if given:
            arguments["input-data"] = base64.b64encode(given.encode()).decode()
        process = channel.execute("guest-exec", **arguments)["pid"]
        while True:
            state = channel.execute("guest-exec-status", pid=process)
            if state["exited"]:
                break
            if time.monotonic() >= deadline:
                raise AgentError(f"{' '.join(command)} has not ended within {seconds:.0f} s")
            time.sleep(0.1)

    def text(name: str) -> str:
        return base64.b64decode(state.get(name, "")).decode(errors="replace")

    return Outcome(state.get("exitcode", 128 + state.get("signal", 0)), text("out-data"), text("err-data"))


def monitor(folder: pathlib.Path, command: str, **arguments: Any) -> Any:
    """A command to qemu itself."""
    with Channel(folder / "monitor", 10) as channel:
        channel.execute("qmp_capabilities")
        return channel.execute(command, **arguments)


def print_outcome(folder: pathlib.Path, *command: str) -> int:
    """Runs a command on the machine, prints what it says, and returns its exit status."""
    try:
        outcome = run(folder, *command, seconds=300)
    except AgentError as error:
        print(f"the machine: {error}", file=sys.stderr)
        return 125
    sys.stdout.write(outcome.output)
    sys.stderr.write(outcome.errors)
    return outcome.status
