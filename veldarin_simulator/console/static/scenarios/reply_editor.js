// The editor of one reply.
import { get, isLate, put, remove } from "../core/api.js";
import { announce, badge, button, el, hint, replace } from "../core/dom.js";
import { errorPanel } from "../core/errors.js";
import { findHidden, visible } from "../core/text.js";
import { codeArea } from "./code_area.js";
import { draftOf, dropDraft, keepDraft } from "./drafts.js";

const replyPath = (name) => `/api/replies/${encodeURIComponent(name)}`;
const fromReply = (text) => text.replaceAll("\r\n", "\n"); // as a text area holds it

// Applies a draft. Throws `ApiError`.
export async function applyDraft(name, signal) {
  const { text, version } = draftOf(name);
  await put(replyPath(name), { text, base: version }, signal);
  dropDraft(name);
}

export class ReplyEditor {
  // A change of the reply calls `onChange()`.
  constructor(place, reply, onChange) {
    Object.assign(this, { place, reply, onChange });
    this.errors = el("div");
    this.notes = el("div.editor-notes");
    this.actions = el("div.actions");
    this.code = codeArea(`Reply of ${reply.name}`, this.shownText(), (text) => this.edit(text));
    const submit = (event) => {
      event.preventDefault();
      this.apply();
    };
    const keydown = (event) => {
      if (event.key === "Enter" && (event.ctrlKey || event.metaKey)) this.apply();
    };
    this.element = el(
      "form.panel.reply-editor",
      { "aria-label": "Reply", submit, keydown },
      el("header", el("h2", el("code", visible(reply.name)))),
      this.notes,
      this.code.element,
      this.errors,
      this.actions,
    );
    this.draw();
  }

  get name() {
    return this.reply.name;
  }

  // The draft, or the reply's text, as a text area holds it.
  shownText() {
    return fromReply(draftOf(this.name)?.text ?? this.reply.text);
  }

  edit(shown) {
    // A text area drops the carriage returns.
    const text = this.reply.text.includes("\r\n") ? shown.replaceAll("\n", "\r\n") : shown;
    const version = draftOf(this.name)?.version ?? this.reply.version;
    if (shown === fromReply(this.reply.text)) dropDraft(this.name);
    else keepDraft(this.name, text, version);
    replace(this.errors);
    this.draw();
  }

  draw() {
    const { overridden, file, text } = this.reply;
    const draft = draftOf(this.name);
    const hidden = findHidden(draft?.text ?? text);
    const isStale = draft && draft.version !== this.reply.version;
    replace(
      this.notes,
      draft ? badge("draft", "modified") : null,
      hint(
        overridden
          ? `From the scenario, file ${file}`
          : "Not in the scenario. This is the current reply, to start from.",
      ),
      isStale
        ? el("p.remark", "Another window changed this reply; the editor shows your draft.")
        : null,
      hidden.length ? el("p.remark", "Hidden characters: ", hidden.map(hiddenNote)) : null,
    );
    const focused = document.activeElement?.dataset?.key;
    replace(
      this.actions,
      el("button.primary", { type: "submit", "data-key": "apply" }, "Use this reply"),
      draft ? button("Discard the draft", () => this.discard(), "button.quiet") : null,
      overridden
        ? button("Remove from the scenario", () => this.removeOverride(), "button.quiet")
        : null,
      el("span.hint.wide", el("kbd", "Ctrl"), " ", el("kbd", "Enter")),
    );
    if (focused) this.actions.querySelector(`[data-key=${focused}]`)?.focus();
  }

  discard() {
    dropDraft(this.name);
    this.code.set(this.shownText());
    replace(this.errors);
    this.draw();
    this.code.text.focus();
  }

  // Reads the reply again after a change by another window; a draft stays.
  async refresh() {
    const reply = await get(replyPath(this.name), this.place);
    this.accept(reply, !draftOf(this.name));
  }

  accept(reply, isShown) {
    const hasOtherText = fromReply(reply.text) !== this.code.text.value;
    this.reply = reply;
    if (isShown && hasOtherText) this.code.set(fromReply(reply.text));
    this.draw();
  }

  apply(base = draftOf(this.name)?.version ?? this.reply.version) {
    const text = draftOf(this.name)?.text ?? this.reply.text;
    return this.change(() =>
      put(replyPath(this.name), { text, ...(base === ANY ? {} : { base }) }, this.place),
    );
  }

  removeOverride() {
    return this.change(() => remove(replyPath(this.name), this.place));
  }

  async change(request) {
    try {
      replace(this.errors);
      this.code.clear();
      const reply = await request();
      dropDraft(this.name);
      this.accept(reply, true);
      this.code.text.focus({ preventScroll: true });
      announce("the next call uses this reply");
      await this.onChange();
    } catch (error) {
      if (!isLate(error)) this.showError(error);
    }
  }

  showError(error) {
    const { line, type } = error.problem ?? {};
    replace(this.errors, errorPanel(error));
    if (type === "/problems/reply-changed") {
      const overwrite = button("Use mine", () => this.apply(ANY));
      const takeOther = button("Take the other", () => this.refresh().then(() => this.discard()));
      this.errors.append(el("div.actions", overwrite, takeOther));
    }
    if (line) this.code.markLine(line);
  }
}

const ANY = Symbol("any version");

function hiddenNote({ line, escape }) {
  return [el("code", escape), ` in line ${line} `];
}
