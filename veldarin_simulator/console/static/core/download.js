// Saves text as a file, and writes tables as CSV.
import { Digits } from "./api.js";
import { el } from "./dom.js";

export function download(name, content, type = "text/plain") {
  const blob = content instanceof Blob ? content : new Blob([content], { type });
  const href = URL.createObjectURL(blob);
  const link = el("a", { href, download: name.replace(/[^\w.-]+/g, "-") });
  document.body.append(link);
  link.click();
  link.remove();
  setTimeout(() => URL.revokeObjectURL(href), 10_000);
}

export function csv(columns, rows) {
  return [columns, ...rows].map((row) => `${row.map(cell).join(",")}\r\n`).join("");
}

function cell(value) {
  if (value === null || value === undefined) return "";
  if (value instanceof Digits) return value.text;
  const isText = typeof value === "string";
  let text = isText ? value : typeof value === "object" ? JSON.stringify(value) : String(value);
  // A spreadsheet would run a text of the device that looks like a formula.
  if (isText && /^[=+\-@\t\r]/.test(text) && !/^[+-]?[\d.]+$/.test(text)) text = `'${text}`;
  return /[",\r\n]/.test(text) ? `"${text.replaceAll('"', '""')}"` : text;
}
