# SPDX-License-Identifier: Apache-2.0
"""Services that are killed or frozen, and what systemd makes of it; a gateway that runs out of disk or memory."""
from __future__ import annotations

import re
from collections.abc import Iterator

import pytest

from orv_testbed.machine import agent
from orv_testbed.machine.gateway import SERVICES, Gateway
from orv_testbed.status_files import STATUSES
from orv_testbed.topics import GREEN, INHIBIT_DNS


def fail_over_and_return(gateway: Gateway) -> None:
    gateway("provider", "eth", "dead")
    gateway.wait_for_cloud("wwan0", 60)
    gateway.wait(lambda: gateway.kept(INHIBIT_DNS) == "inhibit", 10, "the DNS topic")
    gateway("provider", "eth", "back")
    gateway.wait_for_cloud("eth0", 60)
    gateway.wait(lambda: gateway.kept(INHIBIT_DNS) == "permit", 10, "the DNS topic")


def test_a_boot_ends_connected_with_every_service_up(gateway: Gateway) -> None:
    assert gateway.sh("uname -m") == "mips"
    assert gateway.failed_units() == ""
    for unit in SERVICES:
        assert gateway.property(unit, "ActiveState") == "active", gateway.journal(unit)
    assert gateway.sh("ps -o user= -C gateway-app") == "orv"
    gateway.wait(lambda: gateway.kept(GREEN) == "On", 10, "the green LED")
    gateway.wait(gateway.says_up, 10, "the status file")
    assert gateway.sh(f"stat -c %U {STATUSES}") == "orv"
    assert "Operation not permitted" not in gateway.journal("gateway-app")


def test_no_interrupt_of_a_card_is_lost_to_one_that_shares_its_line(gateway: Gateway) -> None:
    lines = [int(line.split(":")[0]) for line in gateway.sh("grep virtio /proc/interrupts").splitlines()]
    controllers = agent.monitor(gateway.machine, "human-monitor-command", **{"command-line": "info pic"})
    known_by_level = sum(
        int(half, 16) << 8 * int(of) for of, half in re.findall(r"pic([01]): .* elcr=(\w+)", controllers)
    )
    assert lines and all(known_by_level >> line & 1 for line in lines)


def test_a_killed_broker_comes_back_with_the_right_topics(gateway: Gateway) -> None:
    before = gateway.main_process("mosquitto")
    gateway.sh("systemctl kill --signal=KILL mosquitto")
    gateway.wait_for_restart("mosquitto", before)
    gateway.wait(lambda: gateway.kept(GREEN) == "On", 30, "the green LED, announced again")


def test_a_killed_connection_manager_comes_back_with_both_ways(gateway: Gateway) -> None:
    before = gateway.main_process("connman")
    gateway.sh("systemctl kill --signal=KILL connman")
    gateway.wait_for_restart("connman", before)
    gateway.wait(lambda: gateway.order() == ["eth0", "wwan0"], 60, "both services")
    gateway.wait_for_cloud("eth0", 60)
    fail_over_and_return(gateway)


def test_a_frozen_application_is_restarted_by_the_watchdog(gateway: Gateway) -> None:
    before = gateway.main_process("gateway-app")
    gateway.sh("systemctl kill --signal=STOP gateway-app")
    gateway.wait_for_restart("gateway-app", before)
    assert "Watchdog timeout" in gateway.sh("journalctl -b _PID=1 -u gateway-app -o cat --no-pager")
    gateway.wait_for_cloud("eth0", 60)


@pytest.fixture
def full_disk(gateway: Gateway) -> Iterator[None]:
    gateway.sh(
        "fallocate -l $(($(df --output=avail -B1 / | tail -n 1) - 1048576)) /fill; "
        "dd if=/dev/zero of=/fill.end bs=4k 2>/dev/null || true; sync",
        seconds=120,
    )
    assert gateway.sh("df --output=avail / | tail -n 1") == "0"
    yield
    gateway.sh("rm -f /fill /fill.end")


@pytest.mark.long
@pytest.mark.usefixtures("full_disk")
def test_a_full_disk_stops_nothing(gateway: Gateway) -> None:
    fail_over_and_return(gateway)
    before = gateway.main_process("mosquitto")
    gateway.sh("systemctl kill --signal=KILL mosquitto")
    gateway.wait_for_restart("mosquitto", before)
    gateway.wait(lambda: gateway.kept(GREEN) == "On", 30, "the green LED, announced again")
    before = gateway.main_process("gateway-app")
    gateway.sh("systemctl restart gateway-app")
    gateway.wait_for_restart("gateway-app", before)
    gateway.wait_for_cloud("eth0", 60)
    gateway.wait(gateway.says_up, 10, "the status file")
    assert gateway.failed_units() == ""


@pytest.fixture
def little_memory(gateway: Gateway) -> Iterator[None]:
    """24 MB are left, and the rest is held by what cannot be swapped."""
    gateway.sh(
        "mkdir -p /run/fill; mountpoint -q /run/fill || mount -t tmpfs -o size=512m tmpfs /run/fill; "
        "while [ $(sed -n 's/^MemAvailable: *\\([0-9]*\\).*/\\1/p' /proc/meminfo) -gt 25600 ]; do "
        "dd if=/dev/zero bs=1M count=1 2>/dev/null >>/run/fill/held; done",
        seconds=120,
    )
    yield
    gateway.sh("umount /run/fill")


@pytest.mark.long
@pytest.mark.usefixtures("little_memory")
def test_little_memory_stops_nothing(gateway: Gateway) -> None:
    before = [gateway.main_process(unit) for unit in SERVICES]
    fail_over_and_return(gateway)
    assert [gateway.main_process(unit) for unit in SERVICES] == before
    assert "Out of memory" not in gateway.sh("dmesg")
