// The form for the arguments of a function: for each parameter what kind of value it is given, the
// value, and whether by position or by name. It becomes the body of a request and a line of Python.
import { area, field, make, segments } from "./dom.js";

// What can be given: its label, how it is typed in, the request's form of it, and Python's.
const KINDS = {
  text: { label: "Text", input: "line", given: (typed) => typed, python: quoted },
  bytes: {
    label: "Bytes",
    input: "line",
    hint: "text, with escapes as \\x00",
    given: (typed) => ({ bytes: typed }),
    python: (typed) => `b${quoted(typed).replaceAll("\\\\", "\\")}`,
  },
  hex: {
    label: "Bytes in hex",
    input: "line",
    hint: "75 73 65 72",
    given: (typed) => ({ hex: typed }),
    python: (typed) => `bytes.fromhex(${quoted(typed)})`,
  },
  base64: {
    label: "Bytes in Base64",
    input: "area",
    given: (typed) => ({ base64: typed }),
    python: (typed) => `b64decode(${quoted(typed)})`,
  },
  integer: {
    label: "Integer",
    input: "number",
    // Beyond 15 digits this language would round it.
    given: (typed) => (/^-?\d{1,15}$/.test(typed.trim()) ? Number(typed) : { integer: typed }),
    python: (typed) => typed.trim() || "…",
  },
  true: { label: "True", given: () => true, python: () => "True" },
  false: { label: "False", given: () => false, python: () => "False" },
  none: { label: "None", given: () => null, python: () => "None" },
  json: {
    label: "JSON",
    input: "area",
    given: (typed) => ({ json: parsed(typed) }),
    python: (typed) => typed.trim() || "…",
  },
  omitted: { label: "Omitted" },
};

// In what order the kinds are offered, by declared type.
const ORDER = {
  bytes: ["bytes", "hex", "base64", "none", "text", "integer", "true", "false", "json", "omitted"],
  str: ["text", "none", "bytes", "integer", "true", "false", "json", "omitted"],
  other: ["text", "integer", "none", "true", "false", "json", "bytes", "hex", "base64", "omitted"],
};

// What is typed in and does not have its kind's form.
export class Mistyped extends Error {
  constructor(row, message) {
    super(message);
    this.row = row;
  }
}

export class ArgumentForm {
  // `changed` is called when the call would be another one.
  constructor(described, changed) {
    this.name = described.name;
    this.rows = described.parameters.map((parameter, place) => {
      const example = described.try;
      const positional = example.arguments[place];
      const named = example.keywords[parameter.name];
      const given = positional !== undefined ? positional : named;
      return new Row(parameter, given, positional === undefined && named !== undefined, changed);
    });
    this.elements = this.rows.map((row) => row.element);
  }

  // The request's body. A row whose value has not its kind's form is a `Mistyped`.
  body() {
    const body = { arguments: [], keywords: {} };
    for (const row of this.rows.filter((one) => !one.omitted)) {
      if (row.named) body.keywords[row.name] = row.given();
      else body.arguments.push(row.given());
    }
    return body;
  }

  // The row of an argument that the interface names in a refusal.
  rowAt(at) {
    const place = /^arguments\[(\d+)\]$/.exec(at);
    if (place) return this.rows.filter((row) => !row.omitted && !row.named)[place[1]];
    return this.rows.find((row) => at === `keywords.${row.name}`);
  }

  // The call as Python has it.
  python() {
    const given = this.rows.filter((row) => !row.omitted);
    const named = given.filter((row) => row.named).map((row) => `${row.name}=${row.python()}`);
    const positional = given.filter((row) => !row.named).map((row) => row.python());
    return `${this.name}(${[...positional, ...named].join(", ")})`;
  }
}

class Row {
  constructor(parameter, given, named, changed) {
    this.name = parameter.name;
    this.named = named;
    this.changed = changed;
    const type = parameter.types.length === 1 ? parameter.types[0] : "object";
    const order = ORDER[type] ?? ORDER.other;
    const empty = [parameter.optional ? "omitted" : order[0], ""];
    const [kind, typed] = given === undefined ? empty : known(given);
    this.select = make(
      "select",
      { "aria-label": `Kind of ${this.name}`, change: () => this.show(this.select.value, "") },
      order.map((one) => make("option", { value: one }, KINDS[one].label)),
    );
    this.place = make("div", { class: "typed" });
    this.fault = make("p", { class: "fault", hidden: true, id: `fault-${this.name}` });
    const way = make("div", { class: "way" }, this.way(parameter.keyword));
    this.element = make(
      "fieldset",
      { class: "parameter" },
      make(
        "legend",
        {},
        make("code", {}, this.name),
        make("span", { class: "types" }, types(parameter)),
      ),
      make("div", { class: "fields" }, this.select, this.place, way),
      this.fault,
    );
    this.select.value = kind;
    this.show(kind, typed);
  }

  // By position or by name, where the function has the choice.
  way(keyword) {
    if (!keyword) return make("span", { class: "hint" }, "by position only");
    const choices = [["by position", "position"], ["by name", "name"]];
    return segments("How it is given", choices, this.named ? "name" : "position", (chosen) => {
      this.named = chosen === "name";
      this.changed();
    });
  }

  get omitted() {
    return this.kind === "omitted";
  }

  // Another kind: what was typed is kept where it may fit.
  show(kind, typed) {
    const before = this.input?.value ?? "";
    this.kind = kind;
    const { input, hint } = KINDS[kind];
    const label = `Value of ${this.name}`;
    const settings = {
      "aria-describedby": this.fault.id,
      placeholder: hint,
      input: () => this.fine(),
    };
    if (!input) this.input = null;
    else if (input === "area") this.input = area(label, { ...settings, rows: "2" });
    else if (input === "number") this.input = field(label, { ...settings, inputmode: "numeric" });
    else this.input = field(label, settings);
    if (this.input) this.input.value = typed || before;
    this.place.replaceChildren(this.input ?? make("span", { class: "hint" }, note(kind)));
    this.fine();
  }

  given() {
    try {
      return KINDS[this.kind].given(this.input?.value);
    } catch (error) {
      throw new Mistyped(this, error.message);
    }
  }

  python() {
    return KINDS[this.kind].python(this.input?.value);
  }

  // What is wrong with the value, told where it is.
  blame(message) {
    this.fault.textContent = message;
    this.fault.hidden = false;
    this.input?.setAttribute("aria-invalid", "true");
    this.input?.focus();
  }

  fine() {
    this.fault.hidden = true;
    this.input?.removeAttribute("aria-invalid");
    this.changed();
  }
}

function types({ types: declared, optional }) {
  const named = declared.filter((type) => type !== "object").join(" | ") || "anything";
  return optional ? `${named}, optional` : named;
}

// The kind and the typed text of an argument in the request's form.
function known(given) {
  if (given === null) return ["none", ""];
  if (given === true || given === false) return [String(given), ""];
  if (typeof given === "number") return ["integer", String(given)];
  if (typeof given === "string") return ["text", given];
  const [form, content] = Object.entries(given)[0];
  return form === "json" ? ["json", JSON.stringify(content)] : [form, content];
}

function note(kind) {
  return kind === "omitted" ? "is not given" : `gives ${KINDS[kind].label}`;
}

function quoted(typed) {
  return JSON.stringify(typed);
}

function parsed(typed) {
  if (!typed.trim()) throw new Error("JSON is wanted here");
  return JSON.parse(typed);
}
