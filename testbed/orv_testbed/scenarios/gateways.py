# SPDX-License-Identifier: Apache-2.0
"""The real gateways that a scenario runs on. Each carries out the commands about the surroundings itself."""
from __future__ import annotations

import os
import pathlib
import re
import signal
import subprocess
import threading
from collections.abc import Callable
from typing import Any

from orv_testbed.box import Box
from orv_testbed.broker import Broker
from orv_testbed.processes import start_dependent
from orv_testbed.programs import TESTBED
from orv_testbed.scenarios.journal import SIMULATED, Failed, Journal, Published
from orv_testbed.scenarios.recorder import Recorder
from orv_testbed.waiting import SLACK, wait_until

SURROUNDINGS = {"broker", "cellular", "connman", "ethernet", "publish"}
LEVEL = "info,OrvRoute=debug"
CONFIGURATION = """[broker]
host = 127.0.0.1
port = {port}
[cloud]
endpoint = 127.0.0.1:1
[connman]
bus_address = unix:path={folder}/no-bus
[log]
level = {level}
"""
LOGGED_STATE = re.compile(r"\S+ (?:debug \[OrvRoute\] Tick: |(?P<level>error) \[OrvRoute\] )(?P<text>.*)")
LOGGED_MOVE = re.compile(r"\S+ info \[ConnmanCommands\] (\S+) is put on top")
MARK = "done with line"


class Cannot(Exception):
    """This gateway has no means for a command of the scenario; says which, and why."""


class Gateway:
    """A broker with a recorder, and orv-shell. `journal` is what has happened."""

    NAME = ""
    KINDS: tuple[str, ...] = Journal.KINDS
    REASON = ""  # why it can do nothing else about its surroundings

    def __init__(self, command: list[str]) -> None:
        self.journal = Journal(self.KINDS)
        self.command = command
        self.process: subprocess.Popen[str] | None = None
        self.said: list[str] = []
        self.log: list[str] = []
        self.readers: list[threading.Thread] = []
        self.recorder = Recorder(self.journal, self.start_program, self.port())
        try:
            self.recorder.await_subscription(1)
        except BaseException:
            self.stop()
            raise

    # ---- what differs between gateways

    def port(self) -> int:
        raise NotImplementedError

    def start_program(self, *command: str, **options: Any) -> subprocess.Popen[str]:
        raise NotImplementedError

    def stop_broker(self) -> None:
        raise NotImplementedError

    def start_broker(self) -> None:
        raise NotImplementedError

    # ---- orv-shell

    def start(self) -> None:
        """The shell makes its client at once, as it does in virtual time, and then waits for commands."""
        pipe = subprocess.PIPE
        self.process = self.start_program(*self.command, stdin=pipe, stdout=pipe, stderr=pipe)
        for stream, take in ((self.process.stdout, self._take_line), (self.process.stderr, self._take_log)):
            reader = threading.Thread(target=lambda s=stream, t=take: [t(line.rstrip("\n")) for line in s], daemon=True)
            reader.start()
            self.readers.append(reader)

    def _take_line(self, line: str) -> None:
        match = SIMULATED.match(line)
        if match and match[1] == "<":
            self.journal.add("callbacks", match[2])
        self.said.append(line)

    def _take_log(self, line: str) -> None:
        if state := LOGGED_STATE.match(line):
            self.journal.state(state["level"] or "debug", state["text"])
        elif move := LOGGED_MOVE.match(line):
            self.journal.add("moves", move[1])
        self.log.append(line)

    def run_command(self, command: str, number: int) -> None:
        assert self.process and self.process.stdin
        mark = f"{MARK} {number}"
        self.process.stdin.write(f"{command}\nnote {mark}\n")
        self.process.stdin.flush()
        wait_until(lambda: mark in self.said or not self.runs(), 10 * SLACK, lambda: f"{command} ends: {self.log}")
        if mark not in self.said:
            raise Failed(f"{command}: " + "\n".join(self.log))

    def runs(self) -> bool:
        return self.process is not None and self.process.poll() is None

    # ---- the surroundings

    def change(self, words: list[str]) -> None:
        change: Callable[..., None] = getattr(self, f"change_{words[0]}")
        change(*words[1:])

    @classmethod
    def can(cls, words: list[str]) -> bool:
        return words[0] not in SURROUNDINGS or hasattr(cls, f"change_{words[0]}")

    def change_publish(self, topic: str, payload: str, *retained: str) -> None:
        self.recorder.publish(Published(topic, payload, bool(retained)))

    def change_broker(self, fate: str) -> None:
        if fate == "lost":
            return self.stop_broker()
        # The recorder is to be there before the application, whose state is announced once.
        assert self.process
        known = self.recorder.subscriptions
        self.process.send_signal(signal.SIGSTOP)
        try:
            self.start_broker()
            self.recorder.await_subscription(known + 1)
        finally:
            self.process.send_signal(signal.SIGCONT)

    # ---- the end

    def finish(self) -> None:
        """The end of its input ends the shell, which says good-bye: what it has published is with the broker then."""
        assert self.process and self.process.stdin
        self.process.stdin.close()
        status = self.process.wait(10 * SLACK)
        for reader in self.readers:
            reader.join(SLACK)
        self.recorder.publish(Published("/orv/end-of-the-scenario", "", False))
        if status != 0:
            raise Failed("orv-shell ends with " + "\n".join([str(status), *self.log]))

    def stop(self) -> None:
        self.recorder.stop()
        if self.process:
            self.process.kill()
            self.process.wait()


class Loopback(Gateway):
    """A broker of this machine. The interfaces are the machine's own, and there is no connection manager."""

    NAME = "a real broker"
    KINDS = ("session", "route", "callbacks", "states")
    REASON = "whose interfaces are this machine's own: run it on a gateway box"

    def __init__(self, shell: str, folder: pathlib.Path, tick: str) -> None:
        self.broker = Broker(folder)
        settings = folder / "gateway.ini"
        text = CONFIGURATION.format(port=self.broker.port, folder=folder, level=LEVEL)
        settings.write_text(text, encoding="ascii")
        self.environment = {**os.environ, "ORV_GATEWAY_CONFIG": str(settings), "PYTHONPATH": str(TESTBED)}
        super().__init__([shell, "--tick", tick])

    def port(self) -> int:
        return self.broker.port

    def start_program(self, *command: str, **options: Any) -> subprocess.Popen[str]:
        return start_dependent(command, text=True, env=self.environment, **options)

    def stop_broker(self) -> None:
        self.broker.kill()

    def start_broker(self) -> None:
        self.broker.start()

    def stop(self) -> None:
        super().stop()
        self.broker.stop()


class OnBox(Gateway):
    """A gateway box: real interfaces, providers, ConnMan, cloud and broker."""

    NAME = "a gateway box"

    def __init__(self, shell: str, box: Box, tick: str) -> None:
        self.box = box
        settings = box.folder / "gateway/etc/orv/gateway.ini"
        text = settings.read_text(encoding="ascii").replace("level = trace", f"level = {LEVEL}")
        settings.write_text(text, encoding="ascii")
        super().__init__([shell, "--tick", tick])

    def port(self) -> int:
        return 1883

    def start_program(self, *command: str, **options: Any) -> subprocess.Popen[str]:
        return self.box.start(*command, **options)

    def stop_broker(self) -> None:
        self.box("broker", "stop")

    def start_broker(self) -> None:
        self.box("broker", "start")

    def change_ethernet(self, fate: str) -> None:
        self._path_becomes("eth", fate)

    def change_cellular(self, fate: str) -> None:
        self._path_becomes("cell", fate)

    def _path_becomes(self, side: str, fate: str) -> None:
        self.box("provider", side, "dead" if fate == "dead" else "back")
        self.box("cloud-tls", "refused" if fate == "refused" else "ok", side)

    def change_connman(self, fate: str) -> None:
        self.box("connman", "freeze" if fate == "frozen" else "thaw")
