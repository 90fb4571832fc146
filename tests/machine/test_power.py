# SPDX-License-Identifier: Apache-2.0
"""The power is cut, again and again, and a gateway boots with a wrong clock."""
from __future__ import annotations

import os
import random
import time
from collections.abc import Iterator

import pytest

from orv_testbed.machine import agent
from orv_testbed.machine.gateway import Gateway
from orv_testbed.topics import GREEN, MODEM_CONNECTION

POWER_CUTS = int(os.environ.get("ORV_POWER_CUTS", "9"))
SEED = os.environ.get("ORV_SEED", "1")  # script/machine-test chooses one and says which
OURS = "liborvplatform1 liborvstacksdk1 orv-tools mosquitto connman"
# The broker stores what it keeps each second, and has always something new to store.
WRITE_STORE = f"""
systemd-run --quiet --collect --unit=writer sh -c '
    n=1000
    while :; do
        n=$((n + 1))
        mosquitto_pub -u orv-application -P for-applications -t {MODEM_CONNECTION} -m $n -r
    done'
"""
# The status file is written, the connection manager moves the route and writes its settings.
WRITE_FILES = "systemctl restart gateway-app connman"
# What nobody changes meanwhile: settings, and what apt has installed.
SETTLED = "find /etc /usr/lib/mipsel-linux-gnu -xdev -type f -exec sha256sum {} + | LC_ALL=C sort -k 2 | sha256sum"


@pytest.fixture(scope="module")
def often_stored(machine: Gateway) -> Iterator[None]:
    """The broker stores each second what it keeps."""
    settings = "/etc/mosquitto/mosquitto.conf"
    machine.sh(
        f"cp -a {settings} {settings}.shipped; sed -i 's/^autosave_interval.*/autosave_interval 1/' {settings}; sync"
    )
    machine.sh("systemctl restart mosquitto")
    yield
    machine.sh(f"mv {settings}.shipped {settings}; systemctl restart mosquitto; sync")


def is_whole_again(gateway: Gateway, settled: str) -> None:
    gateway.wait_for_cloud("eth0", 120)
    gateway.wait(lambda: gateway.order() == ["eth0", "wwan0"], 60, "both services")
    assert gateway.sh(SETTLED, seconds=60) == settled
    assert gateway.failed_units() == ""
    assert "EXT4-fs error" not in gateway.sh("dmesg")
    assert gateway.sh(f"dpkg --verify {OURS} | grep -v ' c ' || true") == ""
    gateway.sh("orv-config-check /etc/orv/gateway.ini")
    gateway.wait(gateway.says_up, 10, "the status file")
    gateway.wait(lambda: gateway.kept(GREEN) == "On", 10, "the green LED")
    kept = gateway.kept(MODEM_CONNECTION)
    assert kept == "" or kept.isdigit(), kept
    assert "Error" not in gateway.journal("mosquitto")


def cut_and_boot(gateway: Gateway, writing: str, delay: float) -> None:
    settled = gateway.sh(SETTLED, seconds=60)
    gateway.sh(writing)
    try:
        gateway.sh(f"sleep {delay:.2f}")  # the moment of the cut
    except agent.AgentError:
        pass
    gateway.cut_power()
    assert gateway.faults_of_the_disk() == ""
    gateway.boot()
    is_whole_again(gateway, settled)


def cut_during_boot(gateway: Gateway, told: int) -> None:
    """When so many characters have come on the console."""
    settled = gateway.sh(SETTLED, seconds=60)
    console = gateway.machine / "console"
    gateway.cut_power()
    before = console.stat().st_size
    gateway.boot()
    gateway.wait(lambda: console.stat().st_size >= before + told, 60, "a boot")
    gateway.cut_power()
    assert gateway.faults_of_the_disk() == ""
    gateway.boot()
    is_whole_again(gateway, settled)


@pytest.mark.usefixtures("often_stored")
def test_a_power_cut_while_the_broker_stores_breaks_nothing(gateway: Gateway) -> None:
    cut_and_boot(gateway, WRITE_STORE, random.Random(SEED).uniform(0, 4))


@pytest.mark.long
@pytest.mark.usefixtures("often_stored")
@pytest.mark.parametrize("number", range(POWER_CUTS))
def test_a_power_cut_at_any_moment_breaks_nothing(gateway: Gateway, number: int) -> None:
    chance = random.Random(f"{SEED} {number}")
    if number % 3 == 0:
        cut_and_boot(gateway, WRITE_STORE, chance.uniform(0, 4))
    elif number % 3 == 1:
        gateway("provider", "eth", "dead")
        gateway.wait_for_cloud("wwan0", 60)
        gateway("provider", "eth", "back")
        cut_and_boot(gateway, WRITE_FILES, chance.uniform(0, 3))
    else:
        cut_during_boot(gateway, chance.randrange(30_000))


@pytest.mark.long
def test_a_clock_that_is_wrong_at_boot_is_told_and_survived(gateway: Gateway) -> None:
    gateway.sh("systemctl --no-block poweroff")
    gateway.wait(gateway.is_off, 60, "power off")
    gateway.boot("2000-01-01T00:00:00")
    gateway.wait(lambda: "not valid before" in gateway.journal("gateway-app"), 120, "the reason in the log")
    assert gateway.property("gateway-app", "ActiveState") == "active"
    assert not gateway.says_up()
    gateway.sh(f"date -s @{int(time.time())}")
    gateway.wait_for_cloud("eth0", 90)
    gateway.wait(gateway.says_up, 10, "the status file")
