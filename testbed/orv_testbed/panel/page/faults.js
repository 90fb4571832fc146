// SPDX-License-Identifier: Apache-2.0
// The faults of a box: a row for each kind, a button for each fault, and one that takes it back.

import { html, say } from "./svg.js";

export class Faults {
  constructor(token) {
    this.token = token;
    this.section = document.getElementById("faults");
    this.words = document.getElementById("fault-words");
    this.section.addEventListener("click", (click) => {
      const button = click.target.closest("button[data-fault]");
      if (button && button.getAttribute("aria-disabled") !== "true") this.press(button.dataset.fault);
    });
  }

  build(catalogue) {
    const groups = new Map();
    this.kinds = catalogue;
    for (const kind of catalogue) {
      if (!groups.has(kind.group)) groups.set(kind.group, html("fieldset", {}, html("legend", {}, kind.group)));
      const buttons = Object.entries(kind.faults).map(([name, words]) =>
        html("button", { type: "button", "data-fault": words, "aria-pressed": "false", title: `box ${words}`,
          "aria-label": `${kind.group}, ${kind.name}: ${name}` }, name));
      const undo = html("button", { type: "button", "data-fault": kind.undo, title: `box ${kind.undo}`,
        "aria-label": `Undo ${kind.group}, ${kind.name}: ${kind.undo_name}`, "aria-disabled": "true" }, `↶ ${kind.undo_name}`);
      groups.get(kind.group).append(html("div", { class: "fault", "data-kind": kind.undo },
        html("span", {}, kind.name), html("div", {}, ...buttons, html("span", { class: "by-hand" })), undo));
    }
    document.getElementById("fault-groups").replaceChildren(...groups.values());
    this.section.hidden = false;
  }

  /** `undo`: what takes back each fault that is in force; `busy`: the words that are being carried out. */
  show({ in_force: inForce, undo, busy }) {
    for (const row of document.querySelectorAll(".fault")) {
      const standing = inForce.filter((words) => undo[words] === row.dataset.kind);
      row.classList.toggle("in-force", standing.length > 0);
      const buttons = [...row.querySelectorAll(":scope > div > button")];
      for (const button of buttons) button.setAttribute("aria-pressed", String(standing.includes(button.dataset.fault)));
      const others = standing.filter((words) => !buttons.some((button) => button.dataset.fault === words));
      say(row.querySelector(".by-hand"), others.join(", "));
      row.lastChild.setAttribute("aria-disabled", String(standing.length === 0));
    }
    document.getElementById("undo-all").setAttribute("aria-disabled", String(!inForce.some((words) => undo[words])));
    if (busy) say(this.words, `box ${busy} …`);
    else if (!this.trouble) say(this.words, inForce.length ? `In force: ${inForce.join(", ")}` : "None in force");
  }

  async press(fault) {
    this.trouble = "";
    try {
      const answer = await fetch("faults", { method: "POST", body: JSON.stringify({ fault }),
        headers: { "Content-Type": "application/json", "X-Panel-Token": this.token() } });
      if (!answer.ok) this.trouble = `box ${fault}: ${(await answer.text()).trim()}`;
    } catch {
      this.trouble = `box ${fault}: the panel's server is away`;
    }
    if (this.trouble) say(this.words, this.trouble);
  }
}
