# SPDX-License-Identifier: Apache-2.0
"""The broker, the connection manager, the bus and the name servers fail, in different states of the route."""
import time

import pytest
from gateway import wait_until

INHIBIT = "/orv/network/wan/inhibit_dns"
GREEN = "/orv/led/connected_services_green"


def restart_broker(box):
    box("broker", "stop")
    box("broker", "start")


def restart_connman(box):
    box("connman", "stop")
    box("connman", "start")


def test_a_restarted_broker_knows_everything_again(box, application_on_cellular, witness):
    witness.wait_for(INHIBIT, "inhibit")
    seen = len(witness.messages())
    restart_broker(box)
    wait_until(lambda: {INHIBIT, GREEN} <= {topic for topic, _, _ in witness.messages()[seen:]}, 20,
               "retained state on the restarted broker")
    assert witness.last(INHIBIT) == "inhibit"
    assert witness.last(GREEN) == "On"
    assert box.default_interfaces() == ["wwan0"]
    assert application_on_cellular.cloud_interface() == "wwan0"


@pytest.mark.parametrize("seconds", [0, 4])
def test_a_broker_restart_during_the_delay_does_not_stop_the_fail_over(box, application, witness, seconds):
    box("provider", "eth", "dead")
    application.wait_for("eth cloud lost, start delay to cell", 4)
    box("broker", "stop")
    time.sleep(seconds)  # part of the fault: how long the broker is away
    box("broker", "start")
    application.wait_for("route is Cell, reconnecting", 15)
    witness.wait_for(INHIBIT, "inhibit", 5)
    application.wait_for_cloud("wwan0", 5)


def test_a_frozen_broker_does_not_stop_the_fail_over(box, application, witness):
    box("broker", "freeze")
    box("provider", "eth", "dead")
    application.wait_for("route is Cell, reconnecting", 20)
    application.wait_for_cloud("wwan0", 5)
    box("broker", "thaw")
    # What was refused meanwhile is not sent later; what comes next is right again.
    application.wait_for("ORV_Stack: connected again", 15)
    box("provider", "eth", "back")
    application.wait_for("route is eth, reconnecting", 20)
    witness.wait_for(INHIBIT, "permit", 10)
    application.wait_for_cloud("eth0", 5)
    witness.wait_for(GREEN, "On", 5)


def test_a_connection_manager_that_does_not_obey_restarts_the_attempt(box, application, witness):
    box("provider", "eth", "dead")
    application.wait_for("Started Poke to cell if wwan0", 15)
    box("connman", "freeze")
    application.wait_for("poke success, route to Cell", 5)
    place = application.wait_for("Failed to set wwan0 as top interface, restarting SM", 4)
    witness.wait_for(INHIBIT, "permit")
    assert box.default_interfaces() == ["eth0"]
    box("connman", "thaw")
    application.wait_for("the connection manager answers again", 2)
    # The order for Cellular was under way, the later one for Ethernet counts in the end; then it starts over.
    application.wait_for("eth0 is put on top", 2)
    application.wait_for("route is Cell, reconnecting", 20, since=place)
    application.wait_for_cloud("wwan0", 5)


def test_a_connection_manager_restarted_on_ethernet_changes_nothing_for_long(box, application, witness):
    restart_connman(box)
    box("wait-route", "eth0", "10")
    application.wait_for("connection manager found", 5, since=application.wait_for("is not on the message bus", 5))
    application.wait_for_cloud("eth0", 10)
    wait_until(lambda: box.order() == ["eth0", "wwan0"], 10, "both services")
    witness.wait_for(GREEN, "On")


def test_a_connection_manager_restarted_on_cellular_is_told_again(box, application_on_cellular, witness):
    restart_connman(box)
    # It comes back with Ethernet on top; the route's choice is asserted with the next connectivity event.
    application_on_cellular.wait_for("wwan0 is put on top", 20, since=application_on_cellular.wait_for(
        "is not on the message bus", 5))
    box("wait-route", "wwan0", "15")
    application_on_cellular.wait_for_cloud("wwan0", 15)
    witness.wait_for(GREEN, "On", 5)


def test_a_frozen_bus_holds_nothing_up(box, application, witness):
    box("bus", "freeze")
    box("provider", "eth", "dead")
    application.wait_for("Started Poke to cell if wwan0", 15)
    application.wait_for("Failed to set wwan0 as top interface, restarting SM", 10)
    box("bus", "thaw")
    witness.wait_for(INHIBIT, "inhibit", 20)
    application.wait_for("route is Cell, reconnecting", 20)
    application.wait_for_cloud("wwan0", 5)


def test_mute_name_servers_hold_nothing_up(box, application, witness):
    box("names", "eth", "mute")
    box("names", "cell", "mute")
    box("provider", "eth", "dead")
    application.wait_for("Started Poke to cell if wwan0", 15)
    place = application.wait_for("poke cell aborted", 21)
    assert box.default_interfaces() == ["eth0"]
    witness.wait_for(INHIBIT, "permit")
    box("names", "cell", "back")
    application.wait_for("route is Cell, reconnecting", 25, since=place)


def test_a_pulled_cable_moves_the_cloud_at_once(box, application):
    box("cable", "out")
    box("wait-route", "wwan0", "5")
    application.wait_for_cloud("wwan0", 10)
    assert box.order() == ["wwan0"]
    assert box.status_file()["Ethernet"] == "Down"
    box("cable", "in")
    box("wait-route", "eth0", "10")
    application.wait_for_cloud("eth0", 30)
    assert box.status_file()["Ethernet"] == "Up"


def test_a_pulled_cable_on_cellular_does_not_matter(box, application_on_cellular):
    box("cable", "out")
    wait_until(lambda: box.order() == ["wwan0"], 5, "no Ethernet service")
    assert application_on_cellular.cloud_interface() == "wwan0"
    box("provider", "eth", "back")
    box("cable", "in")
    application_on_cellular.wait_for("route is eth, reconnecting", 30)
    application_on_cellular.wait_for_cloud("eth0", 5)


@pytest.mark.slow
def test_a_flapping_ethernet_settles(box, application, witness):
    for _ in range(20):
        box("cable", "out")
        time.sleep(3)  # the fault's own rhythm
        box("cable", "in")
        time.sleep(3)
    box("wait-route", "eth0", "15")
    application.wait_for_cloud("eth0", 40)
    witness.wait_for(GREEN, "On")
    assert box.status_file()["Ethernet"] == "Up"
