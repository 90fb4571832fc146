# SPDX-License-Identifier: Apache-2.0
"""A page on which very much happens keeps no more than it shows, and obeys."""
from __future__ import annotations

from collections.abc import Iterator
from typing import Any

import pytest

from browser import Browser, Page
from orv_testbed.panel.hub import MOST_DECISIONS, MOST_EVENTS, Hub
from orv_testbed.panel.server import Server
from orv_testbed.panel.tests.samples import as_read

ROUND = 20_000  # events, of which each page is to hear


class Flood:
    """A gateway whose LED, decisions and faults change as fast as they can be told, in the time of a few seconds."""

    def __init__(self) -> None:
        self.hub = Hub()
        self.hub.put("gateway", {"on": "flood", "box": None})
        self.hub.put("source", {"state": "running", "words": "", "command": "flood"})
        self.hub.take(as_read())
        self.server = Server(self.hub, 0)
        self.server.start()
        self.count = 0

    def rise(self) -> None:
        for _ in range(ROUND // 2):
            self.count += 1
            self.hub.lane("green LED", "Blink" if self.count % 2 else "On")
            self.hub.mark(f"fault {self.count}")
            if self.count % 10 == 0:
                self.hub.decision(f"decision {self.count}")


@pytest.fixture
def flood() -> Iterator[Flood]:
    made = Flood()
    yield made
    made.server.stop()


def weight(browser: Browser) -> dict[str, float]:
    """What the page holds once what is thrown away is gone."""
    browser.cdp_command("HeapProfiler.collectGarbage")
    metrics = {one["name"]: one["value"] for one in browser.cdp_command("Performance.getMetrics")["metrics"]}
    return {"elements": browser.run("return document.querySelectorAll('*').length"), "heap": metrics["JSHeapUsedSize"]}


def settled(page: Page, flood: Flood) -> dict[str, Any]:
    """After the page has shown the last decision."""
    page.wait(lambda: page.all("#decisions li:first-child span") == [f"decision {flood.count}"], "the last decision")
    return weight(page.browser)


def test_tens_of_thousands_of_events_leave_the_page_small_and_obedient(flood: Flood, browser: Browser) -> None:
    browser.size()
    browser.prefer()
    browser.cdp_command("Performance.enable")
    page = Page(browser, flood.server.url).open()
    flood.rise()
    first = settled(page, flood)
    for _ in range(3):
        flood.rise()
    last = settled(page, flood)
    assert len(flood.hub.events) == MOST_EVENTS
    assert len(page.all("#decisions li")) == MOST_DECISIONS
    assert last["elements"] < 10_000
    # A page that kept everything would have grown by three times what it had held.
    assert last["heap"] < 1.5 * first["heap"] + 1e6, (first, last)

    assert page.bars("default route") == ["eth0"], "a lane that stands still outlives the flood"
    for name, label in (("pause", "Paused"), ("out", "2 min"), ("in", "1 min"), ("pause", "Pause")):
        page.browser.run("document.getElementById(arguments[0]).click()", name)
        shown = "span" if name in ("in", "out") else "pause"
        page.wait(lambda: page.text(shown) == label, f"{label} shown")  # noqa: B023
    flood.hub.lane("default route", "wwan0")
    page.wait(lambda: page.bars("default route") == ["eth0", "wwan0"], "what comes after the flood")
    later = Page(browser, flood.server.url).open()
    assert later.bars("default route") == ["eth0", "wwan0"], "what a page gets that comes after the flood"
