# SPDX-License-Identifier: Apache-2.0
"""The lanes and the decisions that statuses tell of."""
from __future__ import annotations

from orv_testbed.panel import history
from orv_testbed.panel.tests.samples import FAIL_OVER, POKE, as_read


def test_a_status_gives_each_lane_its_value() -> None:
    assert history.lanes(as_read()) == {
        "green LED": "On",
        "yellow LED": "Off",
        "DNS topic": "permit",
        "default route": "eth0",
        "cloud connection": "Ethernet",
    }


def test_what_is_not_known_has_no_bar_and_what_is_not_there_has_one() -> None:
    lanes = history.lanes(as_read(cloud__state="unknown", leds__green="unknown", network__state="unknown", topics=[]))
    assert lanes == {key: "" for key in lanes} | {"yellow LED": "Off"}
    assert history.lanes(as_read(cloud__state="disconnected"))["cloud connection"] == "none"
    assert history.lanes(as_read(network__default_routes=[]))["default route"] == "none"


def test_a_fail_over_is_told_with_its_reason_and_how_long_it_took() -> None:
    after = as_read(application__status__route__last_move=FAIL_OVER, application__status__pokes=[POKE])
    assert history.in_words(as_read(), after) == [
        "Route moved from Ethernet to Cellular: the cloud was lost on Ethernet (no sign of life) and a poke over Cellular "
        "succeeded; 12.3 s since the loss, poke and switch 0.3 s at most"
    ]
    assert history.in_words(after, after) == []


def test_a_move_that_was_before_the_panel_is_told_once() -> None:
    moved = as_read(application__status__route__last_move=FAIL_OVER)
    assert len(history.in_words(None, moved)) == 1
    assert history.in_words(None, as_read()) == []


def test_the_cloud_is_told_of_when_it_comes_and_goes() -> None:
    lost = as_read(cloud__state="disconnected", cloud__path="none", cloud__reason="no sign of life")
    assert history.in_words(as_read(), lost) == ["Cloud lost on Ethernet: no sign of life"]
    assert history.in_words(lost, as_read(cloud__path="cellular")) == ["Cloud connected over Cellular"]


def test_a_poke_that_failed_is_told_with_its_cause() -> None:
    failed = {**POKE, "result": "failed", "text": "no address"}
    assert history.in_words(as_read(), as_read(application__status__pokes=[failed])) == [
        "Poke over Cellular failed: no address"
    ]


def test_parts_that_go_away_are_told_of() -> None:
    after = as_read(broker__state="away", broker__reason="Connection refused")
    assert history.in_words(as_read(), after) == ["Broker away: Connection refused"]
    unplugged = as_read()
    unplugged["network"]["interfaces"][0]["running"] = False
    assert history.in_words(as_read(), unplugged) == ["eth0 has no link"]
