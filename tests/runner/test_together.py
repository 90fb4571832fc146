# SPDX-License-Identifier: Apache-2.0
from __future__ import annotations

import pathlib
import subprocess
from collections.abc import Callable

import pytest

import reports
import together

# Speaks as a GoogleTest program does. What a test does is in its name.
PROGRAM = r"""#!/usr/bin/python3 -B
import os, resource, signal, subprocess, sys, time
given = sys.argv[1]
if os.environ.get("TEST_WITHOUT_SURROUNDINGS"):
    print("not run: no namespaces")
    sys.exit(77)
if given == "--gtest_list_tests":
    print("Running main() from gtest_main.cc\nA.\n  " + "\n  ".join(os.environ["TEST_NAMES"].split()))
    sys.exit()
names = given.partition("=")[2].split(":")
for name in names:
    print(f"[ RUN      ] {name}", flush=True)
    open(os.environ["TEST_ORDER"], "a").write(f"{os.getpid()} {name}\n")
    verdict = "OK"
    if "Crash" in name:
        print("about to crash", end="", flush=True)
        os.kill(os.getpid(), signal.SIGSEGV)
    while "Hang" in name:
        print(end="*", file=open(os.environ["TEST_CLOCK"], "a"))
        time.sleep(0.01)
    if "Disk" in name:
        resource.setrlimit(resource.RLIMIT_FSIZE, (0, resource.RLIM_INFINITY))
    if "Daemon" in name:
        subprocess.Popen([os.environ["TEST_DAEMON"]], start_new_session=True)
    if "Leave" in name:
        sys.exit(0)
    if "Fail" in name:
        verdict = "FAILED"
        print("expected 1, was 2")
    if "Skip" in name:
        verdict = "SKIPPED"
        print("no such namespace")
    if "HalfALine" in name:
        print("without an end", end="")
    print(f"[{verdict:>9} ] {name} (12 ms)" if verdict != "OK" else f"[       OK ] {name} (12 ms)", flush=True)
    if "LastOfAll" in name:
        sys.exit(0)
print("AddressSanitizer: leaks" if "A.Leak" in names else "")
if "A.Torn" in names:
    os.abort()
sys.exit(1 if any("Fail" in name or "Leak" in name for name in names) else 0)
"""

Run = Callable[..., dict[str, str]]


@pytest.fixture
def order(tmp_path: pathlib.Path) -> pathlib.Path:
    return tmp_path / "order"


@pytest.fixture
def run(tmp_path: pathlib.Path, order: pathlib.Path, monkeypatch: pytest.MonkeyPatch) -> Run:
    """The verdicts of the tests of a program that has these. Time goes on only while a test hangs."""
    clock = tmp_path / "clock"
    clock.touch()
    monkeypatch.setenv("TEST_CLOCK", str(clock))
    program = tmp_path / "some-tests"
    program.write_text(PROGRAM)
    program.chmod(0o755)
    monkeypatch.setenv("TEST_ORDER", str(order))

    def run_them(*tests: str, part: int = 1, parts: int = 1) -> dict[str, str]:
        monkeypatch.setenv("TEST_NAMES", " ".join(tests))
        mine = together.names([str(program)])[part - 1 :: parts]
        done = together.run([str(program)], mine, limit=20, clock=lambda: clock.stat().st_size)
        return {test.name: test.verdict for test in done}

    return run_them


def test_all_tests_of_a_program_run_in_one_process(run: Run, order: pathlib.Path) -> None:
    assert run("Passes", "PassesWithHalfALine", "Skip") == {
        "A.Passes": "passed",
        "A.PassesWithHalfALine": "passed",
        "A.Skip": "skipped",
    }
    assert len({line.split()[0] for line in order.read_text().splitlines()}) == 1


def test_each_test_is_in_one_part(run: Run) -> None:
    tests = ["One", "Two", "Three", "Four", "Five"]
    found = [name for part in (1, 2, 3) for name in run(*tests, part=part, parts=3)]
    assert sorted(found) == sorted(f"A.{test}" for test in tests)


@pytest.mark.parametrize("how", ["Crash", "Hang", "Leave"])
def test_a_test_that_ends_the_process_fails_and_those_after_it_run(run: Run, how: str) -> None:
    assert run("One", how, "Two") == {"A.One": "passed", f"A.{how}": "failed", "A.Two": "passed"}


def test_each_test_has_the_limit_for_itself() -> None:
    now = 0.0
    course = together.Course(lambda: now)
    for name in ("A.One", "A.Two"):
        now += 15
        course.take(f"[ RUN      ] {name}")
        assert course.seconds == 0
        now += 15
        assert course.seconds == 15
        course.take(f"[       OK ] {name} (15000 ms)")


def test_a_failure_is_one_failure(run: Run) -> None:
    assert run("One", "Fails", "Two") == {"A.One": "passed", "A.Fails": "failed", "A.Two": "passed"}


def test_a_test_may_limit_how_large_files_become(run: Run) -> None:
    assert run("One", "FullDisk") == {"A.One": "passed", "A.FullDisk": "passed"}


def test_what_a_test_leaves_behind_is_not_waited_for(
    run: Run, tmp_path: pathlib.Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    daemon, told, waited = tmp_path / "daemon", tmp_path / "told", tmp_path / "waited"
    daemon.write_text(f"#!/bin/sh\nfor i in $(seq 6000); do [ ! -e {told} ] || exit; sleep 0.1; done\n: >{waited}\n")
    daemon.chmod(0o755)
    monkeypatch.setenv("TEST_DAEMON", str(daemon))
    try:
        assert run("Daemon", "Two") == {"A.Daemon": "passed", "A.Two": "passed"}
        assert not waited.exists()
    finally:
        told.touch()


def test_all_that_a_test_says_is_kept(tmp_path: pathlib.Path) -> None:
    much = "x" + 200000 * "é"  # no part of the pipe's size ends with a whole letter
    said = f"[ RUN      ] A.One\n{much}\n[  FAILED  ] A.One (0 ms)\nnot half a line"
    (tmp_path / "said").write_text(said, encoding="utf-8")
    tests = together.run(["sh", "-c", f"cat {tmp_path}/said; exit 1"], ["A.One"], limit=60)
    assert [(test.verdict, test.said == much + "\n") for test in tests] == [("failed", True)]


def test_a_program_that_fails_after_its_tests_is_a_failure(run: Run) -> None:
    assert run("One", "Leak") == {"A.One": "passed", "A.Leak": "passed", "some-tests outside its tests": "failed"}


def test_a_program_that_crashes_after_a_failed_test_is_a_failure_too(run: Run) -> None:
    assert run("Fails", "Torn") == {"A.Fails": "failed", "A.Torn": "passed", "some-tests outside its tests": "failed"}


def test_a_program_that_ends_well_before_its_last_test_is_a_failure(run: Run) -> None:
    verdicts = run("LastOfAll", "Two")
    assert verdicts == {"A.LastOfAll": "passed", "A.Two": "passed", "some-tests outside its tests": "failed"}


def test_a_program_that_cannot_be_started_fails_with_all_its_tests() -> None:
    tests = together.run(["/bin/false"], ["A.One", "A.Two"], 60)
    assert [test.verdict for test in tests] == ["failed"] * 3


def test_a_program_that_runs_other_tests_than_it_should_fails(tmp_path: pathlib.Path) -> None:
    said = ["[ RUN      ] A.One", "[       OK ] A.One (0 ms)", "[ RUN      ] A.Two"]
    (tmp_path / "said").write_text("\n".join(said) + "\n")
    tests = together.run(["sh", "-c", f"cat {tmp_path}/said"], ["A.Two", "A.Three"], limit=60)
    assert [(test.name, test.verdict) for test in tests] == [("A.Two", "failed"), ("A.Three", "failed")]


def start(tmp_path: pathlib.Path, run: Run) -> subprocess.CompletedProcess[str]:
    command = [together.__file__, "--limit", "60", "--part", "1/1", str(tmp_path / "some-tests")]
    return subprocess.run(command, capture_output=True, text=True)


def test_surroundings_that_cannot_be_had_skip_the_program(
    run: Run, tmp_path: pathlib.Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setenv("TEST_WITHOUT_SURROUNDINGS", "1")
    done = start(tmp_path, run)
    assert (done.returncode, "not run: no namespaces" in done.stdout) == (77, True)


def test_the_report_names_each_test_and_why_it_failed_or_was_skipped(
    run: Run, tmp_path: pathlib.Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setenv("ORV_REPORTS", str(tmp_path))
    monkeypatch.setenv("TEST_NAMES", "One Crash Fails Skip")
    assert start(tmp_path, run).returncode == 1
    told = {test.name: test for test in reports.read(tmp_path)}
    assert {name: test.verdict for name, test in told.items()} == {
        "A.One": "passed",
        "A.Crash": "failed",
        "A.Fails": "failed",
        "A.Skip": "skipped",
    }
    assert "about to crash" in told["A.Crash"].output and "SIGSEGV" in told["A.Crash"].output
    assert "expected 1, was 2" in told["A.Fails"].output
    assert told["A.Skip"].output == "no such namespace\n"
    assert told["A.One"].seconds == 0.012


# As GoogleTest 1.12 writes them.
LIST = """\
Running main() from ./googletest/src/gtest_main.cc
Types/0.  # TypeParam = int
  AreWide
DISABLED_Suite.
  Passes
Plain.
  IsNotDISABLED_AtAll
  Skips
Few/Numbers.
  AreSmall/0  # GetParam() = 2
  AreSmall/1  # GetParam() = 5
  DISABLED_AreLarge/0  # GetParam() = 2
"""
OUTPUT = """\
[----------] 1 test from Types/0, where TypeParam = int
[ RUN      ] Types/0.AreWide
t.cpp:8: Failure
Expected: (sizeof(TypeParam)) > (4U), actual: 4 vs 4
[  FAILED  ] Types/0.AreWide, where TypeParam = int (0 ms)
[----------] 1 test from Types/0 (0 ms total)

[----------] 2 tests from Plain
[ RUN      ] Plain.IsNotDISABLED_AtAll
[       OK ] Plain.IsNotDISABLED_AtAll (0 ms)
[ RUN      ] Plain.Skips
t.cpp:11: Skipped
no namespaces
[  SKIPPED ] Plain.Skips (0 ms)
[----------] 2 tests from Plain (0 ms total)

[----------] 2 tests from Few/Numbers
[ RUN      ] Few/Numbers.AreSmall/0
[       OK ] Few/Numbers.AreSmall/0 (0 ms)
[ RUN      ] Few/Numbers.AreSmall/1
t.cpp:3: Failure
Expected: (GetParam()) < (3), actual: 5 vs 3
[  FAILED  ] Few/Numbers.AreSmall/1, where GetParam() = 5 (17 ms)
[ DISABLED ] Few/Numbers.DISABLED_AreLarge/0
[----------] 2 tests from Few/Numbers (0 ms total)

[----------] Global test environment tear-down
[  FAILED  ] 2 tests, listed below:
[  FAILED  ] Types/0.AreWide, where TypeParam = int
[  FAILED  ] Few/Numbers.AreSmall/1, where GetParam() = 5
"""


def test_what_googletest_writes_of_types_parameters_and_disabled_tests_is_understood(tmp_path: pathlib.Path) -> None:
    program = tmp_path / "parameters"
    program.write_text(
        f"#!/bin/sh\ncase $1 in\n--gtest_list_tests) cat {tmp_path}/list ;;\n*) cat {tmp_path}/output; exit 1 ;;\nesac\n"
    )
    program.chmod(0o755)
    (tmp_path / "list").write_text(LIST)
    (tmp_path / "output").write_text(OUTPUT)
    verdicts = {
        "Types/0.AreWide": "failed",
        "Plain.IsNotDISABLED_AtAll": "passed",
        "Plain.Skips": "skipped",
        "Few/Numbers.AreSmall/0": "passed",
        "Few/Numbers.AreSmall/1": "failed",
    }
    names = together.names([str(program)])
    assert names == list(verdicts)
    done = {test.name: test for test in together.run([str(program)], names, limit=60)}
    assert {name: test.verdict for name, test in done.items()} == verdicts
    assert done["Few/Numbers.AreSmall/1"].said == "t.cpp:3: Failure\nExpected: (GetParam()) < (3), actual: 5 vs 3\n"
    assert done["Few/Numbers.AreSmall/1"].seconds == 0.017


def test_what_ctest_has_run_as_one_is_counted_by_its_tests(tmp_path: pathlib.Path) -> None:
    (tmp_path / "ctest.xml").write_text(
        '<testsuite><testcase name="some-tests.1"/><testcase name="Other.Test"/></testsuite>'
    )
    together.write(tmp_path / "some-tests.1.xml", [together.Test("A.One", "passed"), together.Test("A.Two", "passed")])
    assert sorted(test.name for test in reports.read(tmp_path)) == ["A.One", "A.Two", "Other.Test"]
