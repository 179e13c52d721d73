// The module's functions: loaded once, and searched by name and description.
import { get } from "./api.js";

let loading = null;

// Returns { subsystems, functions }, where each function names its subsystem.
export function functionIndex() {
  loading ??= get("/api/functions").then(
    ({ subsystems }) => ({
      subsystems,
      functions: subsystems.flatMap(({ title, functions }) =>
        functions.map((one) => ({ ...one, subsystem: title })),
      ),
    }),
    (error) => {
      loading = null;
      throw error;
    },
  );
  return loading;
}

// The functions that contain every word, those with all of them in the name first.
export function searchFunctions(functions, wanted) {
  const words = wanted
    .toLowerCase()
    .split(/[\s_]+/)
    .filter(Boolean);
  const rank = ({ name, summary, text, subsystem }) => {
    const texts = [name, summary, `${text} ${subsystem}`];
    let seen = "";
    for (const [index, one] of texts.entries()) {
      seen += ` ${one.toLowerCase().replaceAll("_", " ").replaceAll("-", " ")}`;
      const compact = `${seen} ${one.toLowerCase()}`;
      if (words.every((word) => compact.includes(word.replaceAll("-", " ")))) return index;
    }
    return -1;
  };
  return functions
    .map((one) => [rank(one), one])
    .filter(([rank]) => rank >= 0)
    .sort(([a], [b]) => a - b)
    .map(([, one]) => one);
}
