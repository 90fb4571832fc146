# SPDX-License-Identifier: Apache-2.0
"""Where programs are: our own, and those that script/bootstrap has unpacked instead of installing them."""
from __future__ import annotations

import os
import pathlib
from collections.abc import Sequence
from typing import Any, NamedTuple, Protocol

TREE = pathlib.Path(__file__).resolve().parents[2]
TESTBED = TREE / "testbed"
TOOLS = pathlib.Path(os.environ.get("ORV_TOOLS", TREE / "build/tools"))


PYTHON = ("/usr/bin/python3", "-Bu", "-m")


class Place(Protocol):
    """Where a program of a box runs."""

    def command(self, *words: str | pathlib.Path) -> Sequence[str | pathlib.Path]:
        """What runs `words` there."""

    def entry(self) -> dict[str, Any]:
        """How a process gets there by itself: see `namespaces.enter_all`."""


class Program(NamedTuple):
    """One of this package's."""

    place: Place
    module: str
    arguments: tuple[str | pathlib.Path, ...] = ()

    def command(self) -> list[str]:
        return [str(word) for word in self.place.command(*PYTHON, self.module, *self.arguments)]


class Here:
    """Where the caller is."""

    @staticmethod
    def command(*words: str | pathlib.Path) -> list[str | pathlib.Path]:
        return list(words)

    @staticmethod
    def entry() -> dict[str, Any]:
        return {}


HERE = Here()


def python_environment() -> dict[str, str]:
    """In which Python finds this package."""
    return {**os.environ, "PYTHONPATH": str(TESTBED)}


class Missing(RuntimeError):
    """A program is not there; the text says how to get it."""


def program(name: str) -> str:
    """The newest build of one of our programs for this machine, or the one in the folder that ORV_BUILD names."""
    named = os.environ.get("ORV_BUILD")
    own = [folder for folder in (TREE / "build").glob("*") if "mipsel" not in folder.name]
    folders = [pathlib.Path(named)] if named else own
    built = [folder / "bin" / name for folder in folders if (folder / "bin" / name).exists()]
    if not built:
        raise Missing(f"{name} is not built: cmake --preset debug && cmake --build --preset debug")
    return str(max(built, key=lambda path: path.stat().st_mtime))


def daemon(name: str, purpose: str = "box") -> str:
    """A daemon that is unpacked, or else the machine's own; `purpose`: what script/bootstrap has it for."""
    for path in (TOOLS / "usr/sbin" / name, pathlib.Path("/usr/sbin", name)):
        if os.access(path, os.X_OK):
            return str(path)
    raise Missing(
        f"{name} is missing: run {TREE}/script/bootstrap {purpose} (it is unpacked into {TOOLS}, not installed)"
    )
