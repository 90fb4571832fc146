# SPDX-License-Identifier: Apache-2.0
"""One machine for all scenarios, which run in their order: each leaves it connected over Ethernet."""
from __future__ import annotations

import os
import pathlib
import shutil
from collections.abc import Iterator

import pytest

from orv_testbed.machine.gateway import Gateway


@pytest.fixture(scope="session")
def machine() -> Iterator[Gateway]:
    gateway = Gateway(f"m{os.getpid():x}")
    try:
        gateway.box("up", "--machine", "mipsel", seconds=300)
        yield gateway
        kept = pathlib.Path(os.environ.get("ORV_MACHINE_CONSOLE", ""))
        if kept.name:
            shutil.copy(gateway.machine / "console", kept)
    finally:
        gateway.box("down")


@pytest.fixture
def gateway(machine: Gateway) -> Gateway:
    machine.wait_for_cloud("eth0", 90)
    return machine
