// SPDX-License-Identifier: Apache-2.0
// The gateway as it is: application, broker, interfaces, providers, cloud, and the way that the cloud's connection takes.

import { dress, say, svg } from "./svg.js";

const WIDE = {
  view: "0 32 1000 264", frame: [8, 40, 532, 248],
  app: [128, 64, 170, 76], broker: [128, 196, 170, 76], eth: [354, 64, 170, 76], cell: [354, 196, 170, 76],
  ethProvider: [598, 64, 172, 76], cellProvider: [598, 196, 172, 76], cloud: [838, 116, 156, 104],
  green: [66, 102], yellow: [66, 234], across: true,
};
const NARROW = {
  view: "0 18 340 594", frame: [4, 24, 332, 348],
  app: [18, 122, 144, 72], broker: [178, 122, 144, 72], eth: [18, 286, 144, 72], cell: [178, 286, 144, 72],
  ethProvider: [18, 410, 144, 72], cellProvider: [178, 410, 144, 72], cloud: [86, 524, 168, 84],
  green: [90, 72], yellow: [250, 72], across: false,
};
const SIDES = ["eth", "cell"];

function part(key, [x, y, w, h], title) {
  const middle = x + w / 2;
  const shape = svg("rect", { x, y, width: w, height: h, rx: 11, class: "part" });
  const name = svg("text", { x: middle, y: y + h / 2 - 12, "text-anchor": "middle", class: "title" });
  const lines = [0, 1].map((row) => svg("text", {
    x: middle, y: y + h / 2 + 8 + row * 16, "text-anchor": "middle", class: "small soft" }));
  name.textContent = title;
  return { key, node: svg("g", { "data-part": key }, shape, name, ...lines), shape, name, lines };
}

function cloudShape([x, y, w, h]) {
  const at = (fx, fy) => `${x + w * fx} ${y + h * fy}`;
  return svg("path", { class: "part", d: `M${at(.2, .96)} C${at(-.06, .96)} ${at(-.04, .5)} ${at(.17, .47)} ` +
    `C${at(.13, .1)} ${at(.5, -.08)} ${at(.61, .22)} C${at(.8, .08)} ${at(.96, .28)} ${at(.88, .48)} ` +
    `C${at(1.06, .54)} ${at(1.04, .96)} ${at(.82, .96)} Z` });
}

/** The middle of a side of a part. */
const right = ([x, y, w, h]) => [x + w, y + h / 2];
const left = ([x, y, , h]) => [x, y + h / 2];
const bottom = ([x, y, w, h]) => [x + w / 2, y + h];
const top = ([x, y, w]) => [x + w / 2, y];

function curve([ax, ay], [bx, by], across) {
  const [cx, cy] = [(ax + bx) / 2, (ay + by) / 2];
  return across ? `M${ax} ${ay} C${cx} ${ay} ${cx} ${by} ${bx} ${by}` : `M${ax} ${ay} C${ax} ${cy} ${bx} ${cy} ${bx} ${by}`;
}

export class Drawing {
  constructor(parent, words) {
    this.parent = parent;
    this.words = words;
    this.narrow = matchMedia("(max-width: 760px)");
    this.narrow.addEventListener("change", () => this.build());
    this.model = null;
    this.build();
  }

  build() {
    const at = this.narrow.matches ? NARROW : WIDE;
    const [from, to] = at.across ? [right, left] : [bottom, top];
    this.root = svg("svg", { viewBox: at.view, role: "img", "aria-labelledby": "route-words" });
    this.wires = {};
    const wires = svg("g");
    const wire = (key, d) => {
      const lines = [svg("path", { d, class: "wire", "data-wire": key }), svg("path", { d, class: "flow" })];
      wires.append(...lines);
      this.wires[key] = lines;
    };
    const [x, y, width, height] = at.frame;
    const frame = svg("rect", { x, y, width, height, rx: 16, class: "frame" });
    wire("broker", at.across ? curve(bottom(at.app), top(at.broker), false) : curve(right(at.app), left(at.broker), true));
    for (const side of SIDES) {
      const bent = at.across || side === "cell";
      wire(`${side}-app`, bent ? curve(from(at.app), to(at[side]), at.across) : curve(bottom(at.app), top(at[side]), false));
      wire(`${side}-link`, curve(from(at[side]), to(at[`${side}Provider`]), at.across));
      wire(`${side}-cloud`, curve(from(at[`${side}Provider`]), to(at.cloud), at.across));
    }
    const titles = { app: "Application", broker: "Broker", ethProvider: "Ethernet provider",
      cellProvider: "Cellular provider", eth: "Ethernet", cell: "Cellular", cloud: "Cloud" };
    this.parts = {};
    this.root.append(frame, wires);
    for (const [key, title] of Object.entries(titles)) {
      const made = part(key, at[key], title);
      if (key === "cloud") {
        const shape = cloudShape(at.cloud);
        made.shape.replaceWith(shape);
        made.shape = shape;
        for (const text of [made.name, ...made.lines]) text.setAttribute("y", Number(text.getAttribute("y")) + 12);
      }
      this.parts[key] = made;
      this.root.append(made.node);
    }
    this.lamps = {};
    for (const led of ["green", "yellow"]) this.root.append(this.lamp(led, at[led]));
    this.parent.replaceChildren(this.root);
    if (this.model) this.show(this.model);
  }

  lamp(led, [x, y]) {
    const lamp = svg("circle", { cx: x, cy: y, r: 13, class: `lamp ${led} unknown`, "data-led": led });
    const half = svg("path", { d: `M${x} ${y - 12} A12 12 0 0 1 ${x} ${y + 12} Z`, class: "half" });
    const name = svg("text", { x, y: y - 22, "text-anchor": "middle", class: "small soft" });
    const text = svg("text", { x, y: y + 32, "text-anchor": "middle", class: "small", "data-led-text": led });
    name.textContent = `${led} LED`;
    this.lamps[led] = { lamp, text };
    return svg("g", {}, lamp, half, name, text);
  }

  part(key, classes, ...lines) {
    dress(this.parts[key].shape, `part ${classes}`.trim());
    const shift = lines.some(Boolean) ? "" : "translate(0 16)";
    if (this.parts[key].name.getAttribute("transform") !== shift) this.parts[key].name.setAttribute("transform", shift);
    this.parts[key].lines.forEach((line, row) => say(line, lines[row] || ""));
  }

  /** `model`: what panel.js makes of a status. */
  show(model) {
    this.model = model;
    const path = { ethernet: "eth", cellular: "cell" }[model.path];
    this.part("app", model.app.classes, ...model.app.lines);
    this.part("broker", model.broker.classes, ...model.broker.lines);
    for (const side of SIDES) {
      const carries = side === path ? model.path : "";
      const { link, provider } = model[side];
      say(this.parts[side].name, link.title);
      this.part(side, carries || link.classes, ...link.lines);
      this.part(`${side}Provider`, provider.cut ? "away" : carries, ...provider.lines);
      this.wire(`${side}-app`, carries);
      this.wire(`${side}-link`, carries || (link.cut ? "cut" : ""));
      this.wire(`${side}-cloud`, carries || (provider.cut ? "cut" : ""));
    }
    this.wire("broker", model.broker.cut ? "cut" : "");
    this.part("cloud", path ? model.path : model.cloud.classes, ...model.cloud.lines);
    for (const [led, pattern] of Object.entries(model.leds)) {
      dress(this.lamps[led].lamp, `lamp ${led} ${pattern.value}`);
      say(this.lamps[led].text, pattern.words);
    }
    say(this.words, model.words);
  }

  wire(key, classes) {
    dress(this.wires[key][0], `wire ${classes}`.trim());
    dress(this.wires[key][1], `flow ${classes}`.trim());
  }
}
