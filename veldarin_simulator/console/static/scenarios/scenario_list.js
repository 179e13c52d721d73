// The scenarios: load, save, rename, duplicate, delete, export and import.
import { ApiError, getBlob, isLate, post, put, putBlob, remove } from "../core/api.js";
import {
  announce,
  badge,
  button,
  el,
  field,
  hint,
  inlineForm,
  menu,
  panel,
  replace,
} from "../core/dom.js";
import { confirmDialog, nameDialog } from "../core/dialog.js";
import { download } from "../core/download.js";
import { errorPanel } from "../core/errors.js";
import { plural, visible } from "../core/text.js";
import { fileButton } from "../parse/files.js";
import { draftNames, dropDrafts } from "./drafts.js";
import { applyDraft } from "./reply_editor.js";

function path(name, action = "") {
  if (name.includes("/")) throw new ApiError({ detail: "a scenario name contains no slash" });
  return `/api/scenarios/${encodeURIComponent(name)}${action}`;
}

export class ScenarioList {
  // `refresh()` reads everything again; `showReply(name)` opens the editor of a reply.
  constructor({ refresh, showReply }) {
    Object.assign(this, { refresh, showReply });
    this.errors = el("div");
    this.body = el("div");
    this.name = field("Name to save under", {
      placeholder: "name",
      required: true,
      id: "save-name",
    });
    this.element = panel({ label: "Scenarios", title: "Scenarios" }, this.body, this.errors);
    this.form = inlineForm(this.name, "Save", "button", (name) => this.save(name));
    this.imported = fileButton("Import an archive", ".zip,application/zip", (file) =>
      this.import(file),
    );
    this.element.append(el("div.store-actions", this.form, el("div", this.imported)));
  }

  draw(state) {
    const isFirst = !this.state;
    const previous = this.state?.loaded;
    this.state = state;
    if (isFirst || previous !== state.loaded) this.name.value = state.loaded ?? "";
    const focused = document.activeElement?.closest?.("[data-scenario]")?.dataset.scenario;
    replace(
      this.body,
      el(
        "ul.choices",
        this.item(
          null,
          "This machine",
          "no scenario: live replies, and samples where there are none",
        ),
        state.scenarios.map((one) =>
          this.item(one, one, one === state.loaded ? state.directory : ""),
        ),
      ),
      state.scenarios.length ? null : hint(`No scenario is saved yet in ${state.store}`),
    );
    this.drawUnsaved();
    if (focused !== undefined)
      this.body.querySelector(`[data-scenario="${CSS.escape(focused)}"] button`)?.focus();
  }

  drawUnsaved() {
    const count = draftNames().length;
    const isUnsaved = this.state?.modified || count > 0;
    const header = this.element.querySelector("header");
    header.querySelector(".badge")?.remove();
    if (isUnsaved)
      header.append(badge(count ? `unsaved, ${plural(count, "draft")}` : "unsaved", "modified"));
    this.form.querySelector("button").className = isUnsaved ? "primary" : "";
  }

  item(name, label, about) {
    const pressed = String(this.state.loaded === name);
    const load = button(
      [el("span", visible(label)), el("small", about)],
      () => this.load(name),
      "button.choice",
      { "aria-pressed": pressed },
    );
    const actions = name === null ? null : menu("⋯", this.actions(name), `Actions for ${name}`);
    return el("li", { "data-scenario": name ?? "" }, load, actions);
  }

  actions(name) {
    const rename = () => this.toNewName("Rename", name, "rename");
    const duplicate = () => this.toNewName("Duplicate", name, "duplicate");
    return [
      button("Rename", rename),
      button("Duplicate", duplicate),
      button("Export as an archive", () => this.export(name)),
      button("Delete", () => this.delete(name)),
    ];
  }

  async attempt(action) {
    try {
      replace(this.errors);
      await action();
      await this.refresh();
      return true;
    } catch (error) {
      if (!isLate(error)) replace(this.errors, errorPanel(error));
      return false;
    }
  }

  async load(name) {
    const lost = [
      this.state.modified ? "unsaved changes" : null,
      draftNames().length ? plural(draftNames().length, "draft") : null,
    ]
      .filter(Boolean)
      .join(" and ");
    const label = name ?? "this machine's replies";
    if (
      lost &&
      !(await confirmDialog(`Load ${label}?`, `This discards ${lost}.`, "Discard and load"))
    )
      return;
    await this.attempt(async () => {
      await put("/api/scenarios/current", { name });
      dropDrafts();
      announce(name === null ? "no scenario" : `loaded ${name}`);
    });
  }

  // Applies the drafts, then saves. `overwrite` names files that changed on disk.
  async save(name, overwrite = null) {
    try {
      replace(this.errors);
      for (const draft of draftNames()) {
        await this.showingReply(draft, () => applyDraft(draft));
      }
      const state = await put(path(name), overwrite ? { overwrite } : {});
      announce(`saved to ${state.directory}`);
      await this.refresh();
    } catch (error) {
      if (isLate(error)) return;
      if (error instanceof Handled) return void this.refresh();
      replace(this.errors, errorPanel(error));
      if (error.problem.type === "/problems/scenario-changed")
        this.offerOverwrite(name, error.problem.files);
      await this.refresh();
    }
  }

  // Runs an action on a reply; its error is shown in the reply's editor.
  async showingReply(name, action) {
    try {
      await action();
    } catch (error) {
      if (isLate(error)) throw error;
      await this.showReply(name, error);
      throw new Handled();
    }
  }

  offerOverwrite(name, files) {
    const overwrite = button("Overwrite these files", () => this.save(name, files));
    const again = button("Load again", () => this.load(name));
    this.errors.append(el("div.actions", overwrite, again));
  }

  async toNewName(title, name, action) {
    const suggested = action === "duplicate" ? `${name}-copy` : name;
    const to = await nameDialog(`${title} ${name}`, "New name", suggested, title);
    if (to) await this.attempt(() => post(path(name, `/${action}`), { to }));
  }

  async delete(name) {
    const text = `The store moves its files to the folder .trash in ${this.state.store}.`;
    if (!(await confirmDialog(`Delete ${name}?`, text, "Delete"))) return;
    await this.attempt(() => remove(path(name)));
  }

  export(name) {
    return this.attempt(async () => download(`${name}.zip`, await getBlob(path(name, "/archive"))));
  }

  async import(file) {
    const suggested = file.name.replace(/\.zip$/i, "").replace(/[^\w.-]+/g, "-");
    const name = await nameDialog(
      `Import ${file.name}`,
      "Name of the scenario",
      suggested,
      "Import",
    );
    if (name) await this.attempt(() => putBlob(path(name, "/archive"), file));
  }
}

// An error that is shown already.
class Handled extends Error {}
