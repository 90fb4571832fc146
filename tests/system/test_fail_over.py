# SPDX-License-Identifier: Apache-2.0
"""Fail-over to Cellular and the return to Ethernet, seen from all sides."""
from __future__ import annotations

import re
import signal

import pytest

from orv_testbed.box import Box
from orv_testbed.fixtures import MakeScene
from orv_testbed.scene import Scene
from orv_testbed.topics import GREEN, INHIBIT_DNS, NO_NETWORK, YELLOW
from orv_testbed.waiting import SLACK, wait_until


@pytest.mark.short
def test_a_lost_provider_moves_the_cloud_to_cellular_and_back(scene: Scene) -> None:
    box, application, witness = scene.box, scene.application, scene.witness
    scene.settles("eth0", 5)
    assert witness.payloads(INHIBIT_DNS) == []
    assert not box.handshakes("cell")

    box("provider", "eth", "dead")
    application.wait_for("eth cloud lost, start delay to cell", 4)
    witness.wait_for(GREEN, "Off")
    witness.wait_for(YELLOW, "Blink")
    wait_until(lambda: box.status_file()["Cloud Connection"] == "Down", SLACK, "the loss in the status file")
    assert box.default_interfaces() == ["eth0"]
    application.wait_for("Started Poke to cell if wwan0", 11)
    scene.settles("wwan0", 10)
    assert application.has_logged("poke success, route to Cell")

    box("provider", "eth", "back")
    application.wait_for("poke success, route to ETH", 20)
    application.wait_for("route is eth, reconnecting", 1)
    application.wait_for("cell to eth delay done", 6)
    scene.settles("eth0", 10)
    assert witness.payloads(INHIBIT_DNS) == ["inhibit", "permit"]

    # One line for each move, and the same in the application's own status.
    there, back = application.lines_of("the WAN route has moved from")
    assert re.search(
        r"info .*from Ethernet \(eth0\) to Cellular \(wwan0\): the cloud was lost on Ethernet \(.+\) "
        r"and a poke over Cellular succeeded; the switch took [\d.]+ s, [\d.]+ s since the loss$",
        there,
    )
    assert re.search(
        r"info .*from Cellular \(wwan0\) to Ethernet \(eth0\): a poke over Ethernet succeeded; "
        r"the switch took [\d.]+ s after [\d.]+ s on Cellular$",
        back,
    )
    status = application.status()
    assert status["route"]["last_move"]["from"] == "cellular"
    # The latest first; who was on Cellular for longer has asked in vain over Ethernet meanwhile.
    proof = next(poke for poke in status["pokes"] if poke["path"] == "cellular")
    assert (proof["result"], proof["code"]) == ("succeeded", 0)
    assert 0 < proof["at_most_s"] < SLACK
    counters = status["counters"]
    assert (counters["fail_overs"], counters["returns"], counters["cloud_losses"]) == (1, 1, 1)
    assert counters["seconds_on_cellular"] > 0 and counters["cellular_received_bytes"] > 1000


def test_a_short_loss_moves_nothing(scene: Scene) -> None:
    scene.reach("ETHERNET_LOST_DELAY")
    scene.box("provider", "eth", "back")
    scene.application.wait_for("eth cloud reconnected by itself", 8)
    scene.settles("eth0", 5)
    assert not scene.box.handshakes("cell")
    assert not scene.application.has_logged("is put on top")


def test_a_cloud_that_comes_back_over_cellular_by_itself_stays_there(scene: Scene) -> None:
    scene.expected_complaints = ("cannot put eth0 on top now",)
    scene.reach("ETHERNET_LOST_DELAY")
    scene.box("cable", "out")  # ConnMan takes the other interface by itself
    scene.connected = {"wwan0"}
    scene.application.wait_for("cell cloud reconnected by itself", 8)
    scene.settles("wwan0", 5)
    assert not scene.application.has_logged("Started Poke")
    scene.application.wait_for("from Ethernet (eth0) to Cellular (wwan0): Ethernet has no link, and ConnMan took", 3)
    assert len(scene.application.lines_of("the WAN route has moved from")) == 1


@pytest.mark.parametrize("answer, code", [("refused", 7), ("silent", 28), ("wrong-certificate", 60)])
def test_without_proof_nothing_is_moved(scene: Scene, answer: str, code: int) -> None:
    box, application, witness = scene.box, scene.application, scene.witness
    scene.expected_complaints = (f"poke error {code}",)
    box("cloud-tls", answer, "cell")
    scene.reach("ETHERNET_LOST_DELAY")
    application.wait_for("Started Poke to cell if wwan0", 14)
    witness.wait_for(INHIBIT_DNS, "inhibit")
    place = application.wait_for(f"poke error {code}", 16)
    place = application.wait_for("poke cell aborted", 20, since=place)
    witness.wait_for(INHIBIT_DNS, "permit")
    assert box.default_interfaces() == ["eth0"]
    assert box.order() == ["eth0", "wwan0"]
    assert not application.has_logged("is put on top")
    assert not box.handshakes("cell")

    box("cloud-tls", "ok", "cell")
    application.wait_for("route is Cell, reconnecting", 12 + 15, since=place)
    scene.settles("wwan0", 5)


def test_a_boot_with_a_dead_ethernet_provider_ends_on_cellular(box: Box, make_scene: MakeScene) -> None:
    box("connman", "stop")
    box("provider", "eth", "dead")
    box("connman", "start")
    scene = make_scene()
    scene.expected_complaints = ("cannot put eth0 on top now",)  # the application may be the faster one
    scene.settles("wwan0", 25)
    box("provider", "eth", "back")
    scene.settles("eth0", 30)


@pytest.mark.short
def test_a_boot_without_an_ethernet_cable_is_on_cellular_until_it_is_plugged_in(
    box: Box, make_scene: MakeScene
) -> None:
    box("connman", "stop")
    box("cable", "out")
    box("connman", "start")
    scene = make_scene()
    scene.expected_complaints = ("cannot put eth0 on top now",)
    scene.connected = {"wwan0"}
    scene.settles_on_the_only_interface(15, since=0)
    assert not scene.application.has_logged("Started Poke")
    scene.connected = {"eth0", "wwan0"}
    box("cable", "in")
    scene.settles("eth0", 30)


@pytest.mark.parametrize("side, interface", [("eth", "eth0"), ("cell", "wwan0")])
def test_with_both_providers_dead_the_first_one_back_carries_the_cloud(scene: Scene, side: str, interface: str) -> None:
    scene.expected_complaints = ("poke error 28", "poke error 6")
    scene.box("provider", "cell", "dead")
    scene.box("provider", "eth", "dead")
    scene.application.wait_for("Started Poke to cell if wwan0", 15)
    scene.application.wait_for("poke cell aborted", 21)
    assert scene.box.default_interfaces() == ["eth0"]
    assert scene.witness.last(YELLOW) == "Blink"
    assert scene.witness.last(NO_NETWORK) == "false"  # there are links and addresses, only nothing behind them
    scene.box("provider", side, "back")
    scene.settles(interface, 40)


def test_a_cellular_address_lost_while_poking_ethernet_is_mirrored(scene: Scene) -> None:
    scene.reach("CELLULAR_ACTIVE")
    scene.expected_complaints = ("cannot put wwan0 on top now", "poke error 7")
    scene.box("cellular", "out")
    scene.witness.wait_for(INHIBIT_DNS, "permit", 3)
    wait_until(lambda: scene.box.status_file()["Cloud Connection"] == "Down", SLACK, "the loss in the status file")
    scene.box("cellular", "in")
    scene.witness.wait_for(INHIBIT_DNS, "inhibit", 5)
    scene.settles("wwan0", 20)
    assert scene.witness.payloads(INHIBIT_DNS) == ["inhibit", "permit", "inhibit"]


def test_a_failure_is_shown_by_both_leds_and_noted_in_the_error_file(scene: Scene) -> None:
    box, witness = scene.box, scene.witness
    scene.expected_complaints = ("a failure was reported",)
    assert box.error_file() is None
    scene.application.process.send_signal(signal.SIGUSR1)
    witness.wait_for(GREEN, "Blink")
    witness.wait_for(YELLOW, "Blink")
    wait_until(lambda: (box.error_file() or "").endswith(",Fatal Error Detected"), SLACK, "the error file")
    assert (box.error_file() or "").split(",")[0].isdigit()
    kept = witness.kept()
    assert (kept[GREEN], kept[YELLOW]) == ("Blink", "Blink")
    # It stays, whatever the route does.
    box("provider", "eth", "dead")
    scene.application.wait_for("route is Cell, reconnecting", 20)
    scene.application.wait_for_cloud("wwan0", 5)
    assert witness.payloads(GREEN)[-1] == witness.payloads(YELLOW)[-1] == "Blink"
    assert box.default_interfaces() == ["wwan0"]
    assert box.order() == ["wwan0", "eth0"]
    wait_until(lambda: box.status_file()["Cloud Connection"] == "Up", SLACK, "the connection in the status file")


def test_a_clock_put_forward_shortens_no_delay(make_scene: MakeScene) -> None:
    scene = make_scene(clock=True).start()
    scene.reach("ETHERNET_LOST_DELAY")
    scene.set_clock("+3600")
    scene.settles("wwan0", 25)
    lost, moved = (scene.application.monotonic(what)[-1] for what in ("cloud_lost", "default_route"))
    assert moved - lost >= 10


def test_a_clock_before_the_certificates_begin_proves_nothing(make_scene: MakeScene) -> None:
    scene = make_scene(clock=True).start()
    scene.expected_complaints = ("poke error 60",)
    scene.reach("ETHERNET_LOST_DELAY")
    scene.set_clock("-86400")
    scene.application.wait_for("poke error 60", 12)
    assert scene.box.default_interfaces() == ["eth0"]
    scene.set_clock("+0")
    scene.settles("wwan0", 25)
