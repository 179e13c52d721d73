// The list of functions: filtered by name and description, with the last calls above it.
import { callAddress } from "../core/address.js";
import { breakable, el, field } from "../core/dom.js";
import { searchFunctions } from "../core/index.js";
import { distinctCalls, recentChanges } from "../core/recent.js";
import { visible } from "../core/text.js";

const WIDE = window.matchMedia("(min-width: 860px)");
const MAX_RECENT = 6;

export function sidebar({ subsystems, functions }) {
  const none = el("p.empty.small", { hidden: true }, "No name or description contains this.");
  const matches = el("ul", { hidden: true });
  const groups = subsystems.map(({ title, functions: own }) =>
    el("section", el("h2", title), el("ul", own.map(link))),
  );
  const narrow = () => {
    const wanted = filter.value.trim();
    const found = wanted ? searchFunctions(functions, wanted) : [];
    for (const one of [...groups, recentGroup]) one.hidden = wanted !== "";
    recentGroup.hidden ||= !recentGroup.querySelector("li");
    matches.hidden = wanted === "";
    matches.replaceChildren(...found.map(link));
    none.hidden = wanted === "" || found.length > 0;
  };
  const filter = field("Filter the functions", {
    type: "search",
    id: "filter",
    placeholder: "Filter names, descriptions",
    "aria-keyshortcuts": "/",
    input: narrow,
  });
  const recentGroup = el("section.recent", { hidden: true });
  const showRecent = () => {
    const items = distinctCalls(MAX_RECENT).map(recentLink);
    recentGroup.replaceChildren(el("h2", "Last calls"), el("ul", items));
    narrow();
  };
  recentChanges.addEventListener("change", showRecent);
  const details = el(
    "details",
    { open: WIDE.matches },
    el("summary", `All ${functions.length} functions`),
    filter,
    none,
    matches,
    recentGroup,
    groups,
  );
  const nav = el(
    "nav.list",
    { "aria-label": "Functions", keydown: (event) => moveFocus(event, nav, filter) },
    details,
  );
  showRecent();
  return nav;
}

// Marks the link of the function that is shown.
export function markCurrent(nav, name) {
  for (const one of nav.querySelectorAll("a[data-name]")) {
    if (one.dataset.name === name) one.setAttribute("aria-current", "page");
    else one.removeAttribute("aria-current");
  }
  nav.querySelector("details").open = WIDE.matches;
  const current = nav.querySelector("[aria-current]")?.getBoundingClientRect();
  const frame = nav.getBoundingClientRect();
  const isInView = !current || (current.top >= frame.top && current.bottom <= frame.bottom);
  // `scrollIntoView` would move the place from which Tab starts.
  if (!isInView) nav.scrollTop += current.top - frame.top - frame.height / 3;
}

function link({ name, summary }) {
  const attributes = { href: `#/functions/${name}`, "data-name": name, title: summary };
  return el("li", el("a", attributes, breakable(name)));
}

function recentLink({ name, body, label, outcome }) {
  const attributes = { href: callAddress("functions", name, body), title: outcome };
  return el("li", el("a", attributes, visible(label)));
}

// Arrow keys move through filter and links; Enter in the filter opens the first link.
function moveFocus(event, nav, filter) {
  const links = [...nav.querySelectorAll("a")].filter((one) => one.offsetParent !== null);
  const index = links.indexOf(document.activeElement);
  if (event.key === "ArrowDown") links[Math.min(index + 1, links.length - 1)]?.focus();
  else if (event.key === "ArrowUp") (index > 0 ? links[index - 1] : filter).focus();
  else if (event.key === "Enter" && document.activeElement === filter) links[0]?.click();
  else return;
  event.preventDefault();
}
