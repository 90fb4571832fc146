# SPDX-License-Identifier: Apache-2.0
"""The faults of a box as buttons: what each does, and what takes it back. The words are those of testbed/box."""
from __future__ import annotations

import threading
from collections.abc import Callable
from typing import Any, NamedTuple

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
                "dead address first": f"names {side} first 198.51.100.66",
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
        Kind(group, "captive portal", {"on": f"portal {side} on"}, f"portal {side} off", "off"),
    ]


CATALOGUE = [
    *of_side("Ethernet", "eth", "10.11.0.1"),
    Kind("Ethernet", "cable", {"out": "cable out", "adapter gone": "cable gone"}, "cable in", "in"),
    Kind("Ethernet", "lease", {"ends": "lease eth end"}, "lease eth back", "back"),
    *of_side("Cellular", "cell", "10.12.0.1"),
    Kind("Cellular", "bearer", {"out": "cellular out"}, "cellular in", "in"),
    Kind("Cellular", "modem", {"falls off": "cellular gone"}, "cellular reset", "back, new address"),
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
    Kind("Gateway", "/var/tmp", {"full": "var-tmp full", "read-only": "var-tmp read-only"}, "var-tmp ok", "ok"),
    Kind(
        "Gateway",
        "authorities",
        {"all": "authorities full", "in one file": "authorities bundle"},
        "authorities one",
        "the cloud's alone",
    ),
    Kind(
        "Gateway", "wall clock", {"a day late": "clock -86400", "a year ahead": "clock +31536000"}, "clock 0", "right"
    ),
]
# What a button of the page may say, and what the box is told then.
ALLOWED = {words for kind in CATALOGUE for words in (*kind.faults.values(), kind.undo)}
UNDO_ALL = "undo all"


def kind_of(words: str) -> Kind | None:
    return next((kind for kind in CATALOGUE if words == kind.undo or words in kind.faults.values()), None)


class FaultDesk:
    """Presses the buttons, one after the other, and keeps what is in force. Safe to be called from any thread."""

    def __init__(self, hub: Hub, box: Box) -> None:
        self.hub = hub
        self.box = box
        self.lock = threading.Lock()
        self.in_force: dict[str, str] = {}  # what takes it back -> the fault
        hub.put("catalogue", [kind._asdict() for kind in CATALOGUE])
        self._tell(None)

    def _tell(self, busy: str | None) -> None:
        state: dict[str, Any] = {"in_force": sorted(self.in_force.values()), "busy": busy}
        self.hub.put("faults", state)

    def press(self, name: str) -> str:
        """Returns what is wrong, or nothing once it is done."""
        if name != UNDO_ALL and name not in ALLOWED:
            return f"there is no such fault: {name[:80]}"
        with self.lock:
            steps = list(self.in_force)[::-1] if name == UNDO_ALL else [name]
            trouble = [self._do(words) for words in steps]
            self._tell(None)
        return "; ".join(words for words in trouble if words)

    def _do(self, words: str) -> str:
        kind = kind_of(words)
        assert kind
        self._tell(words)
        try:
            self.box(*words.split())
        except Exception as error:  # whatever it is, the page is to say it
            return str(error)
        if words == kind.undo:
            self.in_force.pop(kind.undo, None)
        else:
            self.in_force[kind.undo] = words
        self.hub.mark(words)
        return ""
