// Routes the address to a section; every section works in a place, which ends with the address.
import { readAddress } from "./core/address.js";
import { ApiError, isLate } from "./core/api.js";
import { replace } from "./core/dom.js";
import { errorPanel } from "./core/errors.js";
import { followStatus, showStatus } from "./core/status.js";
import { repeatLast } from "./functions/section.js";
import { handleKeys, showKeys } from "./keys.js";
import { openPalette } from "./palette.js";
import { draftChanges, draftNames } from "./scenarios/drafts.js";
import { followTheme } from "./theme_button.js";

const SECTIONS = {
  functions: () => import("./functions/section.js"),
  watch: () => import("./watch/section.js"),
  compare: () => import("./compare/section.js"),
  parse: () => import("./parse/section.js"),
  scenarios: () => import("./scenarios/section.js"),
};
const NAMES = Object.keys(SECTIONS);
const page = document.getElementById("page");

let place = new AbortController();
let byKeyboard = false; // whether a key opened the next address

async function show() {
  place.abort();
  place = new AbortController();
  const { signal } = place;
  const address = readAddress();
  const section = address.section in SECTIONS ? address.section : "functions";
  for (const tab of document.querySelectorAll("[data-tab]")) {
    if (tab.dataset.tab === section) tab.setAttribute("aria-current", "page");
    else tab.removeAttribute("aria-current");
  }
  const options = { ...address, place: signal, byKeyboard };
  byKeyboard = false;
  try {
    const { show: showSection } = await load(section);
    signal.throwIfAborted();
    await showSection(page, options);
  } catch (error) {
    if (!isLate(error) && !signal.aborted) replace(page, errorPanel(error));
  }
}

async function load(section) {
  try {
    return await SECTIONS[section]();
  } catch {
    throw new ApiError({ detail: "the console does not respond: is it running?" });
  }
}

function open(address) {
  byKeyboard = true;
  if (location.hash === address) show();
  else location.hash = address;
}

function press(selector) {
  const element = document.querySelector(selector);
  element?.click();
  return element !== null;
}

function focusFilter() {
  const filter = document.querySelector("#filter, #page input[type=search]");
  if (!filter) return false;
  const details = filter.closest("details");
  if (details) details.open = true;
  filter.focus();
  return true;
}

handleKeys({
  "/": focusFilter,
  "?": showKeys,
  r: repeatLast,
  c: () => press("form.call button[type=submit]"),
  w: () => press("form.call a[href^='#/watch']"),
  p: () => press("[data-key=pause]"),
  "Ctrl+k": () => openPalette(open),
  "Ctrl+s": () => press("#save-name ~ button"),
  ...Object.fromEntries(NAMES.map((name, index) => [String(index + 1), () => open(`#/${name}`)])),
});

// A click of a link by a key has no count.
document.addEventListener("click", (event) => {
  if (event.target.closest?.("nav.list a")) byKeyboard = event.detail === 0;
});

// Following the skip link would replace the address.
document.querySelector("[data-skip]").addEventListener("click", (event) => {
  event.preventDefault();
  document.getElementById("work")?.focus();
});

// A file that misses its target would replace the page.
for (const name of ["dragover", "drop"]) {
  document.addEventListener(name, (event) => event.preventDefault());
}

document.getElementById("search").addEventListener("click", () => openPalette(open));
document.getElementById("keys").addEventListener("click", showKeys);
followTheme(document.getElementById("theme"));
draftChanges.addEventListener("change", showStatus);
window.addEventListener("hashchange", show);
show();
followStatus(() => draftNames().length);
