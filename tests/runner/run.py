#!/usr/bin/python3 -B
# SPDX-License-Identifier: Apache-2.0
"""Runs the steps of script/test, which documents the command line. Started by script/test only."""

from __future__ import annotations

import contextlib
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import time
from concurrent import futures

import plan
import reports

TREE = pathlib.Path(__file__).resolve().parents[2]
LOGS = TREE / "build" / "test-logs"
REPORTS = TREE / "build" / "test-reports"
SKIPPED = 77
SHOWN_LINES = 60
TIME_TO_END = 30  # seconds
SLOWEST = 20
# Linux shares the processor among sessions first ("autogroup"), and boxes are sessions of their own: niceness alone counts
# only within one.
GIVING_WAY = ["sh", "-c", '{ echo 19 >/proc/self/autogroup; } 2>/dev/null; exec nice -n 19 "$@"', "sh"]


class Run:
    """One step under way, and what has become of it."""

    def __init__(self, step: plan.Step) -> None:
        self.step = step
        self.log = LOGS / f"{step.file_name}.log"
        self.reports = REPORTS / step.file_name
        shutil.rmtree(self.reports, ignore_errors=True)
        self.reports.mkdir(parents=True)
        words = step.name.split()
        before = GIVING_WAY if step.gives_way else []
        environment = {**os.environ, **{name: self._value(value) for name, value in step.environment}}
        environment["ORV_REPORTS"] = str(self.reports)
        self.begin = time.monotonic()
        self.seconds = 0.0
        self.tests: list[reports.Test] = []
        self.second_tries: list[str] = []
        self.verdict = "running"
        with self.log.open("wb") as log:
            self.process = subprocess.Popen(
                [*before, TREE / "script" / words[0], *words[1:]],
                cwd=TREE,
                env=environment,
                stdin=subprocess.DEVNULL,
                stdout=log,
                stderr=subprocess.STDOUT,
                start_new_session=step.gives_way,
                process_group=None if step.gives_way else 0,
            )

    def stop(self) -> None:
        """Ends the step with all that it has started: first as Ctrl-C would, so that it takes down what it has set up."""
        if self.process.poll() is not None:
            return
        with contextlib.suppress(ProcessLookupError):
            os.killpg(self.process.pid, signal.SIGINT)
            with contextlib.suppress(subprocess.TimeoutExpired):
                self.process.wait(TIME_TO_END)
            os.killpg(self.process.pid, signal.SIGTERM)

    @staticmethod
    def _value(value: str) -> str:
        return str(TREE / value) if value.startswith("build/") else value

    def finish(self) -> Run:
        status = self.process.wait()
        self.seconds = time.monotonic() - self.begin
        self.tests = reports.read(self.reports)
        self.second_tries = reports.second_tries(self.reports)
        if status == SKIPPED and not os.environ.get("ORV_REQUIRE_NAMESPACES"):
            self.verdict = "skipped"
        elif status == 0 and reports.count(self.tests, "failed") == 0:
            self.verdict = "ok"
        else:
            self.verdict = "FAILED"
        return self

    def last_line(self) -> str:
        lines = self.log.read_text(errors="replace").splitlines()
        return lines[-1] if lines else ""

    def line(self) -> str:
        text = f"{self.step.name:<32} {self.verdict:<7} {self.seconds:5.0f} s"
        if self.tests:
            passed, failed, skipped = (reports.count(self.tests, what) for what in ("passed", "failed", "skipped"))
            text += f"   {passed} tests passed, {failed} failed"
            if skipped:
                text += f", {skipped} skipped"
        if self.verdict == "skipped":
            text += f"   {self.last_line()}"
        return text

    def reasons(self) -> str:
        """The failed tests with the ends of what they said; without any, the end of the log."""
        parts = [
            f"---- {self.step.name}: {test.name}\n" + "\n".join(test.output.splitlines()[-SHOWN_LINES:])
            for test in self.tests
            if test.verdict == "failed"
        ]
        if not parts:
            lines = self.log.read_text(errors="replace").splitlines()
            parts = [f"---- {self.step.name}: the end of {self.log.relative_to(TREE)}", *lines[-SHOWN_LINES:]]
        return "\n".join(parts)


def run_group(group: plan.Group) -> list[Run]:
    runs = [Run(step) for step in group]
    with futures.ThreadPoolExecutor(len(runs)) as waiting:
        try:
            for done in futures.as_completed([waiting.submit(run.finish) for run in runs]):
                run = done.result()
                print(run.line(), flush=True)
                if run.verdict == "FAILED":
                    print(run.reasons(), flush=True)
        finally:
            for run in runs:
                run.stop()
    return runs


def summary(runs: list[Run], seconds: float) -> int:
    tests = [test for run in runs for test in run.tests]
    broken = [run for run in runs if run.verdict == "FAILED"]
    skipped = [run.step.name for run in runs if run.verdict == "skipped"]
    print(f"\nthe slowest tests (all steps: {seconds:.0f} s):")
    for test in reports.slowest(tests, SLOWEST):
        print(f"  {test.seconds:6.1f} s  {test.name}")
    if skipped:
        print(f"skipped steps: {', '.join(skipped)}")
    for run in runs:
        for name in run.second_tries:
            print(f"needed a second try: {run.step.name}: {name}")
    # Once more at the end, where whoever sees only the end finds them.
    for run in broken:
        print(run.reasons()[-6000:])
    if broken:
        print(f"failed steps: {', '.join(run.step.name for run in broken)}")
    passed, failed = reports.count(tests, "passed"), reports.count(tests, "failed")
    if broken and failed == 0:
        failed = len(broken)
    if passed == 0 and failed == 0:
        print("no test ran")
        failed = 1
    print(f"{passed} passed, {failed} failed")
    return 1 if failed else 0


def break_off(number: int, _: object) -> None:
    sys.exit(128 + number)


def main() -> int:
    begin = time.monotonic()
    signal.signal(signal.SIGTERM, break_off)
    try:
        groups = plan.named(sys.argv[1:])
    except KeyError as error:
        print(f"test: {error.args[0]}", file=sys.stderr)
        return 2
    LOGS.mkdir(parents=True, exist_ok=True)
    runs: list[Run] = []
    for group in groups:
        runs += run_group(group)
    return summary(runs, time.monotonic() - begin)


if __name__ == "__main__":
    sys.exit(main())
