// The documentation of the functions as the Python face writes it: paragraphs, lists, `code` and
// **emphasis**.
import { make } from "./dom.js";

export function prose(text) {
  const blocks = [];
  for (const block of text.split(/\n{2,}/)) {
    const lines = block.split("\n");
    const first = lines.findIndex((line) => line.startsWith("- "));
    const before = first < 0 ? lines : lines.slice(0, first);
    if (before.join("").trim()) blocks.push(make("p", {}, inline(before.join(" "))));
    if (first >= 0) blocks.push(make("ul", {}, items(lines.slice(first))));
  }
  return blocks;
}

// "Name: text" entries, whose further lines are indented; other text as prose.
export function entries(text) {
  const found = [...text.matchAll(/^(\w+): (.*(?:\n[ \t]+.*)*)/gm)];
  if (!found.length) return prose(text);
  const list = make("dl", { class: "raises" });
  for (const [, name, told] of found) {
    list.append(make("dt", {}, make("code", {}, name)), make("dd", {}, inline(joined(told))));
  }
  return [list];
}

function items(lines) {
  const texts = [];
  for (const line of lines) {
    if (line.startsWith("- ")) texts.push(line.slice(2));
    else texts[texts.length - 1] += ` ${line.trim()}`;
  }
  return texts.map((text) => make("li", {}, inline(text)));
}

function joined(text) {
  return text.replace(/\s*\n\s*/g, " ");
}

export function inline(text) {
  return text.split(/(`[^`]+`|\*\*[^*]+\*\*)/).map((part) => {
    if (part.startsWith("`")) return make("code", {}, part.slice(1, -1));
    if (part.startsWith("**")) return make("strong", {}, inline(part.slice(2, -2)));
    return part;
  });
}
