# SPDX-License-Identifier: Apache-2.0
"""Commands on the machine, by a guest agent that runs them here."""
from __future__ import annotations

import base64
import io
import json
import os
import pathlib
import socket
import subprocess
import threading
from collections.abc import Iterator
from typing import IO, Any

import pytest

from orv_testbed.machine import agent
from orv_testbed.waiting import SLACK, wait_until


class PlayedAgent:
    """Answers as qemu's guest agent does, one caller at a time."""

    def __init__(self, path: pathlib.Path) -> None:
        self.processes: dict[int, subprocess.Popen[bytes]] = {}
        self.files: dict[int, IO[bytes]] = {}
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.bind(str(path))
        self.socket.listen()
        threading.Thread(target=self._serve, daemon=True).start()

    def _serve(self) -> None:
        while True:
            try:
                caller, _ = self.socket.accept()
            except OSError:
                return
            with caller, caller.makefile("rb") as requests:
                for line in requests:
                    request = json.loads(line.strip(b"\xff\n"))
                    words = request["arguments"]
                    try:
                        result = getattr(self, request["execute"].replace("-", "_"))(words)
                        answer = {"return": result}
                    except (OSError, KeyError) as error:
                        answer = {"error": {"desc": str(error)}}
                    caller.sendall(json.dumps(answer).encode() + b"\n")

    @staticmethod
    def guest_sync_delimited(words: dict[str, Any]) -> int:
        return int(words["id"])

    def guest_exec(self, words: dict[str, Any]) -> dict[str, int]:
        environment = dict(word.split("=", 1) for word in words["env"])
        process = subprocess.Popen([words["path"], *words["arg"]], env=environment)
        self.processes[process.pid] = process
        return {"pid": process.pid}

    def guest_exec_status(self, words: dict[str, Any]) -> dict[str, Any]:
        status = self.processes[words["pid"]].poll()
        return {"exited": False} if status is None else {"exited": True, "exitcode": status}

    def guest_file_open(self, words: dict[str, Any]) -> int:
        file = open(words["path"], "rb")
        self.files[file.fileno()] = file
        return file.fileno()

    def guest_file_seek(self, words: dict[str, Any]) -> dict[str, int]:
        return {"position": self.files[words["handle"]].seek(words["offset"], os.SEEK_CUR)}

    def guest_file_read(self, words: dict[str, Any]) -> dict[str, Any]:
        text = self.files[words["handle"]].read(words["count"])
        return {"count": len(text), "buf-b64": base64.b64encode(text).decode()}

    def guest_file_close(self, words: dict[str, Any]) -> dict[str, Any]:
        self.files.pop(words["handle"]).close()
        return {}


@pytest.fixture
def played(tmp_path: pathlib.Path, monkeypatch: pytest.MonkeyPatch) -> Iterator[PlayedAgent]:
    monkeypatch.setattr(agent, "PLACE", str(tmp_path))
    played = PlayedAgent(tmp_path / "agent")
    yield played
    played.socket.close()
    for process in played.processes.values():
        process.kill()
        process.wait()


def nothing_is_left(folder: pathlib.Path) -> bool:
    return not list(folder.glob("testbed-*"))


@pytest.mark.usefixtures("played")
def test_what_a_command_prints_comes_while_it_runs(tmp_path: pathlib.Path) -> None:
    gate = tmp_path / "gate"
    os.mkfifo(gate)
    output, errors, status = io.BytesIO(), io.BytesIO(), []
    script = f"echo first; echo apart >&2; read _ <{gate}; echo second; exit 3"
    caller = threading.Thread(
        target=lambda: status.append(agent.pass_on(tmp_path, "sh", "-c", script, output=output, errors=errors))
    )
    caller.start()
    wait_until(lambda: output.getvalue() == b"first\n", SLACK, "what comes first")
    gate.write_text("go on\n", encoding="ascii")
    caller.join(SLACK)
    assert (output.getvalue(), errors.getvalue(), status) == (b"first\nsecond\n", b"apart\n", [3])
    wait_until(lambda: nothing_is_left(tmp_path), SLACK, "its files are gone")


def test_a_command_ends_with_whoever_called_it(tmp_path: pathlib.Path, played: PlayedAgent) -> None:
    class Interrupted(io.BytesIO):
        def write(self, _: object) -> int:
            raise KeyboardInterrupt

    with pytest.raises(KeyboardInterrupt):
        agent.pass_on(tmp_path, "sh", "-c", "echo begun; exec sleep 600", output=Interrupted(), errors=io.BytesIO())
    command = next(iter(played.processes.values()))
    assert command.wait(SLACK) != 0
    wait_until(lambda: nothing_is_left(tmp_path), SLACK, "its files are gone")


@pytest.mark.usefixtures("played")
def test_a_command_that_is_not_there_says_so(tmp_path: pathlib.Path) -> None:
    output, errors = io.BytesIO(), io.BytesIO()
    assert agent.pass_on(tmp_path, "/no/such/command", output=output, errors=errors) == 127
    assert b"/no/such/command" in errors.getvalue()


def test_a_machine_that_is_off_is_said_to_be(tmp_path: pathlib.Path, capfd: pytest.CaptureFixture[str]) -> None:
    assert agent.print_outcome(tmp_path, "true") == 125
    assert "the machine: " in capfd.readouterr().err
