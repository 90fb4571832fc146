// SPDX-License-Identifier: Apache-2.0
// What the drawing and the headline say of a status. What is not known is said to be so.

const PATHS = { ethernet: "Ethernet", cellular: "Cellular", other: "another way" };
const SIDES = { eth: { role: "ethernet", title: "Ethernet" }, cell: { role: "cellular", title: "Cellular" } };

/** The gateway's monotonic time at which the cloud's state began; null when it is not known. */
export function since(status) {
  if (!status) return null;
  if (status.cloud.since_monotonic !== null) return status.cloud.since_monotonic;
  const [begin, now] = [Date.parse(status.cloud.since), Date.parse(status.time)];
  return Number.isNaN(begin) || Number.isNaN(now) ? null : status.monotonic - (now - begin) / 1000;
}

function headline({ state, path }) {
  if (state === "connected") return `Cloud over ${PATHS[path] || "an unknown way"}`;
  return { disconnected: "No cloud", disabled: "No cloud is set" }[state] || "Cloud unknown";
}

function side(key, status, inForce) {
  const { role, title } = SIDES[key];
  const link = status.network.interfaces.find((entry) => entry.role === role);
  const faults = inForce.filter((words) => words.split(" ").includes(key)).map((words) => words.replace(` ${key} `, " "));
  const provider = {
    cut: faults.some((words) => words === "provider dead" || words.startsWith("portal")),
    lines: faults.length ? ["▲ " + faults[0].replace("provider ", ""), faults.length > 1 ? `and ${faults.length - 1} more` : ""] : [],
  };
  if (!link) return { link: { title, classes: "unknown", lines: ["unknown"] }, provider };
  const isDefault = status.network.default === link.name;
  const trouble = !link.exists ? "gone" : !link.running ? "no link" : link.addresses.length ? "" : "no address";
  return {
    link: {
      title: `${title} ${link.name}`, classes: trouble ? "away" : "", cut: Boolean(trouble),
      lines: [trouble ? `✕ ${trouble}` : link.addresses[0], isDefault ? "default route" : ""],
    },
    provider,
  };
}

function led(value) {
  const words = { on: "● on", off: "○ off", blink: "◐ blinks" }[value];
  return words ? { value, words } : { value: "unknown", words: "? unknown" };
}

const UNKNOWN = {
  network: { interfaces: [], default: null }, cloud: { state: "unknown", path: "unknown", reason: "", basis: "" },
  broker: { state: "unknown" }, application: { state: "unknown" }, leds: { green: "unknown", yellow: "unknown" },
};

export function model(status, { faults }) {
  const told = status || UNKNOWN;
  const inForce = faults?.in_force || [];
  const { cloud, broker, application } = told;
  const path = cloud.state === "connected" ? cloud.path : "";
  const kind = { ethernet: ["on-ethernet", "E"], cellular: ["on-cellular", "C"] }[path] ||
    (["disconnected", "disabled"].includes(cloud.state) ? ["no-cloud", "✕"] : ["", path ? "…" : "?"]);
  const shown = {
    body: kind[0], mark: kind[1], path, headline: headline(cloud),
    reason: [cloud.reason, cloud.basis].filter(Boolean).join(" – "),
    app: {
      classes: { running: "", unknown: "unknown", absent: "unknown" }[application.state] ?? "away",
      lines: [application.program || application.state, application.program ? application.state : ""],
    },
    broker: {
      classes: { present: "", unknown: "unknown" }[broker.state] ?? "away", cut: broker.state === "away",
      lines: [{ present: broker.address, away: "✕ away" }[broker.state] || "unknown"],
    },
    cloud: {
      classes: cloud.state === "disconnected" ? "away" : cloud.state === "connected" ? "" : "unknown",
      lines: [{ connected: "connected", disconnected: "✕ not connected", disabled: "not set" }[cloud.state] || "unknown"],
    },
    leds: { green: led(told.leds.green), yellow: led(told.leds.yellow) },
    eth: side("eth", told, inForce), cell: side("cell", told, inForce),
  };
  const name = { ethernet: shown.eth, cellular: shown.cell }[path]?.link.title;
  shown.words = (name ? `The cloud's connection goes from the application over ${name} and its provider. ` : `${shown.headline}. `) +
    `Green LED ${shown.leds.green.words.slice(2)}, yellow LED ${shown.leds.yellow.words.slice(2)}.`;
  return shown;
}
