# SPDX-License-Identifier: Apache-2.0
"""One machine for all scenarios, which run in their order: each leaves it connected over Ethernet."""
from __future__ import annotations

import os
import pathlib
import shutil
from collections.abc import Iterator

import pytest

from orv_testbed.machine.gateway import Gateway
from orv_testbed.machine.scene import MachineScene


@pytest.fixture(scope="session")
def machine() -> Iterator[Gateway]:
    with Gateway(f"m{os.getpid():x}") as gateway:
        yield gateway
        kept = pathlib.Path(os.environ.get("ORV_MACHINE_CONSOLE", ""))
        if kept.name:
            shutil.copy(gateway.machine / "console", kept)


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
