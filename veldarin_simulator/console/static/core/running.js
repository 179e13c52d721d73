// Shows that a request runs and for how long, and lets it be left.
import { isLate } from "./api.js";
import { announce, button, el, emptyState, hint, replace } from "./dom.js";

const VISIBLE_AFTER_MS = 300;

// Runs `action(signal)`. After a moment `output` shows the time; leaving drops the response.
// Returns the result, or undefined if the request was left.
export async function runVisibly(output, place, action) {
  const controller = new AbortController();
  const leave = () => controller.abort();
  place.addEventListener("abort", leave);
  const started = performance.now();
  const seconds = el("span.seconds");
  const count = () => (seconds.textContent = `${elapsed(started)} s`);
  let timer = setTimeout(() => {
    const left = button("Leave it", () => {
      leave();
      replace(output, leftState(started));
      announce("left the call");
    });
    replace(output, runningPanel(seconds, left));
    count();
    announce("the call still runs");
    timer = setInterval(count, 100);
  }, VISIBLE_AFTER_MS);
  try {
    return await action(controller.signal);
  } catch (error) {
    if (!isLate(error) || place.aborted) throw error;
    return undefined;
  } finally {
    clearTimeout(timer);
    clearInterval(timer);
    place.removeEventListener("abort", leave);
  }
}

function runningPanel(seconds, left) {
  return el(
    "section.panel.running",
    { "aria-label": "Running" },
    el("header", el("h2", "Running"), seconds, el("span.tools", left)),
    el("div.progress"),
    hint("Calls are serialized: those of other windows wait for this one."),
  );
}

function leftState(started) {
  const text = `Left after ${elapsed(started)} s.`;
  return emptyState(text, "The module may still work on it. Its result is not shown.");
}

function elapsed(started) {
  return ((performance.now() - started) / 1000).toFixed(1);
}
