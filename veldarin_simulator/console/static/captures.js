// Captured device text through a parser: the lines, and beside each the values that it brought.
import { post } from "./api.js";
import { raised, returned, took } from "./result.js";
import { area, make, nothing, panel, replace, say, segments } from "./dom.js";
import { refused } from "./errors.js";
import { json, spaced } from "./values.js";

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

const SUMMARY =
  "Text that a device printed, through the module's own parser, and which line each value came " +
  "from.";

// What was pasted stays while the page is open.
const kept = { kind: "arp", text: "" };

export function show(page) {
  const left = make(
    "div",
    { class: "left" },
    nothing("Nothing parsed yet.", "Carriage returns and pager prompts may stay in the text."),
  );
  page.replaceChildren(
    make(
      "main",
      { id: "work", class: "single", tabindex: "-1" },
      make(
        "header",
        { class: "title" },
        make("h1", { class: "plain" }, "Paste a capture"),
        make("p", { class: "summary" }, SUMMARY),
      ),
      form(left),
      left,
    ),
  );
  document.title = "Captures · Console";
}

function form(left) {
  const text = area("Captured text", {
    id: "capture",
    class: "capture",
    rows: "12",
    placeholder: "Paste what the device printed",
    input: () => (kept.text = text.value),
    keydown: (event) => {
      if (event.key === "Enter" && (event.ctrlKey || event.metaKey)) text.form.requestSubmit();
    },
  });
  text.value = kept.text;
  const command = make("code", {}, KINDS[kept.kind].command);
  const choices = Object.entries(KINDS).map(([kind, { label }]) => [label, kind]);
  const choose = (kind) => {
    kept.kind = kind;
    command.textContent = KINDS[kind].command;
  };
  const sample = () => {
    text.value = kept.text = KINDS[kept.kind].sample;
    text.focus();
  };
  const parse = async (event) => {
    event.preventDefault();
    try {
      const made = await post(`/api/captures/${kept.kind}`, { text: text.value });
      replace(left, made.raised ? raised(made.raised) : returned(made.result), lines(made));
      say(made.raised ? `raised ${made.raised.type}` : "parsed");
    } catch (error) {
      replace(left, refused(error));
    }
  };
  const key = (name) => make("kbd", {}, name);
  return make(
    "form",
    { class: "panel call", submit: parse, "aria-label": "Capture" },
    make(
      "div",
      { class: "choose" },
      segments("Kind of text", choices, kept.kind, choose),
      make("span", { class: "hint" }, "printed by ", command),
    ),
    text,
    make(
      "div",
      { class: "go" },
      make("button", { type: "submit", class: "primary" }, "Parse"),
      make("button", { type: "button", class: "quiet", click: sample }, "Use a sample"),
      make("span", { class: "hint wide" }, key("Ctrl"), " ", key("Enter"), " parses"),
    ),
  );
}

// Line by line: its number, its text, the values that came from it or what is wrong with it.
function lines(made) {
  const values = new Map((made.origins ?? []).map(({ line, values: found }) => [line, found]));
  const texts = made.lines.at(-1) === "" ? made.lines.slice(0, -1) : made.lines;
  const rows = texts.map((text, place) => row(made, text, place + 1, values.get(place + 1)));
  const count = `${values.size} of ${texts.length} lines brought values`;
  return panel(
    { label: "Line by line", title: "Line by line", beside: values.size ? took(count) : null },
    notes(made).map((note) => make("p", { class: "note" }, note)),
    make(
      "div",
      { class: "beside", role: "region", "aria-label": "Lines and values", tabindex: "0" },
      rows,
    ),
  );
}

function row(made, text, line, brought = []) {
  const wrong = line === made.raised?.line;
  const kind = wrong ? "row wrong" : brought.length ? "row brings" : "row";
  return make(
    "div",
    { class: kind },
    make("span", { class: "number" }, String(line)),
    make("pre", {}, text.replace(/\r$/, "") || " "),
    make(
      "div",
      { class: "brought" },
      wrong
        ? make("span", { class: "fault" }, made.raised.problem)
        : brought.map((path) => piece(made.result.value, path)),
    ),
  );
}

// What is to be said of no single line.
function notes(made) {
  const nowhere = made.raised?.line === null ? made.raised.problem : null;
  const passed = (made.passed_over ?? []).map((text) => `passed over a line: ${text}`);
  return [nowhere, made.note, ...passed].filter(Boolean);
}

// A value of the result with the way to it.
function piece(result, path) {
  const value = path.reduce((held, step) => held?.[step], result);
  const steps = path.map((step) => (typeof step === "number" ? `[${step}]` : `.${step}`));
  const shown = value && typeof value === "object" ? Object.values(value) : [value];
  return make(
    "span",
    { class: "piece" },
    make("code", { class: "way" }, steps.join("").replace(/^\./, "")),
    shown.map((one) => make("span", { class: "chip" }, chip(one))),
  );
}

function chip(value) {
  if (value === "") return '""';
  return typeof value === "string" ? spaced(value) : json(value);
}
