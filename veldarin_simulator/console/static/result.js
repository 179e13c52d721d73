// What a call left behind: its result or exception, and the native calls that it made.
import { badge, copyButton, hint, make, panel } from "./dom.js";
import { shownResult } from "./values.js";

export function outcome(called) {
  const beside = [badge(called.source), took(duration(called.microseconds))];
  return called.raised ? raised(called.raised, beside) : returned(called.result, beside);
}

export function returned(result, beside = []) {
  const { body, tools } = shownResult(result);
  return panel(
    {
      label: "Result",
      kind: "result",
      title: ["Returned ", make("code", { class: "type" }, size(result))],
      beside: [beside, make("span", { class: "tools" }, tools)],
    },
    body,
  );
}

export function raised(error, beside = []) {
  const copy = copyButton(() => error.text);
  return panel(
    {
      label: "Exception",
      kind: "raised",
      title: ["Raised ", make("code", { class: "type" }, error.type)],
      beside: [beside, make("span", { class: "tools" }, copy)],
    },
    make("p", { class: "message" }, error.message || "without a message"),
    error.traceback.length
      ? [
          make("h3", {}, "Traceback, outermost first"),
          make("ol", { class: "traceback" }, error.traceback.map(tracebackEntry)),
        ]
      : hint("No traceback entry: the interpreter itself refused the call."),
  );
}

function tracebackEntry(entry) {
  return make(
    "li",
    {},
    make("code", { class: "function" }, entry.function),
    make("span", { class: "place" }, `${entry.file}, line ${entry.line}`),
  );
}

export function journal(called) {
  const steps = called.journal.map(step);
  const count = steps.length === 1 ? "1 crossing" : `${steps.length} crossings`;
  return panel(
    {
      label: "Native calls",
      kind: "journal",
      title: "Native calls",
      beside: steps.length ? took(count) : null,
    },
    called.failed_answers
      ? make("p", { class: "message" }, `The stand-in could not answer: ${called.failed_answers}`)
      : null,
    steps.length
      ? make("ol", { class: "steps" }, steps)
      : make("p", { class: "empty small" }, "This call asked no native service."),
  );
}

function step(entry) {
  const method = entry.kind === "method";
  const source = entry.source === "none" ? "no answer" : entry.source;
  return make(
    "li",
    { class: `step step-${entry.kind}` },
    make(
      "div",
      { class: "what" },
      make("code", {}, entry.service),
      method ? badge("method table") : badge(source),
    ),
    payload(entry),
  );
}

function payload(entry) {
  if (entry.kind === "plain") return hint("is given nothing");
  if (entry.kind === "command" || entry.kind === "text") {
    const count = entry.hex ? entry.hex.split(" ").length : 0;
    return [
      make("pre", { class: entry.kind }, entry.bytes),
      folded(count === 1 ? "1 byte" : `${count} bytes`, make("pre", { class: "hex" }, entry.hex)),
    ];
  }
  const text = pretty(entry.json);
  const shown = make("pre", { class: "json" }, text);
  if (text.split("\n").length <= 8) return shown;
  const what = entry.kind === "method" ? "gives up its object" : "request";
  return folded(`${what}, ${entry.json.length} characters of JSON`, shown);
}

function folded(summary, shown) {
  return make("details", {}, make("summary", {}, summary), shown);
}

function pretty(text) {
  if (/\d{16}/.test(text)) return text; // this language would round it
  try {
    return JSON.stringify(JSON.parse(text), null, 2);
  } catch {
    return text;
  }
}

export function took(text) {
  return make("span", { class: "took" }, text);
}

function size({ type, value }) {
  const count = value && typeof value === "object" ? Object.keys(value).length : null;
  return count === null ? type : `${type} of ${count}`;
}

function duration(microseconds) {
  if (microseconds < 1000) return `${Math.round(microseconds)} µs`;
  return `${(microseconds / 1000).toFixed(1)} ms`;
}
