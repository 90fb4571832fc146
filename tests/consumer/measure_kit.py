# SPDX-License-Identifier: Apache-2.0
"""script/measure kit

The test kit as its package has it: its size, what it needs, and how long it takes from an empty folder until the first test
has run, with the package unpacked into a folder and the project of docs/testing-your-application.md. Then all five tests of
that project, plain and under AddressSanitizer and ThreadSanitizer. Times are the shortest of three. Asserts nothing.
"""
from __future__ import annotations

import os
import re
import subprocess
import sys
import tempfile
import time
from pathlib import Path

TREE = Path(__file__).resolve().parents[2]
PROJECT = TREE / "tests" / "consumer" / "test-kit"
FIRST = "AMeter.IsNotReloadedWhileItBoots"
TIMES = 3


def output(*command: str | Path, environment: dict[str, str] | None = None) -> str:
    done = subprocess.run(command, capture_output=True, text=True, env={**os.environ, **(environment or {})})
    if done.returncode != 0:
        sys.exit(f"measure kit: failed: {' '.join(map(str, command))}\n{done.stdout}{done.stderr}")
    return done.stdout


def package(name: str) -> Path:
    return next((TREE / "out" / "packages" / "amd64").glob(f"{name}_*.deb"))


def kit_flags(root: Path) -> list[str]:
    libraries = next(root.glob("usr/lib/*/pkgconfig"))
    where = {"PKG_CONFIG_LIBDIR": str(libraries)}
    return output("pkg-config", "--cflags", "--libs", "orvstacksdk-testing", environment=where).split()


def framework_flags() -> list[str]:
    return output("pkg-config", "--cflags", "--libs", "gtest_main").split()


def build(folder: Path, root: Path, *more: str) -> Path:
    program = folder / "meter-tests"
    output("g++", "-std=c++17", *more, PROJECT / "MeterTest.cpp", *kit_flags(root), *framework_flags(), "-o", program)
    return program


def from_nothing(root: Path) -> tuple[float, float]:
    """Seconds to compile and link the tests, and to run the first of them."""
    with tempfile.TemporaryDirectory() as folder:
        begin = time.monotonic()
        program = build(Path(folder), root)
        built = time.monotonic()
        output(program, f"--gtest_filter={FIRST}")
        return built - begin, time.monotonic() - built


def five_tests(root: Path, *more: str) -> int:
    """Milliseconds that the framework counts for all of them."""
    with tempfile.TemporaryDirectory() as folder:
        program = build(Path(folder), root, "-g", *more)
        told = [re.search(r"5 tests .* ran\. \((\d+) ms total\)", output(program)) for _ in range(TIMES)]
        return min(int(found.group(1)) for found in told if found)


def main() -> None:
    kit = package("liborvstacksdk-test-dev")
    with tempfile.TemporaryDirectory() as folder:
        root = Path(folder)
        for name in ("liborvstacksdk-test-dev", "liborvstacksdk-dev"):
            output("dpkg-deb", "--extract", package(name), root)
        archive = next(root.glob("usr/lib/*/libOrvStackSdkTesting.a"))
        print(f"package                  {kit.stat().st_size / 1000:.0f} kB")
        print(f"library (static)         {archive.stat().st_size / 1000:.0f} kB")
        print(f"needs, as a package      {output('dpkg-deb', '--field', kit, 'Depends').strip()}")
        alone = root / "without-framework"
        output("g++", "-std=c++14", PROJECT / "WithoutFramework.cpp", *kit_flags(root), "-o", alone)
        needed = re.findall(r"\(NEEDED\).*\[(.*)\]", output("readelf", "--dynamic", alone))
        print(f"needs, as a program      {', '.join(sorted(needed))}")
        figures = [from_nothing(root) for _ in range(TIMES)]
        print(f"compile and link         {min(figure[0] for figure in figures):.1f} s")
        print(f"run the first test       {1000 * min(figure[1] for figure in figures):.0f} ms")
        for name, more in (
            ("plain", ("-O1",)),
            ("AddressSanitizer", ("-O1", "-fsanitize=address")),
            ("ThreadSanitizer", ("-O1", "-fsanitize=thread")),
        ):
            print(f"{f'five tests, {name}':24} {five_tests(root, *more)} ms")
        print(f"the machine              {os.cpu_count()} processors, a load of {os.getloadavg()[0]:.0f}")


if __name__ == "__main__":
    main()
