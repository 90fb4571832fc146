// SPDX-License-Identifier: Apache-2.0
// Takes what the server sends and shows it. The server sends everything first, then what is newer.

import { Drawing } from "./drawing.js";
import { Faults } from "./faults.js";
import { model, since } from "./model.js";
import { html, say } from "./svg.js";
import { Timeline } from "./timeline.js";

const SILENCE = 7000; // ms; the server says something every two seconds
const MOST_SPOKEN = 4;
const byId = (id) => document.getElementById(id);

let known = {};
let offset = null; // the gateway's clock less ours, in seconds
let lastWord = performance.now();
let stream = null;

const ours = () => performance.now() / 1000;
const gatewayNow = () => (offset === null ? null : ours() + offset);
const drawing = new Drawing(byId("drawing"), byId("route-words"));
const timeline = new Timeline(byId("timeline"), gatewayNow);
const faults = new Faults(() => known.server?.token || "");
const topicRows = new Map();

function connect() {
  if (stream) stream.close();
  lastWord = performance.now();
  stream = new EventSource("events");
  stream.onmessage = (event) => {
    lastWord = performance.now();
    take(JSON.parse(event.data));
  };
  stream.onerror = loseServer;
}

// Neither a page that has slept nor a connection that died unnoticed is told by anybody.
setInterval(() => {
  if (performance.now() - lastWord > SILENCE || stream.readyState === EventSource.CLOSED) {
    loseServer();
    connect();
  }
}, 1000);

function loseServer() {
  if (document.documentElement.classList.contains("stale")) return;
  document.documentElement.classList.add("stale");
  link("lost", "the panel's server is away, trying again");
  notice(`The panel's server is away. What is shown was so at ${new Date().toLocaleTimeString([], { hour12: false })}.`);
  document.title = "Away – Gateway";
  showTime();
}

function notice(words) {
  byId("notice").hidden = !words;
  say(byId("notice"), words);
}

function link(kind, words) {
  byId("link").className = `link ${kind}`;
  say(byId("link"), words);
}

function take(message) {
  document.documentElement.classList.remove("stale");
  if (message.whole) {
    known = {};
    topicRows.clear();
    byId("topics").replaceChildren();
    byId("decisions").replaceChildren();
    timeline.reset();
  }
  if (message.now !== null) offset = message.now - ours();
  const { events, decisions, ...sections } = message;
  Object.assign(known, sections);
  if (message.catalogue) faults.build(message.catalogue);
  if (message.faults && known.catalogue) faults.show(known.faults);
  if (events) timeline.add(events, message.whole);
  if (decisions) showDecisions(decisions, message.whole);
  const away = known.source?.state === "away";
  if (message.status || message.source || message.faults || message.whole) showStatus(away);
  showSource(away);
  document.querySelector("main").classList.toggle("without-faults", !known.catalogue);
}

function showSource(away) {
  const { state, words, command } = known.source || {};
  const waiting = state === "starting" ? `Nothing is known yet. Waiting for the first words of: ${command}` : "";
  notice(away ? `What is shown is not known any more: ${words}. Trying again: ${command}` : waiting);
  const live = `live${known.gateway?.on ? ` by ${known.gateway.on}` : ""}`;
  link(state === "running" ? "live" : "lost",
    { running: live, away: "the gateway does not answer" }[state] || "waiting for the gateway");
}

function showStatus(away) {
  const shown = model(away ? null : known.status, known);
  document.body.className = shown.body;
  say(byId("mark"), shown.mark);
  say(byId("state"), shown.headline);
  say(byId("reason"), shown.reason);
  document.title = `${shown.headline} – Gateway`;
  drawing.show(shown);
  if (!away && known.status) showTopics(known.status.topics, known.status.broker);
  showTime();
}

/** For how long it has been so; and, where only what changes is told, when that was last. */
function showTime() {
  const stale = document.documentElement.classList.contains("stale") || known.source?.state !== "running";
  const begin = since(known.status);
  const now = gatewayNow();
  say(byId("duration"), stale || begin === null || now === null ? "" : `for ${length(now - begin)}`);
  const heard = !stale && known.gateway?.on && known.status && now !== null;
  byId("heard").hidden = !heard;
  if (heard) say(byId("heard"), `last change ${length(now - known.status.monotonic)} ago`);
}

function length(seconds) {
  const whole = Math.max(0, Math.floor(seconds));
  const [h, m, s] = [Math.floor(whole / 3600), Math.floor(whole / 60) % 60, whole % 60];
  return h ? `${h} h ${m} min` : m ? `${m} min ${s} s` : `${s} s`;
}

function showDecisions(decisions, whole) {
  const list = byId("decisions");
  for (const { time, words } of decisions) {
    const when = new Date(time);
    const clock = Number.isNaN(when.getTime()) ? "" : when.toLocaleTimeString([], { hour12: false });
    list.prepend(html("li", {}, html("time", { datetime: time, title: time }, clock), html("span", {}, words)));
  }
  while (list.children.length > 200) list.lastChild.remove();
  if (!whole) speak(decisions.map((decision) => decision.words));
}

/** What a screen reader is to say; of a flood, the end. */
function speak(words) {
  const before = words.length > MOST_SPOKEN ? [`${words.length - MOST_SPOKEN} earlier ones`] : [];
  byId("spoken").textContent = [...before, ...words.slice(-MOST_SPOKEN)].join(". ");
}

function showTopics(topics, broker) {
  const present = new Set(topics.map((entry) => entry.topic));
  for (const [topic, row] of topicRows) {
    if (!present.has(topic)) { row.remove(); topicRows.delete(topic); }
  }
  for (const entry of topics) showTopic(entry);
  const left = broker.topics_left_out ? `, ${broker.topics_left_out} more are not shown` : "";
  say(byId("topics-note"), broker.state === "present" ? `${topics.length} on ${broker.address}${left}` : `the broker is ${broker.state}`);
}

function showTopic({ topic, payload, bytes, retained }) {
  let row = topicRows.get(topic);
  if (!row) {
    row = html("tr", {}, html("td"), html("td"), html("td"));
    // A long topic is broken behind its separators.
    row.firstChild.append(...topic.split(/(?<=[/_])/).flatMap((word) => [word, html("wbr")]));
    topicRows.set(topic, row);
    byId("topics").append(row);
  }
  const value = JSON.stringify([payload, bytes, retained]);
  if (row.dataset.value === value) return;
  const fresh = "value" in row.dataset;
  row.dataset.value = value;
  row.children[1].textContent = payload;
  if (bytes > 200) row.children[1].append(html("span", { class: "cut" }, `the first 200 of ${bytes.toLocaleString()} bytes`));
  const kept = { true: [html("span", { class: "kept" }, "retained")], null: ["unknown"] };
  row.children[2].replaceChildren(...(kept[retained] ?? []));
  row.classList.remove("fresh");
  if (fresh) requestAnimationFrame(() => row.classList.add("fresh"));
}

setInterval(showTime, 500);
connect();
