# SPDX-License-Identifier: Apache-2.0
"""What chaos demands of a gateway that is well again: each broken promise is found, and none where all are kept."""
from __future__ import annotations

import copy
import os
import select
import socket
import threading
from typing import Any

import pytest

from orv_testbed.chaos import demands
from orv_testbed.families import Families
from orv_testbed.layout import CELLULAR, ETHERNET

PID = 4711
STATUS: dict[str, Any] = {
    "version": 1,
    "program": "gateway-app",
    "pid": PID,
    "running": True,
    "session_ready": True,
    "written_monotonic": 95.0,
    "cloud": {
        "state": "connected",
        "path": "ethernet",
        "interface": "eth0",
        "source": "10.11.0.179",
        "last_failure": "",
    },
    "route": {
        "path": "ethernet",
        "interface": "eth0",
        "expected": "Ethernet",
        "ethernet_on_probation": False,
        "no_fail_over": "",
    },
    "counters": {
        "fail_overs": 1,
        "returns": 1,
        "cloud_losses": 1,
        "seconds_on_ethernet": 40.0,
        "seconds_on_cellular": 20.0,
    },
}
MOVES = [("eth0", "wwan0"), ("wwan0", "eth0")]


def event(name: str, reported: bool = True) -> dict[str, Any]:
    return {"what": "event", "event": name, "reported": reported}


COURSE = [
    {"what": "start"},
    event("ETHERNET_CONNECTED", reported=False),  # before there is a session
    event("ETHERNET_CONNECTED"),
    event("CLOUD_DISCONNECTED"),
    {"what": "cloud_connected"},
    event("CLOUD_CONNECTED"),
    {"what": "cloud_lost"},
    event("CLOUD_DISCONNECTED"),
    event("ETHERNET_DISCONNECTED"),
    event("ETHERNET_CONNECTED"),
    {"what": "cloud_connected"},
    event("CLOUD_CONNECTED"),
    {"what": "end"},
]


def transcript(course: list[dict[str, Any]]) -> list[dict[str, Any]]:
    return [{"monotonic": 30.0 + number, **entry} for number, entry in enumerate(course)]


def changed(path: str, value: object) -> dict[str, Any]:
    status = copy.deepcopy(STATUS)
    place = status
    *folders, last = path.split(".")
    for folder in folders:
        place = place[folder]
    place[last] = value
    return status


def asked(status: dict[str, Any], now: float = 100.0) -> list[str]:
    return demands.status_file(status, "eth0", "10.11.0.179", False, PID, now)


def test_a_status_file_that_is_right_is_right() -> None:
    assert asked(STATUS) == []
    assert demands.counters(STATUS, transcript(COURSE), MOVES) == []


@pytest.mark.parametrize(
    "path, value",
    [
        ("version", 2),
        ("pid", 1),
        ("running", False),
        ("session_ready", False),
        ("cloud.state", "disconnected"),
        ("cloud.interface", "wwan0"),
        ("cloud.source", "10.12.0.50"),
        ("cloud.last_failure", "no address"),
        ("route.path", "cellular"),
        ("route.interface", "wwan0"),
        ("route.expected", ""),
        ("route.ethernet_on_probation", True),
        ("route.no_fail_over", "Cellular has no address"),
    ],
)
def test_each_field_of_the_status_file_is_looked_at(path: str, value: object) -> None:
    (fault,) = asked(changed(path, value))
    assert path in fault


def test_a_status_file_that_is_not_written_any_more_is_found() -> None:
    assert asked(STATUS, now=109.0) == []
    assert "written 20.0 s ago" in asked(STATUS, now=115.0)[0]
    assert asked(STATUS, now=90.0)  # of the time to come
    assert len(asked({})) > 10


@pytest.mark.parametrize(
    "path, value",
    [
        ("counters.fail_overs", 2),
        ("counters.returns", 0),
        ("counters.cloud_losses", 2),
        ("counters.seconds_on_cellular", 30.0),
    ],
)
def test_counters_agree_with_log_and_transcript(path: str, value: object) -> None:
    assert len(demands.counters(changed(path, value), transcript(COURSE), MOVES)) == 1


def test_events_in_a_possible_order_are_right() -> None:
    assert demands.impossible_events(transcript(COURSE)) == []


@pytest.mark.parametrize(
    "at, more, what",
    [
        (3, event("ETHERNET_CONNECTED"), "ETHERNET_CONNECTED was told twice"),
        (6, event("CLOUD_CONNECTED"), "CLOUD_CONNECTED was told twice"),
        (6, {"what": "cloud_connected"}, "cloud_connected twice"),
        (4, {"what": "cloud_lost"}, "cloud_lost twice"),
        (5, {"what": "start"}, "one start"),
        (5, {"what": "signal", "monotonic": 29.0}, "goes back"),
    ],
)
def test_an_impossible_order_of_events_is_found(at: int, more: dict[str, Any], what: str) -> None:
    faults = demands.impossible_events(transcript([*COURSE[:at], more, *COURSE[at:]]))
    assert what in faults[0]


def test_a_warning_that_no_fault_explains_is_found() -> None:
    log = "2026-01-01T00:00:00.000Z info [Routes] cannot say\n2026-01-01T00:00:01.000Z warning [Routes] cannot add it\n"
    assert demands.complaints("routes", log, ("cannot add",)) == []
    assert demands.complaints("routes", log, ("message bus",)) == [
        "an unexpected word of routes: [Routes] cannot add it"
    ]


# ---- connections

LINE = '0 0 127.0.0.1:{port} 127.0.0.1:1883 users:(("{name}",pid={pid},fd=9))\n'
BOTH = {PID: "gateway-app", 12: "witness"}


def sockets(*pids: int) -> str:
    return "".join(LINE.format(port=40000 + number, name="any", pid=pid) for number, pid in enumerate(pids))


@pytest.mark.parametrize(
    "pids, right",
    [
        ((PID, PID, 12), True),
        ((PID, 12), False),
        ((PID, PID, PID, 12), False),
        ((PID, PID), False),
        ((PID, PID, 12, 13), False),
    ],
)
def test_each_client_has_one_connection(pids: tuple[int, ...], right: bool) -> None:
    assert (demands.wrong_connections(sockets(*pids), BOTH) == []) == right


# ---- source routes

OWN = {"eth0": "10.11.0.179", "wwan0": "10.12.0.50"}


def rules() -> list[dict[str, Any]]:
    bound = [
        {
            "priority": demands.TABLES[name],
            "src": "all",
            "oif": name,
            "table": str(demands.TABLES[name]),
            "protocol": "111",
        }
        for name in OWN
    ]
    own = [
        {"priority": 32768, "src": address, "table": str(demands.TABLES[name]), "protocol": "111"}
        for name, address in OWN.items()
    ]
    return [{"priority": 0, "src": "all", "table": "local", "protocol": "kernel"}, *bound, *own]


def table(net: str, name: str) -> list[dict[str, Any]]:
    return [
        {"dst": "default", "gateway": f"{net}.1", "dev": name, "prefsrc": OWN[name]},
        {"dst": f"{net}.0/24", "dev": name, "prefsrc": OWN[name]},
    ]


def tables() -> dict[str, list[dict[str, Any]]]:
    return {side.interface: table(side.net, side.interface) for side in (ETHERNET, CELLULAR)}


def test_source_routes_that_are_right_are_right() -> None:
    assert demands.wrong_source_routes(OWN, rules(), tables()) == []


def test_each_missing_surplus_or_stale_source_route_is_found() -> None:
    for number in range(1, 5):
        without = rules()
        del without[number]
        assert demands.wrong_source_routes(OWN, without, tables())
        assert demands.wrong_source_routes(OWN, [*rules(), rules()[number]], tables())
    for name in OWN:
        for number in range(2):
            fewer = tables()
            del fewer[name][number]
            assert len(demands.wrong_source_routes(OWN, rules(), fewer)) == 1
    stale = {**OWN, "eth0": "10.11.0.180"}
    assert len(demands.wrong_source_routes(stale, rules(), tables())) == 2


def test_ipv6_has_rules_where_a_provider_has_it_and_nowhere_else() -> None:
    table_of_ethernet = str(demands.TABLES["eth0"])
    bound: dict[str, Any] = {
        "priority": 1011,
        "src": "all",
        "oif": "eth0",
        "table": table_of_ethernet,
        "protocol": "111",
    }
    prefix: dict[str, Any] = {
        "priority": 1011,
        "src": "2001:db8:11:1::",
        "srclen": 64,
        "table": table_of_ethernet,
        "protocol": "111",
    }
    foreign: dict[str, Any] = {**prefix, "src": "2001:db8:12:1::"}
    some_wrong: list[list[dict[str, Any]]] = [[], [bound], [prefix], [bound, bound, prefix], [bound, foreign]]
    with_ipv6, without = Families(eth="46"), Families()
    assert demands.wrong_ipv6_source_routes(with_ipv6, [bound, prefix]) == []
    assert demands.wrong_ipv6_source_routes(without, []) == []
    for wrong in some_wrong:
        assert len(demands.wrong_ipv6_source_routes(with_ipv6, wrong)) == 1
    assert demands.wrong_ipv6_source_routes(without, [bound, prefix])


# ---- what a process holds


def test_descriptors_threads_and_memory_are_counted() -> None:
    before = demands.holdings(os.getpid())
    opened = [*os.pipe(), os.pidfd_open(os.getpid())]
    ours, theirs = socket.socketpair()
    go_on = threading.Event()
    thread = threading.Thread(target=go_on.wait)
    thread.start()
    poll = select.epoll()
    poll.register(opened[0], select.EPOLLIN)
    try:
        now = demands.holdings(os.getpid())
    finally:
        go_on.set()
        thread.join()
        poll.close()
        ours.close()
        theirs.close()
        for one in opened:
            os.close(one)
    more = now - before
    more.pop("memory", None)
    assert more == {"files": 2, "sockets": 2, "pidfd": 1, "eventpoll": 1, "epoll registrations": 1, "threads": 1}
    assert before["memory"] > 1000


def test_what_a_program_holds_beyond_its_most_is_found() -> None:
    most = demands.MOST["gateway-app"]
    assert demands.held_beyond("gateway-app", most) == []
    for what in most:
        assert len(demands.held_beyond("gateway-app", {**most, what: most[what] + 1})) == 1
    assert len(demands.held_beyond("orv-source-routes", {"inotify": 1})) == 1
    with_clock = {**most, "files": most["files"] + 2}
    assert demands.held_beyond("gateway-app", with_clock)
    assert demands.held_beyond("gateway-app", with_clock, clock=True) == []
