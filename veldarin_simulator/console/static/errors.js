// Shows an error response as a panel.
import { ApiError } from "./api.js";
import { announce, el, hint } from "./dom.js";

export function errorPanel(error) {
  if (!(error instanceof ApiError)) throw error; // a defect of the page
  const { status, line, file, at } = error.problem;
  const place = [file, line && `line ${line}`, at].filter(Boolean);
  announce(error.message);
  return el(
    "section.panel.exception",
    { role: "alert" },
    el("header", el("h2", status >= 500 ? "The console failed" : "Rejected")),
    el("p.message", error.message),
    place.length ? hint(place.join(", ")) : null,
  );
}
