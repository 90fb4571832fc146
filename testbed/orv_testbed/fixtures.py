# SPDX-License-Identifier: Apache-2.0
"""What a conftest.py imports to give each of its tests a gateway, and a scene on it."""
from __future__ import annotations

import os
import pathlib
import shutil
from collections.abc import Callable, Iterator
from typing import Protocol

import pytest

from orv_testbed.box import Box
from orv_testbed.box_processes import BoxProcesses
from orv_testbed.calls import Calls, Figures, waits
from orv_testbed.families import Families
from orv_testbed.host import can_make_namespaces
from orv_testbed.preloaded import Preloaded
from orv_testbed.scene import Scene

NO_NAMESPACES = (
    "this machine does not let us make namespaces: run as root, in a container with --privileged, in a chroot "
    "with its root mounted on itself"
)
JudgeCalls = Callable[[Figures], None]


class MakeScene(Protocol):
    def __call__(self, *options: str, clock: bool = False) -> Scene:
        ...


def skip_without_what_a_box_needs(families: str | None = None) -> None:
    """`families` as `box up --families` is told."""
    if not can_make_namespaces():
        pytest.skip(NO_NAMESPACES)
    if families is None:
        return
    if "6" in families and not pathlib.Path("/proc/sys/net/ipv6").is_dir():
        pytest.skip("this machine has no IPv6")
    if "6" in Families.parse(families) and not pathlib.Path("/dev/net/tun").is_char_device():
        pytest.skip("this machine has no /dev/net/tun, which NAT64 needs")


@pytest.fixture
def box(request: pytest.FixtureRequest, tmp_path: pathlib.Path) -> Iterator[Box]:
    """A gateway of its own for each test, all of its parts running; their logs are kept beside the application's. The
    fixture's parameter, if it has one, is what `box up --families` is told."""
    families = getattr(request, "param", None)
    skip_without_what_a_box_needs(families)
    if BoxProcesses.forks is None:
        BoxProcesses.forks = Preloaded()  # this process makes box after box
    with Box(f"t{os.getpid():x}", families) as made:
        yield made
        shutil.copytree(made.folder / "log", tmp_path / "box-log")


@pytest.fixture
def judge_calls(request: pytest.FixtureRequest) -> JudgeCalls:
    """Takes the figures of a run that has ended, into the table at the end, too."""

    def judge(figures: Figures) -> None:
        request.node.user_properties.append(("calls", {call: figures[call] for call in Calls.KINDS}))
        assert not waits(figures)

    return judge


@pytest.fixture
def make_scene(box: Box, tmp_path: pathlib.Path, judge_calls: JudgeCalls) -> Iterator[MakeScene]:
    """Starts the application; in the end it is stopped and the scene audited. `clock`: with a wall clock of its own."""
    made: list[Scene] = []

    def make(*options: str, clock: bool = False) -> Scene:
        made.append(Scene(box, tmp_path, *options, clock=clock))
        return made[-1]

    yield make
    for scene in made:
        ended = scene.application.process.poll()
        assert ended is None, f"the application has ended by itself, status {ended}\n{scene.application.interesting()}"
        judge_calls(scene.application.stop())
        scene.audit()


@pytest.fixture
def scene(make_scene: MakeScene) -> Scene:
    """The application, connected to the cloud over Ethernet."""
    return make_scene().start()
