# SPDX-License-Identifier: Apache-2.0
"""Schedules of chaos: drawn, kept, played and shrunk. No box: the gateway is a list of what it was told, time is virtual."""
from __future__ import annotations

import itertools
import pathlib
import subprocess
import threading
from collections.abc import Sequence
from typing import Any

import pytest

from orv_testbed.box import Failed
from orv_testbed.chaos import __main__ as chaos
from orv_testbed.chaos.faults import FAULTS, Words
from orv_testbed.chaos.play import Clock, play
from orv_testbed.chaos.rounds import HOPELESS, Result, Rounds
from orv_testbed.chaos.schedule import NoSchedule, Schedule, Strike, draw, load, overlap
from orv_testbed.chaos.shrink import shrink
from orv_testbed.fault_record import after
from orv_testbed.waiting import comes_within

SEEDS = range(300)
BROKER = Strike(10, 20, ("broker", "stop"))
ETHERNET = Strike(0, 30, ("provider", "eth", "dead"))
CABLE = Strike(25, 26, ("cable", "out"))


def words_of(schedule: Schedule) -> list[Words]:
    return [strike.words for strike in schedule.strikes]


class VirtualClock(Clock):
    def __init__(self) -> None:
        self.time = 1000.0

    def now(self) -> float:
        return self.time

    def sleep(self, seconds: float) -> None:
        assert seconds >= 0
        self.time += seconds


class FakeGateway:
    """Notes when it was told what. `breaks`: a command that the box cannot carry out."""

    def __init__(self, clock: VirtualClock, breaks: Words = (), takes: float = 0, wrong: Sequence[str] = ()) -> None:
        self.clock, self.breaks, self.takes, self.wrong = clock, breaks, takes, list(wrong)
        self.told: list[tuple[float, str]] = []

    def note(self, what: str) -> None:
        self.told.append((round(self.clock.time - 1000, 1), what))

    def do(self, words: Words) -> None:
        self.note(" ".join(words))
        self.clock.time += self.takes
        if words == self.breaks:
            raise AssertionError("no such thing")

    def start(self) -> None:
        self.note("start")
        if self.breaks == ("start",):
            raise OSError("no application")

    def verdict(self) -> list[str]:
        self.note("verdict")
        return self.wrong


# ---- drawing


def test_the_same_seed_is_the_same_schedule_and_another_one_is_not() -> None:
    assert draw(7) == draw(7)
    assert len({draw(seed) for seed in SEEDS}) == len(SEEDS)


def test_every_fault_is_drawn() -> None:
    assert {words for seed in SEEDS for words in words_of(draw(seed))} == {fault.words for fault in FAULTS}


def test_faults_that_stand_in_each_others_way_never_overlap() -> None:
    for seed in SEEDS:
        for one, other in itertools.combinations(draw(seed).strikes, 2):
            if one.fault.occupies & other.fault.occupies:
                assert not overlap(one, other), f"seed {seed}"


def test_several_faults_are_in_force_at_a_time_and_some_before_the_start() -> None:
    def most(schedule: Schedule) -> int:
        return max(sum(one.begin <= other.begin <= one.end for one in schedule.strikes) for other in schedule.strikes)

    assert max(most(draw(seed)) for seed in SEEDS) >= 6
    assert any(strike.begin == 0 for seed in SEEDS for strike in draw(seed).strikes)


@pytest.mark.parametrize("fault", FAULTS, ids=lambda fault: "-".join(fault.words))
def test_each_remedy_takes_its_fault_back(fault: object) -> None:
    assert isinstance(fault, type(FAULTS[0]))
    assert after(after([], *fault.words), *fault.remedy) == []


# ---- a file


def test_a_schedule_that_was_saved_is_the_same(tmp_path: pathlib.Path) -> None:
    for seed in SEEDS:
        draw(seed).save(tmp_path / "schedule")
        assert load(tmp_path / "schedule") == draw(seed)


@pytest.mark.parametrize(
    "text",
    [
        "",
        "[]",
        '{"seed": 1}',
        '{"seed": 1, "strikes": ["1 2 no such fault"]}',
        '{"seed": 1, "strikes": ["2 1 broker stop"]}',
        '{"seed": 1, "strikes": ["-1 1 broker stop"]}',
        '{"seed": 1, "strikes": ["1"]}',
        '{"seed": null, "strikes": []}',
    ],
)
def test_what_is_no_schedule_is_refused(tmp_path: pathlib.Path, text: str) -> None:
    (tmp_path / "schedule").write_text(text, encoding="utf-8")
    with pytest.raises(NoSchedule):
        load(tmp_path / "schedule")
    with pytest.raises(NoSchedule):
        load(tmp_path / "missing")


# ---- playing


def test_each_fault_comes_and_goes_at_its_time_and_the_verdict_comes_last() -> None:
    clock = VirtualClock()
    gateway = FakeGateway(clock)
    assert play(Schedule(1, (ETHERNET, BROKER, CABLE)), gateway, clock) == []
    assert gateway.told == [
        (0, "provider eth dead"),  # before the application starts
        (0, "start"),
        (10, "broker stop"),
        (20, "broker start"),
        (25, "cable out"),
        (26, "cable in"),
        (30, "provider eth back"),
        (30, "verdict"),
    ]


def test_a_slow_box_makes_orders_late_and_leaves_none_out() -> None:
    clock = VirtualClock()
    gateway = FakeGateway(clock, takes=7)
    play(Schedule(1, (BROKER, CABLE)), gateway, clock)
    assert gateway.told == [
        (0, "start"),
        (10, "broker stop"),
        (20, "broker start"),
        (27, "cable out"),
        (34, "cable in"),
        (41, "verdict"),
    ]


def test_what_is_wrong_is_handed_on() -> None:
    clock = VirtualClock()
    assert play(Schedule(1, (BROKER,)), FakeGateway(clock, wrong=["default route"]), clock) == ["default route"]


def test_a_box_that_cannot_do_it_is_named_and_nothing_is_judged() -> None:
    clock = VirtualClock()
    gateway = FakeGateway(clock, breaks=("broker", "start"))
    assert play(Schedule(1, (BROKER, CABLE)), gateway, clock) == ["the box: broker start: no such thing"]
    assert gateway.told[-1] == (20, "broker start")


def test_an_application_that_cannot_be_started_is_a_failure_of_the_box() -> None:
    clock = VirtualClock()
    gateway = FakeGateway(clock, breaks=("start",))
    assert play(Schedule(1, (BROKER,)), gateway, clock) == ["the box: start of the application: no application"]
    assert gateway.told == [(0, "start")]


# ---- a box that does not come up, and one that does not go down


class FakeBox:
    """`raises`: by what it does."""

    raises: dict[str, Exception] = {}

    def __init__(self, name: str) -> None:
        self.folder = pathlib.Path()

    def act(self, what: str) -> None:
        if what in self.raises:
            raise self.raises[what]

    def __enter__(self) -> FakeBox:
        self.act("up")
        return self

    def __exit__(self, *_: object) -> None:
        self.act("down")


@pytest.mark.parametrize("when", ["up", "gateway"])
@pytest.mark.parametrize(
    "error", [Failed("no room"), OSError("no room"), subprocess.TimeoutExpired("box up", 90)], ids=repr
)
def test_a_box_that_does_not_come_up_is_named_and_the_other_rounds_go_on(
    when: str, error: Exception, tmp_path: pathlib.Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    def gateway_on(box: FakeBox, *_: Any) -> FakeGateway:
        box.act("gateway")
        return FakeGateway(VirtualClock())

    (tmp_path / "log").mkdir()
    monkeypatch.chdir(tmp_path)
    monkeypatch.setattr(chaos, "Box", FakeBox)
    monkeypatch.setattr(chaos, "GatewayOnBox", gateway_on)
    monkeypatch.setattr(chaos, "play", lambda *_: [])
    monkeypatch.setattr(FakeBox, "raises", {when: error})
    rounds = Rounds(chaos.on_box, 1, tmp_path / "kept")
    rounds.run([Schedule(1, (BROKER,)), Schedule(2, (CABLE,))], lambda result: None)
    assert [result.faults for result in rounds.results] == [[f"the box: {error}"]] * 2
    assert "2 rounds failed, 2 of them for want of a box" in rounds.summary()


def test_no_round_is_begun_any_more_where_no_box_comes_up(tmp_path: pathlib.Path) -> None:
    played = itertools.count()

    def works_once(*_: Any) -> list[str]:
        return [] if next(played) == 5 else ["the box: no room"]

    rounds = Rounds(works_once, 1, tmp_path)
    rounds.run([draw(1)] * 200, lambda result: None)
    assert len(rounds.results) == 6 + HOPELESS


def test_a_box_that_does_not_go_down_hides_nothing(tmp_path: pathlib.Path, monkeypatch: pytest.MonkeyPatch) -> None:
    (tmp_path / "log").mkdir()
    monkeypatch.chdir(tmp_path)
    monkeypatch.setattr(chaos, "Box", FakeBox)
    monkeypatch.setattr(chaos, "GatewayOnBox", lambda *_: None)
    monkeypatch.setattr(chaos, "play", lambda *_: ["LED"])
    monkeypatch.setattr(FakeBox, "raises", {"down": Failed("busy")})
    rounds = Rounds(chaos.on_box, 1, tmp_path / "kept")
    rounds.run([Schedule(1, (BROKER,))], lambda result: None)
    assert [result.faults for result in rounds.results] == [["LED", "the box: busy"]]
    assert "1 rounds failed, 0 of them for want of a box" in rounds.summary()


# ---- rounds


def test_rounds_are_counted_and_what_failed_is_told(tmp_path: pathlib.Path) -> None:
    def fails_with_a_stopped_broker(schedule: Schedule, _number: int, _folder: pathlib.Path) -> list[str]:
        return ["LED"] if ("broker", "stop") in words_of(schedule) else []

    schedules = [draw(seed) for seed in range(60)]
    told: list[Result] = []
    rounds = Rounds(fails_with_a_stopped_broker, 3, tmp_path)
    rounds.run(schedules, told.append)
    assert {result.schedule for result in told} == set(schedules)
    failing = [schedule for schedule in schedules if ("broker", "stop") in words_of(schedule)]
    assert failing and {result.schedule for result in told if result.faults} == set(failing)
    drawn = sum(len(schedule.strikes) for schedule in schedules)
    assert rounds.summary().startswith(f"60 rounds, {drawn} faults of ")
    assert f" kinds, {len(failing)} rounds failed" in rounds.summary()
    for result in told:
        assert load(result.folder / "schedule") == result.schedule


def test_an_interrupted_run_begins_no_round_and_tells_none_that_was_under_way(tmp_path: pathlib.Path) -> None:
    begun = threading.Barrier(2)

    def interrupted(schedule: Schedule, _number: int, _folder: pathlib.Path) -> list[str]:
        if schedule.seed < 2:
            begun.wait(30)
        if schedule.seed == 0:
            raise KeyboardInterrupt
        comes_within(5, lambda: rounds.interrupted)
        return ["its box was interrupted, too"]

    rounds = Rounds(interrupted, 2, tmp_path)
    told: list[Result] = []
    with pytest.raises(KeyboardInterrupt):
        rounds.run(map(draw, range(9)), told.append)
    assert not told and not rounds.results
    assert len(list(tmp_path.iterdir())) == 2


def test_no_box_has_two_rounds_at_a_time(tmp_path: pathlib.Path) -> None:
    busy: set[int] = set()

    def play_alone(_schedule: Schedule, number: int, _folder: pathlib.Path) -> list[str]:
        assert number not in busy
        busy.add(number)
        busy.remove(number)
        return []

    rounds = Rounds(play_alone, 4, tmp_path)
    rounds.run([draw(1)] * 200, lambda result: None)
    assert len(rounds.results) == 200


# ---- shrinking


def containing(*matter: Words) -> Schedule:
    return next(found for found in map(draw, itertools.count()) if set(matter) <= set(words_of(found)))


@pytest.mark.parametrize("at_once", [1, 2, 5])
def test_what_matters_is_left_when_a_schedule_is_shrunk(at_once: int) -> None:
    matter = {("broker", "stop"), ("provider", "eth", "dead")}
    found = containing(*matter)
    assert len(found.strikes) > 4
    tried = 0

    def fail(schedules: Sequence[Schedule]) -> list[bool]:
        nonlocal tried
        assert 0 < len(schedules) <= at_once
        tried += len(schedules)
        return [matter <= set(words_of(schedule)) for schedule in schedules]

    small = shrink(found, fail, at_once)
    assert set(words_of(small)) == matter and len(small.strikes) == 2
    assert all(strike.end - strike.begin < 0.5 for strike in small.strikes)
    assert small.seed == found.seed
    assert tried < 80


def test_a_failure_of_the_box_is_not_the_fault_that_is_shrunk(tmp_path: pathlib.Path) -> None:
    faults: dict[tuple[Strike, ...], list[str]] = {
        (BROKER,): ["the box: busy"],
        (CABLE,): ["the box: busy", "LED"],
        (ETHERNET,): ["LED"],
    }
    rounds = Rounds(lambda schedule, _number, _folder: faults[schedule.strikes], 1, tmp_path)
    assert rounds.fail([Schedule(1, strikes) for strikes in faults]) == [False, True, True]


def test_a_fault_that_must_last_is_not_shortened_beyond_that() -> None:
    long = Strike(3, 28, ("broker", "stop"))

    def fail(schedules: Sequence[Schedule]) -> list[bool]:
        return [any(s.words == long.words and s.end - s.begin > 5 for s in one.strikes) for one in schedules]

    (left,) = shrink(Schedule(1, (ETHERNET, long, CABLE)), fail).strikes
    assert (left.begin, left.words) == (long.begin, long.words)
    assert 5 < left.end - left.begin <= 10


def test_a_schedule_that_fails_only_as_a_whole_stays_whole() -> None:
    found = next(schedule for schedule in map(draw, itertools.count()) if len(schedule.strikes) > 4)

    def fail(schedules: Sequence[Schedule]) -> list[bool]:
        return [len(schedule.strikes) == len(found.strikes) for schedule in schedules]

    assert words_of(shrink(found, fail)) == words_of(found)
