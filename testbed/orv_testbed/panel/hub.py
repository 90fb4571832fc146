# SPDX-License-Identifier: Apache-2.0
"""What is known of the gateway now, and what has happened; each page takes from it at its own pace.

Nothing is queued for a page: it has seen sections up to a version and events up to a number, and gets what is newer. So a
slow page holds up nobody, and costs nothing.
"""
from __future__ import annotations

import collections
import threading
import time
from collections.abc import Callable
from typing import Any

from orv_testbed.panel import history

MOST_EVENTS = 8000
MOST_DECISIONS = 200


class Seen:
    """What one page has got."""

    def __init__(self) -> None:
        self.begin(-1)

    def begin(self, epoch: int) -> None:
        self.epoch = epoch
        self.versions: dict[str, int] = {}
        self.counts = {"events": 0, "decisions": 0}


class Hub:
    """Safe to be called from any thread."""

    def __init__(self, clock: Callable[[], float] = time.monotonic) -> None:
        self.clock = clock
        self.news = threading.Condition()
        self.over = threading.Event()
        self.epoch = 0  # another one begins when the gateway's clock does
        self.sections: dict[str, tuple[int, Any]] = {}
        self.events: collections.deque[dict[str, Any]] = collections.deque(maxlen=MOST_EVENTS)
        self.decisions: collections.deque[dict[str, Any]] = collections.deque(maxlen=MOST_DECISIONS)
        self.counted = {"events": 0, "decisions": 0}
        self.lanes: dict[str, str] = {}
        self.forgotten: dict[str, dict[str, Any]] = {}  # lane -> its last event that is kept no more
        self.offset: float | None = None  # the gateway's clock less our own
        self.last: dict[str, Any] | None = None

    def now(self) -> float | None:
        """What the gateway's clock shows; None before it has told."""
        return None if self.offset is None else self.clock() + self.offset

    def put(self, name: str, value: Any) -> None:
        """A section's new value, such as the faults in force."""
        with self.news:
            self._put(name, value)

    def _put(self, name: str, value: Any) -> None:
        version, before = self.sections.get(name, (0, None))
        if version == 0 or before != value:
            self.sections[name] = (version + 1, value)
            self.news.notify_all()

    def take(self, status: dict[str, Any]) -> None:
        """A new status of the gateway."""
        with self.news:
            now = self.now()
            if (
                now is not None and status["monotonic"] < now - 60
            ):  # it has started anew; statuses are not a minute late
                self._begin_anew()
            self.offset = status["monotonic"] - self.clock()
            for lane, value in history.lanes(status).items():
                self._lane(lane, value)
            for words in history.in_words(self.last, status):
                self._decision(words, status["time"])
            self.last = status
            self._put("status", status)

    def _begin_anew(self) -> None:
        self.epoch += 1
        self.events.clear()
        self.forgotten.clear()
        self.lanes.clear()
        self.offset = self.last = None

    def lose_sight(self) -> None:
        """Nothing is known any more until the next status: the bars of the timeline end."""
        with self.news:
            for lane in self.lanes:
                self._lane(lane, "")

    def lane(self, lane: str, value: str) -> None:
        """A lane that no status tells of has a new value."""
        with self.news:
            self._lane(lane, value)

    def mark(self, text: str) -> None:
        """Something was done to the gateway."""
        with self.news:
            self._event({"mark": text})

    def decision(self, words: str) -> None:
        with self.news:
            self._decision(words, time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime()))

    def _decision(self, words: str, when: str) -> None:
        self.decisions.append({"time": when, "words": words})
        self.counted["decisions"] += 1
        self.news.notify_all()

    def _lane(self, lane: str, value: str) -> None:
        if self.now() is not None and self.lanes.get(lane, "") != value:
            self.lanes[lane] = value
            self._event({"lane": lane, "value": value})

    def _event(self, event: dict[str, Any]) -> None:
        now = self.now()
        if now is None:  # there is no time to note it at before the first status
            return
        if len(self.events) == MOST_EVENTS and "lane" in (oldest := self.events[0]):
            self.forgotten[oldest["lane"]] = oldest
        self.events.append({"t": round(now, 3), **event})
        self.counted["events"] += 1
        self.news.notify_all()

    def close(self) -> None:
        """Ends all waiting."""
        self.over.set()
        with self.news:
            self.news.notify_all()

    def newer(self, seen: Seen, seconds: float) -> dict[str, Any]:
        """Waits until there is something that the page has not seen, or for so long; then that, and the time."""
        with self.news:
            self.news.wait_for(lambda: self.over.is_set() or self._has_news(seen), seconds)
            whole = seen.epoch != self.epoch
            if whole:
                seen.begin(self.epoch)
            message: dict[str, Any] = {"now": self.now()}
            for name, (version, value) in self.sections.items():
                if seen.versions.get(name) != version:
                    seen.versions[name] = version
                    message[name] = value
            for name, entries in (("events", self.events), ("decisions", self.decisions)):
                fresh = self.counted[name] - seen.counts[name]
                seen.counts[name] = self.counted[name]
                if fresh > 0:
                    message[name] = list(entries)[-fresh:]
                if name == "events" and fresh > len(entries):
                    message[name] = [*self.forgotten.values(), *message[name]]  # a lane that stands still is known, too
            if whole:
                message["whole"] = True
            return message

    def _has_news(self, seen: Seen) -> bool:
        return (
            seen.epoch != self.epoch
            or seen.counts != self.counted
            or any(seen.versions.get(name) != version for name, (version, _) in self.sections.items())
        )
