# SPDX-License-Identifier: Apache-2.0
"""The box goes without a trace, and says why it could not come.

A mount namespace with a /run of its own stands for the machine, so that other boxes come and go without being seen.
"""
from __future__ import annotations

import os
import pathlib
import socket
import subprocess
import tempfile
import time
from collections.abc import Iterator

import pytest

from orv_testbed.fixtures import NO_NAMESPACES
from orv_testbed.host import can_make_namespaces
from orv_testbed.programs import TREE, program
from orv_testbed.waiting import wait_until

NAME = f"n{os.getpid():x}"
BOX = str(TREE / "testbed/box")
TOOLS = pathlib.Path(os.environ.get("ORV_TOOLS", TREE / "build/tools"))


class Machine:
    def __init__(self) -> None:
        self.state = pathlib.Path(tempfile.gettempdir()) / f"orv-box-{NAME}"
        self.environment = {
            **os.environ,
            "ORV_BOX": NAME,
            "ORV_BOX_DIR": str(self.state),
            "ORV_SOURCE_ROUTES": program("orv-source-routes"),
        }
        self.processes: list[subprocess.Popen[str]] = []
        # What other boxes have mounted would shine through.
        own_run = (
            "umount --recursive --lazy /run/netns 2>/dev/null; mount -t tmpfs -o mode=755 tmpfs /run && echo ready"
        )
        self.holder = self.start(
            ["unshare", "--mount", "--propagation", "private", "sh", "-c", own_run + " && exec sleep infinity"]
        )
        assert self.first_line(self.holder) == "ready\n"

    def first_line(self, process: subprocess.Popen[str]) -> str:
        assert process.stdout
        return process.stdout.readline()

    def start(self, command: list[str]) -> subprocess.Popen[str]:
        self.processes.append(
            subprocess.Popen(command, env=self.environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
        )
        return self.processes[-1]

    def inside(self, *command: str) -> list[str]:
        # Entering a mount namespace leads to its root; ours may be another (chroot).
        return ["nsenter", "--target", str(self.holder.pid), "--mount", "--root", "--wdns=/", *command]

    def run(self, *command: str, **environment: str) -> subprocess.CompletedProcess[str]:
        return subprocess.run(
            self.inside(*command),
            env={**self.environment, **environment},
            capture_output=True,
            text=True,
            timeout=90,
            check=False,
        )

    def box(self, *words: str) -> str:
        done = self.run(BOX, *words)
        assert done.returncode == 0, done.stderr
        return done.stdout

    def own_processes(self) -> list[bytes]:
        """The commands of those that live in the box or were started for it; not those that are ours."""
        mine = {process.pid for process in self.processes} | {os.getpid()}
        found = []
        for folder in pathlib.Path("/proc").glob("[0-9]*"):
            try:
                marks = (folder / "environ").read_bytes() + (folder / "cmdline").read_bytes()
            except OSError:
                continue
            if str(self.state).encode() in marks and int(folder.name) not in mine:
                found.append(marks.split(b"\0")[-2])
        return found

    def traces(self) -> dict[str, object]:
        """Whatever the box might leave behind, and what it must not change."""
        said = {
            " ".join(command): self.run(*command).stdout
            for command in (
                ["cat", "/proc/self/mountinfo"],
                ["find", "/run"],
                ["ip", "netns"],
                ["ip", "-br", "address"],
                ["ip", "route"],
                ["ip", "rule"],
                ["cat", "/etc/resolv.conf"],
            )
        }
        return {
            **said,
            "host name": socket.gethostname(),
            "folder": self.state.exists(),
            "processes": self.own_processes(),
        }

    def close(self) -> None:
        self.run(BOX, "down")
        for process in self.processes:
            process.kill()
            process.communicate()


@pytest.fixture
def machine() -> Iterator[Machine]:
    if not can_make_namespaces():
        pytest.skip(NO_NAMESPACES)
    made = Machine()
    yield made
    made.close()


def shifted() -> float:
    """By how much the wall clock has been set since the machine came up."""
    return time.time() - time.clock_gettime(time.CLOCK_BOOTTIME)


def faketime_files(pid: int) -> list[pathlib.Path]:
    return [path for path in pathlib.Path("/dev/shm").glob(f"*faketime_*_{pid}")]


def test_a_box_that_was_used_leaves_no_trace(machine: Machine) -> None:
    before = machine.traces()
    clock = shifted()

    machine.box("up")
    machine.box("clock", "+86400")
    program_of_its_own = machine.start(
        machine.inside("env", "ORV_BOX_CLOCK=1", BOX, "exec", "sh", "-c", "date +%s && exec sleep infinity")
    )
    told = float(machine.first_line(program_of_its_own))
    assert told > time.time() + 80000
    during = machine.traces()
    assert faketime_files(program_of_its_own.pid)
    machine.box("down")

    assert [what for what in before if during[what] == before[what]] == [
        "ip -br address",
        "ip route",
        "ip rule",
        "cat /etc/resolv.conf",
        "host name",
    ]
    assert machine.traces() == before
    assert abs(shifted() - clock) < 1
    assert not faketime_files(program_of_its_own.pid)
    assert program_of_its_own.wait(5) != 0


def test_a_box_that_ends_first_takes_nothing_from_another(machine: Machine) -> None:
    before = machine.traces()
    second = {"ORV_BOX": NAME + "b", "ORV_BOX_DIR": f"{machine.state}b"}

    machine.box("up")
    try:
        assert machine.run(BOX, "up", **second).returncode == 0
        machine.box("down")
        assert "eth0" in machine.run(BOX, "exec", "ip", "route", "show", "default", **second).stdout
    finally:
        machine.run(BOX, "down", **second)

    assert machine.traces() == before


def test_a_box_that_cannot_come_up_says_why_and_leaves_no_trace(machine: Machine, tmp_path: pathlib.Path) -> None:
    before = machine.traces()
    daemons = tmp_path / "tools/usr/sbin"
    daemons.mkdir(parents=True)
    (daemons / "mosquitto").symlink_to(TOOLS / "usr/sbin/mosquitto")
    (daemons / "connmand").write_text("#!/bin/sh\necho no plug-in for this weather\nexit 1\n", encoding="ascii")
    (daemons / "connmand").chmod(0o755)

    done = machine.run(BOX, "up", ORV_TOOLS=str(tmp_path / "tools"))

    assert done.returncode == 1
    assert "box: ConnMan has ended at once" in done.stderr
    assert "box: connman: no plug-in for this weather" in done.stderr
    assert machine.traces() == before


def test_orders_over_a_frozen_bus_say_what_to_do(machine: Machine) -> None:
    machine.box("up")
    machine.box("bus", "freeze")

    done = machine.run(BOX, "cellular", "out")

    assert done.returncode == 1
    assert "thaw a frozen bus first" in done.stderr
    machine.box("bus", "thaw")
    wait_until(lambda: machine.run(BOX, "cellular", "in").returncode == 0, 10, "the modem takes orders again")
