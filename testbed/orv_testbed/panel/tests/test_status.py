# SPDX-License-Identifier: Apache-2.0
"""What the page is told of a status, and of a hostile one."""
from __future__ import annotations

import json
from typing import Any

import pytest

from orv_testbed.panel import status
from orv_testbed.panel.tests.samples import ON_ETHERNET, as_read, changed, line

HOSTILE: list[Any] = [
    None,
    True,
    -1,
    1e999,
    float("nan"),
    10**400,
    "<img src=x>",
    [],
    [[]],
    [None, 3, "x"],
    {},
    {"state": {}},
]


def test_a_status_is_read_as_it_is() -> None:
    read = status.read(line(ON_ETHERNET))
    assert read["cloud"]["state"] == "connected" and read["cloud"]["since_monotonic"] == 820.0
    assert read["leds"] == {"green": "on", "yellow": "off"}
    assert read["network"]["default"] == "eth0"
    assert read["topics"][0]["retained"] is True


@pytest.mark.parametrize("told, shown", [(True, True), (False, False), (None, None), ("true", None), (1, None)])
def test_whether_a_message_is_retained_may_be_unknown(told: object, shown: bool | None) -> None:
    read = as_read(topics=[{"topic": "/orv/led/green", "payload": "On", "bytes": 2, "retained": told}])
    assert read["topics"][0]["retained"] is shown


@pytest.mark.parametrize("section", [key for key in ON_ETHERNET if key not in ("version", "monotonic")])
def test_whatever_stands_in_a_section_the_page_gets_the_same_form(section: str) -> None:
    def form(value: Any) -> Any:
        return {key: form(inner) for key, inner in value.items()} if isinstance(value, dict) else None

    whole = form(status.read(line(ON_ETHERNET)))
    for value in HOSTILE:
        read = status.read(line({**ON_ETHERNET, section: value}))
        assert form(read).keys() == whole.keys()
        assert form(read[section] if section in read else None) == (whole[section] if section in whole else None)
        json.dumps(read, allow_nan=False)


@pytest.mark.parametrize("value", HOSTILE)
def test_a_member_of_another_type_is_unknown(value: Any) -> None:
    read = as_read(cloud__state=value, leds__green=value, network__default_routes=value, topics=[{"topic": value}])
    assert all(
        isinstance(text, str) for text in (read["cloud"]["state"], read["leds"]["green"], read["topics"][0]["topic"])
    )
    json.dumps(read, allow_nan=False)


def test_a_status_without_a_default_route_says_so_and_one_that_cannot_tell_does_not() -> None:
    assert as_read(network__default_routes=[])["network"]["default"] == ""
    assert as_read(network__state="unknown")["network"]["default"] is None


def test_long_texts_and_many_topics_are_cut() -> None:
    large = {"topic": "t" * 10**6, "payload": "p" * 10**6, "bytes": 10**6, "retained": True}
    read = as_read(topics=[large] + [{"topic": "t", "payload": "p"}] * 10_000)
    assert len(read["topics"]) == status.MOST_TOPICS
    assert len(read["topics"][0]["payload"]) == status.LONGEST_TEXT


@pytest.mark.parametrize(
    "told",
    [b"", b"\n", b"<html>", b"\xff\xfe", b"[" * 100_000, b"3", b"null", line(changed(version=2)), line({"version": 1})],
)
def test_what_is_no_status_is_said_to_be_none(told: bytes) -> None:
    with pytest.raises(status.Unreadable):
        status.read(told)


@pytest.mark.parametrize(
    ("told", "shown"),
    [
        ("plain, Grüße, 网关", "plain, Grüße, 网关"),
        ("evil\u202egnp.exe", "evil\\u202egnp.exe"),
        ("\u2066\u200f\ufeff", "\\u2066\\u200f\\ufeff"),
        ("\x1b[31m\x00\x7f\x9b\n", "\\x1b[31m\\x00\\x7f\\x9b\\n"),
        ("\ud800", "\\ud800"),
    ],
)
def test_what_cannot_be_seen_is_shown_by_its_number(told: str, shown: str) -> None:
    read = as_read(topics=[{"topic": told, "payload": told}], cloud__reason=told)
    assert read["topics"][0]["topic"] == read["topics"][0]["payload"] == read["cloud"]["reason"] == shown
