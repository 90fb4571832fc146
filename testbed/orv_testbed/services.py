# SPDX-License-Identifier: Apache-2.0
"""services [INTERFACE FAMILY METHOD]

One line a service, in ConnMan's order: interface, state, type, address, name servers, IPv6 address, path. With arguments: sets
how the service of INTERFACE is configured in FAMILY (IPv4 or IPv6), as `connmanctl config SERVICE --ipv6 auto` does.
"""
from __future__ import annotations

import sys
from typing import Any

import dbus


def show(services: Any) -> None:
    for path, properties in services:
        print(
            properties.get("Ethernet", {}).get("Interface", "-"),
            properties.get("State", "-"),
            properties.get("Type", "-"),
            properties.get("IPv4", {}).get("Address", "-"),
            ",".join(properties.get("Nameservers", [])) or "-",
            properties.get("IPv6", {}).get("Address", "-"),
            path,
        )


def configure(bus: Any, services: Any, interface: str, family: str, method: str) -> None:
    for path, properties in services:
        if properties.get("Ethernet", {}).get("Interface") == interface:
            service = dbus.Interface(bus.get_object("net.connman", path), "net.connman.Service")
            service.SetProperty(f"{family}.Configuration", dbus.Dictionary({"Method": method}, signature="sv"))


def main() -> None:
    bus = dbus.SystemBus()
    services = dbus.Interface(bus.get_object("net.connman", "/"), "net.connman.Manager").GetServices()
    if sys.argv[1:]:
        configure(bus, services, *sys.argv[1:])
    else:
        show(services)


if __name__ == "__main__":
    main()
