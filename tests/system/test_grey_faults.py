# SPDX-License-Identifier: Apache-2.0
"""Faults that are no clean break: a clock years off, a portal that stays, lost packets, a neighbour that comes and goes."""
from __future__ import annotations

import calendar
import json
import subprocess
import time

import pytest

from orv_testbed.box import Box
from orv_testbed.fixtures import MakeScene
from orv_testbed.scene import PORTAL, Scene
from orv_testbed.topics import GREEN, of_feature
from orv_testbed.waiting import SLACK, comes_within, wait_until

THREE_YEARS = 3 * 365 * 86400
MOVED = "the WAN route has moved from"

# An answer of a time server: the seconds since 1900, and nothing else that a client needs.
TELL_TIME = """
import socket, time
asked = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
asked.bind(("198.51.100.10", 123))
while True:
    _, client = asked.recvfrom(512)
    asked.sendto(bytes([0x24, 1]) + bytes(38) + (int(time.time()) + 2208988800).to_bytes(4, "big") + bytes(4), client)
"""
ASK_TIME = """
import socket, sys
asking = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
asking.setsockopt(socket.SOL_SOCKET, socket.SO_BINDTODEVICE, sys.argv[1].encode())
asking.settimeout(2)
asking.sendto(bytes([0x23]) + bytes(47), ("198.51.100.10", 123))
print(int.from_bytes(asking.recv(512)[40:44], "big") - 2208988800)
"""


def ask_time(box: Box, interface: str) -> int | None:
    done = box.try_to("exec", "/usr/bin/python3", "-c", ASK_TIME, interface)
    return int(done.stdout) if done.returncode == 0 else None


def test_a_boot_three_years_in_the_past_with_a_dead_ethernet_waits_for_the_clock_and_says_so(
    box: Box, make_scene: MakeScene
) -> None:
    in_cloud = ("ip", "netns", "exec", f"{box.name}-cloud", "/usr/bin/python3", "-c", TELL_TIME)
    time_server = subprocess.Popen(in_cloud)
    try:
        box("clock", str(-THREE_YEARS))
        box("connman", "stop")
        box("provider", "eth", "dead")
        box("connman", "start")
        scene = make_scene(clock=True)
        scene.clocks = [(0, -THREE_YEARS)]
        scene.expected_complaints = ("poke error 60", "cannot put eth0 on top now")
        application = scene.application
        application.wait_for("poke error 60", 30)
        # The cause, in words, with the interface and the remedy.
        application.wait_for("over wwan0 the endpoint cloud.box.test does not prove the path to the cloud: ", 10)
        application.wait_for("the clock is wrong. Set it, or name a time server", 1)
        assert "is not valid before" in application.log()
        application.wait_for("poke cell aborted", 25)
        assert box.default_interfaces() == ["eth0"]
        assert not box.handshakes("cell")
        # The default route is dead, and the time is there for who asks over the standby path.
        assert ask_time(box, "eth0") is None
        told = ask_time(box, "wwan0")
        assert told is not None and abs(told - calendar.timegm(time.gmtime())) < SLACK
        scene.set_clock("+0")
        scene.settles("wwan0", 40)
        box("provider", "eth", "back")
        scene.settles("eth0", 30)
    finally:
        time_server.kill()
        time_server.wait()


# In an hour. The pokes of the library make most of both: 20 s of them, 10 s of rest, and so on.
HOUR, MOST_BYTES, MOST_LINES = 3600, 3_000_000, 2000


def cellular_bytes(box: Box) -> int:
    found = json.loads(box("exec", "ip", "-json", "-statistics", "link", "show", "dev", "wwan0"))[0]["stats64"]
    return int(found["rx"]["bytes"]) + int(found["tx"]["bytes"])


@pytest.mark.long
def test_an_hour_behind_a_portal_on_cellular_has_its_price_in_bytes_and_lines(scene: Scene) -> None:
    """Two of its hundred and twenty rounds are played, from the end of a poke to the end of a poke."""
    box, application = scene.box, scene.application
    scene.expected_complaints = PORTAL
    box("portal", "cell", "on")
    box("provider", "eth", "dead")
    place = application.wait_for("poke cell aborted", 40)
    bytes_before, begun = cellular_bytes(box), time.monotonic()
    for _ in range(2):
        end = application.wait_for("poke cell aborted", 40, place)
        lines = [line for line in application.log()[place:end].splitlines() if " trace " not in line]
        place = end
    seconds = time.monotonic() - begun
    rounds = HOUR / (seconds / 2)
    an_hours_bytes = (cellular_bytes(box) - bytes_before) / 2 * rounds
    print(f"in an hour: {an_hours_bytes:.0f} bytes, {len(lines) * rounds:.0f} lines, {rounds:.0f} rounds")
    assert 0 < an_hours_bytes < MOST_BYTES
    assert 0 < len(lines) * rounds < MOST_LINES
    assert box.default_interfaces() == ["eth0"] and not application.has_logged("is put on top")
    box("portal", "cell", "off")
    scene.settles("wwan0", 40)


@pytest.mark.long
@pytest.mark.parametrize("percent, least_connected", [("20", 0.6), ("40", 0.3)])
def test_an_ethernet_that_loses_packets_does_not_flap(scene: Scene, percent: str, least_connected: float) -> None:
    scene.box("loss", "eth", percent)
    begun = time.monotonic()
    time.sleep(60)  # part of the fault: how long it lasts
    ended = time.monotonic()
    # Chance decides which packets. There and back, there again, and then Ethernet is on probation.
    assert len(scene.application.times_of(MOVED)) <= 3
    assert scene.application.connected_for(begun, ended) > least_connected * (ended - begun)
    scene.box("loss", "eth", "off")


def test_a_second_application_that_is_started_every_two_seconds_leaves_a_fail_over_alone(
    box: Box, make_scene: MakeScene
) -> None:
    with open(box.folder / "gateway/etc/orv/gateway.ini", "a", encoding="utf-8") as settings:
        settings.write("[gateway]\ncontroller = gateway-app\n")
    scene = make_scene().start()
    scene.neighbours = ("neighbour",)
    available = of_feature("neighbour", "available")

    def starts() -> int:
        return scene.witness.payloads(available).count("true")

    box("neighbour", "crashes")
    before, greens = starts(), len(scene.witness.payloads(GREEN))
    scene.reach("CELLULAR_ACTIVE")
    wait_until(lambda: starts() > before + 5, 30 + SLACK, "five more starts of the neighbour")
    assert box.default_interfaces() == ["wwan0"]
    assert scene.application.route_state() == "CELLULAR_ACTIVE"
    assert scene.witness.payloads(GREEN)[greens:] == ["Off", "On"]
    # Twice in two seconds it says that everything is down.
    assert comes_within(SLACK, lambda: scene.box.status_file().get("Cloud Connection") == "Up")
    box("provider", "eth", "back")
    scene.application.wait_for_cloud("eth0", 30)
    box("neighbour", "gone")
    scene.settles("eth0", 20)
