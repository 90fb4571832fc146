# SPDX-License-Identifier: Apache-2.0
"""What pages get of the hub."""
from __future__ import annotations

from orv_testbed.panel.hub import MOST_EVENTS, Hub, Seen
from orv_testbed.panel.tests.samples import as_read


class Clock:
    time = 50.0

    def __call__(self) -> float:
        return self.time


def values(message: dict[str, object], lane: str) -> list[str]:
    events = message.get("events", [])
    assert isinstance(events, list)
    return [event["value"] for event in events if event.get("lane") == lane]


def test_a_page_gets_everything_first_and_then_what_is_newer() -> None:
    hub, page = Hub(Clock()), Seen()
    hub.take(as_read())
    first = hub.newer(page, 0)
    assert first["whole"] and first["status"]["leds"]["green"] == "on" and values(first, "green LED") == ["On"]
    assert hub.newer(page, 0) == {"now": 1000.0}
    hub.take(as_read(leds__green="blink"))
    second = hub.newer(page, 0)
    assert "whole" not in second and values(second, "green LED") == ["Blink"] and values(second, "yellow LED") == []


def test_a_page_that_was_slow_gets_the_latest_status_once_and_no_event_less() -> None:
    hub, quick, slow = Hub(Clock()), Seen(), Seen()
    for page in (quick, slow):
        hub.newer(page, 0)
    told = []
    for green in ("on", "off", "blink"):
        hub.take(as_read(leds__green=green))
        told += values(hub.newer(quick, 0), "green LED")
    late = hub.newer(slow, 0)
    assert told == values(late, "green LED") == ["On", "Off", "Blink"]
    assert late["status"]["leds"]["green"] == "blink"


def test_the_gateways_clock_goes_on_between_its_words() -> None:
    clock = Clock()
    hub = Hub(clock)
    assert hub.now() is None
    hub.take(as_read())
    clock.time += 7
    assert hub.now() == 1007
    hub.mark("cable out")
    assert hub.events[-1] == {"t": 1007.0, "mark": "cable out"}


def test_a_gateway_that_has_started_anew_begins_a_new_timeline() -> None:
    hub, page = Hub(Clock()), Seen()
    hub.take(as_read())
    hub.newer(page, 0)
    hub.take(as_read(monotonic=3.0, leds__green="off"))
    message = hub.newer(page, 0)
    assert message["whole"] and values(message, "green LED") == ["Off"]


def test_bars_end_where_nothing_is_known_and_begin_again() -> None:
    hub, page = Hub(Clock()), Seen()
    hub.take(as_read())
    hub.lose_sight()
    hub.take(as_read())
    assert values(hub.newer(page, 0), "green LED") == ["On", "", "On"]


def test_what_is_kept_has_an_end() -> None:
    hub, page = Hub(Clock()), Seen()
    hub.take(as_read())
    for number in range(MOST_EVENTS + 5):
        hub.mark(str(number))
    events = hub.newer(page, 0)["events"]
    assert len(events) <= MOST_EVENTS + len(hub.lanes) and events[-1]["mark"] == str(MOST_EVENTS + 4)


def test_a_section_that_has_not_changed_is_not_told_again() -> None:
    hub, page = Hub(Clock()), Seen()
    hub.put("faults", {"in_force": []})
    hub.newer(page, 0)
    hub.put("faults", {"in_force": []})
    assert "faults" not in hub.newer(page, 0)


def test_a_lane_that_stood_still_while_much_has_happened_is_known_to_a_page_that_comes_later() -> None:
    hub, early, late = Hub(Clock()), Seen(), Seen()
    hub.take(as_read())
    hub.newer(early, 0)
    for number in range(2 * MOST_EVENTS):
        hub.lane("green LED", "On" if number % 2 else "Blink")
    for page in (early, late):
        message = hub.newer(page, 0)
        assert values(message, "default route") == ["eth0"]
        assert values(message, "green LED")[-2:] == ["Blink", "On"]
        assert len(message["events"]) <= MOST_EVENTS + len(hub.lanes)
