# SPDX-License-Identifier: Apache-2.0
"""script/measure cellular-bytes [SECONDS [SITUATION...] [-- OPTION...]]

What a day costs on Cellular: gateway-app on a gateway box for SECONDS (600) in each situation, from half a minute after it
has come about. Counts the IP bytes of both directions on wwan0, by what they are for: the connection to the cloud's
broker, pokes, look-ups of names (which nothing on the box keeps), and the rest. Options are gateway-app's. Asserts nothing.
"""
from __future__ import annotations

import json
import os
import pathlib
import sys
import tempfile
import time

from orv_testbed.application import Application
from orv_testbed.box import Box

KINDS = {"broker": "tcp {} 8883", "poke": "tcp {} 443", "names": "udp {} 53", "all": ""}
SITUATIONS: dict[str, list[tuple[str, ...]]] = {
    "healthy": [],
    "ethernet-dead": [("provider", "eth", "dead")],
    "portal-on-ethernet": [("portal", "eth", "on")],
    "no-cable": [("cable", "out")],
    "portal-on-cellular": [("portal", "cell", "on"), ("provider", "eth", "dead")],
}


def count(box: Box) -> None:
    """Puts a counter for each kind in place."""
    lines = ["table inet measure {", *(f"counter count_{kind} {{ }}" for kind in KINDS)]
    for hook, interface, port in (("input", "iifname", "sport"), ("output", "oifname", "dport")):
        lines += [f"chain {hook} {{", f"type filter hook {hook} priority 0;"]
        lines += [f"{interface} wwan0 {match.format(port)} counter name count_{kind}" for kind, match in KINDS.items()]
        lines += ["}"]
    box("exec", "nft", "\n".join([*lines, "}"]))


def counted(box: Box) -> dict[str, int]:
    found = json.loads(box("exec", "nft", "--json", "list", "counters", "table", "inet", "measure"))["nftables"]
    return {
        entry["counter"]["name"].replace("count_", ""): entry["counter"]["bytes"]
        for entry in found
        if "counter" in entry
    }


def measure(situation: str, seconds: float, options: list[str]) -> None:
    with tempfile.TemporaryDirectory() as folder, Box(f"c{os.getpid():x}") as box:
        application = Application(box, pathlib.Path(folder), *options)
        application.wait_for_cloud("eth0", 10)
        for words in SITUATIONS[situation]:
            box(*words)
        count(box)
        time.sleep(30)  # the way there is another figure
        before, begin = counted(box), time.monotonic()
        time.sleep(seconds)
        after, end = counted(box), time.monotonic()
        over = application.cloud_interface()
        application.stop()
    a_day = {kind: (after[kind] - before[kind]) * 86400 / (end - begin) / 1e6 for kind in KINDS}
    print(f"{situation:20} {str(over):7}" + "".join(f"{figure:9.3f}" for figure in a_day.values()), flush=True)


def main() -> None:
    words = sys.argv[1:]
    options = words[words.index("--") + 1 :] if "--" in words else []
    words = words[: words.index("--")] if "--" in words else words
    seconds = float(words[0]) if words else 600
    kinds = "".join(f"{kind:>8} " for kind in KINDS)
    print(f"{'situation':20} {'cloud':7} {kinds} MB a day, from {seconds:.0f} s; {' '.join(options)}")
    for situation in words[1:] or SITUATIONS:
        measure(situation, seconds, options)


main()
