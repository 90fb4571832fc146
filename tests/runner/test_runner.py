# SPDX-License-Identifier: Apache-2.0
from __future__ import annotations

import dataclasses
import os
import pathlib
import signal
import subprocess
import time
from collections.abc import Callable

import pytest

import plan
import reports
import run
from orv_testbed.waiting import wait_until

AddStep = Callable[[str, str], plan.Step]

CTEST = """<testsuite name="Linux" tests="3">
  <testcase name="A.Passes" classname="A.Passes" time="0.5" status="run"><system-out>fine</system-out></testcase>
  <testcase name="A.Fails" classname="A.Fails" time="2" status="fail"><failure message=""/>
    <system-out>expected 1, was 2</system-out></testcase>
  <testcase name="A.IsSkipped" classname="A.IsSkipped" time="0" status="notrun"><skipped message="no namespaces"/></testcase>
</testsuite>"""

PYTEST = """<testsuites><testsuite><testcase classname="test_box" name="test_up" time="1.5"/>
<testcase classname="test_box" name="test_down" time="0.1"><error message="boom">in the fixture</error></testcase>
</testsuite></testsuites>"""

PYTEST_OF_ONE = '<testsuite><testcase classname="test_box" name="test_up" time="1.5"/></testsuite>'


@pytest.fixture
def folder(tmp_path: pathlib.Path) -> pathlib.Path:
    (tmp_path / "ctest.xml").write_text(CTEST)
    (tmp_path / "pytest.xml").write_text(PYTEST)
    return tmp_path


def test_reports_of_both_kinds_are_counted(folder: pathlib.Path) -> None:
    tests = reports.read(folder)
    assert [reports.count(tests, what) for what in ("passed", "failed", "skipped")] == [2, 2, 1]


def test_a_failure_brings_what_the_test_said(folder: pathlib.Path) -> None:
    said = {test.name: test.output for test in reports.read(folder) if test.verdict == "failed"}
    assert "expected 1, was 2" in said["A.Fails"]
    assert "in the fixture" in said["test_box.test_down"]


def test_a_report_that_breaks_off_counts_as_a_failure(tmp_path: pathlib.Path) -> None:
    (tmp_path / "ctest.xml").write_text(CTEST[:100])
    assert [test.verdict for test in reports.read(tmp_path)] == ["failed"]


def test_the_slowest_come_first(folder: pathlib.Path) -> None:
    assert [test.name for test in reports.slowest(reports.read(folder), 2)] == ["A.Fails", "test_box.test_up"]


def test_an_unknown_step_is_named_beside_those_there_are() -> None:
    with pytest.raises(KeyError, match="no such step: nonsense; there are: all, .*lint"):
        plan.named(["nonsense"])


@pytest.fixture(params=[plan.SHORT, plan.ALL], ids=["short", "all"])
def shipped(request: pytest.FixtureRequest) -> plan.Plan:
    lanes: plan.Plan = request.param
    return lanes


def test_each_step_is_a_command_of_the_script_folder(shipped: plan.Plan) -> None:
    for step in plan.steps(shipped):
        command = run.TREE / "script" / step.name.split()[0]
        assert os.access(command, os.X_OK), step.name


def test_logs_of_different_steps_do_not_overwrite_each_other(shipped: plan.Plan) -> None:
    names = [step.file_name for step in plan.steps(shipped)]
    assert len(set(names)) == len(names)


def test_no_step_of_a_plan_waits_for_ever(shipped: plan.Plan) -> None:
    waiting = [list(lane.steps) for lane in shipped]
    ended: set[str] = set()
    while any(waiting):
        ready = [lane.pop(0) for lane in waiting if lane and ended.issuperset(lane[0].after)]
        assert ready, [lane[0].name for lane in waiting if lane]
        ended |= {step.name for step in ready}


def test_tests_of_builds_are_never_run_side_by_side_for_some_share_files_of_the_machine(shipped: plan.Plan) -> None:
    lanes = {
        number
        for number, lane in enumerate(shipped)
        for step in lane.steps
        if step.name.startswith(("preset-test", "cross-test")) and "--build" not in step.name
    }
    assert len(lanes) == 1


@pytest.fixture
def tree(tmp_path: pathlib.Path, monkeypatch: pytest.MonkeyPatch) -> AddStep:
    """A tree with scripts of our own."""
    (tmp_path / "script").mkdir()
    monkeypatch.setattr(run, "TREE", tmp_path)
    monkeypatch.setattr(run, "LOGS", tmp_path / "logs")
    monkeypatch.setattr(run, "REPORTS", tmp_path / "reports")
    (tmp_path / "logs").mkdir()

    def add(name: str, text: str) -> plan.Step:
        script = tmp_path / "script" / name
        script.write_text("#!/bin/sh\n" + text)
        script.chmod(0o755)
        return plan.Step(name)

    return add


def run_beside(*steps: plan.Step, gives_way: bool = False) -> list[run.Run]:
    return run.Schedule(tuple(plan.Lane((step,), gives_way) for step in steps)).run()


def test_steps_of_a_lane_follow_each_other_and_a_step_begins_when_what_it_needs_has_ended(
    tree: AddStep, tmp_path: pathlib.Path
) -> None:
    one, two = tree("one", f"sleep 0.1; echo one >>{tmp_path}/order"), tree("two", f"echo two >>{tmp_path}/order")
    three = dataclasses.replace(tree("three", f"echo three >>{tmp_path}/order"), after=("two",))
    runs = run.Schedule((plan.Lane((three,)), plan.Lane((one, two)))).run()
    assert (tmp_path / "order").read_text().split() == ["one", "two", "three"]
    assert [done.step.name for done in runs] == ["three", "one", "two"]


def test_a_step_begins_although_what_it_needs_has_failed(tree: AddStep) -> None:
    after = dataclasses.replace(tree("after", "true"), after=("bad",))
    assert [one.verdict for one in run_beside(tree("bad", "exit 3"), after)] == ["FAILED", "ok"]


def test_processor_time_is_that_of_everything_that_a_step_has_started(tree: AddStep, tmp_path: pathlib.Path) -> None:
    burn = "python3 -c 'import time\nwhile time.process_time() < 0.3: pass'"
    # The second has lost its parent when it ends, as a box's programs have.
    burnt = tmp_path / "burnt"
    text = f"{burn}\nsh -c '{tmp_path}/orphan &'\nuntil [ -s {burnt} ] && [ ! -e /proc/$(cat {burnt}) ]; do sleep 0.02; done"
    (tmp_path / "orphan").write_text(f"#!/bin/sh\n{burn}\necho $$ >{burnt}\n")
    (tmp_path / "orphan").chmod(0o755)
    done = run_beside(tree("busy", text))[0]
    assert done.verdict == "ok"
    assert done.processor_seconds >= 0.6


def test_a_step_ends_as_its_command_does(tree: AddStep, tmp_path: pathlib.Path) -> None:
    for text, status in (("exit 77", 77), ("kill -TERM $$", 143)):
        command = [run.ADOPT, tmp_path / "time", run.TREE / "script" / tree("one", text).name]
        assert subprocess.run(command).returncode == status


def test_a_step_that_exits_with_an_error_fails_the_run(tree: AddStep, capsys: pytest.CaptureFixture[str]) -> None:
    runs = run_beside(tree("good", "true"), tree("bad", "echo the reason; exit 3"))
    assert [one.verdict for one in runs] == ["ok", "FAILED"]
    assert run.summary(runs, 1) == 1
    assert "the reason" in capsys.readouterr().out


@pytest.mark.parametrize("text", ["sleep 600", "trap '' INT TERM; sleep 600", "trap 'exit 0' INT; sleep 600"])
def test_a_step_that_does_not_end_fails_and_the_run_goes_on(
    tree: AddStep, monkeypatch: pytest.MonkeyPatch, capsys: pytest.CaptureFixture[str], text: str
) -> None:
    monkeypatch.setattr(run, "LIMIT", 0.5)
    monkeypatch.setattr(run, "TIME_TO_END", 0.5)
    lane = plan.Lane((tree("hangs", f"echo what it said\n{text}"), tree("next", "true")))
    begin = time.monotonic()
    runs = run.Schedule((lane,)).run()
    assert time.monotonic() - begin < 300
    assert [one.verdict for one in runs] == ["FAILED", "ok"]
    said = capsys.readouterr().out
    assert "what it said" in said
    assert "ended, for it took longer than 0.5 s" in said


def test_a_step_that_gives_way_leaves_the_others_their_time(tree: AddStep) -> None:
    lanes = (plan.Lane((tree("ordinary", "nice"),)), plan.Lane((tree("polite", "nice"),), gives_way=True))
    runs = run.Schedule(lanes).run()
    assert [int(one.last_line()) for one in runs] == [os.nice(0), 19]


def test_a_step_that_gives_way_does_so_to_other_sessions_too(tree: AddStep) -> None:
    if not os.path.exists("/proc/self/autogroup"):
        pytest.skip("this kernel shares the processor among processes only")
    polite = tree("polite", "cat /proc/self/autogroup")
    own = pathlib.Path("/proc/self/autogroup").read_text()  # nothing where nobody has begun a session yet
    given = run_beside(polite, gives_way=True)[0].last_line()
    assert given.endswith(" nice 19")
    assert given.split()[:1] != own.split()[:1]


@pytest.mark.parametrize("gives_way", [False, True])
def test_a_run_that_breaks_off_ends_what_its_steps_have_started(
    tree: AddStep, monkeypatch: pytest.MonkeyPatch, tmp_path: pathlib.Path, gives_way: bool
) -> None:
    def break_off(_: run.Run) -> str:
        raise KeyboardInterrupt

    monkeypatch.setattr(run.Run, "line", break_off)
    monkeypatch.setattr(run, "TIME_TO_END", 1)  # what a shell starts in the background heeds no Ctrl-C
    begun, child = tmp_path / "begun", tmp_path / "child"
    long = tree("long", f"python3 -c 'import time; time.sleep(600)' & echo $! >{child}; : >{begun}; wait")
    quick = tree("quick", f"until [ -e {begun} ]; do sleep 0.02; done")
    begin = time.monotonic()
    with pytest.raises(KeyboardInterrupt):
        run.Schedule((plan.Lane((quick,)), plan.Lane((long,), gives_way))).run()
    assert time.monotonic() - begin < 500
    wait_until(lambda: not pathlib.Path(f"/proc/{child.read_text().strip()}").exists(), 60, "its child ends, too")


def test_a_run_that_is_told_to_end_breaks_off() -> None:
    with pytest.raises(SystemExit) as end:
        run.break_off(signal.SIGTERM, None)
    assert end.value.code == 143


def test_a_failed_test_fails_a_step_that_exits_well(tree: AddStep) -> None:
    runs = run_beside(tree("sly", f"cat >$ORV_REPORTS/x.xml <<'E'\n{CTEST}\nE\n"))
    assert [one.verdict for one in runs] == ["FAILED"]


def test_what_needed_a_second_try_is_named_at_the_end(tree: AddStep, capsys: pytest.CaptureFixture[str]) -> None:
    text = f"cat >$ORV_REPORTS/x.xml <<'E'\n{PYTEST_OF_ONE}\nE\necho test_box::test_up >$ORV_REPORTS/second-tries"
    assert run.summary(run_beside(tree("box", text)), 1) == 0
    assert "\nneeded a second try: box: test_box::test_up\n1 passed, 0 failed\n" in capsys.readouterr().out


def test_a_run_without_any_test_fails(tree: AddStep, capsys: pytest.CaptureFixture[str]) -> None:
    assert run.summary(run_beside(tree("good", "true")), 1) == 1
    assert capsys.readouterr().out.endswith("no test ran\n0 passed, 1 failed\n")


def test_what_may_not_run_here_is_skipped_only_where_that_is_allowed(
    tree: AddStep, monkeypatch: pytest.MonkeyPatch
) -> None:
    step = tree("box", "echo not run: no namespaces; exit 77")
    monkeypatch.setenv("ORV_REQUIRE_NAMESPACES", "1")
    assert run_beside(step)[0].verdict == "FAILED"
    monkeypatch.setenv("ORV_REQUIRE_NAMESPACES", "")
    assert run_beside(step)[0].verdict == "skipped"


def test_what_hardly_any_machine_allows_may_be_left_out_everywhere(
    tree: AddStep, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setenv("ORV_REQUIRE_NAMESPACES", "1")
    step = dataclasses.replace(tree("machine", "exit 77"), optional=True)
    assert run_beside(step)[0].verdict == "skipped"


def test_script_test_says_what_it_can_do() -> None:
    tree = pathlib.Path(__file__).resolve().parents[2]
    said = subprocess.run([tree / "script/test", "--help"], capture_output=True, text=True, check=True).stdout
    assert said.startswith("test [all | STEP...]")
