// Captured device text through a parser: the lines, and beside each the values that it brought.
import { Refused, post } from "./api.js";
import { raised, returned } from "./calls.js";
import { make, replace, say, segments } from "./dom.js";
import { refused } from "./refused.js";
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

// What was pasted stays while the page is open.
const kept = { kind: "arp", text: "" };

export function show(page) {
  const area = make("textarea", {
    id: "capture",
    class: "capture",
    rows: "12",
    wrap: "off",
    spellcheck: "false",
    autocomplete: "off",
    placeholder: "Paste what the device printed",
    "aria-label": "Captured text",
    input: () => (kept.text = area.value),
  });
  area.value = kept.text;
  const command = make("code", {}, KINDS[kept.kind].command);
  const left = make("div", { class: "left" }, untried());
  const choices = Object.entries(KINDS).map(([kind, { label }]) => [label, kind]);
  const parse = async (event) => {
    event.preventDefault();
    try {
      const made = await post(`/api/captures/${kept.kind}`, { text: area.value });
      replace(left, outcome(made), beside(made));
      say(made.raised ? `raised ${made.raised.type}` : "parsed");
    } catch (error) {
      if (!(error instanceof Refused)) throw error;
      replace(left, refused(error));
    }
  };
  const sample = () => {
    area.value = kept.text = KINDS[kept.kind].sample;
    area.focus();
  };
  page.replaceChildren(
    make(
      "main",
      { id: "work", class: "single", tabindex: "-1" },
      make(
        "header",
        { class: "title" },
        make("h1", { class: "plain" }, "Paste a capture"),
        make("p", { class: "summary" }, "Text that a device printed, through the module's own parser, and which line each value came from."),
      ),
      make(
        "form",
        { class: "panel call", submit: parse, "aria-label": "Capture" },
        make(
          "div",
          { class: "choose" },
          segments("Kind of text", choices, kept.kind, (kind) => {
            kept.kind = kind;
            command.textContent = KINDS[kind].command;
          }),
          make("span", { class: "hint" }, "printed by ", command),
        ),
        area,
        make(
          "div",
          { class: "go" },
          make("button", { type: "submit", class: "primary" }, "Parse"),
          make("button", { type: "button", class: "quiet", click: sample }, "Use a sample"),
          make("span", { class: "hint wide" }, make("kbd", {}, "Ctrl"), " ", make("kbd", {}, "Enter"), " parses"),
        ),
      ),
      left,
    ),
  );
  area.addEventListener("keydown", (event) => {
    if (event.key === "Enter" && (event.ctrlKey || event.metaKey)) area.form.requestSubmit();
  });
  document.title = "Captures · Console";
}

function untried() {
  return make("div", { class: "empty" }, make("p", {}, "Nothing parsed yet."), make("p", { class: "hint" }, "Carriage returns and pager prompts may stay in the text."));
}

function outcome(made) {
  return made.raised ? raised(made.raised) : returned(made.result);
}

// Line by line: its number, its text, the values that came from it or what is wrong with it.
function beside(made) {
  const values = new Map((made.origins ?? []).map(({ line, values: found }) => [line, found]));
  const stumbled = made.raised?.line ?? null;
  const lines = [...made.lines];
  if (lines.at(-1) === "") lines.pop();
  const rows = lines.map((text, place) => {
    const line = place + 1;
    const brought = values.get(line);
    const wrong = line === stumbled;
    return make(
      "div",
      { class: wrong ? "row wrong" : brought ? "row brings" : "row" },
      make("span", { class: "number" }, String(line)),
      make("pre", {}, text.replace(/\r$/, "") || " "),
      make(
        "div",
        { class: "brought" },
        wrong ? make("span", { class: "fault" }, made.raised.problem) : (brought ?? []).map((path) => piece(made.result.value, path)),
      ),
    );
  });
  const nowhere = made.raised && stumbled === null ? made.raised.problem : null;
  const notes = [nowhere, made.note, ...(made.passed_over ?? []).map((text) => `passed over a line: ${text}`)].filter(Boolean);
  return make(
    "section",
    { class: "panel", "aria-label": "Line by line" },
    make("header", {}, make("h2", {}, "Line by line"), make("span", { class: "took" }, values.size ? `${values.size} of ${lines.length} lines brought values` : "")),
    notes.map((note) => make("p", { class: "note" }, note)),
    make("div", { class: "beside", role: "region", "aria-label": "Lines and values", tabindex: "0" }, rows),
  );
}

// A value of the result with the way to it.
function piece(result, path) {
  const value = path.reduce((held, step) => held?.[step], result);
  const way = path.map((step, place) => (typeof step === "number" ? `[${step}]` : place ? `.${step}` : step)).join("");
  const shown = value && typeof value === "object" ? Object.values(value) : [value];
  return make(
    "span",
    { class: "piece" },
    make("code", { class: "way" }, way),
    shown.map((one) => make("span", { class: "chip" }, typeof one === "string" ? (one ? spaced(one) : '""') : json(one))),
  );
}
