// SPDX-License-Identifier: Apache-2.0
// The timeline: one lane a thing observed, one bar a value it had, marks for what was done; as in the demo's picture.

import { html, svg } from "./svg.js";

export const LANES = ["route state", "green LED", "yellow LED", "DNS topic", "default route", "cloud connection"];
const SPANS = [15, 30, 60, 120, 300, 900, 3600];
const ON = "#10202b"; // what is written on a bar
// By name, so that the picture changes with the page's colours, and not when it is next drawn.
const PAGE = { paper: "var(--card)", grid: "var(--edge)", text: "var(--text)", soft: "var(--soft)", font: "var(--sans)" };
const SAVED = { paper: "#ffffff", grid: "#e3e7eb", text: "#1c2630", soft: "#55626f", font: "DejaVu Sans, sans-serif" };
// Those that follow each other, or mean the opposite, differ for the colour-blind, too.
export const COLOURS = {
  ETHERNET_ACTIVE: "#61b68f", ETHERNET_LOST_DELAY: "#edbd54", POKING_CELLULAR: "#dd6225", SWITCHING_TO_CELLULAR: "#cc7452",
  CELLULAR_ACTIVE: "#acb7fa", SWITCHING_TO_ETHERNET: "#9d7db7", ETHERNET_SETTLE_DELAY: "#a7e6fa",
  inhibit: "#cc7452", permit: "#61b68f", Ethernet: "#61b68f", Cellular: "#acb7fa", eth0: "#61b68f", wwan0: "#acb7fa",
};
const LAMPS = { "green LED": { On: "#63b96c", Blink: "#b4dfb8" }, "yellow LED": { On: "#ffc93c", Blink: "#ffe9a8" } };
const OTHERS = ["#9db8b8", "#c9c2a5", "#c295ae"];
const EMPTY = ["Off", "none"];
const NARROW = 640;
const MOST_EVENTS = 8000; // as many as the server keeps
const LEAST_WIDTH = 1.5;

const colour = (lane, value) => (LAMPS[lane] || {})[value] || COLOURS[value] ||
  OTHERS[[...value].reduce((sum, letter) => sum + letter.codePointAt(0), 0) % OTHERS.length];

const step = (span, room) => [1, 2, 5, 10, 15, 30, 60, 120, 300, 600, 900].find((s) => span / s <= room) || 1800;

function ago(seconds) {
  if (seconds < 0.5) return "now";
  if (seconds < 60) return `−${Math.round(seconds)} s`;
  const rest = Math.round(seconds % 60);
  return `−${Math.floor(seconds / 60)} min${rest ? ` ${rest} s` : ""}`;
}

/** Bars of a lane between two times: [begin, end, value]. */
export function bars(events, lane, begin, end) {
  const found = [];
  let current = null;
  for (const event of events) {
    if (event.lane !== lane || event.t > end) continue;
    if (current) current[1] = event.t;
    current = event.value ? [event.t, end, event.value] : null;
    if (current) found.push(current);
  }
  return found.filter((bar) => bar[1] >= begin && bar[1] > bar[0]);
}

/** Of bars in places of the picture those that can be told apart: of several in one place the widest. */
function distinct(found) {
  const shown = [];
  for (const bar of found) {
    const last = shown[shown.length - 1];
    if (!last || bar[1] - last[0] >= 2 * LEAST_WIDTH) shown.push(bar);
    else if (bar[1] - bar[0] > last[1] - last[0]) shown[shown.length - 1] = [last[0], bar[1], bar[2]];
    else last[1] = bar[1];
  }
  return shown;
}

/** So that lines pass behind what is written. */
const halo = (paper) => ({ stroke: paper, "stroke-width": 4, "stroke-linejoin": "round", "paint-order": "stroke" });

export class Timeline {
  /** `now`: a function that gives the gateway's time, or null. */
  constructor(parent, now) {
    this.parent = parent;
    this.now = now;
    this.events = [];
    this.zoom = 2;
    this.pausedAt = null;
    this.buttons();
    const redraw = () => this.draw();
    new ResizeObserver(redraw).observe(parent);
    document.addEventListener("visibilitychange", redraw);
    setInterval(() => { if (this.pausedAt === null && !document.hidden) this.draw(); }, 250);
    this.draw();
  }

  get span() { return SPANS[this.zoom]; }

  buttons() {
    const button = (id, act) => {
      const element = document.getElementById(id);
      element.addEventListener("click", () => { if (element.getAttribute("aria-disabled") !== "true") { act(); this.draw(); } });
      return element;
    };
    this.pause = button("pause", () => { this.pausedAt = this.pausedAt === null ? this.now() : null; });
    button("earlier", () => this.move(-0.25));
    this.later = button("later", () => this.move(0.25));
    this.out = button("out", () => { this.zoom = Math.min(this.zoom + 1, SPANS.length - 1); });
    this.in = button("in", () => { this.zoom = Math.max(this.zoom - 1, 0); });
    button("save", () => this.save());
  }

  move(part) {
    const now = this.now();
    if (now === null) return;
    const wanted = (this.pausedAt === null ? now : this.pausedAt) + part * this.span;
    this.pausedAt = wanted >= now ? null : wanted;
  }

  reset() { this.events = []; }

  /** `whole`: these are all there are. */
  add(events, whole) {
    this.events.push(...events);
    if (this.events.length > MOST_EVENTS * 1.25) this.forget(this.events.length - MOST_EVENTS);
    if (whole) this.draw();
  }

  /** What a lane was last stays known. */
  forget(count) {
    const last = new Map(this.events.slice(0, count).filter((event) => event.lane).map((event) => [event.lane, event]));
    this.events.splice(0, count, ...last.values());
  }

  draw() {
    const able = (element, yes) => element.setAttribute("aria-disabled", String(!yes));
    this.pause.setAttribute("aria-pressed", String(this.pausedAt !== null));
    this.pause.textContent = this.pausedAt === null ? "Pause" : "Paused";
    able(this.later, this.pausedAt !== null);
    able(this.out, this.zoom < SPANS.length - 1);
    able(this.in, this.zoom > 0);
    const words = this.span < 60 ? `${this.span} s` : `${this.span / 60} min`;
    const label = document.getElementById("span");
    if (label.textContent !== words) label.textContent = words;
    const width = Math.max(this.parent.clientWidth, 260);
    this.parent.replaceChildren(this.picture(width, PAGE));
  }

  picture(width, ink) {
    const now = this.now();
    const end = this.pausedAt === null ? now : this.pausedAt;
    const narrow = width < NARROW;
    const left = narrow ? 4 : 130;
    const top = 46;
    const pitch = narrow ? 50 : 36;
    const offset = narrow ? 19 : 4;
    const bottom = top + pitch * LANES.length;
    const height = bottom + 24;
    const root = svg("svg", { width, height, viewBox: `0 0 ${width} ${height}`, role: "img",
      "aria-label": this.inWords(end), "font-family": ink.font, "font-size": 12 });
    root.append(svg("rect", { width, height, fill: ink.paper }));
    if (end === null) return root;
    const begin = end - this.span;
    const x = (t) => left + (width - left - 8) * (Math.min(Math.max(t, begin), end) - begin) / this.span;
    const write = (at, fill, text, more = {}) => {
      const element = svg("text", { x: at[0].toFixed(1), y: at[1], fill, ...more });
      element.textContent = text;
      return element;
    };
    const behind = now - end;
    const grid = step(this.span, narrow ? 5 : 10);
    for (let back = grid - (behind % grid) - grid; back <= this.span; back += grid) {
      if (back < 0) continue;
      const at = x(end - back);
      root.append(svg("line", { x1: at, y1: top - 6, x2: at, y2: bottom, stroke: ink.grid }));
      const anchor = at > width - 40 ? "end" : at < left + 25 ? "start" : "middle";
      root.append(write([at, bottom + 16], ink.soft, ago(behind + back), { "text-anchor": anchor }));
    }
    const hidden = { "aria-hidden": "true" }; // it is drawn anew several times a second; aria-label says it in words
    const [drawn, lines, labels] = [svg("g", hidden), svg("g", hidden), svg("g", { ...hidden, "pointer-events": "none" })];
    root.append(drawn, lines, labels);
    LANES.forEach((lane, row) => {
      const y = top + row * pitch;
      const anchor = narrow ? {} : { "text-anchor": "end" };
      labels.append(write([narrow ? left : left - 12, narrow ? y + 12 : y + 21], ink.text, lane, { "font-weight": 600, ...anchor }));
      const shown = distinct(bars(this.events, lane, begin, end).map(([from, to, value]) => [x(from), x(to), value]));
      for (const [from, to, value] of shown) {
        drawn.append(this.bar(lane, value, from, to, y + offset, ink));
        const fits = to - from > 6.9 * value.length + 10;
        const [fill, paper] = EMPTY.includes(value) ? [ink.soft, ink.paper] : [ON, colour(lane, value)];
        if (fits) labels.append(write([from + 6, y + offset + 17], fill, value, { "font-size": 11, ...halo(paper) }));
      }
    });
    this.marks(lines, labels, begin, end, x, { ink, width, bottom, write });
    return root;
  }

  marks(lines, labels, begin, end, x, { ink, width, bottom, write }) {
    const taken = [0, 0]; // up to where each of the two rows is written
    let last = -LEAST_WIDTH;
    for (const event of this.events.filter((one) => one.mark && one.t >= begin && one.t <= end)) {
      const at = x(event.t);
      if (at - last < LEAST_WIDTH) continue;
      last = at;
      const room = 6.6 * event.mark.length + 12;
      const from = at + room > width ? at - room : at;
      const row = taken.findIndex((used) => used <= from);
      const title = svg("title");
      title.textContent = event.mark;
      lines.append(svg("line", { x1: at, y1: row === 1 ? 34 : 18, x2: at, y2: bottom, stroke: ink.text,
        "stroke-dasharray": "3 3" }, title));
      if (row < 0) continue; // the line alone, where there is no room
      taken[row] = from + room;
      labels.append(write([from === at ? at + 5 : at - 5, 14 + 16 * row], ink.text, event.mark,
        { "text-anchor": from === at ? "start" : "end", ...halo(ink.paper) }));
    }
  }

  bar(lane, value, from, to, y, ink) {
    const width = Math.max(to - from, LEAST_WIDTH);
    const hollow = EMPTY.includes(value);
    const title = svg("title");
    title.textContent = `${lane}: ${value}`;
    const rect = svg("rect", { x: from.toFixed(1), y, width: width.toFixed(1), height: 26, rx: Math.min(4, width / 2),
      fill: hollow ? "none" : colour(lane, value), stroke: hollow ? ink.soft : "none" });
    if (hollow) rect.setAttribute("stroke-dasharray", "2 3");
    const group = svg("g", { "data-lane": lane, "data-value": value }, title, rect);
    if (value !== "Blink") return group;
    for (let at = from + 7; at < to - 3; at += 14) {
      const w = Math.min(7, to - at);
      group.append(svg("rect", { x: at.toFixed(1), y: y + 21, width: w.toFixed(1), height: 5, fill: LAMPS[lane]?.On || ink.soft }));
    }
    return group;
  }

  inWords(end) {
    if (end === null) return "Timeline: nothing is known yet";
    const last = LANES.map((lane) => [lane, bars(this.events, lane, end, end).pop()]).filter(([, bar]) => bar);
    return `Timeline of the last ${this.span} s. At its end: ${last.map(([lane, bar]) => `${lane} ${bar[2]}`).join(", ")}`;
  }

  save() {
    const picture = this.picture(1280, SAVED);
    const file = new Blob([new XMLSerializer().serializeToString(picture)], { type: "image/svg+xml" });
    const url = URL.createObjectURL(file);
    const link = html("a", { href: url, download: "timeline.svg" });
    link.click();
    setTimeout(() => URL.revokeObjectURL(url), 10000);
  }
}
