// JSON in colors; lists and objects fold.
import { Digits } from "../core/api.js";
import { button, el } from "../core/dom.js";
import { escaped, visible } from "../core/text.js";
import { inChunks, isScalar, lazyDetails } from "./values.js";

const OPEN_NODES = 400; // more than these begin folded

export function jsonView(value) {
  const budget = { left: OPEN_NODES };
  const body = el("div.json-view", { tabindex: "0", role: "group", "aria-label": "JSON" });
  body.append(line(value, "", "", budget, true));
  if (isScalar(value)) return body;
  const fold = (open) => {
    const all = [...body.querySelectorAll("details")];
    // The outermost stays open; opening fills one level more each time.
    for (const one of all) one.open = open || one === all[0];
  };
  const tools = el("div.view-tools", button("Fold all", () => fold(false), "button.quiet"),
    button("Unfold", () => fold(true), "button.quiet"));
  return el("div", tools, body);
}

function line(value, key, comma, budget, isRoot = false) {
  budget.left -= 1;
  const name = key === "" ? null : [el("span.j-key", literal(key)), ": "];
  if (isScalar(value)) return el("div.j-line", name, scalar(value), comma);
  const [open, close] = Array.isArray(value) ? "[]" : "{}";
  const items = Object.entries(value);
  if (!items.length) return el("div.j-line", name, open, close, comma);
  const isOpen = isRoot || budget.left >= Math.min(items.length, 100);
  const children = () => [
    el("div.j-children", inChunks(items, (part) => part.map((item) => child(item, value, budget)))),
    el("div.j-line", close, comma),
  ];
  const count = `${items.length} ${items.length === 1 ? "item" : "items"}`;
  const summary = el("summary", name, open, el("span.j-count", { "data-count": `${count} ${close}` }));
  return lazyDetails(summary, children, isOpen, "details.j-node");
}

function child([key, one], parent, budget) {
  const isList = Array.isArray(parent);
  const last = isList ? Number(key) === parent.length - 1 : key === Object.keys(parent).at(-1);
  return line(one, isList ? "" : key, last ? "" : ",", budget);
}

function scalar(value) {
  if (typeof value === "string") return el("span.j-text", literal(value));
  if (value instanceof Digits) return el("span.j-number", value.text);
  return el(typeof value === "number" ? "span.j-number" : "span.j-word", String(value));
}

// JSON leaves most hidden characters as they are.
function literal(text) {
  return visible(JSON.stringify(text).replace(/[\u007f-\u009f]/g, escaped));
}
