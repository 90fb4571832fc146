# SPDX-License-Identifier: Apache-2.0
"""Recordings that are not what they should be."""
from __future__ import annotations

import json
import pathlib
from typing import Any

import pytest

from orv_testbed.scenarios import replay
from orv_testbed.scenarios.journal import quoted, words_of


def at(second: int, what: str, **fields: Any) -> str:
    return json.dumps({"time": f"2026-01-31T10:00:{second:02}.000Z", "monotonic": second, "what": what, **fields})


START = at(0, "start", default_route="eth0")
CONNECTED = at(1, "event", event="ETHERNET_CONNECTED", reported=True)


def refused(capsys: pytest.CaptureFixture[str], folder: pathlib.Path, content: bytes | str, *words: str) -> str:
    """What is said of a transcript that makes no scenario."""
    file = folder / "transcript.jsonl"
    file.write_bytes(content if isinstance(content, bytes) else content.encode())
    assert replay.main([str(file), *words]) == 1
    output = capsys.readouterr()
    assert output.out == ""
    return output.err.replace(str(folder) + "/", "")


@pytest.mark.parametrize(
    "content, said",
    [
        ("", "transcript.jsonl: no run begins in it"),
        (CONNECTED, "no run begins in it"),
        (f"{START}\n{CONNECTED[:30]}", "transcript.jsonl:2: not a whole JSON object"),
        (f"{START}\n[1]", "transcript.jsonl:2: not a JSON object"),
        (f"{START}\n" + "[" * 90_000, "transcript.jsonl:2: not a whole JSON object"),
        (f"{START}\n" + "x" * 200_000, "transcript.jsonl:2: 200000 bytes in a line"),
        (START.encode() + b"\n\xff\xfe", "transcript.jsonl:2: bytes that are no text"),
        (f"{START}\n" + '{"what":"event"}', 'transcript.jsonl:2: "time" is missing'),
        (
            f"{START}\n" + at(1, "event", event=["FAILURE"], reported=True),
            'transcript.jsonl:2: "event" is missing, or is of',
        ),
        (
            f"{START}\n" + at(1, "event", event="x\nquit", reported=True),
            "transcript.jsonl:2: no event of the library: 'x\\nquit'",
        ),
        (f"{START}\n" + at(1, "action", action="EXPLODE"), "transcript.jsonl:2: no action of the library"),
        (f"{START}\n" + CONNECTED.replace("2026-01-31", "2026-99-31"), "transcript.jsonl:2: no time: '2026-99-31"),
        (f"{at(5, 'start')}\n{CONNECTED}", "transcript.jsonl:2: earlier than the line before"),
        (f"{START}\n" + at(1, "ready", lost_before=3), "transcript.jsonl:2: lines are missing before it"),
    ],
)
def test_a_broken_transcript_is_refused_with_line_and_remedy(
    capsys: pytest.CaptureFixture[str], tmp_path: pathlib.Path, content: bytes | str, said: str
) -> None:
    told = refused(capsys, tmp_path, content)
    assert said in told and len(told) < 400
    assert any(remedy in told for remedy in ("take", "taken out", "cut", "newer version")), told


def test_what_is_no_log_and_no_wire_is_refused(capsys: pytest.CaptureFixture[str], tmp_path: pathlib.Path) -> None:
    other = tmp_path / "other"
    other.write_text("Jan 31 10:00:00 gateway kernel: eth0: link up\n", encoding="ascii")
    assert "other: no line of a log" in refused(capsys, tmp_path, START, "--log", str(other))
    assert "other:1: not a whole JSON object" in refused(capsys, tmp_path, START, "--wire", str(other))
    assert "absent: No such file" in refused(capsys, tmp_path, START, "--wire", str(tmp_path / "absent"))


def test_a_remark_and_a_payload_from_outside_add_no_command(
    capsys: pytest.CaptureFixture[str], tmp_path: pathlib.Path
) -> None:
    transcript, wire = tmp_path / "transcript.jsonl", tmp_path / "wire.jsonl"
    lines = [START, CONNECTED, at(2, "cloud_lost", reason="gone\nquit"), at(4, "end")]
    transcript.write_text("\n".join(lines), encoding="ascii")
    payload = "UP' \"\nquit\x00\N{SNOWMAN}"
    heard = {"tst": "2026-01-31T10:00:03.000000Z+0000", "topic": "/orv/panel/guid", "retain": 0, "payload": payload}
    wire.write_text(json.dumps(heard), encoding="ascii")
    assert replay.main([str(transcript), "--wire", str(wire), "--name", "a larm"]) == 0
    scenario = capsys.readouterr().out
    assert [words_of(line)[0] for line in scenario.splitlines() if words_of(line)] == [
        "init",
        "start",
        "event",
        "publish",
    ]


def test_a_name_and_a_time_from_outside_add_no_command(
    capsys: pytest.CaptureFixture[str], tmp_path: pathlib.Path
) -> None:
    transcript, wire = tmp_path / "transcript.jsonl", tmp_path / "wire.jsonl"
    lines = [START.replace("31T10", "31\\n10"), CONNECTED, at(4, "end")]
    transcript.write_text("\n".join(lines), encoding="ascii")
    topic = "/orv/apps_control/features/x\nquit\n#/available"
    heard = {"tst": "2026-01-31T10:00:00.000000Z+0000", "topic": topic, "retain": 0, "payload": "true"}
    wire.write_text(json.dumps(heard), encoding="ascii")
    assert replay.main([str(transcript), "--wire", str(wire)]) == 0
    scenario = capsys.readouterr().out
    assert [words_of(line)[0] for line in scenario.splitlines() if words_of(line)] == ["init", "start", "event"]


@pytest.mark.parametrize("what", ["log", "message", "expect", "say", "begin", "_init__"])
def test_what_a_transcript_tells_beyond_gateway_app_is_a_remark(
    capsys: pytest.CaptureFixture[str], tmp_path: pathlib.Path, what: str
) -> None:
    transcript = tmp_path / "transcript.jsonl"
    transcript.write_text("\n".join([START, CONNECTED, at(2, what), at(4, "end")]), encoding="ascii")
    assert replay.main([str(transcript), "--name", "alarm"]) == 0
    scenario = capsys.readouterr().out
    assert [words_of(line)[0] for line in scenario.splitlines() if words_of(line)] == ["init", "start", "event"]


def test_a_payload_that_is_empty_or_no_text_is_no_fault_of_a_recording(
    capsys: pytest.CaptureFixture[str], tmp_path: pathlib.Path
) -> None:
    transcript, wire = tmp_path / "transcript.jsonl", tmp_path / "wire.jsonl"
    transcript.write_text("\n".join([START, CONNECTED, at(4, "end")]), encoding="ascii")
    heard = {"tst": "2026-01-31T10:00:03.000000Z+0000", "topic": "/orv/panel/guid", "retain": 0}
    payloads = [None, [0, 255]]  # as mosquitto_sub writes them
    wire.write_text("\n".join(json.dumps({**heard, "payload": payload}) for payload in payloads), encoding="ascii")
    assert replay.main([str(transcript), "--wire", str(wire), "--name", "alarm"]) == 0
    scenario = capsys.readouterr().out
    assert [words_of(line) for line in scenario.splitlines() if words_of(line)][-1] == [
        "publish",
        "/orv/panel/guid",
        "",
    ]


def log_line(tenths: int, text: str) -> str:
    return f"2026-01-31T10:00:{tenths // 10:02}.{tenths % 10}00Z {text}"


def replayed(capsys: pytest.CaptureFixture[str], folder: pathlib.Path, *log: str) -> list[str]:
    """The commands of a run in which the cloud is lost on Ethernet after 4 s; what the log says comes from 4.1 s on."""
    events = ["ETHERNET_CONNECTED", "ETHERNET_IP_GAINED", "CLOUD_CONNECTED"]
    lines = [START, *(at(1, "event", event=event, reported=True) for event in events)]
    lines += [at(3, "event", event="CELLULAR_IP_GAINED", reported=True)]
    lines += [at(4, "event", event="CLOUD_DISCONNECTED", reported=True), at(59, "end")]
    (folder / "transcript.jsonl").write_text("\n".join(lines), encoding="ascii")
    before = log_line(20, "debug [OrvRoute] Tick:  Cloud connected with Ethernet interface")
    later = [log_line(41 + number, line) for number, line in enumerate(log)]
    (folder / "app.log").write_text("\n".join([before, *later]), encoding="ascii")
    status = replay.main([str(folder / "transcript.jsonl"), "--log", str(folder / "app.log"), "--check"])
    output = capsys.readouterr()
    assert status == 0 and "in the run and in virtual time" in output.err, output
    commands = [" ".join(words_of(line)) for line in output.out.splitlines() if words_of(line)]
    return commands[commands.index("event CLOUD_DISCONNECTED") + 1 :]


LOST = "debug [OrvRoute] Tick: eth cloud lost, start delay to cell"
STARTED = "debug [OrvRoute] Tick: Started Poke to cell if wwan0"


def expected(line: str) -> str:
    return f"expect state {line.rpartition('Tick: ')[2].rpartition('] ')[2]} within 60s"


@pytest.mark.parametrize("code, fate", [("7", "refused"), ("60", "refused"), ("28", "dead")])
def test_a_path_fails_as_the_log_says(
    capsys: pytest.CaptureFixture[str], tmp_path: pathlib.Path, code: str, fate: str
) -> None:
    aborted = "debug [OrvRoute] Tick: poke cell aborted"
    commands = replayed(capsys, tmp_path, LOST, STARTED, f"error [OrvRoute] poke error {code}", aborted)
    assert commands == [expected(LOST), f"cellular {fate}", expected(STARTED), expected(aborted)]


def test_a_frozen_connection_manager_is_frozen_again(
    capsys: pytest.CaptureFixture[str], tmp_path: pathlib.Path
) -> None:
    proven = "debug [OrvRoute] Tick: poke success, route to Cell"
    failed = "error [OrvRoute] Failed to set wwan0 as top interface, restarting SM"
    commands = replayed(capsys, tmp_path, LOST, STARTED, proven, failed)
    assert commands[2:] == ["connman frozen", expected(proven), expected(failed), "connman thawed"]


def test_a_broker_is_lost_and_comes_back(capsys: pytest.CaptureFixture[str], tmp_path: pathlib.Path) -> None:
    session, route = ("[QueueOwner] ORV_Stack-gateway-app-1-1", "[QueueOwner] OrvRoute-gateway-app-1-1")
    words = "lost the connection to 127.0.0.1:1883: the broker has closed it; reconnecting"
    again = "connected again to 127.0.0.1:1883 after 3.0 s"
    log = [f"warning {name}: {words}" for name in (session, route)] + [
        f"info {name}: {again}" for name in (session, route)
    ]
    commands = replayed(capsys, tmp_path, LOST, *log, STARTED)
    assert commands == [expected(LOST), "broker lost", "broker back", "wait 300ms", "cellular dead", expected(STARTED)]


@pytest.mark.parametrize("text", ["", "a b", 'a"b', "a\\b", "#", "\n", "\N{SNOWMAN}"])
def test_a_text_is_one_word_of_a_scenario(text: str) -> None:
    words = words_of(f"note {quoted(text)}")
    assert len(words) == 2
