# SPDX-License-Identifier: Apache-2.0
"""Providers with both IP families: the cloud follows the route, and a family that breaks alone moves nothing."""
from __future__ import annotations

import pytest

from orv_testbed.passages import Passage
from orv_testbed.scene import Scene
from orv_testbed.waiting import SLACK, wait_until

BOTH_ON_ETHERNET = pytest.mark.parametrize("box", ["eth=46,cell=4"], indirect=True)
HTTPS, MQTTS = 443, 8883
ROUTER_GONE = 45  # seconds, of one that falls silent: its lifetime, and until the kernel looks


def latest_cloud_connection(scene: Scene) -> Passage:
    """As it left the gateway. Of two that were begun at once, one of each family, the application tells which it has kept."""
    source = scene.application.transcript("cloud_connected")[-1]["source"]

    def passages() -> list[Passage]:
        return [one for one in scene.passages() if (one.port, one.source) == (MQTTS, source)]

    wait_until(passages, SLACK, f"a passage from {source}")
    return passages()[-1]


def family_in_use(scene: Scene) -> str:
    return latest_cloud_connection(scene).family


def connect_anew(scene: Scene) -> None:
    """Without a fault of the path: the cloud's broker ends the connection and takes the next one."""
    before = scene.application.mark()
    scene.box("cloud-mqtt", "refused")
    lost = scene.application.wait_for("the cloud connection has ended", 5, before)
    scene.box("cloud-mqtt", "ok")
    scene.application.wait_for("connected to the cloud, from", 8, lost)


@BOTH_ON_ETHERNET
@pytest.mark.parametrize(
    "fault, broken, good",
    [
        ("ipv4 eth dead", "4", "6"),
        ("ipv6 eth dead", "6", "4"),
        ("ipv6 eth no-router", "6", "4"),
        ("ipv6 eth silent", "6", "4"),
        ("ipv6 eth duplicate", "6", "4"),
        ("ipv6 eth renumber", "6", "46"),
    ],
)
def test_a_family_that_breaks_on_ethernet_costs_no_switch(scene: Scene, fault: str, broken: str, good: str) -> None:
    scene.settles("eth0", 5)
    before = scene.application.mark()
    was = family_in_use(scene)
    scene.box(*fault.split())
    if was == broken:
        lost = scene.application.wait_for("the cloud connection has ended", ROUTER_GONE, before)
        scene.application.wait_for("connected to the cloud, from", 8, lost)
    else:
        connect_anew(scene)
    assert family_in_use(scene) in good
    scene.settles("eth0", 5)
    assert not scene.application.has_logged("is put on top", before)
    assert not scene.box.handshakes("cell")
    assert {one.side for one in scene.passages()} == {"eth"}
    events = [entry["event"] for entry in scene.application.transcript("event")]
    assert events.count("ETHERNET_IP_GAINED") == 1 and "ETHERNET_IP_LOST" not in events


@BOTH_ON_ETHERNET
def test_over_a_slow_ethernet_both_families_are_begun_and_one_is_kept(scene: Scene) -> None:
    scene.settles("eth0", 5)
    scene.box("delay", "eth", "200")
    before = len(scene.passages())
    connect_anew(scene)
    assert {one.family for one in scene.passages()[before:] if one.port == MQTTS} == {"4", "6"}
    assert family_in_use(scene) == scene.application.transcript("cloud_connected")[-1]["family"].removeprefix("IPv")


# Between IPv4 alone and IPv6 alone ConnMan moves services only as the box has set it. An IPv4 cloud is behind NAT64.
@pytest.mark.parametrize(
    "box",
    [
        "eth=4,cell=6,cloud=4",
        "eth=6,cell=4",
        "eth=6,cell=6,cloud=4",
        "eth=46,cell=46",
        "eth=4,cell=46",
        "eth=46,cell=4",
        *(pytest.param(one, marks=pytest.mark.matrix) for one in ("eth=46,cell=6,cloud=4", "eth=6,cell=46")),
    ],
    indirect=True,
)
def test_the_cloud_is_reached_over_the_interface_that_has_the_route(scene: Scene) -> None:
    scene.settles("eth0", 5)
    assert {one.side for one in scene.passages()} == {"eth"}
    before = scene.application.mark()
    scene.box("provider", "eth", "dead")
    moved = scene.application.wait_for("poke success, route to Cell", 20, before)
    scene.settles("wwan0", 10)
    scene.box("provider", "eth", "back")
    scene.application.wait_for("cell to eth delay done", 30, moved)
    scene.settles("eth0", 10)
    assert latest_cloud_connection(scene).side == "eth"


def begun_over_cellular(scene: Scene, port: int) -> str:
    """The families of the connections, in their order."""
    return "".join(one.family for one in scene.passages() if (one.side, one.port) == ("cell", port))


# ConnMan lists three name servers at most. Of four, Cellular's of IPv6 may be the one that is left out: then nobody finds
# the cloud's name without IPv4.
@pytest.mark.parametrize(
    "box, fault, begun",
    [
        ("eth=46,cell=46", "ipv6 cell dead", "64"),
        ("eth=46,cell=46", "ipv6 cell refused", "64"),
        ("eth=4,cell=46", "ipv4 cell dead", "6"),
    ],
    indirect=["box"],
)
def test_a_family_that_is_broken_on_cellular_does_not_hold_up_the_other(scene: Scene, fault: str, begun: str) -> None:
    """The second family is tried while the first is silent: nothing ends, neither a poke nor an attempt of the cloud's."""
    scene.box(*fault.split())
    before = scene.application.mark()
    scene.box("provider", "eth", "dead")
    moved = scene.application.wait_for("poke success, route to Cell", 20, before)
    scene.settles("wwan0", 5)
    assert not scene.application.has_logged("poke error", before)
    assert not scene.application.has_logged("no connection to the cloud", moved)
    assert begun_over_cellular(scene, HTTPS).startswith(begun)
    assert begun_over_cellular(scene, MQTTS).startswith(begun)
    assert family_in_use(scene) == begun[-1]


def source_of_the_cloud_connection(scene: Scene) -> str:
    """The first 64 bits of the gateway's address on the latest connection to the cloud."""
    return ":".join(latest_cloud_connection(scene).source.split(":")[:4])


@pytest.mark.parametrize("box", ["eth=6,cell=6"], indirect=True)
def test_prefixes_that_are_renumbered_during_a_fail_over_are_used_at_once(scene: Scene) -> None:
    scene.reach_ethernet_lost_delay()
    before = scene.application.mark()
    scene.box("ipv6", "cell", "renumber")
    moved = scene.application.wait_for("poke success, route to Cell", 20, before)
    scene.settles("wwan0", 10)
    assert source_of_the_cloud_connection(scene) == "2001:db8:12:2"
    # Until the new prefix is there the kernel prefers Cellular's address to the deprecated one.
    scene.addresses_lent = True
    scene.box("ipv6", "eth", "renumber")
    scene.box("provider", "eth", "back")
    scene.application.wait_for("cell to eth delay done", 30, moved)
    scene.settles("eth0", 10)
    assert source_of_the_cloud_connection(scene) == "2001:db8:11:2"
    events = [entry["event"] for entry in scene.application.transcript("event")]
    assert not {"ETHERNET_IP_LOST", "CELLULAR_IP_LOST"} & set(events)


@BOTH_ON_ETHERNET
def test_a_router_that_falls_silent_is_the_end_of_an_ethernet_whose_ipv4_is_dead(scene: Scene) -> None:
    scene.box("ipv4", "eth", "dead")
    scene.settles("eth0", 10)
    assert family_in_use(scene) == "6"
    before = scene.application.mark()
    scene.box("ipv6", "eth", "silent")
    lost = scene.application.wait_for("eth cloud lost, start delay to cell", ROUTER_GONE, before)
    moved = scene.application.wait_for("poke success, route to Cell", 20, lost)
    scene.settles("wwan0", 10)
    scene.box("ipv6", "eth", "back")
    scene.application.wait_for("cell to eth delay done", 40, moved)
    scene.settles("eth0", 10)
    assert family_in_use(scene) == "6"


@pytest.mark.parametrize("box", ["eth=6,cell=4"], indirect=True)
@pytest.mark.parametrize("end", ["no-router", "silent"])
def test_ethernet_with_ipv6_alone_has_no_address_while_no_router_is_there(scene: Scene, end: str) -> None:
    before = scene.application.mark()
    scene.box("ipv6", "eth", end)
    lost = scene.application.wait_for("event ETHERNET_IP_LOST", ROUTER_GONE, before)
    scene.application.wait_for("route is Cell, reconnecting", 30, lost)
    scene.box("ipv6", "eth", "back")
    scene.application.wait_for("cell to eth delay done", 40, lost)
    scene.settles("eth0", 10)
