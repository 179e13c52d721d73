// The outcome of a call: its result or exception, its native calls and its log.
import { badge, copyButton, el, hint, menu, note, panel } from "../core/dom.js";
import { duration, visible } from "../core/text.js";
import { callLog, logRecords } from "./call_log.js";
import { copyCode, resultView } from "./result_view.js";

// The outcome of an entry of the last calls.
export function outcome({ id, response: call }, beside = null) {
  const facts = [badge(call.source), note(duration(call.microseconds)), beside];
  const compare = el("a.button.quiet", { href: `#/compare?left=${id}` }, "Compare");
  const shown = call.exception
    ? exceptionPanel(call.exception, facts, [menu("Copy", copyException(call)), compare])
    : resultPanel(call.result, call.function, facts, call.code, [compare]);
  const records = call.log ?? [];
  const aside = records.length ? logRecords(records) : null;
  return [shown, el(aside ? "div.beside" : "div.beside.alone", callLog(call), aside)];
}

// One line about the outcome.
export function outcomeText({ exception, result }) {
  return exception ? `raised ${exception.type}` : `returned ${size(result)}`;
}

export function resultPanel(result, name, facts = [], code = {}, links = []) {
  const { body, tools } = resultView(result, name, code);
  const title = ["Returned ", el("code.type", size(result))];
  const all = [facts, el("span.tools", tools, links)];
  return panel({ label: "Result", kind: "result", title, beside: all }, body);
}

export function exceptionPanel(error, facts = [], tools = null) {
  const title = ["Raised ", el("code.type", error.type)];
  const copied = tools ?? copyButton(() => error.text);
  return panel(
    { label: "Exception", kind: "exception", title, beside: [facts, el("span.tools", copied)] },
    el("p.message", error.message ? visible(error.message) : "without a message"),
    error.traceback.length
      ? [
          el("h3", "Traceback, outermost entry first"),
          el("ol.traceback", error.traceback.map(tracebackEntry)),
        ]
      : hint("The traceback is empty: the interpreter itself rejected the call."),
  );
}

function copyException({ exception, code = {} }) {
  return [copyButton(() => exception.text, "Traceback", "button"), ...copyCode(code)];
}

function tracebackEntry({ function: name, file, line }) {
  return el("li", el("code.function", name), el("span.place", `${file}, line ${line}`));
}

function size({ type, value }) {
  const count = value && typeof value === "object" ? Object.keys(value).length : null;
  return count === null ? type : `${type} of ${count.toLocaleString("en")}`;
}
