# SPDX-License-Identifier: Apache-2.0
"""What has happened in a scenario, and what happens in it in virtual time."""
from __future__ import annotations

import difflib
import pathlib
import re
import shlex
import subprocess
from collections.abc import Collection
from typing import NamedTuple

from orv_testbed.topics import INHIBIT_DNS
from orv_testbed.waiting import SLACK

SIMULATED = re.compile(r"\S+ (.) (.*)")
SIMULATED_STATE = re.compile(r'log (debug|error) OrvRoute (?:<Tick> )?"(.*)"')
SIMULATED_ORDER = re.compile(r"connman top (\S+)")
RAN_OUT_OF_TIME = "error: poke error 28"
TAKES_TIME = ("advance", "wait", "expect reconnect", "expect published", "expect route", "expect state")


class Failed(Exception):
    """What happened is not what happened in virtual time; says what."""


class Published(NamedTuple):
    topic: str
    payload: str
    retained: bool


class Journal:
    """Sequences. Between them there is no order that all gateways share: they come over several connections.

    session, route  what the application's two connections have published
    callbacks       what the application was told
    states          what the route supervision has said about its state
    moves           which interface the connection manager has put on top
    """

    KINDS = ("session", "route", "callbacks", "states", "moves")

    def __init__(self, kinds: Collection[str] = KINDS) -> None:
        self.sequences: dict[str, list[str]] = {kind: [] for kind in kinds}

    def add(self, kind: str, line: str) -> None:
        if kind in self.sequences:
            self.sequences[kind].append(line)

    def published(self, message: Published) -> None:
        flag = "retained " if message.retained else ""
        self.add("route" if message.topic == INHIBIT_DNS else "session", f"{flag}{message.topic} {message.payload!r}")

    def state(self, level: str, text: str) -> None:
        """Left out: failures of attempts in a row, of which there are as many as there is time for, and that an attempt ran
        out of time. Whether one that hangs has an answer when the path is back is up to TCP's repetitions."""
        line = text.strip() if level == "debug" else f"{level}: {text.strip()}"
        if line == RAN_OUT_OF_TIME or (level == "error" and line in self.sequences["states"][-1:]):
            return
        self.add("states", line)

    def ordered(self, interface: str) -> None:
        """The route's choice is ordered anew with each event; it is a move when it is another."""
        moves = self.sequences.get("moves")
        if moves is not None and interface != (moves or ["eth0"])[-1]:
            moves.append(interface)

    def count(self) -> dict[str, int]:
        return {kind: len(lines) for kind, lines in self.sequences.items()}

    def lines(self) -> list[str]:
        return [f"{kind}: {line}" for kind, lines in self.sequences.items() for line in lines]


def words_of(text: str) -> list[str]:
    return shlex.split(text, comments=True)


def quoted(text: str) -> str:
    """As one word of a scenario."""
    if re.fullmatch(r"[0-9A-Za-z_+.,:/%@=?!()-]+", text):
        return text
    return '"' + "".join(c if " " <= c <= "~" and c not in '"\\' else escaped(c) for c in text) + '"'


def escaped(character: str) -> str:
    return "\\" + character if character in '"\\' else "".join(f"\\x{byte:02x}" for byte in character.encode())


def commands_of(scenario: pathlib.Path) -> list[str]:
    lines = scenario.read_text(encoding="utf-8").splitlines()
    return [line.strip() for line in lines if words_of(line)]


def tick_of(scenario: pathlib.Path) -> str:
    """How often to tick: where the scenario lets the route's delays pass as an application does, else when it says so
    only, so that no machine is too slow for it."""
    return "100ms" if any(" ".join(words_of(line)).startswith(TAKES_TIME) for line in commands_of(scenario)) else "0"


def simulate(shell: str, scenario: pathlib.Path, kinds: Collection[str]) -> tuple[Journal, list[dict[str, int]]]:
    """What happens in virtual time, and how much of it has after each command."""
    done = subprocess.run(
        [shell, "--simulate", "--tick", tick_of(scenario), scenario],
        capture_output=True,
        text=True,
        check=False,
        timeout=10 * SLACK,
    )
    if done.returncode != 0:
        raise Failed(f"{scenario.name} fails in virtual time: {done.stderr}")
    journal, counts, obeys = Journal(kinds), [], True
    for line in done.stdout.splitlines():
        match = SIMULATED.match(line)
        if not match:
            continue
        mark, what = match.groups()
        if mark == ">":
            counts.append(journal.count())
            if what.startswith("connman "):
                obeys = what.endswith("thawed")
        elif mark == "<":
            journal.add("callbacks", what)
        elif state := SIMULATED_STATE.match(what):
            journal.state(*state.groups())
        elif order := SIMULATED_ORDER.match(what):
            if obeys:
                journal.ordered(order[1])
        elif what.startswith("publish "):
            words = words_of(what)[1:]
            retained = words[0] == "retained"
            journal.published(Published(words[retained], words[retained + 1], retained))
    return journal, [*counts[1:], journal.count()]


def difference(expected: Journal, seen: Journal, here: str = "in virtual time", there: str = "on this gateway") -> str:
    lines = difflib.unified_diff(expected.lines(), seen.lines(), here, there, lineterm="", n=3)
    return "\n".join(lines)
