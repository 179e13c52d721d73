// Renders many rows in blocks, as they come into view.
import { el, replace } from "../core/dom.js";

const BLOCK = 50;
const MAX_WHOLE = 150; // rows that are rendered without blocks
const MARGIN = "600px 0px";

// Appends blocks to `parent`, which scrolls within `viewport`. `block(children)` makes a block,
// `spacer(height)` what holds the place of one, and `render(row, index)` an element or a list of
// them. Returns a function that stops watching the viewport.
export function appendRows(parent, viewport, rows, { block, spacer, render }) {
  if (rows.length <= MAX_WHOLE) {
    parent.append(block(rows.map(render)));
    return () => {};
  }
  const slice = (start) => rows.slice(start, start + BLOCK).map((row, i) => render(row, start + i));
  const first = block(slice(0));
  parent.append(first);
  const rowHeight = Math.max(20, first.offsetHeight / BLOCK);
  const parts = new Map();
  for (let start = BLOCK; start < rows.length; start += BLOCK) {
    const height = Math.min(BLOCK, rows.length - start) * rowHeight;
    parts.set(block(spacer(height)), { start, height, isShown: false });
  }
  parent.append(...parts.keys());
  const show = (element, isNear) => {
    const part = parts.get(element);
    if (isNear === part.isShown || element.contains(document.activeElement)) return;
    if (!isNear) part.height = element.offsetHeight;
    part.isShown = isNear;
    replace(element, isNear ? slice(part.start) : spacer(part.height));
  };
  const observer = new IntersectionObserver(
    (seen) => seen.forEach(({ target, isIntersecting }) => show(target, isIntersecting)),
    { root: viewport, rootMargin: MARGIN },
  );
  for (const element of parts.keys()) observer.observe(element);
  return () => observer.disconnect();
}

// The blocks and spacers of a table.
export function tableBlocks(columnCount) {
  return {
    block: (rows) => el("tbody", rows),
    spacer: (height) => {
      const cell = el("td", { colspan: String(columnCount) });
      cell.style.height = `${height}px`;
      return el("tr.spacer", { "aria-hidden": "true" }, cell);
    },
  };
}

export const DIV_BLOCKS = {
  block: (rows) => el("div", rows),
  spacer: (height) => {
    const element = el("div");
    element.style.height = `${height}px`;
    return element;
  },
};
