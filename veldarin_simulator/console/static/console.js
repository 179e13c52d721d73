// The page's beginning: which part is shown for an address, the keys, the colours.
import { get } from "./api.js";
import * as captures from "./captures.js";
import * as functions from "./functions.js";
import { refused } from "./errors.js";
import * as scenarios from "./scenarios.js";

const PARTS = { functions, captures, scenarios };
const page = document.getElementById("page");

// #/part or #/part/name
async function show() {
  const [, part, name] = location.hash.split("/").map(decoded);
  const chosen = PARTS[part] ? part : "functions";
  for (const tab of document.querySelectorAll("[data-tab]")) {
    if (tab.dataset.tab === chosen) tab.setAttribute("aria-current", "page");
    else tab.removeAttribute("aria-current");
  }
  try {
    await PARTS[chosen].show(page, name);
  } catch (error) {
    page.replaceChildren(refused(error));
  }
}

function decoded(text) {
  try {
    return decodeURIComponent(text);
  } catch {
    return text; // typed by hand
  }
}

// "/" goes to the filter, as on many pages.
document.addEventListener("keydown", (event) => {
  const typing = event.target.closest("input, textarea, select");
  if (event.key !== "/" || typing || event.ctrlKey || event.metaKey || event.altKey) return;
  const filter = document.getElementById("filter");
  if (!filter) return;
  filter.closest("details").open = true;
  filter.focus();
  event.preventDefault();
});

// The skip link would change the address, which says what is shown.
document.querySelector("[data-skip]").addEventListener("click", (event) => {
  event.preventDefault();
  document.getElementById("work")?.focus();
});

const THEMES = ["auto", "light", "dark"];
const button = document.getElementById("theme");

function showTheme() {
  const now = document.documentElement.dataset.theme ?? "auto";
  button.textContent = { auto: "◐ Auto", light: "○ Light", dark: "● Dark" }[now];
  button.setAttribute("aria-label", `Colours: ${now}`);
}

button.addEventListener("click", () => {
  const root = document.documentElement;
  const next = THEMES[(THEMES.indexOf(root.dataset.theme ?? "auto") + 1) % THEMES.length];
  if (next === "auto") delete root.dataset.theme;
  else root.dataset.theme = next;
  try {
    localStorage.setItem("theme", next);
  } catch {
    // Storage is withheld: it holds for this page only.
  }
  showTheme();
});

showTheme();
window.addEventListener("hashchange", show);
show();
get("/api/scenarios").then(scenarios.showLoaded, () => {});
