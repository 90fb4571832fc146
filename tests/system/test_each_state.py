# SPDX-License-Identifier: Apache-2.0
"""A fault in each state of the route: what comes of it, and that everything is right again in the end."""
from __future__ import annotations

import time

import pytest

from orv_testbed.route_states import STATES
from orv_testbed.scene import Scene
from orv_testbed.topics import CLOUD, GREEN
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
MODEM_RESET = (
    "cannot put wwan0 on top now",
    "cannot set name servers of wwan0 now",
    "poke error 7",
    "poke error 45",
    "poke error 6",
    "no fail-over to Cellular",
)
in_each_state = pytest.mark.parametrize("state", STATES)

# Ethernet's provider is dead in the states before its return has begun.
ENDS_ON = {
    state: "eth0" if state in ("ETHERNET_ACTIVE", "SWITCHING_TO_ETHERNET", "ETHERNET_SETTLE_DELAY") else "wwan0"
    for state in STATES
}
ENDS_ON_RESET = {**ENDS_ON, "ETHERNET_ACTIVE": "wwan0"}


TRUE_AGAIN_WITHIN = 3.0  # seconds from the session's return


def expected_to_be_kept(scene: Scene) -> dict[str, str]:
    """By what the application has reported, whatever became of it on the wire."""
    connected = scene.application.reported("CLOUD_CONNECTED", "CLOUD_DISCONNECTED") == "CLOUD_CONNECTED"
    return {CLOUD: "true" if connected else "false", GREEN: "On" if connected else "Off"}


@in_each_state
def test_a_restarted_broker_knows_what_happened_while_it_was_away(scene: Scene, state: str) -> None:
    """The cloud is lost, or comes back, during the outage; in each state there is news to tell afterwards."""
    scene.reach(state)
    scene.cut_wire()
    scene.expected_complaints += (
        *BROKER_AWAY,
        *CONNMAN_FROZEN,
        "Ethernet is on probation",
        "answers over neither interface",
    )
    scene.box("broker", "stop")
    scene.release()
    was_connected = scene.application.cloud_interface() is not None
    scene.box("cloud-mqtt", "refused" if was_connected else "ok")
    if not was_connected:
        scene.box("provider", "eth", "back")
    wait_until(
        lambda: (scene.application.cloud_interface() is None) == was_connected, 40 + SLACK, "news during the outage"
    )
    scene.box("broker", "start")
    place = scene.application.wait_for("connected again to", 10)
    begun = time.monotonic()
    told: list[object] = []

    def true_again() -> bool:
        kept = scene.witness.kept()
        told[:] = [expected_to_be_kept(scene), kept]
        return all(kept.get(topic) == payload for topic, payload in expected_to_be_kept(scene).items())

    wait_until(true_again, TRUE_AGAIN_WITHIN + SLACK, lambda: f"the truth on the restarted broker: {told}")
    print(f"true again {time.monotonic() - begun:.2f} s after {scene.application.log()[:place].splitlines()[-1]}")
    scene.box("cloud-mqtt", "ok")
    scene.box("provider", "eth", "back")
    scene.settles("eth0", 120)


@in_each_state
def test_a_modem_that_is_reset_comes_back_in_each_state(scene: Scene, state: str) -> None:
    scene.expected_complaints = MODEM_RESET
    scene.reach(state)
    # Nobody on a frozen bus or in a frozen connection manager hears of the modem.
    scene.release()
    scene.box("cellular", "reset")
    if state == "ETHERNET_ACTIVE":
        scene.box("provider", "eth", "dead")
    scene.settles(ENDS_ON_RESET[state], 60)
    addresses = {line.split()[0]: line.split()[3] for line in scene.box("services").splitlines()}
    assert addresses["wwan0"] == "10.12.0.51"


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
