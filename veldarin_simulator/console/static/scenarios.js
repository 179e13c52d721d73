// Scenarios: the recorded answers that come before this machine's own; which there are, what they
// answer, and an editor for one answer.
import { get, post } from "./api.js";
import { area, badge, breakable, field, hint, make, nothing, panel, replace, say } from "./dom.js";
import { refused } from "./errors.js";

const SUMMARY =
  "Recorded answers that come before this machine's own. An edit counts from the next call on; " +
  "saving keeps it.";

export async function show(page, name) {
  const work = make("main", { id: "work", class: "single", tabindex: "-1" });
  page.replaceChildren(work);
  document.title = "Scenarios · Console";
  await fill(work, name ?? null);
}

// `chosen`: the answer in the editor, if there is one.
async function fill(work, chosen) {
  const [state, { answers }] = await Promise.all([get("/api/scenarios"), get("/api/answers")]);
  showLoaded(state);
  const editor = make(
    "div",
    { class: "editor" },
    nothing("No answer chosen.", "Choose one to see what it says, and to say something else."),
  );
  const again = () => fill(work, chosen);
  const choose = async (name) => {
    chosen = name;
    for (const button of work.querySelectorAll("[data-answer]")) {
      button.setAttribute("aria-pressed", String(button.dataset.answer === name));
    }
    try {
      replace(editor, editing(await get(`/api/answers/${encodeURIComponent(name)}`), again));
    } catch (error) {
      replace(editor, refused(error));
    }
    const outOfSight = editor.getBoundingClientRect().top > window.innerHeight * 0.7;
    if (outOfSight) editor.scrollIntoView({ block: "start" });
  };
  replace(
    work,
    make(
      "header",
      { class: "title" },
      make("h1", { class: "plain" }, "Scenarios"),
      make("p", { class: "summary" }, SUMMARY),
    ),
    make(
      "div",
      { class: "scenarios" },
      make("div", { class: "shelf" }, shelf(state, again), answerList(answers, choose)),
      editor,
    ),
  );
  if (chosen) await choose(chosen);
}

// In the bar of the page: which scenario answers.
export function showLoaded({ loaded, changed }) {
  const place = document.getElementById("loaded");
  place.hidden = loaded === null && !changed;
  place.textContent = `${loaded ?? "unsaved answers"}${loaded && changed ? " *" : ""}`;
  place.title = changed ? "Scenario in work, with unsaved changes" : "Scenario in work";
}

function shelf(state, again) {
  const told = make("div", {});
  const load = async (name) => {
    const question = "What was edited is not saved. Load all the same?";
    if (state.changed && !window.confirm(question)) return;
    await tried(told, async () => {
      await post("/api/scenarios/load", { name });
      say(name === null ? "no scenario" : `${name} is loaded`);
      await again();
    });
  };
  const choice = (name, label, about) => {
    const pressed = String(state.loaded === name);
    const button = { type: "button", class: "choice", "aria-pressed": pressed };
    const shown = [make("span", {}, label), make("small", {}, about)];
    return make("li", {}, make("button", { ...button, click: () => load(name) }, shown));
  };
  const name = field("Name to save under", { placeholder: "name", required: true });
  name.value = state.loaded ?? "";
  const save = () =>
    tried(told, async () => {
      const now = await post("/api/scenarios/save", { name: name.value.trim() });
      say(`saved to ${now.folder}`);
      await again();
    });
  return panel(
    {
      label: "Scenarios",
      title: "Scenarios",
      beside: state.changed ? badge("unsaved", "changed") : null,
    },
    make(
      "ul",
      { class: "choices" },
      choice(null, "This machine", "no scenario: live, and the samples that everybody has"),
      state.scenarios.map((one) => choice(one, one, one === state.loaded ? state.folder : "")),
    ),
    state.scenarios.length ? null : hint(`None is saved yet. They are kept in ${state.shelf}`),
    oneField(name, "Save", state.changed ? "primary" : "", save),
    told,
  );
}

function answerList(answers, choose) {
  const item = (one) => {
    const known = { "data-answer": one.name, "aria-pressed": "false" };
    const button = { type: "button", class: "choice", ...known, click: () => choose(one.name) };
    return make("li", {}, make("button", button, make("code", {}, breakable(one.name)), mark(one)));
  };
  const group = (title, held) =>
    make("section", {}, make("h3", {}, title), make("ul", { class: "answers" }, held.map(item)));
  const command = field("Another command", { placeholder: "another command", required: true });
  return panel(
    { label: "Answers", title: "Answers" },
    group("Commands", answers.filter((one) => one.command)),
    oneField(command, "Edit", "", () => choose(command.value)),
    group("Native services", answers.filter((one) => !one.command)),
  );
}

function oneField(input, label, kind, submitted) {
  const submit = (event) => {
    event.preventDefault();
    submitted();
  };
  const button = make("button", { type: "submit", class: kind || null }, label);
  return make("form", { class: "save", submit }, input, button);
}

function mark({ own, changed, source }) {
  if (changed) return badge(own ? "edited" : "taken out", "changed");
  if (own) return badge("scenario", "own");
  return source && source !== "none" ? badge(source) : null;
}

function editing({ name, own, file, text }, again) {
  const told = make("div", {});
  // A text field knows one kind of line end: the other is put back.
  const returns = text.includes("\r\n");
  const editor = area(`Answer of ${name}`, { class: "capture", rows: "18" });
  editor.value = text;
  const take = async (given) => {
    try {
      await post(`/api/answers/${encodeURIComponent(name)}`, { text: given });
      say("taken");
      await again();
    } catch (error) {
      replace(told, refused(error));
      if (error.about.line) select(editor, error.about.line);
    }
  };
  const submit = (event) => {
    event.preventDefault();
    return take(returns ? editor.value.replaceAll("\n", "\r\n") : editor.value);
  };
  const remove = { type: "button", class: "quiet", click: () => take(null) };
  return make(
    "form",
    { class: "panel call", "aria-label": "Answer", submit },
    make("header", {}, make("h2", {}, make("code", {}, name))),
    own
      ? hint(`Held by the scenario, in ${file}`)
      : hint("Not held by the scenario: what is answered now, to begin with"),
    editor,
    told,
    make(
      "div",
      { class: "go" },
      make("button", { type: "submit", class: "primary" }, "Use this answer"),
      own ? make("button", remove, "Remove from the scenario") : null,
    ),
  );
}

// Puts the cursor on a line, so that what is wrong is in sight.
function select(editor, line) {
  const lines = editor.value.split("\n");
  const start = lines.slice(0, line - 1).reduce((sum, one) => sum + one.length + 1, 0);
  editor.focus();
  editor.setSelectionRange(start, start + (lines[line - 1]?.length ?? 0));
}

async function tried(told, action) {
  try {
    replace(told);
    await action();
  } catch (error) {
    replace(told, refused(error));
  }
}
