# SPDX-License-Identifier: Apache-2.0
"""The faults that chaos draws from: the box's words for each and for its remedy, and what it brings about."""
from __future__ import annotations

import dataclasses

Words = tuple[str, ...]

# What the log may say because of a fault. Everything else beside scene.EVERYDAY is a failure.
POKES = ("poke error",)
BROKER = (
    "lost the connection",
    "was refused: not connected",
    "cannot connect",
    "cannot reconnect",
    "Failed to publish message",
    "does not answer",
    "does not keep up",
)
ORDERS = ("cannot put", "cannot set name servers", "as top interface, restarting SM")
MANAGER = (*ORDERS, "not on the message bus", "has not answered", "message bus", "Invalid service")
# While the bus hangs, the gateway cannot know what the connection manager does by itself.
NO_NEWS = ("another program has replaced it", "the default route still leads over")
MOVES = ("Ethernet is on probation", "answers over neither interface")
FILES = ("does not hold what was written",)
NO_FAIL_OVER = ("no fail-over to Cellular",)
PATH = (*POKES, *MOVES, *NO_FAIL_OVER)


@dataclasses.dataclass(frozen=True)
class Fault:
    """Two faults that occupy the same thing never overlap."""

    words: Words
    remedy: Words
    occupies: frozenset[str]
    explains: tuple[str, ...] = ()


def _fault(words: str, remedy: str, occupies: str, explains: tuple[str, ...] = ()) -> Fault:
    return Fault(tuple(words.split()), tuple(remedy.split()), frozenset(occupies.split()), explains)


def _on(side: str, lie: str) -> list[Fault]:
    """Faults on the way to the cloud."""
    return [
        _fault(f"provider {side} dead", f"provider {side} back", f"provider-{side}", PATH),
        _fault(f"names {side} mute", f"names {side} back", f"names-{side}", PATH),
        _fault(f"names {side} lie {lie}", f"names {side} back", f"names-{side}", PATH),
        _fault(f"names {side} first 198.51.100.66", f"names {side} back", f"names-{side}", PATH),
        _fault(f"portal {side} on", f"portal {side} off", f"portal-{side}", PATH),
        _fault(f"loss {side} 20", f"loss {side} off", f"loss-{side}", PATH),
        _fault(f"loss {side} 40", f"loss {side} off", f"loss-{side}", PATH),
        _fault(f"delay {side} 300", f"delay {side} off", f"delay-{side}", PATH),
        _fault(f"delay {side} 1500", f"delay {side} off", f"delay-{side}", PATH),
        _fault(f"mtu {side} 600", f"mtu {side} off", f"mtu-{side}", PATH),
        _fault(f"bandwidth {side} 64", f"bandwidth {side} off", f"bandwidth-{side}", PATH),
        _fault(f"cloud-tls refused {side}", f"cloud-tls ok {side}", f"tls-{side}", PATH),
        _fault(f"cloud-tls silent {side}", f"cloud-tls ok {side}", f"tls-{side}", PATH),
        _fault(f"cloud-tls wrong-certificate {side}", f"cloud-tls ok {side}", f"tls-{side}", PATH),
    ]


# What plays the modem needs the bus, and ends and begins with the connection manager.
MANAGED = "connman cellular bus"
FAULTS = (
    *_on("eth", "192.0.2.7"),
    *_on("cell", "0.0.0.0 eth0"),
    _fault("cable out", "cable in", "ethernet", (*PATH, *ORDERS, "Invalid service")),
    _fault("cable gone", "cable in", "ethernet", (*PATH, *ORDERS, "Invalid service")),
    _fault("lease eth end", "lease eth back", "ethernet connman bus", (*PATH, *ORDERS, "Invalid service")),
    _fault("lease eth renumber", "lease eth renumber", "ethernet connman bus", (*PATH, *ORDERS)),
    _fault("cellular out", "cellular in", "cellular bus", (*PATH, *ORDERS, "Invalid service")),
    _fault("cellular gone", "cellular reset", "cellular bus", (*PATH, *ORDERS, "Invalid service")),
    _fault("cloud down", "cloud up", "cloud", PATH),
    _fault("cloud-mqtt refused", "cloud-mqtt ok", "cloud", PATH),
    _fault("broker stop", "broker start", "broker", BROKER),
    _fault("broker freeze", "broker thaw", "broker", BROKER),
    _fault("connman stop", "connman start", MANAGED, (*PATH, *MANAGER)),
    _fault("connman freeze", "connman thaw", MANAGED, (*PATH, *MANAGER)),
    _fault("connman restart", "connman start", MANAGED, (*PATH, *MANAGER)),
    _fault("connman crash", "connman start", MANAGED, (*PATH, *MANAGER)),
    _fault("bus freeze", "bus thaw", MANAGED, (*PATH, *MANAGER, *NO_NEWS)),
    _fault("var-tmp full", "var-tmp ok", "var-tmp", FILES),
    _fault("var-tmp read-only", "var-tmp ok", "var-tmp", FILES),
    _fault("program gateway-app freeze", "program gateway-app thaw", "application", (*PATH, *BROKER, *MANAGER)),
    _fault("program log-reader freeze", "program log-reader thaw", "log clock", ("records were lost",)),
    _fault("neighbour crashes", "neighbour gone", "neighbour broker"),
    _fault("neighbour forges", "neighbour gone", "neighbour bus", ("which is not the connection manager, is ignored",)),
    _fault("neighbour floods", "neighbour gone", "neighbour broker"),
    _fault("neighbour litters", "neighbour gone", "neighbour var-tmp"),
    _fault("clock -94608000", "clock +0", "clock", PATH),
    _fault("clock +31536000", "clock +0", "clock", PATH),
)
KNOWN = {fault.words: fault for fault in FAULTS}
