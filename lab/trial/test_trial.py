# SPDX-License-Identifier: Apache-2.0
"""The trial on a small tree, with instruments that say what they are told."""

from __future__ import annotations

import os
import pathlib
import re
import subprocess
import threading

import pytest

from lab.trial import instruments, trial
from lab.trial.instruments import Chaos, Explorer, Instrument, Outcome, Search, Torture, Verdict
from lab.trial.memory import Memory
from lab.trial.scratch import ASAN, Ended, Scratch, Stopwatch, touched_by

PATCH = """A fault, as git format-patch writes it.

--- a/libs/Greeting.cpp
+++ b/libs/Greeting.cpp
@@ -1 +1 @@
-hello
+hell
"""
EXPLORED = "explore: 40 seeds, 900 steps, 1 s, 40 seeds a second"
TORTURED = "torture: 5 of 900 points, {} faults, 3 s"
ROUNDS = "4 rounds, 30 faults of 9 kinds, {} rounds failed, {} of them for want of a box, 0.07 box-hours"


@pytest.fixture(autouse=True)
def no_time_passes(monkeypatch: pytest.MonkeyPatch) -> None:
    """What is said does not depend on how busy the machine is."""
    monkeypatch.setattr(Stopwatch, "__str__", lambda _: "0 s")


@pytest.fixture(name="scratch")
def small_tree(tmp_path: pathlib.Path) -> Scratch:
    """A tree with one file, its copy, and the patch; "built" is what the file says, as if it were a program."""
    scratch = Scratch(tmp_path / "tree", tmp_path / "place")
    for one in (scratch.tree, scratch.copy):
        (one / "libs").mkdir(parents=True)
        (one / "libs" / "Greeting.cpp").write_text("hello\n")
    (scratch.built / "bin").mkdir(parents=True)
    scratch.sound.mkdir()
    scratch.logs.mkdir()
    (tmp_path / "fault.patch").write_text(PATCH)
    return scratch


def program(path: pathlib.Path, said: str, status: int = 0) -> None:
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(f"#!/bin/sh\ncat <<'SAID'\n{said}\nSAID\nexit {status}\n")
    path.chmod(0o755)


def built(scratch: Scratch, name: str, said: str, status: int = 0, sound: int = 0) -> None:
    """`sound` is what the program without the fault answers."""
    program(scratch.built / "bin" / name, said, status)
    program(scratch.sound / name, "", sound)
    program(scratch.copy / "libs/OrvStackSdk/tests/support/with-test-endpoint", "", 0)
    # For torture: what is given to it is a program and its options, behind four words.
    (scratch.copy / "libs/OrvStackSdk/tests/support/with-test-endpoint").write_text('#!/bin/sh\nshift 3\nexec "$@"\n')


def timeless(outcome: Outcome) -> str:
    """On a busy machine anything may take a second more."""
    return re.sub(r"\b\d+ s$", "0 s", str(outcome))


def explorer(effort: int = 600) -> Instrument:
    return Explorer(effort, "explore broker", "orv-explore")


class Told(Instrument):
    """Is made of the greeting, and says what it is told."""

    made_of = ("greeting",)
    targets = ("greeting",)

    def __init__(self, name: str, sound: Verdict, faulty: Verdict) -> None:
        super().__init__(1)
        self.name, self._said, self.runs = name, [sound, faulty], 0

    def run(self, scratch: Scratch, log: str, search: Search) -> Outcome:
        self.runs += 1
        return Outcome(self._said[not search.sound])


class Last(Told):
    last = True


def builds(scratch: Scratch, monkeypatch: pytest.MonkeyPatch, good: bool = True) -> None:
    def build(targets: list[str], log: str, preset: str = "asan-ubsan") -> bool:
        (scratch.built / "greeting").write_text((scratch.copy / "libs" / "Greeting.cpp").read_text())
        return good

    build([], "")
    monkeypatch.setattr(scratch, "build", build)


def after_control(
    scratch: Scratch, *told: Instrument, first: bool = False, memory: Memory | None = None
) -> trial.Trial:
    held = trial.Trial(scratch, told, 0, first, memory)
    held.control()
    return held


def test_a_fault_is_planted_in_the_copy_alone_and_taken_out_again(scratch: Scratch) -> None:
    patch = scratch.tree.parent / "fault.patch"
    planted = scratch.copy / "libs" / "Greeting.cpp"
    os.utime(planted, (0, 0))
    assert scratch.apply(patch) == ""
    assert planted.read_text() == "hell\n"
    assert (scratch.tree / "libs" / "Greeting.cpp").read_text() == "hello\n"
    os.utime(planted, (0, 0))
    scratch.restore(touched_by(patch))
    assert planted.read_text() == "hello\n"
    assert planted.stat().st_mtime > 0  # or what was built of the fault would be kept


def test_what_was_built_of_a_fault_is_taken_back_and_nothing_has_to_be_built_again(scratch: Scratch) -> None:
    source, planted = scratch.copy / "libs" / "Greeting.cpp", scratch.tree.parent / "fault.patch"
    same, changed, gone = (scratch.built / name for name in ("same", "changed", "gone"))
    for path in (source, same, changed, gone):
        path.write_text("hello\n")
        os.utime(path, (1000, 1000))
    scratch.keep_built([ASAN])
    assert scratch.apply(planted) == ""
    assert source.stat().st_mtime > 1000
    changed.write_text("hell\n")
    gone.unlink()
    (scratch.built / "new").write_text("hell\n")
    scratch.restore(touched_by(planted))
    assert {path.name: path.read_text() for path in scratch.built.glob("*") if path.is_file()} == dict.fromkeys(
        ("same", "changed", "gone"), "hello\n"
    )
    assert [path.stat().st_mtime for path in (source, same, changed, gone)] == [1000] * 4
    assert source.read_text() == "hello\n"


def test_a_trial_that_is_interrupted_builds_the_faulty_source_again(scratch: Scratch) -> None:
    subprocess.run(["git", "init", "-q", scratch.tree], check=True)
    source = scratch.copy / "libs" / "Greeting.cpp"
    os.utime(source, (1000, 1000))
    scratch.keep_built([ASAN])
    scratch.apply(scratch.tree.parent / "fault.patch")
    Scratch(scratch.tree, scratch.place).update()
    assert source.read_text() == "hello\n"
    assert source.stat().st_mtime > 1000


def test_what_runs_in_other_threads_is_ended_when_one_is_interrupted(
    scratch: Scratch, monkeypatch: pytest.MonkeyPatch
) -> None:
    under_way = threading.Event()

    def build(targets: list[str], log: str, preset: str = ASAN) -> bool:
        if preset == ASAN:
            under_way.wait(20)
            raise KeyboardInterrupt
        try:
            return scratch.run(["sh", "-c", "echo; exec sleep 600"], log, 600)[0] == 0
        except Ended:
            return False

    def told(self: subprocess.Popen[bytes], timeout: float | None = None) -> int:
        under_way.set()
        return waits(self, timeout)

    waits = subprocess.Popen.wait
    monkeypatch.setattr(subprocess.Popen, "wait", told)
    monkeypatch.setattr(scratch, "build", build)
    watch = Stopwatch()
    with pytest.raises(KeyboardInterrupt):
        scratch.build_several({ASAN: ["one"], "tsan": ["one"]}, "log")
    assert watch.seconds() < 100


@pytest.mark.parametrize(
    ("said", "status", "sound", "means"),
    [
        ("explore: seed 12 fails\n" + EXPLORED, 1, 0, "FOUND: seed 12, 40 seeds, 0 s"),
        ("explore: seed 12 fails\n" + EXPLORED, 1, 1, "did not work: seed 12 fails without the fault, too, 0 s"),
        (EXPLORED, 0, 0, "no: 40 seeds, 0 s"),
        (EXPLORED.replace("40", "0", 1), 0, 0, "did not work: status 0, " + EXPLORED.replace("40", "0", 1)),
        ("explore: fork: no memory", 2, 0, "did not work: status 2, explore: fork: no memory"),
        ("Segmentation fault", 139, 0, "did not work: status 139, Segmentation fault"),
    ],
)
def test_what_an_explorer_says_is_understood(scratch: Scratch, said: str, status: int, sound: int, means: str) -> None:
    built(scratch, "orv-explore", said, status, sound)
    assert timeless(explorer().look(scratch, "log")) == means


@pytest.mark.parametrize(
    ("said", "status", "sound", "means"),
    [
        (
            "torture: begin new 4 once: exit status 1, after 2 s\n" + TORTURED.format(1),
            1,
            0,
            "FOUND: begin new 4 once, 5 points, 0 s",
        ),
        (
            "torture: begin without any failure: hangs\n" + TORTURED.format(1),
            1,
            0,
            "FOUND: begin without any failure, 5 points, 0 s",
        ),
        (
            "torture: work new 4 once: exit status 9, after 2 s\n"
            "torture: work new 4 once: tried again alone, and nothing found: the machine was busy\n"
            "torture: begin new 5 once: exit status 9, after 2 s\n"
            "torture: begin new 5 once: tried again alone, fails again\n" + TORTURED.format(1),
            1,
            0,
            "FOUND: begin new 5 once, 5 points, 0 s",
        ),
        (
            "torture: begin new 4 once: exit status 1, after 2 s\n" + TORTURED.format(1),
            1,
            1,
            "did not work: begin new 4 once fails without the fault, too, 0 s",
        ),
        (TORTURED.format(0), 0, 0, "no: 5 points, 0 s"),
        ("no test endpoint", 77, 0, "did not work: status 77, no test endpoint"),
    ],
)
def test_what_the_torture_says_is_understood(scratch: Scratch, said: str, status: int, sound: int, means: str) -> None:
    built(scratch, "orv-torture", said, status, sound)
    assert timeless(Torture(600).look(scratch, "log")) == means


@pytest.mark.parametrize(
    ("said", "status", "means"),
    [
        ("seed 4201: FAILED after 9 s\n" + ROUNDS.format(1, 0), 1, "FOUND: seed 4201, twice, 0 s"),
        ("seed 4201: FAILED after 9 s\n" + ROUNDS.format(1, 1), 1, "no: 4 rounds, 0 s"),
        ("seed 7: FAILED after 9 s\n" + ROUNDS.format(1, 0), 1, "no: 4 rounds, 0 s"),  # none of those that were tried
        (ROUNDS.format(0, 0), 0, "no: 4 rounds, 0 s"),
        (ROUNDS.format(4, 4), 1, "did not work: status 1, " + ROUNDS.format(4, 4)[:80]),
        ("chaos: not run: no root", 77, "did not work: status 77, chaos: not run: no root"),
    ],
)
def test_what_chaos_says_is_understood(scratch: Scratch, said: str, status: int, means: str) -> None:
    program(scratch.copy / "script" / "chaos", said, status)
    assert timeless(Chaos(4).look(scratch, "log")) == means


def test_a_search_goes_on_behind_what_the_sound_tree_has_too(scratch: Scratch) -> None:
    built(scratch, "orv-explore", "")
    (scratch.built / "bin" / "orv-explore").write_text(
        f"#!/bin/sh\ncase $* in *'--from 13'*) echo 'explore: seed 20 fails';; *) echo 'explore: seed 12 fails';; esac\n"
        f"echo '{EXPLORED}'\nexit 1\n"
    )
    (scratch.sound / "orv-explore").write_text("#!/bin/sh\ntest $2 != 12\n")
    assert timeless(Explorer(600, "explore broker", "orv-explore").look(scratch, "log")) == (
        "FOUND: seed 20, 80 seeds, 0 s"
    )


def test_a_sound_tree_with_few_faults_of_its_own_passes(scratch: Scratch) -> None:
    built(scratch, "orv-explore", "")
    (scratch.built / "bin" / "orv-explore").write_text(
        f"#!/bin/sh\ncase $* in *'--from 13'*) s=0;; *) s=1; echo 'explore: seed 12 fails';; esac\n"
        f"echo '{EXPLORED}'\nexit $s\n"
    )
    (scratch.built / "bin" / "orv-explore").rename(scratch.sound / "orv-explore")
    said = str(Explorer(600, "explore broker", "orv-explore").prepare(scratch, "log", 600))
    assert said.startswith("no: 80 seeds, ") and said.endswith("seed 12 fails without the fault, too")


def rounds_that_fail(scratch: Scratch, *each: list[int]) -> None:
    """The first run of chaos has these seeds that fail, the second one those, and so on; later ones none."""
    runs = scratch.copy / "runs"
    program(scratch.copy / "script" / "chaos", "", 1)
    cases = "".join(
        f"{number}) echo '"
        + "\n".join(f"seed {seed}: FAILED after 9 s" for seed in seeds)
        + f"\n{ROUNDS.format(len(seeds), 0)}';;\n"
        for number, seeds in enumerate(each, 1)
    )
    (scratch.copy / "script" / "chaos").write_text(
        f"#!/bin/sh\nexec 9>{runs}.lock\nflock 9\necho >>{runs}\n"
        f"case $(wc -l <{runs}) in\n{cases}*) echo '{ROUNDS.format(0, 0)}';;\nesac\n"
    )


def test_chaos_uses_the_rounds_that_the_sound_tree_passes_twice(scratch: Scratch) -> None:
    chaos = Chaos(4)
    rounds_that_fail(scratch, [4200], [4203], [4200, 4203])
    assert timeless(chaos.prepare(scratch, "log", 0)) == "no: 2 of 4 rounds pass twice, 0 s"
    assert timeless(chaos.look(scratch, "log")) == "no: 2 rounds, 0 s"


def test_the_control_of_chaos_plays_all_rounds_at_a_time(scratch: Scratch) -> None:
    """Each waits for the other one."""
    rounds_that_fail(scratch)
    waits = (
        "tries=0\nuntil [ $(wc -l <{0}) -ge 2 ]; do tries=$((tries + 1)); [ $tries -lt 300 ] || exit 3; sleep 0.1; done"
    )
    text = (scratch.copy / "script" / "chaos").read_text()
    runs = scratch.copy / "runs"
    (scratch.copy / "script" / "chaos").write_text(text.replace("case", f"flock -u 9\n{waits.format(runs)}\ncase", 1))
    assert timeless(Chaos(4).prepare(scratch, "log", 0)) == "no: 4 of 4 rounds pass twice, 0 s"


def test_chaos_does_not_work_where_the_sound_tree_passes_no_round_twice(scratch: Scratch) -> None:
    rounds_that_fail(scratch, [4200], [4201])
    assert timeless(Chaos(2).prepare(scratch, "log", 0)) == "did not work: 0 of 2 rounds pass twice, 0 s"


@pytest.mark.parametrize(("again", "means"), [([4202], "FOUND: seed 4202, twice, 0 s"), ([], "no: 4 rounds, 0 s")])
def test_a_round_that_fails_has_to_fail_again(scratch: Scratch, again: list[int], means: str) -> None:
    rounds_that_fail(scratch, [4202], again)
    assert timeless(Chaos(4).look(scratch, "log")) == means


def test_races_are_looked_for_in_a_build_of_their_own(scratch: Scratch) -> None:
    program(scratch.folder("tsan") / "bin" / "orv-explore", "explore: seed 12 fails\n" + EXPLORED, 1)
    scratch.keep_sound(["orv-explore"], "tsan")
    program(scratch.sound_folder("tsan") / "orv-explore", "")
    races = Explorer(600, "races broker", "orv-explore", preset="tsan")
    assert timeless(races.look(scratch, "log")) == "FOUND: seed 12, 40 seeds, 0 s"


def test_an_instrument_that_does_not_end_has_found_nothing(scratch: Scratch, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(instruments, "GRACE", 0)
    built(scratch, "orv-explore", "")
    (scratch.built / "bin" / "orv-explore").write_text("#!/bin/sh\nexec sleep 600\n")
    assert str(explorer(1).look(scratch, "log")) == "did not work: not ended after 1 s"


@pytest.mark.parametrize(
    ("fits", "good", "why"), [(False, True, "cannot be applied: error:"), (True, False, "does not build")]
)
def test_a_patch_that_does_not_fit_or_build_does_not_count(
    scratch: Scratch, monkeypatch: pytest.MonkeyPatch, fits: bool, good: bool, why: str
) -> None:
    told = Told("one", Verdict.NOTHING, Verdict.FOUND)
    builds(scratch, monkeypatch, good)
    held = after_control(scratch, told)
    if not fits:
        (scratch.copy / "libs" / "Greeting.cpp").write_text("good morning\n")
    row = held.plant(scratch.tree.parent / "fault.patch")
    assert not row.counts and row.unfit.startswith(why)
    assert told.runs == 1  # for the control
    assert trial.summary([row]) == "0 of 0 found; 1 do not count"


@pytest.mark.parametrize(
    ("verdict", "found", "counts"),
    [(Verdict.FOUND, True, True), (Verdict.NOTHING, False, True), (Verdict.BROKEN, False, False)],
)
def test_a_fault_is_found_by_a_check_that_fails_and_by_nothing_else(
    scratch: Scratch, monkeypatch: pytest.MonkeyPatch, verdict: Verdict, found: bool, counts: bool
) -> None:
    builds(scratch, monkeypatch)
    held = after_control(scratch, Told("one", Verdict.NOTHING, verdict))
    row = held.plant(scratch.tree.parent / "fault.patch")
    assert (row.found, row.counts) == (found, counts)


def test_only_what_the_fault_has_changed_is_run(scratch: Scratch, monkeypatch: pytest.MonkeyPatch) -> None:
    builds(scratch, monkeypatch)
    other = Told("other", Verdict.NOTHING, Verdict.FOUND)
    other.made_of = ("bin/other",)
    built(scratch, "other", "")
    row = after_control(scratch, other).plant(scratch.tree.parent / "fault.patch")
    assert [str(one) for one in row.outcomes] == ["same program"]


@pytest.mark.parametrize(("first", "runs"), [(False, [2, 2, 1]), (True, [2, 1, 1])])
def test_the_last_instrument_and_after_the_first_finding_any_looks_for_nothing_more(
    scratch: Scratch, monkeypatch: pytest.MonkeyPatch, first: bool, runs: list[int]
) -> None:
    builds(scratch, monkeypatch)
    told = [kind("one", Verdict.NOTHING, Verdict.FOUND) for kind in (Told, Told, Last)]
    after_control(scratch, *told, first=first).plant(scratch.tree.parent / "fault.patch")
    assert [one.runs for one in told] == runs


def test_those_that_are_made_for_what_is_touched_come_first_and_only_what_is_needed_is_built(
    scratch: Scratch, monkeypatch: pytest.MonkeyPatch
) -> None:
    builds(scratch, monkeypatch)
    other, own = Told("other", Verdict.NOTHING, Verdict.FOUND), Told("own", Verdict.NOTHING, Verdict.FOUND)
    own.searches = ("libs/",)
    row = after_control(scratch, other, own, first=True).plant(scratch.tree.parent / "fault.patch")
    assert [str(one) for one in row.outcomes] == ["not run", "FOUND"]
    assert (other.runs, own.runs) == (1, 2)


def test_a_trial_goes_on_without_what_is_dispensable(
    scratch: Scratch, monkeypatch: pytest.MonkeyPatch, capsys: pytest.CaptureFixture[str]
) -> None:
    builds(scratch, monkeypatch)
    chaotic = Last("chaotic", Verdict.BROKEN, Verdict.FOUND)
    chaotic.dispensable = True
    held = trial.Trial(scratch, [Told("one", Verdict.NOTHING, Verdict.NOTHING), chaotic], 0, False)
    assert trial.hold(held, [scratch.tree.parent / "fault.patch"], scratch.place / "table.md") == 0
    said = capsys.readouterr()
    assert "| fault | Greeting.cpp | no | not run | no | not run |" in said.out
    assert "chaotic does not pass" in said.err


@pytest.mark.parametrize("sound", [Verdict.FOUND, Verdict.BROKEN])
def test_without_a_sound_tree_that_passes_nothing_counts(
    scratch: Scratch, monkeypatch: pytest.MonkeyPatch, capsys: pytest.CaptureFixture[str], sound: Verdict
) -> None:
    builds(scratch, monkeypatch)
    held = trial.Trial(scratch, [Told("one", sound, Verdict.FOUND)], 0, False)
    assert trial.hold(held, [scratch.tree.parent / "fault.patch"], scratch.place / "table.md") == 1
    said = capsys.readouterr()
    assert "means nothing" in said.err and "fault |" in said.out and "hell" not in said.out


def test_the_table_begins_with_the_control(scratch: Scratch, monkeypatch: pytest.MonkeyPatch) -> None:
    builds(scratch, monkeypatch)
    held = trial.Trial(scratch, [Told("one", Verdict.NOTHING, Verdict.FOUND)], 0, False)
    table = scratch.place / "table.md"
    assert trial.hold(held, [scratch.tree.parent / "fault.patch"], table) == 0
    assert table.read_text().splitlines() == [
        "| fault | touches | one | found | tests |",
        "| --- | --- | --- | --- | --- |",
        "| none (control) |  | no | no |  |",
        "| fault | Greeting.cpp | FOUND | yes | not run |",
    ]


class Searching(Told):
    """Says the next word each time, and has looked until the limit."""

    def __init__(self, name: str, *said: Verdict, sound: Verdict = Verdict.NOTHING) -> None:
        super().__init__(name, sound, Verdict.NOTHING)
        self.effort, self.brief, self.control = 60, 10, 10
        self.course: list[tuple[bool, float]] = []
        self._next, self._of_the_sound_tree = list(said), sound

    def run(self, scratch: Scratch, log: str, search: Search) -> Outcome:
        self.course.append((search.sound, search.limit))
        verdict = Verdict.NOTHING if search.sound and search.limit <= self.control else self._of_the_sound_tree
        return Outcome(verdict if search.sound else self._next.pop(0), "", search.limit)


def test_each_has_a_brief_look_before_any_has_a_long_one_and_a_last_one_has_none(
    scratch: Scratch, monkeypatch: pytest.MonkeyPatch
) -> None:
    builds(scratch, monkeypatch)
    no = Verdict.NOTHING
    one, other, late = Searching("one", no, no), Searching("other", no, Verdict.FOUND), Searching("late", no)
    late.brief = 0
    held = after_control(scratch, one, other, late, first=True)
    row = held.plant(scratch.tree.parent / "fault.patch")
    assert [str(outcome) for outcome in row.outcomes] == ["no", "FOUND", "not run"]
    assert (one.course, late.course) == ([(True, 10), (False, 10), (False, 60)], [(True, 10)])


def test_the_control_looks_as_long_as_a_finding_has_taken(scratch: Scratch, monkeypatch: pytest.MonkeyPatch) -> None:
    builds(scratch, monkeypatch)
    long = Searching("one", Verdict.FOUND, Verdict.FOUND)
    held = after_control(scratch, long)
    patch = scratch.tree.parent / "fault.patch"
    assert held.plant(patch).found
    assert held.plant(patch).found  # once is enough
    assert long.course == [(True, 10), (False, 60), (True, 60), (False, 60)]


@pytest.mark.parametrize("sound", [Verdict.FOUND, Verdict.BROKEN])
def test_a_finding_does_not_count_where_the_sound_tree_fails_when_it_is_looked_at_as_long(
    scratch: Scratch, monkeypatch: pytest.MonkeyPatch, sound: Verdict
) -> None:
    builds(scratch, monkeypatch)
    held = after_control(scratch, Searching("one", Verdict.FOUND, Verdict.FOUND, sound=sound))
    for _ in range(2):
        row = held.plant(scratch.tree.parent / "fault.patch")
        assert not row.found and not row.counts
        assert "but the tree without a fault" in str(row.outcomes[0])


def test_a_trial_that_is_resumed_looks_only_at_what_is_not_done(
    scratch: Scratch, monkeypatch: pytest.MonkeyPatch
) -> None:
    builds(scratch, monkeypatch)
    patch = scratch.tree.parent / "fault.patch"

    def trial_of_one(verdict: Verdict, resume: bool) -> tuple[int, bool]:
        told = Told("one", Verdict.NOTHING, verdict)
        told.control = 5
        row = after_control(scratch, told, memory=Memory(scratch.place / "memory", resume)).plant(patch)
        return told.runs, row.found

    assert trial_of_one(Verdict.BROKEN, resume=False) == (2, False)
    # The same program has passed the control before; what did not work is tried again.
    assert trial_of_one(Verdict.FOUND, resume=True) == (1, True)
    assert trial_of_one(Verdict.NOTHING, resume=True) == (0, True)
    assert trial_of_one(Verdict.NOTHING, resume=False) == (1, False)
    assert trial_of_one(Verdict.FOUND, resume=True) == (0, False)
    patch.write_text(PATCH.replace("+hell", "+help"))
    assert trial_of_one(Verdict.FOUND, resume=True) == (1, True)
    (scratch.copy / "lab").mkdir()
    (scratch.copy / "lab" / "judge.py").write_text("# what judges has changed\n")
    assert trial_of_one(Verdict.NOTHING, resume=True) == (1, False)
    for script in ("script/judge", "script/lib/judge.sh", "testbed/judge"):
        (scratch.copy / script).parent.mkdir(parents=True, exist_ok=True)
        (scratch.copy / script).write_text("# a shell script\n")
        assert trial_of_one(Verdict.NOTHING, resume=True) == (1, False)
    assert trial_of_one(Verdict.NOTHING, resume=True) == (0, False)
