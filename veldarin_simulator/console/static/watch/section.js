// Watch: repeats a call and shows what changes.
import { bodyOf, callAddress } from "../core/address.js";
import { isLate, post } from "../core/api.js";
import {
  announce,
  badge,
  button,
  el,
  emptyState,
  menu,
  pageTitle,
  replace,
  segments,
} from "../core/dom.js";
import { csv, download } from "../core/download.js";
import { errorPanel } from "../core/errors.js";
import { functionIndex } from "../core/index.js";
import { distinctCalls } from "../core/recent.js";
import { clock, duration, plural, visible } from "../core/text.js";
import { callLabel } from "../functions/python.js";
import { exceptionPanel } from "../results/outcome.js";
import { Observation, text } from "./observation.js";
import { draw, MADE_VIEWS } from "./views.js";

const INTERVALS = [1, 5, 30];
const SUMMARY = "Repeat a call and see what changes: rates of counters, states over time.";

export async function show(page, { name, parameters, place }) {
  const { functions } = await functionIndex();
  place.throwIfAborted();
  const work = el("main.single", { id: "work", tabindex: "-1" });
  page.replaceChildren(work);
  const description = functions.find((one) => one.name === name);
  document.title = `${description ? `Watch ${name}` : "Watch"} · Console`;
  if (description) new Watch(work, description, parameters, place);
  else replace(work, chooser(functions, name));
}

function chooser(functions, name) {
  const unknown = name
    ? el(
        "p.remark",
        { role: "alert" },
        "The module has no function ",
        el("code", visible(name)),
        ".",
      )
    : null;
  const made = Object.entries(MADE_VIEWS).map(([one, { title, text: about, body }]) =>
    el(
      "li",
      el(
        "a.choice-card",
        { href: callAddress("watch", one, body) },
        el("strong", title),
        el("span", about),
        el("code", one),
      ),
    ),
  );
  const called = distinctCalls(6).map(({ name: one, body, label }) =>
    el("li", el("a", { href: callAddress("watch", one, body) }, el("code", visible(label)))),
  );
  const others = functions
    .filter((one) => /^(list|get|switch)_/.test(one.name) && !(one.name in MADE_VIEWS))
    .map((one) =>
      el(
        "li",
        el("a", { href: callAddress("watch", one.name, one.example_call) }, el("code", one.name)),
      ),
    );
  return [
    pageTitle("Watch", SUMMARY),
    unknown,
    el("ul.choice-cards", made),
    called.length ? [el("h2", "Last calls"), el("ul.links", called)] : null,
    el("h2", "Other functions, with their example's arguments"),
    el("ul.links", others),
  ];
}

class Watch {
  constructor(work, description, parameters, place) {
    this.name = description.name;
    this.place = place;
    this.observation = new Observation();
    this.onlyChanged = false;
    this.isPaused = false;
    const every = Number(parameters.get("every"));
    this.seconds = INTERVALS.includes(every) ? every : 5;
    try {
      this.body = bodyOf(parameters) ?? MADE_VIEWS[this.name]?.body ?? description.example_call;
    } catch {
      this.body = description.example_call;
    }
    this.state = el("span.watch-state", { role: "status" });
    this.facts = el("span.note");
    this.error = el("div");
    this.output = el("div.watch-output", emptyState("Waiting for the first result.", ""));
    const title = MADE_VIEWS[this.name]?.title;
    replace(
      work,
      el(
        "header.title",
        el("p.eyebrow", el("a", { href: "#/watch" }, "Watch")),
        el(title ? "h1.plain" : "h1", title ?? this.name),
        el("p.summary", el("code", visible(callLabel(this.name, this.body)))),
      ),
      el("section.panel", { "aria-label": "Watched call" }, this.tools(), this.error, this.output),
    );
    this.onVisibility = () => this.schedule(0);
    document.addEventListener("visibilitychange", this.onVisibility);
    place.addEventListener("abort", () => {
      clearTimeout(this.timer);
      document.removeEventListener("visibilitychange", this.onVisibility);
    });
    this.schedule(0);
  }

  tools() {
    const intervals = INTERVALS.map((one) => [`${one} s`, one]);
    this.pause = button("Pause", () => this.setPaused(!this.isPaused), "button", {
      "data-key": "pause",
    });
    const changedOnly = el("input", { type: "checkbox" });
    changedOnly.addEventListener("change", () => {
      this.onlyChanged = changedOnly.checked;
      this.draw();
    });
    const hasOwnView = this.name in MADE_VIEWS;
    return el(
      "div.watch-tools",
      this.pause,
      segments("Repeat every", intervals, this.seconds, (seconds) => this.setInterval(seconds)),
      this.state,
      this.facts,
      el(
        "span.tools",
        hasOwnView ? null : el("label.check", changedOnly, "Only what changed"),
        menu("Export", [
          button("JSON file", () => this.exportJSON()),
          button("CSV file", () => this.exportCSV()),
        ]),
        el(
          "a.button.quiet",
          { href: callAddress("functions", this.name, this.body) },
          "Edit the call",
        ),
      ),
    );
  }

  setPaused(isPaused) {
    this.isPaused = isPaused;
    this.pause.textContent = isPaused ? "Resume" : "Pause";
    this.schedule(0);
  }

  setInterval(seconds) {
    this.seconds = seconds;
    const address = callAddress("watch", this.name, this.body, { every: seconds });
    history.replaceState(history.state, "", address);
    this.schedule(seconds);
  }

  // Calls after some seconds, unless the watch is paused or the page hidden.
  schedule(seconds) {
    clearTimeout(this.timer);
    this.showState();
    if (this.place.aborted || this.isPaused || document.hidden || this.isCalling) return;
    this.timer = setTimeout(() => this.call(), seconds * 1000);
  }

  showState() {
    const state = this.isPaused ? "paused" : document.hidden ? "hidden" : "live";
    if (this.state.dataset.state === state) return;
    this.state.dataset.state = state;
    this.state.textContent = { paused: "Paused", hidden: "Stopped while hidden", live: "Watching" }[
      state
    ];
  }

  async call() {
    this.isCalling = true;
    const started = performance.now();
    try {
      const at = Date.now();
      const response = await post(`/api/functions/${this.name}`, this.body, this.place);
      this.observation.add(at, response);
      const { exception } = response;
      replace(this.error, exception ? exceptionPanel(exception) : null);
      this.response = response;
      this.draw();
      const changes = this.observation.lastStateChanges();
      if (changes.length) announce(changes.slice(0, 5).join("; "));
    } catch (error) {
      if (isLate(error)) return;
      replace(this.error, errorPanel(error));
    } finally {
      this.isCalling = false;
      const passed = (performance.now() - started) / 1000;
      this.schedule(Math.max(0.1, this.seconds - passed));
    }
  }

  draw() {
    const { samples, dropped, last } = this.observation;
    if (!samples.length) return;
    const scroll = this.output.querySelector(".table")?.scrollTop ?? 0;
    const hadFocus = this.output.contains(document.activeElement);
    if (!last.exception) replace(this.output, draw(this.name, this.observation, this.onlyChanged));
    const table = this.output.querySelector(".table");
    if (table) {
      table.scrollTop = scroll;
      if (hadFocus) table.focus();
    }
    const { source, microseconds } = this.response;
    replace(this.facts, [
      badge(source),
      ` ${plural(samples.length, "sample")}, the last at ${clock(last.at)}, `,
      duration(microseconds),
      dropped ? `, ${dropped} older ones dropped` : "",
    ]);
  }

  exportJSON() {
    const samples = this.observation.samples.map(({ at, value, exception }) => ({
      at: new Date(at).toISOString(),
      ...(exception ? { exception } : { value }),
    }));
    const seen = { function: this.name, ...this.body, samples };
    download(`watch-${this.name}.json`, `${JSON.stringify(seen, null, 2)}\n`, "application/json");
  }

  exportCSV() {
    const series = [...this.observation.series.values()];
    const rows = series.flatMap((one) =>
      one.points
        .filter(([, value]) => value !== undefined)
        .map(([at, value]) => [
          new Date(at).toISOString(),
          one.entity,
          one.label,
          typeof value === "object" ? text(value) : value,
        ]),
    );
    rows.sort((a, b) => (a[0] < b[0] ? -1 : a[0] > b[0] ? 1 : 0));
    download(
      `watch-${this.name}.csv`,
      csv(["time", "entity", "value of", "value"], rows),
      "text/csv",
    );
  }
}
