// The outcome of a call: its result or exception, and its native calls.
import { badge, copyButton, el, hint, panel } from "./dom.js";
import { resultView } from "./values.js";

export function outcome(call) {
  const beside = [badge(call.source), note(duration(call.microseconds))];
  return call.exception ? exceptionPanel(call.exception, beside) : resultPanel(call.result, beside);
}

export function resultPanel(result, beside = []) {
  const { body, tools } = resultView(result);
  const title = ["Returned ", el("code.type", size(result))];
  const all = [beside, el("span.tools", tools)];
  return panel({ label: "Result", kind: "result", title, beside: all }, body);
}

export function exceptionPanel(error, beside = []) {
  const title = ["Raised ", el("code.type", error.type)];
  const all = [beside, el("span.tools", copyButton(() => error.text))];
  return panel(
    { label: "Exception", kind: "exception", title, beside: all },
    el("p.message", error.message || "without a message"),
    error.traceback.length
      ? [
          el("h3", "Traceback, outermost entry first"),
          el("ol.traceback", error.traceback.map(tracebackEntry)),
        ]
      : hint("The traceback is empty: the interpreter itself rejected the call."),
  );
}

function tracebackEntry({ function: name, file, line }) {
  return el("li", el("code.function", name), el("span.place", `${file}, line ${line}`));
}

export function callLog(call) {
  const steps = call.call_log.map(step);
  const title = "Native calls";
  const count = steps.length === 1 ? "1 call" : `${steps.length} calls`;
  return panel(
    { label: title, kind: "call-log", title, beside: steps.length ? note(count) : null },
    call.simulator_error ? el("p.message", `The simulator failed: ${call.simulator_error}`) : null,
    steps.length
      ? el("ol.steps", steps)
      : el("p.empty.small", "The function made no native call."),
  );
}

function step(entry) {
  const source = entry.source === "none" ? "no reply" : entry.source;
  const label = badge(entry.kind === "method" ? "method table" : source);
  const head = el("div.head", el("code", entry.service), label);
  return el(`li.step.step-${entry.kind}`, head, payload(entry));
}

function payload(entry) {
  if (entry.kind === "plain") return hint("no argument");
  if (entry.kind === "command" || entry.kind === "text") {
    const count = entry.hex ? entry.hex.split(" ").length : 0;
    const summary = count === 1 ? "1 byte" : `${count} bytes`;
    return [el(`pre.${entry.kind}`, entry.bytes), folded(summary, el("pre.hex", entry.hex))];
  }
  const text = pretty(entry.json);
  const json = el("pre.json", text);
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

export function note(text) {
  return el("span.note", text);
}

function size({ type, value }) {
  const count = value && typeof value === "object" ? Object.keys(value).length : null;
  return count === null ? type : `${type} of ${count}`;
}

function duration(microseconds) {
  if (microseconds < 1000) return `${Math.round(microseconds)} µs`;
  return `${(microseconds / 1000).toFixed(1)} ms`;
}
