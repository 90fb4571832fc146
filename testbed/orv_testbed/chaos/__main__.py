# SPDX-License-Identifier: Apache-2.0
"""What script/chaos runs."""
from __future__ import annotations

import argparse
import itertools
import os
import pathlib
import random
import shutil
import sys
import time

from orv_testbed.box import Box
from orv_testbed.chaos.on_box import GatewayOnBox
from orv_testbed.chaos.play import BOX_FAILURES, OF_THE_BOX, Clock, play
from orv_testbed.chaos.rounds import Result, Rounds
from orv_testbed.chaos.schedule import NoSchedule, Schedule, draw, load
from orv_testbed.chaos.shrink import shrink


def understood(words: list[str]) -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="chaos", usage=argparse.SUPPRESS, add_help=False)
    parser.add_argument("--folder", type=pathlib.Path, required=True)
    for number in ("seed", "rounds", "minutes"):
        parser.add_argument(f"--{number}", type=int)
    parser.add_argument("--boxes", type=int, default=1)
    parser.add_argument("--replay", type=pathlib.Path)
    parser.add_argument("--shrink", type=pathlib.Path)
    return parser.parse_args(words)


def on_box(schedule: Schedule, number: int, folder: pathlib.Path) -> list[str]:
    """A box that fails ends this round alone, and hides nothing that was found before."""
    faults: list[str] = []
    try:
        with Box(f"c{number}{os.getpid():x}"[:8]) as box:
            try:
                faults += play(schedule, GatewayOnBox(box, folder, schedule), Clock())
            finally:
                shutil.copytree(box.folder / "log", folder / "box-log")
    except BOX_FAILURES as error:
        faults.append(f"{OF_THE_BOX}{error}")
    return faults


def tell(result: Result) -> None:
    print(f"seed {result.schedule.seed}: {'FAILED' if result.faults else 'right again'} after {result.seconds:.0f} s")
    if result.faults:
        print(f"  in {result.folder}:")
    for line in result.schedule.lines() if result.faults else ():
        print(f"  {line}")
    for fault in result.faults:
        print(f"  {fault}")
    sys.stdout.flush()
    if not result.faults:
        shutil.rmtree(result.folder)


def main(words: list[str]) -> int:
    asked = understood(words)
    rounds = Rounds(on_box, asked.boxes, asked.folder)
    try:
        if asked.shrink:
            small = shrink(load(asked.shrink), rounds.fail, asked.boxes)
            small.save(asked.shrink.with_name(asked.shrink.name + "-shrunk"))
            print("\n".join(small.lines()))
            print(f"kept as {asked.shrink}-shrunk")
            return 0
        if asked.replay:
            schedules = itertools.repeat(load(asked.replay), asked.rounds or 1)
            rounds.run(schedules, tell)
        else:
            first = random.randrange(1_000_000) if asked.seed is None else asked.seed
            count = asked.rounds or (
                1 if asked.seed is not None and not asked.minutes else 10**9 if asked.minutes else 5
            )
            until = time.monotonic() + 60 * asked.minutes if asked.minutes else None
            print(f"seeds from {first}; a round takes one to four minutes", flush=True)
            rounds.run(map(draw, range(first, first + count)), tell, until)
    except NoSchedule as error:
        print(f"chaos: {error}", file=sys.stderr)
        return 2
    except KeyboardInterrupt:
        print(f"{rounds.summary()}; interrupted")
        return 130
    print(rounds.summary())
    return 1 if any(result.faults for result in rounds.results) else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
