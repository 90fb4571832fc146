# SPDX-License-Identifier: Apache-2.0
"""python3 recorder.py SECONDS UNIT... on the machine: watches it by itself, so that no command from outside is in the figures.

Tells a line by the port of the observer, "measured" and JSON: what came about in so many seconds, of the whole machine, of each
unit, of each process that has made pages dirty, and which files on the disk were written.
"""
from __future__ import annotations

import json
import os
import pathlib
import subprocess
import sys
import time
from typing import Any

GROUPS = pathlib.Path("/sys/fs/cgroup/system.slice")
# Of /sys/block/vda/stat.
WRITES, SECTORS = 4, 6


def read(path: pathlib.Path | str) -> str:
    try:
        return pathlib.Path(path).read_text(encoding="utf-8", errors="replace")
    except OSError:
        return ""


def number(text: str, name: str) -> int:
    return sum(int(line.split()[1]) for line in text.splitlines() if line.split()[:1] == [name])


def unit(name: str) -> dict[str, int]:
    group = GROUPS / f"{name}.service"
    figures = {"cpu_us": number(read(group / "cpu.stat"), "usage_usec"), "wakes": 0, "rss": 0, "pss": 0}
    for pid in read(group / "cgroup.procs").split():
        memory = read(f"/proc/{pid}/smaps_rollup").split("\n", 1)[-1]
        figures["rss"] += number(memory, "Rss:")
        figures["pss"] += number(memory, "Pss:")
        figures["wakes"] += sum(
            number(read(thread / "status"), "voluntary_ctxt_switches:")
            for thread in pathlib.Path(f"/proc/{pid}/task").iterdir()
        )
    return figures


def sample(units: list[str]) -> dict[str, Any]:
    disk = read("/sys/block/vda/stat").split()
    processors = read("/proc/stat")
    jiffies = [int(word) for word in processors.splitlines()[0].split()[1:]]
    dirtied = {}
    for process in pathlib.Path("/proc").glob("[0-9]*"):
        if written := number(read(process / "io"), "write_bytes:"):
            dirtied[f"{read(process / 'comm').strip()} {process.name}"] = written
    return {
        "uptime": float(read("/proc/uptime").split()[0]),
        "writes": int(disk[WRITES]),
        "sectors": int(disk[SECTORS]),
        "busy": sum(jiffies) - jiffies[3] - jiffies[4],
        "jiffies": sum(jiffies),
        "switches": number(processors, "ctxt"),
        "interrupts": number(processors, "intr"),
        "dirtied": dirtied,
        "units": {name: unit(name) for name in units},
    }


def written_files(since: float) -> dict[str, int]:
    """The files on the disk that were changed, with their sizes."""
    command = ["find", "/", "-xdev", "-type", "f", "-newermt", f"@{since:.3f}", "-printf", "%s %p\\n"]
    lines = subprocess.run(command, capture_output=True, text=True, check=False).stdout.splitlines()
    return {path: int(size) for size, path in (line.split(" ", 1) for line in lines)}


def main() -> None:
    seconds, units = float(sys.argv[1]), sys.argv[2:]
    os.sync()
    began = time.time()
    before = sample(units)
    time.sleep(seconds)
    os.sync()
    after = sample(units)
    told = json.dumps({"before": before, "after": after, "files": written_files(began)})
    with open("/dev/virtio-ports/testbed.seen", "w", encoding="utf-8") as port:
        port.write(f"measured {told}\n")


main()
