# SPDX-License-Identifier: Apache-2.0
"""A fault in each state of the route: what comes of it, and that everything is right again in the end."""
from __future__ import annotations

import pytest

from orv_testbed.route_states import STATES
from orv_testbed.scene import Scene
from orv_testbed.topics import GREEN
from orv_testbed.waiting import SLACK, wait_until

BROKER_AWAY = (
    "lost the connection",
    "was refused: not connected",
    "Failed to publish message to MQTT",
    "cannot connect",
)
CONNMAN_FROZEN = ("has not answered for 3000 ms", "as top interface, restarting SM")
NOT_CONNECTED = ("there is no service on this interface", "its service is not connected", "Invalid service")
# Without addresses a poke finds neither the name (6) nor a way (7).
CONNMAN_AWAY = (
    NOT_CONNECTED + CONNMAN_FROZEN + ("net.connman is not on the message bus", "poke error 6", "poke error 7")
)
in_each_state = pytest.mark.parametrize("state", STATES)

# Ethernet's provider is dead in the states before its return has begun.
ENDS_ON = {
    state: "eth0" if state in ("ETHERNET_ACTIVE", "SWITCHING_TO_ETHERNET", "ETHERNET_SETTLE_DELAY") else "wwan0"
    for state in STATES
}


@in_each_state
def test_a_restarted_broker_knows_everything_again(scene: Scene, state: str) -> None:
    scene.reach(state)
    scene.cut_wire()
    scene.expected_complaints += BROKER_AWAY + CONNMAN_FROZEN
    connections = scene.witness.connections()
    scene.box("broker", "stop")
    scene.release()
    scene.box("broker", "start")
    wait_until(
        lambda: scene.witness.connections() > connections and scene.witness.payloads(GREEN, latest_connection=True),
        5 + SLACK,
        "the LED on the restarted broker",
    )
    scene.settles(ENDS_ON[state], 30)


@in_each_state
def test_a_restarted_connection_manager_is_told_again(scene: Scene, state: str) -> None:
    scene.expected_complaints = CONNMAN_AWAY
    scene.reach(state)
    scene.box("connman", "stop")
    wait_until(lambda: scene.box.default_interfaces() == [], 5 + SLACK, "no default route without a connection manager")
    scene.undo = [words for words in scene.undo if words[0] != "connman"]
    scene.release()
    scene.box("connman", "start")
    scene.settles(ENDS_ON[state], 60)


@in_each_state
def test_a_frozen_connection_manager_delays_a_move_and_no_more(scene: Scene, state: str) -> None:
    scene.expected_complaints = CONNMAN_FROZEN
    scene.reach(state)
    scene.box("connman", "freeze")
    before = scene.box.default_interfaces()
    scene.undo = [words for words in scene.undo if words[0] != "connman"]
    scene.release()
    if state == "ETHERNET_ACTIVE":
        scene.box("provider", "eth", "dead")
    if state == "CELLULAR_ACTIVE":
        scene.box("provider", "eth", "back")
    asked_for = "wwan0" if STATES.index(state) < STATES.index("CELLULAR_ACTIVE") else "eth0"
    if state == "ETHERNET_SETTLE_DELAY":
        scene.application.wait_for("cell to eth delay done", 5)
    else:
        scene.application.wait_for(f"Failed to set {asked_for} as top interface, restarting SM", 25)
    assert scene.box.default_interfaces() == before
    scene.box("connman", "thaw")
    scene.settles(asked_for, 60)


@in_each_state
def test_a_pulled_cable_leaves_the_cloud_on_cellular(scene: Scene, state: str) -> None:
    scene.expected_complaints = NOT_CONNECTED + CONNMAN_FROZEN
    scene.reach(state)
    place = scene.application.mark()
    scene.box("cable", "out")
    scene.connected = {"wwan0"}
    scene.release()
    scene.application.wait_for_cloud("wwan0", 15)
    scene.witness.wait_for(GREEN, "On")
    scene.settles_on_the_only_interface(
        15, since=place, on_cellular=state in ("ETHERNET_LOST_DELAY", "SWITCHING_TO_CELLULAR", "CELLULAR_ACTIVE")
    )

    scene.box("provider", "eth", "back")
    scene.box("cable", "in")
    scene.connected = {"eth0", "wwan0"}
    scene.settles("eth0", 60)
