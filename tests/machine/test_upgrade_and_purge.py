# SPDX-License-Identifier: Apache-2.0
"""The packages are exchanged while they run, and go without a trace. The last of all: afterwards it is no gateway any more."""
from __future__ import annotations

import pytest

from orv_testbed.machine.gateway import Gateway

INSTALL = "apt-get -q -y --no-install-recommends --allow-downgrades -o Dir::Etc::sourcelist=/dev/null install "
SETTINGS = "sha256sum /etc/orv/*; stat -c '%n %U %G %a' /etc/orv/*"
# What a person has put there by hand, from the package's examples.
BY_HAND = {"/etc/mosquitto/orv.acl", "/etc/mosquitto/orv.passwd", "/etc/dbus-1/system.d/orv-connman.conf"}

pytestmark = pytest.mark.long


def version(gateway: Gateway) -> str:
    return gateway.sh("dpkg-query -W -f '${Version}' orv-tools")


def test_packages_go_back_and_forth_while_they_run(gateway: Gateway) -> None:
    settings, current = gateway.sh(SETTINGS), version(gateway)
    for folder in ("earlier", "packages"):
        before = gateway.main_process("gateway-app")
        gateway.sh(f"{INSTALL} /opt/{folder}/*.deb", seconds=300)
        assert gateway.main_process("gateway-app") == before  # until somebody restarts it
        gateway.wait_for_cloud("eth0", 10)
        gateway.sh("systemctl daemon-reload; systemctl restart orv-source-routes gateway-app")
        gateway.wait_for_cloud("eth0", 60)
        assert gateway.sh(SETTINGS) == settings
        assert (version(gateway) == current) == (folder == "packages")
    assert gateway.failed_units() == ""


def test_a_purge_leaves_nothing(gateway: Gateway) -> None:
    gateway.sh("systemctl stop gateway-app orv-source-routes")
    gateway.sh("apt-get -q -y purge orv-tools 'liborv*'", seconds=200)
    left = gateway.sh(
        "find / -xdev '(' -iname '*orv*' -o -iname '*gateway-app*' ')' "
        "-not -path '/opt/*' -not -path '/var/log/journal/*' -not -path '/proc/*' -not -path '/sys/*'"
    )
    assert set(left.split()) <= BY_HAND, left
    assert gateway.sh("find /run /var/tmp -iname '*orv*' -o -iname '*gateway-app*' -o -iname 'new_enterprise*'") == ""
    assert gateway.sh("{ ip rule; ip -6 rule; } | grep -v 'lookup local\\|lookup main\\|lookup default' || true") == ""
    assert gateway.failed_units() == ""
