# SPDX-License-Identifier: Apache-2.0
"""What a gateway box is called, where it keeps its state, and which addresses it has."""
from __future__ import annotations

import ipaddress
import os
import pathlib
import re
from collections.abc import Mapping
from typing import NamedTuple, NoReturn

CLOUD_NAME = "cloud.box.test"
CLOUD_ADDRESS = "198.51.100.10"  # TEST-NET-2
CLOUD_ADDRESS_6 = "2001:db8:51::10"  # of the documentation prefix, as all IPv6 addresses of a box
PORTAL_NAME = "portal.box.test"
LONGEST_SOCKET = 107  # characters, which the kernel takes
FORBIDDEN = ("/etc", "/var", "/run")


class Usage(Exception):
    """The words are none of ours."""


class BoxError(Exception):
    """Something that the person who typed the command has to know; the text says what to do."""


class Side(NamedTuple):
    """One of the two ways to the cloud."""

    name: str
    net: str  # between gateway and provider, without the last number
    uplink: str  # between provider and cloud, likewise
    name_server: str  # the provider's own
    net_6: str  # what the provider has: its first 48 bits
    uplink_6: str  # between provider and cloud: its first 64 bits
    name_server_6: str
    interface: str  # the gateway's
    gateways_mac: str

    @property
    def pool(self) -> str:
        """The IPv4 addresses that its customers with IPv6 alone come from, without the last number."""
        return f"{self.net.rpartition('.')[0]}.64"

    def family_of(self, address: str) -> str | None:
        """In which family its customer with this address, as the cloud sees it, has sent; None if it is no customer's."""
        nets = {f"{self.net}.0/24": "4", f"{self.net_6}::/48": "6", f"{self.pool}.0/24": "6"}
        found = (family for net, family in nets.items() if ipaddress.ip_address(address) in ipaddress.ip_network(net))
        return next(found, None)


ETHERNET = Side(
    name="eth",
    net="10.11.0",
    uplink="10.99.1",
    name_server="10.21.0.53",
    net_6="2001:db8:11",
    uplink_6="2001:db8:99:1",
    name_server_6="2001:db8:21::53",
    interface="eth0",
    gateways_mac="02:00:00:00:0a:01",
)
CELLULAR = Side(
    name="cell",
    net="10.12.0",
    uplink="10.99.2",
    name_server="10.22.0.53",
    net_6="2001:db8:12",
    uplink_6="2001:db8:99:2",
    name_server_6="2001:db8:22::53",
    interface="wwan0",
    gateways_mac="02:00:00:00:0b:01",
)
SIDES = {side.name: side for side in (ETHERNET, CELLULAR)}


def misused(fault: str, words: str) -> NoReturn:
    raise BoxError(f"{fault}: use {words}")


def side_named(name: str | None) -> Side:
    if name not in SIDES:
        raise BoxError("which side? use eth or cell")
    return SIDES[name]


class Layout:
    """Of the box that the environment names."""

    def __init__(self, command: str, environment: Mapping[str, str]) -> None:
        self.command = command  # as it was typed
        self.name = environment.get("ORV_BOX") or "orv"
        place = environment.get("ORV_BOX_DIR") or f"{environment.get('TMPDIR') or '/tmp'}/orv-box-{self.name}"
        self.state = pathlib.Path(place)
        self.gateway_root = self.state / "gateway"
        self.bus_socket = self.gateway_root / "run/dbus/system_bus_socket"
        self.machine = self.state / "machine"
        self.certificates = self.state / "cloud/tls"

    def has_machine(self) -> bool:
        return self.machine.is_dir()

    def not_up(self) -> BoxError:
        named = "" if self.name == "orv" else f"ORV_BOX={self.name} "
        return BoxError(f"no box named {self.name} is up: {named}{self.command} up")

    def log(self, process: str) -> pathlib.Path:
        return self.state / "log" / process

    def check_caller(self) -> None:
        if not re.fullmatch(r"[a-z0-9]{1,8}", self.name):
            raise BoxError(f"ORV_BOX={self.name}: a box is named by 1 to 8 small letters and digits")
        if os.geteuid() != 0:
            raise BoxError(f"network namespaces need root: sudo {self.command}")
        # Its notes say which processes root ends.
        if self.state.is_symlink() or (self.state.exists() and self.state.stat().st_uid != os.geteuid()):
            raise BoxError(f"{self.state} is not ours: choose another folder in ORV_BOX_DIR")

    def check_place(self) -> None:
        resolved = str(self.state.resolve())
        if any(f"{resolved}/".startswith(f"{folder}/") for folder in FORBIDDEN):
            raise BoxError(
                f"ORV_BOX_DIR={self.state}: the gateway has its own /etc, /var and /run; choose a folder elsewhere"
            )
        excess = len(str(self.bus_socket)) - LONGEST_SOCKET
        if excess > 0:
            raise BoxError(f"ORV_BOX_DIR={self.state} is {excess} characters too long: choose a shorter path")
        if self.state.exists():
            raise BoxError(f"{self.state} exists: the box is up, or was not taken down properly: {self.command} down")
