# SPDX-License-Identifier: Apache-2.0
"""One line a service, in ConnMan's order: interface, state, type, address, name servers, IPv6 address, path."""
from __future__ import annotations

import dbus


def main() -> None:
    manager = dbus.Interface(dbus.SystemBus().get_object("net.connman", "/"), "net.connman.Manager")
    for path, properties in manager.GetServices():
        print(
            properties.get("Ethernet", {}).get("Interface", "-"),
            properties.get("State", "-"),
            properties.get("Type", "-"),
            properties.get("IPv4", {}).get("Address", "-"),
            ",".join(properties.get("Nameservers", [])) or "-",
            properties.get("IPv6", {}).get("Address", "-"),
            path,
        )


if __name__ == "__main__":
    main()
