# SPDX-License-Identifier: Apache-2.0
"""A copy of the tree in which faults are planted, and what is built of it."""
from __future__ import annotations

import concurrent.futures
import contextlib
import dataclasses
import functools
import hashlib
import os
import pathlib
import re
import shutil
import signal
import subprocess
import time
from collections.abc import Callable, Iterable, Mapping
from typing import TypeVar

MOST_OF_A_BUILD = 1800  # seconds
MOST_OF_AN_END = 60  # seconds, from SIGTERM on
T = TypeVar("T")
ASAN = "asan-ubsan"  # the preset of most instruments
JOBS = len(os.sched_getaffinity(0))


class Ended(Exception):
    """A command has not ended in time."""


def touched_by(patch: pathlib.Path) -> list[str]:
    """The files of the patch, as the tree knows them."""
    found = re.findall(r"(?m)^(?:---|\+\+\+) (?:[ab]/)?(\S+)", patch.read_text(errors="replace"))
    return sorted({name for name in found if name != "/dev/null"})


def write(target: pathlib.Path, source: pathlib.Path) -> None:
    """With the time of now, so that what was built of another content is built again."""
    if (
        target.is_file()
        and target.read_bytes() == source.read_bytes()
        and target.stat().st_mode == source.stat().st_mode
    ):
        return
    target.parent.mkdir(parents=True, exist_ok=True)
    target.unlink(missing_ok=True)
    if source.is_symlink():
        target.symlink_to(os.readlink(source))
        return
    target.write_bytes(source.read_bytes())
    target.chmod(source.stat().st_mode)


def as_it_was(target: pathlib.Path, source: pathlib.Path) -> None:
    """With the source's time, and in one step: whoever is interrupted leaves no half of it."""
    target.parent.mkdir(parents=True, exist_ok=True)
    beside = target.with_name(target.name + ".new")
    beside.unlink(missing_ok=True)
    shutil.copy2(source, beside, follow_symlinks=False)
    beside.replace(target)


def state_of(path: pathlib.Path) -> tuple[int, int, int]:
    """Changes when somebody writes the file."""
    found = path.lstat()
    return found.st_mtime_ns, found.st_size, found.st_mode


def files_in(folder: pathlib.Path) -> set[str]:
    return {str(path.relative_to(folder)) for path in folder.rglob("*") if path.is_symlink() or path.is_file()}


def end(process: subprocess.Popen[bytes]) -> None:
    """With what it has started. Boxes are taken down where there is time."""
    for sent, limit in ((signal.SIGTERM, MOST_OF_AN_END), (signal.SIGKILL, MOST_OF_AN_END)):
        with contextlib.suppress(ProcessLookupError, subprocess.TimeoutExpired):
            os.killpg(process.pid, sent)
            process.wait(limit)


class Scratch:
    def __init__(self, tree: pathlib.Path, place: pathlib.Path) -> None:
        self.tree, self.place = tree, place
        self.copy, self.logs, self.sound = place / "tree", place / "logs", place / "sound"
        self.built = self.folder(ASAN)
        self._states: dict[str, dict[str, tuple[int, int, int]]] = {}
        self._times: dict[str, int] = {}
        self._running: set[subprocess.Popen[bytes]] = set()

    def folder(self, preset: str) -> pathlib.Path:
        """What is built by the preset."""
        return self.copy / "build" / preset

    def run(self, command: list[str], log: str, limit: float) -> tuple[int, str]:
        """Exit status and output; after `limit` seconds the command and what it has started are ended."""
        path = self.logs / log
        with path.open("w") as output:
            with subprocess.Popen(
                command, cwd=self.copy, stdout=output, stderr=output, start_new_session=True
            ) as process:
                self._running.add(process)
                try:
                    process.wait(limit)
                except subprocess.TimeoutExpired:
                    raise Ended(f"not ended after {limit:.0f} s") from None
                finally:
                    self._running.discard(process)
                    end(process)
        return process.returncode, path.read_text(errors="replace")

    def end_all(self) -> None:
        """What other threads have run is ended, too."""
        for process in list(self._running):
            end(process)

    def update(self) -> None:
        """The tree as it stands, uncommitted changes too; nothing else is left there but its build."""
        listed = subprocess.check_output(
            ["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"], cwd=self.tree
        )
        names = {name for name in listed.decode().split("\0") if name and (self.tree / name).exists()}
        for name in names:
            write(self.copy / name, self.tree / name)
        for path in self.copy.rglob("*"):
            name = str(path.relative_to(self.copy))
            if not name.startswith("build") and (path.is_file() or path.is_symlink()) and name not in names:
                path.unlink()

    def apply(self, patch: pathlib.Path) -> str:
        """Empty, or why it cannot be applied."""
        for name in touched_by(patch):
            if (self.copy / name).exists():
                self._times[name] = (self.copy / name).stat().st_mtime_ns
        # Otherwise git would find the tree's own repository, and leave out all that is not in it.
        said = subprocess.run(
            ["git", "apply", "--whitespace=nowarn", str(patch.resolve())],
            cwd=self.copy,
            env={**os.environ, "GIT_CEILING_DIRECTORIES": str(self.place)},
            capture_output=True,
            text=True,
            check=False,
        )
        for name in touched_by(patch):
            if (self.copy / name).exists():
                os.utime(self.copy / name)
        return (said.stderr.strip() or f"git apply: status {said.returncode}") if said.returncode else ""

    def restore(self, names: Iterable[str]) -> None:
        """The sources without the fault, and what was built of them. The sources are as old again as they were, so nothing is
        built anew: they come last, for an interruption must leave nothing faulty that looks finished."""
        for preset, states in self._states.items():
            self._restore_built(preset, states)
        for name in names:
            path = self.copy / name
            if not (self.tree / name).exists():
                path.unlink(missing_ok=True)
                continue
            beside = path.with_name(path.name + ".new")
            write(beside, self.tree / name)
            if self._states and name in self._times:
                os.utime(beside, ns=(self._times[name], self._times[name]), follow_symlinks=False)
            beside.replace(path)

    def keep_built(self, presets: Iterable[str]) -> None:
        """Remembers what is built now, for `restore`. What is built later by another preset would be taken for sound."""
        for preset in presets:
            folder, kept = self.folder(preset), self.kept(preset)
            for name in files_in(kept) - files_in(folder):
                (kept / name).unlink()
            self._states[preset] = {name: state_of(folder / name) for name in files_in(folder)}
            for name, state in self._states[preset].items():
                if not (kept / name).is_file() or state_of(kept / name) != state:
                    as_it_was(kept / name, folder / name)

    def kept(self, preset: str) -> pathlib.Path:
        return self.place / "kept" / preset

    def _restore_built(self, preset: str, states: Mapping[str, tuple[int, int, int]]) -> None:
        folder, kept = self.folder(preset), self.kept(preset)
        there = files_in(folder)
        for name in there - states.keys():
            (folder / name).unlink()
        for name, state in states.items():
            if name not in there or state_of(folder / name) != state:
                as_it_was(folder / name, kept / name)

    def configure(self, preset: str = ASAN) -> bool:
        tools = os.environ.get("ORV_TOOLS", str(self.tree / "build" / "tools"))
        command = ["cmake", "--preset", preset, f"-DORV_TOOLS={tools}"]
        return self.run(command, f"configure-{preset}.log", MOST_OF_A_BUILD)[0] == 0

    def build(self, targets: Iterable[str], log: str, preset: str = ASAN) -> bool:
        command = ["cmake", "--build", str(self.folder(preset)), "-j", str(JOBS), "--target", *targets]
        return self.run(command, log, MOST_OF_A_BUILD)[0] == 0

    def build_several(self, targets: Mapping[str, Iterable[str]], log: str) -> bool:
        """By preset, side by side: a fault is often one source, which one processor compiles."""
        return all(
            self.side_by_side(
                [
                    functools.partial(self.build, sorted(set(those)), f"{log}.build-{preset}.log", preset)
                    for preset, those in targets.items()
                ]
            )
        )

    def side_by_side(self, calls: Iterable[Callable[[], T]]) -> list[T]:
        """What they return. Where one fails or is interrupted, what the others run is ended."""
        with concurrent.futures.ThreadPoolExecutor() as pool:
            under_way = [pool.submit(call) for call in calls]
            try:
                return [one.result() for one in under_way]
            except BaseException:
                self.end_all()
                raise

    @staticmethod
    def content(patterns: Iterable[str], folder: pathlib.Path) -> dict[str, str]:
        """What the files of these patterns are made of."""
        return {
            str(path.relative_to(folder)): hashlib.sha256(path.read_bytes()).hexdigest()
            for pattern in patterns
            for path in folder.glob(pattern)
            if path.is_file() and not path.is_symlink()
        }

    def keep_sound(self, programs: Iterable[str], preset: str = ASAN) -> None:
        """Copies of what was built without a fault, for what is tried again."""
        kept = self.sound_folder(preset)
        kept.mkdir(parents=True, exist_ok=True)
        for name in programs:
            shutil.copy2(self.folder(preset) / "bin" / name, kept / name)

    def sound_folder(self, preset: str) -> pathlib.Path:
        return self.sound if preset == ASAN else self.sound / preset


@dataclasses.dataclass
class Stopwatch:
    begin: float = dataclasses.field(default_factory=time.monotonic)

    def seconds(self) -> float:
        return time.monotonic() - self.begin

    def __str__(self) -> str:
        return f"{self.seconds():.0f} s"
