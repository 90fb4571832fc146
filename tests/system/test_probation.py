# SPDX-License-Identifier: Apache-2.0
"""An Ethernet that is only half dead: the route does not follow it to and fro."""
from __future__ import annotations

import pytest

from orv_testbed.scene import Scene
from orv_testbed.topics import GREEN, NO_NETWORK, YELLOW
from orv_testbed.waiting import SLACK, wait_until

MOVED = "the WAN route has moved from"
ON_PROBATION = "Ethernet is on probation"
EXPECTED = (ON_PROBATION, "answers over neither interface")


@pytest.fixture
def scene_on_probation(scene: Scene) -> Scene:
    """The cloud's broker is down, so the cloud is lost on Ethernet twice although the poke over it is good."""
    scene.expected_complaints = EXPECTED
    scene.box("cloud-mqtt", "refused")
    scene.application.wait_for(ON_PROBATION, 45)
    wait_until(lambda: scene.box.default_interfaces() == ["wwan0"], SLACK, "the default route over Cellular")
    # Said a moment after the probation.
    wait_until(lambda: moves(scene) >= 3, SLACK, "the third move")
    return scene


def moves(scene: Scene) -> int:
    return len(scene.application.times_of(MOVED))


def test_a_broker_that_is_down_moves_the_route_three_times_and_is_named(scene_on_probation: Scene) -> None:
    scene = scene_on_probation
    assert moves(scene) == 3
    scene.application.wait_for("the cloud's broker cloud.box.test:8883 answers over neither interface", 15)
    # There is a path, only nothing behind it; Ethernet's link is up whatever its address is reported to be.
    scene.witness.wait_for(YELLOW, "Blink")
    scene.witness.wait_for(NO_NETWORK, "false")
    wait_until(lambda: scene.box.status_file().get("Ethernet") == "Up", SLACK, "Ethernet up in the status file")
    # Back, it is used where the route is.
    scene.box("cloud-mqtt", "ok")
    scene.application.wait_for_cloud("wwan0", 15)
    scene.witness.wait_for(GREEN, "On")
    assert moves(scene) == 3


@pytest.mark.long
def test_an_ethernet_that_proves_itself_for_a_minute_gets_the_route_back(scene_on_probation: Scene) -> None:
    scene = scene_on_probation
    scene.box("cloud-mqtt", "ok")
    scene.application.wait_for("Ethernet's probation is over: it has proved itself", 100)
    assert len(scene.application.times_of("proof over eth0: good")) == 5
    scene.settles("eth0", 15)
    assert moves(scene) == 4


def test_a_lost_cellular_ends_the_probation_at_once(scene_on_probation: Scene) -> None:
    scene = scene_on_probation
    scene.box("cloud-mqtt", "ok")
    scene.application.wait_for_cloud("wwan0", 15)
    scene.box("cellular", "out")
    scene.expected_complaints += ("cannot put", "cannot set name servers", "poke error 7")
    scene.application.wait_for("Ethernet's probation is over: Cellular is lost", 2)
    scene.connected = {"eth0"}
    scene.application.wait_for_cloud("eth0", 15)
    # Ethernet was seen before Cellular was gone: the gateway was never cut off.
    assert "true" not in scene.witness.payloads(NO_NETWORK)[3:]
    scene.box("cellular", "in")
    scene.connected = {"eth0", "wwan0"}
    scene.settles("eth0", 30)


def test_a_cellular_that_does_not_reach_the_cloud_ends_the_probation(scene_on_probation: Scene) -> None:
    scene = scene_on_probation
    scene.box("cloud-mqtt", "ok")
    scene.application.wait_for_cloud("wwan0", 15)
    scene.box("provider", "cell", "dead")
    scene.application.wait_for("Ethernet's probation is over: it reaches the cloud and Cellular does not", 25)
    scene.settles("eth0", 15)
