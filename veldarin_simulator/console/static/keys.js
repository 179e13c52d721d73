// The keys that work everywhere on the page.
import { showDialog } from "./core/dialog.js";
import { el } from "./core/dom.js";

const HELP = [
  [
    "Find",
    [
      ["/", "Filter the functions"],
      ["Ctrl K", "Search functions, replies, calls"],
      ["↓ ↑", "Move through the list"],
      ["Enter", "Open; in a form, call"],
    ],
  ],
  [
    "Call",
    [
      ["c", "Call the function that is shown"],
      ["r", "Repeat the last call"],
      ["w", "Watch the function that is shown"],
      ["p", "Pause or resume a watch"],
    ],
  ],
  [
    "Edit",
    [
      ["Ctrl Enter", "Parse, or use the reply"],
      ["Ctrl S", "Save the scenario, with all drafts"],
    ],
  ],
  [
    "Go",
    [
      ["1 … 5", "Functions, Watch, Compare, Parse, Scenarios"],
      ["?", "Show these keys"],
      ["Esc", "Close a menu or dialog"],
    ],
  ],
];

// `actions` maps a key to a function; "Ctrl+k" is with Ctrl or Command.
export function handleKeys(actions) {
  document.addEventListener("keydown", (event) => {
    const hasControl = event.ctrlKey || event.metaKey;
    const isTyping = event.target.closest?.("input:not([type=checkbox]), textarea, select");
    if (event.altKey || event.repeat || document.querySelector("dialog[open]")) return;
    if (!hasControl && isTyping) return;
    const action = actions[hasControl ? `Ctrl+${event.key.toLowerCase()}` : event.key];
    if (action && action() !== false) event.preventDefault();
  });
}

export function showKeys() {
  const row = ([keys, what]) => [
    el(
      "dt",
      keys.split(" ").map((one) => el("kbd", one)),
    ),
    el("dd", what),
  ];
  const group = ([title, rows]) => el("section", el("h3", title), el("dl.keys", rows.map(row)));
  const api = el(
    "p.hint",
    "The page uses the ",
    el("a", { href: "/api/openapi.json" }, "HTTP interface"),
    ", described in OpenAPI 3.1.",
  );
  showDialog("Keys", [el("div.key-groups", HELP.map(group)), api]);
}
