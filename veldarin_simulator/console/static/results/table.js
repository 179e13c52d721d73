// A list of dictionaries as a table: sorted, filtered, with chosen columns.
import { Digits } from "../core/api.js";
import { button, debounce, el, field, menu, replace } from "../core/dom.js";
import { csv, download } from "../core/download.js";
import { plural, visible } from "../core/text.js";
import { appendRows, tableBlocks } from "./rows.js";
import { isFlat, isNumber, isTable, node, plainText } from "./values.js";

const MAX_AUTO_ROWS = 150; // longer tables have columns of fixed width, which do not jump
const collator = new Intl.Collator("en", { numeric: true });

// The choices of a reader by the name of the table: the next result of the function keeps them.
const choices = new Map();

export function columnsOf(rows) {
  return [...new Set(rows.flatMap(Object.keys))];
}

// Whether a table is easier to read with its columns as rows.
export function isWide(rows) {
  return rows.length <= 3 && columnsOf(rows).length > 7;
}

// Returns { element, csv() }.
export function tableView(rows, name) {
  const columns = columnsOf(rows);
  const kept = choices.get(name) ?? { hidden: new Set(), sort: null, descending: false };
  choices.set(name, kept);
  const state = { filter: "", stop: () => {}, rows };
  const flat = new Set(columns.filter((column) => rows.every((row) => isFlat(row[column]))));
  const kinds = new Map(columns.map((column) => [column, isNumeric(rows, column)]));
  const texts = new Map(); // made when the filter is first used
  const table = el("table.stacked-rows");
  const region = el(
    "div.table",
    { role: "region", "aria-label": "Result as a table", tabindex: "0" },
    table,
  );
  const count = el("span.note", { role: "status" });

  const shownColumns = () => columns.filter((column) => !kept.hidden.has(column));
  const matches = (row) => {
    if (!texts.has(row)) texts.set(row, plainText(row).toLowerCase());
    return state.filter.split(/\s+/).every((word) => texts.get(row).includes(word));
  };
  const draw = () => {
    state.stop();
    const shown = shownColumns();
    state.rows = state.filter ? rows.filter(matches) : [...rows];
    if (kept.sort !== null) sortRows(state.rows, kept.sort, kept.descending);
    const own = shown.filter((column) => flat.has(column));
    const nested = shown.filter((column) => !flat.has(column));
    const isFixed = rows.length > MAX_AUTO_ROWS;
    table.classList.toggle("fixed", isFixed);
    const head = el(
      "thead",
      el(
        "tr",
        own.map((column) => heading(column, kept, kinds, sortBy)),
      ),
    );
    replace(table, isFixed ? columnWidths(table, rows, own) : null, own.length ? head : null);
    const render = (row, index) => rowElements(row, index, own, nested, kinds);
    const blocks = tableBlocks(Math.max(own.length, 1));
    table.setAttribute("aria-rowcount", String(state.rows.length + 1));
    state.stop = appendRows(table, region, state.rows, { ...blocks, render });
    count.textContent = state.filter
      ? `${state.rows.length.toLocaleString("en")} of ${plural(rows.length, "row")}`
      : plural(rows.length, "row");
    region.classList.toggle("nothing", state.rows.length === 0);
  };
  const sortBy = (column) => {
    if (kept.sort !== column) Object.assign(kept, { sort: column, descending: false });
    else if (!kept.descending) kept.descending = true;
    else kept.sort = null;
    draw();
    const index = shownColumns()
      .filter((one) => flat.has(one))
      .indexOf(column);
    table.querySelectorAll("thead button")[index]?.focus();
  };
  const filter = field("Filter the rows", {
    type: "search",
    placeholder: "Filter rows",
    input: debounce(() => {
      state.filter = filter.value.trim().toLowerCase();
      draw();
    }, 80),
  });
  const tools = el("div.view-tools", filter, count, columnMenu(columns, kept, draw));
  const isSmall = rows.length < 4 && columns.length < 8;
  const element = el("div", isSmall ? null : tools, region);
  if (isSmall) draw();
  else queueMicrotask(draw); // rows have no height before the table is on the page
  return { element, csv: () => csv(shownColumns(), tableCells(state.rows, shownColumns())) };
}

export function downloadCSV(rows, name) {
  const columns = columnsOf(rows);
  download(`${name}.csv`, csv(columns, tableCells(rows, columns)), "text/csv");
}

// Few rows with many columns: a column for each row.
export function uprightView(rows) {
  const columns = columnsOf(rows);
  const cell = (row, column) =>
    el("td", column in row ? value(row[column]) : el("span.v-absent", "–"));
  return el(
    "div.table.upright",
    { role: "region", "aria-label": "Result upright", tabindex: "0" },
    el(
      "table",
      el(
        "tbody",
        columns.map((column) =>
          el(
            "tr",
            el("th", { scope: "row" }, visible(column)),
            rows.map((row) => cell(row, column)),
          ),
        ),
      ),
    ),
  );
}

function tableCells(rows, columns) {
  return rows.map((row) => columns.map((column) => row[column]));
}

function value(one) {
  return isTable(one) ? innerTable(one) : node(one);
}

function innerTable(rows) {
  const columns = columnsOf(rows);
  const cell = (row, column) =>
    el(
      "td",
      { "data-label": column },
      column in row ? value(row[column]) : el("span.v-absent", "–"),
    );
  return el(
    "table",
    el(
      "thead",
      el(
        "tr",
        columns.map((column) => el("th", { scope: "col" }, visible(column))),
      ),
    ),
    el(
      "tbody",
      rows.map((row) =>
        el(
          "tr",
          columns.map((column) => cell(row, column)),
        ),
      ),
    ),
  );
}

function heading(column, kept, kinds, sortBy) {
  const direction = kept.sort === column ? (kept.descending ? "descending" : "ascending") : "none";
  const attributes = { scope: "col", "aria-sort": direction };
  const label = [visible(column), el("span.sort-mark", { "aria-hidden": "true" })];
  return el(
    `th${kinds.get(column) ? ".number" : ""}`,
    attributes,
    button(label, () => sortBy(column), "button.sort"),
  );
}

function rowElements(row, index, own, nested, kinds) {
  const cell = (column) =>
    el(
      kinds.get(column) ? "td.number" : "td",
      { "data-label": column },
      column in row ? node(row[column]) : el("span.v-absent", "–"),
    );
  const below = (column) => {
    const colspan = String(Math.max(own.length, 1));
    const label = el("span.label", visible(column));
    return el("tr.below", el("td", { colspan }, label, value(row[column])));
  };
  const rest = nested.filter((column) => column in row).map(below);
  return [el("tr", { "aria-rowindex": String(index + 2) }, own.map(cell)), ...rest];
}

function columnMenu(columns, kept, draw) {
  const boxes = columns.map((column) => {
    const box = el("input", { type: "checkbox", checked: !kept.hidden.has(column) });
    box.addEventListener("change", () => {
      kept.hidden[box.checked ? "delete" : "add"](column);
      draw();
    });
    return el("label.check", box, el("code", visible(column)));
  });
  return menu("Columns", boxes);
}

// Widths from the longest of some texts, so that rows that are rendered later fit.
function columnWidths(table, rows, columns) {
  const step = Math.ceil(rows.length / 500);
  const sample = rows.filter((_, index) => index % step === 0);
  const widths = columns.map((column) => {
    const longest = Math.max(...sample.map((row) => plainText(row[column]).length));
    return Math.min(Math.max(longest, column.length + 2, 6), 40) + 4;
  });
  const total = widths.reduce((sum, width) => sum + width, 0);
  table.style.minWidth = `${total}ch`;
  return el(
    "colgroup",
    widths.map((width) => {
      const column = el("col");
      column.style.width = `${(100 * width) / total}%`;
      return column;
    }),
  );
}

function isNumeric(rows, column) {
  let found = false;
  for (const row of rows) {
    const one = row[column] ?? null;
    if (one === null) continue;
    if (!isNumber(one)) return false;
    found = true;
  }
  return found;
}

// Rows without the value come last in both directions.
function sortRows(rows, column, descending) {
  const keys = new Map(rows.map((row) => [row, sortKey(row[column])]));
  const sign = descending ? -1 : 1;
  rows.sort((a, b) => {
    const [first, second] = [keys.get(a), keys.get(b)];
    if (first === null || second === null) return (first === null) - (second === null);
    const bothNumbers = typeof first !== "string" && typeof second !== "string";
    if (bothNumbers) return sign * (first < second ? -1 : first > second ? 1 : 0);
    return sign * collator.compare(String(first), String(second));
  });
}

function sortKey(one) {
  if (one === null || one === undefined) return null;
  if (one instanceof Digits) return BigInt(one.text);
  if (typeof one === "number" || typeof one === "string") return one;
  return plainText(one);
}
