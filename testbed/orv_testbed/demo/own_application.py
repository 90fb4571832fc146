# SPDX-License-Identifier: Apache-2.0
"""The demo with a program of one's own: it goes through the demo's outage on a gateway box, and the run is drawn.

What the picture shows is seen from outside: the wire, the kernel's default route, and the log that the library writes to the
program's standard error. What the program does not tell is not drawn, and is said. Run by script/demo --app.
"""
from __future__ import annotations

import signal
import subprocess
import sys
import time
from collections.abc import Callable, Sequence

from orv_testbed.box import Box
from orv_testbed.demo.on_box import LOG_LEVEL, BoxDemo, follow, show
from orv_testbed.demo.transcript import Transcript
from orv_testbed.layout import CLOUD_ADDRESS, CLOUD_NAME
from orv_testbed.topics import CLOUD
from orv_testbed.waiting import NotInTime, wait_until

ADDRESS = f"{CLOUD_NAME} ({CLOUD_ADDRESS}), ports 443 and 8883"
LONGEST = {"start": 15, "fail-over": 45, "return": 60, "end": 10}  # seconds


class OwnApplication(BoxDemo):
    def __init__(self, box: Box, transcript: Transcript, command: Sequence[str]) -> None:
        super().__init__(box, transcript)
        self.command = command
        self.has_logged = False

    def start_application(self) -> None:
        self.application = self.box.start(
            *("env", f"ORV_LOG_LEVEL={LOG_LEVEL}", "RES_OPTIONS=timeout:1 attempts:2", *self.command),
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
        )
        follow(self.application.stdout, lambda line: self.transcript.line("app", line))
        self.log_reader = follow(self.application.stderr, self.on_log)

    def on_log(self, line: str) -> None:
        if not self.has_logged and "[Orv" in line:
            self.has_logged = True
            self.run.note("route state", "ETHERNET_ACTIVE", "ETHERNET_ACTIVE", "bold")
        super().on_log(line)

    def on_message(self, line: str) -> None:
        super().on_message(line)
        _, topic, payload = (line.split(" ", 2) + [""])[:3]
        if topic == CLOUD:
            value = "connected" if payload == "true" else "none"
            self.run.note("cloud connection", value, f"the program reports the cloud: {value}", "cyan")

    def play(self) -> list[str]:
        self.run.begin = time.monotonic()
        self.watch()
        self.start_application()
        self.reach("start", "the program reports the cloud connected", lambda: self.has_cloud() and self.leads("eth0"))
        self.run.show(2)
        self.run.mark("Ethernet provider dies")
        self.box("provider", "eth", "dead")
        self.reach(
            "fail-over", "the route and the cloud over Cellular", lambda: self.has_cloud() and self.leads("wwan0")
        )
        self.run.show(4)
        self.run.mark("Ethernet provider is back")
        self.box("provider", "eth", "back")
        self.reach("return", "the route and the cloud over Ethernet", self.has_returned)
        self.run.show(2)
        faults = self.end()
        self.run.events.append({"t": time.monotonic() - self.run.begin, "end": True})
        return faults

    def has_cloud(self) -> bool:
        return self.run.now("cloud connection") == "connected"

    def leads(self, interface: str) -> bool:
        return self.run.now("default route") == interface

    def has_returned(self) -> bool:
        return self.has_cloud() and self.leads("eth0") and self.run.now("route state") in ("", "ETHERNET_ACTIVE")

    def reach(self, step: str, what: str, condition: Callable[[], bool]) -> None:
        """Waits as long as a program may take that does its part; one that does not is shown, too."""
        if self.application.poll() is not None:
            return
        try:
            wait_until(lambda: condition() or self.application.poll() is not None, LONGEST[step], what)
        except NotInTime:
            self.transcript.line("demo", f"not seen within {LONGEST[step]} s: {what}", "red")

    def end(self) -> list[str]:
        status = self.application.poll()
        if status is None:
            self.run.mark("the program is told to end")
            self.application.send_signal(signal.SIGTERM)
            try:
                status = self.application.wait(LONGEST["end"])
            except subprocess.TimeoutExpired:
                return [f"the program does not end within {LONGEST['end']} s of SIGTERM"]
        else:
            self.run.mark("the program has ended by itself")
        self.log_reader.join(2)
        return [] if status in (0, -signal.SIGTERM) else [f"the program has ended with exit status {status}"]

    def conclusion(self) -> str:
        self.transcript.chapter("What is not in the picture:")
        print("\n".join(f"- {words}" for words in self.untold()), flush=True)
        return "The program has been through the outage."

    def untold(self) -> list[str]:
        """What is missing in the picture, and why."""
        lanes = self.run.lanes
        words = []
        if "route state" not in lanes:
            words.append(
                "route state: the library's log does not reach the program's standard error ([log] in gateway.ini), or the "
                "program has made no client"
            )
        if "connected" not in lanes.get("cloud connection", []):
            words.append(
                "cloud connection: the program has not reported CLOUD_CONNECTED by EventUpdateRequest; it reaches the cloud "
                "at " + ADDRESS
            )
        else:
            words.append(
                "cloud connection: over which interface it runs, only the program knows; see the default route"
            )
        if not {"green LED", "yellow LED"} & set(lanes):
            words.append("LEDs: the program reports no connectivity events by EventUpdateRequest")
        if "wwan0" not in lanes.get("default route", []):
            words.append(
                "a fail-over: the default route has not moved. The library moves it when the program ticks it and reports "
                "CLOUD_DISCONNECTED after CLOUD_CONNECTED"
            )
        if "DNS topic" not in lanes:
            words.append("DNS topic: nothing is said on it before the first poke over Cellular")
        return words


def main(folder: str, colour: str, *command: str) -> int:
    transcript = Transcript(colour == "colour")
    transcript.chapter("A gateway comes up: two providers, a cloud, ConnMan, a broker")
    return show(transcript, Box, lambda box, lines: OwnApplication(box, lines, command), folder, "app")


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
