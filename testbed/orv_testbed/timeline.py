# SPDX-License-Identifier: Apache-2.0
"""Draws a run as a picture: one lane a thing observed, one bar a value it had, marks for what was done to it.

timeline EVENTS.jsonl PICTURE.svg

EVENTS has one JSON object a line, in any order of time:
  {"t": 12.5, "lane": "yellow LED", "value": "Blink"}    from t on the lane shows this value
  {"t": 10.0, "mark": "Ethernet provider dead"}          something was done at t
  {"t": 40.0, "end": true}                               where the picture ends (otherwise the last event)
Times are seconds from the start of the run. An empty value ends a bar.
"""
from __future__ import annotations

import html
import json
import sys
from collections.abc import Iterable, Sequence

Bar = tuple[float, float, str]  # begin, end, value
Lanes = dict[str, list[Bar]]
Marks = list[tuple[float, str]]

LANE_ORDER = ["route state", "green LED", "yellow LED", "DNS topic", "default route", "cloud connection"]
COLOURS = {
    "ETHERNET_ACTIVE": "#61b68f",
    "ETHERNET_LOST_DELAY": "#edbd54",
    "POKING_CELLULAR": "#dd6225",
    "SWITCHING_TO_CELLULAR": "#cc7452",
    "CELLULAR_ACTIVE": "#acb7fa",
    "SWITCHING_TO_ETHERNET": "#9d7db7",
    "ETHERNET_SETTLE_DELAY": "#a7e6fa",
    "Off": "#d0d4d9",
    "inhibit": "#cc7452",
    "permit": "#61b68f",
    "Ethernet": "#61b68f",
    "Cellular": "#acb7fa",
    "eth0": "#61b68f",
    "wwan0": "#acb7fa",
    "none": "#d0d4d9",
}
LAMPS = {"green LED": {"On": "#63b96c", "Blink": "#b4dfb8"}, "yellow LED": {"On": "#ffc93c", "Blink": "#ffe9a8"}}
PALETTE = ["#7a9e9f", "#b8b08d", "#a5668b", "#69995d", "#d17a22"]
LEFT, TOP, LANE_HEIGHT, BAR_HEIGHT, WIDTH = 150, 96, 46, 26, 1280


def read(lines: Iterable[str]) -> tuple[Lanes, Marks, float]:
    """-> (lanes: name -> [(begin, end, value)], marks: [(t, text)], end)"""
    changes: dict[str, list[tuple[float, str]]] = {}
    marks: Marks = []
    end: float | None = None
    for number, line in enumerate(lines, 1):
        if not line.strip():
            continue
        try:
            event = json.loads(line)
            t = float(event["t"])
        except (ValueError, KeyError, TypeError) as error:
            raise SystemExit(f"timeline: line {number} is no event: {error}") from error
        if "lane" in event:
            changes.setdefault(event["lane"], []).append((t, event["value"]))
        elif "mark" in event:
            marks.append((t, event["mark"]))
        elif event.get("end"):
            end = t
    times = [t for lane in changes.values() for t, _ in lane] + [t for t, _ in marks]
    if not changes:
        raise SystemExit("timeline: there is nothing to draw: no event names a lane")
    end = end if end is not None else max(times)
    lanes = {}
    for name, steps in changes.items():
        steps.sort(key=lambda step: step[0])
        bars: list[Bar] = []
        for (begin, value), following in zip(steps, steps[1:] + [(end, None)]):
            if bars and bars[-1][2] == value and bars[-1][1] == begin:
                bars[-1] = (bars[-1][0], following[0], value)
            elif value and following[0] > begin:
                bars.append((begin, following[0], value))
        lanes[name] = bars
    return lanes, sorted(marks), end


def tick_step(end: float) -> float:
    return next((step for step in (1, 2, 5, 10, 20, 30, 60, 120, 300, 600) if end / step <= 16), 1800)


def colour(lane: str, value: str, unknown: dict[str, int]) -> str:
    known = {**COLOURS, **LAMPS.get(lane, {})}
    plain = value.removesuffix(", IPv6")
    if plain in known:
        return known[plain]
    return PALETTE[unknown.setdefault(value, len(unknown)) % len(PALETTE)]


def draw(lanes: Lanes, marks: Marks, end: float) -> str:
    end = max(end, 0.001)
    names = [n for n in LANE_ORDER if n in lanes] + sorted(n for n in lanes if n not in LANE_ORDER)
    height = TOP + LANE_HEIGHT * len(names) + 40
    bottom = TOP + LANE_HEIGHT * len(names)

    def x(t: float) -> float:
        return LEFT + (WIDTH - LEFT - 30) * min(max(t, 0), end) / end

    unknown: dict[str, int] = {}
    out = [
        f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{height}" viewBox="0 0 {WIDTH} {height}" '
        'font-family="DejaVu Sans, sans-serif" font-size="12">',
        f'<rect width="{WIDTH}" height="{height}" fill="white"/>',
    ]
    t = 0.0
    while t <= end:
        out.append(
            f'<line x1="{x(t):.1f}" y1="{TOP - 6}" x2="{x(t):.1f}" y2="{bottom}" stroke="#e6e8eb"/>'
            f'<text x="{x(t):.1f}" y="{bottom + 18}" text-anchor="middle" fill="#555">{t:g} s</text>'
        )
        t += tick_step(end)
    for row, name in enumerate(names):
        y = TOP + row * LANE_HEIGHT
        out.append(
            f'<text x="{LEFT - 10}" y="{y + 18}" text-anchor="end" font-weight="bold">{html.escape(name)}</text>'
        )
        for begin, stop, value in lanes[name]:
            width = max(x(stop) - x(begin), 1.5)
            title = html.escape(f"{value}: {begin:.2f} s to {stop:.2f} s")
            out.append(
                f'<g><title>{title}</title><rect x="{x(begin):.1f}" y="{y}" width="{width:.1f}" '
                f'height="{BAR_HEIGHT}" rx="3" fill="{colour(name, value, unknown)}"/>'
            )
            if width > 7.2 * len(value):
                out.append(f'<text x="{x(begin) + 5:.1f}" y="{y + 17}">{html.escape(value)}</text>')
            out.append("</g>")
    for number, (t, text) in enumerate(marks):
        y = 18 + 18 * (number % 4)
        anchor = "end" if x(t) > WIDTH - 260 else "start"
        out.append(
            f'<line x1="{x(t):.1f}" y1="{y + 3}" x2="{x(t):.1f}" y2="{bottom}" stroke="#222" stroke-dasharray="3 3"/>'
            f'<text x="{x(t) + (-4 if anchor == "end" else 4):.1f}" y="{y}" text-anchor="{anchor}" '
            f'fill="#222">{html.escape(text)} ({t:.1f} s)</text>'
        )
    out.append("</svg>")
    return "\n".join(out) + "\n"


def main(arguments: Sequence[str]) -> int:
    if len(arguments) != 2:
        print(__doc__.split("\n\n")[1], file=sys.stderr)
        return 2
    try:
        with open(arguments[0], encoding="utf-8") as source:
            picture = draw(*read(source))
        with open(arguments[1], "w", encoding="utf-8") as target:
            target.write(picture)
    except OSError as error:
        raise SystemExit(f"timeline: {error}") from error
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
