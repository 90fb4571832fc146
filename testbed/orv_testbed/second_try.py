# SPDX-License-Identifier: Apache-2.0
"""A pytest plugin for scenarios (`-p orv_testbed.second_try --reruns 1`): says which needed a second try.

Scenarios run real programs in real time, several at once. One that fails is tried once more, and is named at the end, and
in the file second-tries of $ORV_REPORTS. More than LIMIT second tries in a run are no accident: then the run has failed.
"""
from __future__ import annotations

import os
import pathlib
from typing import Any

import pytest

LIMIT = 2

failed_first: list[pytest.TestReport] = []


def pytest_configure(config: pytest.Config) -> None:
    if not config.pluginmanager.hasplugin("rerunfailures"):
        raise pytest.UsageError("second tries need the Debian package python3-pytest-rerunfailures")
    failed_first.clear()


def pytest_runtest_logreport(report: pytest.TestReport) -> None:
    if report.outcome == "rerun":  # type: ignore[comparison-overlap]
        failed_first.append(report)


def pytest_sessionfinish(session: pytest.Session) -> None:
    folder = os.environ.get("ORV_REPORTS")
    if folder and failed_first:
        names = "".join(f"{report.nodeid}\n" for report in failed_first)
        pathlib.Path(folder, "second-tries").write_text(names, encoding="utf-8")
    if len(failed_first) > LIMIT:
        session.exitstatus = pytest.ExitCode.TESTS_FAILED


def pytest_terminal_summary(terminalreporter: Any) -> None:
    for report in failed_first:
        terminalreporter.section(f"needed a second try: {report.nodeid}")
        terminalreporter.write_line(report.longreprtext)
    if len(failed_first) > LIMIT:
        terminalreporter.write_line(f"{len(failed_first)} second tries, more than {LIMIT}: the run has failed")
