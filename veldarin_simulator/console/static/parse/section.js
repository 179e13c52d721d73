// Parses command output and shows beside each line the values that came from it.
import { isLate, post } from "../core/api.js";
import {
  announce,
  area,
  button,
  el,
  emptyState,
  note,
  pageTitle,
  panel,
  replace,
  segments,
} from "../core/dom.js";
import { errorPanel } from "../core/errors.js";
import { addRecent } from "../core/recent.js";
import { runVisibly } from "../core/running.js";
import { markBlanks, plural, visible, withEscapes } from "../core/text.js";
import { exceptionPanel, resultPanel } from "../results/outcome.js";
import { appendRows, DIV_BLOCKS } from "../results/rows.js";
import { json } from "../results/values.js";
import { acceptDrop, fileButton, readText } from "./files.js";
import { KINDS } from "./samples.js";

const SUMMARY = "Run the module's parser on device output and trace each value to its line.";

// Lasts until the page is reloaded.
const input = { kind: "auto", text: "", file: null };

export function show(page, { place }) {
  const tip = "The text may contain carriage returns and pager prompts.";
  const output = el("div.output", emptyState("Not parsed yet.", tip));
  const work = el("main.single", { id: "work", tabindex: "-1" });
  const { element, open } = form(output, place);
  replace(work, pageTitle("Parse command output", SUMMARY), element, output);
  acceptDrop(work, open);
  page.replaceChildren(work);
  document.title = "Parse · Console";
}

function form(output, place) {
  const text = area("Command output", {
    id: "command-output",
    class: "verbatim",
    rows: "12",
    placeholder: "Paste the output of the device, or drop a file here",
    input: () => Object.assign(input, { text: text.value, file: null }),
    keydown: (event) => {
      if (event.key === "Enter" && (event.ctrlKey || event.metaKey)) text.form.requestSubmit();
    },
  });
  text.value = input.text;
  const about = el("span.hint");
  const choose = (kind) => {
    input.kind = kind;
    const command = KINDS[kind]?.command;
    replace(
      about,
      command ? ["output of ", el("code", command)] : "recognizes the kind by its header",
    );
  };
  const choices = [
    ["Recognize", "auto"],
    ...Object.entries(KINDS).map(([kind, { label }]) => [label, kind]),
  ];
  const kinds = segments("Kind of output", choices, input.kind, choose);
  choose(input.kind);
  const useSample = () => {
    text.value = input.text = KINDS[input.kind === "auto" ? "arp" : input.kind].sample;
    input.file = null;
    text.focus();
  };
  const submitButton = el("button.primary", { type: "submit" }, "Parse");
  const submit = async (event) => {
    event.preventDefault();
    if (submitButton.disabled) return;
    submitButton.disabled = true;
    try {
      const label = input.file;
      const parsed = await parse(text.value, input.kind, output, place);
      if (!parsed) return;
      addParse(parsed, label);
      replace(output, parseOutcome(parsed));
      announce(parsed.exception ? `raised ${parsed.exception.type}` : "parsed");
    } catch (error) {
      if (!isLate(error)) replace(output, errorPanel(error));
    } finally {
      submitButton.disabled = false;
    }
  };
  // Parses a file as the kind that is recognized.
  const open = async (file) => {
    try {
      text.value = input.text = await readText(file);
      place.throwIfAborted();
      input.file = file.name;
      kinds.press("auto");
      choose("auto");
      element.requestSubmit();
    } catch (error) {
      if (!isLate(error)) replace(output, errorPanel(error));
    }
  };
  const element = el(
    "form.panel.call",
    { submit, "aria-label": "Parse" },
    el("div.choose", kinds, about),
    text,
    el(
      "div.actions",
      submitButton,
      button("Use a sample", useSample, "button.quiet"),
      fileButton("Open a file", "text/*,.log,.txt", open),
      el("span.hint.wide", el("kbd", "Ctrl"), " ", el("kbd", "Enter"), " parses"),
    ),
  );
  return { element, open };
}

export function parse(text, kind, output, place) {
  return runVisibly(output, place, (signal) => post(`/api/parse/${kind}`, { text }, signal));
}

// Adds a parse to the last calls, from which the comparison takes it.
export function addParse(parsed, file) {
  const { kind, lines, exception } = parsed;
  const what = withEscapes(file ?? plural(lines.length, "line"));
  const label = `${KINDS[kind]?.label ?? kind}: ${what}`;
  const outcome = exception ? `raised ${exception.type}` : "parsed";
  return addRecent({ kind: "parse", name: kind, label, outcome, response: parsed });
}

function parseOutcome(parsed) {
  const { exception, result, kind } = parsed;
  const facts = [note(`parsed as ${KINDS[kind]?.label ?? kind}`)];
  const compare = el("a.button.quiet", { href: "#/compare" }, "Compare");
  return [
    exception
      ? exceptionPanel(exception, facts)
      : resultPanel(result, `parse-${kind}`, facts, {}, [compare]),
    lines(parsed),
  ];
}

function lines(parsed) {
  const values = new Map((parsed.origins ?? []).map(({ line, values: paths }) => [line, paths]));
  const texts = parsed.lines.at(-1) === "" ? parsed.lines.slice(0, -1) : parsed.lines;
  const count = `${values.size} of ${texts.length} lines contain values`;
  const title = "Line by line";
  const region = el("div.lines", {
    role: "region",
    "aria-label": "Lines and values",
    tabindex: "0",
  });
  const render = (text, index) => row(parsed, text, index + 1, values.get(index + 1));
  queueMicrotask(() => appendRows(region, region, texts, { ...DIV_BLOCKS, render }));
  return panel(
    { label: title, title, beside: values.size ? note(count) : null },
    remarks(parsed).map((remark) => el("p.remark", visible(remark))),
    region,
  );
}

function row({ exception, result }, text, line, paths = []) {
  const rejected = line === exception?.line;
  const kind = rejected ? ".rejected" : paths.length ? ".has-values" : "";
  return el(
    `div.row${kind}`,
    el("span.number", String(line)),
    el("pre", visible(text.replace(/\r$/, "")) || " "),
    el(
      "div.values",
      rejected
        ? el("span.error", visible(exception.detail))
        : paths.map((path) => fragment(result.value, path)),
    ),
  );
}

// Returns the remarks that do not belong to a single line.
function remarks({ exception, note: remark, skipped = [] }) {
  const detail = exception?.line === null ? exception.detail : null;
  const logged = skipped.map((text) => `The parser skipped a line and logged: ${text}`);
  return [detail, remark, ...logged].filter(Boolean);
}

// A value of the result with its path.
function fragment(result, path) {
  const value = path.reduce((parent, key) => parent?.[key], result);
  const keys = path.map((key) => (typeof key === "number" ? `[${key}]` : `.${key}`));
  const parts = value && typeof value === "object" ? Object.values(value) : [value];
  return el(
    "span.fragment",
    el("code.path", visible(keys.join("").replace(/^\./, ""))),
    parts.map((part) => el("span.chip", chipText(part))),
  );
}

function chipText(value) {
  if (value === "") return '""';
  return typeof value === "string" ? markBlanks(value) : visible(json(value) ?? "");
}
