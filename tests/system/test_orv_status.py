# SPDX-License-Identifier: Apache-2.0
"""What orv-status shows of the gateway, whatever part of it is away."""
from __future__ import annotations

import itertools
import json
import pathlib
import signal
import subprocess
from typing import Any

import jsonschema
import pytest

from orv_testbed.box import Box
from orv_testbed.programs import TREE, program
from orv_testbed.topics import GREEN, MODEM_SIM, YELLOW
from orv_testbed.waiting import SLACK, wait_until

SCHEMA = json.loads((TREE / "docs/orv-status.schema.json").read_text(encoding="utf-8"))
HEALTHY, ON_CELLULAR, NO_CLOUD, CANNOT_TELL = 0, 10, 20, 30
HOSTILE = MODEM_SIM + "provider"


class Status:
    """orv-status, run on the gateway."""

    def __init__(self, box: Box) -> None:
        self.box = box

    def run(self, *options: str) -> subprocess.CompletedProcess[bytes]:
        words = self.box.on_gateway(program("orv-status"), *options)
        return subprocess.run(words, env=self.box.environment, capture_output=True, timeout=SLACK, check=False)

    def text(self, *options: str) -> str:
        return self.run(*options).stdout.decode("utf-8")

    def seen(self) -> dict[str, Any]:
        """The object of one call, which agrees with the schema and with the exit status."""
        done = self.run("--json")
        seen: dict[str, Any] = json.loads(done.stdout)
        jsonschema.validate(seen, SCHEMA)
        assert done.returncode == seen["exit_status"]
        return seen

    def becomes(self, *expected: str | int, seconds: float = 0) -> dict[str, Any]:
        """Waits until broker, ConnMan, application and exit status are as expected; returns the object."""
        last: list[dict[str, Any]] = []

        def there() -> bool:
            last.append(self.seen())
            return of_parts(last[-1]) == expected

        wait_until(there, seconds + SLACK, lambda: f"{expected}, but {last[-1]}")
        return last[-1]


def of_parts(seen: dict[str, Any]) -> tuple[str | int, ...]:
    return seen["broker"]["state"], seen["connman"]["state"], seen["application"]["state"], seen["exit_status"]


@pytest.fixture
def status(box: Box) -> Status:
    return Status(box)


@pytest.fixture
def application(box: Box, tmp_path: pathlib.Path) -> subprocess.Popen[str]:
    """gateway-app with a connection to the cloud; it may be killed."""
    with open(tmp_path / "app.log", "wb") as log:
        return box.start(program("gateway-app"), "--cloud-host", "cloud.box.test", stdout=log, stderr=log)


def publish(box: Box, topic: str, payload: bytes) -> None:
    words = box.on_gateway("mosquitto_pub", "-t", topic, "-r", "-s")
    subprocess.run(words, env=box.environment, input=payload, check=True)


def test_a_healthy_gateway_is_on_ethernet(status: Status, application: subprocess.Popen[str]) -> None:
    seen = status.becomes("present", "present", "running", HEALTHY)
    wait_until(lambda: status.seen()["leds"] == {"green": "on", "yellow": "off"}, SLACK, "the LEDs")
    assert (seen["cloud"]["state"], seen["cloud"]["path"]) == ("connected", "ethernet")
    assert seen["cloud"]["basis"] == "gateway-app says so"
    assert seen["network"]["default_routes"][0]["interface"] == "eth0"
    assert [service["interface"] for service in seen["connman"]["services"]] == ["eth0", "wwan0"]
    assert status.text().startswith("cloud        connected over Ethernet in IPv4 since ")
    assert "orv_fail_overs_total 0\n" in status.text("--metrics")
    assert status.run("--quiet").stdout == b""
    application.terminate()
    application.wait(timeout=SLACK)
    assert status.becomes("present", "present", "ended", CANNOT_TELL)["application"]["status"]["running"] is False


@pytest.mark.parametrize("box", ["eth=46,cell=6"], indirect=True)
def test_the_family_in_use_is_named_and_addresses_of_both_count(
    box: Box, status: Status, application: subprocess.Popen[str]
) -> None:
    seen = status.becomes("present", "present", "running", HEALTHY)
    assert seen["cloud"]["family"] == seen["application"]["status"]["cloud"]["family"] == "IPv6"
    assert status.text().startswith("cloud        connected over Ethernet in IPv6 since ")
    assert "not possible" not in status.text()  # Cellular has no IPv4, and could take over all the same
    ethernet, cellular = (one["addresses"] for one in seen["network"]["interfaces"])
    assert any("." in one for one in ethernet) and any(":" in one for one in ethernet)
    assert cellular and all(":" in one and not one.startswith("fe80") for one in cellular)
    routes = [(route["family"], route["interface"]) for route in seen["network"]["default_routes"]]
    assert routes[:2] == [("IPv4", "eth0"), ("IPv6", "eth0")] and ("IPv6", "wwan0") in routes
    box("provider", "eth", "dead")
    seen = status.becomes("present", "present", "running", ON_CELLULAR, seconds=20)
    assert seen["network"]["default_routes"][0]["interface"] == "wwan0"
    assert seen["network"]["path"] == "cellular" and seen["cloud"]["family"] == "IPv6"


@pytest.mark.parametrize("broker, connman, app", itertools.product((True, False), repeat=3))
def test_whatever_part_is_away_the_others_are_shown(
    box: Box, status: Status, application: subprocess.Popen[str], broker: bool, connman: bool, app: bool
) -> None:
    status.becomes("present", "present", "running", HEALTHY)
    if not app:
        application.send_signal(signal.SIGKILL)
        application.wait(timeout=SLACK)
    if not connman:
        box("connman", "stop")
    if not broker:
        box("broker", "stop")
    # Without ConnMan the addresses and routes are gone, and with them the cloud.
    cloud = (HEALTHY if connman else NO_CLOUD) if app else CANNOT_TELL
    seen = status.becomes(
        "present" if broker else "away", "present" if connman else "away", "running" if app else "gone", cloud
    )
    assert (seen["leds"]["green"] == "unknown") == (not broker)
    assert (seen["connman"]["services"] == []) == (not connman)
    assert status.text().count("\n") >= 8


def test_what_the_platform_has_lost_is_counted(box: Box, status: Status, application: subprocess.Popen[str]) -> None:
    status.becomes("present", "present", "running", HEALTHY)
    assert "orv_broker_losses_total 0\n" in status.text("--metrics")
    box("broker", "stop")
    box("broker", "start")
    # The library has two connections.
    wait_until(lambda: "orv_broker_losses_total 2\n" in status.text("--metrics"), SLACK, "two losses")
    metrics = status.text("--metrics")
    assert "\norv_refused_publications_total " in metrics
    assert "\norv_lost_log_records_total 0\n" in metrics


def test_whichever_parts_are_frozen_nobody_is_held_up(
    box: Box, status: Status, application: subprocess.Popen[str]
) -> None:
    every = ("broker", "connman", "bus")
    for parts in itertools.chain.from_iterable(itertools.combinations(every, count) for count in (1, 2, 3)):
        status.becomes("present", "present", "running", HEALTHY)
        for part in parts:
            box(part, "freeze")
        seen = status.seen()
        assert seen["exit_status"] == HEALTHY, parts  # by the application's own word
        for told, frozen in (("broker", "broker" in parts), ("connman", parts != ("broker",))):
            assert (seen[told]["state"] != "present") == frozen, parts
            assert bool(seen[told]["reason"]) == frozen, parts
        for part in reversed(parts):
            box(part, "thaw")
    status.becomes("present", "present", "running", HEALTHY)


def test_a_stuck_application_is_not_believed(status: Status, application: subprocess.Popen[str]) -> None:
    status.becomes("present", "present", "running", HEALTHY)
    application.send_signal(signal.SIGSTOP)
    wait_until(lambda: status.seen()["application"]["state"] == "stuck", 35 + SLACK, "the application to be stuck")
    assert status.seen()["exit_status"] == CANNOT_TELL
    application.send_signal(signal.SIGCONT)
    status.becomes("present", "present", "running", HEALTHY)


@pytest.mark.parametrize(
    "payload",
    [
        b"x" * 1_000_000,
        bytes(range(1, 32)) + b"\x7f\x1b[2J\x1b]0;title\x07\xc2\x9b",
        b"<script>alert(1)</script>\"'&",
        b"\xff\xfe\xe2\x80\xae\x00\xf0\x9f",
    ],
    ids=["a megabyte", "control characters", "markup", "no UTF-8"],
)
def test_a_hostile_payload_is_shown_harmlessly(box: Box, status: Status, payload: bytes) -> None:
    publish(box, HOSTILE, payload)
    publish(box, GREEN, payload)
    raw = status.run("--json").stdout
    seen = json.loads(raw)
    jsonschema.validate(seen, SCHEMA)
    (topic,) = [topic for topic in seen["topics"] if topic["topic"] == HOSTILE]
    assert topic["bytes"] == len(payload) and topic["retained"]
    assert all(character.isprintable() for character in topic["payload"]) and len(topic["payload"]) <= 800
    assert seen["leds"]["green"] == "unknown"
    table = status.text()
    assert all(character.isprintable() for character in table.replace("\n", ""))
    assert len(table) < 4000


def test_a_fail_over_is_followed(
    box: Box, status: Status, application: subprocess.Popen[str], tmp_path: pathlib.Path
) -> None:
    status.becomes("present", "present", "running", HEALTHY)
    with open(tmp_path / "followed.jsonl", "wb") as output:
        follower = box.start(program("orv-status"), "--follow", "--json", stdout=output, stderr=subprocess.DEVNULL)

    def seen() -> list[dict[str, Any]]:
        lines = (tmp_path / "followed.jsonl").read_text(encoding="utf-8").splitlines(keepends=True)
        return [json.loads(line) for line in lines if line.endswith("\n")]

    def course() -> list[int]:
        return [exit_status for exit_status, _ in itertools.groupby(one["exit_status"] for one in seen())]

    wait_until(lambda: course() == [HEALTHY], SLACK, "the first object")
    box("provider", "eth", "dead")
    wait_until(lambda: course() == [HEALTHY, NO_CLOUD, ON_CELLULAR], 20 + SLACK, lambda: f"the fail-over in {course()}")
    box("provider", "eth", "back")
    wait_until(lambda: course()[-1] == HEALTHY and len(course()) > 3, 20 + SLACK, lambda: f"the return in {course()}")
    for one in seen():
        jsonschema.validate(one, SCHEMA)
    assert any(one["leds"]["yellow"] == "blink" for one in seen())
    retained = {topic["topic"]: topic["retained"] for topic in seen()[-1]["topics"]}
    assert retained[YELLOW] is True  # though it has changed since orv-status connected
    reasons = [one["application"]["status"]["route"]["last_move"] for one in seen()]
    assert "a poke over Cellular succeeded" in [move for move in reasons if move][0]["reason"]
    follower.terminate()
    assert follower.wait(timeout=SLACK) == HEALTHY


def test_who_follows_and_goes_away_leaves_nothing_behind(box: Box) -> None:
    following = box.start(program("orv-status"), "--follow", "--json", stdout=subprocess.PIPE)
    assert following.stdout
    assert json.loads(following.stdout.readline())["version"] == 1
    following.stdout.close()
    following.wait(SLACK)
