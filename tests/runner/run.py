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
import threading
import time
from concurrent import futures

import plan
import reports

TREE = pathlib.Path(__file__).resolve().parents[2]
LOGS = TREE / "build" / "test-logs"
REPORTS = TREE / "build" / "test-reports"
ADOPT = pathlib.Path(__file__).resolve().with_name("adopt.py")
SKIPPED = 77
SHOWN_LINES = 60
TIME_TO_END = 30  # seconds
LIMIT = 40 * 60  # seconds; more than twice what the longest step takes on a busy machine
SLOWEST = 20
# Linux shares the processor among sessions first ("autogroup"), and boxes are sessions of their own: niceness alone counts
# only within one.
GIVING_WAY = ["sh", "-c", '{ echo 19 >/proc/self/autogroup; } 2>/dev/null; exec nice -n 19 "$@"', "sh"]


class Run:
    """One step under way, and what has become of it."""

    def __init__(self, step: plan.Step, gives_way: bool = False) -> None:
        self.step = step
        self.log = LOGS / f"{step.file_name}.log"
        self.reports = REPORTS / step.file_name
        shutil.rmtree(self.reports, ignore_errors=True)
        self.reports.mkdir(parents=True)
        self.processor_time = self.reports / "processor-time"
        words = step.name.split()
        before = GIVING_WAY if gives_way else []
        environment = {**os.environ, **{name: self._value(value) for name, value in step.environment}}
        environment["ORV_REPORTS"] = str(self.reports)
        self.begin = time.monotonic()
        self.seconds = 0.0
        self.processor_seconds = 0.0
        self.tests: list[reports.Test] = []
        self.second_tries: list[str] = []
        self.hung = False
        self.verdict = "running"
        with self.log.open("wb") as log:
            self.process = subprocess.Popen(
                [*before, ADOPT, self.processor_time, TREE / "script" / words[0], *words[1:]],
                cwd=TREE,
                env=environment,
                stdin=subprocess.DEVNULL,
                stdout=log,
                stderr=subprocess.STDOUT,
                start_new_session=gives_way,
                process_group=None if gives_way else 0,
            )

    def stop(self) -> None:
        """Ends the step with all that it has started: first as Ctrl-C would, so that it takes down what it has set up."""
        if self.process.poll() is not None:
            return
        with contextlib.suppress(ProcessLookupError):
            for end in (signal.SIGINT, signal.SIGTERM):
                os.killpg(self.process.pid, end)
                with contextlib.suppress(subprocess.TimeoutExpired):
                    self.process.wait(TIME_TO_END)
            if self.process.poll() is None:
                os.killpg(self.process.pid, signal.SIGKILL)

    @staticmethod
    def _value(value: str) -> str:
        return str(TREE / value) if value.startswith("build/") else value

    def finish(self) -> Run:
        try:
            status = self.process.wait(LIMIT)
        except subprocess.TimeoutExpired:
            self.hung = True
            with self.log.open("a") as log:
                print(f"\ntest: ended, for it took longer than {LIMIT} s", file=log)
            self.stop()
            status = self.process.wait()
        self.seconds = time.monotonic() - self.begin
        with contextlib.suppress(OSError):
            self.processor_seconds = float(self.processor_time.read_text(encoding="ascii"))
        self.tests = reports.read(self.reports)
        self.second_tries = reports.second_tries(self.reports)
        if status == SKIPPED and not self.hung and (self.step.optional or not os.environ.get("ORV_REQUIRE_NAMESPACES")):
            self.verdict = "skipped"
        elif status == 0 and not self.hung and reports.count(self.tests, "failed") == 0:
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
        if self.hung or not parts:
            lines = self.log.read_text(errors="replace").splitlines()
            parts += [f"---- {self.step.name}: the end of {self.log.relative_to(TREE)}", *lines[-SHOWN_LINES:]]
        return "\n".join(parts)


class Schedule:
    """The lanes of a plan, side by side. Breaks off with the first exception that its user or a lane raises."""

    def __init__(self, lanes: plan.Plan) -> None:
        self.lanes = lanes
        self.runs: dict[str, Run] = {}
        self.ended: set[str] = set()
        self.over = False
        self.changed = threading.Condition()

    def run(self) -> list[Run]:
        """All runs, in the plan's order."""
        with futures.ThreadPoolExecutor(len(self.lanes)) as threads:
            try:
                for done in futures.as_completed([threads.submit(self._run_lane, lane) for lane in self.lanes]):
                    done.result()
            finally:
                with self.changed:
                    self.over = True
                    self.changed.notify_all()
                for run in list(self.runs.values()):
                    run.stop()
        return [self.runs[step.name] for step in plan.steps(self.lanes)]

    def _run_lane(self, lane: plan.Lane) -> None:
        for step in lane.steps:
            run = self._begin(step, lane.gives_way)
            if run is None:
                return
            run.finish()
            with self.changed:
                self.ended.add(step.name)
                self.changed.notify_all()
                print(run.line(), flush=True)
                if run.verdict == "FAILED":
                    print(run.reasons(), flush=True)

    def _begin(self, step: plan.Step, gives_way: bool) -> Run | None:
        """Waits for what the step needs; None when the schedule breaks off before."""
        with self.changed:
            self.changed.wait_for(lambda: self.over or self.ended.issuperset(step.after))
            if self.over:
                return None
            self.runs[step.name] = Run(step, gives_way)
            return self.runs[step.name]


def table(runs: list[Run], begin: float) -> list[str]:
    """When each step began and what it took, in the plan's order."""
    lines = [f"{'':<32} {'begun at':>9} {'took':>7} {'processor':>10}"]
    lines += [
        f"{run.step.name:<32} {run.begin - begin:7.0f} s {run.seconds:5.0f} s {run.processor_seconds:8.0f} s"
        for run in runs
    ]
    return [*lines, f"{'all':<32} {'':>9} {'':>7} {sum(run.processor_seconds for run in runs):8.0f} s"]


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
        lanes = plan.named(sys.argv[1:])
    except KeyError as error:
        print(f"test: {error.args[0]}", file=sys.stderr)
        return 2
    LOGS.mkdir(parents=True, exist_ok=True)
    runs = Schedule(lanes).run()
    print("", *table(runs, begin), sep="\n")
    return summary(runs, time.monotonic() - begin)


if __name__ == "__main__":
    sys.exit(main())
