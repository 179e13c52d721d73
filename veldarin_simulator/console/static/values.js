// Shows values: a list of dictionaries as a table, others as a tree, all as JSON.
import { Digits } from "./api.js";
import { copyButton, el, replace, segments } from "./dom.js";

// The body of a result ({type, repr, value}) and the tools to change its view.
export function resultView(result) {
  const { value } = result;
  const views = {
    Tree: () => (isScalar(value) ? scalarView(result) : tree(value)),
    JSON: () => el("pre.json", { tabindex: "0" }, json(value)),
  };
  const all = isTable(value) ? { Table: () => tableView(value), ...views } : views;
  const names = Object.keys(all);
  const body = el("div", all[names[0]]());
  const choices = names.map((name) => [name, name]);
  const tools = segments("View", choices, names[0], (name) => replace(body, all[name]()));
  return { body, tools: [tools, copyButton(() => json(value))] };
}

export function json(value) {
  return JSON.stringify(value, null, 2);
}

function isTable(value) {
  return Array.isArray(value) && value.length > 0 && value.every(isDictionary);
}

function isDictionary(value) {
  return !isScalar(value) && !Array.isArray(value);
}

function isScalar(value) {
  return value === null || typeof value !== "object" || value instanceof Digits;
}

function scalarView({ type, repr, value }) {
  if (type === "str" && value.includes("\n")) return el("pre.plain-text", { tabindex: "0" }, value);
  return el("p.scalar", el(`code.v-${type}`, repr));
}

function tableView(rows) {
  const region = { role: "region", "aria-label": "Result as a table", tabindex: "0" };
  return el("div.table", region, table(rows));
}

// A row for each dictionary. Nested values follow below their row, at full width.
function table(rows) {
  const columns = [...new Set(rows.flatMap(Object.keys))];
  const flat = columns.filter((column) => rows.every((row) => fitsCell(row[column])));
  const nested = columns.filter((column) => !flat.includes(column));
  const kind = (column) => {
    const numeric = rows.every((row) => isNumber(row[column] ?? 0));
    return numeric && rows.some((row) => isNumber(row[column])) ? ".number" : "";
  };
  const kinds = new Map(flat.map((column) => [column, kind(column)]));
  const cell = (row, column) =>
    el(
      `td${kinds.get(column)}`,
      { "data-label": column },
      column in row ? node(row[column]) : el("span.v-absent", "–"),
    );
  const below = (row, column) => {
    const value = isTable(row[column]) ? table(row[column]) : node(row[column]);
    const colspan = String(Math.max(flat.length, 1));
    return el("tr.below", el("td", { colspan }, el("span.label", column), value));
  };
  const heading = (column) => el(`th${kinds.get(column)}`, { scope: "col" }, column);
  const body = rows.map((row) => [
    el("tr", flat.map((column) => cell(row, column))),
    nested.filter((column) => column in row).map((column) => below(row, column)),
  ]);
  return el("table", el("thead", el("tr", flat.map(heading))), el("tbody", body));
}

function fitsCell(value) {
  return value === undefined || isScalar(value) || (Array.isArray(value) && value.every(isScalar));
}

function isNumber(value) {
  return typeof value === "number" || value instanceof Digits;
}

// A value inside another.
function node(value) {
  if (!isScalar(value)) {
    const flat = Array.isArray(value) && value.length > 0 && value.every(isScalar);
    return flat ? el("span.items", value.map((one) => el("span", node(one)))) : tree(value);
  }
  if (value === null) return el("span.v-none", "None");
  if (typeof value === "boolean") return el(`span.v-${value}`, value ? "True" : "False");
  if (value === "") return el("span.v-empty", '""');
  if (isNumber(value)) return el("span.v-number", value.text ?? String(value));
  return el("span.v-text", markBlanks(value));
}

// Shows white space at both ends as dots.
export function markBlanks(text) {
  const [, before, middle, after] = /^(\s*)(.*?)(\s*)$/s.exec(text);
  const dots = (blanks) => el("span.blank", "·".repeat(blanks.length));
  return [before && dots(before), middle, after && dots(after)];
}

function tree(value) {
  const keyed = !Array.isArray(value);
  const items = Object.entries(value);
  if (!items.length) return el("span.v-empty", keyed ? "{}" : "[]");
  return el(
    keyed ? "dl.tree" : "dl.tree.indexed",
    items.map(([key, one]) => [
      el(isScalar(one) ? "dt" : "dt.nesting", key),
      el(isScalar(one) ? "dd" : "dd.nested", node(one)),
    ]),
  );
}
