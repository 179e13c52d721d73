// A text area with line numbers, in which a line can be marked.
import { area, el } from "../core/dom.js";

const LINE_HEIGHT = 20; // pixels, as in the style sheet

export function codeArea(label, value, onInput) {
  const numbers = el("pre.numbers", { "aria-hidden": "true" });
  const mark = el("div.line-mark", { hidden: true });
  const text = area(label, {
    class: "verbatim code",
    rows: "18",
    input: () => {
      clear();
      number();
      onInput(text.value);
    },
    scroll: () => follow(),
  });
  const element = el("div.code-area", el("div.gutter", mark, numbers), text);
  let lines = 0;
  let marked = null;
  const number = () => {
    const count = text.value.split("\n").length;
    if (count === lines) return;
    lines = count;
    numbers.textContent = Array.from({ length: count }, (_, index) => index + 1).join("\n");
    follow();
  };
  const follow = () => {
    numbers.style.transform = `translateY(${-text.scrollTop}px)`;
    if (marked)
      mark.style.transform = `translateY(${(marked - 1) * LINE_HEIGHT - text.scrollTop}px)`;
  };
  const clear = () => {
    marked = null;
    mark.hidden = true;
    text.removeAttribute("aria-invalid");
  };
  // Marks a line, selects it and scrolls to it.
  const markLine = (line) => {
    marked = line;
    mark.hidden = false;
    text.setAttribute("aria-invalid", "true");
    const all = text.value.split("\n");
    const start = all.slice(0, line - 1).reduce((sum, one) => sum + one.length + 1, 0);
    text.focus();
    text.setSelectionRange(start, start + (all[line - 1]?.length ?? 0));
    const top = (line - 1) * LINE_HEIGHT;
    const isVisible =
      top >= text.scrollTop && top < text.scrollTop + text.clientHeight - LINE_HEIGHT;
    if (!isVisible) text.scrollTop = Math.max(0, top - text.clientHeight / 2);
    follow();
  };
  const set = (next) => {
    text.value = next;
    clear();
    number();
  };
  set(value);
  return { element, text, markLine, clear, set };
}
