# SPDX-License-Identifier: Apache-2.0
from __future__ import annotations

from typing import Any

import pytest

from orv_testbed.calls import Calls
from orv_testbed.fixtures import box, judge_calls, make_scene, scene  # noqa: F401


def pytest_collection_modifyitems(items: list[pytest.Item]) -> None:
    """The long ones are spread over the first half: none is left to the end, and no process gets two in a row."""
    long = [item for item in items if item.get_closest_marker("long")]
    others = [item for item in items if item not in long]
    step = len(items) // (2 * len(long)) if long else 0
    for number, item in enumerate(long):
        others.insert(number * step, item)
    items[:] = others


def pytest_terminal_summary(terminalreporter: Any) -> None:
    calls = Calls()
    for reports in terminalreporter.stats.values():
        for report in reports:
            if getattr(report, "when", None) == "teardown":
                for name, figures in report.user_properties:
                    if name == "calls":
                        calls.add(report.nodeid.split("::")[-1], figures)
    for line in calls.lines():
        terminalreporter.write_line(line)
