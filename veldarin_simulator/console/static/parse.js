// Parses command output and shows beside each line the values that came from it.
import { post } from "./api.js";
import { announce, area, el, emptyState, pageTitle, panel, replace, segments } from "./dom.js";
import { errorPanel } from "./errors.js";
import { exceptionPanel, note, resultPanel } from "./result.js";
import { json, markBlanks } from "./values.js";

const KINDS = {
  arp: {
    label: "ARP",
    command: "get system arp",
    sample: `Address          Age(min)   Hardware address    Interface
192.0.2.10       0          02:00:00:aa:bb:cc   port1
192.0.2.11       3          02:00:00:aa:bb:cd   port1 vlan10
`,
  },
  routing: {
    label: "Routing",
    command: "get router info routing-table detail 192.0.2.7",
    sample: `get router info routing-table detail 192.0.2.7
Routing entry for 192.0.2.0/24
  Known via static, distance 10, metric 0, best
  Last update 01:02:03 ago
  * 198.51.100.1, via port1

  directly connected, port2
`,
  },
  bfd: {
    label: "BFD",
    command: "get router info bfd neighbor 10.0.0.2 port1",
    sample: `get router info bfd neighbor 10.0.0.2 port1
peer 10.0.0.2 interface port1
    Local Diag: 0
    Packets received: 52 packets
    Local timers
        Detect Multiplier: 3
        Receive Interval: 250
        Transmit Interval: 250
    Remote timers
        Detect Multiplier: 3
        Receive Interval: 250
        Transmit Interval: 250
`,
  },
};

const SUMMARY = "Run the module's parser on device output and trace each value to its line.";

// Lasts until the page is reloaded.
const input = { kind: "arp", text: "" };

export function show(page) {
  const tip = "The text may contain carriage returns and pager prompts.";
  const output = el("div.output", emptyState("Not parsed yet.", tip));
  page.replaceChildren(
    el(
      "main.single",
      { id: "work", tabindex: "-1" },
      pageTitle("Parse command output", SUMMARY),
      form(output),
      output,
    ),
  );
  document.title = "Parse · Console";
}

function form(output) {
  const text = area("Command output", {
    id: "command-output",
    class: "verbatim",
    rows: "12",
    placeholder: "Paste the output of the device",
    input: () => (input.text = text.value),
    keydown: (event) => {
      if (event.key === "Enter" && (event.ctrlKey || event.metaKey)) text.form.requestSubmit();
    },
  });
  text.value = input.text;
  const command = el("code", KINDS[input.kind].command);
  const choices = Object.entries(KINDS).map(([kind, { label }]) => [label, kind]);
  const choose = (kind) => {
    input.kind = kind;
    command.textContent = KINDS[kind].command;
  };
  const useSample = () => {
    text.value = input.text = KINDS[input.kind].sample;
    text.focus();
  };
  const submit = async (event) => {
    event.preventDefault();
    try {
      const parsed = await post(`/api/parse/${input.kind}`, { text: text.value });
      const { exception, result } = parsed;
      replace(output, exception ? exceptionPanel(exception) : resultPanel(result), lines(parsed));
      announce(exception ? `raised ${exception.type}` : "parsed");
    } catch (error) {
      replace(output, errorPanel(error));
    }
  };
  return el(
    "form.panel.call",
    { submit, "aria-label": "Parse" },
    el(
      "div.choose",
      segments("Kind of output", choices, input.kind, choose),
      el("span.hint", "output of ", command),
    ),
    text,
    el(
      "div.actions",
      el("button.primary", { type: "submit" }, "Parse"),
      el("button.quiet", { type: "button", click: useSample }, "Use a sample"),
      el("span.hint.wide", el("kbd", "Ctrl"), " ", el("kbd", "Enter"), " parses"),
    ),
  );
}

function lines(parsed) {
  const values = new Map((parsed.origins ?? []).map(({ line, values: paths }) => [line, paths]));
  const texts = parsed.lines.at(-1) === "" ? parsed.lines.slice(0, -1) : parsed.lines;
  const rows = texts.map((text, index) => row(parsed, text, index + 1, values.get(index + 1)));
  const count = `${values.size} of ${texts.length} lines contain values`;
  const title = "Line by line";
  return panel(
    { label: title, title, beside: values.size ? note(count) : null },
    remarks(parsed).map((remark) => el("p.remark", remark)),
    el("div.lines", { role: "region", "aria-label": "Lines and values", tabindex: "0" }, rows),
  );
}

function row({ exception, result }, text, line, paths = []) {
  const rejected = line === exception?.line;
  const kind = rejected ? ".rejected" : paths.length ? ".has-values" : "";
  return el(
    `div.row${kind}`,
    el("span.number", String(line)),
    el("pre", text.replace(/\r$/, "") || " "),
    el(
      "div.values",
      rejected
        ? el("span.error", exception.detail)
        : paths.map((path) => fragment(result.value, path)),
    ),
  );
}

// What does not belong to a single line.
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
    el("code.path", keys.join("").replace(/^\./, "")),
    parts.map((part) => el("span.chip", chipText(part))),
  );
}

function chipText(value) {
  if (value === "") return '""';
  return typeof value === "string" ? markBlanks(value) : json(value);
}
