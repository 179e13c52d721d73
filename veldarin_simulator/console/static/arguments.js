// The form for a function's arguments. It produces the body of a request and a line of Python.
import { area, el, field, hint, segments } from "./dom.js";

const constant = (label, value) => ({ label, encode: () => value, python: () => label });
const literal = (typed) => typed.trim() || "…";

function bytes(label, input, encoding, python, placeholder) {
  return { label, input, placeholder, encode: (typed) => ({ [encoding]: typed }), python };
}

// The kinds of values. `encode` and `python` turn the input into the request's and Python's form.
const KINDS = {
  text: { label: "Text", input: "line", encode: (typed) => typed, python: quote },
  bytes: bytes("Bytes", "line", "bytes", bytesLiteral, "text, with escapes as \\x00"),
  hex: bytes("Bytes in hex", "line", "hex", (t) => `bytes.fromhex(${quote(t)})`, "75 73 65 72"),
  base64: bytes("Bytes in Base64", "area", "base64", (typed) => `b64decode(${quote(typed)})`),
  integer: { label: "Integer", input: "number", encode: encodeInteger, python: literal },
  true: constant("True", true),
  false: constant("False", false),
  none: constant("None", null),
  json: { label: "JSON", input: "area", encode: encodeJSON, python: literal },
  omitted: { label: "Omitted" },
};

// The order of the kinds for a declared type.
const ORDER = {
  bytes: ["bytes", "hex", "base64", "none", "text", "integer", "true", "false", "json", "omitted"],
  str: ["text", "none", "bytes", "integer", "true", "false", "json", "omitted"],
  other: ["text", "integer", "none", "true", "false", "json", "bytes", "hex", "base64", "omitted"],
};

// Input that does not match the kind chosen in `row`.
export class InvalidInput extends Error {
  constructor(row, message) {
    super(message);
    this.row = row;
  }
}

export class ArgumentForm {
  // A change of the call calls `onChange()`.
  constructor(description, onChange) {
    this.name = description.name;
    const { arguments: positional, keywords } = description.example_call;
    this.rows = description.parameters.map((parameter, index) => {
      const value = index in positional ? positional[index] : keywords[parameter.name];
      const named = !(index in positional) && parameter.name in keywords;
      return new Row(parameter, value, named, onChange);
    });
    this.elements = this.rows.map((row) => row.element);
  }

  // The request's body. Throws `InvalidInput`.
  body() {
    const body = { arguments: [], keywords: {} };
    for (const row of this.passed()) {
      if (row.named) body.keywords[row.name] = row.encode();
      else body.arguments.push(row.encode());
    }
    return body;
  }

  passed() {
    return this.rows.filter((row) => row.kind !== "omitted");
  }

  // The row for "at" of an error response.
  rowAt(at) {
    const index = /^arguments\[(\d+)\]$/.exec(at)?.[1];
    if (index) return this.passed().filter((row) => !row.named)[index];
    return this.rows.find((row) => at === `keywords.${row.name}`);
  }

  // The call in Python.
  python() {
    const row = (one) => `${one.named ? `${one.name}=` : ""}${one.python()}`;
    const ordered = this.passed().sort((a, b) => a.named - b.named);
    return `${this.name}(${ordered.map(row).join(", ")})`;
  }
}

class Row {
  constructor(parameter, value, named, onChange) {
    this.name = parameter.name;
    this.named = named;
    this.onChange = onChange;
    const type = parameter.types.length === 1 ? parameter.types[0] : "object";
    const order = ORDER[type] ?? ORDER.other;
    const empty = [parameter.optional ? "omitted" : order[0], ""];
    const [kind, typed] = value === undefined ? empty : decode(value);
    this.select = el(
      "select",
      { "aria-label": `Kind of ${this.name}`, change: () => this.show(this.select.value, "") },
      order.map((one) => el("option", { value: one }, KINDS[one].label)),
    );
    this.place = el("div.typed");
    this.error = el("p.error", { hidden: true, id: `error-${this.name}` });
    this.element = el(
      "fieldset.parameter",
      el("legend", el("code", this.name), el("span.types", typeText(parameter))),
      el("div.fields", this.select, this.place, el("div.passing", this.passing(parameter))),
      this.error,
    );
    this.select.value = kind;
    this.show(kind, typed);
  }

  passing({ keyword }) {
    if (!keyword) return el("span.hint", "by position only");
    const choices = [["by position", "position"], ["by name", "name"]];
    const now = this.named ? "name" : "position";
    return segments(`Pass ${this.name}`, choices, now, (choice) => {
      this.named = choice === "name";
      this.onChange();
    });
  }

  // Changes the kind. An empty `typed` keeps the previous input.
  show(kind, typed) {
    const value = typed || this.input?.value || "";
    this.kind = kind;
    const { input, label, placeholder } = KINDS[kind];
    const attributes = {
      "aria-describedby": this.error.id,
      placeholder,
      input: () => this.clearError(),
      inputmode: input === "number" ? "numeric" : null,
      rows: input === "area" ? "2" : null,
    };
    const create = input === "area" ? area : field;
    this.input = input ? create(`Value of ${this.name}`, attributes) : null;
    if (this.input) this.input.value = value;
    const note = kind === "omitted" ? "is not passed" : `passes ${label}`;
    this.place.replaceChildren(this.input ?? hint(note));
    this.clearError();
  }

  encode() {
    try {
      return KINDS[this.kind].encode(this.input?.value);
    } catch (error) {
      throw new InvalidInput(this, error.message);
    }
  }

  python() {
    return KINDS[this.kind].python(this.input?.value);
  }

  showError(message) {
    this.error.textContent = message;
    this.error.hidden = false;
    this.input?.setAttribute("aria-invalid", "true");
    this.input?.focus();
  }

  clearError() {
    this.error.hidden = true;
    this.input?.removeAttribute("aria-invalid");
    this.onChange();
  }
}

function typeText({ types, optional }) {
  const named = types.filter((type) => type !== "object").join(" | ") || "anything";
  return optional ? `${named}, optional` : named;
}

// The kind and the input for an argument of a request.
function decode(value) {
  if (value === null) return ["none", ""];
  if (typeof value === "boolean") return [String(value), ""];
  if (typeof value === "number") return ["integer", String(value)];
  if (typeof value === "string") return ["text", value];
  const [encoding, content] = Object.entries(value)[0];
  return encoding === "json" ? ["json", JSON.stringify(content)] : [encoding, content];
}

function quote(typed) {
  return JSON.stringify(typed);
}

function bytesLiteral(typed) {
  return `b${quote(typed).replaceAll("\\\\", "\\")}`;
}

function encodeInteger(typed) {
  // JavaScript would round more than 15 digits.
  return /^-?\d{1,15}$/.test(typed.trim()) ? Number(typed) : { integer: typed };
}

function encodeJSON(typed) {
  if (!typed.trim()) throw new Error("expected JSON");
  return { json: JSON.parse(typed) };
}
