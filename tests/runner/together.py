#!/usr/bin/python3 -B
# SPDX-License-Identifier: Apache-2.0
"""together --limit SECONDS --part NUMBER/ALL COMMAND...

Runs one part of a GoogleTest program's tests in one process. A test that ends the process fails, as does one that takes
longer than the limit; the tests after it are run by another process. In ORV_REPORTS each test is reported by its name
(JUnit XML). ctest calls this (cmake/OrvTest.cmake).
"""

from __future__ import annotations

import argparse
import contextlib
import dataclasses
import os
import pathlib
import re
import select
import signal
import subprocess
import sys
import time
import xml.etree.ElementTree as ElementTree
from collections.abc import Callable

POLL = 0.5  # seconds
PIPE = 65536  # bytes that one holds at most
BEGINS = re.compile(r"\[ RUN      \] (\S+)$")
ENDS = re.compile(r"\[ +(OK|FAILED|SKIPPED) +\] (\S+?)(?:, where .*)? \((\d+) ms\)$")
Clock = Callable[[], float]  # in seconds
VERDICTS = {"OK": "passed", "FAILED": "failed", "SKIPPED": "skipped"}
DISABLED = re.compile("(^|/)DISABLED_")
NOT_IN_XML = re.compile("[^\t\n\r\x20-\ud7ff\ue000-\ufffd]")


@dataclasses.dataclass
class Test:
    name: str
    verdict: str = ""  # passed, failed or skipped; nothing as long as it runs
    seconds: float = 0.0
    said: str = ""


class Course:
    """What a program tells of its tests while they run."""

    def __init__(self, clock: Clock) -> None:
        self.tests: list[Test] = []
        self.outside = ""  # what is said before, between and after them
        self._clock = clock
        self._begun = clock()

    @property
    def running(self) -> Test | None:
        return self.tests[-1] if self.tests and not self.tests[-1].verdict else None

    @property
    def status(self) -> int:
        """What the program ends with after these tests if nothing else is wrong."""
        return int(any(test.verdict == "failed" for test in self.tests))

    @property
    def seconds(self) -> float:
        """Since the last test began, or the program."""
        return self._clock() - self._begun

    def take(self, line: str) -> None:
        """A whole line, or what is left when the program has ended."""
        begins, ends, test = BEGINS.search(line), ENDS.search(line), self.running
        if begins and test is None:
            self.tests.append(Test(begins[1]))
            self._begun = self._clock()
        elif test is None:
            self.outside += line + "\n"
        elif ends and ends[2] == test.name:
            test.said += line[: ends.start()]
            test.verdict, test.seconds = VERDICTS[ends[1]], int(ends[3]) / 1000
        else:
            test.said += line + "\n"

    def give_up(self, why: str) -> None:
        """The test that runs has failed."""
        test = self.running
        assert test is not None
        test.verdict, test.seconds = "failed", self.seconds
        test.said += why + "\n"


def names(command: list[str]) -> list[str]:
    said = subprocess.run(
        [*command, "--gtest_list_tests"], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, check=False, text=True
    )
    if said.returncode:  # 77 when the program's surroundings cannot be had
        print(said.stdout)
        sys.exit(said.returncode)
    found, suite = [], ""
    for line in said.stdout.splitlines():
        word = line.split("#")[0].strip()
        if not line.startswith(" "):
            suite = word
        elif word and not DISABLED.search(suite) and not DISABLED.search(word):
            found.append(suite + word)
    return found


def told(status: int) -> str:
    return f"ended by {signal.Signals(-status).name}" if status < 0 else f"ended with exit status {status}"


class Process:
    """The program under way with some of its tests."""

    def __init__(self, command: list[str], tests: list[str], clock: Clock) -> None:
        # The first report ends the process: so it is known which test it belongs to.
        options = ":".join(filter(None, [os.environ.get("TSAN_OPTIONS"), "halt_on_error=1"]))
        # A pipe, for a test may limit how large its process's files become.
        self.output, output = os.pipe()
        os.set_blocking(self.output, False)
        self.process = subprocess.Popen(
            [*command, "--gtest_filter=" + ":".join(tests)],
            stdin=subprocess.DEVNULL,
            stdout=output,
            stderr=subprocess.STDOUT,
            env={**os.environ, "TSAN_OPTIONS": options},
            process_group=0,
        )
        os.close(output)
        self.ended = os.pidfd_open(self.process.pid)
        self.course = Course(clock)
        self.line = b""

    def follow(self, limit: float) -> str:
        """Until the process has ended; how it did."""
        too_long = False
        waited_for = [self.ended, self.output]
        while True:
            select.select(waited_for, [], [], POLL)
            status = self.process.poll()
            if not self._read():  # nobody writes any more
                waited_for = [self.ended]
            if status is not None:
                self.course.take(self.line.decode(errors="replace"))
                return f"took longer than {limit:.0f} s" if too_long else told(status)
            too_long = too_long or self.course.seconds > limit
            if too_long:
                self.kill()

    def kill(self) -> None:
        with contextlib.suppress(ProcessLookupError):
            os.killpg(self.process.pid, signal.SIGKILL)

    def close(self) -> None:
        """Ends what the tests have left behind, too."""
        self.kill()
        os.close(self.output)
        os.close(self.ended)

    def _read(self) -> bool:
        """What has been written until now. Not when all writers are gone: a test may leave one behind."""
        try:
            said = os.read(self.output, PIPE)
        except BlockingIOError:
            return True
        *lines, self.line = (self.line + said).split(b"\n")
        for line in lines:
            self.course.take(line.decode(errors="replace"))
        return said != b""


def run(command: list[str], tests: list[str], limit: float, clock: Clock = time.monotonic) -> list[Test]:
    """In as many processes as it takes."""
    done: list[Test] = []
    while rest := [name for name in tests if name not in {test.name for test in done}]:
        process = Process(command, rest, clock)
        try:
            end = process.follow(limit)
        finally:
            process.close()
        course = process.course
        asked_for = [test for test in course.tests if test.name in rest]
        if course.running:
            course.give_up(f"the program {end} while this test ran")
        elif process.process.returncode != course.status or len(asked_for) < len(rest):
            outside = f"{pathlib.Path(command[-1]).name} outside its tests"
            done.append(Test(outside, "failed", 0.0, course.outside + end))
        if not asked_for:
            return done + [Test(name, "failed", 0.0, "not run") for name in rest]
        done += asked_for
    return done


def write(file: pathlib.Path, tests: list[Test]) -> None:
    suite = ElementTree.Element("testsuite")
    for test in tests:
        case = ElementTree.SubElement(
            suite, "testcase", name=test.name, classname=test.name, time=f"{test.seconds:.3f}"
        )
        said = NOT_IN_XML.sub("?", test.said)
        if test.verdict == "failed":
            ElementTree.SubElement(case, "failure").text = said
        elif test.verdict == "skipped":
            ElementTree.SubElement(case, "skipped", message=said)
    ElementTree.ElementTree(suite).write(file, encoding="utf-8")


def main() -> int:
    arguments = argparse.ArgumentParser(usage=__doc__)
    arguments.add_argument("--limit", type=float, required=True)
    arguments.add_argument("--part", required=True)
    arguments.add_argument("command", nargs=argparse.REMAINDER)
    given = arguments.parse_args()
    number, parts = map(int, given.part.split("/"))
    for end in (signal.SIGINT, signal.SIGTERM):
        signal.signal(end, lambda received, _: sys.exit(128 + received))
    tests = run(given.command, names(given.command)[number - 1 :: parts], given.limit)
    if folder := os.environ.get("ORV_REPORTS"):
        write(pathlib.Path(folder) / f"{pathlib.Path(given.command[-1]).name}.{number}.xml", tests)
    count = {verdict: sum(test.verdict == verdict for test in tests) for verdict in VERDICTS.values()}
    for test in tests:
        if test.verdict == "failed":
            print(f"---- {test.name}\n{test.said}")
    print(", ".join(f"{number} {verdict}" for verdict, number in count.items()))
    return 1 if count["failed"] or not tests else 0


if __name__ == "__main__":
    sys.exit(main())
