// The functions: the list by subsystem, one function's form, what its call left behind.
import { Refused, get, post } from "./api.js";
import { ArgumentForm, Mistyped } from "./arguments.js";
import { journal, outcome } from "./result.js";
import { breakable, copyButton, field, hint, make, nothing, replace, say } from "./dom.js";
import { entries, inline, prose } from "./markdown.js";
import { refused } from "./errors.js";

let subsystems = null;
let list = null;

// Shows a function, the first one without a name.
export async function show(page, name) {
  subsystems ??= (await get("/api/functions")).subsystems;
  const all = subsystems.flatMap(({ title, functions }) =>
    functions.map((one) => ({ ...one, subsystem: title })),
  );
  const described = name ? all.find((one) => one.name === name) : all[0];
  if (!described) throw new Refused({ problem: `the module has no function ${name}` });
  if (!list?.isConnected) {
    list = sidebar(all.length);
    const work = make("main", { id: "work", tabindex: "-1" });
    page.replaceChildren(make("div", { class: "functions" }, list, work));
  }
  mark(described.name);
  list.querySelector("details").open = window.matchMedia("(min-width: 860px)").matches;
  replace(document.getElementById("work"), work(described));
  document.title = `${described.name} · Console`;
}

function mark(name) {
  for (const link of list.querySelectorAll("a")) {
    if (link.dataset.name === name) link.setAttribute("aria-current", "page");
    else link.removeAttribute("aria-current");
  }
  list.querySelector("[aria-current]").scrollIntoView({ block: "nearest" });
}

function sidebar(count) {
  const unmatched = "No function has that in its name.";
  const none = make("p", { class: "empty small", hidden: true }, unmatched);
  const filter = field("Filter the functions", {
    type: "search",
    id: "filter",
    placeholder: "Filter",
    "aria-keyshortcuts": "/",
    input: () => narrow(),
  });
  const groups = subsystems.map(({ title, functions }) =>
    make("section", {}, make("h2", {}, title), make("ul", {}, functions.map(link))),
  );
  const narrow = () => {
    const wanted = filter.value.trim().toLowerCase();
    for (const group of groups) {
      for (const item of group.querySelectorAll("li")) {
        item.hidden = !item.textContent.toLowerCase().includes(wanted);
      }
      group.hidden = !group.querySelector("li:not([hidden])");
    }
    none.hidden = groups.some((group) => !group.hidden);
  };
  const summary = make("summary", {}, `All ${count} functions`);
  const nav = make(
    "nav",
    { class: "list", "aria-label": "Functions" },
    make("details", {}, summary, filter, none, groups),
  );
  nav.addEventListener("keydown", (event) => walk(event, nav, filter));
  return nav;
}

function link({ name, summary }) {
  const attributes = { href: `#/functions/${name}`, "data-name": name, title: summary };
  return make("li", {}, make("a", attributes, breakable(name)));
}

// Arrow keys go from the filter through the functions that are left; Enter in it opens the first.
function walk(event, nav, filter) {
  const links = [...nav.querySelectorAll("a")].filter((one) => one.offsetParent !== null);
  const place = links.indexOf(document.activeElement);
  if (event.key === "ArrowDown") links[Math.min(place + 1, links.length - 1)]?.focus();
  else if (event.key === "ArrowUp") (place > 0 ? links[place - 1] : filter).focus();
  else if (event.key === "Enter" && document.activeElement === filter) links[0]?.click();
  else return;
  event.preventDefault();
}

function work(described) {
  const left = make("div", { class: "left" }, untried());
  return [
    make(
      "header",
      { class: "title" },
      make("p", { class: "eyebrow" }, described.subsystem),
      make("h1", {}, breakable(described.name)),
      make("p", { class: "summary" }, inline(described.summary)),
    ),
    make(
      "div",
      { class: "columns" },
      make("div", { class: "try" }, calling(described, left), left),
      documentation(described),
    ),
  ];
}

// The form; what a call leaves behind goes to `left`.
function calling(described, left) {
  const line = make("code", { class: "python" });
  let form = null; // the rows are filled before it is there
  let command = null;
  const changed = () => {
    if (!form) return;
    line.textContent = form.python();
    command.fill();
  };
  form = new ArgumentForm(described, changed);
  command = curl(described.name, form);
  changed();
  const button = make("button", { type: "submit", class: "primary" }, "Call");
  const submit = async (event) => {
    event.preventDefault();
    button.disabled = true;
    try {
      const called = await post(`/api/functions/${described.name}`, form.body());
      replace(left, outcome(called), journal(called));
      say(called.raised ? `raised ${called.raised.type}` : `returned ${called.result.type}`);
    } catch (error) {
      blame(form, error, left);
    } finally {
      button.disabled = false;
    }
  };
  return make(
    "form",
    { class: "panel call", submit, "aria-label": "Arguments" },
    make("pre", { class: "signature", tabindex: "0" }, described.declaration),
    form.elements.length ? form.elements : hint("It takes no arguments."),
    make("div", { class: "go" }, button, make("div", { class: "line" }, line)),
    command.element,
  );
}

// What is wrong with an argument is told at the argument.
function blame(form, error, left) {
  if (error instanceof Mistyped) return error.row.blame(error.message);
  const row = error instanceof Refused ? form.rowAt(error.about.at ?? "") : null;
  if (row) {
    row.blame(error.message);
    say(error.message);
  } else {
    replace(left, refused(error));
  }
}

function untried() {
  return nothing(
    "Nothing called yet.",
    ["Press ", make("kbd", {}, "Enter"), " in a field, or Call."],
    " What comes back is shown here, with the native calls behind it.",
  );
}

// The command for the call as it stands; `fill` when it has changed.
function curl(name, form) {
  const command = () => {
    const body = form.body();
    if (!body.arguments.length) delete body.arguments;
    if (!Object.keys(body.keywords).length) delete body.keywords;
    const json = JSON.stringify(body).replaceAll("'", "'\\''");
    const address = `${location.origin}/api/functions/${name}`;
    return `curl -H 'Content-Type: application/json' ${address} -d '${json}'`;
  };
  const text = make("pre", { tabindex: "0" });
  const fill = () => {
    try {
      text.textContent = command();
    } catch (error) {
      text.textContent = error.message;
    }
  };
  const summary = make("summary", {}, "The same with curl");
  const copy = copyButton(() => text.textContent);
  return { element: make("details", { class: "curl" }, summary, text, copy), fill };
}

function documentation({ text, raises, example }) {
  const shown = make("pre", { class: "example", tabindex: "0" }, example);
  return make(
    "aside",
    { class: "told", "aria-label": "Documentation" },
    prose(text),
    raises ? [make("h2", {}, "Raises"), entries(raises)] : null,
    example ? [make("h2", {}, "Example"), shown] : null,
  );
}
