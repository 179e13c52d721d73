// The native calls of a call, and the records that the module logged during it.
import { put } from "../core/api.js";
import { badge, button, el, hint, note, panel, replace } from "../core/dom.js";
import { errorPanel } from "../core/errors.js";
import { poll } from "../core/status.js";
import { plural, visible } from "../core/text.js";

export function callLog(call) {
  const steps = call.call_log.map(step);
  const title = "Native calls";
  return panel(
    {
      label: title,
      kind: "call-log",
      title,
      beside: steps.length ? note(plural(steps.length, "call")) : null,
    },
    call.simulator_error
      ? el("p.message", visible(`The simulator failed: ${call.simulator_error}`))
      : null,
    steps.length ? el("ol.steps", steps) : el("p.empty.small", "The function made no native call."),
    call.log?.length === 0 ? el("p.hint.logged", "The module logged nothing.") : null,
  );
}

export function logRecords(records) {
  const item = ({ level, logger, message }) =>
    el(
      `li.record.record-${level.toLowerCase()}`,
      el("span.level", level),
      el("code.logger", visible(logger)),
      el("pre", visible(message)),
    );
  const title = "Log";
  return panel(
    { label: title, kind: "log", title, beside: note(plural(records.length, "record")) },
    el("ol.records", records.map(item)),
  );
}

function step(entry) {
  const source = entry.source === "none" ? "no reply" : entry.source;
  const label = badge(entry.kind === "method" ? "method table" : source);
  const head = el("div.head", el("code", visible(entry.service)), label, keepButton(entry));
  return el(`li.step.step-${entry.kind}`, head, payload(entry));
}

// Makes the reply of a native call the scenario's.
function keepButton({ reply }) {
  if (!reply) return null;
  const place = el("span.keep");
  const keep = button(
    "Keep in scenario",
    async () => {
      keep.disabled = true;
      try {
        await put(`/api/replies/${encodeURIComponent(reply.name)}`, { text: reply.text });
        const href = `#/scenarios/${encodeURIComponent(reply.name)}`;
        replace(place, el("a", { href }, "Kept as the scenario's reply"));
        place.firstChild.focus();
        await poll();
      } catch (error) {
        keep.disabled = false;
        place.after(errorPanel(error));
      }
    },
    "button.quiet",
    { title: `Make this reply of ${reply.name} the scenario's` },
  );
  return replace(place, keep);
}

function payload(entry) {
  if (entry.kind === "plain") return hint("no argument");
  if (entry.kind === "command" || entry.kind === "text") {
    const count = entry.hex ? entry.hex.split(" ").length : 0;
    const bytes = el("pre.hex", entry.hex);
    return [el(`pre.${entry.kind}`, visible(entry.bytes)), folded(plural(count, "byte"), bytes)];
  }
  const text = pretty(entry.json);
  const json = el("pre.json", visible(text));
  if (text.split("\n").length <= 8) return json;
  const what = entry.kind === "method" ? "released object" : "request";
  return folded(`${what}, ${entry.json.length} characters of JSON`, json);
}

function folded(summary, content) {
  return el("details", el("summary", summary), content);
}

function pretty(text) {
  if (/\d{16}/.test(text)) return text; // JavaScript would round it
  try {
    return JSON.stringify(JSON.parse(text), null, 2);
  } catch {
    return text;
  }
}
