# SPDX-License-Identifier: Apache-2.0
"""Providers with both IP families: the cloud follows the route, and a family that breaks alone moves nothing."""
from __future__ import annotations

import pytest

from orv_testbed.scene import Scene

BOTH_ON_ETHERNET = pytest.mark.parametrize("box", ["eth=46,cell=4"], indirect=True)
MQTTS = 8883


def family_in_use(scene: Scene) -> str:
    """Of the latest connection to the cloud, as it left the gateway."""
    return [one for one in scene.passages() if one.port == MQTTS][-1].family


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
        lost = scene.application.wait_for("the cloud connection has ended", 8, before)
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


@pytest.mark.parametrize("box", ["eth=4,cell=46", "eth=46,cell=4", "eth=46,cell=46"], indirect=True)
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
    assert [one for one in scene.passages() if one.port == MQTTS][-1].side == "eth"
