# SPDX-License-Identifier: Apache-2.0
"""services [INTERFACE FAMILY METHOD]

One line a service, in ConnMan's order: interface, state, type, address, name servers, IPv6 address, path. With arguments: sets
how the service of INTERFACE is configured in FAMILY (IPv4 or IPv6), as `connmanctl config SERVICE --ipv6 auto` does.
"""
from __future__ import annotations

import re
import subprocess
import sys
from collections.abc import Iterator
from typing import Any

# A box is asked so often that Python's own binding, which takes twenty times as long to load, is none for this.
ASK = ("dbus-send", "--system", "--print-reply", "--dest=net.connman", "/", "net.connman.Manager.GetServices")
# What dbus-send prints of a value. Names of types, and "variant" before a value, are of no interest.
TOKEN = re.compile(
    r'"([^"\n]*)"|(array(?: of bytes)? \[|struct \{|dict entry\()|([\]})])$|(?:boolean|byte|u?int\d+) (\S+)', re.M
)


def parse(tokens: Iterator[re.Match[str]]) -> list[Any]:
    """The values up to the bracket that closes them, or to the end."""
    found: list[Any] = []
    for token in tokens:
        text, opening, closing, number = token.groups()
        if closing:
            break
        found.append(parse(tokens) if opening else number if text is None else text)
    return found


def read(printed: str) -> list[tuple[str, dict[str, Any]]]:
    """What ConnMan has answered: path and properties of each service."""
    _, _, answer = printed.partition("\n")  # the first line tells of the message
    (services,) = parse(TOKEN.finditer(answer))
    return [(path, dict(properties)) for path, properties in services]


def lines(printed: str) -> str:
    text = ""
    for path, properties in read(printed):

        def of(group: str, name: str) -> str:
            return str(dict(properties.get(group, [])).get(name, "-"))

        servers = ",".join(properties.get("Nameservers", [])) or "-"
        state, kind = properties.get("State", "-"), properties.get("Type", "-")
        words = (of("Ethernet", "Interface"), state, kind, of("IPv4", "Address"), servers, of("IPv6", "Address"), path)
        text += " ".join(words) + "\n"
    return text


def configure(printed: str, interface: str, family: str, method: str) -> None:
    import dbus  # dbus-send has no words for this

    for path, properties in read(printed):
        if dict(properties.get("Ethernet", [])).get("Interface") == interface:
            service = dbus.Interface(dbus.SystemBus().get_object("net.connman", path), "net.connman.Service")
            service.SetProperty(f"{family}.Configuration", dbus.Dictionary({"Method": method}, signature="sv"))


def main() -> None:
    printed = subprocess.run(ASK, stdout=subprocess.PIPE, text=True, check=True).stdout
    if sys.argv[1:]:
        configure(printed, *sys.argv[1:])
    else:
        print(lines(printed), end="")


if __name__ == "__main__":
    main()
