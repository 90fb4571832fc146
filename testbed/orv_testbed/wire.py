# SPDX-License-Identifier: Apache-2.0
"""What goes over the gateway's broker, seen by an independent client."""
from __future__ import annotations

import json
import pathlib
from typing import NamedTuple

from orv_testbed.box import Box, Failed
from orv_testbed.topics import CLOUD, GREEN, INHIBIT_DNS, NO_NETWORK, YELLOW, of_feature
from orv_testbed.waiting import SLACK, wait_until

RETAINED = {INHIBIT_DNS, GREEN, YELLOW, CLOUD, NO_NETWORK}
AVAILABLE = of_feature("gateway-app", "available")
PROGRAM = "orv_testbed.witness"


class Message(NamedTuple):
    topic: str
    payload: str
    retained: bool


class Witness:
    """What an independent client of the gateway's broker has seen."""

    def __init__(self, box: Box, folder: pathlib.Path) -> None:
        self.box = box
        self.file = folder / "witness.jsonl"
        with open(self.file, "w", encoding="utf-8") as output:
            self.pid = box.start_own(PROGRAM, output=output)
        wait_until(
            lambda: "listening" in self.file.read_text(encoding="utf-8"), 10 + SLACK, "the witness's subscription"
        )

    def lines(self) -> list[str]:
        return self.file.read_text(encoding="utf-8").splitlines()

    def connections(self) -> int:
        """How often it has connected to the broker."""
        return self.lines().count("connected")

    def messages(self, topic: str | None = None, latest_connection: bool = False) -> list[Message]:
        """In their order."""
        lines = self.lines()
        if latest_connection:
            lines = lines[len(lines) - lines[::-1].index("connected") :]
        entries = [json.loads(line) for line in lines if line.startswith("{") and line.endswith("}")]
        messages = [Message(entry["topic"], entry["payload"], entry["retained"]) for entry in entries]
        return [message for message in messages if topic in (None, message.topic)]

    def payloads(self, topic: str, latest_connection: bool = False) -> list[str]:
        return [message.payload for message in self.messages(topic, latest_connection)]

    def last(self, topic: str) -> str | None:
        payloads = self.payloads(topic)
        return payloads[-1] if payloads else None

    def wait_for(self, topic: str, payload: str, seconds: float = 0) -> None:
        wait_until(
            lambda: self.last(topic) == payload,
            seconds + SLACK,
            lambda: f"{payload} on {topic}, not {self.payloads(topic)}",
        )

    def kept(self) -> dict[str, str]:
        """What the broker hands to someone who subscribes now."""
        said = self.box.said_by_own(PROGRAM, "--kept")
        try:
            kept: dict[str, str] = json.loads(said)
        except ValueError as error:
            raise Failed(f"what the broker keeps: {said}") from error
        return kept

    def wrongly_retained(self) -> list[Message]:
        """Messages that were published retained and must not be, or the other way round."""
        return [
            message
            for message in self.messages()
            if message.retained != (message.topic in RETAINED) and message != (AVAILABLE, "false", True)
        ]
