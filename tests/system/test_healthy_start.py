# SPDX-License-Identifier: Apache-2.0
"""A start on a gateway where all is well leaves nothing in the log that somebody would look into."""
from __future__ import annotations

import pathlib

from orv_testbed.application import Application
from orv_testbed.box import Box
from orv_testbed.topics import of_feature
from orv_testbed.waiting import SLACK, wait_until

# The library's own, whose texts and levels are fixed: it hears the echo of the state that it has announced itself.
ECHOES = [
    f"[OrvSessionMqtt] (topic={of_feature('gateway-app', 'init')}, message={state}): Message is not handled"
    for state in ("booting", "ready")
]


def test_a_healthy_start_leaves_no_warning_but_the_echo_of_its_own_state(box: Box, tmp_path: pathlib.Path) -> None:
    application = Application(box, tmp_path)
    application.wait_for("connected to the cloud, from ", 10)
    wait_until(lambda: application.status()["cloud"]["state"] == "connected", SLACK, "the status")
    wait_until(lambda: all(echo in application.complaints() for echo in ECHOES), SLACK, "the echoes")
    assert application.status()["route"]["no_fail_over"] == ""
    application.process.terminate()
    application.process.wait(timeout=SLACK)
    assert application.complaints() == ECHOES
