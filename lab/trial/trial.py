# SPDX-License-Identifier: Apache-2.0
"""Plants faults one by one, and tries which instrument finds them. Started by script/trial, which explains it."""
from __future__ import annotations

import argparse
import contextlib
import hashlib
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import time
from collections.abc import Callable, Iterable

TREE = pathlib.Path(__file__).resolve().parents[2]
PLACE = TREE / "build" / "trial"
SCRATCH = PLACE / "tree"
BUILD = SCRATCH / "build" / "asan-ubsan"
LOGS = PLACE / "logs"
INSTRUMENTS = ["orv-explore", "orv-explore-connman", "orv-torture"]
# The tests of what a fault touches, by the beginning of the file's name.
TESTS = {
    "libs/OrvPlatform/src/base/": ["orv-platform-base-tests"],
    "libs/OrvPlatform/src/broker/": ["orv-broker-tests"],
    "libs/OrvPlatform/src/config/": ["orv-platform-config-tests"],
    "libs/OrvPlatform/src/connman/": ["orv-connman-tests"],
    "libs/OrvPlatform/src/log/": ["orv-platform-log-tests"],
    "libs/OrvStackSdk/src/": ["orv-stack-sdk-tests", "orv-route-tests", "orv-poke-tests"],
    "libs/OrvStackSdkC/src/": ["orv-stack-sdk-c-fake-tests"],
}
COLUMNS = ["fault", "touches", "explore broker", "explore connman", "torture", "found", "tests"]
MOST_OF_A_BUILD = 1800  # seconds
GRACE = 240  # what an instrument may take beyond its time: a seed that hangs, a point that is tried again
SAME = "same program"


class Ended(Exception):
    """A command has not ended in time."""


def run(command: list[str], log: pathlib.Path, limit: float) -> tuple[int, str]:
    """Exit status and output; after `limit` seconds the command and what it has started are ended."""
    with log.open("w") as output:
        with subprocess.Popen(command, cwd=SCRATCH, stdout=output, stderr=output, start_new_session=True) as process:
            try:
                process.wait(limit)
            except subprocess.TimeoutExpired:
                raise Ended(f"not ended after {limit:.0f} s") from None
            finally:
                with contextlib.suppress(ProcessLookupError):
                    os.killpg(process.pid, signal.SIGKILL)
    return process.returncode, log.read_text(errors="replace")


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


def copy_tree() -> None:
    """The tree as it stands, uncommitted changes too, into the scratch folder; nothing else is left there but its build."""
    listed = subprocess.check_output(["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"], cwd=TREE)
    names = {name for name in listed.decode().split("\0") if name and (TREE / name).exists()}
    for name in names:
        write(SCRATCH / name, TREE / name)
    for path in SCRATCH.rglob("*"):
        name = str(path.relative_to(SCRATCH))
        if not name.startswith("build") and (path.is_file() or path.is_symlink()) and name not in names:
            path.unlink()


def touched_by(patch: pathlib.Path) -> list[str]:
    """The files of the patch, as the tree knows them."""
    found = re.findall(r"(?m)^(?:---|\+\+\+) (?:[ab]/)?(\S+)", patch.read_text(errors="replace"))
    return sorted({name for name in found if name != "/dev/null"})


def apply(patch: pathlib.Path) -> str:
    """Empty, or why it cannot be applied."""
    # Otherwise git would find the tree's own repository, and leave out all that is not in it.
    environment = {**os.environ, "GIT_CEILING_DIRECTORIES": str(PLACE)}
    said = subprocess.run(
        ["git", "apply", "--whitespace=nowarn", str(patch.resolve())],
        cwd=SCRATCH,
        env=environment,
        capture_output=True,
        text=True,
        check=False,
    )
    for name in touched_by(patch):
        if (SCRATCH / name).exists():
            os.utime(SCRATCH / name)
    return said.stderr.strip()


def restore(names: Iterable[str]) -> None:
    for name in names:
        if (TREE / name).exists():
            write(SCRATCH / name, TREE / name)
        else:
            (SCRATCH / name).unlink(missing_ok=True)


def build(targets: list[str], log: str) -> bool:
    jobs = str(os.cpu_count() or 2)
    return run(["cmake", "--build", str(BUILD), "-j", jobs, "--target", *targets], LOGS / log, MOST_OF_A_BUILD)[0] == 0


def programs() -> dict[str, str]:
    """What each program that has been built is made of."""
    return {
        path.name: hashlib.sha256(path.read_bytes()).hexdigest()
        for path in (BUILD / "bin").iterdir()
        if path.is_file() and os.access(path, os.X_OK)
    }


def explored(program: str, seconds: int, log: str) -> str:
    """What one of the explorers says of the fault."""
    begin = time.monotonic()
    try:
        command = [str(BUILD / "bin" / program), str(seconds), "--jobs", str(os.cpu_count() or 2)]
        status, said = run(command, LOGS / log, seconds + GRACE)
    except Ended as ended:
        return f"FOUND: {ended}"
    counted = re.search(r"explore: (\d+) seeds", said)
    seeds = counted.group(1) if counted else "?"
    took = time.monotonic() - begin
    found = re.search(r"(?m)^explore: seed (\d+) (?:fails|hangs)", said)
    if found or status != 0:
        return f"FOUND: {'seed ' + found.group(1) if found else 'status ' + str(status)}, {seeds} seeds, {took:.0f} s"
    return f"no: {seeds} seeds, {took:.0f} s"


def tortured(seconds: int, log: str) -> str:
    begin = time.monotonic()
    command = [
        "libs/OrvStackSdk/tests/support/with-test-endpoint",
        "/usr/bin/python3",
        "-B",
        "lab/torture/with_cloud.py",
        str(BUILD / "bin" / "orv-torture"),
        *("--seconds", str(seconds), "--faults", "1", "--jobs", str(4 * (os.cpu_count() or 2))),
    ]
    try:
        status, said = run(command, LOGS / log, seconds + GRACE)
    except Ended as ended:
        return f"FOUND: {ended}"
    counted = re.search(r"(?m)^torture: (\d+) of \d+ points", said)
    points = counted.group(1) if counted else "?"
    took = time.monotonic() - begin
    found = re.search(r"(?m)^torture: (\S+ \S+ \d+ (?:once|later)|\S+ without any failure)", said)
    if status == 0:
        return f"no: {points} points, {took:.0f} s"
    return f"FOUND: {found.group(1) if found else 'status ' + str(status)}, {points} points, {took:.0f} s"


def tested(names: list[str], seconds: int, name: str) -> str:
    """The tests of the files of these names. They are for comparison: nothing more is built than they need."""
    owned = {test for prefix, tests in TESTS.items() for test in tests if any(one.startswith(prefix) for one in names)}
    if not owned:
        return "none of their own"
    if not build(sorted(owned), f"{name}.tests-build.log"):
        return "do not build"
    listed = json.loads(subprocess.check_output(["ctest", "--show-only=json-v1"], cwd=BUILD))
    numbers = [
        str(number)
        for number, test in enumerate(listed["tests"], 1)
        if any(pathlib.Path(word).name in owned for word in test.get("command", []))
    ]
    begin = time.monotonic()
    command = ["ctest", "--test-dir", str(BUILD), "-j", str(2 * (os.cpu_count() or 2)), "--timeout", "60"]
    try:
        _, said = run(
            [*command, "--stop-on-failure", "-I", "0,0,0," + ",".join(numbers)], LOGS / f"{name}.tests.log", seconds
        )
    except Ended as ended:
        return f"no: {ended}"
    took = time.monotonic() - begin
    failed = re.search(r"(?m)^\s*\d+ - (\S+) \(", said)
    return f"FOUND: {failed.group(1)}, {took:.0f} s" if failed else f"no: {len(numbers)} tests, {took:.0f} s"


def try_fault(patch: pathlib.Path, sound: dict[str, str], options: argparse.Namespace) -> list[str]:
    """The row of the table."""
    name = patch.stem
    touched = touched_by(patch)
    head = [name, ", ".join(pathlib.Path(one).name for one in touched)]
    refused = apply(patch)
    if refused:
        return [*head, f"cannot be applied: {refused.splitlines()[0]}", "", "", "", ""]
    if not build(["lab/all"], f"{name}.build.log"):
        return [*head, "does not build", "", "", "", ""]
    now = programs()
    tries: list[Callable[[], str]] = [
        lambda: explored("orv-explore", options.explore, f"{name}.broker.log"),
        lambda: explored("orv-explore-connman", options.explore, f"{name}.connman.log"),
        lambda: tortured(options.torture, f"{name}.torture.log"),
    ]
    said = [
        attempt() if now[program] != sound[program] else SAME
        for program, attempt in zip(INSTRUMENTS, tries, strict=True)
    ]
    found = "yes" if any(one.startswith("FOUND") for one in said) else "no"
    tests = tested(touched, options.tests, name) if options.tests else "not run"
    return [*head, *said, found, tests]


def prepare() -> dict[str, str]:
    LOGS.mkdir(parents=True, exist_ok=True)
    copy_tree()
    tools = os.environ.get("ORV_TOOLS", str(TREE / "build" / "tools"))
    status, said = run(
        ["cmake", "--preset", "asan-ubsan", f"-DORV_TOOLS={tools}"], LOGS / "configure.log", MOST_OF_A_BUILD
    )
    if status != 0 or not build(["lab/all"], "build.log"):
        sys.exit(f"trial: the tree itself does not build: see {LOGS}\n{said[-2000:] if status else ''}")
    return programs()


def show(row: list[str], table: pathlib.Path) -> None:
    line = "| " + " | ".join(cell.replace("|", "/") for cell in row) + " |"
    print(line, flush=True)
    with table.open("a") as output:
        output.write(line + "\n")


def main() -> int:
    parser = argparse.ArgumentParser(prog="trial")
    parser.add_argument("folder", type=pathlib.Path)
    parser.add_argument("--only", default="")
    parser.add_argument("--explore", type=int, default=30)
    parser.add_argument("--torture", type=int, default=60)
    parser.add_argument("--tests", type=int, default=120)
    options = parser.parse_args()
    patches = [one for one in sorted(options.folder.glob("*.patch")) if options.only in one.name]
    if not patches:
        sys.exit(f"trial: no such patches in {options.folder}")
    sound = prepare()
    out = TREE / "out" / "trial"
    out.mkdir(parents=True, exist_ok=True)
    table = out / f"{options.folder.resolve().name}.md"
    table.unlink(missing_ok=True)
    show(COLUMNS, table)
    show(["---"] * len(COLUMNS), table)
    found = 0
    for patch in patches:
        begin = time.monotonic()
        try:
            row = try_fault(patch, sound, options)
        finally:
            restore(touched_by(patch))
        found += row[COLUMNS.index("found")] == "yes"
        show(row, table)
        print(f"trial: {patch.name} took {time.monotonic() - begin:.0f} s", file=sys.stderr, flush=True)
    print(f"trial: {found} of {len(patches)} found; {table}")
    return 0


if __name__ == "__main__":
    signal.signal(signal.SIGTERM, lambda number, frame: sys.exit("trial: told to end"))
    shutil.rmtree(LOGS, ignore_errors=True)
    sys.exit(main())
