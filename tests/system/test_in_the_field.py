# SPDX-License-Identifier: Apache-2.0
"""What gateways meet in the field: none of it may hold up a tick, be taken for a proof, or leave an untruth behind."""
from __future__ import annotations

import fcntl
import os
import pathlib
import subprocess
import time

import pytest

from orv_testbed.application import Application
from orv_testbed.box import Box
from orv_testbed.fixtures import MakeScene
from orv_testbed.scene import PORTAL, Scene
from orv_testbed.timestamps import at
from orv_testbed.topics import GREEN, INHIBIT_DNS
from orv_testbed.waiting import SLACK, comes_within, wait_until


@pytest.mark.parametrize("kind", ["full", "bundle"])
def test_a_full_list_of_authorities_moves_the_cloud_as_a_short_one(box: Box, scene: Scene, kind: str) -> None:
    box("authorities", kind)
    box("provider", "eth", "dead")
    scene.application.wait_for("route is Cell, reconnecting", 20)
    scene.settles("wwan0", 5)
    box("provider", "eth", "back")
    scene.settles("eth0", 20)


@pytest.fixture
def quick_scene(make_scene: MakeScene) -> Scene:
    """With ticks that are quick enough for several attempts of a poke within the grace of a lost address."""
    return make_scene("--tick-ms", "100").start()


GRACE_S = 2  # for so long after its start a poke over Ethernet goes on without an address


def pull_ethernet_while_it_is_poked(scene: Scene) -> int:
    """Returns the place in the log at which Ethernet's interface was gone."""
    box, application = scene.box, scene.application
    errors = ("poke error 7", "poke error 28", "poke error 45")
    scene.expected_complaints = (*errors, "cannot put eth0 on top now", "Invalid service")
    scene.addresses_lent = True
    scene.reach("CELLULAR_ACTIVE")
    # An attempt that fails at once is followed by one that begins with the look at its interface.
    box("cloud-tls", "refused", "eth")
    box("provider", "eth", "back")
    application.wait_for("poke error 7", 20)
    for _ in range(10):
        place = begin_poke_anew(scene)
        if not attempts_fail_at_once(application, place):
            application.wait_for("poke error", 20, place)  # its end
            continue
        place = application.mark()
        box("cable", "gone")
        wait_until(lambda: not has_address(application), SLACK, "the loss of the interface")
        if in_grace(application):
            scene.connected = {"wwan0"}
            return place
        box("cable", "in")
        wait_until(lambda: has_address(application), SLACK, "Ethernet's address")
    raise AssertionError(f"the interface was never gone within the grace\n{application.interesting()}")


def begin_poke_anew(scene: Scene) -> int:
    """Returns the place in the log at which another poke over Ethernet begins.

    A poke whose grace is over ends with the first tick that finds no address. No log line tells of that tick, so an
    address that is back before it leaves the old poke running; then the address is taken away again.
    """
    box, application = scene.box, scene.application
    wait_until(lambda: time.time() - began(application) > GRACE_S, SLACK, "the end of the grace")
    deadline = time.monotonic() + SLACK
    while time.monotonic() < deadline:
        box("lease", "eth", "end")
        wait_until(lambda: not has_address(application), SLACK, "the loss of the address")
        place = application.mark()
        box("lease", "eth", "back")
        wait_until(lambda: has_address(application), SLACK, "Ethernet's address")
        if comes_within(1, lambda: application.has_logged("Started Poke eth if eth0", place)):
            return application.wait_for("Started Poke eth if eth0", 0, place)
    raise AssertionError(f"no poke over Ethernet begins anew\n{application.interesting()}")


def attempts_fail_at_once(application: Application, place: int) -> bool:
    """An attempt that was under way when the address was lost goes on, and may hang until the grace is over."""
    return comes_within(GRACE_S / 2, lambda: application.has_logged("poke error 7", place), pause=0.01)


def in_grace(application: Application) -> bool:
    lost = at(application.times_of("ETHERNET_IP_LOST")[-1])
    return lost - began(application) < GRACE_S - 0.5  # time for an attempt that is under way, and for the next one


def began(application: Application) -> float:
    """When the poke over Ethernet began."""
    return at(application.times_of("Started Poke eth if eth0")[-1])


def has_address(application: Application) -> bool:
    return application.reported("ETHERNET_IP_GAINED", "ETHERNET_IP_LOST") == "ETHERNET_IP_GAINED"


def mute_questions_for_eth0(box: Box, side: str) -> None:
    """The provider's name server answers everything else."""
    question = 64 + 96  # bits: behind the headers of UDP and DNS
    subprocess.run(
        [
            "ip",
            "netns",
            "exec",
            f"{box.environment['ORV_BOX']}-{side}",
            "nft",
            "table inet mute_eth0 { chain input { type filter hook input priority 0;"
            f" udp dport 53 @th,{question},40 0x0465746830 drop; }}; }}",
        ],
        check=True,
    )


def test_a_poke_over_a_missing_interface_fails_at_once_although_nobody_answers_for_its_name(quick_scene: Scene) -> None:
    scene = quick_scene
    for side in ("eth", "cell"):
        mute_questions_for_eth0(scene.box, side)
    place = pull_ethernet_while_it_is_poked(scene)
    scene.application.wait_for("poke error 45", GRACE_S, place)
    scene.settles("wwan0", 5)


def test_a_name_server_that_knows_the_interfaces_name_makes_no_proof(quick_scene: Scene) -> None:
    scene = quick_scene
    scene.box("names", "cell", "lie", "0.0.0.0", "eth0")
    place = pull_ethernet_while_it_is_poked(scene)
    scene.application.wait_for("poke error 45", GRACE_S, place)
    scene.settles("wwan0", 5)
    assert not scene.application.has_logged("poke success, route to ETH", place)


@pytest.mark.parametrize("address", ["0.0.0.0", "10.11.0.1", "198.51.100.99"])
def test_a_lie_about_the_cloud_proves_nothing(scene: Scene, address: str) -> None:
    """Both name servers say so, one of them with nobody there."""
    scene.expected_complaints = ("poke error 7", "poke error 28", "no connection to the cloud")
    for side in ("eth", "cell"):
        scene.box("names", side, "lie", address)
    scene.box("provider", "eth", "dead")
    scene.application.wait_for("Started Poke to cell if wwan0", 15)
    scene.application.wait_for("poke cell aborted", 25)
    assert not scene.application.has_logged("is put on top")
    scene.box("names", "cell", "back")
    scene.settles("wwan0", 40)


def test_a_portal_on_cellular_is_no_cloud(scene: Scene) -> None:
    scene.expected_complaints = PORTAL
    scene.box("portal", "cell", "on")
    scene.box("provider", "eth", "dead")
    scene.application.wait_for("poke error 60", 15)
    scene.application.wait_for("poke cell aborted", 25)
    assert scene.box.default_interfaces() == ["eth0"]
    scene.box("portal", "cell", "off")
    scene.settles("wwan0", 40)


class ApplicationWhoseLogNobodyReads(Application):
    """Its standard error is a pipe, and as small as pipes are."""

    F_SETPIPE_SZ, SMALLEST = 1031, 4096

    def __init__(self, box: Box, folder: pathlib.Path, *options: str) -> None:
        self.reading, writing = os.pipe()
        fcntl.fcntl(writing, self.F_SETPIPE_SZ, self.SMALLEST)
        super().__init__(box, folder, *options, output=writing)
        os.close(writing)

    def read_the_log(self) -> None:
        with open(self.log_file, "wb") as log:
            self.reader = subprocess.Popen(["cat"], stdin=self.reading, stdout=log)
        os.close(self.reading)


def test_a_frozen_reader_of_the_log_holds_nothing_up(
    box: Box, tmp_path: pathlib.Path, request: pytest.FixtureRequest
) -> None:
    application = ApplicationWhoseLogNobodyReads(box, tmp_path)
    application.wait_for_cloud("eth0", 10)
    box("provider", "eth", "dead")
    application.wait_for_cloud("wwan0", 20)
    box("provider", "eth", "back")
    application.wait_for_cloud("eth0", 20)
    application.read_the_log()
    box("provider", "eth", "dead")
    application.wait_for("records were lost", 20)
    application.wait_for_cloud("wwan0", 20)
    figures = application.stop()
    application.reader.wait(SLACK)
    request.getfixturevalue("judge_calls")(figures)


def test_a_hostile_neighbour_on_the_bus_changes_nothing(box: Box, scene: Scene, tmp_path: pathlib.Path) -> None:
    scene.expected_complaints = ("which is not the connection manager, is ignored",)
    with open(tmp_path / "neighbour.log", "w", encoding="utf-8") as log:
        box.start("/usr/bin/python3", "-u", "-m", "orv_testbed.hostile_neighbour", "forges", stdout=log, stderr=log)
        wait_until(
            lambda: "at work" in (tmp_path / "neighbour.log").read_text(encoding="utf-8"), SLACK, "its first round"
        )
    place = scene.application.mark()
    box("provider", "eth", "dead")
    scene.application.wait_for("route is Cell, reconnecting", 20)
    scene.settles("wwan0", 5)
    box("provider", "eth", "back")
    scene.settles("eth0", 20)
    assert "not on the message bus" not in scene.application.log()[place:]
    assert box.processes[-1].poll() is None, (tmp_path / "neighbour.log").read_text(encoding="utf-8")


def test_what_was_refused_without_a_broker_is_what_is_announced_with_the_next_one(scene: Scene) -> None:
    scene.expected_complaints = (
        "lost the connection",
        "Failed to publish message to MQTT",
        "cannot connect",
        "was refused",
    )
    scene.reach("CELLULAR_ACTIVE")
    scene.witness.wait_for(INHIBIT_DNS, "inhibit")
    scene.cut_wire()
    scene.box("broker", "stop")
    scene.box("provider", "eth", "back")
    scene.application.wait_for("poke success, route to ETH", 20)
    scene.application.wait_for("cell to eth delay done", 20)
    connections = scene.witness.connections()
    scene.box("broker", "start")
    wait_until(
        lambda: scene.witness.connections() > connections
        and scene.witness.payloads(INHIBIT_DNS, latest_connection=True),
        10 + SLACK,
        "the DNS topic on the restarted broker",
    )
    scene.settles("eth0", 10)
    assert scene.witness.payloads(INHIBIT_DNS, latest_connection=True)[-1] == "permit"
    assert "inhibit" not in scene.witness.payloads(INHIBIT_DNS, latest_connection=True)


@pytest.mark.parametrize("kind", ["full", "read-only"])
def test_a_var_tmp_that_takes_nothing_costs_the_files_and_no_more(scene: Scene, kind: str) -> None:
    scene.expected_complaints = ("does not hold what was written",)
    scene.box("var-tmp", kind)
    scene.box("provider", "eth", "dead")
    scene.application.wait_for("route is Cell, reconnecting", 20)
    scene.application.wait_for_cloud("wwan0", 5)
    scene.witness.wait_for(GREEN, "On", 5)
    scene.box("cable", "out")
    wait_until(
        lambda: scene.application.reported("ETHERNET_CONNECTED", "ETHERNET_DISCONNECTED") == "ETHERNET_DISCONNECTED",
        SLACK,
        "the loss of the link",
    )
    scene.application.wait_for("does not hold what was written", 10)
    scene.box("var-tmp", "ok")
    # No further event tells the file.
    wait_until(lambda: scene.box.status_file().get("Ethernet") == "Down", 30 + SLACK, "the link in the status file")
    scene.box("cable", "in")
    scene.box("provider", "eth", "back")
    scene.settles("eth0", 20)
