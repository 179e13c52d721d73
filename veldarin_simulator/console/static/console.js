// Routes the address to a section; handles the keys and the theme.
import { get } from "./api.js";
import { errorPanel } from "./errors.js";
import * as functions from "./functions.js";
import * as parse from "./parse.js";
import * as scenarios from "./scenarios.js";

const SECTIONS = { functions, parse, scenarios };
const page = document.getElementById("page");

// The address is #/section or #/section/name.
async function show() {
  const [, part, name] = location.hash.split("/").map(decode);
  const section = SECTIONS[part] ? part : "functions";
  for (const tab of document.querySelectorAll("[data-tab]")) {
    if (tab.dataset.tab === section) tab.setAttribute("aria-current", "page");
    else tab.removeAttribute("aria-current");
  }
  try {
    await SECTIONS[section].show(page, name);
  } catch (error) {
    page.replaceChildren(errorPanel(error));
  }
}

function decode(text) {
  try {
    return decodeURIComponent(text);
  } catch {
    return text;
  }
}

document.addEventListener("keydown", (event) => {
  const typing = event.target.closest("input, textarea, select");
  if (event.key !== "/" || typing || event.ctrlKey || event.metaKey || event.altKey) return;
  const filter = document.getElementById("filter");
  if (!filter) return;
  filter.closest("details").open = true;
  filter.focus();
  event.preventDefault();
});

// Following the skip link would replace the address.
document.querySelector("[data-skip]").addEventListener("click", (event) => {
  event.preventDefault();
  document.getElementById("work")?.focus();
});

const THEMES = ["auto", "light", "dark"];
const button = document.getElementById("theme");
const root = document.documentElement;

function showTheme() {
  const theme = root.dataset.theme ?? "auto";
  button.textContent = { auto: "◐ Auto", light: "○ Light", dark: "● Dark" }[theme];
  button.setAttribute("aria-label", `Colors: ${theme}`);
}

button.addEventListener("click", () => {
  const next = THEMES[(THEMES.indexOf(root.dataset.theme ?? "auto") + 1) % THEMES.length];
  if (next === "auto") delete root.dataset.theme;
  else root.dataset.theme = next;
  try {
    localStorage.setItem("theme", next);
  } catch {
    // Storage is disabled: the theme lasts until the page is reloaded.
  }
  showTheme();
});

showTheme();
window.addEventListener("hashchange", show);
show();
get("/api/scenarios").then(scenarios.showLoaded, () => {});
