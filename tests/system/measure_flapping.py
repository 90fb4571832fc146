# SPDX-License-Identifier: Apache-2.0
"""script/measure flapping [SECONDS [FAULT...]]

How often the WAN route moves under a fault that lasts, and for which part of the time the cloud is connected: gateway-app
on a gateway box for SECONDS (180) a fault. Counts ticks, pokes that failed, log lines, and bytes on Cellular, too. Prints
a line for each fault, asserts nothing. ORV_APP_OPTIONS: options for gateway-app, such as "--tick-ms 250". ORV_KEEP_LOG: where
to leave the application's log.
"""
import os
import pathlib
import sys
import tempfile
import time

from orv_testbed.application import Application
from orv_testbed.box import Box


def flapping_provider(box, seconds):
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        for state in ("dead", "back"):
            box("provider", "eth", state)
            time.sleep(15)  # the fault's own rhythm


FAULTS = {
    "healthy": lambda box: None,
    "loss-20": lambda box: box("loss", "eth", "20"),
    "loss-40": lambda box: box("loss", "eth", "40"),
    "broker-down": lambda box: box("cloud-mqtt", "refused"),
    "provider-dead": lambda box: box("provider", "eth", "dead"),
    "portal-on-cellular": lambda box: (box("portal", "cell", "on"), box("provider", "eth", "dead")),
    "portal-on-ethernet": lambda box: box("portal", "eth", "on"),
    "flapping-provider": None,
}


def bytes_on(box, interface):
    counters = ("rx_bytes", "tx_bytes")
    return sum(int(box("exec", "cat", f"/sys/class/net/{interface}/statistics/{name}")) for name in counters)


def failed_by_round(lines):
    """How many pokes over Cellular failed in each round of 20 s."""
    rounds = []
    for line in lines:
        if "Started Poke to cell" in line:
            rounds.append(0)
        elif "poke error" in line and rounds:
            rounds[-1] += 1
    return rounds


def measure(fault, seconds):
    with tempfile.TemporaryDirectory() as folder, Box(f"f{os.getpid():x}") as box:
        application = Application(box, pathlib.Path(folder), *os.environ.get("ORV_APP_OPTIONS", "").split())
        application.wait_for_cloud("eth0", 10)
        application.wait_for("Cloud connected with Ethernet interface", 5)
        place, cellular, begin = application.mark(), bytes_on(box, "wwan0"), time.monotonic()
        if fault == "flapping-provider":
            flapping_provider(box, seconds)
        else:
            FAULTS[fault](box)
            time.sleep(seconds)
        end, log = time.monotonic(), application.log()[place:]
        cellular = bytes_on(box, "wwan0") - cellular
        up = application.connected_for(begin, end)
        ticks = application.stop()["tick"]["count"]
        if os.environ.get("ORV_KEEP_LOG"):
            pathlib.Path(os.environ["ORV_KEEP_LOG"]).write_text(application.log(), encoding="utf-8")
    lines = [line for line in log.splitlines() if " trace " not in line]
    switches = sum(", reconnecting" in line for line in lines)
    failed = sum("poke error" in line for line in lines)
    print(
        f"{fault:20} {switches:8} {100 * up / (end - begin):7.1f} {failed:7} {len(lines):6} {cellular:9} {ticks:6}"
        f"  {failed_by_round(lines)}",
        flush=True,
    )


def main():
    seconds = float(sys.argv[1]) if len(sys.argv) > 1 else 180
    print(f"{'fault':20} switches    up % pokes/failed lines  cell-bytes ticks  failed by round; in {seconds:.0f} s")
    for fault in sys.argv[2:] or FAULTS:
        measure(fault, seconds)


main()
