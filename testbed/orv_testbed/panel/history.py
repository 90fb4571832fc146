# SPDX-License-Identifier: Apache-2.0
"""What a row of statuses tells together: the lanes of the timeline, and the decisions in words."""
from __future__ import annotations

from typing import Any

from orv_testbed.topics import INHIBIT_DNS

Status = dict[str, Any]

WORDS = {"ethernet": "Ethernet", "cellular": "Cellular", "other": "another way", "none": "none"}
LAMPS = {"on": "On", "off": "Off", "blink": "Blink"}


def path_name(path: str) -> str:
    return WORDS.get(path, path or "unknown")


def lanes(status: Status) -> dict[str, str]:
    """The lanes of the demo's picture that a status tells of; an empty value is not known."""
    cloud = status["cloud"]
    state = "none" if cloud["state"] in ("disconnected", "disabled") else ""
    dns = [entry["payload"] for entry in status["topics"] if entry["topic"] == INHIBIT_DNS]
    default = status["network"]["default"]
    return {
        "green LED": LAMPS.get(status["leds"]["green"], ""),
        "yellow LED": LAMPS.get(status["leds"]["yellow"], ""),
        "DNS topic": dns[-1] if dns else "",
        "default route": "" if default is None else default or "none",
        "cloud connection": path_name(cloud["path"]) if cloud["state"] == "connected" else state,
    }


def seconds(value: float) -> str:
    return f"{value:.1f} s" if value < 60 else f"{int(value // 60)} min {int(value % 60)} s"


def in_words(before: Status | None, status: Status) -> list[str]:
    """What has been decided or has happened between two statuses; a first one tells of no change but the last move."""
    return move(before, status) + cloud(before, status) + pokes(before, status) + parts(before, status)


def move(before: Status | None, status: Status) -> list[str]:
    last = status["application"]["last_move"]
    if last is None or (before and before["application"]["last_move"] == last):
        return []
    fresh = [
        poke
        for poke in status["application"]["pokes"]
        if poke["path"] == last["to"] and poke["result"] == "succeeded" and poke["at_most_s"] is not None
    ]
    words = f"Route moved from {path_name(last['from'])} to {path_name(last['to'])}: {last['reason']}"
    if last["took_s"] is not None:
        words += f"; {seconds(last['took_s'])} " + ("since the loss" if last["to"] == "cellular" else "for the switch")
    if fresh and last["reason"].find("poke") >= 0:
        words += f", poke and switch {fresh[0]['at_most_s']:.1f} s at most"
    return [words]


def cloud(before: Status | None, status: Status) -> list[str]:
    now = status["cloud"]
    was = before["cloud"] if before else None
    if was is None or (was["state"], was["path"]) == (now["state"], now["path"]):
        return []
    reason = f": {now['reason']}" if now["reason"] else ""
    if now["state"] == "connected":
        return [f"Cloud connected over {path_name(now['path'])}"]
    if was["state"] == "connected" and now["state"] == "disconnected":
        return [f"Cloud lost on {path_name(was['path'])}{reason}"]
    if now["state"] == "unknown":
        return [f"Cloud unknown: {now['basis']}"]
    return []


def pokes(before: Status | None, status: Status) -> list[str]:
    if before is None:
        return []
    fresh = [poke for poke in status["application"]["pokes"] if poke not in before["application"]["pokes"]]
    return [
        f"Poke over {path_name(poke['path'])} failed" + (f": {poke['text']}" if poke["text"] else "")
        for poke in reversed(fresh)
        if poke["result"] == "failed"
    ]


def parts(before: Status | None, status: Status) -> list[str]:
    if before is None:
        return []
    words = []
    for part, name in (("application", "Application"), ("broker", "Broker"), ("connman", "ConnMan")):
        was, now = before[part]["state"], status[part]["state"]
        if was != now:
            reason = status[part]["reason"]
            words.append(f"{name} {now}" + (f": {reason}" if reason else ""))
    links = {entry["name"]: entry for entry in before["network"]["interfaces"]}
    for entry in status["network"]["interfaces"]:
        was = links.get(entry["name"], entry)
        for key, yes, no in (("exists", "is back", "is gone"), ("running", "has a link", "has no link")):
            if was[key] != entry[key]:
                words.append(f"{entry['name']} {yes if entry[key] else no}")
                break
        else:
            if bool(was["addresses"]) != bool(entry["addresses"]):
                words.append(f"{entry['name']} has {'an' if entry['addresses'] else 'no'} address")
    return words
