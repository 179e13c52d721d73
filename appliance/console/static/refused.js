// A refusal of the interface, as a panel.
import { make } from "./dom.js";

export function refused(error) {
  const { status, line, column, file, at } = error.about ?? {};
  const where = [file, line && `line ${line}`, column && `column ${column}`, at].filter(Boolean).join(", ");
  return make(
    "section",
    { class: "panel raised", role: "alert" },
    make("header", {}, make("h2", {}, status >= 500 ? "The console failed" : "Refused")),
    make("p", { class: "message" }, error.message),
    where ? make("p", { class: "hint" }, where) : null,
  );
}
