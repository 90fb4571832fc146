# SPDX-License-Identifier: Apache-2.0
"""Statuses as orv-status prints them, for tests."""
from __future__ import annotations

import copy
import json
from typing import Any

from orv_testbed.panel import status
from orv_testbed.topics import INHIBIT_DNS

ON_ETHERNET: dict[str, Any] = {
    "version": 1,
    "time": "2026-11-22T02:03:11.402Z",
    "monotonic": 1000.0,
    "exit_status": 0,
    "cloud": {
        "state": "connected",
        "path": "ethernet",
        "family": "IPv4",
        "since": "2026-11-22T02:00:11.402Z",
        "since_monotonic": 820.0,
        "reason": "connected over eth0",
        "basis": "gateway-app says so",
    },
    "broker": {
        "state": "present",
        "address": "127.0.0.1:1883",
        "reason": None,
        "complete": True,
        "topics_left_out": 0,
    },
    "leds": {"green": "on", "yellow": "off"},
    "topics": [{"topic": INHIBIT_DNS, "payload": "permit", "bytes": 6, "retained": True}],
    "network": {
        "state": "present",
        "reason": None,
        "path": "ethernet",
        "interfaces": [
            {
                "name": name,
                "role": role,
                "exists": True,
                "running": True,
                "addresses": [address],
                "received_bytes": 1,
                "sent_bytes": 1,
            }
            for name, role, address in (
                ("eth0", "ethernet", "10.11.0.2/24"),
                ("wwan0", "cellular", "10.12.0.2/24"),
            )
        ],
        "default_routes": [{"interface": "eth0", "family": "IPv4", "gateway": "10.11.0.1", "metric": 0}],
    },
    "connman": {"state": "present", "reason": None, "services": []},
    "application": {
        "state": "running",
        "file": "/run/gateway-app/status.json",
        "reason": None,
        "status": {"name": "gateway-app", "cloud": {}, "route": {"last_move": None}, "pokes": [], "counters": {}},
    },
}

FAIL_OVER: dict[str, Any] = {
    "time": "2026-11-22T02:03:21.402Z",
    "time_monotonic": 1010.0,
    "from": "ethernet",
    "to": "cellular",
    "reason": "the cloud was lost on Ethernet (no sign of life) and a poke over Cellular succeeded",
    "took_s": 12.34,
}
POKE: dict[str, Any] = {
    "time": "2026-11-22T02:03:21.300Z",
    "path": "cellular",
    "result": "succeeded",
    "code": 0,
    "at_most_s": 0.26,
    "text": "",
    "known_from": "the library has moved the route",
}


def changed(**places: Any) -> dict[str, Any]:
    """ON_ETHERNET with other values, each named by its place: cloud__state="disconnected"."""
    told = copy.deepcopy(ON_ETHERNET)
    for place, value in places.items():
        *outer, last = place.split("__")
        inner = told
        for key in outer:
            inner = inner[key]
        inner[last] = value
    return told


def line(told: object) -> bytes:
    return json.dumps(told).encode() + b"\n"


def as_read(**places: Any) -> dict[str, Any]:
    return status.read(line(changed(**places)))
