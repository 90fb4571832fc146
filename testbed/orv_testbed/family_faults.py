# SPDX-License-Identifier: Apache-2.0
"""What can go wrong in one IP family alone, one method a command."""
from __future__ import annotations

from orv_testbed.families import Families
from orv_testbed.ipv6 import LAST, Ipv6
from orv_testbed.layout import BoxError, Layout, Side, misused, side_named
from orv_testbed.networks import Networks

IPV4 = "ipv4 eth|cell dead|refused|back"
IPV6 = "ipv6 eth|cell dead|refused|no-router|silent|duplicate|back, or ipv6 eth|cell renumber"


class FamilyFaults:
    def __init__(self, layout: Layout, networks: Networks) -> None:
        self._layout, self._networks = layout, networks

    def _kill(self, side: Side, family: str) -> None:
        """What the customers send in that family is dropped, and the name server is mute in it."""
        ours = f"meta nfproto ipv{family}"
        ask = f"{ours} iifname lan meta l4proto {{ tcp, udp }} th dport 53 drop;"
        self._networks.provider(side).filter(
            f"dead_ipv{family}",
            f"chain forward {{ type filter hook forward priority 0; {ours} iifname lan drop; {ours} oifname lan drop; }}",
            f"chain input {{ type filter hook input priority 0; {ask} }}",
        )

    def _refuse(self, side: Side, family: str) -> None:
        """Whatever connection the customers begin in that family is refused at once."""
        refuse = f"meta nfproto ipv{family} iifname lan meta l4proto tcp reject with tcp reset;"
        self._networks.provider(side).filter(
            f"dead_ipv{family}", f"chain forward {{ type filter hook forward priority 0; {refuse} }}"
        )

    def ipv4(self, side: str = "", state: str = "") -> None:
        which = side_named(side)
        if state not in ("dead", "refused", "back"):
            misused("ipv4", IPV4)
        self._networks.provider(which).unfilter("dead_ipv4")
        if state == "dead":
            self._kill(which, "4")
        elif state == "refused":
            self._refuse(which, "4")

    def ipv6(self, side: str = "", state: str = "") -> None:
        which = side_named(side)
        if "6" not in Families.of(self._layout.state).at(which):
            raise BoxError(f"{side} has no IPv6: take the box down, and {self._layout.command} up --families {side}=46")
        ipv6 = self._networks.ipv6(which)
        if state == "renumber":
            ipv6.renumber()
        elif state in ("dead", "refused", "no-router", "silent", "duplicate", "back"):
            self._take_back(which, ipv6)
            if state == "dead":
                self._kill(which, "6")
            elif state == "refused":
                self._refuse(which, "6")
            elif state == "no-router":
                ipv6.advertise(lifetime=0)
            elif state == "silent":
                ipv6.advertise(lifetime=LAST)
            elif state == "duplicate":
                ipv6.renumber(taken=True)
        else:
            misused("ipv6", IPV6)

    def _take_back(self, side: Side, ipv6: Ipv6) -> None:
        self._networks.provider(side).unfilter("dead_ipv6")
        if ipv6.is_taken():
            ipv6.renumber()
        if not ipv6.is_a_router():
            ipv6.advertise()
