// The last calls and parses. Their requests outlast a reload of the window, their responses do not.

const MAX_ENTRIES = 30;
const MAX_RESPONSES = 12;
const MAX_CHARACTERS = 20_000_000; // in the responses; the last two are always kept
const KEY = "recent";

export const recentChanges = new EventTarget();
let entries = read();

// The entries, the last first: { id, kind, name, body, label, at, outcome, response }.
export function recent() {
  return entries;
}

export function findRecent(id) {
  return entries.find((one) => one.id === id) ?? null;
}

// Adds an entry and returns it. An equal request moves to the front.
export function addRecent(entry) {
  const added = { ...entry, id: crypto.randomUUID(), at: Date.now() };
  entries = [added, ...entries].slice(0, MAX_ENTRIES);
  dropOldResponses();
  write();
  recentChanges.dispatchEvent(new Event("change"));
  return added;
}

// The last request of each kind of call, without repetitions.
export function distinctCalls(count) {
  const seen = new Map();
  for (const one of entries) {
    const key = `${one.name} ${JSON.stringify(one.body)}`;
    if (one.kind === "call" && !seen.has(key)) seen.set(key, one);
  }
  return [...seen.values()].slice(0, count);
}

function dropOldResponses() {
  let left = MAX_CHARACTERS;
  entries.forEach((one, index) => {
    left -= one.response?.result?.repr.length ?? 0;
    if (index >= MAX_RESPONSES || (index >= 2 && left < 0)) delete one.response;
  });
}

function read() {
  try {
    return JSON.parse(sessionStorage.getItem(KEY)) ?? [];
  } catch {
    return [];
  }
}

function write() {
  try {
    const kept = entries.filter((one) => one.kind === "call");
    const requests = kept.map(({ response: _, ...request }) => request);
    sessionStorage.setItem(KEY, JSON.stringify(requests));
  } catch {
    // Storage is disabled or full: the list lasts until the page is reloaded.
  }
}
