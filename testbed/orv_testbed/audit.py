# SPDX-License-Identifier: Apache-2.0
"""What must hold on the gateway, whatever has happened to it."""
from __future__ import annotations

import functools
import itertools
import re
from collections.abc import Iterator, Sequence
from typing import TYPE_CHECKING

from orv_testbed.application import Application
from orv_testbed.box import Box
from orv_testbed.fault_record import faults_in_force
from orv_testbed.layout import SIDES
from orv_testbed.passages import Passage
from orv_testbed.timestamps import at
from orv_testbed.topics import CLOUD, GREEN, INHIBIT_DNS, NO_NETWORK, YELLOW
from orv_testbed.wire import AVAILABLE, Witness

if TYPE_CHECKING:
    from orv_testbed.scene import Scene

# (place in the application's log, by how many seconds its clock is off from there on)
Clocks = Sequence[tuple[int, float]]

INTERFACES = {side.interface: side for side in SIDES.values()}
CLOCK_GRAIN = 0.001  # both logs have milliseconds


def true_times(log: str, clocks: Clocks) -> Iterator[tuple[float, str]]:
    """(true time, line) of each line of the log.

    Nobody knows exactly between which two lines a clock was changed: a line is from the time that is nearest to the one before.
    """
    offsets = [off for _, off in clocks]
    if not clocks or clocks[0][0] > 0:
        offsets.insert(0, 0.0)
    last: float | None = None
    for line in log.splitlines():
        if line[:2] != "20":
            continue
        told = at(line.split(" ", 1)[0])
        if last is None:
            last = told - offsets[0]
        else:
            last = min((told - off for off in offsets), key=functools.partial(_distance, last))
        yield last, line


def _distance(one: float, other: float) -> float:
    return abs(one - other)


POKED_PORT = 443  # no other program of a scene connects to it
POKES = {"eth": "Started Poke eth if", "cell": "Started Poke to cell if"}
ADDRESS_LOST = {"eth": "event ETHERNET_IP_LOST", "cell": "event CELLULAR_IP_LOST"}
LOSS_HEARD_LATE = 1.0  # seconds


def unproven_moves(
    application: Application,
    box: Box,
    passages: Sequence[Passage] = (),
    clocks: Clocks = (),
    grain: float = CLOCK_GRAIN,
) -> list[str]:
    """Switches of the route that the cloud cannot confirm: no TLS handshake over that path within the attempt. The two clocks
    agree within `grain` seconds.

    The gateway's last word completes the handshake. When its interface is lost at that moment the word does not arrive: then
    the connection's first packet over that path is enough.
    """
    attempts: dict[str, float | None] = {"eth": None, "cell": None}
    ends = {"poke success, route to Cell": "cell", "poke success, route to ETH": "eth"}
    begins = {text: side for side, text in POKES.items()}
    handshakes = {side: [at(time) for time in box.handshakes(side)] for side in attempts}
    poked = {
        side: [at(one.time) for one in passages if (one.side, one.port) == (side, POKED_PORT)] for side in attempts
    }
    lines = list(true_times(application.log(), clocks))
    losses = {side: [time for time, line in lines if ADDRESS_LOST[side] in line] for side in attempts}
    faults = []
    for now, line in lines:
        for text, side in begins.items():
            if text in line:
                # One over Ethernet that was stopped goes on with the connection that it had.
                attempts[side] = attempts[side] or now
        if "poke cell aborted" in line:
            attempts["cell"] = None
        if "poke error" in line:  # the next attempt begins with a connection of its own
            attempts = {side: begin and now for side, begin in attempts.items()}
        for text, side in ends.items():
            if text in line:
                begin, attempts[side] = attempts[side], None
                proofs = handshakes[side]
                if begin is not None and any(begin <= time <= now + LOSS_HEARD_LATE for time in losses[side]):
                    proofs = proofs + poked[side]
                if begin is None or not any(begin <= time + grain and time <= now + grain for time in proofs):
                    faults.append(f"no handshake over {side} since {begin}, only {handshakes[side]}, before: {line}")
    return faults


MOVED = re.compile(r" info .*the WAN route has moved from \w+ \((\w+)\) to \w+ \((\w+)\): ")
LASTING = 8.0  # seconds; a move that nobody has ordered is told of after three


def moves_not_told_once(application: Application) -> list[str]:
    """Moves of the route without a line of the log, or with more than one, whoever has made them."""
    log = application.log()
    told = [match.groups() for line in log.splitlines() if (match := MOVED.search(line))]
    faults = [f"{one} is followed by {other}" for one, other in itertools.pairwise(told) if one[1] != other[0]]
    routes = [
        (entry["monotonic"], entry["default_route" if entry["what"] == "start" else "interface"])
        for entry in application.transcript()
        if entry["what"] in ("start", "default_route")
    ]
    ends = [time for time, _ in routes[1:]] + application.monotonic("end")[-1:]

    def changes(least: float) -> int:
        paths = [path for (time, path), end in zip(routes, ends) if path in INTERFACES and end - time >= least]
        return sum(1 for _ in itertools.groupby(paths)) - 1 if paths else 0

    in_vain = log.count("the kernel's default route still leads elsewhere")
    if not changes(LASTING) <= len(told) <= changes(0) + in_vain:
        faults.append(
            f"the route has moved {changes(LASTING)} to {changes(0) + in_vain} times, and the log tells of {told}"
        )
    return faults


def pokes_on_a_wrong_way(
    application: Application, passages: Sequence[Passage], others_poke: bool, addresses_lent: bool = False
) -> list[str]:
    """Connections bound to an interface that have left over another one, in either family.

    Such a one has the address of the interface that it is bound to, or comes over a side that has never been poked. But the
    kernel also lends another interface's address to what is bound to one that has lost its own. The application has told of
    that, or it was in no state to (`addresses_lent`).
    """
    faults = []
    for passage in (one for one in passages if one.port == POKED_PORT):
        lent = addresses_lent or application.has_logged(ADDRESS_LOST[passage.side])
        if not lent and SIDES[passage.side].family_of(passage.source) != passage.family:
            faults.append(f"another interface's address: {passage}")
        if not others_poke and not application.has_logged(POKES[passage.side]):
            faults.append(f"nobody has poked over {passage.side}: {passage}")
    return faults


PROVED_PORT = 8883
PROOF = re.compile(r" info .*\bproof over (\w+): good")
PROOFS_BEGIN = "Ethernet is on probation"
PROOF_SEEN_LATE = 1.0  # seconds; a proof lasts longer, so that its own first packet is in time all the same


def proofs_on_a_wrong_way(application: Application, passages: Sequence[Passage], clocks: Clocks = ()) -> list[str]:
    """Proofs of a path to the cloud's broker without a connection that has left over it, with an address of that interface.

    They are bound, but have the port of the cloud connection, which is not. That one is elsewhere while there are proofs.
    """
    faults, before = [], float("-inf")
    for now, line in true_times(application.log(), clocks):
        match = PROOF.search(line)
        if match and (side := INTERFACES.get(match[1])):
            begun = [
                one
                for one in passages
                if (one.side, one.port) == (side.name, PROVED_PORT)
                and before <= at(one.time) <= now + PROOF_SEEN_LATE
                and side.family_of(one.source) == one.family
            ]
            if not begun:
                faults.append(f"no connection has left over {side.name} since {before}, before: {line}")
        if match or PROOFS_BEGIN in line:
            before = now
    return faults


DECISIONS = {
    "wwan0": {
        "poke success, route to Cell": True,
        "cell cloud reconnected by itself": True,
        # An order that was under way when the supervision gave up may still be confirmed.
        "Failed to set wwan0 as top interface": True,
        "poke success, route to ETH": False,
        "poke cell aborted": False,
    },
    "eth0": {"route is Cell, reconnecting": False, "poke success, route to ETH": True},
}
LOGGED_LATER = 0.5  # an order is on its way before the decision for it is logged


def orders_without_a_decision(application: Application) -> list[str]:
    """Orders that ConnMan has carried out although the supervision had not decided for that interface."""
    faults = []
    for interface, meanings in DECISIONS.items():
        made, orders = [(float("-inf"), interface == "eth0")], []
        for line in application.log().splitlines():
            made += [(at(line.split(" ", 1)[0]), meaning) for text, meaning in meanings.items() if text in line]
            if f"{interface} is put on top" in line:
                orders.append((at(line.split(" ", 1)[0]), line))
        for carried_out, line in orders:
            before = [meaning for time, meaning in made if time <= carried_out]
            after = [meaning for time, meaning in made if carried_out < time <= carried_out + LOGGED_LATER]
            if not before[-1] and True not in after:
                faults.append(f"nobody has decided for {interface}: {line}")
    return faults


def inhibits_not_told(application: Application, witness: Witness, wire_cut_at: int | None = None) -> list[str]:
    """Compares the DNS topic's values on the wire with the supervision's steps in the log.

    The two may differ from the moment when the broker is away (nothing is published then) or Cellular loses its
    address (this changes the topic without a line in the log). Only what comes before that moment is compared.
    """
    log = application.log()
    places = (wire_cut_at, log.find("event CELLULAR_IP_LOST"))
    limits = [place for place in places if place is not None and place >= 0]
    known = log[: min(limits)] if limits else log
    published = {
        "Started Poke to cell if": "inhibit",
        "cell cloud reconnected by itself": "inhibit",
        "poke cell aborted": "permit",
        "Failed to set wwan0 as top interface": "permit",
        "poke success, route to ETH": "permit",
    }
    expected = [value for line in known.splitlines() for text, value in published.items() if text in line]
    seen = witness.payloads(INHIBIT_DNS)
    if limits:
        seen = seen[: len(expected)]
    return [] if seen == expected else [f"on {INHIBIT_DNS}: {seen}, but by the log {expected}"]


def expected_statuses(application: Application) -> dict[str, str]:
    def is_on(on: str, off: str) -> bool:
        return application.reported(on, off) == on

    return {
        "Enterprise Feature": "Enabled" if is_on("PANEL_CLOUD_ENABLED", "PANEL_CLOUD_DISABLED") else "Disabled",
        "Cloud Connection": "Up" if is_on("CLOUD_CONNECTED", "CLOUD_DISCONNECTED") else "Down",
        "Ethernet": "Up" if is_on("ETHERNET_CONNECTED", "ETHERNET_DISCONNECTED") else "Down",
        "Cellular": "Up" if is_on("CELLULAR_CONNECTED", "CELLULAR_DISCONNECTED") else "Down",
    }


def told_once(services: list[tuple[str, str]]) -> list[tuple[str, list[str]]]:
    """ConnMan lists a name server twice that the router advertises and DHCPv6 tells, too."""
    return [(name, list(dict.fromkeys(servers.split(",")))) for name, servers in services]


def name_servers(box: Box, interface: str) -> list[str]:
    """What the provider offers."""
    side = INTERFACES[interface]
    offers = {"4": side.name_server, "6": side.name_server_6}
    return [offers[family] for family in box.families.at(side)]


def expected_unbound_ipv6(box: Box, interface: str) -> str | None:
    """See Box.unbound_ipv6; a provider's router may have said good-bye, or not have been heard for long."""
    without_router = [fault.split()[1] for fault in faults_in_force(box) if fault.endswith((" no-router", " silent"))]
    ways = [
        name for name, side in INTERFACES.items() if "6" in box.families.at(side) and side.name not in without_router
    ]
    return interface if interface in ways else "none" if ways else None


def unsettled(scene: Scene, interface: str, state: str, inhibit: str | None) -> list[str]:
    """What is not yet as it must be when the cloud is connected over `interface` and nothing is under way."""
    box, application = scene.box, scene.application
    up = [name for name in ("eth0", "wwan0") if name == interface or name in scene.connected]
    order = [interface] + [name for name in up if name != interface]
    faults = []

    def compare(what: str, found: object, wanted: object) -> bool:
        if found != wanted:
            faults.append(f"{what}: {found}, but it must be {wanted}")
        return found == wanted

    # The dear questions only when the cheap ones are answered right.
    if not (
        compare("the cloud is connected over", application.cloud_interface(), interface)
        and compare("route state", application.route_state(), state)
    ):
        return faults
    families = box.families.at(INTERFACES[interface])
    if "4" in families:  # otherwise ConnMan leaves some IPv4 default that leads nowhere, or none
        compare("default route", box.default_interfaces(), [interface])
    if "6" in box.families.eth + box.families.cell:
        compare("IPv6's default route", box.unbound_ipv6(), expected_unbound_ipv6(box, interface))
    compare(
        "ConnMan's order and name servers",
        told_once(box.services()),
        [(name, name_servers(box, name)) for name in order],
    )
    compare(
        "what the events say",
        expected_statuses(application),
        {
            "Enterprise Feature": "Enabled",
            "Cloud Connection": "Up",
            "Ethernet": "Up" if "eth0" in up else "Down",
            "Cellular": "Up" if "wwan0" in up else "Down",
        },
    )
    compare("status file", box.status_file(), expected_statuses(application))
    compare("error file", box.error_file(), None)
    if not faults:
        kept = {GREEN: "On", YELLOW: "Off", CLOUD: "true", NO_NETWORK: "false"}
        if inhibit:
            kept[INHIBIT_DNS] = inhibit
        found = {topic: payload for topic, payload in scene.witness.kept().items() if not scene.is_a_neighbours(topic)}
        if scene.wire_cut_at is not None and found.get(AVAILABLE) == "false":
            del found[AVAILABLE]  # the last will of the connection that was cut; the live "true" does not clear it
        compare("what the broker keeps", found, kept)
    return faults
