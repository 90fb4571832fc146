# SPDX-License-Identifier: Apache-2.0
"""Runs `orv-status --follow --json` on the gateway, and runs it again when it ends."""
from __future__ import annotations

import shlex
import subprocess
import threading
from collections.abc import Callable, Mapping, Sequence
from typing import IO

from orv_testbed.panel import status
from orv_testbed.panel.hub import Hub
from orv_testbed.processes import end_all, start_dependent

FOLLOW = ("orv-status", "--follow", "--json")
LONGEST_LINE = 4 << 20  # bytes; 500 topics take 300 kB
LONGEST_WORDS = 300
PAUSE = 1.0  # seconds before it is run again
NOTHING_ELSE = "the command may print nothing but what orv-status does, so no greeting of a shell either"
REMEDIES = {127: " (orv-status comes with the package orv-tools)"}


class Follower:
    """Brings each status to the hub, and in the section "source" whether there is anybody to tell one."""

    def __init__(
        self,
        hub: Hub,
        command: Sequence[str],
        environment: Mapping[str, str] | None = None,
        pause: float = PAUSE,
        say: Callable[[str], None] = lambda words: None,
    ) -> None:
        self.hub = hub
        self.say = say  # to whoever has started the panel, each trouble once
        self.said = ""
        self.environment = environment
        self.command = list(command)
        self.pause = pause
        self.ended = threading.Event()
        self.last_words = ""
        self.process: subprocess.Popen[bytes] | None = None
        self.thread = threading.Thread(target=self._run, daemon=True)

    def start(self) -> None:
        self._tell("starting", "")
        self.thread.start()

    def stop(self) -> None:
        self.ended.set()
        if self.process:
            end_all([self.process])
        self.thread.join(5)

    def _tell(self, state: str, words: str) -> None:
        self.hub.put("source", {"state": state, "words": words, "command": shlex.join(self.command)})

    def _run(self) -> None:
        while not self.ended.is_set():
            words = self._follow()
            if self.ended.is_set():
                return
            if words != self.said:
                self.say(f"the gateway does not answer: {words}; trying again")
                self.said = words
            self.hub.lose_sight()
            self._tell("away", words)
            self.ended.wait(self.pause)

    def _follow(self) -> str:
        """One run of the command; returns how it ended."""
        self.last_words = ""
        try:
            self.process = start_dependent(
                self.command, env=self.environment, stdout=subprocess.PIPE, stderr=subprocess.PIPE
            )
        except OSError as error:
            return f"{self.command[0]} cannot be run: {error.strerror}"
        if self.ended.is_set():
            end_all([self.process])
        complaints = threading.Thread(target=self._hear_complaints, args=(self.process.stderr,), daemon=True)
        complaints.start()
        assert self.process.stdout
        trouble = self._read(self.process.stdout)
        end_all([self.process])
        complaints.join(1)
        said = f": {self.last_words}" if self.last_words else ""
        remedy = REMEDIES.get(self.process.returncode, "")
        return trouble or f"the command has ended with exit status {self.process.returncode}{said}{remedy}"

    def _read(self, stream: IO[bytes]) -> str:
        """Until the stream ends; returns what is wrong with it, if anything is."""
        while line := stream.readline(LONGEST_LINE):
            if not line.endswith(b"\n") and len(line) == LONGEST_LINE:
                return f"a line of more than {LONGEST_LINE >> 20} MiB is no status: {NOTHING_ELSE}"
            if not line.endswith(b"\n"):
                return ""  # torn off with its writer
            try:
                self.hub.take(status.read(line))
            except status.Unreadable as error:
                return f"what the command printed is no status: {error}; {NOTHING_ELSE}"
            self._tell("running", "")
            if self.said:
                self.say("the gateway answers again")
                self.said = ""
        return ""

    def _hear_complaints(self, stream: IO[bytes]) -> None:
        while line := stream.readline(LONGEST_WORDS):
            self.last_words = line.decode("utf-8", "replace").strip() or self.last_words
