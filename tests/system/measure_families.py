# SPDX-License-Identifier: Apache-2.0
"""script/measure families [TIMES [FAMILIES...]]

Measures boot, fail-over to Cellular and return on gateway boxes with IPv4, both IP families, or IPv6 alone on each side: from
the start of the application, the death of Ethernet's provider or its coming back until the cloud is connected over the
interface. The provider comes back when a poke has sent its first packet over it, in vain: how much is left of the second that
TCP waits then must not differ from one combination to the other. FAMILIES as in "eth=46,cell=6,cloud=4", or with a fault that
the box has from the beginning, as in "eth=46,cell=46:ipv6 cell dead"; without any: all nine combinations, with a cloud that
both sides can reach. Prints seconds, the median of TIMES boxes (default: 1), behind them the
difference to the median of IPv4 alone, that of the slowest box, too, and the families in which the cloud was connected each
time. A step that takes more than 60 s, and those behind it, show as "-". Asserts nothing.
"""
from __future__ import annotations

import os
import pathlib
import statistics
import sys
import tempfile
import time

from orv_testbed.application import Application
from orv_testbed.box import Box
from orv_testbed.waiting import comes_within

KINDS = ("4", "46", "6")
IPV4_ALONE = "eth=4,cell=4"
STEPS = ("boot", "fail-over", "return")
LONGEST = 60.0
HTTPS = 443


def combination(eth: str, cell: str) -> str:
    """An IPv6-only Cellular has NAT64 on its way, where Ethernet can reach an IPv4 cloud, too."""
    cloud = "" if (eth, cell) == ("4", "4") else ",cloud=4" if cell == "6" else ",cloud=46"
    return f"eth={eth},cell={cell}{cloud}"


def run(families: str) -> list[tuple[float, str]]:
    """For each step that came to its end, its seconds and the family in which the cloud was connected then."""
    results = []
    families, _, fault = families.partition(":")
    with tempfile.TemporaryDirectory() as folder, Box(f"m{os.getpid():x}", families) as box:
        if fault:
            box(*fault.split())
        begun = time.monotonic()
        application = Application(box, pathlib.Path(folder))
        for interface, following in (("eth0", "dead"), ("wwan0", "back"), ("eth0", "")):
            if not comes_within(LONGEST, lambda: application.cloud_interface() == interface):
                break
            seconds = time.monotonic() - begun
            families_told = [one["family"] for one in application.transcript() if one["what"] == "cloud_connected"]
            results.append((seconds, families_told[-1].removeprefix("IPv")))
            if following == "dead":
                comes_within(LONGEST, lambda: application.has_logged("Cloud connected with Ethernet interface"))
            elif following == "back":
                comes_within(LONGEST, lambda: ("eth", HTTPS) in [(one.side, one.port) for one in box.passages()])
            begun = time.monotonic()
            if following:
                box("provider", "eth", following)
        application.stop()
    return results


def shown(runs: list[list[tuple[float, str]]], step: int, base: float | None) -> tuple[str, float | None]:
    ended = [results[step] for results in runs if len(results) > step]
    if len(ended) < len(runs):
        return f"{'-':>25}", None
    seconds = statistics.median(one for one, _ in ended)
    difference = "" if base is None else f"{seconds - base:+.2f} {max(one for one, _ in ended) - base:+.2f}"
    return f"{seconds:7.2f} {difference:>11} IPv{'/'.join(sorted({family for _, family in ended}))}", seconds


def main() -> None:
    times = int(sys.argv[1]) if len(sys.argv) > 1 else 1
    chosen = sys.argv[2:] or [combination(eth, cell) for eth in KINDS for cell in KINDS]
    if IPV4_ALONE not in chosen:
        chosen.insert(0, IPV4_ALONE)
    base: list[float | None] = [None] * len(STEPS)
    print(f"{'seconds, beside IPv4 alone':34}" + "".join(f"{step:>27}" for step in STEPS), flush=True)
    for families in sorted(chosen, key=lambda one: one != IPV4_ALONE):
        runs = [run(families) for _ in range(times)]
        cells = [shown(runs, step, base[step]) for step in range(len(STEPS))]
        if families == IPV4_ALONE:
            base = [seconds for _, seconds in cells]
        print(f"{families:34}" + "".join(f"{cell:>27}" for cell, _ in cells), flush=True)


main()
