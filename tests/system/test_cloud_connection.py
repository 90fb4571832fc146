# SPDX-License-Identifier: Apache-2.0
"""The way to the cloud's broker: its addresses, and what is said when it cannot be reached."""
from __future__ import annotations

from orv_testbed.box import Box
from orv_testbed.fixtures import MakeScene
from orv_testbed.scene import PORTAL, Scene
from orv_testbed.waiting import wait_until

DEAD = "198.51.100.11"
FAILED = "no connection to the cloud: "


def test_a_dead_first_address_does_not_keep_it_from_the_cloud(box: Box, make_scene: MakeScene) -> None:
    for side in ("eth", "cell"):
        box("names", side, "first", DEAD)
    scene = make_scene().start()
    started, connected = (scene.application.monotonic(what)[0] for what in ("start", "cloud_connected"))
    assert connected - started > 0.25  # the dead one was first
    assert not scene.application.has_logged(FAILED)
    # The way over Cellular is the same; the poke has always known it.
    scene.box("provider", "eth", "dead")
    scene.application.wait_for_cloud("wwan0", 25)
    scene.box("provider", "eth", "back")
    scene.application.wait_for_cloud("eth0", 25)


def test_a_captive_portal_is_told_by_its_certificate(scene: Scene) -> None:
    scene.expected_complaints = PORTAL
    scene.box("portal", "eth", "on")
    scene.application.wait_for(FAILED + "the certificate for ", 10)
    scene.application.wait_for(
        "was issued by A CA that the gateway does not know, which is not trusted: a captive portal", 1
    )
    scene.application.wait_for_cloud("wwan0", 25)
    scene.box("portal", "eth", "off")
    scene.application.wait_for_cloud("eth0", 25)


def test_a_clock_that_is_behind_is_told_once(box: Box, make_scene: MakeScene) -> None:
    box("clock", "-40000000")
    scene = make_scene(clock=True)
    scene.clocks.append((0, -40000000))
    scene.expected_complaints = ("poke error 60",)
    scene.application.wait_for(FAILED + "the certificate for cloud.box.test is not valid before ", 10)
    scene.application.wait_for("462 days after what the clock says", 1)
    assert scene.application.has_logged("the clock says: is the clock right?") or scene.application.has_logged(
        "the clock is wrong"
    )
    wait_until(lambda: len(scene.application.transcript("cloud_failed")) >= 4, 30, "four attempts")
    assert len(scene.application.times_of(FAILED)) == 1
    scene.set_clock("0")
    scene.application.wait_for_cloud("eth0", 20)


def test_why_a_poke_fails_is_told_with_its_interface_and_once(scene: Scene) -> None:
    cause = (
        " the endpoint cloud.box.test does not prove the path to the cloud: the certificate for cloud.box.test was "
        "issued by A CA that the gateway does not know, which is not trusted"
    )
    scene.expected_complaints = ("poke error 60",)
    scene.box("cloud-tls", "wrong-certificate", "cell")
    scene.box("provider", "eth", "dead")
    scene.application.wait_for("over wwan0" + cause, 20)
    wait_until(lambda: len(scene.application.times_of("poke error 60")) >= 8, 30, "eight attempts")
    assert len(scene.application.times_of("over wwan0" + cause)) == 1
    # The other way round.
    scene.box("cloud-tls", "ok", "cell")
    scene.application.wait_for_cloud("wwan0", 40)
    scene.box("cloud-tls", "wrong-certificate", "eth")
    scene.application.wait_for(
        "over eth0 the endpoint cloud.box.test does not prove the path to the cloud: no answer", 20
    )
    scene.box("provider", "eth", "back")
    scene.application.wait_for("over eth0" + cause, 70)
    scene.box("cloud-tls", "ok", "eth")
    scene.application.wait_for_cloud("eth0", 25)
