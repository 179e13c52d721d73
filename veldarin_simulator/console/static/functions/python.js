// Writes a call as Python, from the encoding of its arguments in a request.
import { Digits } from "../core/api.js";
import { quote } from "../core/text.js";

const IDENTIFIER = /^[A-Za-z_]\w*$/;
const RESERVED = new Set(
  (
    "False None True and as assert async await break class continue def del elif else except " +
    "finally for from global if import in is lambda nonlocal not or pass raise return try while " +
    "with yield"
  ).split(" "),
);

// The call in Python, for example `f("x", event=None)`. Throws `Error` for malformed arguments.
export function pythonCall(name, { arguments: positional = [], keywords = {} }) {
  const named = Object.entries(keywords).map(([key, value]) =>
    IDENTIFIER.test(key) && !RESERVED.has(key)
      ? `${key}=${argument(value)}`
      : `**{${quote(key)}: ${argument(value)}}`,
  );
  return `${name}(${[...positional.map(argument), ...named].join(", ")})`;
}

// The call in Python for people: arguments that cannot be written are left out.
export function callLabel(name, body) {
  try {
    return pythonCall(name, body);
  } catch {
    return `${name}(…)`;
  }
}

function argument(value) {
  if (value?.constructor !== Object) return literal(value);
  const [[encoding, content]] = Object.entries(value);
  switch (encoding) {
    case "bytes":
      return bytesLiteral(unescaped(content));
    case "hex":
      return bytesLiteral(fromHex(content));
    case "base64":
      return bytesLiteral(fromBase64(content));
    case "integer":
      return String(
        BigInt(
          String(content?.text ?? content)
            .trim()
            .replace(/^\+/, ""),
        ),
      );
    case "text":
      return quote(content);
    case "json":
      return literal(content);
    default:
      throw new Error(`unknown encoding ${encoding}`);
  }
}

function literal(value) {
  if (value === null) return "None";
  if (typeof value === "boolean") return value ? "True" : "False";
  if (typeof value === "string") return quote(value);
  if (value instanceof Digits) return value.text;
  if (typeof value === "number") return number(value);
  if (Array.isArray(value)) return `[${value.map(literal).join(", ")}]`;
  const members = Object.entries(value).map(([key, one]) => `${quote(key)}: ${literal(one)}`);
  return `{${members.join(", ")}}`;
}

function number(value) {
  if (!Number.isFinite(value)) throw new Error("the number is too large");
  return String(value);
}

const LETTERS = { n: 10, r: 13, t: 9, 0: 0, "\\": 92 };

// The bytes of a text with the escapes \xHH, \n, \r, \t, \0 and \\.
function unescaped(text) {
  const bytes = [];
  const encoder = new TextEncoder();
  for (const [whole, hex, letter] of text.matchAll(/\\x([0-9a-fA-F]{2})|\\(.?)|[^\\]+/gsu)) {
    if (hex) bytes.push(Number.parseInt(hex, 16));
    else if (letter === undefined) bytes.push(...encoder.encode(whole));
    else if (letter in LETTERS) bytes.push(LETTERS[letter]);
    else throw new Error(`bytes: invalid escape \\${letter}`);
  }
  return bytes;
}

function fromHex(text) {
  const digits = text.replace(/\s+/g, "");
  if (!/^([0-9a-fA-F]{2})*$/.test(digits)) throw new Error("hex: expected pairs of digits");
  return (digits.match(/../g) ?? []).map((pair) => Number.parseInt(pair, 16));
}

function fromBase64(text) {
  try {
    return [...atob(text.replace(/\s+/g, ""))].map((one) => one.charCodeAt(0));
  } catch {
    throw new Error("base64: expected padded Base64");
  }
}

const NAMED = { 9: "\\t", 10: "\\n", 13: "\\r", 34: '\\"', 92: "\\\\" };

function bytesLiteral(bytes) {
  const shown = (byte) => {
    if (NAMED[byte]) return NAMED[byte];
    if (byte >= 0x20 && byte < 0x7f) return String.fromCharCode(byte);
    return `\\x${byte.toString(16).padStart(2, "0")}`;
  };
  return `b"${bytes.map(shown).join("")}"`;
}
