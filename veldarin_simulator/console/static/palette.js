// Search with Ctrl-K: functions by name and description, replies, last calls, sections.
import { callAddress } from "./core/address.js";
import { get } from "./core/api.js";
import { el, field, replace } from "./core/dom.js";
import { functionIndex, searchFunctions } from "./core/index.js";
import { inline } from "./core/markdown.js";
import { distinctCalls } from "./core/recent.js";
import { visible } from "./core/text.js";

const MAX_FOUND = 12;
const SECTIONS = ["Functions", "Watch", "Compare", "Parse", "Scenarios"];

let dialog = null;

export async function openPalette(onChoice) {
  if (dialog) return;
  const found = el("ul", { role: "listbox", id: "found", "aria-label": "Found" });
  const input = field("Search everything", {
    type: "search",
    role: "combobox",
    "aria-expanded": "true",
    "aria-controls": "found",
    "aria-autocomplete": "list",
    placeholder: "Search functions, replies, calls",
    input: () => search(),
  });
  let active = 0;
  const mark = (index) => {
    const options = [...found.children];
    active = Math.max(0, Math.min(index, options.length - 1));
    options.forEach((one, i) => one.setAttribute("aria-selected", String(i === active)));
    input.setAttribute("aria-activedescendant", options[active]?.id ?? "");
    options[active]?.scrollIntoView({ block: "nearest" });
  };
  const choose = (address) => {
    dialog.close();
    onChoice(address);
  };
  let sources = { functions: [], replies: [] };
  const search = () => {
    const items = input.value.trim() ? matching(sources, input.value) : suggestions();
    const option = ({ address, title, about, kind }, index) =>
      el(
        "li",
        {
          role: "option",
          id: `found-${index}`,
          "data-address": address,
          click: () => choose(address),
        },
        el("code", visible(title)),
        el("span.kind", kind),
        about ? el("span.about", inline(about)) : null,
      );
    const nothing = el(
      "li.nothing",
      { role: "option", "aria-disabled": "true" },
      "Nothing contains this.",
    );
    replace(found, items.length ? items.map(option) : nothing);
    mark(0);
  };
  const keydown = (event) => {
    if (event.key === "ArrowDown") mark(active + 1);
    else if (event.key === "ArrowUp") mark(active - 1);
    else if (event.key === "Enter")
      found.children[active]?.dataset.address && choose(found.children[active].dataset.address);
    else return;
    event.preventDefault();
  };
  dialog = el("dialog.palette", { "aria-label": "Search", keydown }, input, found);
  dialog.addEventListener("close", () => {
    dialog.remove();
    dialog = null;
  });
  dialog.addEventListener("click", (event) => event.target === dialog && dialog.close());
  document.body.append(dialog);
  dialog.showModal();
  search();
  const [{ functions }, { replies }] = await Promise.all([
    functionIndex(),
    get("/api/replies").catch(() => ({ replies: [] })),
  ]);
  sources = { functions, replies };
  if (dialog) search();
}

function suggestions() {
  const calls = distinctCalls(5).map(callItem);
  const sections = SECTIONS.map((title) => ({
    address: `#/${title.toLowerCase()}`,
    title,
    kind: "section",
  }));
  return [...calls, ...sections];
}

function callItem({ name, body, label, outcome }) {
  return {
    address: callAddress("functions", name, body),
    title: label,
    about: outcome,
    kind: "call",
  };
}

function matching({ functions, replies }, wanted) {
  const words = wanted
    .toLowerCase()
    .split(/[\s_]+/)
    .filter(Boolean);
  const hasWords = (text) => words.every((word) => text.toLowerCase().includes(word));
  const items = [
    ...searchFunctions(functions, wanted).map(({ name, summary }) => ({
      address: `#/functions/${name}`,
      title: name,
      about: summary,
      kind: "function",
    })),
    ...distinctCalls(10)
      .filter(({ label }) => hasWords(label))
      .map(callItem),
    ...replies
      .filter(({ name }) => hasWords(name))
      .map(({ name, command }) => ({
        address: `#/scenarios/${encodeURIComponent(name)}`,
        title: name,
        kind: command ? "command" : "reply",
      })),
    ...suggestions().filter(({ title, kind }) => kind === "section" && hasWords(title)),
  ];
  return items.slice(0, MAX_FOUND);
}
