// The functions: a list by subsystem; the form, the outcome and the documentation of one.
import { ApiError, get, post } from "./api.js";
import { ArgumentForm, InvalidInput } from "./arguments.js";
import { announce, breakable, copyButton, el, emptyState, field, hint, replace } from "./dom.js";
import { errorPanel } from "./errors.js";
import { entries, inline, prose } from "./markdown.js";
import { callLog, outcome } from "./result.js";

let subsystems = null;
let list = null;

// Shows a function, by default the first.
export async function show(page, name) {
  subsystems ??= (await get("/api/functions")).subsystems;
  const all = subsystems.flatMap(({ title, functions }) =>
    functions.map((one) => ({ ...one, subsystem: title })),
  );
  const description = name ? all.find((one) => one.name === name) : all[0];
  if (!description) throw new ApiError({ detail: `the module has no function ${name}` });
  if (!list?.isConnected) {
    list = sidebar(all.length);
    page.replaceChildren(el("div.functions", list, el("main", { id: "work", tabindex: "-1" })));
  }
  for (const link of list.querySelectorAll("a")) {
    if (link.dataset.name === description.name) link.setAttribute("aria-current", "page");
    else link.removeAttribute("aria-current");
  }
  list.querySelector("[aria-current]").scrollIntoView({ block: "nearest" });
  list.querySelector("details").open = window.matchMedia("(min-width: 860px)").matches;
  replace(document.getElementById("work"), work(description));
  document.title = `${description.name} · Console`;
}

function sidebar(count) {
  const none = el("p.empty.small", { hidden: true }, "No function name contains this.");
  const groups = subsystems.map(({ title, functions }) =>
    el("section", el("h2", title), el("ul", functions.map(link))),
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
  const search = { type: "search", id: "filter", placeholder: "Filter", "aria-keyshortcuts": "/" };
  const filter = field("Filter the functions", { ...search, input: narrow });
  const nav = el(
    "nav.list",
    { "aria-label": "Functions", keydown: (event) => moveFocus(event, nav, filter) },
    el("details", el("summary", `All ${count} functions`), filter, none, groups),
  );
  return nav;
}

function link({ name, summary }) {
  const attributes = { href: `#/functions/${name}`, "data-name": name, title: summary };
  return el("li", el("a", attributes, breakable(name)));
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

function work(description) {
  const output = el("div.output", notRunYet());
  return [
    el(
      "header.title",
      el("p.eyebrow", description.subsystem),
      el("h1", breakable(description.name)),
      el("p.summary", inline(description.summary)),
    ),
    el(
      "div.columns",
      el("div.call-column", callForm(description, output), output),
      documentation(description),
    ),
  ];
}

function callForm(description, output) {
  const python = el("code.python");
  let form = null; // its constructor reports changes already
  let curl = null;
  const update = () => {
    if (!form) return;
    python.textContent = form.python();
    curl.update();
  };
  form = new ArgumentForm(description, update);
  curl = curlCommand(description.name, form);
  update();
  const button = el("button.primary", { type: "submit" }, "Call");
  const submit = async (event) => {
    event.preventDefault();
    button.disabled = true;
    try {
      const call = await post(`/api/functions/${description.name}`, form.body());
      replace(output, outcome(call), callLog(call));
      announce(call.exception ? `raised ${call.exception.type}` : `returned ${call.result.type}`);
    } catch (error) {
      showError(form, error, output);
    } finally {
      button.disabled = false;
    }
  };
  return el(
    "form.panel.call",
    { submit, "aria-label": "Arguments" },
    el("pre.signature", { tabindex: "0" }, description.declaration),
    form.elements.length ? form.elements : hint("This function takes no arguments."),
    el("div.actions", button, el("div.line", python)),
    curl.element,
  );
}

// Shows an error at the argument that it belongs to.
function showError(form, error, output) {
  const row = error instanceof InvalidInput ? error.row : form.rowAt(error.problem?.at);
  if (row) {
    row.showError(error.message);
    announce(error.message);
  } else {
    replace(output, errorPanel(error));
  }
}

function notRunYet() {
  const how = ["Press ", el("kbd", "Enter"), " in a field, or Call. "];
  return emptyState("Not called yet.", how, "The result and the native calls appear here.");
}

function curlCommand(name, form) {
  const command = () => {
    const body = form.body();
    if (!body.arguments.length) delete body.arguments;
    if (!Object.keys(body.keywords).length) delete body.keywords;
    const json = JSON.stringify(body).replaceAll("'", "'\\''");
    const address = `${location.origin}/api/functions/${name}`;
    return `curl -H 'Content-Type: application/json' ${address} -d '${json}'`;
  };
  const text = el("pre", { tabindex: "0" });
  const update = () => {
    try {
      text.textContent = command();
    } catch (error) {
      text.textContent = error.message;
    }
  };
  const copy = copyButton(() => text.textContent);
  return { element: el("details.curl", el("summary", "As a curl command"), text, copy), update };
}

function documentation({ text, args, raises, example }) {
  return el(
    "aside.documentation",
    { "aria-label": "Documentation" },
    prose(text),
    args ? [el("h2", "Arguments"), entries(args)] : null,
    raises ? [el("h2", "Raises"), entries(raises)] : null,
    example ? [el("h2", "Example"), el("pre.example", { tabindex: "0" }, example)] : null,
  );
}
