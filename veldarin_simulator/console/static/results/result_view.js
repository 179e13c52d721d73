// The body of a result and the tools to view, copy and save it.
import { Digits } from "../core/api.js";
import { button, copyButton, el, menu, replace, segments } from "../core/dom.js";
import { download } from "../core/download.js";
import { jsonView } from "./json_view.js";
import { downloadCSV, isWide, tableView, uprightView } from "./table.js";
import { isScalar, isTable, json, scalarView, tree } from "./values.js";

// `result` has type, repr and value; `code` maps "python", "pytest" and "curl" to texts. Returns
// { body, tools }.
export function resultView(result, name, code = {}) {
  const { value } = result;
  const views = viewsOf(result, name);
  const names = Object.keys(views);
  const body = el("div.view", views[names[0]]());
  const choose = (chosen) => replace(body, views[chosen]());
  const choices = names.map((one) => [one, one]);
  const saved = [
    button("JSON file", () => download(`${name}.json`, `${json(value)}\n`, "application/json")),
    isTable(value) ? button("CSV file", () => downloadCSV(value, name)) : null,
  ];
  const copied = [
    copyButton(() => json(value), "JSON", "button"),
    copyButton(() => result.repr, "Python value", "button"),
    ...copyCode(code),
  ];
  const tools = [
    segments("View", choices, names[0], choose),
    menu("Copy", copied),
    menu("Download", saved),
  ];
  return { body, tools };
}

export function copyCode({ python, pytest, curl }) {
  const texts = { "Python call": python, "pytest test": pytest, "curl command": curl };
  return Object.entries(texts)
    .filter(([, text]) => text)
    .map(([label, text]) => copyButton(() => text, label, "button"));
}

function viewsOf(result, name) {
  const { value } = result;
  const views = {
    Tree: () => (isScalar(value) ? scalarView(result) : tree(value)),
    JSON: () => jsonView(value),
  };
  if (!isTable(value))
    return isScalar(value) && !(value instanceof Digits)
      ? { Value: views.Tree, JSON: views.JSON }
      : views;
  const table = { Table: () => tableView(value, name).element };
  const upright = value.length <= 8 ? { Upright: () => uprightView(value) } : {};
  return isWide(value) ? { ...upright, ...table, ...views } : { ...table, ...upright, ...views };
}
