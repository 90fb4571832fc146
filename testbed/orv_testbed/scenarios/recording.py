# SPDX-License-Identifier: Apache-2.0
"""What a run has left behind: gateway-app's transcript, its log, and what went over the broker."""
from __future__ import annotations

import json
import pathlib
import re
from collections.abc import Iterator
from datetime import datetime
from typing import Any, NamedTuple

from orv_testbed.scenarios.journal import Published
from orv_testbed.topics import ALL

LOG_LINE = re.compile(r"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z) (\w+) \[(\w+)\] (.*)")
MOST_CHARACTERS = 100_000  # in a line
FIELDS: dict[str, dict[str, type]] = {
    "event": {"event": str, "reported": bool},
    "action": {"action": str},
    "default_route": {"interface": str},
    "path": {"path": str},
}
RECORD_THE_WIRE = f"mosquitto_sub -V mqttv5 --retain-as-published -t '{ALL}' -F %j"


class Unreadable(Exception):
    """A recording is not what it should be; names file and line, and says what to do."""


class Happening(NamedTuple):
    time: float  # seconds since 1970, UTC
    place: str  # file and line
    what: str
    fields: dict[str, Any]


def lines_of(path: pathlib.Path) -> Iterator[tuple[str, str]]:
    """Each line, and its place."""
    try:
        content = path.read_bytes()
    except OSError as error:
        raise Unreadable(f"{path}: {error.strerror}; which file is it?") from error
    for number, line in enumerate(content.split(b"\n"), 1):
        place = f"{path}:{number}"
        if len(line) > MOST_CHARACTERS:
            raise Unreadable(f"{place}: {len(line)} bytes in a line; nothing of ours is so long: take it out")
        try:
            yield place, line.decode("utf-8").strip("\r")
        except UnicodeDecodeError as error:
            raise Unreadable(f"{place}: bytes that are no text; take the line out") from error


def objects_of(path: pathlib.Path, remedy: str) -> Iterator[tuple[str, dict[str, Any]]]:
    for place, line in lines_of(path):
        if not line.strip():
            continue
        try:
            found = json.loads(line)
        except (ValueError, RecursionError) as error:
            raise Unreadable(f"{place}: not a whole JSON object ({error}); {remedy}") from error
        if not isinstance(found, dict):
            raise Unreadable(f"{place}: not a JSON object; {remedy}")
        yield place, found


def field(place: str, found: dict[str, Any], name: str, kind: type, remedy: str) -> Any:
    value = found.get(name)
    if not isinstance(value, kind):
        raise Unreadable(f'{place}: "{name}" is missing, or is of another kind; {remedy}')
    return value


def seconds(place: str, text: str, remedy: str) -> float:
    try:
        return datetime.fromisoformat(re.sub(r"Z$", "+00:00", text)).timestamp()
    except (ValueError, OverflowError, OSError) as error:
        raise Unreadable(f"{place}: no time: {text[:40]!r}; {remedy}") from error


def transcript(path: pathlib.Path) -> list[Happening]:
    """The last run in it."""
    remedy = "a line that a power cut has torn may be taken out, anything else is not gateway-app's transcript"
    run: list[Happening] | None = None
    for place, found in objects_of(path, remedy):
        what = field(place, found, "what", str, remedy)
        time = seconds(place, field(place, found, "time", str, remedy), remedy)
        if what == "start":
            run = []
        if run is None:
            continue
        if "lost_before" in found:
            raise Unreadable(
                f"{place}: lines are missing before it (the disk was full): nothing after it can be replayed; cut here"
            )
        for name, kind in FIELDS.get(what, {}).items():
            field(place, found, name, kind, remedy)
        if run and time < run[-1].time:
            raise Unreadable(
                f"{place}: earlier than the line before: the clock was put back; cut the file here or there"
            )
        run.append(Happening(time, place, what, found))
    if run is None:
        raise Unreadable(f'{path}: no run begins in it ("what":"start"); take the transcript from its beginning')
    return run


def log(path: pathlib.Path) -> list[Happening]:
    """The records of the application's log, `fields` with level, name and text; other lines are passed over."""
    found = []
    for place, line in lines_of(path):
        if match := LOG_LINE.fullmatch(line):
            time, level, name, text = match.groups()
            found.append(
                Happening(seconds(place, time, ""), place, "log", {"level": level, "name": name, "text": text})
            )
    if not found:
        raise Unreadable(
            f"{path}: no line of a log such as `2026-01-31T10:00:00.000Z info [GatewayApp] ...`; "
            "the standard error and the log file look like that, the system's journal does not"
        )
    return found


def wire(path: pathlib.Path) -> list[Happening]:
    """What went over the broker, `fields["message"]`."""
    remedy = f"record it with {RECORD_THE_WIRE}"
    found = []
    for place, entry in objects_of(path, remedy):
        # mosquitto_sub writes both, such as 10:00:00.000000Z+0000.
        text = re.sub(r"Z?([+-]\d\d)(\d\d)$", r"\1:\2", field(place, entry, "tst", str, remedy))
        time = seconds(place, text, remedy)
        topic = field(place, entry, "topic", str, remedy)
        if isinstance(entry.get("payload"), list):
            continue  # bytes that are no text: neither the library nor a test of it sends them
        payload = "" if entry.get("payload", "") is None else field(place, entry, "payload", str, remedy)
        retained = field(place, entry, "retain", int, remedy) == 1
        found.append(Happening(time, place, "message", {"message": Published(topic, payload, retained)}))
    return found
