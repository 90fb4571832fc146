# SPDX-License-Identifier: Apache-2.0
"""script/measure soak [APPLICATIONS [MINUTES]]

Ten applications for ten minutes on one broker, with a broker restart each minute.

After each restart every feature must be available again, and an order must reach the one it is for and no other. Prints
memory and descriptors of the applications after each, and fails when either has grown by more than five per cent since
the second minute.
"""
from __future__ import annotations

import sys
import time

from orv_testbed.fleet import Fleet


def check_all(fleet: Fleet) -> None:
    fleet.await_words("available", "true")
    for ordered in fleet.applications:
        fleet.order_and_settle(ordered, "reload")
        for application in fleet.applications:
            expected = 1 if application is ordered else 0
            actual = application.callbacks().count("OnAppActionIndication RELOAD")
            assert actual == expected, f"{application.name}: {actual} orders, not {expected}"


def main() -> None:
    count = int(sys.argv[1]) if len(sys.argv) > 1 else 10
    minutes = int(sys.argv[2]) if len(sys.argv) > 2 else 10
    fleet = Fleet(count)
    try:
        fleet.await_words("init", "booting", "ready")
        memory, descriptors = [], []
        for minute in range(1, minutes + 1):
            ends = time.monotonic() + 60
            beginning = time.monotonic()
            fleet.restart_broker()
            fleet.await_words("available", "true")
            back = time.monotonic() - beginning
            check_all(fleet)
            while time.monotonic() < ends:
                fleet.order_and_settle(fleet.applications[minute % count], "enabled")
                time.sleep(0.2)
            memory.append(sum(application.memory() for application in fleet.applications))
            descriptors.append(sum(application.descriptors() for application in fleet.applications))
            print(
                f"minute {minute}: {count} features back after {back:.1f} s, all orders right; memory {memory[-1]} KiB, "
                f"{descriptors[-1]} descriptors",
                flush=True,
            )
        for what, series in (("memory", memory), ("descriptors", descriptors)):
            base = series[min(1, len(series) - 1)]
            assert series[-1] <= base * 1.05, f"{what} has grown from {base} to {series[-1]}"
        print(f"passed: {count} applications, {minutes} broker restarts, {fleet.rounds} orders")
    finally:
        fleet.close()


if __name__ == "__main__":
    main()
