# SPDX-License-Identifier: Apache-2.0
"""A box whose providers have IPv4, both IP families, or IPv6 alone."""
from __future__ import annotations

import os
import subprocess

import pytest

from orv_testbed.box import Box, Failed
from orv_testbed.families import Families
from orv_testbed.fixtures import skip_without_what_a_box_needs
from orv_testbed.layout import SIDES, BoxError
from orv_testbed.waiting import SLACK, wait_until

INTERFACES = {"eth": "eth0", "cell": "wwan0"}
# Asks a name server for the cloud's addresses, bound to an interface: A, then AAAA, one record at most of each.
ASK = r"""
import socket, sys
server, interface = sys.argv[1:]
for kind, family in ((1, socket.AF_INET), (28, socket.AF_INET6)):
    asking = socket.socket(socket.AF_INET6 if ":" in server else socket.AF_INET, socket.SOCK_DGRAM)
    asking.setsockopt(socket.SOL_SOCKET, socket.SO_BINDTODEVICE, interface.encode())
    asking.settimeout(5)
    asked = bytes.fromhex("000101000001000000000000") + b"\5cloud\3box\4test\0" + kind.to_bytes(2, "big") + b"\0\1"
    asking.sendto(asked, (server, 53))
    answer = asking.recv(512)
    if int.from_bytes(answer[6:8], "big"):
        print(socket.inet_ntop(family, answer[-len(socket.inet_pton(family, "::" if kind == 28 else "0.0.0.0")):]))
"""


def made(families: str) -> Box:
    skip_without_what_a_box_needs(families)
    return Box(f"t{os.getpid():x}", families)


def fetches(box: Box, interface: str, family: str, address: str) -> bool:
    """Whether the cloud is reached at this address in this family, bound to the interface."""
    command = ("exec", "curl", "--silent", "--max-time", "5", f"-{family}", "--interface", f"if!{interface}")
    to = ("--resolve", f"cloud.box.test:443:{address}", "https://cloud.box.test/")
    return box(*command, *to, must_succeed=False) == "ok\n"


def has_addresses(box: Box, interface: str) -> list[str]:
    """Of which families."""
    return [
        family
        for family in "46"
        if box("exec", "ip", f"-{family}", "-o", "addr", "show", "dev", interface, "scope", "global")
    ]


def came(box: Box, side: str) -> list[tuple[str, str]]:
    """Family and target of the connections that the gateway has begun over this side."""
    return [(one.family, one.target) for one in box.passages() if one.side == side]


def answers(box: Box, side: str, kind: str) -> list[str]:
    """The cloud's addresses by the provider's own name server; asked over IPv6 where there is no IPv4."""
    server = SIDES[side].name_server_6 if kind == "6" else SIDES[side].name_server
    return box("exec", "/usr/bin/python3", "-c", ASK, server, INTERFACES[side]).split()


@pytest.mark.parametrize(
    "eth, cell, cloud",
    [("46", "46", "46"), ("4", "6", "4"), ("6", "46", "46"), ("6", "6", "4")],
)
def test_each_provider_has_the_families_that_it_was_given(eth: str, cell: str, cloud: str) -> None:
    addresses = {"4": "198.51.100.10", "6": "2001:db8:51::10"}
    translated = "2001:db8:64::c633:640a"
    with made(f"eth={eth},cell={cell},cloud={cloud}") as box:
        for side, kind in (("eth", eth), ("cell", cell)):
            interface = INTERFACES[side]
            assert has_addresses(box, interface) == list(kind)
            for family in (one for one in kind if one in cloud):
                assert fetches(box, interface, family, addresses[family]), f"{interface}, IPv{family}"
                assert [came_in for _, came_in in box.handshakes_by_family(side)].count(family) == 1
                wait_until(lambda: came(box, side)[-1:] == [(family, addresses[family])], SLACK, "its passage")
            if kind == "6":
                assert fetches(box, interface, "6", translated)
                wait_until(lambda: came(box, side)[-1:] == [("6", translated)], SLACK, "its passage")
            names = [addresses[family] for family in cloud]
            if kind == "6" and cloud == "4":
                names.append(translated)
            assert answers(box, side, kind) == names
        assert box.order() == ["eth0", "wwan0"]


@pytest.mark.parametrize("how", ["restart", "crash"])
def test_a_connection_manager_that_begins_again_finds_a_modem_with_ipv6_alone_again(how: str) -> None:
    with made("cell=6") as box:
        wait_until(lambda: box.order() == ["eth0", "wwan0"], SLACK, "both services")
        box("connman", how)
        wait_until(lambda: sorted(box.order()) == ["eth0", "wwan0"], 15 + SLACK, "both services again")


def test_a_box_with_ipv4_alone_has_no_ipv6_on_its_way(box: Box) -> None:
    for interface in INTERFACES.values():
        assert "inet6 2001:" not in box("exec", "ip", "-6", "addr", "show", "dev", interface)
    done = subprocess.run(
        ["ip", "-n", f"{box.name}-cloud", "-6", "-o", "addr", "show", "scope", "global"],
        text=True,
        capture_output=True,
        check=True,
    )
    assert done.stdout == ""


@pytest.mark.parametrize("wrong", ["", "eth", "eth=5", "eth=64", "wifi=4", "eth=4,eth=6", "eth=46;cell=4"])
def test_families_are_named_as_the_command_knows_them(wrong: str) -> None:
    with pytest.raises(BoxError, match=r"families: use up --families \[eth=4\|46\|6\]"):
        Families.parse(wrong)


def test_the_cloud_has_ipv6_where_a_provider_has_it() -> None:
    assert str(Families.parse("eth=46")) == "eth=46,cell=4,cloud=46"
    assert str(Families.parse("cell=4")) == "eth=4,cell=4,cloud=4"
    assert str(Families.parse("cell=6,cloud=4")) == "eth=4,cell=6,cloud=4"


def test_what_is_no_family_leaves_no_box_behind() -> None:
    skip_without_what_a_box_needs()
    box = Box(f"t{os.getpid():x}")
    with pytest.raises(Failed, match="families: use"):
        box("up", "--families", "eth=7")
    assert not box.folder.exists()


def test_what_is_no_family_is_refused_before_there_is_a_box() -> None:
    with pytest.raises(BoxError, match="families: use"):
        Box("never", "eth=7")
