# SPDX-License-Identifier: Apache-2.0
"""One object of `orv-status --follow --json`, brought into the form that the page relies on.

Another gateway's words are not to be trusted: whatever is missing, of another type or too long becomes "unknown", null or
shorter, so that the page needs no doubts.
"""
from __future__ import annotations

import json
import math
from typing import Any

LONGEST_TEXT = 600
MOST_TOPICS = 500
MOST_ENTRIES = 16  # interfaces, routes, services, addresses


class Unreadable(ValueError):
    """A line that is no status; the text says why."""


def text(value: object, otherwise: str = "") -> str:
    """What can be seen as it is, in the order in which it stands: no control characters, no change of direction."""
    if not isinstance(value, str):
        return otherwise
    return "".join(one if one.isprintable() else escaped(one) for one in value[:LONGEST_TEXT])[:LONGEST_TEXT]


def escaped(character: str) -> str:
    return (
        character.encode("ascii", "backslashreplace").decode("ascii") if ord(character) > 127 else repr(character)[1:-1]
    )


def number(value: object) -> float | None:
    """A finite number; None for anything else."""
    if isinstance(value, bool) or not isinstance(value, (int, float)):
        return None
    try:
        found = float(value)
    except OverflowError:
        return None
    return found if math.isfinite(found) else None


def truth(value: object) -> bool | None:
    """None for what is neither: it is not known."""
    return value if isinstance(value, bool) else None


def within(value: object, *names: str) -> Any:
    for name in names:
        value = value.get(name) if isinstance(value, dict) else None
    return value


def entries(value: object, most: int = MOST_ENTRIES) -> list[Any]:
    return [entry for entry in value[:most] if isinstance(entry, dict)] if isinstance(value, list) else []


def known(value: object) -> dict[str, str]:
    return {"state": text(within(value, "state"), "unknown"), "reason": text(within(value, "reason"))}


def read(line: bytes) -> dict[str, Any]:
    """The status in a line; raises Unreadable."""
    try:
        told = json.loads(line)
    except (ValueError, RecursionError) as error:
        raise Unreadable(f"no JSON: {text(line[:80].decode('utf-8', 'replace'))}") from error
    if within(told, "version") != 1:
        raise Unreadable(f"a status of version {text(str(within(told, 'version')))[:20]}; this panel reads version 1")
    monotonic = number(within(told, "monotonic"))
    if monotonic is None:
        raise Unreadable("a status without the time of the gateway's clock")
    network = within(told, "network")
    application = within(told, "application")
    return {
        "time": text(within(told, "time")),
        "monotonic": monotonic,
        "cloud": {
            **{key: text(within(told, "cloud", key), "unknown") for key in ("state", "path")},
            **{key: text(within(told, "cloud", key)) for key in ("since", "reason", "basis")},
            "since_monotonic": number(within(told, "cloud", "since_monotonic")),
        },
        "broker": {
            **known(within(told, "broker")),
            "address": text(within(told, "broker", "address")),
            "topics_left_out": number(within(told, "broker", "topics_left_out")) or 0,
        },
        "leds": {led: text(within(told, "leds", led), "unknown") for led in ("green", "yellow")},
        "topics": [
            {
                "topic": text(within(entry, "topic")),
                "payload": text(within(entry, "payload")),
                "bytes": number(within(entry, "bytes")),
                "retained": truth(within(entry, "retained")),
            }
            for entry in entries(within(told, "topics"), MOST_TOPICS)
        ],
        "network": {
            **known(network),
            "path": text(within(network, "path"), "unknown"),
            "interfaces": [interface(entry) for entry in entries(within(network, "interfaces"))],
            "default": default_interface(network),
        },
        "connman": {
            **known(within(told, "connman")),
            "services": [
                {"interface": text(within(entry, "interface")), "state": text(within(entry, "state"))}
                for entry in entries(within(told, "connman", "services"))
            ],
        },
        "application": {**known(application), **application_status(within(application, "status"))},
    }


def interface(entry: object) -> dict[str, Any]:
    addresses = within(entry, "addresses")
    return {
        "name": text(within(entry, "name")),
        "role": text(within(entry, "role")),
        "exists": within(entry, "exists") is True,
        "running": within(entry, "running") is True,
        "addresses": [text(one) for one in addresses[:MOST_ENTRIES]] if isinstance(addresses, list) else [],
    }


def default_interface(network: object) -> str | None:
    """Where the default route leads; empty where there is none, None where that is unknown."""
    if text(within(network, "state")) != "present":
        return None
    routes = entries(within(network, "default_routes"))
    return text(within(routes[0], "interface")) if routes else ""


def application_status(status: object) -> dict[str, Any]:
    move = within(status, "route", "last_move")
    return {
        "program": text(within(status, "name")),
        "probation": within(status, "route", "ethernet_on_probation") is True,
        "last_failure": text(within(status, "cloud", "last_failure")),
        "last_move": {
            **{key: text(within(move, key)) for key in ("time", "from", "to", "reason")},
            "took_s": number(within(move, "took_s")),
        }
        if isinstance(move, dict)
        else None,
        "pokes": [
            {
                **{key: text(within(poke, key)) for key in ("time", "path", "result", "text", "known_from")},
                "at_most_s": number(within(poke, "at_most_s")),
            }
            for poke in entries(within(status, "pokes"))
        ],
        "counters": {
            name: number(within(status, "counters", name))
            for name in ("fail_overs", "returns", "cloud_losses", "seconds_on_ethernet", "seconds_on_cellular")
        },
    }
