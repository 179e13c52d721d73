// Shows an error response as a panel.
import { ApiError, isLate } from "./api.js";
import { announce, el, hint, replace } from "./dom.js";
import { visible } from "./text.js";

export function errorPanel(error) {
  if (!(error instanceof ApiError)) throw error; // a defect of the page
  const { status, line, column, file, at } = error.problem;
  const place = [file, line && `line ${line}`, column && `column ${column}`, at];
  const named = place.filter(Boolean).join(", ");
  announce(error.message);
  return el(
    "section.panel.exception",
    { role: "alert", "aria-label": "Error" },
    el("header", el("h2", status >= 500 ? "The console failed" : "Rejected")),
    el("p.message", visible(error.message)),
    named ? hint(visible(named)) : null,
  );
}

// Runs an action; its error response is shown in `element`, a response that is late nowhere.
// Returns whether the action succeeded.
export async function attempt(element, action) {
  try {
    replace(element);
    await action();
    return true;
  } catch (error) {
    if (!isLate(error)) replace(element, errorPanel(error));
    return false;
  }
}
