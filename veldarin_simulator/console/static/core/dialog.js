// Dialogs: a question, a name to enter, a text to read.
import { button, el, field } from "./dom.js";

// Returns whether the person confirmed.
export function confirmDialog(title, text, action) {
  return open(title, [el("p", text)], action, () => true).then(Boolean);
}

// Returns the name that the person entered, or null.
export function nameDialog(title, label, value, action) {
  const input = field(label, { required: true, maxlength: "64" });
  input.value = value;
  const content = [el("label.stacked", label, input)];
  return open(title, content, action, () => input.value.trim() || null, input);
}

// Shows content until the person closes the dialog.
export function showDialog(title, content) {
  return open(title, content, null, () => null);
}

function open(title, content, action, result, focused) {
  return new Promise((resolve) => {
    const before = document.activeElement;
    const close = () => dialog.close();
    const submit = (event) => {
      event.preventDefault();
      value = result();
      close();
    };
    let value = null;
    const primary = action ? el("button.primary", { type: "submit" }, action) : null;
    const dismiss = button(action ? "Cancel" : "Close", close, action ? "button.quiet" : "button");
    const dialog = el(
      "dialog",
      { "aria-label": title },
      el("form", { submit }, el("h2", title), content, el("div.actions", primary, dismiss)),
    );
    dialog.addEventListener("close", () => {
      dialog.remove();
      if (before?.isConnected) before.focus();
      resolve(value);
    });
    dialog.addEventListener("click", (event) => event.target === dialog && close());
    document.body.append(dialog);
    dialog.showModal();
    (focused ?? primary ?? dismiss).focus();
    focused?.select();
  });
}
