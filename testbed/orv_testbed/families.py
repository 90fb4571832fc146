# SPDX-License-Identifier: Apache-2.0
"""Which IP families the providers of a box and its cloud have."""
from __future__ import annotations

import pathlib
from typing import NamedTuple

from orv_testbed.layout import CELLULAR, SIDES, Side, misused

WORDS = "up --families [eth=4|46|6],[cell=4|46|6],[cloud=4|46|6]"
KINDS = ("4", "46", "6")
PARTS = (*SIDES, "cloud")


class Families(NamedTuple):
    """Of each, "4", "46" or "6". A provider with IPv6 only translates for those who want to reach IPv4."""

    eth: str = "4"
    cell: str = "4"
    cloud: str = "4"

    @classmethod
    def parse(cls, words: str) -> Families:
        """Of what is not named: IPv4 for a provider; for the cloud IPv4, and IPv6 where a provider has it."""
        named: dict[str, str] = {}
        for word in words.split(","):
            part, _, kind = word.partition("=")
            if part not in PARTS or kind not in KINDS or part in named:
                misused("families", WORDS)
            named[part] = kind
        providers = "".join(kind for part, kind in named.items() if part != "cloud")
        return cls(**{"cloud": "46" if "6" in providers else "4", **named})

    @classmethod
    def of(cls, folder: pathlib.Path) -> Families:
        """Of the box in this folder."""
        try:
            return cls.parse((folder / "families").read_text(encoding="ascii").strip())
        except FileNotFoundError:
            return cls()

    def note(self, folder: pathlib.Path) -> None:
        (folder / "families").write_text(f"{self}\n", encoding="ascii")

    def __str__(self) -> str:
        return ",".join(f"{part}={kind}" for part, kind in zip(PARTS, self))

    def has_ipv6(self) -> bool:
        return any("6" in kind for kind in self)

    def of_modem(self, address: str) -> list[str]:
        """What the modem is told of its provider's network: its own IPv4 address there, netmask, router, name server, and with
        IPv6 prefix and name server."""
        network = [address if "4" in self.cell else "-", "255.255.255.0", f"{CELLULAR.net}.1", CELLULAR.name_server]
        return network + ([f"{CELLULAR.net_6}:1", CELLULAR.name_server_6] if "6" in self.cell else [])

    def at(self, side: Side) -> str:
        return self.eth if side.name == "eth" else self.cell
