// Scenarios: the recorded answers that come before this machine's own; which there are, what they
// answer, and an editor for one answer.
import { Refused, get, post } from "./api.js";
import { badge, make, replace, say } from "./dom.js";
import { refused } from "./refused.js";

export async function show(page, name) {
  const work = make("main", { id: "work", class: "single", tabindex: "-1" });
  page.replaceChildren(work);
  document.title = "Scenarios · Console";
  await fill(work, name ?? null);
}

async function fill(work, chosen) {
  const [state, { answers }] = await Promise.all([get("/api/scenarios"), get("/api/answers")]);
  showLoaded(state);
  const editor = make("div", { class: "editor" }, unchosen());
  const again = () => fill(work, chosen);
  const choose = async (name) => {
    chosen = name;
    for (const button of work.querySelectorAll("[data-answer]")) {
      button.setAttribute("aria-pressed", String(button.dataset.answer === name));
    }
    try {
      const held = await get(`/api/answers/${encodeURIComponent(name)}`);
      replace(editor, editing(held, again));
    } catch (error) {
      if (!(error instanceof Refused)) throw error;
      replace(editor, refused(error));
    }
    if (editor.getBoundingClientRect().top > window.innerHeight * 0.7) {
      editor.scrollIntoView({ block: "start" });
    }
  };
  replace(
    work,
    make(
      "header",
      { class: "title" },
      make("h1", { class: "plain" }, "Scenarios"),
      make("p", { class: "summary" }, "Recorded answers that come before this machine's own. An edit counts from the next call on; saving keeps it."),
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

function unchosen() {
  return make("div", { class: "empty" }, make("p", {}, "No answer chosen."), make("p", { class: "hint" }, "Choose one to see what it says, and to say something else."));
}

function shelf(state, again) {
  const told = make("div", {});
  const load = async (name) => {
    if (state.changed && !window.confirm("What was edited is not saved. Load all the same?")) return;
    await tried(told, async () => {
      await post("/api/scenarios/load", { name });
      say(name === null ? "no scenario" : `${name} is loaded`);
      await again();
    });
  };
  const choice = (name, label, about) =>
    make(
      "li",
      {},
      make(
        "button",
        { type: "button", class: "choice", "aria-pressed": String(state.loaded === name), click: () => load(name) },
        make("span", {}, label),
        make("small", {}, about),
      ),
    );
  const input = make("input", {
    type: "text",
    "aria-label": "Name to save under",
    placeholder: "name",
    autocomplete: "off",
    spellcheck: "false",
    required: true,
  });
  input.value = state.loaded ?? "";
  const save = (event) => {
    event.preventDefault();
    return tried(told, async () => {
      const now = await post("/api/scenarios/save", { name: input.value.trim() });
      say(`saved to ${now.folder}`);
      await again();
    });
  };
  return make(
    "section",
    { class: "panel", "aria-label": "Scenarios" },
    make("header", {}, make("h2", {}, "Scenarios"), state.changed ? make("span", { class: "badge badge-changed" }, "unsaved") : null),
    make(
      "ul",
      { class: "choices" },
      choice(null, "This machine", "no scenario: live, and the samples that everybody has"),
      state.scenarios.map((name) => choice(name, name, name === state.loaded ? state.folder : "")),
    ),
    state.scenarios.length ? null : make("p", { class: "hint" }, `None is saved yet. They are kept in ${state.shelf}`),
    make("form", { class: "save", submit: save }, input, make("button", { type: "submit", class: state.changed ? "primary" : "" }, "Save")),
    told,
  );
}

function answerList(answers, choose) {
  const group = (title, held) =>
    make(
      "section",
      {},
      make("h3", {}, title),
      make(
        "ul",
        { class: "answers" },
        held.map((one) =>
          make(
            "li",
            {},
            make(
              "button",
              { type: "button", class: "choice", "data-answer": one.name, "aria-pressed": "false", click: () => choose(one.name) },
              make("code", {}, one.name),
              mark(one),
            ),
          ),
        ),
      ),
    );
  const command = make("input", { type: "text", placeholder: "another command", "aria-label": "Another command", autocomplete: "off", spellcheck: "false", required: true });
  const another = (event) => {
    event.preventDefault();
    choose(command.value);
  };
  return make(
    "section",
    { class: "panel", "aria-label": "Answers" },
    make("header", {}, make("h2", {}, "Answers")),
    group("Commands", answers.filter((one) => one.command)),
    make("form", { class: "save", submit: another }, command, make("button", { type: "submit" }, "Edit")),
    group("Native services", answers.filter((one) => !one.command)),
  );
}

function mark({ own, changed, source }) {
  if (changed) return make("span", { class: "badge badge-changed" }, own ? "edited" : "taken out");
  if (own) return make("span", { class: "badge badge-own" }, "scenario");
  return source && source !== "none" ? badge(source) : null;
}

function editing({ name, own, file, text }, again) {
  const told = make("div", {});
  // A text field knows one kind of line end: the other is put back.
  const returns = text.includes("\r\n");
  const area = make("textarea", { class: "capture", rows: "18", wrap: "off", spellcheck: "false", autocomplete: "off", "aria-label": `Answer of ${name}` });
  area.value = text;
  const take = async (given) => {
    try {
      await post(`/api/answers/${encodeURIComponent(name)}`, { text: given });
      say("taken");
      await again();
    } catch (error) {
      if (!(error instanceof Refused)) throw error;
      replace(told, refused(error));
      if (error.about.line) select(area, error.about.line);
    }
  };
  return make(
    "form",
    {
      class: "panel call",
      "aria-label": "Answer",
      submit: (event) => {
        event.preventDefault();
        return take(returns ? area.value.replaceAll("\n", "\r\n") : area.value);
      },
    },
    make("header", {}, make("h2", {}, make("code", {}, name))),
    make("p", { class: "hint" }, own ? `Held by the scenario, in ${file}` : "Not held by the scenario: what is answered now, to begin with"),
    area,
    told,
    make(
      "div",
      { class: "go" },
      make("button", { type: "submit", class: "primary" }, "Use this answer"),
      own ? make("button", { type: "button", class: "quiet", click: () => take(null) }, "Remove from the scenario") : null,
    ),
  );
}

// Puts the cursor on a line, so that what is wrong is in sight.
function select(area, line) {
  const lines = area.value.split("\n");
  const start = lines.slice(0, line - 1).reduce((sum, one) => sum + one.length + 1, 0);
  area.focus();
  area.setSelectionRange(start, start + (lines[line - 1]?.length ?? 0));
}

async function tried(told, action) {
  try {
    replace(told);
    await action();
  } catch (error) {
    if (!(error instanceof Refused)) throw error;
    replace(told, refused(error));
    say(error.message);
  }
}
