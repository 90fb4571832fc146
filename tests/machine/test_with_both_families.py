# SPDX-License-Identifier: Apache-2.0
"""A machine of its own, whose providers have both IP families. After all others, whose machine has IPv4 alone."""
from __future__ import annotations

import pathlib

import pytest

from orv_testbed.machine.scene import MachineScene
from tests.system import test_both_families


@pytest.mark.skipif(not pathlib.Path("/proc/sys/net/ipv6").is_dir(), reason="this machine has no IPv6")
@pytest.mark.parametrize("machine", ["eth=46,cell=46"], indirect=True)
def test_the_cloud_stays_on_ethernet_without_ipv4_and_moves_with_the_provider(scene: MachineScene) -> None:
    test_both_families.test_a_family_that_breaks_on_ethernet_costs_no_switch(scene, "ipv4 eth dead", "4", "6")
    scene.box("ipv4", "eth", "back")
    test_both_families.test_the_cloud_is_reached_over_the_interface_that_has_the_route(scene)
