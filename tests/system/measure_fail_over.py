# SPDX-License-Identifier: Apache-2.0
"""script/measure fail-over [TIMES] [TICK-MS]

Measures fail-overs to Cellular and returns to Ethernet on a gateway box, end to end and phase by phase, and how long the
library's calls took. Prints milliseconds: median and worst. Asserts nothing. With TMPDIR=/dev/shm no disk takes part.
TICK-MS is a fixed time between ticks; 0, the default: gateway-app's own rhythm. A fail-over shortly after another one puts
Ethernet on probation, so each is measured with an application of its own.
"""
from __future__ import annotations

import os
import pathlib
import statistics
import sys
import tempfile
import time
from collections.abc import Sequence

from orv_testbed.application import Application
from orv_testbed.box import Box
from orv_testbed.calls import Calls
from orv_testbed.timestamps import at

FAIL_OVER = (
    ("detection", "eth cloud lost, start delay"),
    ("delay", "Started Poke to cell"),
    ("poke", "poke success, route to Cell"),
    ("connection manager", "wwan0 is put on top"),
    ("reconnect", "connected to the cloud, from"),
)
RETURN = (
    ("poke", "poke success, route to ETH"),
    ("connection manager", "eth0 is put on top"),
    ("reconnect", "connected to the cloud, from"),
)


def phases(
    application: Application, steps: Sequence[tuple[str, str]], begun: float, since: int
) -> tuple[dict[str, float], int]:
    """Waits for each step in turn and returns the milliseconds that it took, the whole last."""
    result, before = {}, begun
    for phase, text in steps:
        since = application.wait_for(text, 60, since)
        line = application.log()[:since].rsplit("\n", 1)[1]
        now = at(line.split(" ", 1)[0])
        result[phase] = (now - before) * 1000
        before = now
    result["whole"] = (before - begun) * 1000
    return result, since


def report(title: str, runs: list[dict[str, float]]) -> None:
    print(f"{title}, {len(runs)} times: median, worst [ms]")
    for phase in runs[0]:
        values = [run[phase] for run in runs]
        print(f"  {phase:20} {statistics.median(values):8.0f} {max(values):8.0f}")


def main() -> None:
    times = int(sys.argv[1]) if len(sys.argv) > 1 else 10
    tick = sys.argv[2] if len(sys.argv) > 2 else "0"
    overs, returns = [], []
    calls = Calls()
    with tempfile.TemporaryDirectory() as folder, Box(f"m{os.getpid():x}") as box:
        for number in range(times):
            path = pathlib.Path(folder) / str(number)
            path.mkdir()
            application = Application(box, path, "--tick-ms", tick)
            application.wait_for_cloud("eth0", 10)
            place = application.wait_for("Cloud connected with Ethernet interface", 5)
            begun = time.time()
            box("provider", "eth", "dead")
            result, place = phases(application, FAIL_OVER, begun, place)
            overs.append(result)
            place = application.wait_for("Started Poke eth if eth0", 10, place)
            begun = time.time()
            box("provider", "eth", "back")
            result, place = phases(application, RETURN, begun, place)
            returns.append(result)
            application.wait_for("Cloud connected with Ethernet interface", 10, place)
            calls.add(str(number), application.stop())
    report("fail-over to Cellular", overs)
    report("return to Ethernet", returns)
    for line in calls.lines():
        print(line)


main()
