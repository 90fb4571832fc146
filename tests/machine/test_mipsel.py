# SPDX-License-Identifier: Apache-2.0
"""A MIPS32 gateway with its own kernel and systemd: what a real image meets."""
from __future__ import annotations

import os
import random

from orv_testbed.machine.gateway import GREEN, INHIBIT, STATUS_FILE, Gateway

SERVICES = ("mosquitto", "connman", "orv-source-routes", "gateway-app")
POWER_CUTS = int(os.environ.get("ORV_POWER_CUTS", "2"))


def main_process(gateway: Gateway, unit: str) -> str:
    return gateway.property(unit, "MainPID")


def wait_for_restart(gateway: Gateway, unit: str, before: str) -> None:
    gateway.wait(
        lambda: gateway.property(unit, "ActiveState") == "active" and main_process(gateway, unit) not in (before, "0"),
        60,
        f"{unit} runs again",
    )


def test_a_boot_ends_connected_with_every_service_up(gateway: Gateway) -> None:
    assert gateway.sh("uname -m") == "mips"
    assert gateway.failed_units() == ""
    for unit in SERVICES:
        assert gateway.property(unit, "ActiveState") == "active", gateway.journal(unit)
    assert gateway.sh("ps -o user= -C gateway-app") == "orv"
    gateway.wait(lambda: gateway.kept(GREEN) == "On", 10, "the green LED")
    assert '"Cloud Connection","Up"' in gateway.sh(f"cat {STATUS_FILE}")
    assert gateway.sh(f"stat -c %U {STATUS_FILE}") == "orv"
    assert "Operation not permitted" not in gateway.journal("gateway-app")


def test_a_lost_provider_moves_the_cloud_to_cellular_and_back(gateway: Gateway) -> None:
    proofs = gateway.handshakes("cell")
    gateway.box("provider", "eth", "dead")
    gateway.wait_for_cloud("wwan0", 60)
    assert gateway.handshakes("cell") > proofs
    assert gateway.kept(INHIBIT) == "inhibit"
    gateway.box("provider", "eth", "back")
    gateway.wait_for_cloud("eth0", 60)
    gateway.wait(lambda: gateway.kept(INHIBIT) == "permit", 10, "the DNS topic")


def test_a_killed_broker_comes_back_with_the_right_topics(gateway: Gateway) -> None:
    before = main_process(gateway, "mosquitto")
    gateway.sh("systemctl kill --signal=KILL mosquitto")
    wait_for_restart(gateway, "mosquitto", before)
    gateway.wait(lambda: gateway.kept(GREEN) == "On", 30, "the green LED, announced again")


def test_a_killed_connection_manager_comes_back(gateway: Gateway) -> None:
    before = main_process(gateway, "connman")
    gateway.sh("systemctl kill --signal=KILL connman")
    wait_for_restart(gateway, "connman", before)
    gateway.wait_for_cloud("eth0", 60)


def test_a_frozen_application_is_restarted_by_the_watchdog(gateway: Gateway) -> None:
    before = main_process(gateway, "gateway-app")
    gateway.sh("systemctl kill --signal=STOP gateway-app")
    wait_for_restart(gateway, "gateway-app", before)
    assert "Watchdog timeout" in gateway.sh("journalctl -b _PID=1 -u gateway-app -o cat --no-pager")
    gateway.wait_for_cloud("eth0", 60)


def test_a_power_cut_breaks_nothing(gateway: Gateway) -> None:
    """At random moments, while files and the broker's store are written."""
    for _ in range(POWER_CUTS):
        gateway.sh(
            "sed -i 's/^autosave_interval.*/autosave_interval 1/' /etc/mosquitto/mosquitto.conf; systemctl restart mosquitto"
        )
        writer = (
            "n=0; while :; do n=$((n + 1)); "
            "mosquitto_pub -u orv-application -P for-applications -t /orv/modem/sim/conn_status -m $n -r; done"
        )
        gateway.sh(f"systemd-run --quiet --collect sh -c '{writer}'")
        gateway.sh(f"sleep {random.uniform(0, 4):.2f}")
        gateway.cut_power()
        gateway.boot()
        gateway.wait_for_cloud("eth0", 120)
        assert gateway.failed_units() == ""
        assert gateway.sh("dpkg --verify liborvplatform1 liborvstacksdk1 orv-tools | grep -v ' c ' || true") == ""
        assert '"Cloud Connection","Up"' in gateway.sh(f"cat {STATUS_FILE}")
        gateway.wait(lambda: gateway.kept(GREEN) == "On", 10, "the green LED")
