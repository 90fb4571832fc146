# SPDX-License-Identifier: Apache-2.0
"""Scenarios of the gateway box, the same sources, on the machine."""
from __future__ import annotations

import pytest

from orv_testbed.machine.scene import MachineScene
from tests.system import test_fail_over

test_a_lost_provider_moves_the_cloud_to_cellular_and_back = (
    test_fail_over.test_a_lost_provider_moves_the_cloud_to_cellular_and_back
)


@pytest.mark.long
def test_a_short_loss_moves_nothing(scene: MachineScene) -> None:
    test_fail_over.test_a_short_loss_moves_nothing(scene)
