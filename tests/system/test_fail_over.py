# SPDX-License-Identifier: Apache-2.0
"""Fail-over to Cellular and the return to Ethernet, seen from all sides."""
import pytest
from gateway import Application, at, wait_until

INHIBIT = "/orv/network/wan/inhibit_dns"
GREEN = "/orv/led/connected_services_green"
YELLOW = "/orv/led/connected_services_yellow"
NO_EXTERNAL = "/orv/apps_control/features/Ent/status/NoExtNet"


def assert_on_ethernet(box, application, witness):
    assert box.default_interfaces() == ["eth0"]
    assert box.order() == ["eth0", "wwan0"]
    assert witness.last(INHIBIT) in (None, "permit")
    assert application.cloud_interface() == "eth0"


def test_a_lost_provider_moves_the_cloud_to_cellular_and_back(box, application, witness):
    assert_on_ethernet(box, application, witness)
    witness.wait_for(GREEN, "On")
    witness.wait_for(YELLOW, "Off")
    assert box.status_file() == {"Enterprise Feature": "Enabled", "Cloud Connection": "Up", "Ethernet": "Up",
                                 "Cellular": "Up"}
    assert not box.handshakes("cell")

    box("provider", "eth", "dead")
    application.wait_for("eth cloud lost, start delay to cell", 4)
    witness.wait_for(GREEN, "Off")
    witness.wait_for(YELLOW, "Blink")
    assert box.status_file()["Cloud Connection"] == "Down"
    assert box.default_interfaces() == ["eth0"]
    application.wait_for("Started Poke to cell if wwan0", 11)
    application.wait_for("poke success, route to Cell", 5)
    application.wait_for("route is Cell, reconnecting", 1)
    # No unproven switch: the cloud has seen a handshake over Cellular before the route moved.
    proof, move = box.handshakes("cell")[0], application.times_of("wwan0 is put on top")[0]
    assert at(proof) <= at(move)
    application.wait_for_cloud("wwan0", 5)
    assert box.default_interfaces() == ["wwan0"]
    assert box.order() == ["wwan0", "eth0"]
    witness.wait_for(INHIBIT, "inhibit")
    witness.wait_for(GREEN, "On")
    assert box.status_file()["Cloud Connection"] == "Up"

    proofs = len(box.handshakes("eth"))
    box("provider", "eth", "back")
    application.wait_for("poke success, route to ETH", 20)
    application.wait_for("route is eth, reconnecting", 1)
    assert len(box.handshakes("eth")) > proofs
    application.wait_for_cloud("eth0", 5)
    place = application.wait_for("cell to eth delay done", 6)
    application.wait_for("Cloud connected with Ethernet interface", 5, since=place)
    wait_until(lambda: dict(box.services())["wwan0"] == "10.22.0.53", 5, "Cellular's name servers again")
    assert_on_ethernet(box, application, witness)
    assert witness.payloads(INHIBIT) == ["inhibit", "permit"]


def test_a_short_loss_moves_nothing(box, application, witness):
    box("provider", "eth", "dead")
    application.wait_for("eth cloud lost, start delay to cell", 4)
    box("provider", "eth", "back")
    application.wait_for("eth cloud reconnected by itself", 8)
    assert_on_ethernet(box, application, witness)
    assert not box.handshakes("cell")
    assert not application.said("is put on top")


def test_a_cloud_that_comes_back_over_cellular_by_itself_stays_there(box, application, witness):
    box("provider", "eth", "dead")
    application.wait_for("eth cloud lost, start delay to cell", 4)
    box("cable", "out")  # ConnMan takes the other interface by itself
    box("wait-route", "wwan0", "5")
    application.wait_for("cell cloud reconnected by itself", 8)
    witness.wait_for(INHIBIT, "inhibit")
    assert application.cloud_interface() == "wwan0"
    assert box.order() == ["wwan0"]


@pytest.mark.parametrize("answer, code", [("refused", 7), ("silent", 28), ("wrong-certificate", 60)])
def test_without_proof_nothing_is_moved(box, application, witness, answer, code):
    box("cloud-tls", answer, "cell")
    box("provider", "eth", "dead")
    application.wait_for("Started Poke to cell if wwan0", 14)
    witness.wait_for(INHIBIT, "inhibit")
    place = application.wait_for(f"poke error {code}", 16)
    place = application.wait_for("poke cell aborted", 20, since=place)
    witness.wait_for(INHIBIT, "permit")
    assert box.default_interfaces() == ["eth0"]
    assert box.order() == ["eth0", "wwan0"]
    assert not application.said("is put on top")
    assert not box.handshakes("cell")

    box("cloud-tls", "ok", "cell")
    application.wait_for("route is Cell, reconnecting", 12 + 15, since=place)
    application.wait_for_cloud("wwan0", 5)
    assert box.handshakes("cell")


def test_a_start_with_a_dead_ethernet_provider_ends_on_cellular(box, witness, tmp_path):
    box("provider", "eth", "dead")
    application = Application(box, tmp_path)
    application.wait_for("route is Cell, reconnecting", 20)
    application.wait_for_cloud("wwan0", 5)
    assert box.default_interfaces() == ["wwan0"]
    witness.wait_for(INHIBIT, "inhibit")
    witness.wait_for(GREEN, "On")
    application.stop()


@pytest.mark.parametrize("side, interface", [("eth", "eth0"), ("cell", "wwan0")])
def test_with_both_providers_dead_the_first_one_back_carries_the_cloud(box, application, witness, side, interface):
    box("provider", "cell", "dead")
    box("provider", "eth", "dead")
    application.wait_for("Started Poke to cell if wwan0", 15)
    application.wait_for("poke cell aborted", 21)
    assert box.default_interfaces() == ["eth0"]
    assert witness.last(YELLOW) == "Blink"
    box("provider", side, "back")
    application.wait_for_cloud(interface, 40)
    assert box.default_interfaces() == [interface]
    witness.wait_for(GREEN, "On")


def test_a_cellular_address_lost_while_poking_ethernet_is_mirrored(box, application_on_cellular, witness):
    application_on_cellular.wait_for("Started Poke eth if eth0", 3)
    witness.wait_for(INHIBIT, "inhibit")
    box("cellular", "out")
    witness.wait_for(INHIBIT, "permit", 3)
    box("cellular", "in")
    witness.wait_for(INHIBIT, "inhibit", 5)
    box("wait-route", "wwan0", "10")
