# SPDX-License-Identifier: Apache-2.0
"""The demo on the gateway box: the reference application loses the cloud on Ethernet, fails over to Cellular, returns,
and reports a failure, on the real connection manager and the real broker. Draws the run as a picture at the end.

Run by script/demo. The box, and with it everything that was started, is taken down however the demo ends.
"""

from __future__ import annotations

import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import threading
import time
from collections.abc import Callable, Iterable
from typing import IO, Any

from orv_testbed import route_states, timeline
from orv_testbed.box import Box
from orv_testbed.demo.transcript import Transcript
from orv_testbed.programs import program
from orv_testbed.status_files import ALL_UP, ERRORS, FAILURE, STATUSES
from orv_testbed.topics import ALL, INHIBIT_DNS, LEDS
from orv_testbed.waiting import wait_until

LOG_LEVEL = "info,OrvRoute=debug,OrvSessionMqtt=error"
COLUMN = {
    "route state": "state",
    "green LED": "LED",
    "yellow LED": "LED",
    "DNS topic": "wire",
    "default route": "route",
    "cloud connection": "cloud",
}


class Run:
    """What was seen, in order, by lane."""

    def __init__(self, transcript: Transcript) -> None:
        self.transcript = transcript
        self.begin = time.monotonic()
        self.events: list[dict[str, Any]] = []
        self.lanes: dict[str, list[str]] = {}
        self.lock = threading.Lock()

    def note(self, lane: str, value: str, text: str | None = None, *styles: str) -> None:
        with self.lock:
            history = self.lanes.setdefault(lane, [])
            if history and history[-1] == value:
                return
            history.append(value)
            self.events.append({"t": time.monotonic() - self.begin, "lane": lane, "value": value})
        self.transcript.line(COLUMN.get(lane, lane)[:8], text or value, *styles)

    def mark(self, text: str) -> None:
        with self.lock:
            self.events.append({"t": time.monotonic() - self.begin, "mark": text})
        self.transcript.chapter(text)

    def show(self, seconds: float) -> None:
        """Time for the reader, and for something that must not happen."""
        time.sleep(seconds)

    def now(self, lane: str) -> str:
        return self.lanes.get(lane, [""])[-1]


def follow(stream: IO[str] | None, take: Callable[[str], None]) -> threading.Thread:
    lines: Iterable[str] = stream or ()

    def read() -> None:
        for line in lines:
            take(line.rstrip("\n"))

    thread = threading.Thread(target=read, daemon=True)
    thread.start()
    return thread


class BoxDemo:
    def __init__(self, box: Box, transcript: Transcript) -> None:
        self.box = box
        self.run = Run(transcript)
        self.transcript = transcript
        self.application: subprocess.Popen[str]  # not on a machine, where it is a service
        self.patience = 1.0  # as many times as long as on a box of this host

    def watch(self) -> None:
        """Follows the wire and the default route."""
        wire = self.box.start(
            *("stdbuf", "-oL", "mosquitto_sub", "-h", "127.0.0.1", "-V", "mqttv5", "--retain-as-published"),
            *("-t", ALL, "-F", "%r %t %p"),
            stdout=subprocess.PIPE,
        )
        follow(wire.stdout, self.on_message)
        routes = self.box.start("stdbuf", "-oL", "ip", "-o", "monitor", "route", stdout=subprocess.PIPE)
        follow(routes.stdout, lambda _: self.on_route())
        self.on_route()

    def start_application(self) -> None:
        transcript = self.box.folder / "app.jsonl"
        transcript.touch()
        self.application = self.box.start(
            *("env", f"ORV_LOG_LEVEL={LOG_LEVEL}", "RES_OPTIONS=timeout:1 attempts:2", program("gateway-app")),
            *("--name", "demo", "--cloud-host", "cloud.box.test", "--tick-ms", "100"),
            *("--transcript", str(transcript)),
            stdout=subprocess.DEVNULL,
            stderr=subprocess.PIPE,
        )
        self.log_reader = follow(self.application.stderr, self.on_log)
        happenings = subprocess.Popen(
            ["tail", "-F", "-n", "+1", str(transcript)], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True
        )
        self.box.processes.append(happenings)
        follow(happenings.stdout, self.on_happening)

    def on_message(self, line: str) -> None:
        retained, topic, payload = (line.split(" ", 2) + [""])[:3]
        if topic.startswith(LEDS):
            led = topic[len(LEDS) :]
            self.run.note(f"{led} LED", payload, self.transcript.lamp(led, payload))
        elif topic == INHIBIT_DNS:
            self.run.note("DNS topic", payload, f"inhibit_dns: {payload}", "dim")
        if topic.startswith((LEDS, INHIBIT_DNS)) and retained != "1":
            self.run.note("fault", f"{topic} was not published retained", None, "red")

    def on_route(self) -> None:
        found = re.search(r"\bdev (\S+)", self.box("exec", "ip", "route", "show", "default", must_succeed=False))
        interface = found.group(1) if found else "none"
        self.run.note("default route", interface, f"default over {interface}")

    def on_log(self, line: str) -> None:
        self.transcript.line("log", line[25:] if line[:2] == "20" else line, "dim")
        state = route_states.entered(line)
        if state:
            self.run.note("route state", state, state, "bold")

    def on_happening(self, line: str) -> None:
        happening = json.loads(line)
        what = happening["what"]
        if what == "cloud_connected":
            side = "Ethernet" if happening["interface"] == "eth0" else "Cellular"
            in_ipv6 = happening["family"] == "IPv6"
            said = f"connected from {happening['source']} ({happening['interface']}, {happening['family']})"
            self.run.note("cloud connection", f"{side}, IPv6" if in_ipv6 else side, said, "green")
        elif what == "cloud_lost":
            self.run.note("cloud connection", "none", f"lost: {happening.get('reason', '')}", "red")
        elif what == "event":
            self.transcript.line("event", happening["event"], "cyan")

    def signal(self, name: str) -> None:
        """`box exec` has replaced itself by the program."""
        self.application.send_signal(signal.Signals[f"SIG{name}"])

    def end_application(self) -> int:
        """Returns its exit status."""
        self.signal("TERM")
        status = self.application.wait(10)
        self.log_reader.join(2)
        return status

    def play(self) -> list[str]:
        run = self.run
        run.begin = time.monotonic()
        self.watch()
        self.start_application()
        run.note("route state", "ETHERNET_ACTIVE", "ETHERNET_ACTIVE", "bold")
        wait_until(
            lambda: run.now("cloud connection") == "Ethernet" and run.now("green LED") == "On",
            20 * self.patience,
            "the cloud connection over Ethernet",
        )

        run.show(2)
        run.mark("Ethernet provider dies")
        self.box("provider", "eth", "dead")
        wait_until(
            lambda: run.now("cloud connection") == "Cellular"
            and run.now("route state") == "CELLULAR_ACTIVE"
            and run.now("green LED") == "On",
            40 * self.patience,
            "the fail-over to Cellular",
        )

        run.show(4)
        run.mark("Ethernet provider is back")
        self.box("provider", "eth", "back")
        wait_until(
            lambda: run.now("cloud connection") == "Ethernet"
            and run.now("route state") == "ETHERNET_ACTIVE"
            and run.now("default route") == "eth0",
            60 * self.patience,
            "the return to Ethernet",
        )

        run.show(2)
        run.mark("the application reports a failure")
        self.signal("USR1")
        wait_until(
            lambda: run.now("green LED") == run.now("yellow LED") == "Blink", 10 * self.patience, "both LEDs blinking"
        )

        wait_until(self.box.error_file, 5 * self.patience, "the error file")
        faults = self.show_files()

        run.show(1)
        run.mark("the application is told to end")
        status = self.end_application()
        run.events.append({"t": time.monotonic() - run.begin, "end": True})
        return faults + self.judge(status)

    def states(self) -> list[str]:
        """Of the route supervision, as far as they are judged."""
        return self.run.lanes["route state"]

    def judge(self, status: int) -> list[str]:
        faults = [] if status == 0 else [f"the application ended with exit status {status}"]
        faults += self.run.lanes.get("fault", [])

        def expect(lane: str, wanted: list[str]) -> None:
            seen = [
                value for value in self.run.lanes.get(lane, []) if value != "none"
            ]  # gaps between two are all right
            if seen != wanted:
                faults.append(f"{lane}: {seen}, but it must be {wanted}")

        self.run.lanes["route state"] = self.states()
        expect("route state", [*route_states.STATES, route_states.STATES[0]])
        expect("default route", ["eth0", "wwan0", "eth0"])
        expect("DNS topic", ["inhibit", "permit"])
        expect("cloud connection", ["Ethernet", "Cellular", "Ethernet"])
        return faults

    def show_files(self) -> list[str]:
        faults = []
        for path, wanted in ((STATUSES, re.escape(ALL_UP)), (ERRORS, rf"\d+,{FAILURE}")):
            self.transcript.chapter(path)
            text = self.box.file(path)
            print(text, flush=True)
            if text is None or not re.fullmatch(wanted, text):
                faults.append(f"{path} is not as it must be")
        return faults

    def conclusion(self) -> str:
        """What is to be said when there are no faults."""
        return "Fail-over, return and failure went as they must."

    def draw(self, folder: pathlib.Path, name: str = "demo") -> None:
        folder.mkdir(parents=True, exist_ok=True)
        events, picture, raster = (folder / f"{name}.{kind}" for kind in ("jsonl", "svg", "png"))
        with open(events, "w", encoding="utf-8") as file:
            file.writelines(json.dumps(event) + "\n" for event in self.run.events if event.get("lane") != "fault")
        timeline.main([str(events), str(picture)])
        print(f"\nThe run as a picture: {picture}")
        if shutil.which("rsvg-convert"):
            subprocess.run(["rsvg-convert", picture, "-o", raster], check=True)
            print(f"                      {raster}")


def interrupted(*_: object) -> None:
    raise KeyboardInterrupt


def show(
    transcript: Transcript,
    make_box: Callable[[str], Box],
    make_demo: Callable[[Any, Transcript], BoxDemo],
    *picture: str,
) -> int:
    """`picture`: the folder, and the name where it is not "demo". Returns the exit status."""
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, interrupted)
    try:
        with make_box(f"d{os.getpid() % 10**7}") as box:  # a name has no more characters than this
            demo = make_demo(box, transcript)
            faults = demo.play()
            demo.draw(pathlib.Path(picture[0]), *picture[1:])
    except KeyboardInterrupt:
        print("\ndemo: interrupted", file=sys.stderr)
        return 130
    except (AssertionError, OSError, RuntimeError, subprocess.SubprocessError) as error:
        print(f"demo: {error}", file=sys.stderr)
        return 1
    return transcript.verdict(faults, demo.conclusion())


def main(folder: str, colour: str) -> int:
    transcript = Transcript(colour == "colour")
    transcript.chapter("A gateway comes up: two providers, a cloud, ConnMan, a broker")
    return show(transcript, Box, BoxDemo, folder)


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
