// Makes the characters of device text visible that would hide, reorder or imitate others.
import { el } from "./dom.js";

// Control, format, surrogate, private and unassigned characters, separators, and blank fillers.
const HIDDEN = /[\p{Cc}\p{Cf}\p{Cs}\p{Co}\p{Cn}\p{Zl}\p{Zp}\u00a0\u034f\u115f\u1160\u3164\uffa0]/u;
const SPLIT = new RegExp(`(${HIDDEN.source})`, "u");

// The text with each hidden character as the escape that Python's `repr` shows. Line feeds and tabs
// stay.
export function visible(text) {
  if (!HIDDEN.test(text)) return text;
  return text.split(SPLIT).map((part) => {
    if (!HIDDEN.test(part) || part === "\n" || part === "\t") return part;
    return el("span.hidden-character", { title: codePoint(part) }, escaped(part));
  });
}

// Shows white space at both ends as dots.
export function markBlanks(text) {
  const [, before, middle, after] = /^([ \t]*)(.*?)([ \t]*)$/s.exec(text);
  const dots = (blanks) => el("span.blank", "·".repeat(blanks.length));
  return [before && dots(before), visible(middle), after && dots(after)];
}

// The hidden characters of a text: [{ line, escape }], at most `limit` of them.
export function findHidden(text, limit = 5) {
  const found = [];
  text.split("\n").forEach((line, index) => {
    for (const character of line.replace(/\r$/, "")) {
      if (found.length === limit) return;
      if (character === "\t" || !HIDDEN.test(character)) continue;
      found.push({ line: index + 1, escape: escaped(character) });
    }
  });
  return found;
}

export function escaped(character) {
  const code = character.codePointAt(0);
  const hex = (width) => code.toString(16).padStart(width, "0");
  if (code < 0x100) return { 10: "\\n", 13: "\\r", 9: "\\t" }[code] ?? `\\x${hex(2)}`;
  return code < 0x10000 ? `\\u${hex(4)}` : `\\U${hex(8)}`;
}

// The text with each hidden character as an escape, for where elements cannot be.
export function withEscapes(text) {
  const shown = (character) => (HIDDEN.test(character) ? escaped(character) : character);
  return [...text].map(shown).join("");
}

// A string literal, of Python and in most cases of JSON too.
export function quote(text) {
  return `"${withEscapes(text.replaceAll("\\", "\\\\").replaceAll('"', '\\"'))}"`;
}

function codePoint(character) {
  return `U+${character.codePointAt(0).toString(16).toUpperCase().padStart(4, "0")}`;
}

export function plural(count, noun) {
  return `${count.toLocaleString("en")} ${count === 1 ? noun : `${noun}s`}`;
}

export function clock(time) {
  return new Date(time).toLocaleTimeString("en-GB");
}

export function duration(microseconds) {
  if (microseconds < 1000) return `${Math.round(microseconds)} µs`;
  if (microseconds < 1e6) return `${(microseconds / 1000).toFixed(1)} ms`;
  return `${(microseconds / 1e6).toFixed(1)} s`;
}
