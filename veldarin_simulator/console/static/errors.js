// What went wrong with a request, as a panel. Any other error is the page's own, and goes on.
import { Refused } from "./api.js";
import { hint, make, say } from "./dom.js";

export function refused(error) {
  if (!(error instanceof Refused)) throw error;
  const { status, line, column, file, at } = error.about;
  const where = [file, line && `line ${line}`, column && `column ${column}`, at].filter(Boolean);
  say(error.message);
  return make(
    "section",
    { class: "panel raised", role: "alert" },
    make("header", {}, make("h2", {}, status >= 500 ? "The console failed" : "Refused")),
    make("p", { class: "message" }, error.message),
    where.length ? hint(where.join(", ")) : null,
  );
}
