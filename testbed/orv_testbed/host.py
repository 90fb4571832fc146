# SPDX-License-Identifier: Apache-2.0
"""What the computer that a box runs on must have."""
from __future__ import annotations

import functools
import importlib.util
import shutil

from orv_testbed.commands import succeeds
from orv_testbed.layout import BoxError
from orv_testbed.programs import TREE, daemon

PACKAGES = {
    "ip": "iproute2",
    "tc": "iproute2",
    "nft": "nftables",
    "ethtool": "ethtool",
    "dnsmasq": "dnsmasq-base",
    "dbus-daemon": "dbus-daemon",
    "openssl": "openssl",
    "nsenter": "util-linux",
    "setpriv": "util-linux",
    "sysctl": "procps",
}
BOOTSTRAP = f"run {TREE}/script/bootstrap box"


@functools.cache
def can_make_namespaces() -> bool:
    return succeeds("unshare", "--net", "--mount", "--uts", "true")


def check_host() -> None:
    if not can_make_namespaces():
        raise BoxError(
            "this machine does not let us make namespaces (a container? start it with --privileged; a chroot? first mount "
            "its root on itself)"
        )
    for tool, package in PACKAGES.items():
        if not shutil.which(tool):
            raise BoxError(f"{tool} is missing: {BOOTSTRAP} (package {package})")
    if not (importlib.util.find_spec("dbus") and importlib.util.find_spec("gi")):
        raise BoxError(f"python3's dbus or gi module is missing: {BOOTSTRAP} (packages python3-dbus, python3-gi)")
    daemon("connmand")
    daemon("mosquitto")
