# SPDX-License-Identifier: Apache-2.0
"""What script/chaos demands of a gateway whose faults are over, behind one fault that is well understood."""
from __future__ import annotations

import pathlib

from orv_testbed.box import Box
from orv_testbed.chaos.on_box import GatewayOnBox
from orv_testbed.chaos.play import Clock, play
from orv_testbed.chaos.schedule import Schedule, Strike


def test_a_round_of_chaos_with_a_provider_that_dies_and_comes_back_finds_nothing(
    box: Box, tmp_path: pathlib.Path
) -> None:
    schedule = Schedule(0, (Strike(2, 25, ("provider", "eth", "dead")),))
    gateway = GatewayOnBox(box, tmp_path, schedule)
    assert play(schedule, gateway, Clock()) == []
