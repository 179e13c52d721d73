// The list of replies with where each comes from.
import {
  badge,
  breakable,
  debounce,
  el,
  field,
  inlineForm,
  panel,
  replace,
  segments,
} from "../core/dom.js";
import { visible } from "../core/text.js";
import { draftOf } from "./drafts.js";

const FILTERS = [
  ["All", "all"],
  ["Scenario", "scenario"],
  ["Live", "live"],
  ["Recorded", "recorded"],
];

export class ReplyList {
  constructor(choose) {
    this.choose = choose;
    this.replies = [];
    this.chosen = null;
    this.from = "all";
    this.body = el("div.reply-list");
    this.filter = field("Filter the replies", {
      type: "search",
      placeholder: "Filter",
      input: debounce(() => this.draw(), 60),
    });
    const command = field("Another command", { placeholder: "another command", required: true });
    this.element = panel(
      { label: "Replies", title: "Replies" },
      el(
        "div.reply-tools",
        this.filter,
        segments("Where they come from", FILTERS, "all", (from) => {
          this.from = from;
          this.draw();
        }),
      ),
      this.body,
      inlineForm(command, "Edit", "button", choose),
    );
  }

  draw(replies = this.replies, chosen = this.chosen) {
    Object.assign(this, { replies, chosen });
    const focused = document.activeElement?.dataset?.reply;
    const wanted = this.filter.value.trim().toLowerCase();
    const shown = replies.filter(
      (one) =>
        one.name.toLowerCase().includes(wanted) &&
        (this.from === "all" || sourceOf(one)?.includes(this.from)),
    );
    const group = (title, listed) =>
      listed.length
        ? el(
            "section",
            el("h3", title),
            el(
              "ul.replies",
              listed.map((one) => this.item(one)),
            ),
          )
        : null;
    replace(
      this.body,
      group(
        "Commands",
        shown.filter((one) => one.command),
      ),
      group(
        "Native services",
        shown.filter((one) => !one.command),
      ),
      shown.length ? null : el("p.empty.small", "No reply is like this."),
    );
    if (focused) this.body.querySelector(`[data-reply="${CSS.escape(focused)}"]`)?.focus();
  }

  item(one) {
    const attributes = {
      type: "button",
      "data-reply": one.name,
      "aria-pressed": String(one.name === this.chosen),
      click: () => this.choose(one.name),
    };
    const label = [
      el("code", one.command ? visible(one.name) : breakable(one.name)),
      el("span.badges", badges(one)),
    ];
    return el("li", el("button.choice", attributes, label));
  }
}

function sourceOf({ overridden, source }) {
  return overridden ? "scenario" : source;
}

function badges(one) {
  const source = sourceOf(one);
  return [
    draftOf(one.name) ? badge("draft", "modified") : null,
    one.modified ? badge(one.overridden ? "edited" : "removed", "modified") : null,
    source === null ? null : badge(source === "none" ? "no reply" : source),
  ];
}
