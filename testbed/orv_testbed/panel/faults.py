# SPDX-License-Identifier: Apache-2.0
"""The faults of a box as buttons: what each does, and what takes it back. The words are those of testbed/box."""
from __future__ import annotations

import threading
from collections.abc import Callable
from typing import NamedTuple

from orv_testbed import fault_record
from orv_testbed.panel.hub import Hub

Box = Callable[..., str]  # box(*words) -> what it printed; raises where it fails


class Kind(NamedTuple):
    """Faults of which one is in force at a time: each replaces the one before, and `undo` takes it back."""

    group: str
    name: str
    faults: dict[str, str]  # what the button says -> the words of the box
    undo: str
    undo_name: str = "undo"


def of_side(group: str, side: str, wrong_address: str) -> list[Kind]:
    return [
        Kind(group, "provider", {"dead": f"provider {side} dead"}, f"provider {side} back", "back"),
        Kind(
            group,
            "name server",
            {
                "mute": f"names {side} mute",
                "lies": f"names {side} lie {wrong_address}",
                "dead first": f"names {side} first 198.51.100.66",
            },
            f"names {side} back",
            "back",
        ),
        Kind(group, "packets lost", {f"{n} %": f"loss {side} {n}" for n in (10, 40, 80)}, f"loss {side} off", "none"),
        Kind(
            group,
            "bandwidth",
            {"64 kbit/s": f"bandwidth {side} 64", "8 kbit/s": f"bandwidth {side} 8"},
            f"bandwidth {side} off",
            "full",
        ),
        Kind(group, "delay", {f"{ms} ms": f"delay {side} {ms}" for ms in (300, 1500)}, f"delay {side} off", "none"),
        Kind(group, "longest packet", {"600 bytes": f"mtu {side} 600"}, f"mtu {side} off", "any"),
        Kind(group, "captive portal", {"on": f"portal {side} on"}, f"portal {side} off", "off"),
        Kind(
            group, "IPv4", {"dead": f"ipv4 {side} dead", "refuses": f"ipv4 {side} refused"}, f"ipv4 {side} back", "back"
        ),
        Kind(
            group,
            "IPv6",
            {
                "dead": f"ipv6 {side} dead",
                "refuses": f"ipv6 {side} refused",
                "no router": f"ipv6 {side} no-router",
                "router silent": f"ipv6 {side} silent",
                "address taken": f"ipv6 {side} duplicate",
            },
            f"ipv6 {side} back",
            "back",
        ),
    ]


CATALOGUE = [
    *of_side("Ethernet", "eth", "10.11.0.1"),
    Kind("Ethernet", "cable", {"out": "cable out", "adapter gone": "cable gone"}, "cable in", "in"),
    Kind("Ethernet", "lease", {"ends": "lease eth end"}, "lease eth back", "back"),
    *of_side("Cellular", "cell", "10.12.0.1"),
    Kind("Cellular", "bearer", {"out": "cellular out"}, "cellular in", "in"),
    Kind("Cellular", "modem", {"falls off": "cellular gone"}, "cellular reset", "reset"),
    Kind("Cloud", "both services", {"down": "cloud down"}, "cloud up", "up"),
    Kind("Cloud", "MQTT broker", {"refuses": "cloud-mqtt refused"}, "cloud-mqtt ok", "ok"),
    *(
        Kind(
            "Cloud",
            f"TLS over {name}",
            {
                "refused": f"cloud-tls refused {side}",
                "silent": f"cloud-tls silent {side}",
                "wrong certificate": f"cloud-tls wrong-certificate {side}",
            },
            f"cloud-tls ok {side}",
            "ok",
        )
        for name, side in (("Ethernet", "eth"), ("Cellular", "cell"))
    ),
    Kind("Gateway", "broker", {"stopped": "broker stop"}, "broker start", "start"),
    Kind("Gateway", "broker, frozen", {"frozen": "broker freeze"}, "broker thaw", "thaw"),
    Kind("Gateway", "ConnMan", {"stopped": "connman stop"}, "connman start", "start"),
    Kind("Gateway", "ConnMan, frozen", {"frozen": "connman freeze"}, "connman thaw", "thaw"),
    Kind("Gateway", "message bus", {"frozen": "bus freeze"}, "bus thaw", "thaw"),
    Kind("Gateway", "gateway-app", {"suspended": "program gateway-app freeze"}, "program gateway-app thaw", "goes on"),
    Kind(
        "Gateway",
        "neighbour",
        {
            "crashes": "neighbour crashes",
            "forges on the bus": "neighbour forges",
            "floods the broker": "neighbour floods",
            "litters /var/tmp": "neighbour litters",
        },
        "neighbour gone",
        "gone",
    ),
    Kind("Gateway", "/var/tmp", {"full": "var-tmp full", "read-only": "var-tmp read-only"}, "var-tmp ok", "ok"),
    Kind(
        "Gateway",
        "authorities",
        {"all": "authorities full", "in one file": "authorities bundle"},
        "authorities one",
        "default",
    ),
    Kind(
        "Gateway", "wall clock", {"a day late": "clock -86400", "a year ahead": "clock +31536000"}, "clock 0", "right"
    ),
]
# What a button of the page may say, and what the box is told then.
ALLOWED = {words for kind in CATALOGUE for words in (*kind.faults.values(), kind.undo)}
UNDO_ALL = "undo all"


def kind_of(fault: str) -> Kind | None:
    """Of a fault in force, which may have been made by hand in words that no button has, such as `loss eth 33`."""
    exact = (kind for kind in CATALOGUE if fault in kind.faults.values())
    ended = (kind for kind in CATALOGUE if not fault_record.after([fault], *kind.undo.split()))
    return next(exact, None) or next(ended, None)


class FaultDesk:
    """Presses the buttons, one after the other, and keeps what is in force, whoever made it. Safe to be called from any
    thread. `in_force()`: what the box has noted."""

    def __init__(self, hub: Hub, box: Box, in_force: Callable[[], list[str]]) -> None:
        self.hub = hub
        self.box = box
        self.look_up = in_force
        self.pressing = threading.Lock()
        self.telling = threading.Lock()
        self.busy: str | None = None
        self.in_force = in_force()
        hub.put("catalogue", [kind._asdict() for kind in CATALOGUE])
        self.look()

    def look(self) -> None:
        """Tells the pages what is in force now, and marks what has changed."""
        with self.telling:
            before, self.in_force = self.in_force, self.look_up()
            for words in changes(before, self.in_force):
                self.hub.mark(words)
            kinds = ((fault, kind_of(fault)) for fault in self.in_force)
            undo = {fault: kind.undo if kind else None for fault, kind in kinds}
            self.hub.put("faults", {"in_force": self.in_force, "undo": undo, "busy": self.busy})

    def press(self, name: str) -> str:
        """Returns what is wrong, or nothing once it is done."""
        if name != UNDO_ALL and name not in ALLOWED:
            return f"there is no such fault: {name[:80]}"
        with self.pressing:
            steps = self._undoing() if name == UNDO_ALL else [name]
            trouble = [self._do(words) for words in steps]
        return "; ".join(words for words in trouble if words)

    def _undoing(self) -> list[str]:
        kinds = map(kind_of, reversed(self.look_up()))
        return list(dict.fromkeys(kind.undo for kind in kinds if kind))

    def _do(self, words: str) -> str:
        self.busy = words
        self.look()
        try:
            self.box(*words.split())
        except Exception as error:  # whatever it is, the page is to say it
            return str(error)
        finally:
            self.busy = None
            self.look()
        return ""


def changes(before: list[str], after: list[str]) -> list[str]:
    """The words that have led from one to the other."""
    ended = (kind_of(fault) for fault in before if fault not in after)
    undone = dict.fromkeys(kind.undo for kind in ended if kind)
    return [fault for fault in after if fault not in before] or list(undone)
