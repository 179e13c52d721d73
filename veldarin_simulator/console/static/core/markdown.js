// Renders the Markdown of the type stub's docstrings: paragraphs, lists, `code`, **emphasis**.
import { el } from "./dom.js";

export function prose(text) {
  return text.split(/\n{2,}/).flatMap((block) => {
    const [before, ...items] = `\n${block}`.split(/\n- /).map(joinLines);
    const list = items.map((item) => el("li", inline(item)));
    return [before && el("p", inline(before)), list.length && el("ul", list)].filter(Boolean);
  });
}

// "Name: text" entries with indented continuation lines; other text as prose.
export function entries(text) {
  const found = [...text.matchAll(/^(\w+): (.*(?:\n[ \t]+.*)*)/gm)];
  if (!found.length) return prose(text);
  return el(
    "dl.raises",
    found.map(([, name, body]) => [el("dt", el("code", name)), el("dd", inline(joinLines(body)))]),
  );
}

function joinLines(text) {
  return text.replace(/\s*\n\s*/g, " ").trim();
}

export function inline(text) {
  return text.split(/(`[^`]+`|\*\*[^*]+\*\*)/).map((part) => {
    if (part.startsWith("`")) return el("code", part.slice(1, -1));
    if (part.startsWith("**")) return el("strong", inline(part.slice(2, -2)));
    return part;
  });
}
