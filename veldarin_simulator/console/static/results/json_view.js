// JSON in colors; lists and objects fold.
import { Digits } from "../core/api.js";
import { button, el } from "../core/dom.js";
import { escaped, visible } from "../core/text.js";
import { inChunks, isScalar, lazyDetails } from "./values.js";

const OPEN_NODES = 600; // more than these begin folded
const MAX_UNFOLDED = 200;

export function jsonView(value) {
  const body = el("div.json-view", { tabindex: "0", role: "group", "aria-label": "JSON" });
  body.append(withBudget((budget) => line(value, "", "", budget, true)));
  if (isScalar(value)) return body;
  const nodes = () => [...body.querySelectorAll("details")];
  const fold = () =>
    nodes()
      .slice(1)
      .forEach((one) => (one.open = false));
  // Opens one level more, of long results a part of it.
  const unfold = () =>
    nodes()
      .filter((one) => !one.open)
      .slice(0, MAX_UNFOLDED)
      .forEach((one) => (one.open = true));
  const tools = [
    button("Fold all", fold, "button.quiet"),
    button("Unfold", unfold, "button.quiet"),
  ];
  return el("div", el("div.view-tools", tools), body);
}

// Calls `show` with the number of nodes that it may open. A group that opens later has its own.
function withBudget(show) {
  const budget = { left: OPEN_NODES, isUsed: false };
  const shown = show(budget);
  budget.isUsed = true;
  return shown;
}

function line(value, key, comma, budget, isRoot = false) {
  budget.left -= 1;
  const name = key === "" ? null : [el("span.j-key", literal(key)), ": "];
  if (isScalar(value)) return el("div.j-line", name, scalar(value), comma);
  const [open, close] = Array.isArray(value) ? "[]" : "{}";
  const items = Object.entries(value);
  if (!items.length) return el("div.j-line", name, open, close, comma);
  const [last] = items.at(-1);
  const isOpen = isRoot || budget.left >= Math.min(items.length, 100);
  const children = () => [
    el(
      "div.j-children",
      inChunks(items, (part) => {
        const show = (own) =>
          part.map(([key, one]) =>
            line(one, Array.isArray(value) ? "" : key, key === last ? "" : ",", own),
          );
        return budget.isUsed ? withBudget(show) : show(budget);
      }),
    ),
    el("div.j-line", close, comma),
  ];
  const count = `${items.length} ${items.length === 1 ? "item" : "items"}`;
  const summary = el(
    "summary",
    name,
    open,
    el("span.j-count", { "data-count": `${count} ${close}` }),
  );
  return lazyDetails(summary, children, isOpen, "details.j-node");
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
