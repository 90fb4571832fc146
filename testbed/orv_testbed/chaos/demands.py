# SPDX-License-Identifier: Apache-2.0
"""What the gateway's programs promise about themselves, once everything is well again; see docs/testing.md."""
from __future__ import annotations

import collections
import ipaddress
import os
import pathlib
import re
from collections.abc import Iterable, Mapping, Sequence
from typing import Any

from orv_testbed.families import Families
from orv_testbed.layout import SIDES, Side

PATHS = {"eth0": "ethernet", "wwan0": "cellular"}
WRITTEN_EVERY = 10.0  # seconds, which the status file's reader may rely on
WRITES_LATE = 5.0  # seconds, on a busy machine
TABLES = {"eth0": 1011, "wwan0": 1012}
OURS = "111"  # the routing protocol that marks the entries of orv-source-routes
BY_ADDRESS = (
    32768  # the place of a rule for what has the interface's address; that for what is bound has the table's number
)
BROKER_PORT = 1883
CONNECTIONS = {"gateway-app": 2, "witness": 1}  # the library has two clients, which are one program to the kernel
OPPOSITES = (
    ("ETHERNET_CONNECTED", "ETHERNET_DISCONNECTED"),
    ("ETHERNET_IP_GAINED", "ETHERNET_IP_LOST"),
    ("CELLULAR_CONNECTED", "CELLULAR_DISCONNECTED"),
    ("CELLULAR_IP_GAINED", "CELLULAR_IP_LOST"),
    ("CLOUD_CONNECTED", "CLOUD_DISCONNECTED"),
)


def differing(what: str, found: Mapping[str, Any], wanted: Mapping[str, Any]) -> list[str]:
    return [
        f"{what}: {name} is {found.get(name)!r}, but it must be {value!r}"
        for name, value in wanted.items()
        if found.get(name) != value
    ]


# ---- the status file


def flat(tree: Mapping[str, Any], prefix: str = "") -> dict[str, Any]:
    found: dict[str, Any] = {}
    for name, value in tree.items():
        found |= flat(value, f"{prefix}{name}.") if isinstance(value, dict) else {f"{prefix}{name}": value}
    return found


def status_file(
    status: Mapping[str, Any], interface: str, address: str, probation: bool, pid: int, now: float
) -> list[str]:
    """`address`: the interface's own, over which the cloud is connected. `now`: of CLOCK_MONOTONIC."""
    found = flat(status)
    faults = differing(
        "status.json",
        found,
        {
            "version": 1,
            "program": "gateway-app",
            "pid": pid,
            "running": True,
            "session_ready": True,
            "cloud.state": "connected",
            "cloud.path": PATHS[interface],
            "cloud.interface": interface,
            "cloud.source": address,
            "cloud.last_failure": "",
            "route.path": PATHS[interface],
            "route.interface": interface,
            "route.expected": PATHS[interface].capitalize(),
            "route.ethernet_on_probation": probation,
            "route.no_fail_over": "",
        },
    )
    age = now - found.get("written_monotonic", 0.0)
    if not -1 <= age <= WRITTEN_EVERY + WRITES_LATE:
        faults.append(f"status.json: it was written {age:.1f} s ago")
    return faults


def counters(
    status: Mapping[str, Any], transcript: Sequence[Mapping[str, Any]], moves: Sequence[tuple[str, str]]
) -> list[str]:
    """`moves`: from which interface to which, by the log."""
    found = flat(status)
    losses = sum(entry["what"] == "cloud_lost" for entry in transcript)
    faults = differing(
        "status.json",
        found,
        {
            "counters.fail_overs": sum(to == "wwan0" for _, to in moves),
            "counters.returns": sum(to == "eth0" for _, to in moves),
        },
    )
    if not 0 <= found.get("counters.cloud_losses", -1) <= losses:
        faults.append(f"status.json: {found.get('counters.cloud_losses')} losses of the cloud; there were {losses}")
    begun = [entry["monotonic"] for entry in transcript if entry["what"] == "start"]
    spent = found.get("counters.seconds_on_ethernet", -1) + found.get("counters.seconds_on_cellular", -1)
    if begun and not 0 <= spent <= found.get("written_monotonic", 0) - begun[0] + 1:
        faults.append(f"status.json: {spent} s on both interfaces, more than it has run")
    return faults


# ---- events


def impossible_events(transcript: Sequence[Mapping[str, Any]]) -> list[str]:
    """What the library was told is told again only after its opposite, and time goes forward."""
    faults, last = [], dict[tuple[str, str], str]()
    told = [entry["event"] for entry in transcript if entry["what"] == "event" and entry["reported"]]
    for event in told:
        for pair in OPPOSITES:
            if event in pair:
                if last.get(pair) == event:
                    faults.append(f"{event} was told twice in a row")
                last[pair] = event
    connected = False
    for entry in transcript:
        if entry["what"] in ("cloud_connected", "cloud_lost"):
            if connected == (entry["what"] == "cloud_connected"):
                faults.append(f"{entry['what']} twice in a row, at {entry['monotonic']}")
            connected = not connected
    times = [entry["monotonic"] for entry in transcript]
    if times != sorted(times):
        faults.append("the transcript's monotonic time goes back")
    if [entry["what"] for entry in transcript].count("start") != 1 or transcript[0]["what"] != "start":
        faults.append("the transcript does not begin with one start")
    return faults


# ---- the log of a program


def complaints(program: str, log: str, explained: Sequence[str]) -> list[str]:
    """Warnings and errors that no fault explains."""
    lines = [words for line in log.splitlines() if len(words := line.split(" ", 2)) == 3]
    said = [words[2] for words in lines if words[1] in ("warning", "error", "critical")]
    return [f"an unexpected word of {program}: {line}" for line in said if not any(text in line for text in explained)]


# ---- connections to the gateway's broker


def wrong_connections(sockets: str, programs: Mapping[int, str]) -> list[str]:
    """`programs`: those that have clients of the broker, by process."""
    found = collections.Counter(programs.get(int(pid), f"process {pid}") for pid in re.findall(r"pid=(\d+)", sockets))
    wanted = {name: CONNECTIONS[name] for name in programs.values()}
    return [] if found == wanted else [f"connections to the broker: {dict(found)}, but there must be {wanted}"]


# ---- entries of orv-source-routes


def rule_words(rule: Mapping[str, Any]) -> str:
    source = f"{rule['src']}/{rule['srclen']}" if "srclen" in rule else rule.get("src", "all")
    return f"{rule['priority']}: from {source} oif {rule.get('oif', '-')} lookup {rule.get('table')}"


def route_words(route: Mapping[str, Any]) -> str:
    return f"{route['dst']} via {route.get('gateway', '-')} dev {route.get('dev')} from {route.get('prefsrc', '-')}"


def router_of(side: Side) -> str:
    return f"{side.net}.1"


def wanted_rules(addresses: Mapping[str, str]) -> list[str]:
    """For IPv4; `addresses` by interface."""
    bound = [f"{TABLES[name]}: from all oif {name} lookup {TABLES[name]}" for name in addresses]
    return sorted(bound + [f"{BY_ADDRESS}: from {own} oif - lookup {TABLES[name]}" for name, own in addresses.items()])


def wanted_routes(side: Side, address: str) -> list[str]:
    ways = (f"{side.net}.0/24 via -", f"default via {router_of(side)}")
    return sorted(f"{way} dev {side.interface} from {address}" for way in ways)


def wrong_source_routes(
    addresses: Mapping[str, str], rules: Iterable[Mapping[str, Any]], tables: Mapping[str, Iterable[Mapping[str, Any]]]
) -> list[str]:
    """What orv-source-routes has made for IPv4: `rules` as `ip -json rule` prints them, `tables` by interface."""
    found = sorted(rule_words(rule) for rule in rules if str(rule.get("protocol")) == OURS)
    faults = [] if found == wanted_rules(addresses) else [f"rules: {found}, but they must be {wanted_rules(addresses)}"]
    for side in SIDES.values():
        own = addresses.get(side.interface)
        there = sorted(map(route_words, tables[side.interface]))
        wanted = wanted_routes(side, own) if own else []
        if there != wanted:
            faults.append(f"table {TABLES[side.interface]}: {there}, but it must be {wanted}")
    return faults


def wrong_ipv6_source_routes(families: Families, rules: Iterable[Mapping[str, Any]]) -> list[str]:
    """For each interface with IPv6 one rule for what is bound and one for each prefix; none otherwise."""
    found = [rule for rule in rules if str(rule.get("protocol")) == OURS]
    faults = []
    for side in SIDES.values():
        table = str(TABLES[side.interface])
        own = [rule for rule in found if rule.get("table") == table]
        bound = [rule for rule in own if rule.get("oif") == side.interface]
        prefixes = [rule["src"] for rule in own if rule.get("src", "all") != "all"]
        network = ipaddress.ip_network(f"{side.net_6}::/48")
        right = len(bound) == 1 and len(prefixes) >= 1 and all(ipaddress.ip_address(one) in network for one in prefixes)
        if not (right if "6" in families.at(side) else not own):
            faults.append(f"IPv6 rules for table {table}: {[rule_words(rule) for rule in own]}")
    return faults


# ---- what a process holds

SHADOW = 10**9  # kB of address space: it is watched by a sanitizer, and its memory says nothing
# Of a settled gateway: the same after the four schedules that were compared. Memory in kB, with a fifth more than was seen.
MOST = {
    "gateway-app": {
        "files": 5,
        "sockets": 13,
        "eventpoll": 1,
        "eventfd": 7,
        "timerfd": 14,
        "signalfd": 1,
        "inotify": 1,
        "inotify watches": 1,
        "epoll registrations": 22,
        "threads": 4,
        "memory": 21_000,
    },
    "orv-source-routes": {"files": 3, "sockets": 3, "eventfd": 2, "signalfd": 1, "threads": 2, "memory": 9_000},
}
FAKETIME = {"files": 2}  # what a clock of its own adds


def kind_of(target: str) -> str:
    """Of what a descriptor leads to, as /proc names it."""
    anonymous = re.fullmatch(r"anon_inode:\[?(\w+)\]?", target)
    return anonymous.group(1) if anonymous else "sockets" if target.startswith("socket:") else "files"


def holdings(pid: int) -> collections.Counter[str]:
    """Raises OSError when it has ended."""
    here = pathlib.Path(f"/proc/{pid}")
    found: collections.Counter[str] = collections.Counter()
    for one in (here / "fd").iterdir():
        try:
            found[kind_of(os.readlink(one))] += 1
            more = (here / "fdinfo" / one.name).read_text(encoding="ascii", errors="replace")
        except FileNotFoundError:
            continue  # closed meanwhile
        found["inotify watches"] += len(re.findall(r"(?m)^inotify ", more))
        found["epoll registrations"] += len(re.findall(r"(?m)^tfd:", more))
    found["threads"] = len(list((here / "task").iterdir()))
    status = (here / "status").read_text(encoding="ascii", errors="replace")
    size, resident = (int(re.findall(rf"(?m)^{name}:\s+(\d+) kB", status)[0]) for name in ("VmSize", "VmRSS"))
    found["memory"] = resident if size < SHADOW else 0
    return +found


def held_beyond(program: str, found: Mapping[str, int], clock: bool = False) -> list[str]:
    """`clock`: the program has one of its own, which libfaketime gives it."""
    most = collections.Counter(MOST[program]) + collections.Counter(FAKETIME if clock else {})
    return [
        f"{program} holds {number} {what}, but at most {most[what]}"
        for what, number in found.items()
        if number > most[what]
    ]
