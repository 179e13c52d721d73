// Compare: two calls or two captures side by side, with their differences marked.
import { isLate, post } from "../core/api.js";
import { button, el, emptyState, note, pageTitle, panel, replace } from "../core/dom.js";
import { errorPanel } from "../core/errors.js";
import { addRecent, findRecent, recent } from "../core/recent.js";
import { runVisibly } from "../core/running.js";
import { clock, plural, visible } from "../core/text.js";
import { acceptDrop, fileButton, readText } from "../parse/files.js";
import { addParse, parse } from "../parse/section.js";
import { outcomeText } from "../results/outcome.js";
import { appendRows, DIV_BLOCKS, tableBlocks } from "../results/rows.js";
import { node } from "../results/values.js";
import { diffLines, diffValues } from "./diff.js";

const SUMMARY = "Two calls or two captures side by side; differences are marked.";
const SIDES = ["left", "right"];
let onlyDifferences = false;

export function show(page, { parameters, place }) {
  document.title = "Compare · Console";
  const work = el("main.single", { id: "work", tabindex: "-1" });
  page.replaceChildren(work);
  const chosen = chooseEntries(parameters);
  const output = el("div.output");
  const select = (side, entry) => {
    chosen[side] = entry;
    const query = new URLSearchParams();
    for (const one of SIDES) if (chosen[one]) query.set(one, chosen[one].id);
    history.replaceState(history.state, "", `#/compare?${query}`);
    draw();
  };
  const draw = () => {
    const sides = SIDES.map((side) =>
      sidePanel(side, chosen[side], (entry) => select(side, entry), place),
    );
    replace(work, pageTitle("Compare", SUMMARY), el("div.sides", sides), output);
    const isComplete = chosen.left && chosen.right;
    replace(output, isComplete ? comparison(chosen.left, chosen.right) : needTwo());
  };
  draw();
}

// The entries of the address; the other side is the last one of the same function.
function chooseEntries(parameters) {
  const [left, right] = SIDES.map((side) => {
    const entry = findRecent(parameters.get(side));
    return entry?.response ? entry : null;
  });
  if (right || !left) return { left, right };
  const other = recent().find(
    (one) => one.response && one.id !== left.id && one.name === left.name,
  );
  if (!other) return { left, right: null };
  return other.at < left.at ? { left: other, right: left } : { left, right: other };
}

function needTwo() {
  return emptyState(
    "Choose two.",
    "Calls and captures of this window are listed once they are made.",
  );
}

function sidePanel(side, entry, choose, place) {
  const title = side === "left" ? "Left" : "Right";
  const errors = el("div");
  const guard = async (action) => {
    try {
      const made = await action();
      if (made) choose(made);
    } catch (error) {
      if (!isLate(error)) replace(errors, errorPanel(error));
    }
  };
  const open = (file) =>
    guard(async () => {
      const parsed = await parse(await readText(file), "auto", errors, place);
      return parsed && addParse(parsed, file.name);
    });
  const again = () =>
    guard(async () => {
      const path = `/api/functions/${entry.name}`;
      const response = await runVisibly(errors, place, (signal) => post(path, entry.body, signal));
      return response && addRecent({ ...entry, response, outcome: outcomeText(response) });
    });
  const options = recent()
    .filter((one) => one.response)
    .map((one) =>
      el(
        "option",
        { value: one.id, selected: one.id === entry?.id },
        `${one.label} – ${clock(one.at)}, ${one.outcome}`,
      ),
    );
  const select = el(
    "select",
    { "aria-label": `${title} side`, change: () => choose(findRecent(select.value)) },
    el("option", { value: "" }, "Choose a call or capture"),
    options,
  );
  const element = panel(
    { label: `${title} side`, title, kind: "side" },
    select,
    el(
      "div.actions",
      entry?.kind === "call" ? button("Call again", again, "button.quiet") : null,
      fileButton("Open a capture", "text/*,.log,.txt", open),
    ),
    errors,
  );
  acceptDrop(element, open);
  return element;
}

function comparison(left, right) {
  const [a, b] = [left.response, right.response];
  const rows = diffValues(comparable(a), comparable(b));
  const different = rows.filter((row) => row.kind !== "same");
  const box = el("input", { type: "checkbox", checked: onlyDifferences });
  const place = el("div");
  const draw = () => {
    onlyDifferences = box.checked;
    replace(place, valueTable(onlyDifferences ? different : rows, left, right));
  };
  box.addEventListener("change", draw);
  draw();
  const summary = different.length ? plural(different.length, "difference") : "no differences";
  const values = panel(
    {
      label: "Values",
      title: "Values",
      kind: "comparison",
      beside: [note(summary), el("span.tools", el("label.check", box, "Only differences"))],
    },
    place,
  );
  const haveText = a.lines && b.lines;
  return [values, haveText ? textPanel(a.lines, b.lines) : null];
}

// Returns the part of a response that is compared: of an exception its type and message.
function comparable({ exception, result }) {
  return exception ? { exception: exception.type, message: exception.message } : result.value;
}

function titleOf({ label, at }) {
  return `${label}, ${clock(at)}`;
}

const MARKS = { same: "", changed: "≠", left: "−", right: "+" };
const WORDS = { same: "same", changed: "changed", left: "only left", right: "only right" };

function valueTable(rows, left, right) {
  if (!rows.length) return el("p.empty.small", "Both are equal.");
  const table = el(
    "table",
    el(
      "thead",
      el(
        "tr",
        ["", "Value", titleOf(left), titleOf(right)].map((one, index) =>
          el(
            "th",
            { scope: "col" },
            index ? visible(one) : el("span.visually-hidden", "Difference"),
          ),
        ),
      ),
    ),
  );
  const region = el(
    "div.table",
    { role: "region", "aria-label": "Compared values", tabindex: "0" },
    table,
  );
  const render = ({ path, kind, left: a, right: b }) =>
    el(
      `tr.diff-${kind}`,
      el("td.mark", { title: WORDS[kind] }, MARKS[kind], el("span.visually-hidden", WORDS[kind])),
      el("th", { scope: "row" }, visible(path || "value")),
      el("td.left", a === undefined ? "" : node(a)),
      el("td.right", b === undefined ? "" : node(b)),
    );
  queueMicrotask(() => appendRows(table, region, rows, { ...tableBlocks(4), render }));
  return region;
}

function textPanel(a, b) {
  const pairs = diffLines(a.map(trimmed), b.map(trimmed));
  const count = pairs.filter(([one, other]) => one?.[1] !== other?.[1]).length;
  const region = el("div.lines.text-diff", {
    role: "region",
    "aria-label": "Compared lines",
    tabindex: "0",
  });
  const side = (line) => [
    el("span.number", line ? String(line[0]) : ""),
    el("pre", line ? visible(line[1]) || " " : " "),
  ];
  const render = ([one, other]) => {
    const isSame = one?.[1] === other?.[1];
    const kind = isSame ? "same" : one && other ? "changed" : one ? "left" : "right";
    const word = el("span.visually-hidden", isSame ? "" : WORDS[kind]);
    return el(`div.pair.diff-${kind}`, word, side(one), side(other));
  };
  queueMicrotask(() => appendRows(region, region, pairs, { ...DIV_BLOCKS, render }));
  const summary = count ? plural(count, "different line") : "the same text";
  return panel({ label: "Text", title: "Text", beside: note(summary) }, region);
}

function trimmed(line) {
  return line.replace(/\r$/, "");
}
