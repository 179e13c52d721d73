// Edits of replies that were not applied yet. They last until they are applied or discarded.

export const draftChanges = new EventTarget();
const drafts = new Map(); // name of the reply to { text, version }

export const draftOf = (name) => drafts.get(name) ?? null;
export const draftNames = () => [...drafts.keys()];

// Keeps an edit; `version` is that of the reply which it began from.
export function keepDraft(name, text, version) {
  const isNew = !drafts.has(name);
  drafts.set(name, { text, version });
  if (isNew) changed();
}

export function dropDraft(name) {
  if (drafts.delete(name)) changed();
}

export function dropDrafts() {
  drafts.clear();
  changed();
}

function changed() {
  draftChanges.dispatchEvent(new Event("change"));
}

window.addEventListener("beforeunload", (event) => drafts.size && event.preventDefault());
