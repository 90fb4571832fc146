# SPDX-License-Identifier: Apache-2.0
"""Prints what happens, from several threads, one line a time, in colour where that is wanted."""
from __future__ import annotations

import threading
import time

from orv_testbed.topics import LEDS

COLOURS = {"dim": "2", "bold": "1", "red": "31", "green": "32", "yellow": "33", "cyan": "36"}
LAMPS = {"On": "●", "Off": "○", "Blink": "◐"}


class Transcript:
    def __init__(self, colour: bool) -> None:
        self.colour = colour
        self.start = time.monotonic()
        self.lock = threading.Lock()
        self.leds = {"green": "", "yellow": ""}

    def paint(self, text: str, *styles: str) -> str:
        if not self.colour or not styles:
            return text
        return f"\x1b[{';'.join(COLOURS[style] for style in styles)}m{text}\x1b[0m"

    def line(self, source: str, text: str, *styles: str) -> None:
        with self.lock:
            print(f"{time.monotonic() - self.start:7.3f}  {source:<8}  {self.paint(text, *styles)}", flush=True)

    def chapter(self, text: str) -> None:
        with self.lock:
            print(f"\n{self.paint(text, 'bold')}", flush=True)

    def application(self, line: str) -> None:
        stamped = len(line) > 13 and line[8] == "." and line[12] == " "
        if not stamped:
            self.chapter(line)
        elif line[13] == "<":
            self.line("callback", line[15:], "cyan")
        else:
            self.line("command", line[15:])

    def message(self, retained: bool, topic: str, payload: str) -> None:
        self.line("wire", f"{'kept ' if retained else '     '}{topic}  {payload}", "dim")
        led = topic[len(LEDS) :]
        if topic.startswith(LEDS) and led in self.leds:
            self.leds[led] = payload
            lamps = [self.lamp(name, state) for name, state in self.leds.items() if state]
            self.line("LEDs", "   ".join(lamps))

    def lamp(self, name: str, state: str) -> str:
        return self.paint(f"{LAMPS.get(state, ' ')} {name} {state:<5}", *([name] if state != "Off" else ["dim"]))

    def verdict(self, faults: list[str], good: str) -> int:
        """Says how the demo went; returns the exit status."""
        if faults:
            self.chapter(self.paint("Not what must be there:", "red"))
            print("\n".join(faults))
            return 1
        self.chapter(self.paint(good, "green"))
        return 0
