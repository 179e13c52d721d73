// Follows the console's status: changes by other windows, and the call that runs.
import { get, isLate } from "./api.js";
import { el, replace } from "./dom.js";

const INTERVAL_MS = 2000;
const LONG_SECONDS = 1;

// Dispatches "change" when replies or scenarios have changed, by any window.
export const statusChanges = new EventTarget();

let last = null;
let timer = 0;
let drafts = () => 0;

// Begins to poll; `countDrafts` returns the number of edits that the console does not know.
export function followStatus(countDrafts) {
  drafts = countDrafts;
  document.addEventListener("visibilitychange", () => {
    if (document.hidden) clearTimeout(timer);
    else poll();
  });
  return poll();
}

// Reads the status now. A change by this window itself is not dispatched.
export async function poll(isOwnChange = false) {
  clearTimeout(timer);
  try {
    const status = await get("/api/status");
    const isChanged = !isOwnChange && last !== null && last.revision !== status.revision;
    last = status;
    if (isChanged) statusChanges.dispatchEvent(new Event("change"));
    showStatus();
  } catch (error) {
    if (!isLate(error)) showProblem(error);
  }
  clearTimeout(timer);
  if (!document.hidden) timer = setTimeout(poll, INTERVAL_MS);
}

// Shows the scenario, whether something is unsaved, and a call that takes long.
export function showStatus() {
  if (!last) return;
  const { scenario, modified, running } = last;
  const count = drafts();
  const isUnsaved = modified || count > 0;
  const loaded = document.getElementById("loaded");
  loaded.hidden = scenario === null && !isUnsaved;
  replace(loaded, [
    scenario ? el("span.name", scenario) : null,
    isUnsaved
      ? el(
          "span.badge.badge-modified",
          count ? `unsaved, ${count} ${count === 1 ? "draft" : "drafts"}` : "unsaved",
        )
      : null,
  ]);
  loaded.title = isUnsaved ? "The scenario has unsaved changes" : "The loaded scenario";
  const busy = document.getElementById("busy");
  const isLong = running && running.seconds >= LONG_SECONDS;
  busy.hidden = !isLong;
  busy.textContent = isLong ? `${running.function} runs for ${Math.round(running.seconds)} s` : "";
}

function showProblem(error) {
  const busy = document.getElementById("busy");
  busy.hidden = false;
  busy.textContent = error.message;
}
