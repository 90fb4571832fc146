# SPDX-License-Identifier: Apache-2.0
"""The broker, the connection manager, the bus, the name servers, the cable and the cloud itself fail."""
from __future__ import annotations

import time

import pytest

from orv_testbed.scene import Scene
from orv_testbed.topics import GREEN, INHIBIT_DNS
from orv_testbed.waiting import SLACK, wait_until

CONNMAN_CRASHED = ("net.connman is not on the message bus", "cannot put eth0 on top now", "cannot set name servers of")


@pytest.mark.long
def test_an_ethernet_that_flaps_for_two_minutes_settles(scene: Scene) -> None:
    scene.expected_complaints = ("cannot put eth0 on top now", "poke error 7", "cannot put wwan0 on top now")
    for _ in range(20):
        scene.box("cable", "out")
        time.sleep(3)  # the fault's own rhythm
        scene.box("cable", "in")
        time.sleep(3)
    scene.witness.wait_for(GREEN, "On", 40)
    scene.settles("eth0", 40, inhibit=lambda: scene.witness.last(INHIBIT_DNS))


@pytest.mark.parametrize("seconds", [0, 4])
def test_a_broker_away_during_the_delay_does_not_stop_the_fail_over(scene: Scene, seconds: float) -> None:
    scene.expected_complaints = (
        "lost the connection",
        "was refused: not connected",
        "Failed to publish message to MQTT",
        "cannot connect",
    )
    scene.reach("ETHERNET_LOST_DELAY")
    scene.cut_wire()
    scene.box("broker", "stop")
    time.sleep(seconds)  # part of the fault: how long the broker is away
    scene.box("broker", "start")
    scene.application.wait_for("route is Cell, reconnecting", 15)
    scene.settles("wwan0", 5)


def test_a_frozen_broker_does_not_stop_the_fail_over(scene: Scene) -> None:
    scene.cut_wire()
    scene.expected_complaints = (
        "lost the connection",
        "was refused: not connected",
        "Failed to publish message to MQTT",
        "does not answer",
    )
    scene.box("broker", "freeze")
    scene.box("provider", "eth", "dead")
    scene.application.wait_for("route is Cell, reconnecting", 20)
    scene.application.wait_for_cloud("wwan0", 5)
    scene.box("broker", "thaw")
    # What was refused meanwhile is not sent later; what comes next is right again.
    scene.application.wait_for_session(15)
    scene.box("provider", "eth", "back")
    scene.application.wait_for("route is eth, reconnecting", 20)
    scene.witness.wait_for(INHIBIT_DNS, "permit", 10)
    scene.settles("eth0", 10)


def test_a_crashed_connection_manager_leaves_the_way_over_cellular_open(scene: Scene) -> None:
    scene.expected_complaints = CONNMAN_CRASHED
    scene.box("connman", "crash")
    scene.settles("eth0", 30)
    scene.box("provider", "eth", "dead")
    scene.settles("wwan0", 30)


def test_a_connection_manager_that_is_restarted_in_good_order_switches_the_modem_on_again(scene: Scene) -> None:
    scene.expected_complaints = (*CONNMAN_CRASHED, "poke error 6", "poke error 7")
    scene.box("connman", "restart")
    scene.settles("eth0", 40)
    wait_until(lambda: scene.box.order() == ["eth0", "wwan0"], 20 + SLACK, "both services")
    scene.box("provider", "eth", "dead")
    scene.settles("wwan0", 30)


def test_a_connection_manager_that_crashes_without_ethernet_leaves_no_default_route_behind(scene: Scene) -> None:
    scene.expected_complaints = (*CONNMAN_CRASHED, "poke error 6", "poke error 7")
    scene.box("cable", "out")
    scene.application.wait_for_cloud("wwan0", 40)
    scene.box("connman", "crash")
    wait_until(lambda: scene.box.order() == ["wwan0"], 20 + SLACK, "Cellular, with the new connection manager")
    scene.box("cable", "in")
    scene.settles("eth0", 40, inhibit=lambda: scene.witness.last(INHIBIT_DNS))


def test_a_frozen_bus_holds_nothing_up(scene: Scene) -> None:
    scene.expected_complaints = ("has not answered for 3000 ms", "Failed to set wwan0 as top interface")
    scene.box("bus", "freeze")
    scene.box("provider", "eth", "dead")
    scene.application.wait_for("Started Poke to cell if wwan0", 15)
    scene.application.wait_for("Failed to set wwan0 as top interface, restarting SM", 10)
    assert scene.box.default_interfaces() == ["eth0"]
    scene.box("bus", "thaw")
    scene.settles("wwan0", 40)


@pytest.mark.short
def test_mute_name_servers_hold_nothing_up(scene: Scene) -> None:
    scene.expected_complaints = ("poke error 28", "poke error 6")
    scene.box("names", "eth", "mute")
    scene.box("names", "cell", "mute")
    scene.box("provider", "eth", "dead")
    scene.application.wait_for("Started Poke to cell if wwan0", 15)
    scene.application.wait_for("poke cell aborted", 21)
    assert scene.box.default_interfaces() == ["eth0"]
    scene.witness.wait_for(INHIBIT_DNS, "permit")
    scene.box("names", "cell", "back")
    scene.settles("wwan0", 35)


def test_a_closed_cloud_moves_nothing(scene: Scene) -> None:
    scene.expected_complaints = ("poke error 7",)
    scene.box("cloud", "down")
    scene.application.wait_for("Started Poke to cell if wwan0", 15)
    scene.application.wait_for("poke error 7", 5)
    scene.application.wait_for("poke cell aborted", 21)
    assert not scene.application.has_logged("is put on top")
    assert scene.box.default_interfaces() == ["eth0"]
    scene.box("cloud", "up")
    scene.settles("eth0", 15)


def test_a_lease_that_ends_costs_no_more_than_a_dead_provider(scene: Scene) -> None:
    """The connection manager goes on with the interface that has lost its address: there is no default route at all."""
    scene.expected_complaints = ("poke error 6", "poke error 7")
    scene.box("lease", "eth", "end")
    assert scene.box.default_interfaces() == []
    scene.connected = {"eth0", "wwan0"}
    scene.application.wait_for("Started Poke to cell if wwan0", 15)
    place = scene.application.mark()
    scene.application.wait_for("poke success, route to Cell", 20)
    assert not scene.application.has_logged("poke error 28", place)
    scene.application.wait_for_cloud("wwan0", 5)
    scene.box("lease", "eth", "back")
    scene.settles("eth0", 30)
