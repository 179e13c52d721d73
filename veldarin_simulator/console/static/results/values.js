// Shows single values and trees of them.
import { Digits } from "../core/api.js";
import { el } from "../core/dom.js";
import { markBlanks, visible } from "../core/text.js";

const CHUNK = 100;

export function json(value) {
  return JSON.stringify(value, null, 2);
}

export function isTable(value) {
  return Array.isArray(value) && value.length > 0 && value.every(isDictionary);
}

export function isDictionary(value) {
  return !isScalar(value) && !Array.isArray(value);
}

export function isScalar(value) {
  return value === null || typeof value !== "object" || value instanceof Digits;
}

export function isNumber(value) {
  return typeof value === "number" || value instanceof Digits;
}

// Whether a value fits a cell of a table.
export function isFlat(value) {
  return value === undefined || isScalar(value) || (Array.isArray(value) && value.every(isScalar));
}

// The text of a value, as a filter sees it.
export function plainText(value) {
  if (value === undefined) return "";
  if (value === null) return "None";
  if (typeof value === "boolean") return value ? "True" : "False";
  if (value instanceof Digits) return value.text;
  if (typeof value === "object") return Object.values(value).map(plainText).join(" ");
  return String(value);
}

export function scalarView({ type, repr, value }) {
  if (type === "str" && value.includes("\n")) {
    return el("pre.plain-text", { tabindex: "0" }, visible(value));
  }
  return el("p.scalar", el(`code.v-${type}`, visible(repr)));
}

// A value inside another.
export function node(value) {
  if (!isScalar(value)) {
    const flat = Array.isArray(value) && value.length > 0 && value.every(isScalar);
    return flat
      ? el(
          "span.items",
          value.map((one) => el("span", node(one))),
        )
      : tree(value);
  }
  if (value === null) return el("span.v-none", "None");
  if (typeof value === "boolean") return el(`span.v-${value}`, value ? "True" : "False");
  if (value === "") return el("span.v-empty", '""');
  if (isNumber(value)) return el("span.v-number", value.text ?? String(value));
  return el("span.v-text", markBlanks(value));
}

export function tree(value) {
  const items = Object.entries(value);
  if (!items.length) return el("span.v-empty", Array.isArray(value) ? "[]" : "{}");
  return el(
    "div.chunks",
    inChunks(items, (part) => branch(part, Array.isArray(value))),
  );
}

function branch(items, isIndexed) {
  return el(
    isIndexed ? "dl.tree.indexed" : "dl.tree",
    items.map(([key, one]) => [
      el(isScalar(one) ? "dt" : "dt.nesting", visible(key)),
      el(isScalar(one) ? "dd" : "dd.nested", node(one)),
    ]),
  );
}

// Shows many items as closed groups, which are filled when they are opened.
export function inChunks(items, show) {
  if (items.length <= CHUNK) return show(items);
  const starts = Array.from({ length: Math.ceil(items.length / CHUNK) }, (_, i) => i * CHUNK);
  return starts.map((start) => {
    const part = items.slice(start, start + CHUNK);
    const title = `${start} to ${start + part.length - 1}`;
    return lazyDetails(el("summary", title), () => show(part), start === 0, "details.chunk");
  });
}

// A <details> whose content is made when it is opened for the first time.
export function lazyDetails(summary, content, isOpen, selector = "details") {
  const details = el(selector, { open: isOpen }, summary);
  const fill = () => {
    if (details.open && details.children.length === 1) details.append(...[content()].flat());
  };
  fill();
  details.addEventListener("toggle", fill);
  return details;
}
