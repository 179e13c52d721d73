// Scenarios: load, save, and edit the replies that override this machine's.
import { get, put, remove } from "./api.js";
import {
  announce, area, badge, breakable, el, emptyState, field, hint, pageTitle, panel, replace,
} from "./dom.js";
import { errorPanel } from "./errors.js";

const SUMMARY =
  "Recorded replies that override this machine's own. An edit applies from the next call; save " +
  "the scenario to keep it.";

const replyPath = (name) => `/api/replies/${encodeURIComponent(name)}`;

export async function show(page, name) {
  const work = el("main.single", { id: "work", tabindex: "-1" });
  page.replaceChildren(work);
  document.title = "Scenarios · Console";
  await fill(work, name ?? null);
}

// `chosen` is the name of the reply in the editor, or null.
async function fill(work, chosen) {
  const [state, { replies }] = await Promise.all([get("/api/scenarios"), get("/api/replies")]);
  showLoaded(state);
  const none = emptyState("No reply selected.", "Select one to view or edit it.");
  const editor = el("div.editor", none);
  const refresh = () => fill(work, chosen);
  const choose = async (name) => {
    chosen = name;
    for (const button of work.querySelectorAll("[data-reply]")) {
      button.setAttribute("aria-pressed", String(button.dataset.reply === name));
    }
    try {
      replace(editor, replyForm(await get(replyPath(name)), refresh));
    } catch (error) {
      replace(editor, errorPanel(error));
    }
    const outOfSight = editor.getBoundingClientRect().top > window.innerHeight * 0.7;
    if (outOfSight) editor.scrollIntoView({ block: "start" });
  };
  const lists = el("div.store", scenarioList(state, refresh), replyList(replies, choose));
  replace(work, pageTitle("Scenarios", SUMMARY), el("div.scenarios", lists, editor));
  if (chosen) await choose(chosen);
}

// Shows the current scenario in the page's header.
export function showLoaded({ loaded, modified }) {
  const place = document.getElementById("loaded");
  place.hidden = loaded === null && !modified;
  place.textContent = `${loaded ?? "unsaved replies"}${loaded && modified ? " *" : ""}`;
  place.title = modified ? "Current scenario, with unsaved changes" : "Current scenario";
}

function scenarioList(state, refresh) {
  const errors = el("div");
  const attempt = async (action) => {
    try {
      replace(errors);
      await action();
      await refresh();
    } catch (error) {
      replace(errors, errorPanel(error));
    }
  };
  const load = async (name) => {
    if (state.modified && !window.confirm("Discard unsaved changes?")) return;
    await attempt(async () => {
      await put("/api/scenarios/current", { name });
      announce(name === null ? "no scenario" : `loaded ${name}`);
    });
  };
  const save = () =>
    attempt(async () => {
      const path = `/api/scenarios/${encodeURIComponent(name.value.trim())}`;
      announce(`saved to ${(await put(path, {})).directory}`);
    });
  const item = (one, label, about) => {
    const pressed = String(state.loaded === one);
    const attributes = { type: "button", "aria-pressed": pressed, click: () => load(one) };
    return el("li", el("button.choice", attributes, el("span", label), el("small", about)));
  };
  const name = field("Name to save under", { placeholder: "name", required: true });
  name.value = state.loaded ?? "";
  const beside = state.modified ? badge("unsaved", "modified") : null;
  return panel(
    { label: "Scenarios", title: "Scenarios", beside },
    el(
      "ul.choices",
      item(null, "This machine", "no scenario: live replies, and samples where there are none"),
      state.scenarios.map((one) => item(one, one, one === state.loaded ? state.directory : "")),
    ),
    state.scenarios.length ? null : hint(`No scenario is saved yet in ${state.store}`),
    inlineForm(name, "Save", state.modified ? "button.primary" : "button", save),
    errors,
  );
}

function replyList(replies, choose) {
  const item = (one) => {
    const attributes = { type: "button", "data-reply": one.name, "aria-pressed": "false" };
    const click = () => choose(one.name);
    const label = [el("code", breakable(one.name)), replyBadge(one)];
    return el("li", el("button.choice", { ...attributes, click }, label));
  };
  const group = (title, listed) =>
    el("section", el("h3", title), el("ul.replies", listed.map(item)));
  const command = field("Another command", { placeholder: "another command", required: true });
  return panel(
    { label: "Replies", title: "Replies" },
    group("Commands", replies.filter((one) => one.command)),
    inlineForm(command, "Edit", "button", () => choose(command.value)),
    group("Native services", replies.filter((one) => !one.command)),
  );
}

function inlineForm(input, label, selector, onSubmit) {
  const submit = (event) => {
    event.preventDefault();
    onSubmit();
  };
  return el("form.save", { submit }, input, el(selector, { type: "submit" }, label));
}

function replyBadge({ overridden, modified, source }) {
  if (modified) return badge(overridden ? "edited" : "removed", "modified");
  if (overridden) return badge("scenario");
  return source && source !== "none" ? badge(source) : null;
}

function replyForm({ name, overridden, file, text }, refresh) {
  const errors = el("div");
  const crlf = text.includes("\r\n"); // a textarea converts line ends to \n
  const editor = area(`Reply of ${name}`, { class: "verbatim", rows: "18" });
  editor.value = text;
  const attempt = async (request) => {
    try {
      await request();
      announce("the next call uses this reply");
      await refresh();
    } catch (error) {
      replace(errors, errorPanel(error));
      if (error.problem.line) selectLine(editor, error.problem.line);
    }
  };
  const submit = (event) => {
    event.preventDefault();
    const edited = crlf ? editor.value.replaceAll("\n", "\r\n") : editor.value;
    return attempt(() => put(replyPath(name), { text: edited }));
  };
  const click = () => attempt(() => remove(replyPath(name)));
  const source = overridden
    ? `From the scenario, file ${file}`
    : "Not in the scenario. This is the current reply, to start from.";
  return el(
    "form.panel.call",
    { "aria-label": "Reply", submit },
    el("header", el("h2", el("code", name))),
    hint(source),
    editor,
    errors,
    el(
      "div.actions",
      el("button.primary", { type: "submit" }, "Use this reply"),
      overridden
        ? el("button.quiet", { type: "button", click }, "Remove from the scenario")
        : null,
    ),
  );
}

function selectLine(editor, line) {
  const lines = editor.value.split("\n");
  const start = lines.slice(0, line - 1).reduce((sum, one) => sum + one.length + 1, 0);
  editor.focus();
  editor.setSelectionRange(start, start + (lines[line - 1]?.length ?? 0));
}
