# SPDX-License-Identifier: Apache-2.0
"""script/measure chaos [ROUNDS [SEED]]

Strikes the parts of a gateway box in random order and at random moments, heals everything, and asks whether all is right
again; each round is one run of the application through ten faults. Prints the faults, and the seed that repeats them.
With TMPDIR=/dev/shm no disk takes part in how long the library's calls last.
"""
from __future__ import annotations

import os
import pathlib
import random
import sys
import tempfile
import time

from orv_testbed.box import Box
from orv_testbed.calls import Calls
from orv_testbed.scene import Scene

# Each fault and its remedy.
FAULTS = [
    (("provider", "eth", "dead"), ("provider", "eth", "back")),
    (("provider", "cell", "dead"), ("provider", "cell", "back")),
    (("names", "eth", "mute"), ("names", "eth", "back")),
    (("names", "cell", "mute"), ("names", "cell", "back")),
    (("cable", "out"), ("cable", "in")),
    (("cellular", "out"), ("cellular", "in")),
    (("cloud-tls", "refused", "cell"), ("cloud-tls", "ok", "cell")),
    (("cloud-tls", "silent", "eth"), ("cloud-tls", "ok", "eth")),
    (("cloud", "down"), ("cloud", "up")),
    (("cloud-mqtt", "refused"), ("cloud-mqtt", "ok")),
    (("broker", "stop"), ("broker", "start")),
    (("broker", "freeze"), ("broker", "thaw")),
    (("connman", "stop"), ("connman", "start")),
    (("connman", "freeze"), ("connman", "thaw")),
    (("bus", "freeze"), ("bus", "thaw")),
    (("loss", "eth", "30"), ("loss", "eth", "off")),
    (("loss", "cell", "30"), ("loss", "cell", "off")),
    (("bandwidth", "cell", "64"), ("bandwidth", "cell", "off")),
    (("names", "eth", "lie", "192.0.2.7"), ("names", "eth", "back")),
    (("names", "cell", "lie", "0.0.0.0", "eth0"), ("names", "cell", "back")),
    (("portal", "eth", "on"), ("portal", "eth", "off")),
    (("portal", "cell", "on"), ("portal", "cell", "off")),
    (("lease", "eth", "end"), ("lease", "eth", "back")),
    (("cable", "gone"), ("cable", "in")),
    (("cellular", "gone"), ("cellular", "reset")),
    (("var-tmp", "full"), ("var-tmp", "ok")),
    (("var-tmp", "read-only"), ("var-tmp", "ok")),
]
EXPECTED = (
    "lost the connection",
    "was refused: not connected",
    "cannot connect",
    "Failed to publish message",
    "does not keep up",
    "cannot reconnect",
    "not on the message bus",
    "cannot put",
    "cannot set name servers",
    "poke error",
    "has not answered",
    "as top interface, restarting SM",
    "message bus",
)
# One process cannot be stopped and frozen at once, and what runs the cellular modem needs the bus.
EXCLUDE = {
    "broker": {"broker"},
    "connman": {"connman", "bus", "cellular"},
    "bus": {"bus", "connman", "cellular"},
    "cellular": {"bus", "connman"},
}


def strike(box: Box, chance: random.Random) -> None:
    pending: list[tuple[tuple[str, ...], tuple[str, ...]]] = []
    for _ in range(10):
        # A fault that is there already, or that another one stands in the way of, is healed first.
        fault, remedy = chance.choice(FAULTS)
        barred = EXCLUDE.get(fault[0], set())
        for entry in [entry for entry in pending if entry[0] == fault or entry[0][0] in barred]:
            box(*entry[1])
            pending.remove(entry)
        print("  ", *fault, flush=True)
        box(*fault)
        pending.append((fault, remedy))
        time.sleep(chance.uniform(0, 8))
        if chance.random() < 0.5:
            healed = pending.pop(chance.randrange(len(pending)))
            print("  ", *healed[1], flush=True)
            box(*healed[1])
            time.sleep(chance.uniform(0, 8))
    for entry in pending:
        print("  ", *entry[1], flush=True)
        box(*entry[1])


def play(seed: int, calls: Calls) -> None:
    chance = random.Random(seed)
    with tempfile.TemporaryDirectory() as folder, Box(f"c{os.getpid():x}") as box:
        scene = Scene(box, pathlib.Path(folder), "--tick-ms", "100")
        scene.expected_complaints = EXPECTED
        scene.orders_may_be_late = True
        scene.start()
        scene.cut_wire()
        strike(box, chance)
        begun = time.monotonic()
        scene.settles("eth0", 180)
        print(f"   right again after {time.monotonic() - begun:.1f} s", flush=True)
        calls.add(str(seed), scene.application.stop())
        scene.audit()


def main() -> None:
    rounds = int(sys.argv[1]) if len(sys.argv) > 1 else 5
    first = int(sys.argv[2]) if len(sys.argv) > 2 else random.randrange(1_000_000)
    calls = Calls()
    for seed in range(first, first + rounds):
        print(f"seed {seed}", flush=True)
        play(seed, calls)
    print("\n".join(calls.lines()))


if __name__ == "__main__":
    main()
