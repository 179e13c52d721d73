// Values that came back: a table where they are a list of dictionaries, a tree otherwise, and JSON.
import { Digits } from "./api.js";
import { copyButton, make, replace, segments } from "./dom.js";

// A result of the interface ({type, repr, value}) with its ways to be seen.
export function shownResult(result) {
  const { value } = result;
  const views = { json: () => make("pre", { class: "json", tabindex: "0" }, json(value)) };
  let first = "tree";
  if (isTable(value)) {
    views.table = () => table(value);
    first = "table";
  }
  views.tree = () => (scalar(value) ? alone(result) : tree(value));
  const body = make("div", { class: "seen" }, views[first]());
  const labels = [["table", "Table"], ["tree", "Tree"], ["json", "JSON"]];
  const choices = labels.filter(([name]) => views[name]).map(([name, label]) => [label, name]);
  const see = (name) => replace(body, views[name]());
  const ways = segments("How to see the result", choices, first, see);
  return { body, tools: [ways, copyButton(() => json(value))] };
}

export function json(value) {
  return JSON.stringify(value, null, 2);
}

export function isTable(value) {
  return Array.isArray(value) && value.length > 0 && value.every(isDictionary);
}

function isDictionary(value) {
  return !scalar(value) && !Array.isArray(value);
}

function scalar(value) {
  return value === null || typeof value !== "object" || value instanceof Digits;
}

// A single value fills the place: text with lines as text, everything else as Python writes it.
function alone({ type, repr, value }) {
  if (type === "str" && value.includes("\n")) {
    return make("pre", { class: "output", tabindex: "0" }, value);
  }
  return make("p", { class: "alone" }, make("code", { class: `v-${type}` }, repr));
}

// A row for each dictionary. What is nested in one stands below its row, over the whole width.
export function table(rows) {
  return make(
    "div",
    { class: "table", role: "region", "aria-label": "Result as a table", tabindex: "0" },
    grid(rows),
  );
}

function grid(rows) {
  const columns = [...new Set(rows.flatMap(Object.keys))];
  const flat = columns.filter((column) => rows.every((row) => inLine(row[column])));
  const deep = columns.filter((column) => !flat.includes(column));
  const numeric = flat.filter(
    (column) =>
      rows.some((row) => number(row[column])) && rows.every((row) => number(row[column] ?? 0)),
  );
  const side = (column) => (numeric.includes(column) ? "number" : null);
  const cell = (row, column) =>
    make(
      "td",
      { "data-label": column, class: side(column) },
      column in row ? leaf(row[column]) : make("span", { class: "v-absent" }, "–"),
    );
  const below = (row) =>
    deep
      .filter((column) => column in row)
      .map((column) =>
        make(
          "tr",
          { class: "below" },
          make(
            "td",
            { colspan: String(Math.max(flat.length, 1)) },
            make("span", { class: "label" }, column),
            isTable(row[column]) ? grid(row[column]) : leaf(row[column]),
          ),
        ),
      );
  const heading = (column) => make("th", { scope: "col", class: side(column) }, column);
  return make(
    "table",
    {},
    make("thead", {}, make("tr", {}, flat.map(heading))),
    make(
      "tbody",
      {},
      rows.map((row) => [make("tr", {}, flat.map((column) => cell(row, column))), below(row)]),
    ),
  );
}

// Whether a value has room in a cell.
function inLine(value) {
  return value === undefined || scalar(value) || (Array.isArray(value) && value.every(scalar));
}

function number(value) {
  return typeof value === "number" || value instanceof Digits;
}

// A value inside of another: scalars as they are, the rest one level further in.
function leaf(value) {
  if (!scalar(value)) {
    const listed = Array.isArray(value) && value.length > 0 && value.every(scalar);
    if (!listed) return tree(value);
    return make("span", { class: "listed" }, value.map((one) => make("span", {}, leaf(one))));
  }
  if (value === null) return make("span", { class: "v-none" }, "None");
  if (value === true || value === false) {
    return make("span", { class: `v-bool v-${value}` }, value ? "True" : "False");
  }
  if (value === "") return make("span", { class: "v-empty" }, '""');
  if (number(value)) return make("span", { class: "v-number" }, value.text ?? String(value));
  return make("span", { class: "v-text" }, spaced(value));
}

// Blanks at the ends of a text can be seen.
export function spaced(text) {
  const [, before, middle, after] = /^(\s*)(.*?)(\s*)$/s.exec(text);
  const dots = (blanks) => make("span", { class: "blank" }, "·".repeat(blanks.length));
  return [before && dots(before), middle, after && dots(after)];
}

export function tree(value) {
  if (scalar(value)) return leaf(value);
  const keyed = !Array.isArray(value);
  const items = keyed ? Object.entries(value) : value.map((one, place) => [`${place}`, one]);
  if (!items.length) {
    const empty = keyed ? "{}  an empty dictionary" : "[]  an empty list";
    return make("span", { class: "v-empty" }, empty);
  }
  return make(
    "dl",
    { class: keyed ? "tree" : "tree places" },
    items.map(([key, one]) => [
      make("dt", { class: scalar(one) ? null : "nesting" }, key),
      make("dd", { class: scalar(one) ? null : "nested" }, leaf(one)),
    ]),
  );
}
