# SPDX-License-Identifier: Apache-2.0
"""One machine for all scenarios with the same IP families, which run in their order: each leaves it connected over Ethernet."""
from __future__ import annotations

import os
from collections.abc import Iterator

import pytest

from orv_testbed.machine.gateway import Gateway
from orv_testbed.machine.scene import MachineScene


@pytest.fixture(scope="session")
def machine(request: pytest.FixtureRequest) -> Iterator[Gateway]:
    """The fixture's parameter, if it has one, is what `box up --families` is told."""
    with Gateway(f"m{os.getpid():x}", getattr(request, "param", None)) as gateway:
        yield gateway
        if kept := os.environ.get("ORV_MACHINE_CONSOLE"):
            with open(kept, "ab") as all_boots:
                all_boots.write((gateway.machine / "console").read_bytes())


@pytest.fixture
def gateway(machine: Gateway) -> Gateway:
    machine.take_back_faults()
    machine.wait_for_cloud("eth0", 90)
    return machine


@pytest.fixture
def scene(gateway: Gateway) -> Iterator[MachineScene]:
    """The machine as the box's scenarios know a gateway: with a fresh broker, the cloud connected over Ethernet."""
    made = MachineScene(gateway)
    try:
        made.start()
        yield made
        made.application.stop()
        made.audit()
    finally:
        print(made.application.log())  # shown when something has failed
        made.close()
