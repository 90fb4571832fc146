# SPDX-License-Identifier: Apache-2.0
"""gateway-app on the box."""
from __future__ import annotations

import json
import pathlib
import re
from typing import Any

from orv_testbed import route_states
from orv_testbed.box import Box
from orv_testbed.calls import Figures
from orv_testbed.layout import CLOUD_NAME
from orv_testbed.programs import program
from orv_testbed.waiting import SLACK, wait_until


class Application:
    """gateway-app on the box, with its log and its transcript."""

    def __init__(
        self, box: Box, folder: pathlib.Path, *options: str, clock: bool = False, output: int | None = None
    ) -> None:
        self.box = box
        self.log_file = folder / "app.log"
        self.transcript_file = folder / "transcript.jsonl"
        with open(self.log_file, "w", encoding="utf-8") as log:
            target = log if output is None else output
            # Several gateways share this machine; how long a call lasts is to tell of the call, not of the other gateways.
            self.process = box.start(
                "nice",
                "-n",
                "-15",
                "env",
                "RES_OPTIONS=timeout:1 attempts:2",
                program("gateway-app"),
                "--cloud-host",
                CLOUD_NAME,
                "--transcript",
                str(self.transcript_file),
                *options,
                stdout=target,
                stderr=target,
                clock=clock,  # its own wall clock, see `box clock`
            )

    def log(self) -> str:
        return self.log_file.read_text(encoding="utf-8")

    def mark(self) -> int:
        """A place in the log: `said` looks behind it."""
        return len(self.log())

    def has_logged(self, text: str, since: int = 0) -> bool:
        return text in self.log()[since:]

    def wait_for(self, text: str, seconds: float, since: int = 0) -> int:
        """Waits for a log line that holds `text`; returns the place behind it."""
        wait_until(
            lambda: self.has_logged(text, since), seconds + SLACK, lambda: f'"{text}" in the log\n{self.interesting()}'
        )
        place: int = self.log().index(text, since) + len(text)
        return place

    def wait_for_session(self, seconds: float) -> None:
        """Waits until the session with the broker has been made again."""
        wait_until(
            lambda: re.search(r"ORV_Stack\S*: connected again", self.log()),
            seconds + SLACK,
            lambda: f"the session in the log\n{self.interesting()}",
        )

    def times_of(self, text: str, since: int = 0) -> list[str]:
        """The times of the log lines that hold `text`."""
        return [line.split(" ", 1)[0] for line in self.log()[since:].splitlines() if text in line]

    def lines_of(self, text: str) -> list[str]:
        return [line for line in self.log().splitlines() if text in line]

    def status(self) -> dict[str, Any]:
        """What it tells about itself."""
        status: dict[str, Any] = json.loads(self.box.file("/run/gateway-app/status.json") or "{}")
        return status

    def route_state(self, since: int = 0) -> str:
        """The state that the route supervision has entered last."""
        states = [route_states.entered(line) for line in self.log()[since:].splitlines()]
        return ([state for state in states if state] or ["ETHERNET_ACTIVE"])[-1]

    def complaints(self) -> list[str]:
        """The log's warnings and errors, without their times."""
        lines = [line.split(" ", 2) for line in self.log().splitlines()]
        return [words[2] for words in lines if len(words) == 3 and words[1] in ("warning", "error", "critical")]

    def reported(self, *events: str) -> str | None:
        """Which of these events was reported last; None when none was."""
        names = [entry["event"] for entry in self.transcript("event") if entry["reported"] and entry["event"] in events]
        return names[-1] if names else None

    def interesting(self) -> str:
        return "\n".join(line for line in self.log().splitlines() if " trace " not in line)

    def transcript(self, what: str | None = None) -> list[dict[str, Any]]:
        if not self.transcript_file.exists():
            return []
        lines = self.transcript_file.read_text(encoding="utf-8").splitlines()
        entries = [json.loads(line) for line in lines if line.endswith("}")]
        return [entry for entry in entries if what in (None, entry["what"])]

    def monotonic(self, what: str) -> list[float]:
        """When something happened, in seconds of a clock that does not jump."""
        return [entry["monotonic"] for entry in self.transcript(what)]

    def cloud_interface(self) -> str | None:
        """Over which interface the cloud is connected; None while it is not."""
        entries = [entry for entry in self.transcript() if entry["what"] in ("cloud_connected", "cloud_lost")]
        return entries[-1].get("interface") if entries and entries[-1]["what"] == "cloud_connected" else None

    def connected_for(self, begin: float, end: float) -> float:
        """For how many seconds between the two, by a clock that does not jump, the cloud was connected."""
        total = 0.0
        since: float | None = None
        for entry in self.transcript():
            if entry["what"] == "cloud_connected":
                since = max(begin, entry["monotonic"])
            elif entry["what"] == "cloud_lost" and since is not None:
                total += max(0.0, min(end, entry["monotonic"]) - since)
                since = None
        return total + (max(0.0, end - since) if since is not None else 0.0)

    def wait_for_cloud(self, interface: str, seconds: float) -> None:
        wait_until(
            lambda: self.cloud_interface() == interface,
            seconds + SLACK,
            lambda: f"cloud connected over {interface}\n{self.interesting()}",
        )

    def stop(self) -> Figures:
        """Ends it in good order; returns the figures on its calls of the library."""
        self.process.terminate()
        assert self.process.wait(timeout=10) == 0
        return self.transcript("end")[-1]
