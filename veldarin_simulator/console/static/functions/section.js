// The functions: a list by subsystem; the form, the outcome and the documentation of one.
import { bodyOf, callAddress, changeAddress } from "../core/address.js";
import { isLate, isUnreachable, post } from "../core/api.js";
import { announce, breakable, debounce, el, emptyState, hint, note, replace } from "../core/dom.js";
import { errorPanel } from "../core/errors.js";
import { functionIndex, searchFunctions } from "../core/index.js";
import { entries, inline, prose } from "../core/markdown.js";
import { addRecent, distinctCalls, findRecent } from "../core/recent.js";
import { runVisibly } from "../core/running.js";
import { clock, visible } from "../core/text.js";
import { outcome, outcomeText } from "../results/outcome.js";
import { ArgumentForm, InvalidInput } from "./form.js";
import { callLabel, pythonCall } from "./python.js";
import { markCurrent, sidebar } from "./sidebar.js";

let list = null;
let callNow = false; // whether the next function to be shown is called immediately

// Repeats the last call.
export function repeatLast() {
  const [last] = distinctCalls(1);
  if (!last) return;
  const address = callAddress("functions", last.name, last.body);
  callNow = true;
  if (location.hash === address) window.dispatchEvent(new Event("hashchange"));
  else location.hash = address;
}

// Shows a function, by default the first.
export async function show(page, { name, parameters, place, byKeyboard }) {
  const index = await functionIndex();
  place.throwIfAborted();
  if (!list?.isConnected) {
    list = sidebar(index);
    page.replaceChildren(el("div.functions", list, el("main", { id: "work", tabindex: "-1" })));
  }
  const description = name ? index.functions.find((one) => one.name === name) : index.functions[0];
  markCurrent(list, description?.name);
  const work = document.getElementById("work");
  document.title = `${description?.name ?? "Unknown function"} · Console`;
  if (description) new Call(work, description, parameters, place, byKeyboard);
  else replace(work, unknownFunction(index.functions, name));
}

function unknownFunction(functions, name) {
  const parts = name.split(/[^a-z]+/i).filter((part) => part.length > 2);
  const near = parts.flatMap((part) => searchFunctions(functions, part));
  const suggested = [...new Set(near)].slice(0, 5);
  return el(
    "section.panel",
    { "aria-label": "Unknown function", role: "alert" },
    el("header", el("h1", "Unknown function")),
    el("p", "The module has no function ", el("code", visible(name)), "."),
    suggested.length ? el("h2", "Similar names") : hint("Choose one from the list."),
    el("ul.suggestions", suggested.map(suggestion)),
  );
}

function suggestion({ name, summary }) {
  return el(
    "li",
    el("a", { href: `#/functions/${name}` }, el("code", name)),
    hint(inline(summary)),
  );
}

// One function on the page: form, documentation and output.
class Call {
  constructor(work, description, parameters, place, byKeyboard) {
    this.description = description;
    this.place = place;
    this.output = el("div.output", notCalledYet());
    this.python = el("code.python");
    this.button = el("button.primary", { type: "submit" }, "Call");
    const [body, problem] = readBody(parameters);
    this.update = () => this.form && this.showCall();
    this.form = new ArgumentForm(description, body, this.update);
    this.keepAddress = debounce(() => this.changeAddress(), 150);
    replace(work, heading(description), this.columns(problem), this.output);
    this.showCall(body !== null);
    this.restore();
    if (callNow) this.call();
    else if (byKeyboard) (this.form.rows[0] ?? this.button).focus();
    callNow = false;
  }

  columns(problem) {
    const { declaration } = this.description;
    const { elements, surplus } = this.form;
    const submit = (event) => {
      event.preventDefault();
      this.call();
    };
    this.watch = el("a.button.quiet", "Watch");
    return el(
      "div.columns",
      el(
        "form.panel.call",
        { submit, "aria-label": "Arguments" },
        el("pre.signature", { tabindex: "0" }, declaration),
        problem ? el("p.remark", { role: "alert" }, problem) : null,
        surplus ? el("p.remark", `The address has ${surplus} more arguments than the form.`) : null,
        elements.length ? elements : hint("This function takes no arguments."),
        el("div.actions", this.button, el("div.line", this.python), this.watch),
      ),
      documentation(this.description),
    );
  }

  // Shows the call in Python, and keeps it in the address once it was edited.
  showCall(isEdited = true) {
    const { name } = this.description;
    try {
      const body = this.form.body();
      replace(this.python, visible(pythonCall(name, body)));
      this.watch.href = callAddress("watch", name, body);
      if (isEdited && this.keepAddress) this.keepAddress();
    } catch (error) {
      replace(this.python, el("span.soft", error.message));
    }
  }

  changeAddress() {
    if (this.place.aborted) return;
    try {
      changeAddress(callAddress("functions", this.description.name, this.form.body()));
    } catch (error) {
      if (!(error instanceof InvalidInput)) throw error;
    }
  }

  // Shows the outcome that belongs to this entry of the window's history.
  restore() {
    const entry = findRecent(history.state?.call);
    if (!entry?.response || entry.name !== this.description.name) return;
    replace(this.output, outcome(entry, note(`called at ${clock(entry.at)}`)));
  }

  async call() {
    if (this.button.disabled) return;
    const { name } = this.description;
    this.button.disabled = true;
    try {
      const body = this.form.body();
      const path = `/api/functions/${name}`;
      const response = await runVisibly(this.output, this.place, (signal) =>
        post(path, body, signal),
      );
      if (!response) return;
      const entry = addRecent({
        kind: "call",
        name,
        body,
        label: callLabel(name, body),
        response,
        outcome: outcomeText(response),
      });
      this.remember(entry);
      replace(this.output, outcome(entry));
      announce(entry.outcome);
    } catch (error) {
      if (!isLate(error)) this.showError(error);
    } finally {
      this.button.disabled = false;
      if (document.activeElement === document.body) this.button.focus();
    }
  }

  // Gives the call an entry in the window's history; Back returns to the one before.
  remember({ id, name, body }) {
    const address = callAddress("functions", name, body);
    const isRepeated = location.hash === address || !history.state?.call;
    history[isRepeated ? "replaceState" : "pushState"]({ call: id }, "", address);
  }

  // Shows an error at the argument that it belongs to.
  showError(error) {
    const row = error instanceof InvalidInput ? error.row : this.form.rowAt(error.problem?.at);
    if (row) {
      row.showError(error.message);
      announce(error.message);
    } else {
      replace(this.output, errorPanel(error));
      if (isUnreachable(error)) this.output.append(hint("Call again once it runs."));
    }
  }
}

function readBody(parameters) {
  try {
    return [bodyOf(parameters), null];
  } catch {
    return [null, "The address does not hold valid arguments: this is the example."];
  }
}

function heading({ name, subsystem, summary }) {
  return el(
    "header.title",
    el("p.eyebrow", subsystem),
    el("h1", breakable(name)),
    el("p.summary", inline(summary)),
  );
}

function notCalledYet() {
  const how = ["Press ", el("kbd", "Enter"), " in a field, or Call. "];
  return emptyState("Not called yet.", how, "The result and the native calls appear here.");
}

function documentation({ text, args, raises, example }) {
  return el(
    "aside.documentation",
    { "aria-label": "Documentation", tabindex: "0" },
    prose(text),
    args ? [el("h2", "Arguments"), entries(args)] : null,
    raises ? [el("h2", "Raises"), entries(raises)] : null,
    example ? [el("h2", "Example"), el("pre.example", example)] : null,
  );
}
