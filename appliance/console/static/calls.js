// What a call left behind: its result or exception, and the native calls that it made.
import { badge, copyButton, make } from "./dom.js";
import { shownResult } from "./values.js";

export function outcome(called) {
  const about = [badge(called.source), make("span", { class: "took" }, duration(called.microseconds))];
  return called.raised ? raised(called.raised, about) : returned(called.result, about);
}

export function returned(result, about = []) {
  const { body, tools } = shownResult(result);
  return make(
    "section",
    { class: "panel result", "aria-label": "Result" },
    make(
      "header",
      {},
      make("h2", {}, "Returned ", make("code", { class: "type" }, size(result))),
      ...about,
      make("span", { class: "tools" }, tools),
    ),
    body,
  );
}

export function raised(error, about = []) {
  const entries = error.traceback.map((entry) =>
    make(
      "li",
      {},
      make("code", { class: "function" }, entry.function),
      make("span", { class: "place" }, `${entry.file}, line ${entry.line}`),
    ),
  );
  return make(
    "section",
    { class: "panel raised", "aria-label": "Exception" },
    make(
      "header",
      {},
      make("h2", {}, "Raised ", make("code", { class: "type" }, error.type)),
      ...about,
      make("span", { class: "tools" }, copyButton(() => error.text)),
    ),
    make("p", { class: "message" }, error.message || "without a message"),
    entries.length
      ? [make("h3", {}, "Traceback, outermost first"), make("ol", { class: "traceback" }, entries)]
      : make("p", { class: "hint" }, "No traceback entry: the interpreter itself refused the call."),
  );
}

export function journal(called) {
  const steps = called.journal.map((entry) =>
    make(
      "li",
      { class: `step step-${entry.kind}` },
      make(
        "div",
        { class: "what" },
        make("code", {}, entry.service),
        entry.kind === "method"
          ? make("span", { class: "badge badge-method" }, "method table")
          : badge(entry.source === "none" ? "no answer" : entry.source),
      ),
      payload(entry),
    ),
  );
  const count = steps.length === 1 ? "1 crossing" : `${steps.length} crossings`;
  return make(
    "section",
    { class: "panel journal", "aria-label": "Native calls" },
    make("header", {}, make("h2", {}, "Native calls"), make("span", { class: "took" }, steps.length ? count : "")),
    called.failed_answers
      ? make("p", { class: "message" }, `The stand-in could not answer: ${called.failed_answers}`)
      : null,
    steps.length
      ? make("ol", { class: "steps" }, steps)
      : make("p", { class: "empty small" }, "This call asked no native service."),
  );
}

function payload(entry) {
  if (entry.kind === "plain") return make("p", { class: "hint" }, "is given nothing");
  if (entry.kind === "command" || entry.kind === "text") {
    const count = entry.hex ? entry.hex.split(" ").length : 0;
    return [
      make("pre", { class: entry.kind }, entry.bytes),
      make(
        "details",
        {},
        make("summary", {}, count === 1 ? "1 byte" : `${count} bytes`),
        make("pre", { class: "hex" }, entry.hex),
      ),
    ];
  }
  const text = pretty(entry.json);
  const shown = make("pre", { class: "json" }, text);
  if (text.split("\n").length <= 8) return shown;
  const label = entry.kind === "method" ? "gives up its object" : "request";
  return make("details", {}, make("summary", {}, `${label}, ${entry.json.length} characters of JSON`), shown);
}

function pretty(text) {
  if (/\d{16}/.test(text)) return text; // this language would round it
  try {
    return JSON.stringify(JSON.parse(text), null, 2);
  } catch {
    return text;
  }
}

function size({ type, value }) {
  const count = value && typeof value === "object" ? Object.keys(value).length : null;
  return count === null ? type : `${type} of ${count}`;
}

export function duration(microseconds) {
  return microseconds < 1000 ? `${Math.round(microseconds)} µs` : `${(microseconds / 1000).toFixed(1)} ms`;
}
