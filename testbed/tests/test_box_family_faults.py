# SPDX-License-Identifier: Apache-2.0
"""The box's faults of one IP family are what they are called, leave the other family alone, and are gone when taken back."""
from __future__ import annotations

import json
import os
import subprocess
import time
from collections.abc import Iterator
from typing import Any

import pytest

from orv_testbed.box import Box, Failed
from orv_testbed.fault_record import faults_in_force
from orv_testbed.fixtures import skip_without_what_a_box_needs
from orv_testbed.waiting import SLACK, wait_until

CLOUD = {"4": "198.51.100.10", "6": "2001:db8:51::10"}
TRANSLATED = "2001:db8:64::c633:640a"
IDENTIFIER = "0:ff:fe00:a01"  # of eth0's address


@pytest.fixture(name="dual", scope="module")
def a_box_with_both_families_on_ethernet() -> Iterator[Box]:
    skip_without_what_a_box_needs("eth=46")
    with Box(f"f{os.getpid():x}", "eth=46") as box:
        wait_until(lambda: fetches(box, "4") and fetches(box, "6"), SLACK, "the cloud over both families")
        yield box


def fetches(box: Box, family: str) -> bool:
    to = ("--resolve", f"cloud.box.test:443:{CLOUD[family]}", "https://cloud.box.test/")
    return box("exec", "curl", "-s", "-m", "2", "--interface", "if!eth0", *to, must_succeed=False) == "ok\n"


def addresses(box: Box) -> dict[str, dict[str, Any]]:
    """The global IPv6 addresses of eth0, with their flags."""
    links = json.loads(box("exec", "ip", "-6", "-json", "addr", "show", "dev", "eth0", "scope", "global"))
    return {one["local"]: one for link in links if link for one in link["addr_info"] if one}


def default_routes(box: Box) -> list[str]:
    return box("exec", "ip", "-6", "route", "show", "default", "dev", "eth0").splitlines()


def is_usable(box: Box, prefix: str) -> bool:
    found = addresses(box).get(f"{prefix}:{IDENTIFIER}")
    return found is not None and not {"tentative", "dadfailed", "deprecated"} & found.keys()


def newest_prefix(box: Box) -> int:
    return max(int(address.split(":")[3], 16) for address in addresses(box))


@pytest.mark.parametrize("broken, other", ["46", "64"])
def test_a_dead_family_leads_nowhere_and_the_other_works(dual: Box, broken: str, other: str) -> None:
    before = (addresses(dual).keys(), len(default_routes(dual)))
    assert fetches(dual, "4") and fetches(dual, "6")
    dual(f"ipv{broken}", "eth", "dead")
    assert not fetches(dual, broken)
    assert fetches(dual, other)
    assert (addresses(dual).keys(), len(default_routes(dual))) == before
    dual(f"ipv{broken}", "eth", "back")
    assert fetches(dual, broken)


@pytest.mark.parametrize("broken, other", ["46", "64"])
def test_a_family_that_refuses_does_so_at_once_and_the_other_works(dual: Box, broken: str, other: str) -> None:
    dual(f"ipv{broken}", "eth", "refused")
    to = ("--resolve", f"cloud.box.test:443:{CLOUD[broken]}", "https://cloud.box.test/")
    said = dual("exec", "curl", "-sS", "--stderr", "-", "-m", "9", "--interface", "if!eth0", *to, must_succeed=False)
    assert "curl: (7)" in said
    assert fetches(dual, other)
    dual(f"ipv{broken}", "eth", "back")
    assert fetches(dual, broken)


@pytest.mark.parametrize("families, address", [("eth=46", CLOUD["6"]), ("eth=6,cloud=4", TRANSLATED)])
def test_a_long_way_takes_its_time_in_ipv6_too(families: str, address: str) -> None:
    skip_without_what_a_box_needs(families)
    with Box(f"d{os.getpid():x}", families) as box:

        def seconds() -> float:
            begun = time.monotonic()
            to = ("--resolve", f"cloud.box.test:443:{address}", "https://cloud.box.test/")
            assert box("exec", "curl", "-s", "-m", "9", "--interface", "if!eth0", *to) == "ok\n"
            return time.monotonic() - begun

        box("delay", "eth", "200")
        assert seconds() > 3 * 0.4  # TCP's handshake, at least one round trip of TLS, the answer
        box("delay", "eth", "off")
        command = ["ip", "-6", "-n", f"{box.name}-eth", "rule"]
        assert "lookup 77" not in subprocess.run(command, check=True, capture_output=True, text=True).stdout
        seconds()


def test_a_renumbered_prefix_leaves_a_deprecated_address_that_nobody_forwards(dual: Box) -> None:
    old = newest_prefix(dual)
    dual("ipv6", "eth", "renumber")
    new = f"2001:db8:11:{old + 1:x}"
    wait_until(lambda: is_usable(dual, new), 5 + SLACK, "the new address")
    before = addresses(dual)[f"2001:db8:11:{old:x}:{IDENTIFIER}"]
    assert before["deprecated"]
    assert fetches(dual, "6")
    bound = ("exec", "curl", "-s", "-m", "2", "--interface", before["local"])
    to = ("--resolve", f"cloud.box.test:443:{CLOUD['6']}", "https://cloud.box.test/")
    assert dual(*bound, *to, must_succeed=False) == ""
    assert faults_in_force(dual) == []


def test_a_router_that_is_none_any_more_leaves_the_address_and_no_route(dual: Box) -> None:
    prefix = f"2001:db8:11:{newest_prefix(dual):x}"
    dual("ipv6", "eth", "no-router")
    wait_until(lambda: not default_routes(dual), 5 + SLACK, "the end of the IPv6 default route")
    assert is_usable(dual, prefix)
    assert fetches(dual, "4")
    assert "  ipv6 eth no-router\n" in dual("status")
    dual("ipv6", "eth", "back")
    wait_until(lambda: default_routes(dual), 5 + SLACK, "an IPv6 default route")
    assert fetches(dual, "6")


def test_a_router_that_falls_silent_is_one_until_its_lifetime_is_over(dual: Box) -> None:
    prefix = f"2001:db8:11:{newest_prefix(dual):x}"
    dual("ipv6", "eth", "silent")
    lifetimes = json.loads(dual("exec", "ip", "-6", "-json", "route", "show", "default", "dev", "eth0", "proto", "ra"))
    assert [one["expires"] <= 6 for one in lifetimes] == [True]
    # The kernel does not use it any more, and takes it away when it next looks, twice a minute.
    wait_until(lambda: not default_routes(dual), 40 + SLACK, "the end of the IPv6 default route")
    assert is_usable(dual, prefix)
    assert fetches(dual, "4") and not fetches(dual, "6")
    assert faults_in_force(dual) == ["ipv6 eth silent"]
    dual("ipv6", "eth", "back")
    wait_until(lambda: default_routes(dual), 5 + SLACK, "an IPv6 default route")
    assert fetches(dual, "6")
    assert faults_in_force(dual) == []


def test_an_address_that_somebody_else_has_is_not_used_until_the_fault_is_taken_back(dual: Box) -> None:
    taken = newest_prefix(dual) + 1
    dual("ipv6", "eth", "duplicate")
    address = f"2001:db8:11:{taken:x}:{IDENTIFIER}"
    # The kernel takes it away when it learns that, and makes it again with the next advertisement.
    wait_until(lambda: "tentative" in addresses(dual).get(address, {}), 5 + SLACK, "an address to be checked")
    wait_until(lambda: address not in addresses(dual), 5 + SLACK, "the end of an address that is a duplicate")
    assert not fetches(dual, "6")
    assert fetches(dual, "4")
    assert faults_in_force(dual) == ["ipv6 eth duplicate"]
    dual("ipv6", "eth", "back")
    wait_until(lambda: is_usable(dual, f"2001:db8:11:{taken + 1:x}"), 5 + SLACK, "an address of its own")
    assert fetches(dual, "6")
    assert faults_in_force(dual) == []


def test_a_provider_without_ipv6_has_no_faults_of_ipv6(dual: Box) -> None:
    with pytest.raises(Failed, match="cell has no IPv6: take the box down, and .* up --families cell=46"):
        dual("ipv6", "cell", "dead")
    with pytest.raises(Failed, match=r"ipv6: use ipv6 eth\|cell dead\|refused\|no-router\|silent\|duplicate\|back, or"):
        dual("ipv6", "eth", "gone")
