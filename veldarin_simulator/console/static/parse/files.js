// Text from files that are chosen or dropped.
import { ApiError } from "../core/api.js";
import { button, el } from "../core/dom.js";

const MAX_BYTES = 1_000_000; // a request may be a little larger

// Reads a file as text. Throws `ApiError` if it is too large.
export async function readText(file) {
  if (file.size > MAX_BYTES) {
    const detail = `${file.name} is larger than ${MAX_BYTES} bytes: cut out the part of interest`;
    throw new ApiError({ detail });
  }
  return file.text();
}

// A button that lets a file be chosen.
export function fileButton(label, accept, onFile, selector = "button.quiet") {
  const input = el("input", { type: "file", accept, hidden: true, "aria-label": label });
  input.addEventListener("change", () => {
    if (input.files[0]) onFile(input.files[0]);
    input.value = "";
  });
  return [button(label, () => input.click(), selector), input];
}

// Calls `onFile(file)` for a file that is dropped on an element.
export function acceptDrop(element, onFile) {
  const mark = (isOver) => element.classList.toggle("drop", isOver);
  const handlers = {
    dragover: (event) => {
      event.preventDefault();
      mark(true);
    },
    dragleave: (event) => element.contains(event.relatedTarget) || mark(false),
    drop: (event) => {
      event.preventDefault();
      event.stopPropagation();
      mark(false);
      const [file] = event.dataTransfer.files;
      if (file) onFile(file);
    },
  };
  for (const [name, handler] of Object.entries(handlers)) element.addEventListener(name, handler);
}
