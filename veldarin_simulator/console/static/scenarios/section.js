// Scenarios: load and save them, and edit the replies that override this machine's.
import { get, isLate } from "../core/api.js";
import { el, emptyState, pageTitle, replace } from "../core/dom.js";
import { errorPanel } from "../core/errors.js";
import { poll, statusChanges } from "../core/status.js";
import { draftChanges } from "./drafts.js";
import { ReplyEditor } from "./reply_editor.js";
import { ReplyList } from "./reply_list.js";
import { ScenarioList } from "./scenario_list.js";

const SUMMARY =
  "Recorded replies that override this machine's own. An edit applies from the next call; save " +
  "the scenario to keep it.";

let shown = null;

export async function show(page, { name, place }) {
  document.title = "Scenarios · Console";
  if (!shown?.work.isConnected) {
    shown = new Scenarios();
    page.replaceChildren(shown.work);
  }
  if (!shown.state) await shown.read(place);
  await shown.open(name, place);
}

class Scenarios {
  constructor() {
    this.editor = null;
    this.place = null;
    const refresh = () => this.refresh();
    this.scenarios = new ScenarioList({
      refresh,
      showReply: (name, error) => this.showReply(name, error),
    });
    this.replies = new ReplyList((name) => this.choose(name));
    this.editorPlace = el("div.editor");
    this.work = el(
      "main.single",
      { id: "work", tabindex: "-1" },
      pageTitle("Scenarios", SUMMARY),
      el(
        "div.scenarios",
        el("div.store", this.scenarios.element, this.replies.element),
        this.editorPlace,
      ),
    );
    const whileShown = (source, action) => {
      const listener = () => {
        if (this.work.isConnected) action();
        else source.removeEventListener("change", listener);
      };
      source.addEventListener("change", listener);
    };
    whileShown(statusChanges, () => this.update());
    whileShown(draftChanges, () => {
      this.replies.draw();
      this.scenarios.drawUnsaved();
    });
  }

  async read(place) {
    const [state, { replies }] = await Promise.all([
      get("/api/scenarios", place),
      get("/api/replies", place),
    ]);
    this.state = state;
    this.scenarios.draw(state);
    this.replies.draw(replies);
  }

  // Shows what another window changed.
  async update() {
    const { place, editor } = this;
    try {
      await this.read(place);
      if (editor === this.editor) await editor?.refresh();
    } catch (error) {
      if (!isLate(error)) replace(this.scenarios.errors, errorPanel(error));
    }
  }

  // Shows what this window changed.
  async refresh() {
    await poll(true);
    await this.update();
  }

  choose(name) {
    location.hash = `#/scenarios/${encodeURIComponent(name)}`;
  }

  async open(name, place) {
    this.place = place;
    this.replies.draw(this.replies.replies, name);
    if (name === null) {
      this.editor = null;
      replace(this.editorPlace, emptyState("No reply selected.", "Select one to view or edit it."));
      return;
    }
    if (this.editor?.name === name) {
      this.editor.place = place;
      return;
    }
    this.editor = null;
    replace(this.editorPlace, el("p.empty", "Loading …"));
    try {
      const reply = await get(`/api/replies/${encodeURIComponent(name)}`, place);
      this.editor = new ReplyEditor(place, reply, () => this.refresh());
      replace(this.editorPlace, this.editor.element);
    } catch (error) {
      if (isLate(error)) return;
      replace(this.editorPlace, errorPanel(error));
    }
    const isOutOfSight = this.editorPlace.getBoundingClientRect().top > window.innerHeight * 0.7;
    if (isOutOfSight) this.editorPlace.scrollIntoView({ block: "start" });
  }

  // Opens the editor of a reply with an error.
  async showReply(name, error) {
    if (this.editor?.name !== name) {
      history.pushState({}, "", `#/scenarios/${encodeURIComponent(name)}`);
      await this.open(name, this.place);
    }
    this.editor?.showError(error);
  }
}
