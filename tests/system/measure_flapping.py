# SPDX-License-Identifier: Apache-2.0
"""script/measure flapping [SECONDS [FAULT...]]

How often the WAN route moves under a fault that lasts, and for which part of the time the cloud is connected: gateway-app
on a gateway box for SECONDS (180) a fault, ORV_BOXES (1) of them at a time. Counts pokes (attempts, and those that failed),
log lines and bytes on Cellular, too, each for an hour: what was counted is divided by the time, moves are not. Prints a
table row for each fault and asserts nothing. ORV_APP_OPTIONS: options for gateway-app, such as "--tick-ms 250".
ORV_KEEP_LOG: a folder for the application's logs.
"""
from __future__ import annotations

import os
import pathlib
import sys
import tempfile
import time
from concurrent.futures import ThreadPoolExecutor

from orv_testbed.application import Application
from orv_testbed.box import Box


def flapping_provider(box: Box, seconds: float) -> None:
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        for state in ("dead", "back"):
            box("provider", "eth", state)
            time.sleep(15)  # the fault's own rhythm


FAULTS: dict[str, list[tuple[str, ...]]] = {
    "healthy": [],
    "loss-20": [("loss", "eth", "20")],
    "loss-40": [("loss", "eth", "40")],
    "broker-down": [("cloud-mqtt", "refused")],
    "provider-dead": [("provider", "eth", "dead")],
    "portal-on-cellular": [("portal", "cell", "on"), ("provider", "eth", "dead")],
    "portal-on-ethernet": [("portal", "eth", "on")],
    "lying-names": [("names", "eth", "lie", "192.0.2.7")],
    "flapping-provider": [],
}


def bytes_on(box: Box, interface: str) -> int:
    counters = ("rx_bytes", "tx_bytes")
    return sum(int(box("exec", "cat", f"/sys/class/net/{interface}/statistics/{name}")) for name in counters)


def failed_by_round(lines: list[str]) -> list[int]:
    """How many pokes over Cellular failed in each round of 20 s."""
    rounds = []
    for line in lines:
        if "Started Poke to cell" in line:
            rounds.append(0)
        elif "poke error" in line and rounds:
            rounds[-1] += 1
    return rounds


def run(box: Box, folder: pathlib.Path, fault: str, seconds: float) -> tuple[list[str], float, int, int]:
    """Returns the log's lines, the part of the time in which the cloud was connected, bytes on Cellular and ticks."""
    application = Application(box, folder, *os.environ.get("ORV_APP_OPTIONS", "").split())
    application.wait_for_cloud("eth0", 10)
    application.wait_for("Cloud connected with Ethernet interface", 5)
    place, cellular, begin = application.mark(), bytes_on(box, "wwan0"), time.monotonic()
    if fault == "flapping-provider":
        flapping_provider(box, seconds)
    else:
        for words in FAULTS[fault]:
            box(*words)
        time.sleep(seconds)
    end, log = time.monotonic(), application.log()[place:]
    cellular = bytes_on(box, "wwan0") - cellular
    up = application.connected_for(begin, end) / (end - begin)
    ticks = application.stop()["tick"]["count"]
    if os.environ.get("ORV_KEEP_LOG"):
        kept = pathlib.Path(os.environ["ORV_KEEP_LOG"]) / f"{fault}.log"
        kept.write_text(application.log(), encoding="utf-8")
    return [line for line in log.splitlines() if " trace " not in line], up, cellular, ticks


def measure(number: int, fault: str, seconds: float) -> None:
    with tempfile.TemporaryDirectory() as folder, Box(f"f{os.getpid():x}{number}") as box:
        lines, up, cellular, ticks = run(box, pathlib.Path(folder), fault, seconds)

    def an_hour(count: int) -> int:
        return round(count * 3600 / seconds)

    moves = sum(", reconnecting" in line for line in lines)
    failed = sum("poke error" in line for line in lines)
    pokes = failed + sum("poke success" in line for line in lines)
    figures = (
        moves,
        f"{100 * up:.1f}",
        f"{an_hour(pokes)} ({an_hour(failed)})",
        an_hour(len(lines)),
        an_hour(cellular),
        an_hour(ticks),
        failed_by_round(lines)[:6],
    )
    print("| " + " | ".join(str(figure) for figure in (fault, *figures)) + " |", flush=True)


def main() -> None:
    seconds = float(sys.argv[1]) if len(sys.argv) > 1 else 180
    faults = sys.argv[2:] or list(FAULTS)
    print(
        f"Moves in {seconds:.0f} s; pokes, lines, bytes and ticks an hour; pokes that failed in each of the first rounds"
    )
    print("| fault | moves | cloud % | pokes (failed) | log lines | bytes on Cellular | ticks | failed by round |")
    print("|---|---|---|---|---|---|---|---|")
    with ThreadPoolExecutor(int(os.environ.get("ORV_BOXES", "1"))) as boxes:
        for done in [boxes.submit(measure, number, fault, seconds) for number, fault in enumerate(faults)]:
            done.result()


main()
