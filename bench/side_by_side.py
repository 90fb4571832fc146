# SPDX-License-Identifier: Apache-2.0
"""What moves the WAN route, side by side: gateway-app, NetworkManager with its connectivity check, ConnMan with its online
check, each alone on a gateway box of its own, under the same faults. A client in place of a product's cloud connection tries
again and again to make a new TLS connection.

For each contestant and fault a line: seconds from the fault to the first new TLS connection to the cloud over Cellular;
moves of the default route; how many of them were unproven, that is without a handshake or check over the new path that
the cloud has seen in the 30 s before; the part of the time, and the longest time without, in which that client reached
the cloud; bytes of the contestant's own checks on Cellular (IP bytes on TCP ports 80 and 443; look-ups not counted), and
what that makes an hour; the machine's load. Asserts nothing; the exit status is 1 when one could not be measured. Needs
root. ORV_BUILD names the build.
"""
from __future__ import annotations

import argparse
import concurrent.futures
import json
import os
import pathlib
import queue
import subprocess
import sys
import tempfile
import threading
import time
import traceback
from typing import Any

from orv_testbed.box import Box
from orv_testbed.layout import CELLULAR, CLOUD_ADDRESS, CLOUD_NAME, ETHERNET
from orv_testbed.networks import Namespace
from orv_testbed.timestamps import at
from peers.contestants import CONTESTANTS

Result = dict[str, Any]
Move = tuple[float, str]  # when, to which interface

HERE = pathlib.Path(__file__).resolve().parent

FAULTS = {
    "none": (),
    "provider-dead": (("provider", "eth", "dead"),),
    "loss-20": (("loss", "eth", "20"),),
    "lying-names": (("names", "eth", "lie", "192.0.2.7"),),
    "portal-on-cellular": (("portal", "cell", "on"), ("provider", "eth", "dead")),
}
BEHIND_ETHERNET, BEHIND_CELLULAR = f"{ETHERNET.net}.", f"{CELLULAR.net}."
FRESH = 30.0  # seconds that a proof is good for
COUNTERS = """table inet bench {
counter check {}
chain input { type filter hook input priority -10; iifname wwan0 tcp sport { 80, 443 } counter name check; }
chain output { type filter hook output priority -10; oifname wwan0 tcp dport { 80, 443 } counter name check; }
}"""


class Route(threading.Thread):
    """Watches over which interface the best default route leads: `moves` are (time, interface)."""

    def __init__(self, box: Box) -> None:
        super().__init__(daemon=True)
        self.table = pathlib.Path(f"/proc/{box.pid_of('gateway')}/net/route")
        self.moves: list[Move] = []
        self.ended = threading.Event()

    def best(self) -> str | None:
        lines = [line.split() for line in self.table.read_text(encoding="ascii").splitlines()[1:]]
        routes = [(int(words[6]), words[0]) for words in lines if words[1] == words[7] == "00000000"]
        return min(routes)[1] if routes else None

    def run(self) -> None:
        before = None
        while not self.ended.wait(0.02):
            try:
                now = self.best()
            except OSError:
                return
            if now is not None and now != before:  # none: it is just being replaced
                self.moves.append((time.time(), now))
                before = now


class Trial:
    """One contestant on a box."""

    def __init__(self, name: str, box: Box, folder: pathlib.Path) -> None:
        self.box, self.folder = box, folder
        self.contestant = CONTESTANTS[name]()
        self.gateway, self.cloud = Namespace(f"{box.name}-gw"), Namespace(f"{box.name}-cloud")
        self.page = self.in_cloud(str(HERE / "peers/check_page.py"), CLOUD_ADDRESS, BEHIND_ETHERNET, BEHIND_CELLULAR)
        subprocess.run(self.gateway.command("nft", "-f", "-"), input=COUNTERS, text=True, check=True)
        self.contestant.start(box, folder)
        with open(folder / "cloud-client", "w", encoding="utf-8") as log:
            box.start(
                "nice",
                "-n",
                "-15",
                "env",
                "RES_OPTIONS=timeout:1 attempts:2",
                "/usr/bin/python3",
                str(HERE / "peers/cloud_client.py"),
                CLOUD_NAME,
                "8883",
                stdout=log,
                stderr=log,
            )
        self.route = Route(box)
        self.route.start()

    def in_cloud(self, *command: str) -> subprocess.Popen[bytes]:
        with open(self.folder / "checks", "w", encoding="utf-8") as log:
            return subprocess.Popen(
                self.cloud.command("/usr/bin/python3", *command),
                stdin=subprocess.DEVNULL,
                stdout=log,
                stderr=log,
            )

    def close(self) -> None:
        self.route.ended.set()
        self.page.kill()
        self.page.wait()

    def keep(self, place: pathlib.Path, result: Result) -> None:
        for file in [*self.folder.iterdir(), self.box.folder / "log/connman"]:
            target = place / f"{result['contestant']}-{result['fault']}-{file.name}"
            target.write_bytes(file.read_bytes())
        with open(place / "results.jsonl", "a", encoding="utf-8") as results:
            results.write(json.dumps(result) + "\n")

    def attempts(self) -> list[dict[str, Any]]:
        lines = (self.folder / "cloud-client").read_text(encoding="utf-8").splitlines()
        return [json.loads(line) for line in lines if line.startswith("{") and line.endswith("}")]

    def over_cellular(self, since: float) -> float | None:
        """When the first new connection over Cellular was made; None: not yet."""
        return next(
            (
                entry["end"]
                for entry in self.attempts()
                if entry["begin"] >= since and (entry["from"] or "").startswith(BEHIND_CELLULAR)
            ),
            None,
        )

    def check_bytes(self) -> int:
        told = subprocess.run(
            self.gateway.command("nft", "list", "counter", "inet", "bench", "check"),
            text=True,
            capture_output=True,
            check=True,
        ).stdout
        return int(told.split("bytes ")[1].split()[0])

    def proofs(self, side: str) -> list[float]:
        """When the cloud has seen a handshake of a poke or a check over that side."""
        checks = (line.split() for line in (self.folder / "checks").read_text(encoding="utf-8").splitlines())
        return [float(words[0]) for words in checks if words[1:] == [side]] + [
            at(time) for time in self.box.handshakes(side)
        ]

    def unproven(self, moves: list[Move]) -> int:
        proofs = {name: self.proofs(side) for name, side in (("eth0", "eth"), ("wwan0", "cell"))}
        return sum(not any(when - FRESH <= proof <= when for proof in proofs[name]) for when, name in moves)

    def reached(self, begin: float, end: float) -> tuple[float, float]:
        """For which part of the time new connections succeeded, and the longest time in which none did."""
        entries = [entry for entry in self.attempts() if begin <= entry["begin"] < end]
        total, gap, last = 0.0, 0.0, begin
        for entry, following in zip(entries, [later["begin"] for later in entries[1:]] + [end]):
            if entry["from"]:
                total += following - entry["begin"]
                gap, last = max(gap, entry["end"] - last), entry["end"]
        return total / (end - begin), max(gap, end - last)


def settle_and_spoil(trial: Trial, fault: str, seconds: float) -> tuple[float, float, int]:
    """Lets the contestant settle, then the fault last; returns when that began and ended, and the bytes of its checks."""
    time.sleep(trial.contestant.settling)
    if trial.route.best() != "eth0":
        raise AssertionError("the default route does not lead over Ethernet before the fault")
    before, words = trial.check_bytes(), FAULTS[fault]
    for command in words[:-1]:
        trial.box(*command)
    begin = time.time()
    for command in words[-1:]:
        trial.box(*command)
    time.sleep(seconds)
    return begin, time.time(), trial.check_bytes() - before


def measure(name: str, fault: str, seconds: float, keep: str | None) -> Result:
    box_name = BOXES.get()
    box = Box(box_name)
    if name != "gateway-app":
        box.environment["ORV_SOURCE_ROUTES"] = "/nonexistent"  # that is ours
    try:
        with tempfile.TemporaryDirectory() as scratch, box:
            trial = Trial(name, box, pathlib.Path(scratch))
            try:
                begin, end, spent = settle_and_spoil(trial, fault, seconds)
                moves = [move for move in trial.route.moves if begin <= move[0] < end]
                first, (reached, gap) = trial.over_cellular(begin), trial.reached(begin, end)
                result = {
                    "contestant": name,
                    "fault": fault,
                    "seconds": seconds,
                    "cellular_after": first and first - begin,
                    "moves": len(moves),
                    "unproven": trial.unproven(moves),
                    "reached": reached,
                    "longest_without": gap,
                    "check_bytes": spent,
                    "load": os.getloadavg()[0],
                    "all_moves": [(round(when - begin, 1), interface) for when, interface in moves],
                }
                if keep:
                    trial.keep(pathlib.Path(keep), result)
                return result
            finally:
                trial.close()
    finally:
        BOXES.put(box_name)


HEAD = (
    f"{'contestant':24} {'fault':20} {'cellular s':>10} {'moves':>6} {'unproven':>8} {'reached %':>9} {'without s':>9} "
    f"{'check bytes':>11} {'an hour':>9} {'load':>5}  moves: seconds after the fault, to"
)


def line(result: Result) -> str:
    after = result["cellular_after"]
    return (
        f"{result['contestant']:24} {result['fault']:20} {'-' if after is None else format(after, '.1f'):>10} "
        f"{result['moves']:6} {result['unproven']:8} {100 * result['reached']:9.1f} {result['longest_without']:9.1f} "
        f"{result['check_bytes']:11} {result['check_bytes'] * 3600 / result['seconds']:9.0f} {result['load']:5.1f}  "
        f"{result['all_moves']}"
    )


BOXES: queue.Queue[str] = queue.Queue()


def main() -> int:
    """Returns the exit status: 1 when a contestant could not be measured."""
    parser = argparse.ArgumentParser(
        "side-by-side", description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    parser.add_argument(
        "contestants", nargs="*", metavar="CONTESTANT", help=f"of {', '.join(CONTESTANTS)}; default: all"
    )
    parser.add_argument("--faults", default=",".join(FAULTS), help="with commas between; default: %(default)s")
    parser.add_argument("--seconds", type=float, default=180, help="how long each fault lasts (default: %(default).0f)")
    parser.add_argument("--runs", type=int, default=1, help="how often (default: %(default)s)")
    parser.add_argument("--boxes", type=int, default=5, help="how many boxes at a time (default: %(default)s)")
    parser.add_argument("--keep", help="a folder for the logs")
    options = parser.parse_args()
    names, faults = options.contestants or list(CONTESTANTS), options.faults.split(",")
    for word in [name for name in names if name not in CONTESTANTS] + [
        fault for fault in faults if fault not in FAULTS
    ]:
        parser.error(f"neither a contestant nor a fault: {word}")
    for number in range(options.boxes):
        BOXES.put(f"{os.getpid() % 0xfffff:x}x{number:x}")
    print(HEAD, flush=True)
    failed = 0
    with concurrent.futures.ThreadPoolExecutor(options.boxes) as pool:
        jobs = [(name, fault) for _ in range(options.runs) for fault in faults for name in names]
        jobs.sort(key=lambda job: -CONTESTANTS[job[0]]().settling)  # the longest first
        pending = {pool.submit(measure, *job, options.seconds, options.keep): job for job in jobs}
        for done in concurrent.futures.as_completed(pending):
            try:
                print(line(done.result()), flush=True)
            except Exception:  # pylint: disable=broad-except
                failed = 1
                print(f"{' '.join(pending[done])}: failed", flush=True)
                traceback.print_exc()
    return failed


sys.exit(main())
