// The form for a function's arguments. It produces the body of a request.
import { Digits, parseJSON } from "../core/api.js";
import { area, el, field, hint, segments } from "../core/dom.js";

const constant = (label, value) => ({ label, encode: () => value });
const encoded = (encoding) => (typed) => ({ [encoding]: typed });

// The kinds of values. `encode` turns the input into the request's form.
const KINDS = {
  text: { label: "Text", input: "line", encode: (typed) => typed },
  bytes: {
    label: "Bytes",
    input: "line",
    encode: encoded("bytes"),
    placeholder: "text, with escapes as \\x00",
  },
  hex: { label: "Bytes in hex", input: "line", encode: encoded("hex"), placeholder: "75 73 65 72" },
  base64: { label: "Bytes in Base64", input: "area", encode: encoded("base64") },
  integer: { label: "Integer", input: "number", encode: encodeInteger },
  true: constant("True", true),
  false: constant("False", false),
  none: constant("None", null),
  json: { label: "JSON", input: "area", encode: encodeJSON },
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
  // `body` is the call to begin with, null for the function's example. Changes call `onChange()`.
  constructor(description, body, onChange) {
    const { arguments: positional = [], keywords = {} } = body ?? description.example_call;
    this.surplus = Math.max(0, positional.length - description.parameters.length);
    this.rows = description.parameters.map((parameter, index) => {
      const named = !(index in positional) && Object.hasOwn(keywords, parameter.name);
      const value = named ? keywords[parameter.name] : positional[index];
      return new Row(parameter, value, named, onChange, body !== null);
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
}

class Row {
  constructor(parameter, value, named, onChange, isGiven) {
    this.name = parameter.name;
    this.named = named;
    this.onChange = onChange;
    const type = parameter.types.length === 1 ? parameter.types[0] : "object";
    const order = ORDER[type] ?? ORDER.other;
    const empty = [parameter.optional || isGiven ? "omitted" : order[0], ""];
    const [kind, typed] = value === undefined ? empty : decode(value);
    this.select = el(
      "select",
      { "aria-label": `Kind of ${this.name}`, change: () => this.show(this.select.value, "") },
      order.map((one) => el("option", { value: one }, KINDS[one].label)),
    );
    if (!order.includes(kind)) this.select.append(el("option", { value: kind }, KINDS[kind].label));
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
    const choices = [
      ["by position", "position"],
      ["by name", "name"],
    ];
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

  focus() {
    (this.input ?? this.select).focus();
    this.input?.select();
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
  if (typeof value === "string") return ["text", value];
  if (value instanceof Digits) return ["integer", value.text];
  if (Number.isInteger(value)) return ["integer", String(value)];
  const [[encoding, content] = []] = value.constructor === Object ? Object.entries(value) : [];
  if (encoding === "json") return ["json", JSON.stringify(content)];
  if (encoding === "integer") return ["integer", String(content?.text ?? content)];
  if (Object.hasOwn(KINDS, encoding ?? "") && typeof content === "string")
    return [encoding, content];
  return ["json", JSON.stringify(value)];
}

function encodeInteger(typed) {
  // JavaScript would round more than 15 digits.
  return /^-?\d{1,15}$/.test(typed.trim()) ? Number(typed) : { integer: typed };
}

function encodeJSON(typed) {
  if (!typed.trim()) throw new Error("expected JSON");
  const value = parseJSON(typed);
  if (hasInfinity(value)) throw new Error("a number is too large");
  return { json: value };
}

function hasInfinity(value) {
  if (typeof value === "number") return !Number.isFinite(value);
  if (value instanceof Digits) return false;
  return value !== null && typeof value === "object" && Object.values(value).some(hasInfinity);
}
