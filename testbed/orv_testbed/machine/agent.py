# SPDX-License-Identifier: Apache-2.0
"""Runs commands on the machine, by its guest agent, and tells qemu itself something."""
from __future__ import annotations

import base64
import contextlib
import dataclasses
import json
import pathlib
import random
import secrets
import signal
import socket
import sys
import time
from collections.abc import Iterator
from typing import IO, Any

from orv_testbed import broken_pipe

ENVIRONMENT = ["PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C.UTF-8", "DEBIAN_FRONTEND=noninteractive"]
INTO_FILES = 'mkdir -m 700 "$1" && exec >"$1/out" 2>"$1/err" && shift && exec "$@"'
PACES = (0.1, 0.5)  # seconds between two looks at what a command has printed, at first and in the long run
PIECE = 65536  # bytes
PLACE = "/run"  # for those files


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
        arguments["env"] = ENVIRONMENT
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


@contextlib.contextmanager
def opened(folder: pathlib.Path, seconds: float = 60) -> Iterator[Channel]:
    """For a few requests: meanwhile nobody else can make any."""
    with Channel(folder / "agent", seconds) as channel:
        synchronise(channel)
        yield channel


class Running:
    """A command under way on the machine, whose output is fetched from files there."""

    def __init__(self, folder: pathlib.Path, *command: str) -> None:
        self.folder = folder
        self.place = f"{PLACE}/testbed-{secrets.token_hex(8)}"
        self.handles: dict[str, int] = {}
        self.ended = False
        words = ["-c", INTO_FILES, "sh", self.place, *command]
        with opened(folder) as channel:
            self.process = channel.execute("guest-exec", path="/bin/sh", arg=words, env=ENVIRONMENT)["pid"]

    def look(self, outputs: dict[str, IO[bytes]]) -> int | None:
        """Passes on what is new; returns the exit status once it has ended."""
        with opened(self.folder) as channel:
            state = channel.execute("guest-exec-status", pid=self.process)
            self.ended = state["exited"]
            for name, output in outputs.items():
                for piece in self._pieces(channel, name):
                    output.write(piece)
                output.flush()
        return int(state.get("exitcode", 128 + state.get("signal", 0))) if self.ended else None

    def _pieces(self, channel: Channel, name: str) -> Iterator[bytes]:
        try:
            if name not in self.handles:
                self.handles[name] = channel.execute("guest-file-open", path=f"{self.place}/{name}", mode="r")
        except AgentError:
            if self.ended:
                raise
            return  # not made yet
        # Whoever has read to the end of a file has to move before there is more.
        channel.execute("guest-file-seek", handle=self.handles[name], offset=0, whence="cur")
        while (read := channel.execute("guest-file-read", handle=self.handles[name], count=PIECE))["count"]:
            yield base64.b64decode(read["buf-b64"])

    def end(self) -> None:
        """Ends it if it still runs, and leaves nothing of it behind."""
        script = 'rm -rf "$2"' if self.ended else 'kill "$1"; rm -rf "$2"'
        with opened(self.folder, 10) as channel:
            for handle in self.handles.values():
                channel.execute("guest-file-close", handle=handle)
            words = ["-c", script, "sh", str(self.process), self.place]
            channel.execute("guest-exec", path="/bin/sh", arg=words, env=ENVIRONMENT)


def pass_on(folder: pathlib.Path, *command: str, output: IO[bytes], errors: IO[bytes]) -> int:
    """Runs a command on the machine as root, and passes on what it prints while it runs; returns its exit status. It ends
    with its caller."""
    running = Running(folder, *command)
    pace, longest_pace = PACES
    try:
        while (status := running.look({"out": output, "err": errors})) is None:
            time.sleep(pace)
            pace = min(1.5 * pace, longest_pace)
        return status
    finally:
        with contextlib.suppress(AgentError):
            running.end()


def print_outcome(folder: pathlib.Path, *command: str) -> int:
    """Runs a command on the machine, prints what it says, and returns its exit status."""
    try:
        return pass_on(folder, *command, output=sys.stdout.buffer, errors=sys.stderr.buffer)
    except AgentError as error:
        print(f"the machine: {error}", file=sys.stderr)
        return 125
    except KeyboardInterrupt:
        return 128 + signal.SIGINT
    except BrokenPipeError:
        broken_pipe.discard_output()
        return broken_pipe.STATUS
